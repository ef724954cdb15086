// WorkspaceStore saving: the one save of the whole model, checked first against
// what restore will demand of it, the suspended list, and what happens when a
// write fails or a session's close cannot be put on disk.
#include <QFileInfo>

#include <algorithm>

#include "WorkspaceStore.h"

namespace hl {

SavedWorkspace WorkspaceStore::savedWorkspace() const {
    SavedWorkspace saved{activeWorkspaceID_, selectedTabID_, selectedTabs_, {}};
    for (const auto& each : tabs_) {
        SavedTab tab{each->id(), each->title(),  each->projectID(),
                     {},         each->layout(), each->selectedPaneID()};
        for (TerminalPane* pane : each->panes()) {
            tab.panes.push_back(SavedPane{pane->id(), pane->sessionID(), pane->context(),
                                          pane->controller().isReplacementSession(),
                                          pane->previousShells()});
        }
        saved.tabs.push_back(std::move(tab));
    }
    return saved;
}

void WorkspaceStore::persist() {
    if (!storageIsWritable_) return;
    QString fault;
    if (!modelIsConsistent(&fault)) {
        // A model that restore would refuse is never written; the last good save stays.
        qCritical("harborlattice: workspace model is inconsistent (%s); not saved",
                  qPrintable(fault));
        return;
    }
    const QByteArray bytes = savedWorkspace().encoded();
    if (!defaults_->set(storageKey, PreferenceData{bytes.toStdString()})) {
        saveFailed();
        return;
    }
    if (onChange) onChange();
}

void WorkspaceStore::persistSuspendedPanes() {
    if (!suspendedPanesAreWritable_) return;
    if (suspendedPanes_.size() != persistedSuspendedCount_) {
        persistedSuspendedCount_ = suspendedPanes_.size();
        emit suspendedPanesChanged();
    }
    // The map is keyed by UUID; the list is ordered by the id's text.
    std::vector<SuspendedPane> list = suspendedPanes();
    std::sort(list.begin(), list.end(), [](const SuspendedPane& a, const SuspendedPane& b) {
        return uuidText(a.id) < uuidText(b.id);
    });
    if (list.empty()) {
        defaults_->remove(suspendedPanesKey);
        return;
    }
    defaults_->set(suspendedPanesKey, PreferenceData{encodeSuspendedPanes(list).toStdString()});
}

bool WorkspaceStore::modelIsConsistent(QString* fault) const {
    std::set<QUuid> tabIDs, paneIDs;
    for (const auto& each : tabs_) {
        if (!tabIDs.insert(each->id()).second) {
            *fault = "repeated tab " + each->id().toString();
            return false;
        }
        QList<QUuid> panes;
        for (TerminalPane* pane : each->panes()) {
            panes.append(pane->id());
            if (!paneIDs.insert(pane->id()).second) {
                *fault = "repeated pane " + pane->id().toString();
                return false;
            }
        }
        if (panes.isEmpty() || !paneIdentitySetIsExact(panes, each->layout().paneIDs())) {
            *fault = QStringLiteral("tab %1 has %2 panes and %3 layout leaves")
                         .arg(each->id().toString())
                         .arg(panes.size())
                         .arg(each->layout().paneIDs().size());
            return false;
        }
        if (each->selectedPaneID() && !each->pane(*each->selectedPaneID())) {
            *fault = "tab " + each->id().toString() + " selects a pane it does not have";
            return false;
        }
    }
    return true;
}

void WorkspaceStore::saveFailed() {
    storageIsWritable_ = false;
    writeFailed_ = true;
    writeFailure_ = defaults_->lastWriteFailure();
    setErrorMessage(savingStoppedMessage());
    if (!saveRetry_.isActive()) {
        saveRetry_.setSingleShot(true);
        saveRetry_.callOnTimeout(this, &WorkspaceStore::retrySave, Qt::UniqueConnection);
        saveRetry_.start(saveRetryPeriod);
    }
}

void WorkspaceStore::retrySave() {
    if (!writeFailed_) return;
    // The probe does not wait, so a database still held costs the window nothing.
    if (operationDepth_ > 0 || !defaults_->writeIsPossibleNow()) {
        saveRetry_.start(saveRetryPeriod);
        return;
    }
    const QString stopped = savingStoppedMessage();
    storageIsWritable_ = true;
    writeFailed_ = false;
    persist();
    if (!storageIsWritable_) return;  // failed again: saveFailed() rearmed the retry
    writeFailure_.clear();
    if (errorMessage_ && errorMessage_->startsWith(stopped)) setErrorMessage(std::nullopt);
}

QString WorkspaceStore::savingStoppedMessage() const {
    const QString cause =
        writeFailure_.empty() ? QString() : " (" + QString::fromStdString(writeFailure_) + ")";
    return QStringLiteral(
               "Workspace changes could not be saved to %1%2. Harborlattice tries "
               "again every second and saves them as soon as it can; until then no "
               "terminal is started.")
        .arg(QString::fromStdString(defaults_->location().string()), cause);
}

QString WorkspaceStore::refusal() const {
    if (writeFailed_) return savingStoppedMessage();
    return QStringLiteral("Saved workspace data is unreadable and was preserved.");
}

bool WorkspaceStore::recordCloses(const std::vector<TerminalPane*>& panes) {
    for (TerminalPane* pane : panes) {
        if (!pane->sessionID()) continue;
        if (!closeLedger_->record(*pane->sessionID())) {
            setErrorMessage(
                QStringLiteral("The close could not be recorded, so the terminal was kept open."));
            return false;
        }
    }
    return true;
}

}  // namespace hl
