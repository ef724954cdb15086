// The node client against scripted peers on real Unix sockets: framing, the
// reading cap, the parse rules, the path-length rule, the receive time-out and
// the check of who serves the socket.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <thread>

#include <nlohmann/json.hpp>

#include "NodeClient.h"
#include "ScriptedPeer.h"
#include "TestSupport.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using hl::NodeClientError;
using hl::UnixSocketClient;
using hl::test::PeerStep;
using hl::test::ScriptedPeer;

namespace {

// A listening Unix socket at path; -1 when it cannot be made.
int listenAt(const std::string& path) {
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, 8) != 0)
        return -1;
    return listener;
}

class NodeClientTest : public ::testing::Test {
  protected:
    std::string socket() const { return (dir_ / "node.sock").string(); }

    // Serves `steps` and sends one request; returns the client's response.
    hl::NodeResponse ask(std::vector<PeerStep> steps, const std::string& op = "health",
                         const hl::NodeRequestData& data = {}) {
        ScriptedPeer peer(socket(), std::move(steps));
        auto response = UnixSocketClient(socket()).request(op, data);
        request_ = peer.lastRequest();
        return response;
    }

    // The kind of NodeClientError that `request` throws, failing if none is thrown.
    static NodeClientError::Kind kindOf(const std::function<void()>& request) {
        try {
            request();
        } catch (const NodeClientError& error) {
            return error.kind();
        }
        ADD_FAILURE() << "the request succeeded";
        return NodeClientError::Kind::Daemon;
    }

    // The NodeClientError thrown for a reply, failing if none is thrown.
    NodeClientError failureFor(const std::string& reply) {
        try {
            ask({{reply}});
        } catch (const NodeClientError& error) {
            return error;
        }
        ADD_FAILURE() << "no NodeClientError for " << reply;
        return NodeClientError::connection();
    }

    hl::test::TempDir dir_;
    std::string request_;
};

TEST_F(NodeClientTest, SendsOneCompactEnvelopeEndedByOneLineFeed) {
    auto response =
        ask({{"{\"ok\":true,\"data\":{\"session_id\":\"s-1\"}}\n"}}, "create_session",
            {{"cwd", std::string("/tmp/a b")}, {"cols", 120}, {"rows", std::int64_t{36}}});
    EXPECT_EQ(response["session_id"].stringValue(), "s-1");

    ASSERT_FALSE(request_.empty());
    EXPECT_EQ(request_.find('\n'), request_.size() - 1);
    EXPECT_EQ(request_.find(' '), request_.find("a b") + 1);  // no formatting whitespace
    const auto envelope = nlohmann::json::parse(request_);
    EXPECT_EQ(envelope.size(), 3u);
    EXPECT_EQ(envelope["version"], 1);
    EXPECT_EQ(envelope["op"], "create_session");
    EXPECT_EQ(envelope["data"], (nlohmann::json{{"cwd", "/tmp/a b"}, {"cols", 120}, {"rows", 36}}));
    EXPECT_TRUE(envelope["data"]["cols"].is_number_integer());

    ask({{"{\"ok\":true}\n"}});
    EXPECT_EQ(nlohmann::json::parse(request_)["data"], nlohmann::json::object());
}

TEST_F(NodeClientTest, FramingReadsToTheLineFeedOrTheEndOfTheConnectionWithinEightMebibytes) {
    // A line split over two writes is read whole.
    auto split = ask({{"{\"ok\":true,\"da"}, {"ta\":{\"exited\":true}}\n", 80ms}});
    EXPECT_EQ(split["exited"].boolValue(), true);

    // A complete object ended only by the peer closing is accepted.
    auto unterminated = ask({{"{\"ok\":true,\"data\":{\"cwd\":\"/x\"}}"}});
    EXPECT_EQ(unterminated["cwd"].stringValue(), "/x");

    // Two lines in one write are one text to the parser, which refuses it.
    EXPECT_THROW(ask({{"{\"ok\":true}\n{\"ok\":true}\n"}}), nlohmann::json::parse_error);
    EXPECT_THROW(ask({{"garbage\n"}}), nlohmann::json::parse_error);
    EXPECT_THROW(ask({}), nlohmann::json::parse_error);  // nothing at all

    // Valid JSON if read to the end, but reading stops past eight mebibytes
    // and the parser sees an incomplete text.
    std::string padding(UnixSocketClient::maximumReplyBytes + 512 * 1024, ' ');
    EXPECT_THROW(ask({{padding}, {"{\"ok\":true}\n"}}), nlohmann::json::parse_error);
    // Just under the cap is read whole.
    std::string under(UnixSocketClient::maximumReplyBytes - 64, ' ');
    EXPECT_NO_THROW(ask({{under}, {"{\"ok\":true}\n"}}));
}

