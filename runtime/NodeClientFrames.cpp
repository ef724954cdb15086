// Frames: prefix encoding and an incremental reader.
#include "NodeClientFrames.h"

#include <algorithm>
#include <tuple>

namespace hl::frames {

namespace {

void putLength(std::string& out, std::size_t value) {
    const auto v = static_cast<std::uint32_t>(value);
    out.push_back(static_cast<char>((v >> 24) & 0xFF));
    out.push_back(static_cast<char>((v >> 16) & 0xFF));
    out.push_back(static_cast<char>((v >> 8) & 0xFF));
    out.push_back(static_cast<char>(v & 0xFF));
}

std::size_t getLength(const char* in) {
    const auto* b = reinterpret_cast<const unsigned char*>(in);
    return (std::size_t{b[0]} << 24) | (std::size_t{b[1]} << 16) | (std::size_t{b[2]} << 8) |
           std::size_t{b[3]};
}

}  // namespace

std::string encode(std::string_view head, std::string_view body) {
    std::string frame;
    frame.reserve(prefixBytes + head.size() + body.size());
    putLength(frame, head.size());
    putLength(frame, body.size());
    frame += head;
    frame += body;
    return frame;
}

std::variant<std::pair<std::size_t, std::size_t>, FrameError> readPrefix(const char* prefix,
                                                                         const Limits& limits) {
    const std::size_t head = getLength(prefix);
    const std::size_t body = getLength(prefix + 4);
    if (head == 0) return FrameError{"frame without a head"};
    if (head > limits.head)
        return FrameError{"frame head is too large (the limit is " + std::to_string(limits.head) +
                          " bytes)"};
    if (body > limits.body)
        return FrameError{"frame body is too large (the limit is " + std::to_string(limits.body) +
                          " bytes)"};
    return std::pair{head, body};
}

std::size_t FrameReader::feed(std::string_view bytes) {
    std::size_t used = 0;
    while (!complete_ && !error_ && used < bytes.size()) {
        if (prefix_.size() < prefixBytes) {
            const std::size_t n = std::min(prefixBytes - prefix_.size(), bytes.size() - used);
            prefix_.append(bytes.substr(used, n));
            used += n;
            if (prefix_.size() < prefixBytes) break;
            auto sizes = readPrefix(prefix_.data(), limits_);
            if (auto* failure = std::get_if<FrameError>(&sizes)) {
                error_ = *failure;
                break;
            }
            // Storage grows with what arrives, not with what a prefix announces.
            std::tie(headWanted_, bodyWanted_) = std::get<0>(sizes);
        }
        if (frame_.head.size() < headWanted_) {
            const std::size_t n = std::min(headWanted_ - frame_.head.size(), bytes.size() - used);
            frame_.head.append(bytes.substr(used, n));
            used += n;
        }
        if (frame_.head.size() == headWanted_ && frame_.body.size() < bodyWanted_) {
            const std::size_t n = std::min(bodyWanted_ - frame_.body.size(), bytes.size() - used);
            frame_.body.append(bytes.substr(used, n));
            used += n;
        }
        if (frame_.head.size() == headWanted_ && frame_.body.size() == bodyWanted_)
            complete_ = true;
    }
    return used;
}

std::optional<Frame> FrameReader::take() {
    if (!complete_) return std::nullopt;
    Frame frame = std::move(frame_);
    frame_ = Frame();
    prefix_ = std::string();
    headWanted_ = bodyWanted_ = 0;
    complete_ = false;
    return frame;
}

}  // namespace hl::frames
