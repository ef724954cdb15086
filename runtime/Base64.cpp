// Table-driven base64 encoding and strict decoding.
#include "Base64.h"

#include <array>
#include <cstdint>

namespace hl::base64 {

namespace {

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Value of each character of the alphabet, 0xFF for every other byte.
constexpr std::array<std::uint8_t, 256> decodingTable() {
    std::array<std::uint8_t, 256> table{};
    for (auto& value : table)
        value = 0xFF;
    for (std::uint8_t i = 0; i < 64; ++i)
        table[static_cast<unsigned char>(alphabet[i])] = i;
    return table;
}

constexpr auto values = decodingTable();

}  // namespace

std::string encode(std::string_view bytes) {
    std::string text((bytes.size() + 2) / 3 * 4, '=');
    const auto* in = reinterpret_cast<const unsigned char*>(bytes.data());
    std::size_t i = 0, o = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const std::uint32_t word = in[i] << 16 | in[i + 1] << 8 | in[i + 2];
        text[o++] = alphabet[word >> 18 & 63];
        text[o++] = alphabet[word >> 12 & 63];
        text[o++] = alphabet[word >> 6 & 63];
        text[o++] = alphabet[word & 63];
    }
    const std::size_t rest = bytes.size() - i;
    if (rest > 0) {
        std::uint32_t word = in[i] << 16;
        if (rest == 2) word |= in[i + 1] << 8;
        text[o++] = alphabet[word >> 18 & 63];
        text[o++] = alphabet[word >> 12 & 63];
        if (rest == 2) text[o++] = alphabet[word >> 6 & 63];
    }
    return text;
}

std::optional<std::string> decode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::size_t fill = 0;
    if (!text.empty() && text.back() == '=') fill = text[text.size() - 2] == '=' ? 2 : 1;
    std::string bytes(text.size() / 4 * 3 - fill, '\0');
    std::size_t o = 0;
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        const std::size_t significant = last ? 4 - fill : 4;
        std::uint32_t word = 0;
        for (std::size_t k = 0; k < 4; ++k) {
            std::uint8_t value = 0;
            if (k < significant) {
                value = values[static_cast<unsigned char>(text[i + k])];
                if (value == 0xFF) return std::nullopt;
            }
            word = word << 6 | value;
        }
        bytes[o++] = static_cast<char>(word >> 16);
        if (significant > 2) bytes[o++] = static_cast<char>(word >> 8 & 0xFF);
        if (significant > 3) bytes[o++] = static_cast<char>(word & 0xFF);
    }
    return bytes;
}

}  // namespace hl::base64
