// The node's protocol over its real socket: framing and size limits, shell
// starts that fail, the idempotent close, the directory rule of a replay, and
// clients that misbehave while others are served.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <sys/stat.h>
#include <unistd.h>

#include <poll.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>
#include <vector>

#include "Base64.h"
#include "NodeHarness.h"
#include "Session.h"
#include "UniqueFd.h"

namespace hl::node::testing {
namespace {

using json = nlohmann::json;

// The node's error text for a request sent through the application's client.
std::string daemonError(const NodeHarness& node, const std::string& op,
                        const NodeRequestData& data) {
    try {
        node.client().request(op, data);
    } catch (const NodeClientError& error) {
        if (error.kind() == NodeClientError::Kind::Daemon) return error.daemonText();
        return "not a daemon failure";
    }
    return "accepted";
}

// Connects without sending anything.
UniqueFd connectSilently(const std::string& socketPath) {
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        return UniqueFd();
    }
    return fd;
}

TEST(NodeProtocolTest, FramesRequestsOverTheSocketAndKeepsServingAfterBadOnes) {
    NodeHarness node;
    // Framing only: the refusals of each member are the parser's, tested in-process.
    const std::pair<std::string, std::string> raw[] = {
        {"hello node\n", "request is not valid JSON"},
        {"\n", "empty request"},
        {"", "empty request"},
    };
    for (const auto& [request, error] : raw) {
        const auto reply = json::parse(rawExchange(node.socketPath(), request));
        EXPECT_EQ(reply, (json{{"ok", false}, {"error", error}})) << request;
    }
    // A request without a line feed, ended by the half-close, is served.
    EXPECT_EQ(json::parse(rawExchange(node.socketPath(), R"({"version":1,"op":"health"})"))["ok"],
              true);

    // A large paste is parsed away from the loop and reaches the program whole.
    const auto id = node.createSession();
    node.type(id,
              "stty -icanon -echo; head -c 3000000 > pasted; stty icanon echo; "
              "printf 'P%s\\n' asted\n");
    const std::string paste(3'000'000, 'p');
    const auto pasted = json::parse(
        rawExchange(node.socketPath(),
                    json{{"version", 1},
                         {"op", "input"},
                         {"data", {{"session_id", id}, {"input_base64", base64::encode(paste)}}}}
                            .dump() +
                        "\n"));
    EXPECT_EQ(pasted["ok"], true) << pasted;

    // An oversized request is refused once the limit is passed, without reading it all.
    const std::string huge =
        R"({"version":1,"op":"input","data":{"session_id":"x","input_base64":")" +
        std::string(5 * 1024 * 1024, 'A') + "\"}}\n";
    const auto reply = json::parse(rawExchange(node.socketPath(), huge));
    EXPECT_EQ(reply["ok"], false);
    EXPECT_EQ(reply["error"], "request is too large (the limit is 4194304 bytes)");

    // None of that hurt the node or the session.
    EXPECT_NE(node.pollUntilContains(id, "Pasted").output.find("Pasted"), std::string::npos);
    EXPECT_EQ(std::filesystem::file_size(node.folder() + "/pasted"), paste.size());
    node.closeSession(id);
}

TEST(NodeProtocolTest, ARequestThatThrowsFailsAloneAndTheNodeGoesOn) {
    NodeHarness node(HL_FAULTY_NODE_EXECUTABLE);
    const auto id = node.createSession();
    EXPECT_EQ(daemonError(node, "resize", {{"session_id", id}, {"cols", 13}, {"rows", 24}}),
              "request failed: std::bad_alloc");
    EXPECT_EQ(daemonError(node, "resize", {{"session_id", id}, {"cols", 14}, {"rows", 24}}),
              "accepted");
    node.type(id, "echo $((40+2))\n");
    EXPECT_NE(node.pollUntilContains(id, "42").output.find("42"), std::string::npos);
    node.closeSession(id);
}

TEST(NodeProtocolTest, ACreateSessionThatCannotEnterItsDirectoryFailsWithTheReason) {
    NodeHarness node;
    const std::string file = node.folder() + "/plain-file";
    { std::ofstream(file) << "x"; }
    EXPECT_EQ(daemonError(node, "create_session",
                          {{"cwd", node.folder() + "/missing"}, {"cols", 80}, {"rows", 24}}),
              "cwd does not exist: " + node.folder() + "/missing");
    EXPECT_EQ(daemonError(node, "create_session", {{"cwd", file}, {"cols", 80}, {"rows", 24}}),
              "cwd is not a directory: " + file);
    if (::geteuid() != 0) {  // root enters any directory
        const std::string locked = node.folder() + "/locked";
        ASSERT_EQ(::mkdir(locked.c_str(), 0), 0);
        EXPECT_EQ(daemonError(node, "create_session", {{"cwd", locked}, {"cols", 80}, {"rows", 24}})
                      .rfind("cwd cannot be entered: " + locked, 0),
                  0u);
    }
    EXPECT_EQ(node.client().request("list_sessions")["session_ids"].arrayValue()->size(), 0u);
}

