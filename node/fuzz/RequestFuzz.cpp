// fuzz_node_request: the node's request parsing on any bytes. A request either
// parses into members that keep the protocol's rules or is refused with a text;
// nothing else may happen (no exception, no crash, no undefined behaviour).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "Request.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace hl::node;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto parsed = parseRequest(text);
    if (const auto* error = std::get_if<RequestError>(&parsed)) {
        if (error->text.empty()) std::abort();
        return 0;
    }
    const auto& request = std::get<Request>(parsed);
    switch (request.operation) {
        case Operation::CreateSession:
            if (request.cwd.empty() || request.cwd.front() != '/' ||
                request.cwd.find('\0') != std::string::npos) {
                std::abort();
            }
            [[fallthrough]];
        case Operation::Resize:
            if (request.cols < 1 || request.cols > maximumTerminalCells || request.rows < 1 ||
                request.rows > maximumTerminalCells) {
                std::abort();
            }
            break;
        default:
            break;
    }
    return 0;
}
