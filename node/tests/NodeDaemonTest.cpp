// The node as a daemon: its own session, one node per socket, replacement of a
// stale socket, the rights of its folder and socket, and refusal of other users.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "NodeHarness.h"
#include "NodeSupervisor.h"
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
    const auto out = node.pollUntilNumberAfter(id, "Q").output;
    const pid_t stubborn = numberAfter(out, "Q");
    ASSERT_GT(stubborn, 0);
    ASSERT_FALSE(processIsGone(stubborn));

    ::kill(node.pid(), SIGTERM);
    allGone({node.pid()}, 10s);
    // The node has sent its late SIGKILL before it left.
    EXPECT_TRUE(allGone({stubborn}, 2s));
}

TEST(NodeDaemonTest, TheNextNodeEndsWhatANodeKilledOutrightLeftRunning) {
    NodeHarness node;
    const auto id = node.createSession();
    node.type(id,
              "trap '' HUP; (trap '' HUP; exec sleep 1001) & printf 'Q%s\\n' $!; "
              "nohup sleep 1002 >/dev/null 2>&1 & printf 'N%s\\n' $!; printf 'S%s\\n' $$\n");
    const auto out = node.pollUntilNumberAfter(id, "S").output;
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

// A process that holds the lock on path (and serves nothing) until it is killed.
pid_t holdLock(const std::string& path) {
    int ready[2];
    if (::pipe(ready) != 0) return -1;
    const pid_t holder = ::fork();
    if (holder == 0) {
        const int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0600);
        if (fd < 0 || ::flock(fd, LOCK_EX) != 0) ::_exit(1);
        [[maybe_unused]] auto written = ::write(ready[1], "x", 1);
        ::pause();
        ::_exit(0);
    }
    ::close(ready[1]);
    char byte;
    const bool holding = ::read(ready[0], &byte, 1) == 1;
    ::close(ready[0]);
    return holding ? holder : -1;
}

TEST(NodeDaemonTest, AHeldLockWithNoNodeBehindItIsTakenOverOrReportedWithItsWayOut) {
    const std::string folder = makeTemporaryFolder();
    const std::string socketPath = folder + "/node.sock";
    const std::string lockPath = socketPath + ".lock";

    // The user's own lock file, held by a process that serves nothing: taken over.
    pid_t holder = holdLock(lockPath);
    ASSERT_GT(holder, 0);
    pid_t node = startNode(socketPath);
    EXPECT_TRUE(nodeAnswers(socketPath));
    stopNode(node);
    ::kill(holder, SIGKILL);
    waitForExit(holder, 5s);
    std::filesystem::remove(lockPath);

    // One the user cannot take (another user's, or unreadable): the node that
    // the application starts says why, naming the file and the ways out.
    holder = holdLock(lockPath);
    ASSERT_GT(holder, 0);
    if (::geteuid() == 0)
        ASSERT_EQ(::chown(lockPath.c_str(), 65534, 65534), 0);
    else
        ASSERT_EQ(::chmod(lockPath.c_str(), 0), 0);
    struct stat lockInfo {};
    ASSERT_EQ(::stat(lockPath.c_str(), &lockInfo), 0);
    const std::string data = folder + "/data";
    ::setenv("HARBORLATTICE_NODE_EXECUTABLE", HL_NODE_EXECUTABLE, 1);
    ::setenv("HARBORLATTICE_SOCKET", socketPath.c_str(), 1);
    ::setenv("XDG_DATA_HOME", data.c_str(), 1);
    auto& supervisor = NodeSupervisor::shared();
    auto reported = [&] {
        const auto deadline = std::chrono::steady_clock::now() + 15s;
        while (!supervisor.launchFailure() && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(20ms);
        return supervisor.launchFailure();
    };
    supervisor.ensureRunning();
    EXPECT_EQ(reported(), "harborlattice-node: the lock file " + lockPath +
                              " (it belongs to user id " + std::to_string(lockInfo.st_uid) +
                              ") is held or cannot be opened, and no node answers on " +
                              socketPath + ". Remove " + lockPath +
                              ", or set HARBORLATTICE_SOCKET to a path in a folder of your own.");
    EXPECT_FALSE(nodeAnswers(socketPath, 100ms));

    // The way out works: once the file is gone, the next start serves, and the
    // report is gone with it.
    ::kill(holder, SIGKILL);
    waitForExit(holder, 5s);
    std::filesystem::remove(lockPath);
    const auto deadline = std::chrono::steady_clock::now() + 15s;
    while (supervisor.launchFailure() && std::chrono::steady_clock::now() < deadline) {
        if (!supervisor.launchInFlight()) supervisor.ensureRunning();
        std::this_thread::sleep_for(50ms);
    }
    EXPECT_FALSE(supervisor.launchFailure().has_value());
    EXPECT_TRUE(nodeAnswers(socketPath));
    for (const char* name :
         {"HARBORLATTICE_NODE_EXECUTABLE", "HARBORLATTICE_SOCKET", "XDG_DATA_HOME"})
        ::unsetenv(name);

    // That node is the supervisor's child, not the test's: it is found through
    // its socket and stopped.
    UniqueFd probe(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
    ucred peer{};
    socklen_t size = sizeof peer;
    if (::connect(probe.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::getsockopt(probe.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.pid > 0) {
        ::kill(peer.pid, SIGTERM);
        const auto stopped = std::chrono::steady_clock::now() + 5s;
        while (!processIsGone(peer.pid) && std::chrono::steady_clock::now() < stopped)
            std::this_thread::sleep_for(20ms);
    }
    std::filesystem::remove_all(folder);
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
