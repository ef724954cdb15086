// Connection: request framing and reply writing on a non-blocking socket.
#include "Connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "Reply.h"
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

Connection::Connection(UniqueFd fd, std::uint64_t ticket, Clock::time_point now)
    : fd_(std::move(fd)), ticket_(ticket), started_(now), lastProgress_(now) {}

Connection::Clock::time_point Connection::deadline() const {
    const auto end = started_ + lifetimeLimit;
    if (state_ != State::Writing) return end;
    return std::min(end, lastProgress_ + stallLimit);
}

std::optional<std::string> Connection::readRequest(std::size_t budget, std::size_t allowance) {
    if (framed_) return readFrame(budget, allowance);
    char chunk[readChunk];
    while (state_ == State::Reading && budget > 0) {
        const ssize_t n = ::read(fd_.get(), chunk, std::min(readChunk, budget));
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) drop();
            return std::nullopt;
        }
        if (n == 0) {  // end of file: the client's half-close
            state_ = State::Waiting;
            return std::move(in_);
        }
        budget -= static_cast<std::size_t>(n);
        const std::string_view bytes(chunk, static_cast<std::size_t>(n));
        const auto lineFeed = bytes.find('\n');
        const std::size_t kept = lineFeed == std::string_view::npos ? bytes.size() : lineFeed;
        if (in_.size() + kept >= maximumRequestBytes) {
            oversized_ = true;
            in_ = std::string();
            state_ = State::Waiting;
            return std::string();
        }
        if (in_.size() + kept > allowance) {
            drop();  // the node's memory for clients is spent
            return std::nullopt;
        }
        in_.append(bytes.substr(0, kept));
        if (lineFeed != std::string_view::npos) {
            state_ = State::Waiting;
            return std::move(in_);
        }
    }
    return std::nullopt;
}

std::optional<std::string> Connection::readFrame(std::size_t budget, std::size_t allowance) {
    // Refuses the rest of the stream with a failure frame, then closes.
    auto refuse = [this](const std::string& text) {
        closeAfterReply_ = true;
        state_ = State::Waiting;
        sendReply(failureReply(text));
    };
    char chunk[readChunk];
    while (state_ == State::Reading && budget > 0) {
        const ssize_t n = ::read(fd_.get(), chunk, std::min(readChunk, budget));
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) drop();
            return std::nullopt;
        }
        if (n == 0) {  // the client has finished with the connection
            drop();
            return std::nullopt;
        }
        budget -= static_cast<std::size_t>(n);
        const std::string_view bytes(chunk, static_cast<std::size_t>(n));
        const std::size_t used = frames_.feed(bytes);
        if (const auto& error = frames_.error()) {
            refuse(error->text);
            return std::nullopt;
        }
        if (memory() > allowance) {
            drop();  // the node's memory for clients is spent
            return std::nullopt;
        }
        if (auto frame = frames_.take()) {
            // One request at a time: the next may follow only its reply.
            if (used < bytes.size()) {
                refuse("a request was sent before the reply to the one before it");
                return std::nullopt;
            }
            state_ = State::Waiting;
            started_ = Clock::now();
            return std::move(frame->head);
        }
    }
    return std::nullopt;
}

void Connection::sendReply(std::string reply) {
    if (framed_) {
        if (!reply.empty() && reply.back() == '\n') reply.pop_back();
        reply = frames::encode(reply);
    }
    sendEncoded(std::move(reply));
}

void Connection::sendEncoded(std::string reply) {
    if (state_ == State::Done) return;
    in_ = std::string();
    out_ = std::move(reply);
    written_ = 0;
    state_ = State::Writing;
    lastProgress_ = Clock::now();
    writeReply();
}

void Connection::writeReply() {
    const std::size_t before = written_;
    while (state_ == State::Writing && written_ < out_.size()) {
        const ssize_t n =
            ::send(fd_.get(), out_.data() + written_, out_.size() - written_, sendFlags);
        if (n > 0) {
            written_ += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (written_ > before) lastProgress_ = Clock::now();
            return;
        }
        drop();  // the client has gone
        return;
    }
    if (state_ == State::Writing) finishReply();
}

void Connection::finishReply() {
    if (closeAfterReply_ || !(framed_ || upgrading_)) {
        drop();
        return;
    }
    framed_ = true;
    upgrading_ = false;
    out_ = std::string();
    written_ = 0;
    state_ = State::Reading;
    started_ = lastProgress_ = Clock::now();
}

void Connection::drop() {
    state_ = State::Done;
    fd_.reset();
    in_ = std::string();
    out_ = std::string();
    frames_ = frames::FrameReader({maximumRequestBytes - 1, 0});
}

}  // namespace hl::node
