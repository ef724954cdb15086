// The composer's rules: when an idea may be queued, its byte counter, and what
// Control+Return does.
#include <gtest/gtest.h>

#include "IdeaComposerRules.h"

using hl::IdeaComposerShortcut;

TEST(IdeaComposerRulesTest, QueueingNeedsTextAndCountsTheUntrimmedBytes) {
    EXPECT_FALSE(hl::canQueueIdea(" \n\t\u2028 "));
    EXPECT_TRUE(hl::canQueueIdea(QString(4000, QChar(0xe9))));  // 8000 UTF-8 bytes
    EXPECT_FALSE(hl::canQueueIdea(QString(4000, QChar(0xe9)) + "a"));
    // The trimmed text would fit, the typed one does not.
    EXPECT_FALSE(hl::canQueueIdea(QString(7999, 'a') + "  "));
    EXPECT_EQ(hl::ideaByteCounter(QString::fromUtf8("é é")), "5/8000 bytes");
}

TEST(IdeaComposerRulesTest, ControlReturnQueuesAndOtherChordsAreLeftToTheField) {
    int queued = 0;
    const auto queue = [&] { ++queued; };
    using S = IdeaComposerShortcut;
    EXPECT_EQ(S::handleReturn(S::control | S::capsLock, true, queue), S::Result::handled);
    EXPECT_EQ(queued, 1);
    EXPECT_EQ(S::handleReturn(S::control, false, queue), S::Result::handled);
    EXPECT_EQ(queued, 1);
    for (unsigned other : {0u, unsigned(S::command), unsigned(S::shift), unsigned(S::capsLock),
                           unsigned(S::control | S::shift), unsigned(S::control | S::option)}) {
        EXPECT_EQ(S::handleReturn(other, true, queue), S::Result::ignored) << other;
    }
    EXPECT_EQ(queued, 1);
}
