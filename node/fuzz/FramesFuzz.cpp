// fuzz_node_frames: the framing of upgraded connections on any bytes, as the
// node reads them (in pieces of any size) and as a request head reaches its
// parser.
//
// Read whole or piece by piece, the same bytes give the same frames and the
// same error; no frame passes the limits; a reader holds no more than one
// frame's worth; every frame read encodes back to the bytes it came from; and
// each head is a request or a refusal with a text, nothing else.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "NodeClientFrames.h"
#include "Request.h"

namespace {

constexpr hl::frames::Limits limits{4096, 4096};

struct Outcome {
    std::vector<hl::frames::Frame> frames;
    std::string error;
    std::size_t used = 0;
};

// Reads the bytes in pieces of the given size (0: all at once).
Outcome readAll(std::string_view bytes, std::size_t piece) {
    Outcome outcome;
    hl::frames::FrameReader reader(limits);
    while (!bytes.empty()) {
        const std::size_t offered = piece ? std::min(piece, bytes.size()) : bytes.size();
        const std::size_t used = reader.feed(bytes.substr(0, offered));
        if (used > offered) std::abort();
        if (reader.memory() > 2 * (limits.head + limits.body) + 64) std::abort();
        bytes.remove_prefix(used);
        outcome.used += used;
        if (auto frame = reader.take()) {
            if (frame->head.empty() || frame->head.size() > limits.head ||
                frame->body.size() > limits.body)
                std::abort();
            outcome.frames.push_back(std::move(*frame));
        } else if (reader.error()) {
            outcome.error = reader.error()->text;
            if (outcome.error.empty()) std::abort();
            break;
        } else if (used < offered) {
            std::abort();  // took less without a frame or an error
        }
    }
    return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::size_t piece = data[0] % 17;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    const Outcome whole = readAll(bytes, 0);
    const Outcome pieces = readAll(bytes, piece);
    if (whole.error != pieces.error || whole.used != pieces.used ||
        whole.frames.size() != pieces.frames.size())
        std::abort();
    std::string again;
    for (std::size_t i = 0; i < whole.frames.size(); ++i) {
        const auto& frame = whole.frames[i];
        if (frame.head != pieces.frames[i].head || frame.body != pieces.frames[i].body)
            std::abort();
        again += hl::frames::encode(frame.head, frame.body);
        const auto parsed = hl::node::parseRequest(frame.head);
        if (const auto* error = std::get_if<hl::node::RequestError>(&parsed)) {
            if (error->text.empty()) std::abort();
        }
    }
    if (again != bytes.substr(0, again.size())) std::abort();
    return 0;
}
