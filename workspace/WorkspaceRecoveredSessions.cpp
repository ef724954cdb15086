// WorkspaceStore and the shells that outlive a start over. Before saved data is
// copied away and cleared, the sessions running in the node are written, each
// with its working directory, under `recoveredSessionsKey`. The next start
// opens each one that nothing else holds in a "Recovered terminals" tab: a
// session in a scratch directory in the Scratch workspace, one in a known
// project's folder in that project's workspace. A session whose folder belongs
// to no known project stays listed, running and never swept (a later start
// places it once its project is known); the list goes once all are placed.
// Panes of a project that had no owner here get their owner back the same way:
// built again once the project is known, so that they reattach at once.
#include <algorithm>
#include <filesystem>
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

// An entry of the list: the session id, a tab, the working directory.
std::string entryText(const RecoveredSession& session) {
    return session.id.toStdString() + "\t" + session.cwd.toStdString();
}

RecoveredSession entryOf(const std::string& text) {
    const auto tab = text.find('\t');
    if (tab == std::string::npos) return {QString::fromStdString(text), QString()};
    return {QString::fromStdString(text.substr(0, tab)),
            QString::fromStdString(text.substr(tab + 1))};
}

}  // namespace

std::vector<QString> WorkspaceStore::scratchFolders(const QString& scratchRoot) {
    std::vector<QString> folders;
    std::error_code error;
    for (const auto& entry :
         std::filesystem::directory_iterator(scratchRoot.toStdString(), error)) {
        const QString name = QString::fromStdString(entry.path().filename().string());
        const QUuid id = QUuid::fromString(name);
        if (!id.isNull() && entry.is_directory(error)) folders.push_back(scratchRoot + "/" + name);
    }
    return folders;
}

std::optional<std::vector<RecoveredSession>> WorkspaceStore::runningSessions(
    const NodeClientTransport& client, const std::set<QString>& leaveOut,
    const std::map<QString, QString>& knownFolders, const std::vector<QString>& candidateFolders) {
    std::vector<RecoveredSession> running;
    try {
        const auto ids = client.request("list_sessions")["session_ids"].arrayValue();
        if (!ids) return std::nullopt;
        for (const auto& value : *ids) {
            auto text = value.stringValue();
            if (!text || leaveOut.count(QString::fromStdString(*text)) != 0) continue;
            const QString id = QString::fromStdString(*text);
            // The node tells a session's folder only by confirming a guess.
            std::vector<QString> guesses;
            if (auto known = knownFolders.find(id); known != knownFolders.end())
                guesses.push_back(known->second);
            guesses.insert(guesses.end(), candidateFolders.begin(), candidateFolders.end());
            QString cwd;
            for (const QString& guess : guesses) {
                try {
                    client.request("replay_session",
                                   {{"session_id", *text}, {"expected_cwd", guess.toStdString()}});
                    cwd = guess;
                    break;
                } catch (const NodeClientError&) {
                    // Another folder, or gone since the list was made.
                }
            }
            running.push_back({id, cwd});
        }
    } catch (const std::exception&) {
        return std::nullopt;
    }
    return running;
}

std::vector<RecoveredSession> WorkspaceStore::sessionsToKeepAcrossStartOver(
    bool closeLedgerIsCleared) const {
    std::set<QString> closing;
    if (!closeLedgerIsCleared && closeLedger_->isReadable()) closing = closeLedger_->pending();
    std::map<QString, QString> known;
    for (const auto& each : tabs_) {
        for (TerminalPane* pane : each->panes()) {
            if (pane->sessionID()) known[*pane->sessionID()] = pane->context().cwd;
        }
    }
    for (const auto& [id, pane] : suspendedPanes_)
        known[pane.sessionID] = pane.cwd;
    std::vector<QString> candidates;
    for (const auto& [projectID, root] : projectRoots_)
        candidates.push_back(root);
    for (const QString& folder : scratchFolders(scratchRoot_))
        candidates.push_back(folder);
    if (auto running = runningSessions(*client_, closing, known, candidates)) return *running;
    // No node: the sessions that this run's panes name are kept.
    std::vector<RecoveredSession> kept;
    for (const auto& [id, cwd] : known) {
        if (closing.count(id) == 0) kept.push_back({id, cwd});
    }
    return kept;
}