TEST(NodeProtocolTest, CloseIsIdempotentAndReplayMovesTheReadPosition) {
    NodeHarness node;
    for (int attempt = 0; attempt < 2; ++attempt) {
        const auto reply =
            node.client().request("close_session", {{"session_id", "never-existed"}});
        EXPECT_EQ(reply["absent"].boolValue(), true);
        EXPECT_FALSE(reply["closed"].boolValue().has_value());
    }

    const auto id = node.createSession();
    node.type(id, "printf 'R%s\\n' $((6*7))\n");
    node.pollUntilContains(id, "R42");

    // The replay shows what was already polled, and moves the read position.
    const auto replay = node.client().request(
        "replay_session", {{"session_id", id}, {"expected_cwd", node.folder()}});
    EXPECT_EQ(replay["exited"].boolValue(), false);
    const auto replayed = base64::decode(replay["output_base64"].stringValue().value_or(""));
    ASSERT_TRUE(replayed.has_value());
    EXPECT_NE(replayed->find("R42"), std::string::npos);
    node.type(id, "printf 'A%s\\n' after\n");
    const auto next = node.pollUntilContains(id, "Aafter");
    EXPECT_EQ(next.output.find("R42"), std::string::npos);

    EXPECT_TRUE(node.closeSession(id));
    const auto again = node.client().request("close_session", {{"session_id", id}});
    EXPECT_EQ(again["absent"].boolValue(), true);
    EXPECT_EQ(node.client().request("list_sessions")["session_ids"].arrayValue()->size(), 0u);
    EXPECT_EQ(daemonError(node, "poll", {{"session_id", id}}), "unknown session");
}

TEST(NodeProtocolTest, ReplayAcceptsAShellInThePanesFolderOrBelowIt) {
    NodeHarness node;
    const std::string project = node.folder() + "/project";
    const std::string sibling = node.folder() + "/project-sibling";
    const std::string link = node.folder() + "/link";
    for (const auto& folder : {project, project + "/src", project + "/src/deep", sibling})
        ASSERT_EQ(::mkdir(folder.c_str(), 0700), 0);
    ASSERT_EQ(::symlink(project.c_str(), link.c_str()), 0);
    const auto id = node.createSession(project);
    auto replay = [&](const std::string& expected) {
        return daemonError(node, "replay_session",
                           {{"session_id", id}, {"expected_cwd", expected}});
    };
    auto moveTo = [&](const std::string& folder, const std::string& marker) {
        node.type(id, "cd '" + folder + "' && printf '%s-%s\\n' " + marker + " here\n");
        node.pollUntilContains(id, marker + "-here");
    };
    EXPECT_EQ(replay("/elsewhere"), "session cwd mismatch");

    // Below the pane's folder, or back in it: still the pane's shell, answered
    // in the pane's own words (through the link too, and with a trailing slash).
    moveTo(project + "/src/deep", "deep");
    EXPECT_EQ(replay(project), "accepted");
    EXPECT_EQ(replay(project + "/src/"), "accepted");
    EXPECT_EQ(replay(project + "/src/deep/more"), "session cwd mismatch");
    const auto linked =
        node.client().request("replay_session", {{"session_id", id}, {"expected_cwd", link}});
    EXPECT_EQ(linked["cwd"].stringValue(), link);
    const auto listed = node.client().request("list_sessions");
    EXPECT_EQ(listed["session_cwds"].arrayValue()->at(0).stringValue(), project + "/src/deep");

    // A sibling whose name starts with the folder's, and /tmp, are elsewhere.
    moveTo(sibling, "sibling");
    EXPECT_EQ(replay(project), "session cwd mismatch");
    moveTo("/tmp", "tmp");
    EXPECT_EQ(replay(project), "session cwd mismatch");

    // A folder deleted and made again under the shell is not the shell's folder.
    moveTo(project + "/src", "src");
    ASSERT_EQ(::rmdir((project + "/src/deep").c_str()), 0);
    ASSERT_EQ(::rmdir((project + "/src").c_str()), 0);
    ASSERT_EQ(::mkdir((project + "/src").c_str(), 0700), 0);
    EXPECT_EQ(replay(project), "session cwd mismatch");
    EXPECT_EQ(replay(project + "/src"), "session cwd mismatch");

    // An exited shell keeps the directory it last had.
    moveTo("/tmp", "there");
    node.type(id, "exit\n");
    node.pollUntil(id, [](const PollResult& r) { return r.exited; });
    EXPECT_EQ(replay(project), "session cwd mismatch");
    EXPECT_EQ(replay("/tmp"), "accepted");
    EXPECT_EQ(daemonError(node, "replay_session", {{"session_id", "nope"}, {"expected_cwd", "/"}}),
              "unknown session");
    node.closeSession(id);
}

