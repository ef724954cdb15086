// NodeHarness: a real harborlattice-node started for one test, in a folder of
// its own, driven through the application's own client; stopped and cleaned up
// when the harness goes.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "NodeClient.h"

namespace hl::node::testing {

using namespace std::chrono_literals;

// A new private folder under /tmp; the caller removes it.
std::string makeTemporaryFolder();

// Starts the node executable with HARBORLATTICE_SOCKET set and stdio on the
// null device, as the application does; returns its pid.
pid_t startNode(const std::string& socketPath, const char* executable = HL_NODE_EXECUTABLE);

// Waits up to timeout for the process (a child of this one) to end; its exit
// status, or -1 if it is still running.
int waitForExit(pid_t pid, std::chrono::milliseconds timeout);

// Sends bytes on a fresh connection, half-closes, and reads the reply until end
// of file; empty when the node closed without a word.
std::string rawExchange(const std::string& socketPath, const std::string& bytes);

// Whether the process has ended (a zombie counts as ended).
bool processIsGone(pid_t pid);

// Waits until a node answers health on the path.
bool nodeAnswers(const std::string& socketPath, std::chrono::milliseconds timeout = 10s);

// Stops a node this process started: SIGTERM, then SIGKILL after five seconds.
void stopNode(pid_t pid);

// The first number printed after the marker, as in "P1234"; -1 when none is.
pid_t numberAfter(const std::string& output, const std::string& marker);
// Waits up to timeout for every one of the processes to end.
bool allGone(const std::vector<pid_t>& pids, std::chrono::milliseconds timeout);

struct PollResult {
    std::string output;
    bool exited = false;
};

class NodeHarness {
  public:
    explicit NodeHarness(const char* executable = HL_NODE_EXECUTABLE);
    ~NodeHarness();
    NodeHarness(const NodeHarness&) = delete;
    NodeHarness& operator=(const NodeHarness&) = delete;

    const std::string& folder() const { return folder_; }
    const std::string& socketPath() const { return socketPath_; }
    pid_t pid() const { return pid_; }
    UnixSocketClient client() const { return UnixSocketClient(socketPath_); }

    // Starts a shell in cwd (the harness's folder by default); returns its id.
    std::string createSession(const std::string& cwd = {}) const;
    void type(const std::string& sessionId, const std::string& text) const;
    PollResult poll(const std::string& sessionId) const;
    bool closeSession(const std::string& sessionId) const;
    // Polls until the accumulated output satisfies done, or the deadline passes;
    // returns everything polled (exited tells whether the shell was seen to end).
    PollResult pollUntil(const std::string& sessionId,
                         const std::function<bool(const PollResult&)>& done,
                         std::chrono::milliseconds timeout = 20s) const;
    // Polls until the output contains text.
    PollResult pollUntilContains(const std::string& sessionId, const std::string& text) const;
    // Polls until the output holds a number after the marker (see numberAfter).
    PollResult pollUntilNumberAfter(const std::string& sessionId, const std::string& marker) const;

  private:
    std::string folder_;
    std::string socketPath_;
    pid_t pid_ = -1;
};

}  // namespace hl::node::testing
