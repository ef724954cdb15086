// SessionCloseLedger: record, acknowledge, and the retrying close task.
#include "SessionCloseLedger.h"

#include <QCoreApplication>
#include <QMetaObject>

#include <algorithm>
#include <thread>

#include "NodeSupervisor.h"

namespace hl {

namespace {

// Runs `work` on the main thread's event loop; dropped when there is none.
void onMainThread(std::function<void()> work) {
    if (QCoreApplication* app = QCoreApplication::instance()) {
        QMetaObject::invokeMethod(app, std::move(work), Qt::QueuedConnection);
    }
}

}  // namespace

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
    if (auto stored = defaults_->textList(storageKey)) {
        for (const auto& id : *stored)
            pending_.insert(QString::fromStdString(id));
    }
}

void SessionCloseLedger::record(const QString& sessionID) {
    pending_.insert(sessionID);
    persist();
}

void SessionCloseLedger::acknowledge(const QString& sessionID) {
    pending_.erase(sessionID);
    persist();
}

void SessionCloseLedger::persist() {
    std::vector<std::string> sorted;  // std::set keeps QString order, which is ascending
    for (const auto& id : pending_)
        sorted.push_back(id.toStdString());
    std::sort(sorted.begin(), sorted.end());
    defaults_->set(storageKey, sorted);
}

void SessionCloseLedger::retry(const QString& sessionID, int attemptsRemaining) {
    auto self = shared_from_this();
    std::thread([self, client = client_, sessionID, attemptsRemaining] {
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
            onMainThread([self, sessionID] { self->acknowledge(sessionID); });
            return;
        }
        if (attemptsRemaining < 1) return;
        self->policy_.ensureRunning();
        std::this_thread::sleep_for(self->policy_.pause);
        onMainThread([self, sessionID, attemptsRemaining] {
            if (self->pending_.count(sessionID) != 0) self->retry(sessionID, attemptsRemaining - 1);
        });
    }).detach();
}

void SessionCloseLedger::retryAll(const std::set<QString>& sessionIDs) {
    for (const auto& id : sessionIDs)
        retry(id);
}

void SessionCloseLedger::retryAll() {
    retryAll(std::set<QString>(pending_));
}

}  // namespace hl
