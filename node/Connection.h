// Connection: one client of the node, from accept to close.
//
// A connection reads one request (up to a line feed or end of file), receives
// one reply and writes it out; then it is done. All input and output is
// non-blocking, so a slow or silent client only ever costs its own descriptor.
// A request whose handling cannot be finished at once (a shell that is still
// starting, a large request being parsed) leaves the connection *waiting*.
// Buffers are allocated only for what arrives, and given back when it is done.
// A client that stops reading its reply is *stalled*: it is dropped once it has
// taken nothing for stallLimit, or sooner when the node needs the memory its
// reply holds (see Server), so its reply never holds up anyone else's.
//
// A connection whose client asked for the upgrade is *framed* once the reply
// to that request is out: from then on requests and replies are frames
// (NodeClientFrames.h), and after each reply the connection reads the next
// request instead of closing. Its lifetime limit counts from its latest request.
// A stream that breaks the framing (a frame past the limits, a body in a
// request, a request sent before the previous reply) gets one failure frame
// and is closed.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "NodeClientFrames.h"
#include "Request.h"
#include "UniqueFd.h"

namespace hl::node {

class Connection {
  public:
    using Clock = std::chrono::steady_clock;
    // A client is dropped this long after it connected, whatever it has done.
    static constexpr std::chrono::seconds lifetimeLimit{30};
    // A client that takes no byte of its reply for this long is dropped.
    static constexpr std::chrono::seconds stallLimit{2};

    enum class State { Reading, Waiting, Writing, Done };

    Connection(UniqueFd fd, std::uint64_t ticket, Clock::time_point now);

    int fd() const { return fd_.get(); }
    // The number that names this connection to work finished later.
    std::uint64_t ticket() const { return ticket_; }
    State state() const { return state_; }
    // When the client is dropped unless it is done by then.
    Clock::time_point deadline() const;
    // Bytes of the reply not yet taken by the client.
    std::size_t unsent() const { return state_ == State::Writing ? out_.size() - written_ : 0; }
    // When the client last took part of its reply (or the reply was ready).
    Clock::time_point lastProgress() const { return lastProgress_; }
    // Bytes held for this connection now.
    std::size_t memory() const { return in_.capacity() + out_.capacity() + frames_.memory(); }
    bool framed() const { return framed_; }

    // Reads at most budget bytes of what the client has sent, dropping the
    // client when its request would pass allowance bytes; returns the request
    // text once it is complete (the connection then waits for its reply).
    std::optional<std::string> readRequest(std::size_t budget, std::size_t allowance);
    // Whether the request was refused for its size (the text returned is then empty).
    bool oversized() const { return oversized_; }
    // Starts writing the reply (a reply line, sent as a frame's head on a framed
    // connection), as much as the socket takes now.
    void sendReply(std::string reply);
    // Starts writing bytes already in this connection's framing.
    void sendEncoded(std::string bytes);
    // Makes the connection framed once the reply that comes next is out.
    void upgradeAfterReply() { upgrading_ = true; }
    // Writes more of the reply.
    void writeReply();
    // Drops the connection without a reply.
    void drop();

  private:
    // readRequest for a framed connection.
    std::optional<std::string> readFrame(std::size_t budget, std::size_t allowance);
    // Ends the current reply: the next request of a framed connection, or done.
    void finishReply();

    UniqueFd fd_;
    std::uint64_t ticket_;
    State state_ = State::Reading;
    Clock::time_point started_;
    Clock::time_point lastProgress_;
    std::string in_;
    std::string out_;
    std::size_t written_ = 0;
    bool oversized_ = false;
    bool framed_ = false;
    bool upgrading_ = false;
    bool closeAfterReply_ = false;
    frames::FrameReader frames_{{maximumRequestBytes - 1, 0}};
};

}  // namespace hl::node
