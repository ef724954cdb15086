// Base64 encoding and strict decoding, written for speed on multi-megabyte
// replies: one table look-up per character, no intermediate buffers.
#include "Base64.h"

#include <array>
#include <cstdint>

namespace hl::node {

namespace {

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Maps a character to its six-bit value, or 0xFF for a character outside the alphabet.
constexpr std::array<std::uint8_t, 256> decodeTable() {
    std::array<std::uint8_t, 256> table{};
    for (auto& entry : table)
        entry = 0xFF;
    for (int i = 0; i < 64; ++i)
        table[static_cast<unsigned char>(alphabet[i])] = i;
    return table;
}

constexpr auto sixBits = decodeTable();

}  // namespace

std::string base64Encode(std::string_view bytes) {
    std::string text((bytes.size() + 2) / 3 * 4, '\0');
    const auto* in = reinterpret_cast<const unsigned char*>(bytes.data());
    char* out = text.data();
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const std::uint32_t v = (in[i] << 16) | (in[i + 1] << 8) | in[i + 2];
        *out++ = alphabet[(v >> 18) & 63];
        *out++ = alphabet[(v >> 12) & 63];
        *out++ = alphabet[(v >> 6) & 63];
        *out++ = alphabet[v & 63];
    }
    const std::size_t rest = bytes.size() - i;
    if (rest > 0) {
        std::uint32_t v = in[i] << 16;
        if (rest == 2) v |= in[i + 1] << 8;
        *out++ = alphabet[(v >> 18) & 63];
        *out++ = alphabet[(v >> 12) & 63];
        *out++ = rest == 2 ? alphabet[(v >> 6) & 63] : '=';
        *out++ = '=';
    }
    return text;
}

std::optional<std::string> base64Decode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::size_t fill = 0;
    if (!text.empty() && text.back() == '=') fill = text[text.size() - 2] == '=' ? 2 : 1;
    std::string bytes;
    bytes.reserve(text.size() / 4 * 3);
    const auto* in = reinterpret_cast<const unsigned char*>(text.data());
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        const std::size_t significant = last ? 4 - fill : 4;
        std::uint32_t v = 0;
        for (std::size_t k = 0; k < 4; ++k) {
            std::uint8_t bits = 0;
            if (k < significant) {
                bits = sixBits[in[i + k]];
                if (bits == 0xFF) return std::nullopt;
            }
            v = (v << 6) | bits;
        }
        bytes.push_back(static_cast<char>(v >> 16));
        if (significant > 2) bytes.push_back(static_cast<char>((v >> 8) & 0xFF));
        if (significant > 3) bytes.push_back(static_cast<char>(v & 0xFF));
    }
    return bytes;
}

}  // namespace hl::node
