// The node as a daemon: its own session, one node per socket, replacement of a
// stale socket, the rights of its folder and socket, and refusal of other users.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

#include "NodeHarness.h"
#include "UniqueFd.h"

namespace hl::node::testing {
namespace {

mode_t modeOf(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) return 0;
    return info.st_mode & 07777;
}

TEST(NodeDaemonTest, DetachesInPlaceAndLeavesALiveNodeAlone) {
    NodeHarness node;
    // Its own session, under the pid it was started with.
    EXPECT_EQ(::getsid(node.pid()), node.pid());
    EXPECT_EQ(modeOf(node.folder()), 0700);
    EXPECT_EQ(modeOf(node.socketPath()), 0600);
    const auto id = node.createSession();

    // Several more nodes on the same socket at once: each one leaves at once, status 0.
    std::vector<pid_t> others;
    for (int i = 0; i < 3; ++i)
        others.push_back(startNode(node.socketPath()));
    for (pid_t other : others)
        EXPECT_EQ(waitForExit(other, 10s), 0);

    // The first one still answers, with its session.
    const auto ids = node.client().request("list_sessions")["session_ids"].arrayValue();
    ASSERT_TRUE(ids.has_value());
    ASSERT_EQ(ids->size(), 1u);
    EXPECT_EQ((*ids)[0].stringValue(), id);
    EXPECT_TRUE(node.closeSession(id));
}

TEST(NodeDaemonTest, ReplacesTheStaleSocketOfADeadNodeAndMakesOnlyItsOwnFoldersPrivate) {
    const std::string base = makeTemporaryFolder();
    const std::string folder = base + "/nested/run";
    const std::string socketPath = folder + "/node.sock";

    // A first node, killed without a chance to clean up, leaves its socket behind.
    pid_t first = startNode(socketPath);
    ASSERT_TRUE(nodeAnswers(socketPath));
    EXPECT_EQ(modeOf(base + "/nested"), 0700);
    EXPECT_EQ(modeOf(folder), 0700);
    ::kill(first, SIGKILL);
    waitForExit(first, 5s);
    ASSERT_EQ(std::filesystem::symlink_status(socketPath).type(),
              std::filesystem::file_type::socket);
    EXPECT_THROW(UnixSocketClient(socketPath).request("health"), NodeClientError);

    // An existing folder is not the node's: its mode stays as it is.
    ASSERT_EQ(::chmod(folder.c_str(), 0755), 0);
    pid_t second = startNode(socketPath);
    EXPECT_TRUE(nodeAnswers(socketPath));
    EXPECT_EQ(modeOf(folder), 0755);
    EXPECT_EQ(modeOf(socketPath), 0600);
    stopNode(second);

    // A file that is no socket is never deleted: the node refuses to start.
    ::unlink(socketPath.c_str());
    { std::ofstream(socketPath) << "precious"; }
    pid_t third = startNode(socketPath);
    EXPECT_EQ(waitForExit(third, 10s), 1);
    EXPECT_EQ(std::filesystem::file_size(socketPath), 8u);
    std::filesystem::remove_all(base);
}

TEST(NodeDaemonTest, StoppingEndsEveryProcessOfEverySessionAfterTheGrace) {
    NodeHarness node;
    const auto id = node.createSession();
    node.type(id, "(trap '' HUP; exec sleep 1001) & printf 'Q%s\\n' $!\n");
    const auto out = node.pollUntil(id,
                                    [](const PollResult& r) {
                                        return std::regex_search(r.output, std::regex("Q[0-9]+"));
                                    })
                         .output;
    std::smatch match;
    ASSERT_TRUE(std::regex_search(out, match, std::regex("Q([0-9]+)")));
    const pid_t stubborn = static_cast<pid_t>(std::stol(match[1]));
    ASSERT_FALSE(processIsGone(stubborn));

    ::kill(node.pid(), SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!processIsGone(node.pid()) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(20ms);
    // The node has sent its late SIGKILL before it left.
    const auto after = std::chrono::steady_clock::now() + 2s;
    while (!processIsGone(stubborn) && std::chrono::steady_clock::now() < after)
        std::this_thread::sleep_for(20ms);
    EXPECT_TRUE(processIsGone(stubborn));
}

// The first number printed after the marker, as in "Q1234".
pid_t numberAfter(const std::string& output, const std::string& marker) {
    std::smatch match;
    if (!std::regex_search(output, match, std::regex(marker + "([0-9]+)"))) return -1;
    return static_cast<pid_t>(std::stol(match[1]));
}

bool allGone(const std::vector<pid_t>& pids, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (std::all_of(pids.begin(), pids.end(), processIsGone)) return true;
        std::this_thread::sleep_for(20ms);
    }
    return false;
}

TEST(NodeDaemonTest, TheNextNodeEndsWhatANodeKilledOutrightLeftRunning) {
    NodeHarness node;
    const auto id = node.createSession();
    node.type(id,
              "trap '' HUP; (trap '' HUP; exec sleep 1001) & printf 'Q%s\\n' $!; "
              "nohup sleep 1002 >/dev/null 2>&1 & printf 'N%s\\n' $!; printf 'S%s\\n' $$\n");
    const auto out = node.pollUntil(id,
                                    [](const PollResult& r) {
                                        return std::regex_search(r.output, std::regex("S[0-9]+"));
                                    })
                         .output;
    const std::vector<pid_t> session = {numberAfter(out, "S"), numberAfter(out, "Q"),
                                        numberAfter(out, "N")};
    for (pid_t pid : session)
        ASSERT_GT(pid, 0) << out;

    // The record is private, and names the shell.
    const std::string place = node.socketPath() + ".sessions";
    EXPECT_EQ(modeOf(place), 0700);
    std::vector<std::string> records;
    for (const auto& entry : std::filesystem::directory_iterator(place))
        records.push_back(entry.path().filename());
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].rfind(std::to_string(session[0]) + ".", 0), 0u) << records[0];
    EXPECT_EQ(modeOf(place + "/" + records[0]), 0600);

    // A process of the same user whose pid a stale record names (another start
    // time: the pid was reused) is never touched.
    const pid_t bystander = ::fork();
    if (bystander == 0) {
        ::setsid();
        ::execlp("sleep", "sleep", "1003", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    { std::ofstream(place + "/" + std::to_string(bystander) + ".1"); }

    ::kill(node.pid(), SIGKILL);
    waitForExit(node.pid(), 5s);
    std::this_thread::sleep_for(500ms);
    EXPECT_FALSE(processIsGone(session[1])) << "a job ignoring the hang-up";
    EXPECT_FALSE(processIsGone(session[2])) << "a nohup job";

    const pid_t next = startNode(node.socketPath());
    ASSERT_TRUE(nodeAnswers(node.socketPath()));
    EXPECT_TRUE(allGone(session, 10s));
    EXPECT_FALSE(processIsGone(bystander));
    // Once the kills are sent, no record is left.
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (!std::filesystem::is_empty(place) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(20ms);
    EXPECT_TRUE(std::filesystem::is_empty(place));
    stopNode(next);
    ::kill(bystander, SIGKILL);
    waitForExit(bystander, 5s);
}

TEST(NodeDaemonTest, RefusesAnotherUserWithoutAReply) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "changing to another uid needs root; this test runs as uid " << ::geteuid();
    }
    // A shared folder (sticky, world-writable) is left as it is, so the only
    // guard left is the check of the peer's credentials.
    const std::string folder = makeTemporaryFolder();
    ASSERT_EQ(::chmod(folder.c_str(), 01777), 0);
    const std::string socketPath = folder + "/node.sock";
    const pid_t node = startNode(socketPath);
    ASSERT_TRUE(nodeAnswers(socketPath));
    EXPECT_EQ(modeOf(folder), 01777);
    ASSERT_EQ(::chmod(socketPath.c_str(), 0666), 0);

    const pid_t child = ::fork();
    if (child == 0) {
        // 0: connected and got nothing; 1: could not change uid; 2: could not
        // connect; 3: got a reply.
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(1);
        UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
        if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            ::_exit(2);
        const char request[] = "{\"version\":1,\"op\":\"health\",\"data\":{}}\n";
        [[maybe_unused]] auto sent = ::send(fd.get(), request, sizeof request - 1, MSG_NOSIGNAL);
        char reply[256];
        ::_exit(::read(fd.get(), reply, sizeof reply) > 0 ? 3 : 0);
    }
    const int status = waitForExit(child, 10s);
    if (status == 1) {
        stopNode(node);
        std::filesystem::remove_all(folder);
        GTEST_SKIP() << "cannot change to uid 65534 here";
    }
    EXPECT_EQ(status, 0) << "2: could not connect, 3: the node replied";
    EXPECT_TRUE(nodeAnswers(socketPath, 1s));
    stopNode(node);
    std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace hl::node::testing
