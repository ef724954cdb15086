// The node's pure pieces, in-process: the ring buffer behind pending output and
// the replay tail, request validation and reply composition.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>

#include "Base64.h"
#include "Reply.h"
#include "Request.h"
#include "RingBuffer.h"

namespace hl::node {
namespace {

TEST(RingBufferTest, GrowsLazilyKeepsOrderAcrossWrapAndDropsOldestAtLimit) {
    RingBuffer ring(10000);
    EXPECT_EQ(ring.capacity(), 0u);  // nothing allocated until the first byte
    ring.append("abc");
    EXPECT_EQ(ring.capacity(), 1024u);

    // Drive the read and write positions around the storage many times.
    std::string expected = "abc";
    std::mt19937 random(7);
    for (int round = 0; round < 500; ++round) {
        std::string chunk(random() % 3000, '\0');
        for (auto& c : chunk)
            c = static_cast<char>('a' + random() % 26);
        if (chunk.size() > ring.space()) continue;
        ring.append(chunk);
        expected += chunk;
        const std::size_t take = random() % (ring.size() + 1);
        ASSERT_EQ(ring.front(take), expected.substr(0, take));
        ring.consume(take);
        expected.erase(0, take);
        ASSERT_EQ(ring.size(), expected.size());
    }
    EXPECT_LE(ring.capacity(), 10000u);

    // Past the limit the oldest bytes go and the newest stay.
    RingBuffer tail(8);
    tail.append("12345");
    tail.append("6789A");
    EXPECT_EQ(tail.front(100), "3456789A");
    EXPECT_EQ(tail.back(3), "89A");
    tail.append("this is longer than the limit");
    EXPECT_EQ(tail.front(100), "he limit");

    tail.release();
    EXPECT_TRUE(tail.empty());
    EXPECT_EQ(tail.capacity(), 0u);
    tail.append("xy");
    EXPECT_EQ(tail.front(2), "xy");
}

// The error text for a request line, or "" when it is accepted.
std::string refusal(const std::string& text) {
    auto parsed = parseRequest(text);
    if (auto* error = std::get_if<RequestError>(&parsed)) return error->text;
    return "";
}

TEST(RequestTest, AcceptsEveryOperationWithItsMembers) {
    auto parsed = parseRequest(
        R"({"version":1,"op":"create_session","data":{"cwd":"/tmp","cols":120,"rows":36}})");
    ASSERT_TRUE(std::holds_alternative<Request>(parsed));
    const auto& create = std::get<Request>(parsed);
    EXPECT_EQ(create.operation, Operation::CreateSession);
    EXPECT_EQ(create.cwd, "/tmp");
    EXPECT_EQ(create.cols, 120);
    EXPECT_EQ(create.rows, 36);

    parsed = parseRequest(
        R"({"version":1,"op":"input","data":{"session_id":"s","input_base64":"aGk="}})");
    ASSERT_TRUE(std::holds_alternative<Request>(parsed));
    EXPECT_EQ(std::get<Request>(parsed).input, "hi");

    parsed = parseRequest(
        R"({"version":1,"op":"poll","data":{"session_id":"s","wait_ms":60000,"max_bytes":1}})");
    ASSERT_TRUE(std::holds_alternative<Request>(parsed));
    EXPECT_EQ(std::get<Request>(parsed).waitMs, 60000);
    EXPECT_EQ(std::get<Request>(parsed).maxBytes, 1u);
    parsed = parseRequest(R"({"version":1,"op":"poll","data":{"session_id":"s"}})");
    EXPECT_EQ(std::get<Request>(parsed).waitMs, 0);
    EXPECT_EQ(std::get<Request>(parsed).maxBytes, 0u);

    for (const char* ok : {
             R"({"version":1,"op":"health","data":{}})",
             R"({"version":1,"op":"health"})",
             R"({"version":1,"op":"list_sessions","data":{"extra":[1,2]}})",
             R"({"version":1,"op":"replay_session","data":{"session_id":"s","expected_cwd":"/"}})",
             R"({"version":1,"op":"upgrade","data":{"framing":"frames-1"}})",
             R"({"version":1,"op":"resize","data":{"session_id":"s","cols":1,"rows":10000}})",
             R"({"op":"close_session","version":1,"data":{"session_id":""}})",
         }) {
        EXPECT_EQ(refusal(ok), "") << ok;
    }
}

TEST(RequestTest, RefusesMalformedEnvelopesAndMembersWithAClearText) {
    const std::pair<std::string, std::string> cases[] = {
        {"not json", "request is not valid JSON"},
        {R"({"version":1,"op":"health")", "request is not valid JSON"},
        {"[1,2,3]", "request is not a JSON object"},
        {R"({"op":"health","data":{}})", "missing field \"version\""},
        {R"({"version":2,"op":"health"})",
         "unsupported protocol version (this node speaks version 1)"},
        {R"({"version":"1","op":"health"})",
         "unsupported protocol version (this node speaks version 1)"},
        {R"({"version":1,"data":{}})", "missing field \"op\""},
        {R"({"version":1,"op":7})", "field \"op\" must be a string"},
        {R"({"version":1,"op":"reboot"})", "unknown op \"reboot\""},
        {R"({"version":1,"op":"health","data":[]})", "field \"data\" must be an object"},
        {R"({"version":1,"op":"poll","data":{}})", "missing field \"session_id\""},
        {R"({"version":1,"op":"poll","data":{"session_id":3}})",
         "field \"session_id\" must be a string"},
        {R"({"version":1,"op":"replay_session","data":{"session_id":"s"}})",
         "missing field \"expected_cwd\""},
        {R"({"version":1,"op":"input","data":{"session_id":"s","input_base64":"a"}})",
         "field \"input_base64\" is not valid base64"},
        {R"({"version":1,"op":"resize","data":{"session_id":"s","cols":"80","rows":24}})",
         "field \"cols\" must be an integer from 1 to 10000"},
        {R"({"version":1,"op":"resize","data":{"session_id":"s","cols":80,"rows":0}})",
         "field \"rows\" must be an integer from 1 to 10000"},
        {R"({"version":1,"op":"resize","data":{"session_id":"s","cols":80.5,"rows":24}})",
         "field \"cols\" must be an integer from 1 to 10000"},
        {R"({"version":1,"op":"create_session","data":{"cwd":"tmp","cols":80,"rows":24}})",
         "cwd must be an absolute path"},
        {R"({"version":1,"op":"create_session","data":{"cwd":"/tmp\u0000/etc","cols":80,"rows":24}})",
         "cwd must not contain a NUL character"},
        {std::string(100, '[') + std::string(100, ']'), "request nests too deeply"},
        {"{\"version\":1,\"op\":\"h\xff\"}", "request is not valid JSON"},
        {R"({"version":1,"op":"poll","data":{"session_id":"s","wait_ms":60001}})",
         "field \"wait_ms\" must be an integer from 0 to 60000"},
        {R"({"version":1,"op":"poll","data":{"session_id":"s","wait_ms":-1}})",
         "field \"wait_ms\" must be an integer from 0 to 60000"},
        {R"({"version":1,"op":"poll","data":{"session_id":"s","wait_ms":"5"}})",
         "field \"wait_ms\" must be an integer from 0 to 60000"},
        {R"({"version":1,"op":"poll","data":{"session_id":"s","max_bytes":0}})",
         "field \"max_bytes\" must be an integer from 1 to 1099511627776"},
        {R"({"version":1,"op":"upgrade","data":{}})", "missing field \"framing\""},
        {R"({"version":1,"op":"upgrade","data":{"framing":"frames-2"}})",
         "unsupported framing (this node speaks frames-1)"},
    };
    for (const auto& [text, error] : cases)
        EXPECT_EQ(refusal(text), error) << text;

    // A long unknown name is not echoed back.
    EXPECT_EQ(refusal(R"({"version":1,"op":")" + std::string(1000, 'x') + "\"}"), "unknown op");
}

TEST(ReplyTest, SplicesOutputIntoDataAndStaysOneLineWithinTheLimit) {
    using json = nlohmann::json;
    auto reply = successReply({{"exited", true}}, std::string("\x1b[1mhi\n", 7));
    ASSERT_EQ(reply.back(), '\n');
    EXPECT_EQ(reply.find('\n'), reply.size() - 1);
    auto parsed = json::parse(reply);
    EXPECT_EQ(parsed["ok"], true);
    EXPECT_EQ(parsed["data"]["exited"], true);
    EXPECT_EQ(base64::decode(parsed["data"]["output_base64"].get<std::string>()),
              std::string("\x1b[1mhi\n", 7));

    EXPECT_EQ(json::parse(successReply(json::object(), std::string())),
              json::parse(R"({"ok":true,"data":{"output_base64":""}})"));
    EXPECT_EQ(json::parse(failureReply("session cwd mismatch")),
              json::parse(R"({"ok":false,"error":"session cwd mismatch"})"));

    // The largest output one reply may carry fits under the limit.
    const auto full = successReply({{"exited", false}}, std::string(maximumOutputPerReply, '\xff'));
    EXPECT_LE(full.size(), maximumReplyBytes);
    EXPECT_EQ(json::parse(full)["ok"], true);
}

}  // namespace
}  // namespace hl::node
