// The exchange of a candidate snapshot against a scripted fake of the two record
// operations: moved tags and invalid candidates, which the real stand-ins cannot
// be made to show on demand.
#include <gtest/gtest.h>

#include <deque>

#include "SharedSnapshotCodec.h"
#include "SharedSnapshotTestSupport.h"
#include "SharedStateTransport.h"

using hl::SharedSnapshot;
using hl::SharedSnapshotCodec;
using hl::SharedStateError;
using namespace hl::test;

namespace {

// A record in memory whose saves can be made to find the tag moved.
class FakeRecordTransport : public hl::RecordSharedStateTransport {
  public:
    std::optional<hl::SharedStateRecord> record;
    std::deque<std::optional<hl::SharedStateRecord>> movedRecords;  // taken by the failing saves
    int failingSaves = 0;
    int reads = 0;
    int attempts = 0;
    int openAttempts = 0;
    std::vector<std::optional<QByteArray>> savedWithTags;

    bool isConfigured() const override { return true; }
    bool accountIsAvailable() override { return true; }

  protected:
    std::optional<hl::SharedStateRecord> readRecord() override {
        ++reads;
        return record;
    }
    SaveOutcome writeRecord(const QByteArray& payload,
                            const std::optional<QByteArray>& expectedTag) override {
        savedWithTags.push_back(expectedTag);
        if (failingSaves > 0) {
            --failingSaves;
            if (!movedRecords.empty()) {
                record = movedRecords.front();
                movedRecords.pop_front();
            }
            return SaveOutcome::TagMoved;
        }
        record = hl::SharedStateRecord{payload, "t" + QByteArray::number(savedWithTags.size() + 1)};
        return SaveOutcome::Saved;
    }
    void beginAttempt() override {
        ++attempts;
        ++openAttempts;
    }
    void endAttempt() noexcept override { --openAttempts; }
};

SharedStateError::Kind errorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const SharedStateError& error) {
        return error.kind();
    }
    ADD_FAILURE() << "no SharedStateError";
    return SharedStateError::Kind::NotConfigured;
}

}  // namespace

TEST(RecordExchangeTest, AMovedTagStartsTheNextAttemptUpToThree) {
    const SharedSnapshot candidate = snapshotAt(3000);
    FakeRecordTransport twice;
    twice.failingSaves = 2;
    EXPECT_EQ(twice.exchange(candidate), candidate);
    EXPECT_EQ(twice.reads, 3);
    EXPECT_EQ(twice.attempts, 3);

    FakeRecordTransport always;
    always.failingSaves = 3;
    EXPECT_EQ(errorOf([&] { always.exchange(candidate); }), SharedStateError::Kind::CloudConflict);
    EXPECT_EQ(always.reads, 3);
    EXPECT_EQ(always.openAttempts, 0);

    // The second attempt's read shows a newer snapshot: it wins.
    FakeRecordTransport overtaken;
    const SharedSnapshot newer = snapshotAt(9000);
    overtaken.failingSaves = 1;
    overtaken.movedRecords.push_back(
        hl::SharedStateRecord{SharedSnapshotCodec::encode(newer), "t9"});
    EXPECT_EQ(overtaken.exchange(candidate), newer);
    EXPECT_EQ(overtaken.savedWithTags.size(), 1u);
}

TEST(RecordExchangeTest, AnInvalidCandidateFailsBeforeAnyRead) {
    FakeRecordTransport transport;
    hl::SharedContent content = sampleContent();
    content.projects[0].name = QString(900'000, u'x');
    EXPECT_EQ(errorOf([&] { transport.exchange(SharedSnapshot(QUuid::createUuid(), content)); }),
              SharedStateError::Kind::TooLarge);
    content = sampleContent();
    content.workspaces[0].projectID = "nobody";
    EXPECT_EQ(errorOf([&] { transport.exchange(SharedSnapshot(QUuid::createUuid(), content)); }),
              SharedStateError::Kind::InvalidWorkspace);
    EXPECT_EQ(transport.reads, 0);
}
