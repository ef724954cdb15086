// The node's protocol over its real socket: refusals of bad requests, the
// idempotent close, the cwd check of a replay, and clients that misbehave while
// others are served.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <vector>

#include "Base64.h"
#include "NodeHarness.h"
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

TEST(NodeProtocolTest, RefusesBadRequestsWithClearErrorsAndKeepsServing) {
    NodeHarness node;
    // Raw lines that the application's client could never send.
    const std::pair<std::string, std::string> raw[] = {
        {"hello node\n", "request is not valid JSON"},
        {"[1,2,3]\n", "request is not a JSON object"},
        {"\n", "empty request"},
        {"", "empty request"},
        {R"({"version":1,"op":"health","data":"x"})"
         "\n",
         "field \"data\" must be an object"},
        {R"({"version":1,"op":"create_session","data":{"cwd":"/tmp\u0000x","cols":80,"rows":24}})"
         "\n",
         "cwd must not contain a NUL character"},
    };
    for (const auto& [request, error] : raw) {
        const auto reply = json::parse(rawExchange(node.socketPath(), request));
        EXPECT_EQ(reply, (json{{"ok", false}, {"error", error}})) << request;
    }
    // A request without a line feed, ended by the half-close, is served.
    EXPECT_EQ(json::parse(rawExchange(node.socketPath(), R"({"version":1,"op":"health"})"))["ok"],
              true);

    EXPECT_EQ(daemonError(node, "reboot", {}), "unknown op \"reboot\"");
    EXPECT_EQ(daemonError(node, "poll", {}), "missing field \"session_id\"");
    EXPECT_EQ(daemonError(node, "poll", {{"session_id", std::int64_t{4}}}),
              "field \"session_id\" must be a string");
    EXPECT_EQ(daemonError(node, "create_session", {{"cwd", node.folder()}, {"cols", 80}}),
              "missing field \"rows\"");
    EXPECT_EQ(daemonError(node, "create_session",
                          {{"cwd", node.folder()}, {"cols", "wide"}, {"rows", 24}}),
              "field \"cols\" must be an integer from 1 to 10000");
    EXPECT_EQ(
        daemonError(node, "create_session", {{"cwd", "relative/dir"}, {"cols", 80}, {"rows", 24}}),
        "cwd must be an absolute path");
    EXPECT_EQ(daemonError(node, "create_session",
                          {{"cwd", node.folder() + "/missing"}, {"cols", 80}, {"rows", 24}}),
              "cwd does not exist: " + node.folder() + "/missing");
    EXPECT_EQ(daemonError(node, "create_session",
                          {{"cwd", node.socketPath()}, {"cols", 80}, {"rows", 24}}),
              "cwd is not a directory: " + node.socketPath());
    for (const char* op : {"poll", "resize", "input"}) {
        EXPECT_EQ(daemonError(node, op,
                              {{"session_id", "no-such-session"},
                               {"cols", 80},
                               {"rows", 24},
                               {"input_base64", ""}}),
                  "unknown session")
            << op;
    }
    EXPECT_EQ(daemonError(node, "input", {{"session_id", "x"}, {"input_base64", "%%%%"}}),
              "field \"input_base64\" is not valid base64");

    // An oversized request is refused once the limit is passed, without reading it all.
    const std::string huge =
        R"({"version":1,"op":"input","data":{"session_id":"x","input_base64":")" +
        std::string(17 * 1024 * 1024, 'A') + "\"}}\n";
    const auto reply = json::parse(rawExchange(node.socketPath(), huge));
    EXPECT_EQ(reply["ok"], false);
    EXPECT_EQ(reply["error"], "request is too large (the limit is 16777216 bytes)");

    // None of that hurt the node.
    EXPECT_NO_THROW(node.client().request("health"));
    const auto id = node.createSession();
    node.type(id, "echo $((40+2))\n");
    EXPECT_NE(node.pollUntilContains(id, "42").output.find("42"), std::string::npos);
    node.closeSession(id);
}

TEST(NodeProtocolTest, CloseIsIdempotentAndReplayChecksTheCwd) {
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

    EXPECT_EQ(
        daemonError(node, "replay_session", {{"session_id", id}, {"expected_cwd", "/elsewhere"}}),
        "session cwd mismatch");
    EXPECT_EQ(daemonError(node, "replay_session", {{"session_id", "nope"}, {"expected_cwd", "/"}}),
              "unknown session");

    // The replay shows what was already polled, and moves the read position.
    const auto replay = node.client().request(
        "replay_session", {{"session_id", id}, {"expected_cwd", node.folder()}});
    EXPECT_EQ(replay["cwd"].stringValue(), node.folder());
    EXPECT_EQ(replay["exited"].boolValue(), false);
    const auto replayed = base64::decode(replay["output_base64"].stringValue().value_or(""));
    ASSERT_TRUE(replayed.has_value());
    EXPECT_NE(replayed->find("R42"), std::string::npos);
    node.type(id, "printf 'A%s\\n' after\n");
    const auto next = node.pollUntilContains(id, "Aafter");
    EXPECT_EQ(next.output.find("R42"), std::string::npos);

    const auto listed = node.client().request("list_sessions")["session_ids"].arrayValue();
    ASSERT_TRUE(listed.has_value());
    EXPECT_EQ(listed->size(), 1u);

    EXPECT_TRUE(node.closeSession(id));
    const auto again = node.client().request("close_session", {{"session_id", id}});
    EXPECT_EQ(again["absent"].boolValue(), true);
    EXPECT_EQ(node.client().request("list_sessions")["session_ids"].arrayValue()->size(), 0u);
    EXPECT_EQ(daemonError(node, "poll", {{"session_id", id}}), "unknown session");
}

TEST(NodeProtocolTest, SilentAndHalfWrittenClientsHoldUpNobody) {
    NodeHarness node;
    std::vector<UniqueFd> silent;
    for (int i = 0; i < 20; ++i) {
        silent.push_back(connectSilently(node.socketPath()));
        ASSERT_TRUE(silent.back());
    }
    // One that stops in the middle of its line, and one that never reads its reply.
    UniqueFd halfWritten = connectSilently(node.socketPath());
    const std::string part = R"({"version":1,"op":)";
    ASSERT_EQ(::send(halfWritten.get(), part.data(), part.size(), 0),
              static_cast<ssize_t>(part.size()));

    const auto id = node.createSession();
    UniqueFd neverReads = connectSilently(node.socketPath());
    const std::string poll = R"({"version":1,"op":"poll","data":{"session_id":")" + id + "\"}}\n";
    ASSERT_EQ(::send(neverReads.get(), poll.data(), poll.size(), 0),
              static_cast<ssize_t>(poll.size()));

    node.type(id, "echo $((40+2))\n");
    EXPECT_NE(node.pollUntilContains(id, "42").output.find("42"), std::string::npos);
    EXPECT_TRUE(node.closeSession(id));

    // The silent ones are still waiting: no reply was ever sent to them.
    char byte;
    EXPECT_EQ(::recv(silent.front().get(), &byte, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
}

}  // namespace
}  // namespace hl::node::testing
