// Standard base64 (with "=" fill, no line breaks) for terminal bytes. The
// terminal path decodes only to count, cut and join bytes; it never reads them.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace hl::base64 {

std::string encode(std::string_view bytes);

// The bytes of `text`, or nothing when it is not standard base64: a length that
// is not a multiple of four, a character outside the alphabet, or misplaced fill.
std::optional<std::string> decode(std::string_view text);

}  // namespace hl::base64
