// WorkspaceStore and the shared workspaces: the live model as other computers
// see it, and the merge of their version into it. A pane that leaves is
// suspended with its session and comes back to it; the suspended panes are
// bounded (a number for each project, a lifetime), and the shells of a project
// that another computer removed are closed through the ledger.
#include <QDir>
#include <QFileInfo>

#include <algorithm>
#include <cstdlib>

#include "WorkspaceStore.h"

namespace hl {

namespace {

struct DepthScope {
    explicit DepthScope(int& depth) : depth(depth) { ++depth; }
    ~DepthScope() { --depth; }
    int& depth;
};

}  // namespace

std::optional<QString> WorkspaceStore::relativePath(const QString& path, const QString& root) {
    QString candidate;
    if (path == root) {
        candidate = QString();
    } else if (path.startsWith(root + QLatin1Char('/'))) {
        candidate = path.mid(root.size() + 1);
    } else {
        return std::nullopt;
    }
    if (!SharedContent::relativePathIsSafe(candidate)) return std::nullopt;
    return candidate;
}

std::optional<QString> WorkspaceStore::resolvedPath(const QString& relative, const QString& root) {
    if (!SharedContent::relativePathIsSafe(relative)) return std::nullopt;
    if (relative.isEmpty()) return root;
    const QString joined = QDir::cleanPath(root + QLatin1Char('/') + relative);
    const QString resolved = QFileInfo(joined).canonicalFilePath();
    if (resolved.isEmpty() || !canonicalDirectoryIsAvailable(resolved, root)) return std::nullopt;
    return resolved;
}

QList<SharedWorkspace> WorkspaceStore::sharedWorkspaces(
    const std::vector<ProjectRecord>& mappedProjects) const {
    std::map<QString, QString> roots;
    for (const auto& record : mappedProjects) {
        if (!roots.emplace(record.id, record.root).second) std::abort();  // repeated id
    }
    QList<SharedWorkspace> result;
    for (const auto& record : mappedProjects) {
        SharedWorkspace workspace{record.id, {}, std::nullopt};
        bool complete = true;
        for (const auto& each : tabs_) {
            if (each->projectID() != record.id) continue;
            SharedTab tab{
                each->id(), each->title(), {}, each->layout().toJson(), each->selectedPaneID()};
            for (TerminalPane* pane : each->panes()) {
                const auto relative = relativePath(pane->context().cwd, record.root);
                if (!relative) {
                    complete = false;
                    break;
                }
                tab.panes.append(SharedPane{pane->id(), *relative});
            }
            if (!complete) break;
            workspace.tabs.append(std::move(tab));
        }
        if (!complete || workspace.tabs.isEmpty()) continue;
        auto remembered = selectedTabs_.find(projectWorkspaceID(record.id));
        const bool holds =
            remembered != selectedTabs_.end() &&
            std::any_of(workspace.tabs.begin(), workspace.tabs.end(),
                        [&](const SharedTab& t) { return t.id == remembered->second; });
        workspace.selectedTabID = holds ? remembered->second : workspace.tabs.front().id;
        result.append(std::move(workspace));
    }
    return result;
}

std::vector<QString> WorkspaceStore::applySharedWorkspaces(
    const QList<SharedWorkspace>& workspaces, const std::vector<ProjectRecord>& mappedProjects,
    const std::function<bool(const QUuid&)>& closesLeavingPane) {
    std::vector<QString> everything;
    for (const auto& record : mappedProjects)
        everything.push_back(record.id);
    if (!storageIsWritable_) return everything;
    std::map<QString, const SharedWorkspace*> incoming;
    for (const auto& workspace : workspaces) {
        if (!incoming.emplace(workspace.projectID, &workspace).second) return everything;
    }
    std::map<QString, QString> roots;
    for (const auto& record : mappedProjects) {
        if (!roots.emplace(record.id, record.root).second) return everything;
    }
    DepthScope scope(operationDepth_);
    projectRoots_ = roots;

    std::set<QString> unknown;
    for (const auto& each : tabs_) {
        if (each->projectID() && roots.count(*each->projectID()) == 0)
            unknown.insert(*each->projectID());
    }
    for (const QString& projectID : unknown) {
        if (!catalogIsReadable_ || !closeRemovedProject(projectID))
            replaceProjectTabs(projectID, {});  // kept suspended while no close can be recorded
        selectedTabs_.erase(projectWorkspaceID(projectID));
    }
    // Suspended shells of a project that is gone are closed too.
    std::set<QString> gone;
    for (const auto& [id, pane] : suspendedPanes_) {
        if (roots.count(pane.projectID) == 0) gone.insert(pane.projectID);
    }
    if (catalogIsReadable_) {
        for (const QString& projectID : gone)
            closeSuspendedPanes(projectID);
    }

    std::vector<QString> blocked;
    for (const auto& record : mappedProjects) {
        const QString workspaceID = projectWorkspaceID(record.id);
        auto found = incoming.find(record.id);
        if (found == incoming.end()) {
            if (hasWorkspace(record.id)) replaceProjectTabs(record.id, {});
            selectedTabs_.erase(workspaceID);
            continue;
        }
        auto imported = importedTabs(*found->second, record);
        if (!imported) {
            blocked.push_back(record.id);
            continue;
        }
        const std::optional<QUuid> wanted = found->second->selectedTabID;
        const bool holds = wanted && std::any_of(imported->begin(), imported->end(),
                                                 [&](const auto& t) { return t->id() == *wanted; });
        const QUuid selection = holds ? *wanted : imported->front()->id();
        // Only panes that the list itself takes away may be closed; a project
        // that is not mapped here, or has no workspace in the list, only suspends.
        closesLeavingPane_ = closesLeavingPane;
        replaceProjectTabs(record.id, std::move(*imported));
        closesLeavingPane_ = nullptr;
        selectedTabs_[workspaceID] = selection;
    }
    normalizeSelectionAfterSharedImport();
    persistSuspendedPanes();
    persist();
    return blocked;
}

std::optional<std::vector<std::unique_ptr<TerminalTab>>> WorkspaceStore::importedTabs(
    const SharedWorkspace& workspace, const ProjectRecord& project) {
    // Everything that can fail is settled before a live pane is moved, so that a
    // workspace that cannot be applied stays exactly as it was.
    std::map<QUuid, TerminalTab*> livePanes;
    for (const auto& each : tabs_) {
        if (each->projectID() != project.id) continue;
        for (TerminalPane* pane : each->panes()) {
            if (!livePanes.emplace(pane->id(), each.get()).second) std::abort();  // repeated id
        }
    }
    std::vector<std::vector<QString>> paths;
    std::vector<PaneLayout> layouts;
    for (const auto& tab : workspace.tabs) {
        try {
            layouts.push_back(PaneLayout::fromJson(tab.layout));
        } catch (...) {
            return std::nullopt;
        }
        std::vector<QString>& tabPaths = paths.emplace_back();
        for (const auto& pane : tab.panes) {
            const auto path = resolvedPath(pane.relativeCWD, project.root);
            if (!path) return std::nullopt;
            tabPaths.push_back(*path);
        }
    }

    std::vector<std::unique_ptr<TerminalTab>> result;
    for (qsizetype t = 0; t < workspace.tabs.size(); ++t) {
        const SharedTab& shared = workspace.tabs[t];
        std::vector<std::unique_ptr<TerminalPane>> panes;
        for (qsizetype p = 0; p < shared.panes.size(); ++p) {
            const QUuid& id = shared.panes[p].id;
            const PaneContext context{project.id, paths[t][p], std::nullopt};
            auto live = livePanes.find(id);
            if (live != livePanes.end() && live->second->pane(id) &&
                live->second->pane(id)->context() == context) {
                panes.push_back(live->second->takePane(id));
                continue;
            }
            std::optional<QString> sessionID;
            bool isReplacement = false;
            auto entry = suspendedPanes_.find(id);
            if (entry != suspendedPanes_.end() && entry->second.projectID == project.id &&
                entry->second.cwd == context.cwd) {
                sessionID = entry->second.sessionID;
                isReplacement = entry->second.isReplacement;
                suspendedPanes_.erase(entry);
            }
            panes.push_back(makePane(id, context, sessionID, isReplacement));
        }
        result.push_back(std::make_unique<TerminalTab>(shared.id, shared.title, project.id,
                                                       std::move(panes), layouts[t],
                                                       shared.selectedPaneID));
    }
    return result;
}

void WorkspaceStore::replaceProjectTabs(const QString& projectID,
                                        std::vector<std::unique_ptr<TerminalTab>> newTabs) {
    // Panes that the new tabs reuse were already taken out of the old ones; all
    // that is left in the old tabs leaves the model.
    auto first = std::find_if(tabs_.begin(), tabs_.end(),
                              [&](const auto& each) { return each->projectID() == projectID; });
    std::size_t position = static_cast<std::size_t>(first - tabs_.begin());
    std::vector<std::unique_ptr<TerminalTab>> old;
    for (auto it = tabs_.begin(); it != tabs_.end();) {
        if ((*it)->projectID() == projectID) {
            old.push_back(std::move(*it));
            it = tabs_.erase(it);
        } else {
            ++it;
        }
    }
    position = std::min(position, tabs_.size());
    tabs_.insert(tabs_.begin() + static_cast<std::ptrdiff_t>(position),
                 std::make_move_iterator(newTabs.begin()), std::make_move_iterator(newTabs.end()));
    emit tabsChanged();
    for (auto& tab : old) {
        std::vector<QUuid> ids;
        for (TerminalPane* pane : tab->panes())
            ids.push_back(pane->id());
        for (const QUuid& id : ids) {
            auto pane = tab->takePane(id);
            if (closesLeavingPane_ && closesLeavingPane_(id) && recordCloses({pane.get()})) {
                pane->controller().close();
                retire(std::move(pane));
            } else {
                suspendPane(std::move(pane));
            }
        }
    }
}

void WorkspaceStore::suspendPane(std::unique_ptr<TerminalPane> pane) {
    if (!pane) return;
    pane->controller().suspend();
    const PaneContext& context = pane->context();
    std::optional<QString> sessionID = pane->sessionID();
    if (!sessionID && pane->controller().sessionID())
        sessionID = QString::fromStdString(*pane->controller().sessionID());
    if (context.projectID && sessionID) {
        fileSuspendedPane(SuspendedPane{pane->id(), *context.projectID, context.cwd, *sessionID,
                                        pane->controller().isReplacementSession()});
    }
    retire(std::move(pane));
}

void WorkspaceStore::fileSuspendedPane(const SuspendedPane& pane) {
    auto displaced = suspendedPanes_.find(pane.id);
    if (displaced != suspendedPanes_.end() && displaced->second.sessionID != pane.sessionID) {
        closeLedger_->record(displaced->second.sessionID);
        closeLedger_->retry(displaced->second.sessionID);
    }
    SuspendedPane filed = pane;
    if (filed.suspendedAt == 0) filed.suspendedAt = suspendedPaneClock();
    suspendedPanes_[pane.id] = filed;
    boundSuspendedPanes();
}

void WorkspaceStore::boundSuspendedPanes() {
    if (!suspendedPanesAreWritable_) return;  // the list stays as it was read
    const double oldest = suspendedPaneClock() -
                          std::chrono::duration<double, std::milli>(suspendedPaneLifetime).count();
    std::map<QString, std::vector<const SuspendedPane*>> byProject;
    for (const auto& [id, pane] : suspendedPanes_)
        byProject[pane.projectID].push_back(&pane);
    std::vector<QUuid> closing;
    for (auto& [project, panes] : byProject) {
        std::sort(panes.begin(), panes.end(), [](const SuspendedPane* a, const SuspendedPane* b) {
            return a->suspendedAt > b->suspendedAt;
        });
        for (std::size_t i = 0; i < panes.size(); ++i) {
            if (i >= maximumSuspendedPanesPerProject || panes[i]->suspendedAt < oldest)
                closing.push_back(panes[i]->id);
        }
    }
    for (const QUuid& id : closing) {
        auto found = suspendedPanes_.find(id);
        // A close that cannot be recorded keeps the pane suspended.
        if (!closeLedger_->record(found->second.sessionID)) continue;
        closeLedger_->retry(found->second.sessionID);
        suspendedPanes_.erase(found);
    }
}

bool WorkspaceStore::closeRemovedProject(const QString& projectID) {
    std::vector<TerminalPane*> closing;
    for (const auto& each : tabs_) {
        if (each->projectID() != projectID) continue;
        for (TerminalPane* pane : each->panes())
            closing.push_back(pane);
    }
    if (!recordCloses(closing)) return false;
    std::vector<std::unique_ptr<TerminalTab>> removed;
    for (auto it = tabs_.begin(); it != tabs_.end();) {
        if ((*it)->projectID() == projectID) {
            removed.push_back(std::move(*it));
            it = tabs_.erase(it);
        } else {
            ++it;
        }
    }
    if (!removed.empty()) emit tabsChanged();
    for (auto& tab : removed) {
        for (const QUuid& paneID : tab->layout().paneIDs()) {
            auto pane = tab->takePane(paneID);
            pane->controller().close();
            retire(std::move(pane));
        }
    }
    closeSuspendedPanes(projectID);
    return true;
}

void WorkspaceStore::normalizeSelectionAfterSharedImport() {
    if (!activeWorkspaceID_ || tabsOfWorkspace(*activeWorkspaceID_).empty()) {
        const auto choices = workspaceChoices();
        setActiveWorkspaceID(choices.empty() ? std::nullopt
                                             : std::optional<QString>(choices.front().id));
    }
    std::optional<QUuid> selection;
    if (activeWorkspaceID_) {
        const auto members = tabsOfWorkspace(*activeWorkspaceID_);
        auto remembered = selectedTabs_.find(*activeWorkspaceID_);
        if (remembered != selectedTabs_.end() &&
            std::any_of(members.begin(), members.end(),
                        [&](TerminalTab* t) { return t->id() == remembered->second; })) {
            selection = remembered->second;
        } else if (!members.empty()) {
            selection = members.front()->id();
        }
    }
    setSelectedTabID(selection);
    if (activeWorkspaceID_ && selectedTabID_) selectedTabs_[*activeWorkspaceID_] = *selectedTabID_;
    focusSelectedPane();
}

}  // namespace hl
