// WorkspaceStore start-up: reading the suspended panes, choosing what saved data
// to read, and the main restore with its two passes, its counters and its one
// message. Damage in the current format freezes saving; legacy data is repaired.
#include <QFileInfo>

#include <set>

#include "WorkspaceStore.h"

namespace hl {

namespace {

// "n <singular-or-plural verb>" pieces of the restore messages.
QString count(int n) {
    return QString::number(n);
}
QString wasWere(int n) {
    return n == 1 ? "was" : "were";
}
QString hasHave(int n) {
    return n == 1 ? "has" : "have";
}
// The noun in the number that `n` asks for.
QString noun(int n, const char* singular, const char* plural) {
    return QString::fromLatin1(n == 1 ? singular : plural);
}

}  // namespace

void WorkspaceStore::readSuspendedPanes() {
    const PreferenceRead stored = defaults_->readData(suspendedPanesKey);
    if (stored.isAbsent()) return;
    try {
        if (stored.isDamaged()) throw LayoutDecodingError("unreadable");
        std::map<QUuid, SuspendedPane> panes;
        const auto& bytes = std::get<PreferenceData>(*stored.value).bytes;
        for (auto& pane : decodeSuspendedPanes(QByteArray::fromStdString(bytes))) {
            if (!panes.emplace(pane.id, pane).second) throw LayoutDecodingError("repeated id");
        }
        suspendedPanes_ = std::move(panes);
        persistedSuspendedCount_ = suspendedPanes_.size();
        const std::size_t read = suspendedPanes_.size();
        boundSuspendedPanes();
        if (suspendedPanes_.size() != read) persistSuspendedPanes();
    } catch (const LayoutDecodingError&) {
        // The list names running sessions: kept as it is, never overwritten.
        suspendedPanesAreWritable_ = false;
        if (stored.state == PreferenceReadState::failed) {
            loadFailed_ = true;
        } else {
            damagedKeys_.insert(suspendedPanesKey);
        }
    }
}

void WorkspaceStore::freezeStorage(const PreferenceRead& read, const char* key,
                                   const QString& message) {
    storageIsWritable_ = false;
    retryablePendingCloseIDs_.clear();
    if (read.state == PreferenceReadState::failed) {
        loadFailed_ = true;
    } else {
        damagedKeys_.insert(key);
    }
    setErrorMessage(message);
}

void WorkspaceStore::restore() {
    const QString unreadable =
        QStringLiteral("Saved workspace data is unreadable. Its original data was preserved.");
    if (!closeLedger_->isReadable()) {
        // Which saved sessions were closed is unknown: nothing may be saved or closed.
        freezeStorage(defaults_->readTextList(SessionCloseLedger::storageKey),
                      SessionCloseLedger::storageKey,
                      QStringLiteral("The list of closing sessions is unreadable. Its original "
                                     "data was preserved."));
    }
    const PreferenceRead current = defaults_->readData(storageKey);
    if (current.isDamaged()) {
        freezeStorage(current, storageKey, unreadable);
        return;
    }
    if (current.isPresent()) {
        SavedWorkspace saved;
        try {
            saved = SavedWorkspace::decode(
                QByteArray::fromStdString(std::get<PreferenceData>(*current.value).bytes));
        } catch (const LayoutDecodingError&) {
            freezeStorage(current, storageKey, unreadable);
            return;
        }
        restore(saved, false);
        if (!storageIsWritable_ && catalogIsReadable_ && closeLedger_->isReadable())
            damagedKeys_.insert(storageKey);
        return;
    }
    const PreferenceRead legacy = defaults_->readData(legacyKey);
    if (legacy.state == PreferenceReadState::failed) {
        // There may be an earlier workspace: never start fresh over it.
        freezeStorage(legacy, legacyKey, unreadable);
        return;
    }
    if (legacy.isPresent()) {
        try {
            const SavedWorkspace saved = SavedWorkspace::decodeLegacy(
                QByteArray::fromStdString(std::get<PreferenceData>(*legacy.value).bytes));
            restore(saved, true);
            if (storageIsWritable_) persist();
            return;
        } catch (const LayoutDecodingError&) {
            // An undecodable legacy value is ignored; it stays under its own key.
        }
    }
    retryablePendingCloseIDs_ = storageIsWritable_ ? closeLedger_->pending() : std::set<QString>{};
}

std::vector<SavedPreviousShell> WorkspaceStore::keepYoungPreviousShells(
    const std::vector<SavedPreviousShell>& shells) {
    std::vector<SavedPreviousShell> kept;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    for (const auto& shell : shells) {
        if (closeLedger_->pending().count(shell.sessionID) != 0) continue;  // closing already
        const bool expired = shell.since.addDays(previousShellDays) < now;
        if (expired && storageIsWritable_ && closeLedger_->record(shell.sessionID)) {
            retryablePendingCloseIDs_.insert(shell.sessionID);
            continue;
        }
        kept.push_back(shell);
    }
    return kept;
}

bool WorkspaceStore::restoredTabIsStructurallyValid(const SavedTab& tab) const {
    if (tab.panes.empty()) return false;
    QList<QUuid> paneIDs;
    for (const auto& pane : tab.panes)
        paneIDs.append(pane.id);
    if (!paneIdentitySetIsExact(paneIDs, tab.layout.paneIDs())) return false;
    for (const auto& pane : tab.panes) {
        const PaneContext& context = pane.context;
        if (tab.projectID) {
            if (context.projectID != tab.projectID) return false;
            if (!storedAbsolutePathIsCanonical(context.cwd)) return false;
            auto root = projectRoots_.find(*tab.projectID);
            if (root != projectRoots_.end() && context.cwd != root->second &&
                !context.cwd.startsWith(root->second + "/")) {
                return false;
            }
        } else {
            if (context.projectID || !context.scratchID) return false;
            if (!scratchPathMatchesIdentity(context.cwd, *context.scratchID, scratchRoot_))
                return false;
        }
    }
    return true;
}

void WorkspaceStore::restore(const SavedWorkspace& saved, bool sanitizingLegacyData) {
    int invalid = 0, orphaned = 0, duplicates = 0;

    // Pass 1: structure, ownership and repeated sessions.
    std::vector<SavedTab> kept;
    std::set<QUuid> seenTabs;
    std::set<QString> seenSessions;
    for (SavedTab tab : saved.tabs) {
        const bool firstOfItsID = seenTabs.insert(tab.id).second;
        if (!firstOfItsID || !restoredTabIsStructurallyValid(tab)) {
            ++invalid;
            continue;
        }
        if (tab.projectID && projectRoots_.count(*tab.projectID) == 0) ++orphaned;
        for (SavedPane& pane : tab.panes) {
            if (!pane.sessionID) continue;
            if (seenSessions.insert(*pane.sessionID).second) continue;
            ++duplicates;
            if (sanitizingLegacyData)
                pane = SavedPane{pane.id, std::nullopt, pane.context, false, {}};
        }
        kept.push_back(std::move(tab));
    }
    if (!sanitizingLegacyData && (invalid > 0 || duplicates > 0)) storageIsWritable_ = false;
    // The shells of what a migration left out stay running: no sweep this run.
    if (sanitizingLegacyData && (invalid > 0 || duplicates > 0)) migrationDroppedSessions_ = true;

    // Pass 2: panes whose close is still pending leave, with their leaves.
    bool droppedPendingPanes = false;
    std::vector<SavedTab> remaining;
    for (SavedTab& tab : kept) {
        std::optional<PaneLayout> layout = tab.layout;
        std::vector<SavedPane> panes;
        for (const SavedPane& pane : tab.panes) {
            if (pane.sessionID && closeLedger_->pending().count(*pane.sessionID) != 0) {
                droppedPendingPanes = true;
                if (layout) layout = layout->removing(pane.id);
                continue;
            }
            panes.push_back(pane);
        }
        if (panes.empty() || !layout) continue;
        std::optional<QUuid> selection;
        for (const auto& pane : panes) {
            if (tab.selectedPaneID == pane.id) selection = pane.id;
        }
        if (!selection) selection = layout->paneIDs().front();
        remaining.push_back(
            SavedTab{tab.id, tab.title, tab.projectID, std::move(panes), *layout, selection});
    }

    // The selection map: one tab per workspace, the saved choice when it remains.
    std::map<QString, QUuid> selection;
    for (const SavedTab& tab : remaining) {
        const QString workspace = workspaceIDFor(tab.projectID);
        if (selection.count(workspace) != 0) continue;
        QUuid chosen = tab.id;
        auto given = saved.selectedTabs.find(workspace);
        if (given != saved.selectedTabs.end()) {
            for (const SavedTab& other : remaining) {
                if (other.id == given->second && workspaceIDFor(other.projectID) == workspace) {
                    chosen = other.id;
                }
            }
        }
        selection[workspace] = chosen;
    }

    std::optional<QString> active;
    for (const SavedTab& tab : remaining) {
        if (saved.activeWorkspaceID && workspaceIDFor(tab.projectID) == *saved.activeWorkspaceID) {
            active = saved.activeWorkspaceID;
        }
    }
    for (const SavedTab& tab : remaining) {
        if (!active && saved.selectedTabID && tab.id == *saved.selectedTabID) {
            active = workspaceIDFor(tab.projectID);
        }
    }
    if (!active && !remaining.empty()) active = workspaceIDFor(remaining.front().projectID);
    std::optional<QUuid> selectedTab;
    if (active && selection.count(*active) != 0) selectedTab = selection[*active];

    // Saving and the ledger.
    if (!storageIsWritable_) {
        retryablePendingCloseIDs_.clear();
    } else if (droppedPendingPanes) {
        const SavedWorkspace rewritten{active, selectedTab, selection, remaining};
        if (!defaults_->set(storageKey, PreferenceData{rewritten.encoded().toStdString()})) {
            storageIsWritable_ = false;
            retryablePendingCloseIDs_.clear();
        }
    }
    if (storageIsWritable_) retryablePendingCloseIDs_ = closeLedger_->pending();

    // Live objects: the first pane in tab order keeps a repeated session.
    seenSessions.clear();
    for (const SavedTab& tab : remaining) {
        std::vector<std::unique_ptr<TerminalPane>> panes;
        for (const SavedPane& pane : tab.panes) {
            std::optional<QString> session = pane.sessionID;
            if (session && !seenSessions.insert(*session).second) session.reset();
            panes.push_back(makePane(pane.id, pane.context, session, session && pane.isReplacement,
                                     keepYoungPreviousShells(pane.previousShells)));
        }
        tabs_.push_back(std::make_unique<TerminalTab>(
            tab.id, tab.title, tab.projectID, std::move(panes), tab.layout, tab.selectedPaneID));
    }
    if (!tabs_.empty()) emit tabsChanged();

    if (invalid > 0) {
        setErrorMessage(sanitizingLegacyData
                            ? "Legacy workspace migrated; " + count(invalid) + " invalid " +
                                  noun(invalid, "tab ", "tabs ") + wasWere(invalid) + " skipped."
                            : count(invalid) + " structurally invalid saved " +
                                  noun(invalid, "tab ", "tabs ") + wasWere(invalid) +
                                  " not opened; the stored data was not rewritten.");
    } else if (duplicates > 0) {
        setErrorMessage(
            sanitizingLegacyData
                ? "Legacy workspace migrated; " + count(duplicates) + " duplicate session " +
                      noun(duplicates, "attachment ", "attachments ") + wasWere(duplicates) +
                      " replaced safely."
                : count(duplicates) + " duplicate saved session " +
                      noun(duplicates, "attachment ", "attachments ") + wasWere(duplicates) +
                      " neutralized; the stored data was not rewritten.");
    } else if (orphaned > 0) {
        setErrorMessage(count(orphaned) + " saved project " +
                        noun(orphaned, "workspace ", "workspaces ") + hasHave(orphaned) +
                        " no validated catalog owner. Data was preserved and reattach is blocked.");
    }

    selectedTabs_ = std::move(selection);
    setActiveWorkspaceID(active);
    setSelectedTabID(selectedTab);
    focusSelectedPane();
}

}  // namespace hl
