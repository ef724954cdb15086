// The object-by-object three-way merge of shared content, and the putting back
// of lost objects.
#include "SharedContentMerge.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>

namespace hl {

namespace {

// The three sides of one object.
template <class T>
struct Three {
    std::optional<T> base, local, remote;
};

// The merged value of one field, and whether the two sides conflicted over it.
template <class T>
struct Merged {
    T value;
    bool conflict = false;
    bool fromLocal = false;
};

// The base's value of a field, when there is a base.
template <class T, class Object>
std::optional<T> baseField(const std::optional<Object>& base, T Object::*field) {
    if (!base) return std::nullopt;
    return std::optional<T>(std::in_place, (*base).*field);
}

template <class T>
Merged<T> mergeField(const std::optional<T>& base, const T& local, const T& remote,
                     bool localIsLater) {
    if (local == remote) return {local, false, true};
    if (base && local == *base) return {remote, false, false};
    if (base && remote == *base) return {local, false, true};
    return {localIsLater ? local : remote, true, localIsLater};
}

struct Shape {
    QList<SharedPane> panes;
    QJsonObject layout;
    bool operator==(const Shape&) const = default;
};

Shape shapeOf(const SharedTab& tab) {
    return {tab.panes, tab.layout};
}

std::map<QString, SharedProject> projectsByID(const SharedContent& content) {
    std::map<QString, SharedProject> map;
    for (const auto& project : content.projects)
        map.emplace(project.id, project);
    return map;
}

std::map<QString, SharedWorkspace> workspacesByID(const SharedContent& content) {
    std::map<QString, SharedWorkspace> map;
    for (const auto& workspace : content.workspaces)
        map.emplace(workspace.projectID, workspace);
    return map;
}

template <class Map>
std::optional<typename Map::mapped_type> lookUp(const Map& map, const QString& id) {
    auto found = map.find(id);
    if (found == map.end()) return std::nullopt;
    return found->second;
}

std::optional<SharedTab> tabIn(const std::optional<SharedWorkspace>& workspace, const QUuid& id) {
    if (!workspace) return std::nullopt;
    for (const auto& tab : workspace->tabs) {
        if (tab.id == id) return tab;
    }
    return std::nullopt;
}

QList<QUuid> tabOrder(const std::optional<SharedWorkspace>& workspace) {
    QList<QUuid> order;
    if (workspace) {
        for (const auto& tab : workspace->tabs)
            order.append(tab.id);
    }
    return order;
}

// Adds `tab` of project `project` to the losses, with the project for context.
void loseTab(SharedLosses& losses, const SharedProject& project, const SharedTab& tab) {
    if (!std::any_of(losses.content.projects.begin(), losses.content.projects.end(),
                     [&](const SharedProject& p) { return p.id == project.id; }))
        losses.content.projects.append(project);
    auto workspace =
        std::find_if(losses.content.workspaces.begin(), losses.content.workspaces.end(),
                     [&](const SharedWorkspace& w) { return w.projectID == project.id; });
    if (workspace == losses.content.workspaces.end()) {
        losses.content.workspaces.append(SharedWorkspace{project.id, {}, std::nullopt});
        workspace = losses.content.workspaces.end() - 1;
    }
    workspace->tabs.append(tab);
    losses.tabIDs.append(tab.id);
}

void loseProject(SharedLosses& losses, const SharedProject& project) {
    auto existing = std::find_if(losses.content.projects.begin(), losses.content.projects.end(),
                                 [&](const SharedProject& p) { return p.id == project.id; });
    if (existing == losses.content.projects.end()) {
        losses.content.projects.append(project);
    } else {
        *existing = project;
    }
    losses.projectIDs.append(project.id);
}

// The whole project as one side had it, lost to the other side's removal.
void loseWholeProject(SharedLosses& losses, const SharedProject& project,
                      const std::optional<SharedWorkspace>& workspace) {
    loseProject(losses, project);
    if (!workspace) return;
    for (const auto& tab : workspace->tabs)
        loseTab(losses, project, tab);
}

// One tab; absent when it is removed.
std::optional<SharedTab> mergeTab(const Three<SharedTab>& tab, bool localIsLater,
                                  const SharedProject& localProject,
                                  const SharedProject& remoteProject, SharedMerge& merge) {
    const auto& [base, local, remote] = tab;
    if (local && remote) {
        if (*local == *remote) return local;
        const auto title = mergeField(base ? std::optional(base->title) : std::nullopt,
                                      local->title, remote->title, localIsLater);
        const auto shape = mergeField(base ? std::optional(shapeOf(*base)) : std::nullopt,
                                      shapeOf(*local), shapeOf(*remote), localIsLater);
        const auto selected =
            mergeField(baseField(base, &SharedTab::selectedPaneID), local->selectedPaneID,
                       remote->selectedPaneID, localIsLater);
        if (title.conflict || shape.conflict) {
            if (localIsLater) {
                loseTab(merge.remoteLosses, remoteProject, *remote);
            } else {
                loseTab(merge.localLosses, localProject, *local);
            }
        }
        SharedTab merged{local->id, title.value, shape.value.panes, shape.value.layout,
                         selected.value};
        const auto holds = [&](const std::optional<QUuid>& id) {
            return !id || std::any_of(merged.panes.begin(), merged.panes.end(),
                                      [&](const SharedPane& pane) { return pane.id == *id; });
        };
        if (!holds(merged.selectedPaneID)) {
            merged.selectedPaneID =
                shape.fromLocal ? local->selectedPaneID : remote->selectedPaneID;
            if (!holds(merged.selectedPaneID)) merged.selectedPaneID.reset();
        }
        return merged;
    }
    if (!local && !remote) return std::nullopt;
    // Present on one side only: added there, or removed on the other.
    const bool onLocal = local.has_value();
    const SharedTab& kept = onLocal ? *local : *remote;
    if (!base) return kept;
    if (kept == *base) return std::nullopt;  // removed, and unchanged where it stayed
    if (onLocal == localIsLater) return kept;
    if (onLocal) {
        loseTab(merge.localLosses, localProject, kept);
    } else {
        loseTab(merge.remoteLosses, remoteProject, kept);
    }
    return std::nullopt;
}

// The merged order: the order of the side that reordered (the later one when
// both or neither did), with the other side's own tabs put before the tab that follows
// them there, or at the end.
QList<QUuid> mergeOrder(const QList<QUuid>& base, const QList<QUuid>& local,
                        const QList<QUuid>& remote, bool localIsLater,
                        const std::set<QUuid>& kept) {
    const auto common = [&](const QList<QUuid>& order, const QList<QUuid>& other) {
        QList<QUuid> result;
        for (const auto& id : order) {
            if (other.contains(id)) result.append(id);
        }
        return result;
    };
    const bool localMoved = common(local, base) != common(base, local);
    const bool remoteMoved = common(remote, base) != common(base, remote);
    const bool localFirst = localMoved == remoteMoved ? localIsLater : localMoved;
    const QList<QUuid>& primary = localFirst ? local : remote;
    const QList<QUuid>& secondary = localFirst ? remote : local;
    QList<QUuid> result;
    for (const auto& id : primary) {
        if (kept.count(id) != 0) result.append(id);
    }
    for (qsizetype i = secondary.size(); i-- > 0;) {
        const QUuid& id = secondary[i];
        if (kept.count(id) == 0 || result.contains(id)) continue;
        qsizetype at = result.size();
        for (qsizetype j = i + 1; j < secondary.size(); ++j) {
            const qsizetype found = result.indexOf(secondary[j]);
            if (found >= 0) {
                at = found;
                break;
            }
        }
        result.insert(at, id);
    }
    return result;
}

std::optional<SharedWorkspace> mergeWorkspace(const Three<SharedWorkspace>& workspace,
                                              const QString& projectID, bool localIsLater,
                                              const SharedProject& localProject,
                                              const SharedProject& remoteProject,
                                              SharedMerge& merge) {
    const auto& [base, local, remote] = workspace;
    if (local == remote) return local;
    std::set<QUuid> ids;
    for (const auto* side : {&base, &local, &remote}) {
        for (const auto& id : tabOrder(*side))
            ids.insert(id);
    }
    std::map<QUuid, SharedTab> tabs;
    std::set<QUuid> kept;
    for (const auto& id : ids) {
        auto tab = mergeTab({tabIn(base, id), tabIn(local, id), tabIn(remote, id)}, localIsLater,
                            localProject, remoteProject, merge);
        if (!tab) continue;
        tabs.emplace(id, *tab);
        kept.insert(id);
    }
    if (tabs.empty()) return std::nullopt;
    SharedWorkspace merged{projectID, {}, std::nullopt};
    for (const auto& id :
         mergeOrder(tabOrder(base), tabOrder(local), tabOrder(remote), localIsLater, kept))
        merged.tabs.append(tabs.at(id));
    const auto selectedOf = [](const std::optional<SharedWorkspace>& side) {
        return side ? side->selectedTabID : std::nullopt;
    };
    merged.selectedTabID = mergeField(baseField(base, &SharedWorkspace::selectedTabID),
                                      selectedOf(local), selectedOf(remote), localIsLater)
                               .value;
    if (merged.selectedTabID && kept.count(*merged.selectedTabID) == 0)
        merged.selectedTabID = merged.tabs.front().id;
    return merged;
}

}  // namespace

SharedMerge mergeSharedContent(const SharedContent& base, const SharedContent& local,
                               const SharedContent& remote, bool localIsLater) {
    SharedMerge merge;
    const auto baseProjects = projectsByID(base), localProjects = projectsByID(local),
               remoteProjects = projectsByID(remote);
    const auto baseWorkspaces = workspacesByID(base), localWorkspaces = workspacesByID(local),
               remoteWorkspaces = workspacesByID(remote);
    std::set<QString> ids;
    for (const auto* map : {&baseProjects, &localProjects, &remoteProjects}) {
        for (const auto& [id, project] : *map)
            ids.insert(id);
    }
    for (const QString& id : ids) {
        const Three<SharedProject> project{lookUp(baseProjects, id), lookUp(localProjects, id),
                                           lookUp(remoteProjects, id)};
        const Three<SharedWorkspace> workspace{
            lookUp(baseWorkspaces, id), lookUp(localWorkspaces, id), lookUp(remoteWorkspaces, id)};
        if (project.local && project.remote) {
            const auto& [b, l, r] = project;
            const auto name = mergeField(b ? std::optional(b->name) : std::nullopt, l->name,
                                         r->name, localIsLater);
            const auto origin = mergeField(baseField(b, &SharedProject::origin), l->origin,
                                           r->origin, localIsLater);
            if (name.conflict || origin.conflict) {
                if (localIsLater) {
                    loseProject(merge.remoteLosses, *r);
                } else {
                    loseProject(merge.localLosses, *l);
                }
            }
            const SharedProject merged{id, name.value, origin.value};
            merge.merged.projects.append(merged);
            if (auto ws = mergeWorkspace(workspace, id, localIsLater, *l, *r, merge))
                merge.merged.workspaces.append(*ws);
            continue;
        }
        if (!project.local && !project.remote) continue;
        // On one side only: added there, or removed on the other.
        const bool onLocal = project.local.has_value();
        const SharedProject& kept = onLocal ? *project.local : *project.remote;
        const std::optional<SharedWorkspace>& keptWorkspace =
            onLocal ? workspace.local : workspace.remote;
        const bool changed =
            !project.base || kept != *project.base || keptWorkspace != workspace.base;
        bool keep = !project.base;
        if (project.base && changed) {
            keep = onLocal == localIsLater;
            if (!keep)
                loseWholeProject(onLocal ? merge.localLosses : merge.remoteLosses, kept,
                                 keptWorkspace);
        }
        if (!keep) continue;
        merge.merged.projects.append(kept);
        if (keptWorkspace) merge.merged.workspaces.append(*keptWorkspace);
    }
    merge.merged = merge.merged.canonicalized();
    merge.localLosses.content = merge.localLosses.content.canonicalized();
    merge.remoteLosses.content = merge.remoteLosses.content.canonicalized();
    return merge;
}

SharedContent restoreSharedObjects(const SharedContent& current, const SharedLosses& losses) {
    auto projects = projectsByID(current);
    auto workspaces = workspacesByID(current);
    const auto lostProjects = projectsByID(losses.content);
    for (const auto& id : losses.projectIDs) {
        if (auto project = lookUp(lostProjects, id)) projects[id] = *project;
    }
    // Tab ids are unique across the content: a restored tab leaves wherever it is now.
    std::set<QUuid> restoring(losses.tabIDs.begin(), losses.tabIDs.end());
    for (const auto& workspace : losses.content.workspaces) {
        for (const auto& tab : workspace.tabs) {
            if (restoring.count(tab.id) == 0) continue;
            if (projects.count(workspace.projectID) == 0) {
                if (auto project = lookUp(lostProjects, workspace.projectID))
                    projects[workspace.projectID] = *project;
            }
            for (auto& [id, existing] : workspaces) {
                if (id == workspace.projectID) continue;
                existing.tabs.erase(
                    std::remove_if(existing.tabs.begin(), existing.tabs.end(),
                                   [&](const SharedTab& t) { return t.id == tab.id; }),
                    existing.tabs.end());
            }
            auto& target = workspaces[workspace.projectID];
            target.projectID = workspace.projectID;
            auto place = std::find_if(target.tabs.begin(), target.tabs.end(),
                                      [&](const SharedTab& t) { return t.id == tab.id; });
            if (place != target.tabs.end()) {
                *place = tab;
            } else {
                target.tabs.append(tab);
            }
        }
    }
    SharedContent restored;
    for (const auto& [id, project] : projects)
        restored.projects.append(project);
    for (auto& [id, workspace] : workspaces) {
        if (workspace.tabs.isEmpty()) continue;
        if (workspace.selectedTabID &&
            std::none_of(workspace.tabs.begin(), workspace.tabs.end(),
                         [&](const SharedTab& t) { return t.id == *workspace.selectedTabID; }))
            workspace.selectedTabID.reset();
        restored.workspaces.append(workspace);
    }
    return restored.canonicalized();
}

}  // namespace hl
