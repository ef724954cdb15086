// UnixSocketClient: connect, check the peer, one write, half-close, read to a
// line feed or end of file (capped, with a receive time-out), then decode by the
// protocol's rules.
#include "NodeClient.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "PeerCredentials.h"
#include "RuntimePaths.h"
#include "UniqueFd.h"

namespace hl {

JSONValue JSONValue::string(std::string text) {
    JSONValue v;
    v.value_ = std::move(text);
    return v;
}

JSONValue JSONValue::number(double value) {
    JSONValue v;
    v.value_ = value;
    return v;
}

JSONValue JSONValue::boolean(bool value) {
    JSONValue v;
    v.value_ = value;
    return v;
}

JSONValue JSONValue::array(std::vector<JSONValue> items) {
    JSONValue v;
    v.value_ = std::move(items);
    return v;
}

JSONValue::Kind JSONValue::kind() const {
    switch (value_.index()) {
        case 1:
            return Kind::String;
        case 2:
            return Kind::Number;
        case 3:
            return Kind::Bool;
        case 4:
            return Kind::Array;
        default:
            return Kind::Null;
    }
}

std::optional<std::string> JSONValue::stringValue() const {
    if (auto* s = std::get_if<std::string>(&value_)) return *s;
    return std::nullopt;
}

std::optional<std::vector<JSONValue>> JSONValue::arrayValue() const {
    if (auto* a = std::get_if<std::vector<JSONValue>>(&value_)) return *a;
    return std::nullopt;
}

std::optional<bool> JSONValue::boolValue() const {
    if (auto* b = std::get_if<bool>(&value_)) return *b;
    return std::nullopt;
}

std::optional<double> JSONValue::numberValue() const {
    if (auto* number = std::get_if<double>(&value_)) return *number;
    return std::nullopt;
}

JSONValue NodeResponse::operator[](const std::string& key) const {
    auto it = data.find(key);
    return it == data.end() ? JSONValue() : it->second;
}

NodeClientError::NodeClientError(Kind kind, std::string text)
    : kind_(kind), text_(std::move(text)), description_(errorDescription()) {}

std::string NodeClientError::errorDescription() const {
    switch (kind_) {
        case Kind::Daemon:
            return text_;
        case Kind::Connection:
            return "The local terminal node is unavailable.";
        case Kind::InvalidResponse:
            return "The local terminal node returned an invalid response.";
    }
    return {};
}

const char* NodeClientError::what() const noexcept {
    return description_.c_str();
}

namespace {

// Converts one reply member: text, then number or bool, then array; all else is
// null. Arrays nested deeper than maximumReplyDepth make the reply invalid.
JSONValue convert(const nlohmann::json& value, int depth = 1) {
    if (value.is_string()) return JSONValue::string(value.get<std::string>());
    if (value.is_boolean()) return JSONValue::boolean(value.get<bool>());
    if (value.is_number()) return JSONValue::number(value.get<double>());
    if (value.is_array()) {
        if (depth > maximumReplyDepth) throw NodeClientError::invalidResponse();
        std::vector<JSONValue> items;
        items.reserve(value.size());
        for (const auto& item : value)
            items.push_back(convert(item, depth + 1));
        return JSONValue::array(std::move(items));
    }
    return JSONValue::null();
}

// Sets one of the socket's time-outs.
void setTimeout(int fd, int option, std::chrono::milliseconds timeout) {
    timeval value{};
    value.tv_sec = static_cast<time_t>(timeout.count() / 1000);
    value.tv_usec = static_cast<suseconds_t>((timeout.count() % 1000) * 1000);
    ::setsockopt(fd, SOL_SOCKET, option, &value, sizeof value);
}

}  // namespace

std::string encodeNodeRequest(const std::string& op, const NodeRequestData& data) {
    nlohmann::json members = nlohmann::json::object();
    for (const auto& entry : data) {
        std::visit([&](const auto& v) { members[entry.first] = v; }, entry.second);
    }
    nlohmann::json envelope = {{"version", 1}, {"op", op}, {"data", std::move(members)}};
    return envelope.dump();
}

NodeResponse decodeNodeReply(const std::string& reply) {
    nlohmann::json top;
    try {
        top = nlohmann::json::parse(reply);  // the parser's own error passes up
    } catch (const nlohmann::json::out_of_range&) {
        // Valid JSON that the parser cannot hold, such as the number 1e400.
        throw NodeClientError::invalidResponse();
    }
    if (!top.is_object()) throw NodeClientError::invalidResponse();
    auto ok = top.find("ok");
    if (ok == top.end() || !ok->is_boolean()) throw NodeClientError::invalidResponse();
    if (!ok->get<bool>()) {
        auto error = top.find("error");
        throw NodeClientError::daemon(error != top.end() && error->is_string()
                                          ? error->get<std::string>()
                                          : std::string("Node request failed."));
    }
    NodeResponse response;
    auto data = top.find("data");
    if (data != top.end() && data->is_object()) {
        for (const auto& [key, value] : data->items())
            response.data.emplace(key, convert(value));
    }
    return response;
}

UnixSocketClient::UnixSocketClient()
    : socketPath_(RuntimePaths::socketPath()), timeout_(receiveTimeout) {}

UnixSocketClient::UnixSocketClient(std::string socketPath, std::chrono::milliseconds timeout)
    : socketPath_(std::move(socketPath)), timeout_(timeout) {}

UniqueFd connectToNode(const std::string& socketPath) {
#ifdef SOCK_CLOEXEC
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
#else
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM, 0));
    if (fd) ::fcntl(fd.get(), F_SETFD, FD_CLOEXEC);
