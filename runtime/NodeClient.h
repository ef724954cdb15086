// The application's only way to speak to the terminal node: one JSON request and
// one reply per connection on a Unix-domain socket.
//
// Words used here: a *transport* sends one request and blocks for its reply; a
// *reply* is decoded into a NodeResponse whose values are JSONValue (objects
// nested inside a reply's data are deliberately flattened to null).
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

namespace hl {

// A decoded value of a node reply: string, number, bool, array or null (every
// JSON object decodes to null).
class JSONValue {
  public:
    enum class Kind { String, Number, Bool, Array, Null };

    JSONValue() = default;
    static JSONValue string(std::string text);
    static JSONValue number(double value);
    static JSONValue boolean(bool value);
    static JSONValue array(std::vector<JSONValue> items);
    static JSONValue null() { return JSONValue(); }

    Kind kind() const;
    std::optional<std::string> stringValue() const;
    std::optional<std::vector<JSONValue>> arrayValue() const;
    std::optional<bool> boolValue() const;
    std::optional<double> numberValue() const;

    bool operator==(const JSONValue&) const = default;

  private:
    std::variant<std::monostate, std::string, double, bool, std::vector<JSONValue>> value_;
};

// The data object of a successful reply.
struct NodeResponse {
    std::map<std::string, JSONValue> data;

    // The member's value, or null when the reply did not carry it.
    JSONValue operator[](const std::string& key) const;
};

// A failure reported by the node or met on the way to it.
class NodeClientError : public std::exception {
  public:
    enum class Kind { Daemon, Connection, InvalidResponse };

    static NodeClientError daemon(std::string text) { return {Kind::Daemon, std::move(text)}; }
    static NodeClientError connection() { return {Kind::Connection, {}}; }
    static NodeClientError invalidResponse() { return {Kind::InvalidResponse, {}}; }

    Kind kind() const { return kind_; }
    // The node's own text for a daemon failure; empty otherwise.
    const std::string& daemonText() const { return text_; }
    std::string errorDescription() const;
    const char* what() const noexcept override;

  private:
    NodeClientError(Kind kind, std::string text);
    Kind kind_;
    std::string text_;
    std::string description_;
};

// Request members: texts and integers only.
using NodeRequestValue = std::variant<std::string, std::int64_t>;
using NodeRequestData = std::map<std::string, NodeRequestValue>;

// What one poll brought: the terminal's raw bytes, whether the shell has
// ended, and whether the node held the poll until output came (or the wait
// passed), so that the poller need not pace itself.
struct NodePollResult {
    std::string output;
    bool exited = false;
    bool waited = false;
    // The status an exited shell ended with, and where a running one is now.
    std::optional<int> exitStatus;
    std::optional<std::string> shellDirectory;
};

// One poll loop's own line to the node. Used by one thread; only interrupt()
// may be called from another.
class NodeOutputLine {
  public:
    virtual ~NodeOutputLine() = default;
    // Fetches output since the previous poll, at most maxBytes of it. A line
    // that can wait holds the poll until output is there or wait has passed.
    // Throws like NodeClientTransport::request.
    virtual NodePollResult poll(const std::string& sessionId, std::chrono::milliseconds wait,
                                std::size_t maxBytes) = 0;
    // Ends a poll in progress (it fails with connection) and every later one.
    virtual void interrupt() = 0;
};

// The one interface to the node. Implementations are safe to call from any
// thread at once; each call blocks until its reply is complete.
class NodeClientTransport {
  public:
    virtual ~NodeClientTransport() = default;

    // Sends one request. Throws NodeClientError, or the JSON parser's own error
    // (nlohmann::json::parse_error) when the reply is not one JSON value.
    virtual NodeResponse request(const std::string& op, const NodeRequestData& data = {}) const = 0;

    // A line for one poll loop. The default sends plain "poll" requests through
    // request(), which return at once; the transport must outlive the line.
    virtual std::unique_ptr<NodeOutputLine> openOutputLine() const;
};

// The transport over the node's Unix-domain socket; one connection per request.
class UnixSocketClient final : public NodeClientTransport {
  public:
    // Connects to RuntimePaths::socketPath(), read now.
    UnixSocketClient();
    explicit UnixSocketClient(std::string socketPath,
                              std::chrono::milliseconds timeout = receiveTimeout);

    const std::string& socketPath() const { return socketPath_; }
    std::chrono::milliseconds timeout() const { return timeout_; }
    NodeResponse request(const std::string& op, const NodeRequestData& data = {}) const override;
    // A connection of its own, upgraded to frames, with polls that wait (see
    // UnixSocketClientLine.h); plain polls when the node does not upgrade.
    std::unique_ptr<NodeOutputLine> openOutputLine() const override;

    // Longest socket path accepted, counting its terminating NUL byte.
    static constexpr std::size_t maximumPathBytes = 104;
    // Reading stops once more than this many reply bytes have arrived.
    static constexpr std::size_t maximumReplyBytes = 8 * 1024 * 1024;
    // A node that takes longer than this to take a request or to answer it is
    // reported as unavailable (the node answers every request within its own
    // limits, the slowest being a shell start of at most 10 s).
    static constexpr std::chrono::milliseconds receiveTimeout{15'000};

  private:
    std::string socketPath_;
    std::chrono::milliseconds timeout_;
};

// Deepest nesting of arrays converted from a reply's data; deeper is invalid.
inline constexpr int maximumReplyDepth = 16;

// Decodes one complete reply text by the protocol's rules (exposed for tests and
// for other transports).
NodeResponse decodeNodeReply(const std::string& reply);

// The request envelope of one operation, as one JSON text without a line feed.
std::string encodeNodeRequest(const std::string& op, const NodeRequestData& data);

}  // namespace hl
