// SessionCloseLedger: the durable set of session ids whose close the node has
// not acknowledged yet. An id is *recorded* before its close is sent and leaves
// only when the node answers "closed" or "absent"; a *retry* sends the close
// from a background task, pausing between attempts while the node is away.
#pragma once

#include <QString>

#include <chrono>
#include <functional>
#include <memory>
#include <set>

#include "NodeClient.h"
#include "Preferences.h"

namespace hl {

// What the ledger does between attempts; the defaults start the node and pause 700 ms.
struct CloseRetryPolicy {
    std::function<void()> ensureRunning;
    std::chrono::milliseconds pause{700};
};

class SessionCloseLedger : public std::enable_shared_from_this<SessionCloseLedger> {
  public:
    static constexpr const char* storageKey = "harborlattice.pending-closes.v1";
    static constexpr int defaultAttempts = 2;

    using RetryPolicy = CloseRetryPolicy;

    // Reads the pending set; writes nothing. A stored list that cannot be read
    // leaves the ledger empty and unwritable, so that it is never overwritten.
    static std::shared_ptr<SessionCloseLedger> create(
        std::shared_ptr<Preferences> defaults, std::shared_ptr<const NodeClientTransport> client,
        RetryPolicy policy = {});

    const std::set<QString>& pending() const { return pending_; }
    // False when the stored list was unreadable or its read failed.
    bool isReadable() const { return isReadable_; }

    // Main thread: add or remove an id and save at once. `record` is true only
    // when the id is on disk; a session whose close is not on disk must not be
    // closed.
    bool record(const QString& sessionID);
    void acknowledge(const QString& sessionID);

    // Main thread: sends close_session off the main thread; with no
    // acknowledgement and attempts left, ensures the node runs, pauses and
    // tries again while the id is still pending.
    void retry(const QString& sessionID, int attemptsRemaining = defaultAttempts);
    void retryAll(const std::set<QString>& sessionIDs);
    void retryAll();

  private:
    SessionCloseLedger(std::shared_ptr<Preferences> defaults,
                       std::shared_ptr<const NodeClientTransport> client, RetryPolicy policy);
    bool persist();

    std::shared_ptr<Preferences> defaults_;
    std::shared_ptr<const NodeClientTransport> client_;
    RetryPolicy policy_;
    std::set<QString> pending_;
    bool isReadable_ = true;
};

}  // namespace hl
