// NodeSupervisor: makes sure a terminal node answers on the socket, and starts
// one if none does. It does not track, wait for or retry the node it starts:
// terminals notice a missing node and call again. What a node it started says
// on its standard error before it serves (why it cannot start, such as a lock
// file it cannot take) is kept as launchFailure() for whoever shows it.
#pragma once

#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace hl {

class NodeSupervisor {
  public:
    static NodeSupervisor& shared();

    // Returns at once; at most one check-and-launch runs at a time, and calls
    // made while it runs are dropped. Callable from any thread.
    void ensureRunning();

    // True while a check-and-launch is under way (for observers and tests).
    bool launchInFlight() const;

    // Why the last node started here did not start, in its own words; absent
    // when it started (or none was started yet).
    std::optional<std::string> launchFailure() const;

    NodeSupervisor(const NodeSupervisor&) = delete;
    NodeSupervisor& operator=(const NodeSupervisor&) = delete;

  private:
    NodeSupervisor() = default;
    void check();
    void finish();
    // The node to run: $HARBORLATTICE_NODE_EXECUTABLE, the node beside the
    // application's executable, $HARBORLATTICE_ROOT/target/debug; the first
    // executable file wins.
    std::optional<std::filesystem::path> nodeExecutable() const;

    mutable std::mutex lock_;
    bool launchInFlight_ = false;
    std::optional<std::string> launchFailure_;
};

// Starts `executable` (an absolute path) with no arguments, detached from this
// process: its own session, the given working directory, stdio on /dev/null, no
// other descriptor, and the given environment. With onReport, standard error is
// a pipe instead, and onReport receives (on a thread of its own) all that the
// child wrote there once the child has closed it or ended. Returns false when
// it could not be started.
bool launchDetached(const std::filesystem::path& executable,
                    const std::filesystem::path& workingDirectory,
                    const std::vector<std::string>& environment,
                    std::function<void(std::string)> onReport = {});

}  // namespace hl
