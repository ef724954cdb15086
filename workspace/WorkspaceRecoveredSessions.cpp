// WorkspaceStore and the shells that outlive a start over. Before saved data is
// copied away and cleared, the sessions running in the node are written under
// `recoveredSessionsKey`; the next start opens each one that nothing else holds
// in a pane of one "Recovered terminals" tab of the Scratch workspace, saves,
// and only then lets the list go, so that the sweep of unrecorded sessions
// never meets them.
#include <algorithm>
#include <set>

#include "WorkspaceStore.h"

namespace hl {

namespace {

// The panes tiled: halves side by side, then halves of those one above the
// other, and so on, each pane's share as even as halving allows.
PaneLayout tiled(const std::vector<QUuid>& panes, std::size_t from, std::size_t to, bool across) {
    if (to - from == 1) return PaneLayout::pane(panes[from]);
    const std::size_t middle = from + (to - from) / 2;
    const double ratio = static_cast<double>(middle - from) / static_cast<double>(to - from);
    return PaneLayout::split(
        QUuid::createUuid(), across ? SplitAxis::Horizontal : SplitAxis::Vertical, ratio,
        tiled(panes, from, middle, !across), tiled(panes, middle, to, !across));
}

}  // namespace

std::vector<QString> WorkspaceStore::sessionsToKeepAcrossStartOver(bool closeLedgerIsCleared) const {
    std::vector<QString> kept;
    std::set<QString> closing;
    if (!closeLedgerIsCleared && closeLedger_->isReadable()) closing = closeLedger_->pending();
    try {
        const auto ids = client_->request("list_sessions")["session_ids"].arrayValue();
        if (ids) {
            for (const auto& id : *ids) {
                auto text = id.stringValue();
                if (text && closing.count(QString::fromStdString(*text)) == 0)
                    kept.push_back(QString::fromStdString(*text));
            }
            return kept;
        }
    } catch (const std::exception&) {
        // No node: the sessions that this run knows of are kept.
    }
    std::set<QString> known = sessionsSeenThisRun_;
    for (const auto& each : tabs_) {
        for (TerminalPane* pane : each->panes()) {
            if (pane->sessionID()) known.insert(*pane->sessionID());
        }
    }
    for (const auto& [id, pane] : suspendedPanes_)
        known.insert(pane.sessionID);
    for (const auto& id : known) {
        if (closing.count(id) == 0) kept.push_back(id);
    }
    return kept;
}

bool WorkspaceStore::keepSessionsForRecovery(Preferences& defaults,
                                             const std::vector<QString>& sessions) {
    std::vector<std::string> list;
    if (auto earlier = defaults.textList(recoveredSessionsKey)) list = *earlier;
    for (const auto& id : sessions) {
        if (std::find(list.begin(), list.end(), id.toStdString()) == list.end())
            list.push_back(id.toStdString());
    }
    if (list.empty()) return true;
    return defaults.set(recoveredSessionsKey, list);
}

void WorkspaceStore::openRecoveredSessions() {
    const PreferenceRead stored = defaults_->readTextList(recoveredSessionsKey);
    if (!stored.isPresent() || !storageIsWritable_) return;
    std::set<QString> recorded;
    for (const auto& each : tabs_) {
        for (TerminalPane* pane : each->panes()) {
            if (pane->sessionID()) recorded.insert(*pane->sessionID());
        }
    }
    for (const auto& [id, pane] : suspendedPanes_)
        recorded.insert(pane.sessionID);
    for (const auto& id : closeLedger_->pending())
        recorded.insert(id);

    std::vector<std::unique_ptr<TerminalPane>> panes;
    std::vector<QUuid> paneIDs;
    for (const auto& text : std::get<std::vector<std::string>>(*stored.value)) {
        const QString session = QString::fromStdString(text);
        if (session.isEmpty() || !recorded.insert(session).second) continue;
        const QUuid id = QUuid::createUuid();
        QString path;
        try {
            path = scratchDirectoryProvider_(id);
        } catch (...) {
            // The pane still attaches; only a new shell would need the folder.
            path = scratchRoot_ + "/" + id.toString(QUuid::WithoutBraces).toLower();
        }
        panes.push_back(makePane(id, PaneContext{std::nullopt, path, id}, session, false));
        paneIDs.push_back(id);
    }
    if (!panes.empty()) {
        const QUuid tabID = QUuid::createUuid();
        tabs_.push_back(std::make_unique<TerminalTab>(tabID, recoveredTabTitle, std::nullopt,
                                                      std::move(panes),
                                                      tiled(paneIDs, 0, paneIDs.size(), true),
                                                      paneIDs.front()));
        emit tabsChanged();
        selectedTabs_[scratchWorkspaceID] = tabID;
        if (!activeWorkspaceID_) {
            setActiveWorkspaceID(scratchWorkspaceID);
            setSelectedTabID(tabID);
        }
        persist();
        if (!storageIsWritable_) return;  // the list stays for the next start
    }
    defaults_->remove(recoveredSessionsKey);
}

}  // namespace hl