TEST_F(NodeClientTest, ReplyEnvelopeRules) {
    EXPECT_EQ(failureFor("{\"ok\":1}\n").kind(), NodeClientError::Kind::InvalidResponse);
    EXPECT_EQ(failureFor("[]\n").kind(), NodeClientError::Kind::InvalidResponse);
    EXPECT_EQ(failureFor("{\"data\":{}}\n").kind(), NodeClientError::Kind::InvalidResponse);

    for (const char* reply : {"{\"ok\":false}\n", "{\"ok\":false,\"error\":7}\n"}) {
        auto error = failureFor(reply);
        EXPECT_EQ(error.kind(), NodeClientError::Kind::Daemon);
        EXPECT_EQ(error.errorDescription(), "Node request failed.");
    }
    auto mismatch = failureFor("{\"ok\":false,\"error\":\"session cwd mismatch\",\"data\":{}}\n");
    EXPECT_EQ(mismatch.errorDescription(), "session cwd mismatch");
    EXPECT_STREQ(mismatch.what(), "session cwd mismatch");

    EXPECT_TRUE(ask({{"{\"ok\":true}\n"}}).data.empty());
    EXPECT_TRUE(ask({{"{\"ok\":true,\"data\":[]}\n"}}).data.empty());
    EXPECT_TRUE(ask({{"{\"ok\":true,\"data\":{},\"version\":\"x\",\"more\":1}\n"}}).data.empty());
}

