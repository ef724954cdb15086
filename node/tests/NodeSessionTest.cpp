// Real shells in real pseudo-terminals, held by a real node: echo and terminal
// modes, large and slow output without loss across full replies, a shell that
// nobody polls, the end of a shell, many sessions, concurrent clients of one
// session, and the end of every process of a closed session.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>
#include <vector>

#include "Base64.h"
#include "NodeHarness.h"
#include "Reply.h"
#include "Session.h"

namespace hl::node::testing {
namespace {

// Where the command's output can begin: past the shell's own echo of the command
// line (the last one; the terminal may have echoed it once before the shell read it).
std::size_t afterCommand(const std::string& output, const std::string& command) {
    const auto echoed = output.rfind(command, 4096);
    if (echoed == std::string::npos) return 0;
    const auto lineEnd = output.find("\r\n", echoed);
    return lineEnd == std::string::npos ? output.size() : lineEnd + 2;
}

TEST(NodeSessionTest, EchoesTypedInputAndAppliesTheTerminalSize) {
    NodeHarness node;
    const auto id = node.createSession();
    node.type(id, "echo $((40+2)) \"$TERM\" \"$COLORTERM\" \"$PWD\"\n");
    const std::string expected = "42 xterm-256color truecolor " + node.folder();
    EXPECT_NE(node.pollUntilContains(id, expected).output.find(expected), std::string::npos);

    node.client().request("resize", {{"session_id", id}, {"cols", 100}, {"rows", 40}});
    node.type(id, "printf 'S%s\\n' \"$(stty size)\"\n");
    EXPECT_NE(node.pollUntilContains(id, "S40 100").output.find("S40 100"), std::string::npos);

    // The shell leads its own session on its terminal, and what it runs starts
    // with no signal ignored or blocked (the node ignores SIGHUP and SIGPIPE).
    node.type(id, "printf 'S%s\\n' $$; grep -E '^Sig(Blk|Ign)' /proc/self/status\n");
    const auto out = node.pollUntilContains(id, "SigIgn:").output;
    EXPECT_NE(out.find("SigBlk:\t0000000000000000"), std::string::npos) << out;
    EXPECT_NE(out.find("SigIgn:\t0000000000000000"), std::string::npos) << out;
    const pid_t shell = numberAfter(out, "S");
    ASSERT_GT(shell, 0);
    std::ifstream stat("/proc/" + std::to_string(shell) + "/stat");
    std::string line;
    std::getline(stat, line);
    long session = 0, terminal = 0;
    ASSERT_EQ(std::sscanf(line.c_str() + line.rfind(')') + 1, " %*c %*d %*d %ld %ld", &session,
                          &terminal),
              2);
    EXPECT_EQ(session, shell);
    EXPECT_NE(terminal, 0);

    // The modes of a real terminal, UTF-8 erasing included, and the user's own
    // open-file limit rather than the node's raised one.
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    node.type(id, "stty -a; printf 'L%s\\n' $(ulimit -n)\n");
    const auto modes = node.pollUntilNumberAfter(id, "L").output;
    EXPECT_TRUE(std::regex_search(modes, std::regex("[^-]iutf8"))) << modes;
    EXPECT_NE(modes.find("erase = ^?"), std::string::npos) << modes;
    for (const std::string mode : {"icanon", "echo", "isig", "icrnl", "onlcr", "iexten"})
        EXPECT_TRUE(std::regex_search(modes, std::regex("[\\s;]" + mode + "[\\s;]"))) << mode;
    EXPECT_EQ(numberAfter(modes, "L"), static_cast<pid_t>(limit.rlim_cur));
    EXPECT_TRUE(node.closeSession(id));
}

TEST(NodeSessionTest, AShellNobodyPollsRunsOnAndKeepsTheTailForARepaint) {
    NodeHarness node;
    const auto id = node.createSession();
    // Far more than pending holds; with nobody polling the writer must not stall.
    node.type(id, "head -c 60000000 /dev/zero | tr '\\0' x; printf 'D%s\\n' one > finished\n");
    const std::string finished = node.folder() + "/finished";
    const auto deadline = std::chrono::steady_clock::now() + 90s;
    while (!std::filesystem::exists(finished) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(200ms);
    ASSERT_TRUE(std::filesystem::exists(finished)) << "the shell stalled without a reader";

    // The next poll gets what it missed, as far as the tail reaches; a repaint
    // finds the newest output too, and flow control is back.
    const auto missed = node.poll(id).output.size();  // and perhaps the next prompt
    EXPECT_GE(missed, Session::tailLimit);
    EXPECT_LE(missed, Session::tailLimit + 4096);
    const auto replay = node.client().request(
        "replay_session", {{"session_id", id}, {"expected_cwd", node.folder()}});
    const auto tail = base64::decode(replay["output_base64"].stringValue().value_or(""));
    ASSERT_TRUE(tail.has_value());
    EXPECT_EQ(tail->size(), Session::tailLimit);
    node.type(id, "printf 'A%s\\n' gain\n");
    EXPECT_NE(node.pollUntilContains(id, "Again").output.find("Again"), std::string::npos);
    EXPECT_TRUE(node.closeSession(id));
}

// Replies that each carry as much as one may, and nothing lost or torn at their seams.
TEST(NodeSessionTest, SlowPollingLosesNothingWhileTheWriterIsHeldBack) {
    NodeHarness node;
    const auto id = node.createSession();
    // About 15 MB through the terminal: more than the pending output may hold.
    const int count = 1'700'000;
    static_assert(700'001 * 9 + 900'000 * 8 >
                  Session::pendingLimit);  // the six- and seven-digit lines alone
    node.type(id, "seq 1 " + std::to_string(count) + "; printf 'E%s\\n' ND\n");
    std::size_t polled = 0, largest = 0;
    const auto all = node.pollUntil(
        id,
        [&](const PollResult& r) {
            largest = std::max(largest, r.output.size() - polled);
            polled = r.output.size();
            // A slow client, slowest before its first output: pending fills past one reply.
            std::this_thread::sleep_for(polled == 0 ? 2s : 100ms);
            return r.output.find("END") != std::string::npos;
        },
        60s);
    ASSERT_NE(all.output.find("END"), std::string::npos);
    EXPECT_EQ(largest, maximumOutputPerReply);

    const auto start = all.output.find("1\r\n2\r\n", afterCommand(all.output, "seq 1 "));
    ASSERT_NE(start, std::string::npos) << all.output.substr(0, 400);
    int expected = 1;
    std::size_t at = start;
    while (expected <= count) {
        const auto end = all.output.find("\r\n", at);
        ASSERT_NE(end, std::string::npos) << "output ends after " << expected - 1;
        ASSERT_EQ(all.output.compare(at, end - at, std::to_string(expected)), 0)
            << "line " << expected << " is " << all.output.substr(at, end - at);
        at = end + 2;
        ++expected;
    }
    EXPECT_TRUE(node.closeSession(id));
}

TEST(NodeSessionTest, AnExitedShellIsReportedAfterItsOutputAndKeptUntilClosed) {
    NodeHarness node;
    const auto id = node.createSession();
    node.type(id, "printf 'B%s\\n' ye; exit 3\n");
    const auto all = node.pollUntil(id, [](const PollResult& r) { return r.exited; });
    ASSERT_TRUE(all.exited);
    EXPECT_NE(all.output.find("Bye"), std::string::npos);

    // Still listed and replayable, and a poll keeps saying it has exited.
    const auto ids = node.client().request("list_sessions")["session_ids"].arrayValue();
    ASSERT_EQ(ids->size(), 1u);
    EXPECT_EQ((*ids)[0].stringValue(), id);
    const auto replay = node.client().request(
        "replay_session", {{"session_id", id}, {"expected_cwd", node.folder()}});
    EXPECT_EQ(replay["exited"].boolValue(), true);
    EXPECT_NE(base64::decode(*replay["output_base64"].stringValue())->find("Bye"),
              std::string::npos);
    EXPECT_TRUE(node.poll(id).exited);
    try {
        node.type(id, "more\n");
        ADD_FAILURE() << "input to an exited session was accepted";
    } catch (const NodeClientError& error) {
        EXPECT_EQ(error.daemonText(), "session has exited");
    }
    EXPECT_TRUE(node.closeSession(id));
    EXPECT_EQ(node.client().request("list_sessions")["session_ids"].arrayValue()->size(), 0u);
}

TEST(NodeSessionTest, HoldsFiftySessionsAtOnce) {
    NodeHarness node;
    constexpr int sessions = 50;
    std::vector<std::string> ids(sessions);
    std::vector<std::thread> creators;
    for (int t = 0; t < 5; ++t) {
        creators.emplace_back([&, t] {
            for (int i = t; i < sessions; i += 5)
                ids[i] = node.createSession();
        });
    }
    for (auto& creator : creators)
        creator.join();
    for (int i = 0; i < sessions; ++i)
        node.type(ids[i], "echo $((1000+" + std::to_string(i) + "))\n");
    for (int i = 0; i < sessions; ++i) {
        const std::string expected = std::to_string(1000 + i);
        EXPECT_NE(node.pollUntilContains(ids[i], expected).output.find(expected),
                  std::string::npos);
    }
    EXPECT_EQ(node.client().request("list_sessions")["session_ids"].arrayValue()->size(),
              static_cast<std::size_t>(sessions));
    for (const auto& id : ids)
        EXPECT_TRUE(node.closeSession(id));
}

TEST(NodeSessionTest, ServesConcurrentPollsAndInputsOnOneSession) {
    NodeHarness node;
    const auto id = node.createSession();
    constexpr int writers = 4, linesEach = 25;
    std::atomic<bool> done{false}, finished{false};
    std::string polled;  // the poller's own until it has been joined
    std::thread poller([&] {
        while (!done) {
            polled += node.poll(id).output;
            if (polled.find("FINISHED") != std::string::npos) finished = true;
        }
    });
    std::thread pollerTwo([&] {
        // A second poller only competes; what it takes is not lost, it is counted below.
        while (!done)
            node.client().request("list_sessions");
    });
    std::vector<std::thread> typists;
    for (int t = 0; t < writers; ++t) {
        typists.emplace_back([&, t] {
            for (int k = 0; k < linesEach; ++k) {
                node.type(
                    id, "printf 'M%s-%s\\n' " + std::to_string(t) + " " + std::to_string(k) + "\n");
            }
        });
    }
    for (auto& typist : typists)
        typist.join();
    node.type(id, "printf 'F%s\\n' INISHED\n");
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(20ms);
        if (finished) break;
    }
    done = true;
    poller.join();
    pollerTwo.join();
    for (int t = 0; t < writers; ++t) {
        for (int k = 0; k < linesEach; ++k) {
            const std::string marker = "M" + std::to_string(t) + "-" + std::to_string(k) + "\r\n";
            EXPECT_NE(polled.find(marker), std::string::npos) << marker;
        }
    }
    EXPECT_TRUE(node.closeSession(id));
}

TEST(NodeSessionTest, CloseEndsBackgroundJobsEvenThoseThatIgnoreHangUp) {
    NodeHarness node;
    const auto id = node.createSession();
    node.type(id, "sleep 1000 & printf 'P%s\\n' $!\n");
    node.type(id, "(trap '' HUP; exec sleep 1001) & printf 'Q%s\\n' $!\n");
    node.type(id, "printf 'S%s\\n' $$\n");
    const auto out = node.pollUntilNumberAfter(id, "S").output;
    const pid_t job = numberAfter(out, "P"), stubborn = numberAfter(out, "Q"),
                shell = numberAfter(out, "S");
    ASSERT_GT(job, 0);
    ASSERT_GT(stubborn, 0);
    ASSERT_GT(shell, 0);
    EXPECT_FALSE(processIsGone(job));
    EXPECT_FALSE(processIsGone(stubborn));

    EXPECT_TRUE(node.closeSession(id));
    EXPECT_TRUE(allGone({shell, job, stubborn}, 10s));
}

}  // namespace
}  // namespace hl::node::testing
