// WorkspaceStore's sweep of the node: sessions that no pane, suspended pane,
// pending close or list of recovered sessions records are shells the user can no longer reach (left
// behind by a crash between a session's start and its save). Once everything stored was read
// cleanly they are closed through the ledger, like any other close.
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QTimer>

#include <functional>

#include "TerminalThreads.h"
#include "WorkspaceStore.h"

namespace hl {

bool WorkspaceStore::startIsInFlight() const {
    for (const auto& each : tabs_) {
        for (TerminalPane* pane : each->panes()) {
            if (pane->controller().hasStartInFlight()) return true;
        }
    }
    for (const auto& pane : retiredPanes_) {
        if (pane->controller().hasStartInFlight()) return true;
    }
    return false;
}

void WorkspaceStore::closeUnrecordedSessions(int attemptsRemaining) {
    // Never while anything stored is unclear: what it holds may name these sessions.
    if (!storageIsWritable_ || !damagedKeys_.empty() || loadFailed_ ||
        !closeLedger_->isReadable() || !suspendedPanesAreWritable_ || migrationDroppedSessions_) {
        return;
    }
    if (startIsInFlight()) {
        retrySweep(attemptsRemaining);
        return;
    }
    installMainThreadQueue();
    QPointer<WorkspaceStore> store(this);
    try {
        runDetached([store, client = client_, attemptsRemaining] {
            std::set<QString> listed;
            try {
                const auto ids = client->request("list_sessions")["session_ids"].arrayValue();
                if (!ids) return;
                for (const auto& id : *ids) {
                    if (auto text = id.stringValue()) listed.insert(QString::fromStdString(*text));
                }
            } catch (...) {
                return;  // no node, no sweep: the next start tries again
            }
            postToMainThread([store, listed, attemptsRemaining] {
                if (store && !store->closeSessionsNothingRecords(listed))
                    store->retrySweep(attemptsRemaining);
            });
        });
    } catch (const std::exception&) {
        retrySweep(attemptsRemaining);
    }
}

void WorkspaceStore::retrySweep(int attemptsRemaining) {
    if (attemptsRemaining <= 1) return;
    QTimer::singleShot(sweepPause, this, [this, attemptsRemaining] {
        closeUnrecordedSessions(attemptsRemaining - 1);
    });
}

bool WorkspaceStore::closeSessionsNothingRecords(const std::set<QString>& nodeSessions) {
    // A start in flight may have made a session after the list was taken.
    if (!storageIsWritable_) return true;
    if (startIsInFlight()) return false;
    std::set<QString> recorded = sessionsSeenThisRun_;
    recorded.merge(legacySessionIDs());
    auto recordPane = [&recorded](const TerminalPane& pane) {
        if (pane.sessionID()) recorded.insert(*pane.sessionID());
        if (auto live = pane.controller().sessionID())
            recorded.insert(QString::fromStdString(*live));
        for (const auto& shell : pane.previousShells())
            recorded.insert(shell.sessionID);
        for (const auto& shell : pane.controller().previousShells())
            recorded.insert(QString::fromStdString(shell.id));
    };
    for (const auto& each : tabs_) {
        for (TerminalPane* pane : each->panes())
            recordPane(*pane);
    }
    for (const auto& pane : retiredPanes_)
        recordPane(*pane);
    for (const auto& [id, pane] : suspendedPanes_)
        recorded.insert(pane.sessionID);
    for (const auto& id : closeLedger_->pending())
        recorded.insert(id);
    recorded.merge(sessionsWaitingForRecovery());
    for (const QString& id : nodeSessions) {
        if (recorded.count(id) != 0) continue;
        if (closeLedger_->record(id)) closeLedger_->retry(id);
    }
    return true;
}

std::set<QString> WorkspaceStore::legacySessionIDs() const {
    std::set<QString> ids;
    const PreferenceRead legacy = defaults_->readData(legacyKey);
    if (!legacy.isPresent() || legacy.isDamaged()) return ids;
    const auto bytes = QByteArray::fromStdString(std::get<PreferenceData>(*legacy.value).bytes);
    // Whatever the shape: a tab that was dropped as invalid still names its sessions.
    std::function<void(const QJsonValue&)> collect = [&](const QJsonValue& value) {
        if (value.isArray()) {
            for (const QJsonValue& item : value.toArray())
                collect(item);
        } else if (value.isObject()) {
            const QJsonObject object = value.toObject();
            for (auto it = object.begin(); it != object.end(); ++it) {
                if (it.key() == QLatin1String("sessionID") && it.value().isString())
                    ids.insert(it.value().toString());
                collect(it.value());
            }
        }
    };
    const QJsonDocument document = QJsonDocument::fromJson(bytes);
    collect(document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object()));
    return ids;
}

}  // namespace hl