TEST_F(NodeClientTest, DataMembersConvertToTheFiveCases) {
    auto r = ask({{R"({"ok":true,"data":{"exited":1,"flag":true,"nested":{"b":1},"none":null,)"
                   R"("big":9007199254740993,"ids":["a",3,"b",[false]],"text":"é"}})"
                   "\n"}});
    EXPECT_EQ(r["exited"].boolValue(), std::nullopt);
    EXPECT_EQ(r["exited"], hl::JSONValue::number(1));
    EXPECT_EQ(r["flag"].boolValue(), true);
    EXPECT_EQ(r["nested"].kind(), hl::JSONValue::Kind::Null);
    EXPECT_EQ(r["none"].kind(), hl::JSONValue::Kind::Null);
    EXPECT_EQ(r["big"].kind(), hl::JSONValue::Kind::Number);
    EXPECT_EQ(r["text"].stringValue(), "é");
    EXPECT_EQ(r["missing"].kind(), hl::JSONValue::Kind::Null);

    auto ids = r["ids"].arrayValue();
    ASSERT_TRUE(ids);
    std::vector<std::string> texts;
    for (const auto& id : *ids) {
        if (auto text = id.stringValue()) texts.push_back(*text);
    }
    EXPECT_EQ(texts, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ((*ids)[3].arrayValue()->front().boolValue(), false);

    // Nesting past the limit is refused rather than followed.
    const std::string deep =
        std::string(hl::maximumReplyDepth, '[') + std::string(hl::maximumReplyDepth, ']');
    EXPECT_EQ(ask({{"{\"ok\":true,\"data\":{\"a\":" + deep + "}}\n"}})["a"].kind(),
              hl::JSONValue::Kind::Array);
    EXPECT_EQ(failureFor("{\"ok\":true,\"data\":{\"a\":[" + deep + "]}}\n").kind(),
              NodeClientError::Kind::InvalidResponse);
}

TEST_F(NodeClientTest, NoListenerOrAVanishedPeerIsAConnectionFailureNotASignal) {
    EXPECT_EQ(kindOf([&] { UnixSocketClient((dir_ / "nobody.sock").string()).request("health"); }),
              NodeClientError::Kind::Connection);

    // A peer that accepts and closes at once: the client's write or read fails,
    // and SIGPIPE (left at its default here) never ends the process.
    ScriptedPeer peer(socket(), {}, /*readRequest=*/false);
    const std::string big(256 * 1024, 'x');
    for (int i = 0; i < 20; ++i) {
        EXPECT_ANY_THROW(UnixSocketClient(socket()).request("input", {{"input_base64", big}}));
    }
}

TEST_F(NodeClientTest, AStalledNodeOrAnotherUsersSocketIsAnUnavailableNode) {
    {
        ScriptedPeer stalled(socket(), {{"{\"ok\":true}\n", 1s}});
        EXPECT_EQ(kindOf([&] { UnixSocketClient(socket(), 300ms).request("health"); }),
                  NodeClientError::Kind::Connection);
    }

    if (::geteuid() != 0) GTEST_SKIP() << "serving as another user needs root";
    fs::permissions(dir_.path(), fs::perms::others_exec, fs::perm_options::add);
    const auto shared = dir_ / "shared";
    fs::create_directory(shared);
    fs::permissions(shared, fs::perms::all | fs::perms::sticky_bit);
    const std::string path = (shared / "node.sock").string();
    const pid_t other = ::fork();
    if (other == 0) {
        // Another user's listener that answers like a node.
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(1);
        const int listener = listenAt(path);
        if (listener < 0) ::_exit(2);
        while (true) {
            const int connection = ::accept(listener, nullptr, nullptr);
            const char reply[] = "{\"ok\":true}\n";
            [[maybe_unused]] auto sent = ::write(connection, reply, sizeof reply - 1);
            ::close(connection);
        }
    }
    ASSERT_TRUE(hl::test::waitUntil([&] { return fs::exists(path); }));
    EXPECT_EQ(kindOf([&] { UnixSocketClient(path).request("health"); }),
              NodeClientError::Kind::Connection);
    ::kill(other, SIGKILL);
    ::waitpid(other, nullptr, 0);
}

TEST_F(NodeClientTest, SocketPathOf103BytesIsUsedAnd104IsRefused) {
    auto pathOfLength = [&](std::size_t length) {
        std::string base = dir_.path().string() + "/";
        std::string name(length - base.size(), 'p');
        return base + name;
    };
    const std::string ok = pathOfLength(103);
    ASSERT_EQ(ok.size(), 103u);
    {
        ScriptedPeer peer(ok, {{"{\"ok\":true}\n"}});
        EXPECT_NO_THROW(UnixSocketClient(ok).request("health"));
        EXPECT_EQ(peer.connections(), 1);
    }
    const std::string tooLong = pathOfLength(104);
    ScriptedPeer peer(tooLong, {{"{\"ok\":true}\n"}});  // listening, yet never reached
    EXPECT_EQ(kindOf([&] { UnixSocketClient(tooLong).request("health"); }),
              NodeClientError::Kind::Connection);
    EXPECT_EQ(peer.connections(), 0);
}

TEST_F(NodeClientTest, ConcurrentRequestsEachHaveTheirOwnConnection) {
    // One client shared by every thread, as the workspace's controllers share theirs.
    ScriptedPeer peer(socket(), {{"{\"ok\":true,\"data\":{\"n\":1}}\n"}});
    const UnixSocketClient client(socket());
    std::vector<std::thread> threads;
    std::atomic<int> answered{0};
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            for (int j = 0; j < 10; ++j) {
                if (client.request("poll")["n"].kind() == hl::JSONValue::Kind::Number) {
                    ++answered;
                }
            }
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(answered, 80);
    EXPECT_EQ(peer.connections(), 80);
}

// A node of an earlier version does not know the upgrade: the output line
// falls back to plain polls for good, and loses none of their output.
TEST_F(NodeClientTest, AnOutputLineFallsBackToPlainPollsWhenTheNodeRefusesTheUpgrade) {
    const int listener = listenAt(socket());
    ASSERT_GE(listener, 0);
    std::vector<std::string> ops;
    std::thread node([&] {
        for (int served = 0; served < 3; ++served) {
            const int connection = ::accept(listener, nullptr, nullptr);
            std::string line;
            char byte;
            while (::read(connection, &byte, 1) == 1 && byte != '\n')
                line.push_back(byte);
            const auto op = nlohmann::json::parse(line).value("op", "");
            ops.push_back(op);
            const std::string reply =
                op == "poll" ? R"({"ok":true,"data":{"output_base64":"aGk=","exited":false}})"
                               "\n"
                             : R"({"ok":false,"error":"unknown op \"upgrade\""})"
                               "\n";
            ::send(connection, reply.data(), reply.size(), MSG_NOSIGNAL);
            ::close(connection);
        }
    });
    const UnixSocketClient client(socket());
    const auto line = client.openOutputLine();
    for (int i = 0; i < 2; ++i) {
        const auto result = line->poll("s", 1000ms, 100);
        EXPECT_EQ(result.output, "hi");
        EXPECT_FALSE(result.waited);
        EXPECT_FALSE(result.exited);
    }
    node.join();
    ::close(listener);
    EXPECT_EQ(ops, (std::vector<std::string>{"upgrade", "poll", "poll"}));
}

}  // namespace
