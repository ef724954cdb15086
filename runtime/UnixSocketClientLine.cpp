// UnixSocketClientLine: upgrade once, then one frame each way per poll.
#include "UnixSocketClientLine.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "Base64.h"
#include "NodeClientFrames.h"

namespace hl {

namespace {

#ifdef MSG_NOSIGNAL
constexpr int sendFlags = MSG_NOSIGNAL;
#else
constexpr int sendFlags = 0;
#endif

void sendAll(int fd, const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, sendFlags);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw NodeClientError::connection();
        sent += static_cast<std::size_t>(n);
    }
}

}  // namespace

std::unique_ptr<NodeOutputLine> NodeClientTransport::openOutputLine() const {
    return std::make_unique<PlainOutputLine>(*this);
}

std::unique_ptr<NodeOutputLine> UnixSocketClient::openOutputLine() const {
    return std::make_unique<UnixSocketClientLine>(*this);
}

namespace {

// What a poll's reply says of the shell besides its output.
void readShellState(const NodeResponse& reply, NodePollResult& result) {
    if (auto status = reply["exit_status"].numberValue())
        result.exitStatus = static_cast<int>(*status);
    result.shellDirectory = reply["shell_cwd"].stringValue();
}

}  // namespace

NodePollResult PlainOutputLine::poll(const std::string& sessionId, std::chrono::milliseconds,
                                     std::size_t) {
    const auto reply = transport_.request("poll", {{"session_id", sessionId}});
    NodePollResult result;
    result.exited = reply["exited"].boolValue() == true;
    readShellState(reply, result);
    // Output that is not valid base64 is dropped, as the batcher always has.
    if (auto encoded = reply["output_base64"].stringValue())
        result.output = base64::decode(*encoded).value_or(std::string());
    return result;
}

bool UnixSocketClientLine::open() {
    UniqueFd fd = connectToNode(client_.socketPath());
    setNodeTimeouts(fd.get(), client_.timeout() + maximumWait);
    {
        std::lock_guard guard(lock_);
        if (interrupted_) throw NodeClientError::connection();
        fd_ = std::move(fd);
    }
    sendAll(fd_.get(),
            encodeNodeRequest("upgrade", {{"framing", std::string(frames::framingName)}}) + "\n");
    // The node writes nothing after its reply line until a frame has come.
    std::string line;
    char byte;
    while (line.size() <= maximumHeadBytes) {
        readExactly(&byte, 1);
        if (byte == '\n') break;
        line.push_back(byte);
    }
    try {
        const auto reply = decodeNodeReply(line);
        if (reply["framing"].stringValue() != frames::framingName)
            throw NodeClientError::invalidResponse();
    } catch (const NodeClientError& error) {
        close();
        if (error.kind() != NodeClientError::Kind::Daemon) throw;
        return false;  // a node that does not know the upgrade
    }
    return true;
}

NodePollResult UnixSocketClientLine::poll(const std::string& sessionId,
                                          std::chrono::milliseconds wait, std::size_t maxBytes) {
    if (plain_) return PlainOutputLine(client_).poll(sessionId, wait, maxBytes);
    {
        std::lock_guard guard(lock_);
        if (interrupted_) throw NodeClientError::connection();
    }
    if (!fd_ && !open()) {
        plain_ = true;
        return PlainOutputLine(client_).poll(sessionId, wait, maxBytes);
    }
    const auto waitMs = std::clamp<std::int64_t>(wait.count(), 0, maximumWait.count());
    const auto most = static_cast<std::int64_t>(
        std::clamp<std::size_t>(maxBytes, 1, UnixSocketClient::maximumReplyBytes));
    try {
        sendAll(fd_.get(),
                frames::encode(encodeNodeRequest("poll", {{"session_id", sessionId},
                                                          {"wait_ms", std::int64_t{waitMs}},
                                                          {"max_bytes", most}})));
        char prefix[frames::prefixBytes];
        readExactly(prefix, sizeof prefix);
        const auto sizes =
            frames::readPrefix(prefix, {maximumHeadBytes, UnixSocketClient::maximumReplyBytes});
        if (std::holds_alternative<frames::FrameError>(sizes))
            throw NodeClientError::invalidResponse();
        const auto [headSize, bodySize] = std::get<0>(sizes);
        std::string head(headSize, '\0');
        readExactly(head.data(), head.size());
        NodePollResult result;
        result.output.resize(bodySize);
        readExactly(result.output.data(), result.output.size());
        const auto reply = decodeNodeReply(head);
        result.exited = reply["exited"].boolValue() == true;
        readShellState(reply, result);
        result.waited = true;
        return result;
    } catch (...) {
        // Whatever failed, the connection's framing can no longer be trusted.
        close();
        throw;
    }
}

void UnixSocketClientLine::readExactly(char* out, std::size_t size) {
    std::size_t got = 0;
    while (got < size) {
        const ssize_t n = ::read(fd_.get(), out + got, size - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) throw NodeClientError::connection();
        if (n < 0) throw NodeClientError::invalidResponse();
        if (n == 0) throw NodeClientError::connection();
        got += static_cast<std::size_t>(n);
    }
}

void UnixSocketClientLine::interrupt() {
    std::lock_guard guard(lock_);
    interrupted_ = true;
    if (fd_) ::shutdown(fd_.get(), SHUT_RDWR);
}

void UnixSocketClientLine::close() {
    std::lock_guard guard(lock_);
    fd_.reset();
}

}  // namespace hl
