// Helpers of the terminal tests: a scripted node transport for the logic, a
// surface that records what it is told, a status recorder, event-loop waits,
// and a real node process on a socket of the test's own.
#pragma once

#include <sys/types.h>

#include <QObject>
#include <QString>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "NodeClient.h"
#include "TerminalController.h"
#include "TerminalSurface.h"
#include "TestSupport.h"

namespace hl::test {

std::string b64(const std::string& bytes);
// Base64 text back to bytes; fails the test on invalid text.
std::string unb64(const std::string& text);

// Spins the Qt event loop until `condition` holds or `timeout` passes.
bool spinUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds timeout = std::chrono::seconds(10));
// Spins the Qt event loop for `duration`.
void spinFor(std::chrono::milliseconds duration);
// Waits, spinning the event loop, until no detached terminal work is left.
bool drainDetachedWork(std::chrono::milliseconds timeout = std::chrono::seconds(20));

// A reply with the given data members.
NodeResponse reply(std::map<std::string, JSONValue> data = {});
NodeResponse sessionList(const std::vector<std::string>& ids);
std::string textOf(const NodeRequestData& data, const std::string& key);
std::int64_t numberOf(const NodeRequestData& data, const std::string& key);

// A node transport whose replies are scripted per operation. An operation with
// no handler fails as an absent node. Operations can be held in flight until
// all are released, to test what happens meanwhile.
class ScriptedTransport final : public NodeClientTransport {
  public:
    using Handler = std::function<NodeResponse(const NodeRequestData&)>;

    void on(const std::string& op, Handler handler);
    void hold(const std::string& op);
    void releaseAll();
    // Requests of `op` now blocked by hold().
    int waiting(const std::string& op) const;
    int count(const std::string& op) const;
    std::vector<NodeRequestData> requests(const std::string& op) const;
    // Every operation sent, in order.
    std::vector<std::string> operations() const;

    NodeResponse request(const std::string& op, const NodeRequestData& data = {}) const override;

  private:
    mutable std::mutex mutex_;
    mutable std::condition_variable released_;
    std::map<std::string, Handler> handlers_;
    std::set<std::string> held_;
    mutable std::map<std::string, int> waiting_;
    mutable std::vector<std::pair<std::string, NodeRequestData>> log_;
};

// A real transport that counts the operations it sends.
class CountingTransport final : public NodeClientTransport {
  public:
    explicit CountingTransport(std::string socketPath) : client_(std::move(socketPath)) {}
    int count(const std::string& op) const;
    NodeResponse request(const std::string& op, const NodeRequestData& data = {}) const override;

  private:
    UnixSocketClient client_;
    mutable std::mutex mutex_;
    mutable std::map<std::string, int> counts_;
};

// A surface that records its calls and the bytes it shows.
class RecordingSurface final : public TerminalSurface {
    Q_OBJECT

  public:
    void write(const QString& base64) override;
    void replaceWithReplay(const QString& base64) override;
    void focus() override { ++focusCount; }
    void resignFocus() override { ++resignCount; }
    void search(const QString&, bool) override {}

    std::vector<std::string> writes;   // decoded, in order
    std::vector<std::string> replays;  // decoded, in order
    std::string shown;                 // what the terminal would show now, as bytes
    int focusCount = 0;
    int resignCount = 0;
    bool offMainThread = false;  // a call arrived on another thread
};

// The status texts a controller went through, in order.
class StatusLog final : public QObject {
    Q_OBJECT

  public:
    explicit StatusLog(TerminalController& controller);
    std::vector<std::string> texts;
    // True if `sequence` appears in the log in this order, not necessarily adjacent.
    bool sawInOrder(const std::vector<std::string>& sequence) const;
};

// The real harborlattice-node, started on a socket of the test's own with a
// private HOME, and killed when this object goes.
class NodeProcess {
  public:
    NodeProcess(std::string socketPath, std::filesystem::path home);
    ~NodeProcess();
    // Starts the node and waits until it answers health.
    bool start();
    // Starts the node without waiting for it.
    bool launch();
    void kill();
    bool running() const { return pid_ > 0; }

  private:
    std::string socketPath_;
    std::filesystem::path home_;
    pid_t pid_ = -1;
};

// Kills every harborlattice-node serving `socketPath`, wherever it came from.
void killNodesServing(const std::string& socketPath);

std::string nodeExecutable();

}  // namespace hl::test
