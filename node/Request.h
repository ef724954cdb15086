// Request: one decoded, validated request of the node's protocol.
//
// A request is one JSON object {"version":1,"op":...,"data":{...}}. Parsing
// checks the envelope and every member the operation needs, so the operations
// themselves never meet a missing or mistyped field; what fails is described in
// a text fit to send back as the reply's error.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <variant>

namespace hl::node {

enum class Operation {
    Health,
    ListSessions,
    ReplaySession,
    CreateSession,
    Poll,
    Input,
    Resize,
    CloseSession,
    Upgrade,
};

struct Request {
    Operation operation = Operation::Health;
    std::string sessionId;     // replay_session, poll, input, resize, close_session
    std::string cwd;           // create_session
    std::string expectedCwd;   // replay_session
    std::string input;         // input: the decoded bytes
    int cols = 0;              // create_session, resize
    int rows = 0;              // create_session, resize
    int waitMs = 0;            // poll: how long it may wait for output (0: answer at once)
    std::size_t maxBytes = 0;  // poll: most output in the reply (0: as much as fits)
};

// Why a request was refused: the reply's error text.
struct RequestError {
    std::string text;
};

// Largest request accepted, line feed included.
inline constexpr std::size_t maximumRequestBytes = 4 * 1024 * 1024;
// Deepest nesting of arrays and objects accepted in a request.
inline constexpr int maximumRequestDepth = 32;
// Largest terminal dimension accepted, in cells.
inline constexpr int maximumTerminalCells = 10000;
// Longest wait a poll may ask for, in milliseconds (a poll may wait no longer
// than this anyway, so that its session stays attended).
inline constexpr int maximumPollWaitMs = 60'000;

// Parses one request line (without its line feed).
std::variant<Request, RequestError> parseRequest(std::string_view text);

}  // namespace hl::node
