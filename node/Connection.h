// Connection: one client of the node, from accept to close.
//
// A connection reads one request (up to a line feed or end of file), receives
// one reply and writes it out; then it is done. All input and output is
// non-blocking, so a slow or silent client only ever costs its own descriptor.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "UniqueFd.h"

namespace hl::node {

class Connection {
  public:
    using Clock = std::chrono::steady_clock;
    // A client that neither sends nor takes anything for this long is dropped.
    static constexpr std::chrono::seconds idleTimeout{30};

    enum class State { Reading, Writing, Done };

    Connection(UniqueFd fd, Clock::time_point now);

    int fd() const { return fd_.get(); }
    State state() const { return state_; }
    Clock::time_point deadline() const { return lastActivity_ + idleTimeout; }

    // Reads what the client has sent; returns the request text once it is
    // complete, or a reply of its own when the request is too large.
    std::optional<std::string> readRequest(Clock::time_point now);
    // Whether the request was refused for its size (the text returned is then empty).
    bool oversized() const { return oversized_; }
    // Starts writing the reply, as much as the socket takes now.
    void sendReply(std::string reply, Clock::time_point now);
    // Writes more of the reply.
    void writeReply(Clock::time_point now);
    // Drops the connection without a reply.
    void drop();

  private:
    UniqueFd fd_;
    State state_ = State::Reading;
    Clock::time_point lastActivity_;
    std::string in_;
    std::string out_;
    std::size_t written_ = 0;
    bool oversized_ = false;
};

}  // namespace hl::node
