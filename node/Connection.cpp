// Connection: request framing and reply writing on a non-blocking socket.
#include "Connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "Request.h"

namespace hl::node {

namespace {
constexpr std::size_t readChunk = 64 * 1024;

#ifdef MSG_NOSIGNAL
constexpr int sendFlags = MSG_NOSIGNAL;
#else
constexpr int sendFlags = 0;
#endif
}  // namespace

Connection::Connection(UniqueFd fd, Clock::time_point now)
    : fd_(std::move(fd)), lastActivity_(now) {}

std::optional<std::string> Connection::readRequest(Clock::time_point now) {
    while (state_ == State::Reading) {
        const std::size_t scanned = in_.size();
        in_.resize(scanned + readChunk);
        const ssize_t n = ::read(fd_.get(), in_.data() + scanned, readChunk);
        in_.resize(scanned + (n > 0 ? static_cast<std::size_t>(n) : 0));
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) drop();
            return std::nullopt;
        }
        lastActivity_ = now;
        if (n == 0) return std::move(in_);  // end of file: the client's half-close
        const auto lineFeed = in_.find('\n', scanned);
        if (lineFeed != std::string::npos) {
            in_.resize(lineFeed);
            return std::move(in_);
        }
        if (in_.size() >= maximumRequestBytes) {
            oversized_ = true;
            in_.clear();
            in_.shrink_to_fit();
            return std::string();
        }
    }
    return std::nullopt;
}

void Connection::sendReply(std::string reply, Clock::time_point now) {
    in_.clear();
    in_.shrink_to_fit();
    out_ = std::move(reply);
    written_ = 0;
    state_ = State::Writing;
    writeReply(now);
}

void Connection::writeReply(Clock::time_point now) {
    while (state_ == State::Writing && written_ < out_.size()) {
        const ssize_t n =
            ::send(fd_.get(), out_.data() + written_, out_.size() - written_, sendFlags);
        if (n > 0) {
            written_ += static_cast<std::size_t>(n);
            lastActivity_ = now;
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        drop();  // the client has gone
        return;
    }
    if (state_ == State::Writing) drop();
}

void Connection::drop() {
    state_ = State::Done;
    fd_.reset();
    in_.clear();
    out_.clear();
}

}  // namespace hl::node
