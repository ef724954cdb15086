// ScriptedPeer: a listener on a real Unix socket that answers each connection
// with a scripted sequence of writes, for testing the node client's reading and
// parsing rules against real socket behaviour.
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace hl::test {

struct PeerStep {
    std::string bytes;                   // written as one write
    std::chrono::milliseconds pause{0};  // waited before the write
};

class ScriptedPeer {
  public:
    // Listens at `path` and serves connections with `steps` until destroyed.
    // With `readRequest`, the peer reads the request to end of file first and
    // keeps it for inspection.
    ScriptedPeer(std::string path, std::vector<PeerStep> steps, bool readRequest = true);
    ~ScriptedPeer();

    // The last request received, as raw bytes.
    std::string lastRequest() const;
    int connections() const { return connections_; }

  private:
    void serve();

    std::string path_;
    std::vector<PeerStep> steps_;
    bool readRequest_;
    int listener_ = -1;
    std::atomic<bool> stopping_{false};
    std::atomic<int> connections_{0};
    mutable std::mutex mutex_;
    std::string lastRequest_;
    std::thread thread_;
};

}  // namespace hl::test