TEST(NodeProtocolTest, SilentAndHalfWrittenClientsHoldUpNobody) {
    NodeHarness node;
    std::vector<UniqueFd> silent;
    for (int i = 0; i < 20; ++i) {
        silent.push_back(connectSilently(node.socketPath()));
        ASSERT_TRUE(silent.back());
    }
    // One that stops in the middle of its line.
    UniqueFd halfWritten = connectSilently(node.socketPath());
    const std::string part = R"({"version":1,"op":)";
    ASSERT_EQ(::send(halfWritten.get(), part.data(), part.size(), 0),
              static_cast<ssize_t>(part.size()));

    const auto id = node.createSession();

    node.type(id, "echo $((40+2))\n");
    EXPECT_NE(node.pollUntilContains(id, "42").output.find("42"), std::string::npos);
    EXPECT_TRUE(node.closeSession(id));

    // The silent ones are still waiting: no reply was ever sent to them.
    char byte;
    EXPECT_EQ(::recv(silent.front().get(), &byte, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
}

// Waits, without reading, until the node hangs up; then what it had sent.
std::optional<std::string> sentBeforeHangUp(int fd,
                                            std::chrono::steady_clock::time_point deadline) {
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd waiting{fd, 0, 0};
        if (left.count() <= 0) return std::nullopt;
        if (::poll(&waiting, 1, static_cast<int>(left.count())) > 0 && (waiting.revents & POLLHUP))
            break;
    }
    std::string bytes;
    char buffer[65536];
    ssize_t n;
    while ((n = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT)) > 0)
        bytes.append(buffer, static_cast<std::size_t>(n));
    return bytes;
}

TEST(NodeProtocolTest, RepliesNobodyReadsCostTheirOwnConnectionsAndNoOneElsesPolls) {
    NodeHarness node;
    const auto full = node.createSession();
    node.type(full, "head -c 5000000 /dev/zero | tr '\\0' r; printf 'F%s\\n' ULL\n");
    ASSERT_NE(
        node.pollUntil(
                full,
                [](const PollResult& r) { return r.output.find("FULL") != std::string::npos; }, 60s)
            .output.find("FULL"),
        std::string::npos);
    const auto other = node.createSession();

    // Twelve clients each ask for the whole tail of the full session, and never read.
    const std::string replay = R"({"version":1,"op":"replay_session","data":{"session_id":")" +
                               full + R"(","expected_cwd":")" + node.folder() + "\"}}\n";
    std::vector<UniqueFd> unread;
    for (int i = 0; i < 12; ++i) {
        unread.push_back(connectSilently(node.socketPath()));
        ASSERT_EQ(::send(unread.back().get(), replay.data(), replay.size(), 0),
                  static_cast<ssize_t>(replay.size()));
    }

    // Meanwhile another client polls another session at the application's pace:
    // every poll is answered, and everything typed comes back.
    int failed = 0;
    std::string polled;
    for (int i = 0; i < 40; ++i) {
        try {
            if (i % 10 == 0) node.type(other, "printf 'K%s\\n' " + std::to_string(i) + "\n");
            polled += node.poll(other).output;
        } catch (const std::exception&) {  // no node, or no reply at all
            ++failed;
        }
        std::this_thread::sleep_for(50ms);
    }
    try {
        if (polled.find("K30\r\n") == std::string::npos)
            polled += node.pollUntilContains(other, "K30").output;
    } catch (const std::exception&) {
        ++failed;
    }
    EXPECT_EQ(failed, 0);
    for (const char* marker : {"K0\r\n", "K10\r\n", "K20\r\n", "K30\r\n"})
        EXPECT_NE(polled.find(marker), std::string::npos) << marker;

    // The clients that never read have lost their connections, each before its
    // reply was complete.
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    for (const auto& fd : unread) {
        const auto received = sentBeforeHangUp(fd.get(), deadline);
        ASSERT_TRUE(received.has_value()) << "a client that does not read is still connected";
        EXPECT_TRUE(received->empty() || received->back() != '\n');
    }
    // A client that reads still gets the whole tail.
    const auto whole = node.client().request(
        "replay_session", {{"session_id", full}, {"expected_cwd", node.folder()}});
    EXPECT_EQ(base64::decode(whole["output_base64"].stringValue().value_or(""))->size(),
              Session::tailLimit);
    EXPECT_TRUE(node.closeSession(full));
    EXPECT_TRUE(node.closeSession(other));
}

}  // namespace
}  // namespace hl::node::testing
