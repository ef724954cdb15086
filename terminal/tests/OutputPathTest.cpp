// The output path's parts on their own: base64, the batcher's arithmetic at its
// edges, the polling token's wakes, and the history's caps and repaint.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "Base64.h"
#include "PollingToken.h"
#include "TerminalController.h"
#include "TerminalOutputBatcher.h"
#include "TerminalTestSupport.h"

using namespace std::chrono_literals;
using hl::TerminalController;
using hl::TerminalOutputBatcher;
using hl::test::b64;
using hl::test::unb64;

namespace {

std::string pattern(std::size_t size, char seed = 0) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 131 + seed) & 0xFF);
    return bytes;
}

TEST(TerminalOutputBatcher, ShortBurstLeavesOnAnIdlePollOrAtTheLatencyEdge) {
    TerminalOutputBatcher batcher;
    EXPECT_TRUE(batcher.ingest(b64("ls\r\n"), 1000).empty());
    EXPECT_EQ(batcher.firstByteAtMilliseconds(), 1000u);
    // The idle poll releases it however little time has passed.
    auto batches = batcher.ingest(std::nullopt, 1001);
    ASSERT_EQ(batches.size(), 1u);
    EXPECT_EQ(unb64(batches[0]), "ls\r\n");
    EXPECT_FALSE(batcher.firstByteAtMilliseconds().has_value());
    EXPECT_TRUE(batcher.ingest(std::string(), 1002).empty());

    EXPECT_TRUE(batcher.ingest(b64("a"), 2000).empty());
    EXPECT_TRUE(batcher.ingest(b64("b"), 2089).empty());
    EXPECT_TRUE(batcher.ingest(b64("c"), 1999).empty());  // clock went back: no flush
    batches = batcher.ingest(b64("d"), 2090);
    ASSERT_EQ(batches.size(), 1u);
    EXPECT_EQ(unb64(batches[0]), "abcd");
}

TEST(TerminalOutputBatcher, FullBatchesLeaveAtOnceAndTheRestKeepsItsTime) {
    TerminalOutputBatcher batcher;
    const auto exact = pattern(131072);
    auto batches = batcher.ingest(b64(exact), 5);
    ASSERT_EQ(batches.size(), 1u);
    EXPECT_EQ(unb64(batches[0]), exact);
    EXPECT_TRUE(batcher.buffered().empty());
    EXPECT_FALSE(batcher.firstByteAtMilliseconds().has_value());

    const auto flood = pattern(262145, 3);
    batches = batcher.ingest(b64(flood), 10);
    ASSERT_EQ(batches.size(), 2u);
    EXPECT_EQ(unb64(batches[0]) + unb64(batches[1]), flood.substr(0, 262144));
    EXPECT_EQ(batcher.buffered(), flood.substr(262144));
    EXPECT_EQ(batcher.firstByteAtMilliseconds(), 10u);
    // More output keeps the time of the oldest byte.
    EXPECT_TRUE(batcher.ingest(b64("x"), 60).empty());
    batches = batcher.ingest(b64("y"), 100);
    ASSERT_EQ(batches.size(), 1u);
    EXPECT_EQ(unb64(batches[0]), flood.substr(262144) + "xy");
}

TEST(TerminalOutputBatcher, InvalidOutputIsDroppedAndTouchesNothing) {
    TerminalOutputBatcher batcher(90, 4);
    EXPECT_TRUE(batcher.ingest(b64("ab"), 10).empty());
    EXPECT_TRUE(batcher.ingest(std::string("!!not base64"), 500).empty());
    EXPECT_EQ(batcher.buffered(), "ab");
    EXPECT_EQ(batcher.firstByteAtMilliseconds(), 10u);
    const auto batches = batcher.ingest(b64("cdefghi"), 20);  // small maximum
    ASSERT_EQ(batches.size(), 2u);
    EXPECT_EQ(unb64(batches[0]), "abcd");
    EXPECT_EQ(unb64(batches[1]), "efgh");
    EXPECT_EQ(batcher.flush().size(), 1u);
    EXPECT_TRUE(batcher.flush().empty());
}

TEST(TerminalOutputBatcherDeathTest, RefusesZeroLatencyOrSize) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(TerminalOutputBatcher(0, 10), "positive");
    EXPECT_DEATH(TerminalOutputBatcher(10, 0), "positive");
}

TEST(PollingToken, WakesAreKeptAndCancelEndsTheSleep) {
    hl::PollingToken token;
    token.wake();
    token.wake();
    const auto begin = std::chrono::steady_clock::now();
    token.wait(30s);
    token.wait(30s);  // two wakes shorten two sleeps
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 20s);

    std::thread canceller([&] {
        std::this_thread::sleep_for(20ms);
        token.cancel();
    });
    token.wait(30s);
    canceller.join();
    EXPECT_TRUE(token.isCancelled());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 20s);
}

