// Frames: the binary framing that a connection to the node switches to after
// an "upgrade" request, so that terminal output travels as raw bytes instead of
// base64 inside JSON, and one connection carries request after request.
//
// A frame is an eight-byte prefix (two big-endian 32-bit lengths), then the
// *head* (a JSON text: a request, or a reply without its output) and the *body*
// (raw bytes: a reply's terminal output; empty in a request). Each side checks
// both lengths against its own limits before it allocates anything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace hl::frames {

// The framing named by an upgrade request and its reply.
inline constexpr const char* framingName = "frames-1";
inline constexpr std::size_t prefixBytes = 8;

struct Limits {
    std::size_t head;
    std::size_t body;
};

struct Frame {
    std::string head;
    std::string body;
};

// Why a stream of frames cannot be read on: the connection must end.
struct FrameError {
    std::string text;
};

// The prefix and both parts of one frame.
std::string encode(std::string_view head, std::string_view body = {});

// The two lengths of a prefix, or an error when either passes its limit.
std::variant<std::pair<std::size_t, std::size_t>, FrameError> readPrefix(const char* prefix,
                                                                         const Limits& limits);

// Collects frames from bytes as they arrive, in pieces of any size. Holds at
// most one frame's prefix, head and body at a time, and only what has arrived.
class FrameReader {
  public:
    explicit FrameReader(Limits limits) : limits_(limits) {}

    // Takes bytes; returns how many it used (it stops after a complete frame
    // or an error, so that the rest waits for the next call).
    std::size_t feed(std::string_view bytes);
    // A complete frame, taken out (the reader starts on the next).
    std::optional<Frame> take();
    // The error met, if any; the reader takes nothing more after it.
    const std::optional<FrameError>& error() const { return error_; }
    // Bytes held now.
    std::size_t memory() const {
        return prefix_.capacity() + frame_.head.capacity() + frame_.body.capacity();
    }
    // Whether part of a frame has arrived.
    bool started() const { return !prefix_.empty(); }

  private:
    Limits limits_;
    std::string prefix_;
    Frame frame_;
    std::size_t headWanted_ = 0;
    std::size_t bodyWanted_ = 0;
    bool complete_ = false;
    std::optional<FrameError> error_;
};

}  // namespace hl::frames