bool WorkspaceStore::keepSessionsForRecovery(Preferences& defaults,
                                             const std::vector<RecoveredSession>& sessions) {
    std::vector<std::string> list;
    if (auto earlier = defaults.textList(recoveredSessionsKey)) list = *earlier;
    for (const auto& session : sessions) {
        const bool listed = std::any_of(list.begin(), list.end(), [&](const std::string& entry) {
            return entryOf(entry).id == session.id;
        });
        if (!listed) list.push_back(entryText(session));
    }
    if (list.empty()) return true;
    return defaults.set(recoveredSessionsKey, list);
}

std::set<QString> WorkspaceStore::sessionsWaitingForRecovery() const {
    std::set<QString> waiting;
    if (auto list = defaults_->textList(recoveredSessionsKey)) {
        for (const auto& entry : *list)
            waiting.insert(entryOf(entry).id);
    }
    return waiting;
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

    // Panes by the workspace they go to; entries that find no place yet.
    std::map<QString, std::vector<std::unique_ptr<TerminalPane>>> placed;
    std::vector<std::string> waiting;
    for (const auto& text : std::get<std::vector<std::string>>(*stored.value)) {
        const RecoveredSession session = entryOf(text);
        if (session.id.isEmpty() || !recorded.insert(session.id).second) continue;
        std::optional<PaneContext> context;
        const QString scratchName = session.cwd.mid(scratchRoot_.size() + 1);
        const QUuid scratchID = QUuid::fromString(scratchName);
        if (!scratchID.isNull() && scratchPathMatchesIdentity(session.cwd, scratchID, scratchRoot_))
            context = PaneContext{std::nullopt, session.cwd, scratchID};
        for (const auto& [projectID, root] : projectRoots_) {
            if (!context && (session.cwd == root || session.cwd.startsWith(root + "/")))
                context = PaneContext{projectID, session.cwd, std::nullopt};
        }
        if (!context) {
            waiting.push_back(text);
            continue;
        }
        placed[workspaceIDFor(context->projectID)].push_back(
            makePane(QUuid::createUuid(), *context, session.id, false));
    }
    for (auto& [workspaceID, panes] : placed) {
        std::vector<QUuid> paneIDs;
        for (const auto& pane : panes)
            paneIDs.push_back(pane->id());
        const std::optional<QString> projectID = panes.front()->context().projectID;
        const QUuid tabID = QUuid::createUuid();
        tabs_.push_back(std::make_unique<TerminalTab>(
            tabID, recoveredTabTitle, projectID, std::move(panes),
            tiled(paneIDs, 0, paneIDs.size(), true), paneIDs.front()));
        selectedTabs_[workspaceID] = tabID;
        if (!activeWorkspaceID_ || workspaceID == scratchWorkspaceID) {
            setActiveWorkspaceID(workspaceID);
            setSelectedTabID(tabID);
        }
    }
    if (!placed.empty()) {
        emit tabsChanged();
        persist();
        if (!storageIsWritable_) return;  // the list stays for the next start
    }
    if (waiting.empty()) {
        defaults_->remove(recoveredSessionsKey);
    } else {
        defaults_->set(recoveredSessionsKey, waiting);
        setErrorMessage(
            waiting.size() == 1
                ? QStringLiteral("1 recovered terminal keeps running, but its folder belongs to "
                                 "no project here, so it has no pane.")
                : QStringLiteral("%1 recovered terminals keep running, but their folders belong "
                                 "to no project here, so they have no pane.")
                      .arg(waiting.size()));
    }
}

void WorkspaceStore::renewPanesOfProject(const QString& projectID) {
    bool renewed = false;
    for (const auto& each : tabs_) {
        if (each->projectID() != projectID) continue;
        for (TerminalPane* old : each->panes()) {
            auto replaced = each->takePane(old->id());
            each->addPane(makePane(replaced->id(), replaced->context(), replaced->sessionID(),
                                   replaced->controller().isReplacementSession()));
            retire(std::move(replaced));
            renewed = true;
        }
    }
    if (renewed) emit tabsChanged();
}

}  // namespace hl
