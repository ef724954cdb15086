// SessionCloseLedger: record, acknowledge, and the retrying close task.
#include "SessionCloseLedger.h"

#include <algorithm>
#include <thread>

#include "NodeSupervisor.h"
#include "TerminalThreads.h"

namespace hl {

std::shared_ptr<SessionCloseLedger> SessionCloseLedger::create(
    std::shared_ptr<Preferences> defaults, std::shared_ptr<const NodeClientTransport> client,
    RetryPolicy policy) {
    if (!policy.ensureRunning)
        policy.ensureRunning = [] { NodeSupervisor::shared().ensureRunning(); };
    return std::shared_ptr<SessionCloseLedger>(
        new SessionCloseLedger(std::move(defaults), std::move(client), std::move(policy)));
}

SessionCloseLedger::SessionCloseLedger(std::shared_ptr<Preferences> defaults,
                                       std::shared_ptr<const NodeClientTransport> client,
                                       RetryPolicy policy)
    : defaults_(std::move(defaults)), client_(std::move(client)), policy_(std::move(policy)) {
    const PreferenceRead stored = defaults_->readTextList(storageKey);
    if (stored.isDamaged()) {
        isReadable_ = false;
    } else if (stored.isPresent()) {
        for (const auto& id : std::get<std::vector<std::string>>(*stored.value))
            pending_.insert(QString::fromStdString(id));
    }
}

bool SessionCloseLedger::record(const QString& sessionID) {
    if (!isReadable_) return false;
    const bool added = pending_.insert(sessionID).second;
    if (persist()) return true;
    if (added) pending_.erase(sessionID);
    return false;
}

void SessionCloseLedger::acknowledge(const QString& sessionID) {
    pending_.erase(sessionID);
    persist();
}

bool SessionCloseLedger::persist() {
    if (!isReadable_) return false;
    std::vector<std::string> sorted;  // std::set keeps QString order, which is ascending
    for (const auto& id : pending_)
        sorted.push_back(id.toStdString());
    std::sort(sorted.begin(), sorted.end());
    return defaults_->set(storageKey, sorted);
}

void SessionCloseLedger::retry(const QString& sessionID, int attemptsRemaining) {
    installMainThreadQueue();
    auto self = shared_from_this();
    try {
        runDetached([self, client = client_, sessionID, attemptsRemaining] {
            bool acknowledged = false;
            try {
                const auto reply =
                    client->request("close_session", {{"session_id", sessionID.toStdString()}});
                acknowledged =
                    reply["closed"].boolValue() == true || reply["absent"].boolValue() == true;
            } catch (...) {
                // No reply: handled like any answer that is not an acknowledgement.
            }
            if (acknowledged) {
                postToMainThread([self, sessionID] { self->acknowledge(sessionID); });
                return;
            }
            if (attemptsRemaining < 1) return;
            self->policy_.ensureRunning();
            std::this_thread::sleep_for(self->policy_.pause);
            postToMainThread([self, sessionID, attemptsRemaining] {
                if (self->pending_.count(sessionID) != 0)
                    self->retry(sessionID, attemptsRemaining - 1);
            });
        });
    } catch (const std::exception&) {
        // No thread for the close: the id stays pending for a later retry.
    }
}

void SessionCloseLedger::retryAll(const std::set<QString>& sessionIDs) {
    for (const auto& id : sessionIDs)
        retry(id);
}

void SessionCloseLedger::retryAll() {
    retryAll(std::set<QString>(pending_));
}

}  // namespace hl
