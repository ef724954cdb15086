// The exchange of a candidate snapshot against a record in memory: a tag that
// moves at every save, and invalid candidates, which the real stand-ins cannot
// be made to show on demand.
#include <gtest/gtest.h>

#include "MemoryRecordTransport.h"
#include "SharedSnapshotTestSupport.h"

using hl::SharedSnapshot;
using hl::SharedStateError;
using namespace hl::test;

TEST(RecordExchangeTest, AMovedTagStartsTheNextAttemptUpToThree) {
    const SharedSnapshot candidate = snapshotAt(3000);
    MemoryRecordTransport twice;
    twice.failingSaves = 2;
    EXPECT_EQ(twice.exchange(candidate), candidate);
    EXPECT_EQ(twice.reads, 3);
    EXPECT_EQ(twice.attempts, 3);

    MemoryRecordTransport always;
    always.failingSaves = 3;
    EXPECT_EQ(errorKind<SharedStateError>([&] { always.exchange(candidate); }),
              SharedStateError::Kind::CloudConflict);
    EXPECT_EQ(always.reads, 3);
    EXPECT_EQ(always.openAttempts, 0);
}

TEST(RecordExchangeTest, AnInvalidCandidateFailsBeforeAnyRead) {
    MemoryRecordTransport transport;
    auto kindFor = [&](const hl::SharedContent& content) {
        return errorKind<SharedStateError>(
            [&] { transport.exchange(SharedSnapshot(QUuid::createUuid(), content)); });
    };
    hl::SharedContent content = sampleContent();
    content.projects[0].name = QString(900'000, u'x');
    EXPECT_EQ(kindFor(content), SharedStateError::Kind::TooLarge);
    content = sampleContent();
    content.workspaces[0].projectID = "nobody";
    EXPECT_EQ(kindFor(content), SharedStateError::Kind::InvalidWorkspace);
    EXPECT_EQ(transport.reads, 0);
}