#endif
    if (!fd) throw NodeClientError::connection();
#ifdef SO_NOSIGPIPE
    int one = 1;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_NOSIGPIPE, &one, sizeof one);
#endif

    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    const std::size_t withNul = socketPath.size() + 1;
    if (withNul > UnixSocketClient::maximumPathBytes) throw NodeClientError::connection();
    std::memcpy(address.sun_path, socketPath.c_str(), withNul);
    // The path with its NUL, plus one: the family's offset less the NUL on both
    // Linux and macOS, so the whole path is seen.
    const auto length = static_cast<socklen_t>(withNul + 1);
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), length) != 0) {
        throw NodeClientError::connection();
    }
    // A socket that another user serves could read every keystroke: no node of ours.
    if (!peerIsOwner(fd.get())) throw NodeClientError::connection();
    return fd;
}

void setNodeTimeouts(int fd, std::chrono::milliseconds timeout) {
    setTimeout(fd, SO_SNDTIMEO, timeout);
    setTimeout(fd, SO_RCVTIMEO, timeout);
}

NodeResponse UnixSocketClient::request(const std::string& op, const NodeRequestData& data) const {
    UniqueFd fd = connectToNode(socketPath_);
    setTimeout(fd.get(), SO_SNDTIMEO, timeout_);
    setTimeout(fd.get(), SO_RCVTIMEO, timeout_);

    const std::string message = encodeNodeRequest(op, data) + "\n";
#ifdef MSG_NOSIGNAL
    const ssize_t written = ::send(fd.get(), message.data(), message.size(), MSG_NOSIGNAL);
#else
    const ssize_t written = ::send(fd.get(), message.data(), message.size(), 0);
#endif
    if (written < 0 || static_cast<std::size_t>(written) != message.size()) {
        throw NodeClientError::connection();
    }
    ::shutdown(fd.get(), SHUT_WR);

    std::string accumulator;
    std::string buffer(65536, '\0');
    while (accumulator.size() <= maximumReplyBytes) {
        const ssize_t n = ::read(fd.get(), buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        // A node that does not answer in time is as good as none.
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) throw NodeClientError::connection();
        if (n < 0) throw NodeClientError::invalidResponse();
        if (n == 0) break;
        accumulator.append(buffer.data(), static_cast<std::size_t>(n));
        if (accumulator.find('\n') != std::string::npos) break;
    }
    fd.reset();
    return decodeNodeReply(accumulator);
}

}  // namespace hl
