// fuzz_node_reply: the application's reply decoding on any bytes, and the
// node's reply composition read back by it.
//
// Any text decodes to a NodeResponse or fails with NodeClientError or the JSON
// parser's own error. A reply the node composes around the same bytes (as
// terminal output and as a text member) always decodes to exactly those bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "Base64.h"
#include "NodeClient.h"
#include "Reply.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    try {
        hl::decodeNodeReply(text);
    } catch (const hl::NodeClientError&) {
    } catch (const nlohmann::json::parse_error&) {
    }

    const std::string reply = hl::node::successReply({{"exited", size % 2 == 0}}, text);
    if (reply.find('\n') != reply.size() - 1) std::abort();
    const auto response = hl::decodeNodeReply(reply);
    const auto encoded = response["output_base64"].stringValue();
    if (!encoded || hl::base64::decode(*encoded) != text) std::abort();
    if (response["exited"].boolValue() != (size % 2 == 0)) std::abort();

    // A text member of invalid UTF-8 is repaired, never refused.
    const auto failure = hl::node::failureReply(text);
    try {
        hl::decodeNodeReply(failure);
        std::abort();
    } catch (const hl::NodeClientError& error) {
        if (error.kind() != hl::NodeClientError::Kind::Daemon) std::abort();
    }
    return 0;
}
