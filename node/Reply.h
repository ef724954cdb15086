// Reply: the text of one reply, a JSON object on one line.
//
// {"ok":true,"data":{...}} or {"ok":false,"error":"..."}. Terminal output is
// spliced into the data as "output_base64" without passing through the JSON
// library, since it is by far the largest member and needs no escaping.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace hl::node {

// No reply is longer than this, line feed included.
inline constexpr std::size_t maximumReplyBytes = 8 * 1024 * 1024;
// Most terminal bytes carried by one reply: their base64 and the envelope stay
// well under maximumReplyBytes.
inline constexpr std::size_t maximumOutputPerReply = 6'000'000;

// A failure reply with its error text.
std::string failureReply(std::string_view error);

// A success reply carrying data and, when given, output as "output_base64".
std::string successReply(const nlohmann::json& data,
                         std::optional<std::string_view> output = std::nullopt);

}  // namespace hl::node
