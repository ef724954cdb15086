// The framing that follows an upgrade: the frame reader in-process on every
// split and past every limit, then the real node with the application's own
// output line: raw output over one connection, polls that wait for output, an
// interrupted poll, and hostile frames that end only their own connection.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <future>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "NodeClientFrames.h"
#include "NodeHarness.h"
#include "Request.h"
#include "UniqueFd.h"

namespace hl::node::testing {
namespace {

using json = nlohmann::json;

TEST(FrameReaderTest, ReadsFramesSplitAnywhereAndRefusesWhatPassesItsLimits) {
    const std::string stream = frames::encode("{\"a\":1}", std::string("b\0dy\xff", 5)) +
                               frames::encode("x") + frames::encode("head", std::string(300, 'z'));
    std::mt19937 random(7);
    for (int round = 0; round < 200; ++round) {
        frames::FrameReader reader({16, 300});
        std::vector<frames::Frame> got;
        std::size_t at = 0;
        while (at < stream.size()) {
            const std::size_t piece = std::min<std::size_t>(1 + random() % 40, stream.size() - at);
            std::string_view bytes(stream.data() + at, piece);
            while (!bytes.empty()) {
                const std::size_t used = reader.feed(bytes);
                bytes.remove_prefix(used);
                if (auto frame = reader.take()) got.push_back(std::move(*frame));
                ASSERT_FALSE(reader.error());
            }
            at += piece;
        }
        ASSERT_EQ(got.size(), 3u);
        EXPECT_EQ(got[0].head, "{\"a\":1}");
        EXPECT_EQ(got[0].body, std::string("b\0dy\xff", 5));
        EXPECT_EQ(got[1].head, "x");
        EXPECT_EQ(got[1].body, "");
        EXPECT_EQ(got[2].body, std::string(300, 'z'));
        EXPECT_FALSE(reader.started());
    }

    // Lengths are checked before anything is allocated for them.
    const std::pair<std::string, std::string> refused[] = {
        {std::string("\0\0\0\0\0\0\0\0", 8), "frame without a head"},
        {std::string("\0\0\0\x11\0\0\0\0", 8), "frame head is too large (the limit is 16 bytes)"},
        {std::string("\xff\xff\xff\xff\0\0\0\0", 8),
         "frame head is too large (the limit is 16 bytes)"},
        {std::string("\0\0\0\x01\0\0\x01\x2d", 8),
         "frame body is too large (the limit is 300 bytes)"},
    };
    for (const auto& [prefix, text] : refused) {
        frames::FrameReader reader({16, 300});
        EXPECT_EQ(reader.feed(prefix + "more"), 8u);
        ASSERT_TRUE(reader.error());
        EXPECT_EQ(reader.error()->text, text);
        EXPECT_LE(reader.memory(), 64u);
        EXPECT_EQ(reader.feed("more"), 0u);
        EXPECT_FALSE(reader.take());
    }
}

// A connection upgraded by hand, for sending what the application never would.
class RawFramedConnection {
  public:
    explicit RawFramedConnection(const std::string& socketPath) {
        fd_.reset(::socket(AF_UNIX, SOCK_STREAM, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
        if (::connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("connect failed");
        send(R"({"version":1,"op":"upgrade","data":{"framing":"frames-1"}})"
             "\n");
        std::string line;
        char byte;
        while (::read(fd_.get(), &byte, 1) == 1 && byte != '\n')
            line.push_back(byte);
        upgradeReply = json::parse(line);
    }

    void send(const std::string& bytes) const {
        ASSERT_EQ(::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // Reads exactly one reply frame; its head (and its body into body).
    json readFrame(std::string* body = nullptr) const {
        frames::FrameReader reader({1 << 20, 1 << 24});
        char byte;
        while (!reader.error() && ::read(fd_.get(), &byte, 1) == 1) {
            reader.feed(std::string_view(&byte, 1));
            if (auto frame = reader.take()) {
                if (body) *body = frame->body;
                return json::parse(frame->head);
            }
        }
        return nullptr;
    }
    // Half-closes and reads everything up to the node's close.
    std::string finish() const {
        ::shutdown(fd_.get(), SHUT_WR);
        std::string all;
        char buffer[65536];
        ssize_t n;
        while ((n = ::read(fd_.get(), buffer, sizeof buffer)) > 0)
            all.append(buffer, static_cast<std::size_t>(n));
        return all;
    }

    json upgradeReply;

  private:
    UniqueFd fd_;
};

// The heads of the reply frames in bytes (bodies are checked to be there).
std::vector<json> replyHeads(const std::string& bytes) {
    frames::FrameReader reader({1 << 20, 1 << 24});
    std::vector<json> heads;
    std::string_view rest(bytes);
    while (!rest.empty()) {
        rest.remove_prefix(reader.feed(rest));
        if (reader.error()) break;
        if (auto frame = reader.take()) heads.push_back(json::parse(frame->head));
    }
    EXPECT_FALSE(reader.started()) << "a reply frame was cut short";
    return heads;
}

TEST(NodeFramesTest, HostileFramesGetOneFailureFrameAndEndOnlyTheirOwnConnection) {
    NodeHarness node;
    const auto failure = [](const std::string& text) {
        return std::vector<json>{{{"ok", false}, {"error", text}}};
    };
    const std::string health = frames::encode(R"({"version":1,"op":"health"})");
    const std::pair<std::string, std::vector<json>> cases[] = {
        {std::string("\0\0\0\0\0\0\0\0", 8), failure("frame without a head")},
        {std::string("\x7f\xff\xff\xff\0\0\0\0", 8),
         failure("frame head is too large (the limit is " +
                 std::to_string(maximumRequestBytes - 1) + " bytes)")},
        {std::string("\0\0\0\x02\0\0\0\x01", 8) + "{}x",
         failure("frame body is too large (the limit is 0 bytes)")},
        {health + health, failure("a request was sent before the reply to the one before it")},
        // A bad request inside a good frame ends only that request.
        {frames::encode("not json"), failure("request is not valid JSON")},
        {frames::encode(R"({"version":1,"op":"poll","data":{"session_id":"nobody","wait_ms":1}})"),
         failure("unknown session")},
        // Cut short, then closed: nothing to answer.
        {health.substr(0, 11), {}},
    };
    for (const auto& [bytes, expected] : cases) {
        RawFramedConnection connection(node.socketPath());
        EXPECT_EQ(connection.upgradeReply,
                  (json{{"ok", true}, {"data", {{"framing", "frames-1"}}}}));
        connection.send(bytes);
        EXPECT_EQ(replyHeads(connection.finish()), expected) << json(bytes).dump();
    }

    // A good frame after a bad request on the same connection is served.
    RawFramedConnection connection(node.socketPath());
    connection.send(frames::encode("[]"));
    EXPECT_EQ(connection.readFrame(),
              (json{{"ok", false}, {"error", "request is not a JSON object"}}));
    connection.send(health);
    EXPECT_EQ(replyHeads(connection.finish()),
              (std::vector<json>{{{"ok", true}, {"data", json::object()}}}));

    // A replay's tail travels raw in the body too.
    const auto id = node.createSession();
    node.type(id, "printf 'tail-%s\\n' end\n");
    node.pollUntilContains(id, "tail-end");
    RawFramedConnection replaying(node.socketPath());
    replaying.send(
        frames::encode(json{{"version", 1},
                            {"op", "replay_session"},
                            {"data", {{"session_id", id}, {"expected_cwd", node.folder()}}}}
                           .dump()));
    std::string tail;
    EXPECT_EQ(replaying.readFrame(&tail),
              (json{{"ok", true},
                    {"data",
                     {{"cwd", node.folder()}, {"exited", false}, {"shell_cwd", node.folder()}}}}));
    EXPECT_NE(tail.find("tail-end"), std::string::npos);
}

TEST(NodeFramesTest, TheOutputLineCarriesRawBytesWaitsForOutputOrItsWaitAndCanBeInterrupted) {
    NodeHarness node;
    const auto client = node.client();
    const auto id = node.createSession();
    node.type(id, "printf 'R%s\\n' EADY\n");
    node.pollUntilContains(id, "READY");
    const auto line = client.openOutputLine();

    // Nothing to say: the poll comes back empty when its wait is over.
    node.poll(id);
    auto quiet = line->poll(id, 50ms, 1 << 20);
    EXPECT_TRUE(quiet.waited);
    EXPECT_FALSE(quiet.exited);

    // Output typed while a poll waits ends the wait, bytes exactly as written.
    const std::string written = std::string("raw\xff\0\x01", 6) + "done";
    auto waiting = std::async(std::launch::async, [&] {
        std::string all;
        while (all.find(written) == std::string::npos) {
            const auto result = line->poll(id, 5000ms, 1 << 20);
            EXPECT_TRUE(result.waited);
            all += result.output;
        }
        return all;
    });
    std::this_thread::sleep_for(200ms);
    node.type(id, "printf 'raw\\377\\000\\001%s\\n' done\n");
    EXPECT_NE(waiting.get().find(written), std::string::npos);

    // A reply carries at most what was asked for; the rest waits for the next.
    node.type(id, "head -c 5000 /dev/zero | tr '\\0' z; echo\n");
    std::string zs;
    while (zs.find(std::string(5000, 'z')) == std::string::npos) {
        const auto result = line->poll(id, 5000ms, 1000);
        EXPECT_LE(result.output.size(), 1000u);
        zs += result.output;
    }

    // An interrupt ends a waiting poll and every later one on that line, and
    // takes no output with it. Without echo, the first output after the
    // interrupt is the marker itself.
    node.type(id, "stty -echo\n");
    while (!line->poll(id, 300ms, 1 << 20).output.empty()) {
    }
    auto interrupted = std::async(std::launch::async, [&] {
        try {
            line->poll(id, 5000ms, 1 << 20);
        } catch (const NodeClientError& error) {
            return error.kind() == NodeClientError::Kind::Connection;
        }
        return false;
    });
    std::this_thread::sleep_for(200ms);
    line->interrupt();
    EXPECT_TRUE(interrupted.get());
    EXPECT_THROW(line->poll(id, 0ms, 1 << 20), NodeClientError);
    node.type(id, "printf 'still-%s\n' here\n");
    EXPECT_NE(node.pollUntilContains(id, "still-here").output.find("still-here"),
              std::string::npos);

    // The end of the shell ends a waiting poll too.
    const auto next = client.openOutputLine();
    node.type(id, "exit\n");
    bool exited = false;
    for (int i = 0; i < 100 && !exited; ++i)
        exited = next->poll(id, 5000ms, 1 << 20).exited;
    EXPECT_TRUE(exited);
}

}  // namespace
}  // namespace hl::node::testing