TEST(PollingToken, CancelInterruptsABlockingPollOnceItIsRegistered) {
    hl::PollingToken token;
    int interrupts = 0;
    token.setInterrupt([&] { ++interrupts; });
    token.setInterrupt({});  // the poll is over: a cancel now reaches nothing
    token.cancel();
    EXPECT_EQ(interrupts, 0);
    // A poll that starts after the cancel is interrupted at once.
    token.setInterrupt([&] { ++interrupts; });
    EXPECT_EQ(interrupts, 1);
    token.cancel();
    EXPECT_EQ(interrupts, 2);
}

// The history, fed directly on the main thread.
class HistoryTest : public ::testing::Test {
  protected:
    HistoryTest() {
        node_ = std::make_shared<hl::test::ScriptedTransport>();
        // A directory that is never ready: the controller sends nothing.
        hl::TerminalControllerHooks hooks;
        hooks.ensureNodeRunning = [] {};
        controller_ = std::make_unique<TerminalController>(
            std::nullopt, "/w", false, true, true, [] { return false; }, "unavailable", "blocked",
            node_, hooks);
    }
    std::string history() const {
        std::string joined;
        for (const auto& chunk : controller_->rendererHistory())
            joined += unb64(chunk);
        return joined;
    }
    std::shared_ptr<hl::test::ScriptedTransport> node_;
    std::unique_ptr<TerminalController> controller_;
};

TEST_F(HistoryTest, WholeChunksAreDroppedOldestFirstAndOneHugeOutputKeepsItsTail) {
    const std::size_t mebibyte = 1024 * 1024;
    std::vector<std::string> chunks;
    for (char i = 0; i < 5; ++i)
        chunks.push_back(pattern(mebibyte, i));
    for (int i = 0; i < 4; ++i)
        controller_->retain(b64(chunks[i]));
    EXPECT_EQ(controller_->rendererHistory().size(), 4u);
    controller_->retain(b64(chunks[4]));
    ASSERT_EQ(controller_->rendererHistory().size(), 4u);
    EXPECT_EQ(controller_->rendererHistoryBytes(), 4 * static_cast<std::int64_t>(mebibyte));
    EXPECT_EQ(unb64(controller_->rendererHistory().front()), chunks[1]);

    // One byte more drops a whole chunk, leaving the history well under the cap.
    controller_->retain(b64("z"));
    EXPECT_EQ(controller_->rendererHistoryBytes(), 3 * static_cast<std::int64_t>(mebibyte) + 1);
    controller_->retain("%%%");
    controller_->retain("");
    EXPECT_EQ(controller_->rendererHistory().size(), 4u);

    // One output past the cap replaces everything with its last four mebibytes
    // (one byte over whole periods of the pattern, so that its head differs).
    const auto huge = pattern(5 * mebibyte + 1);
    controller_->retain(b64(huge));
    ASSERT_EQ(controller_->rendererHistory().size(), 1u);
    EXPECT_EQ(controller_->rendererHistoryBytes(), TerminalController::maximumHistoryBytes);
    EXPECT_EQ(history(), huge.substr(huge.size() - TerminalController::maximumHistoryBytes));
}

TEST_F(HistoryTest, ReplayReplacesHistoryAndSurfaceAndAFreshSurfaceIsRepainted) {
    hl::test::RecordingSurface first;
    controller_->setSurface(&first);
    ASSERT_EQ(first.replays.size(), 1u);  // empty history still repaints
    EXPECT_EQ(first.replays[0], "");
    EXPECT_EQ(first.focusCount, 0);

    controller_->receive(b64("one "));
    controller_->receive(b64("two "));
    EXPECT_EQ(first.writes, (std::vector<std::string>{"one ", "two "}));
    controller_->receiveReplay(b64("replayed "));
    EXPECT_EQ(first.replays.back(), "replayed ");
    EXPECT_EQ(history(), "replayed ");
    controller_->receiveReplay("not base64!");  // ignored
    controller_->receive(b64("three"));
    EXPECT_EQ(history(), "replayed three");

    // A new surface gets the whole history as one replay, and focus if wanted.
    controller_->requestFocus();
    hl::test::RecordingSurface second;
    controller_->setSurface(&second);
    EXPECT_EQ(second.replays, std::vector<std::string>{"replayed three"});
    EXPECT_EQ(second.focusCount, 1);

    // An empty replay empties the history.
    controller_->receiveReplay("");
    EXPECT_TRUE(controller_->rendererHistory().empty());
    EXPECT_EQ(controller_->rendererHistoryBytes(), 0);
    EXPECT_EQ(second.replays.back(), "");
    EXPECT_TRUE(node_->operations().empty());
    controller_->close();
}

}  // namespace
