// The node as a daemon: its own session, one node per socket, replacement of a
// stale socket, the rights of its folder and socket, and refusal of other users.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

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
