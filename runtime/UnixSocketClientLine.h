// The poll loop's line to the node over its socket.
//
// The line opens a connection of its own on its first poll and asks the node
// to upgrade it to frames (NodeClientFrames.h). From then on each poll is one
// frame each way on that connection: the request asks the node to hold the
// poll for up to its wait, and the reply carries the output as raw bytes. A
// node that does not know the upgrade (one started by an earlier version, still
// holding the user's shells) answers it with a failure; the line then sends
// plain "poll" requests, as before, for as long as it lives.
#pragma once

#include <chrono>
#include <mutex>
#include <string>

#include "NodeClient.h"
#include "UniqueFd.h"

namespace hl {

// Connects to the node on the path and checks that it is this user's; throws
// NodeClientError::connection otherwise.
UniqueFd connectToNode(const std::string& socketPath);
// Sets the send and receive time-outs of a connection to the node.
void setNodeTimeouts(int fd, std::chrono::milliseconds timeout);

// Plain "poll" requests through any transport; they never wait.
class PlainOutputLine final : public NodeOutputLine {
  public:
    explicit PlainOutputLine(const NodeClientTransport& transport) : transport_(transport) {}
    NodePollResult poll(const std::string& sessionId, std::chrono::milliseconds wait,
                        std::size_t maxBytes) override;
    void interrupt() override {}

  private:
    const NodeClientTransport& transport_;
};

class UnixSocketClientLine final : public NodeOutputLine {
  public:
    // Longest wait the node grants a poll; a longer one is shortened to it.
    static constexpr std::chrono::milliseconds maximumWait{5000};
    // Largest reply head accepted.
    static constexpr std::size_t maximumHeadBytes = 64 * 1024;

    explicit UnixSocketClientLine(const UnixSocketClient& client) : client_(client) {}
    NodePollResult poll(const std::string& sessionId, std::chrono::milliseconds wait,
                        std::size_t maxBytes) override;
    void interrupt() override;

  private:
    // Connects and asks for the upgrade; false when the node refused it.
    bool open();
    // Reads exactly size bytes into out; throws on failure or end of file.
    void readExactly(char* out, std::size_t size);
    // Ends the connection (the next poll opens a new one).
    void close();

    const UnixSocketClient& client_;
    std::mutex lock_;  // guards fd_ and interrupted_ against interrupt()
    UniqueFd fd_;
    bool interrupted_ = false;
    bool plain_ = false;  // the node refused the upgrade
};

}  // namespace hl
