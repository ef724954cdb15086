// Standard base64 (RFC 4648 alphabet, '=' fill, no line breaks): the form in
// which terminal bytes cross the socket in both directions.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace hl::node {

// Encodes bytes as base64 text.
std::string base64Encode(std::string_view bytes);

// Decodes base64 text; absent when the text is not strict, padded base64.
std::optional<std::string> base64Decode(std::string_view text);

}  // namespace hl::node
