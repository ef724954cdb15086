// The three-way merge of shared content, object by object. The *base* is the
// content that both sides last agreed on; *local* and *remote* are what each side
// made of it since. The objects are a project's entry (its name and its origin,
// each merged on its own), a project's presence, and each tab of a project's
// workspace (its title, its panes with their layout, and its selected pane, each
// merged on its own); a workspace's tab order and selected tab follow.
//
// A change made on one side only is taken. Two different changes to the same
// object are a *conflict*: the side with the later stamp wins the object, and the
// object as the other side had it is a *loss*, kept apart so that it can be
// brought back on its own. A removal that meets a change of the removed project
// is a conflict over the whole project.
#pragma once

#include <QList>
#include <QString>
#include <QUuid>

#include "SharedSnapshot.h"

namespace hl {

// What one side lost: content that holds the lost objects (with their projects
// for context), and which of them are lost.
struct SharedLosses {
    SharedContent content;
    // Project entries lost: a rename or a new origin, or a whole project that the
    // other side removed.
    QStringList projectIDs;
    QList<QUuid> tabIDs;

    bool isEmpty() const { return projectIDs.isEmpty() && tabIDs.isEmpty(); }
    bool operator==(const SharedLosses&) const = default;
};

struct SharedMerge {
    SharedContent merged;
    SharedLosses localLosses;
    SharedLosses remoteLosses;
};

// Merges the two sides' changes since `base`; `localIsLater` decides conflicts.
// The result is canonical; it is valid whenever the three inputs are, except
// where a pane moved between tabs differently on the two sides (the caller
// validates it).
SharedMerge mergeSharedContent(const SharedContent& base, const SharedContent& local,
                               const SharedContent& remote, bool localIsLater);

// `current` with the objects that `losses` names put back: lost project entries
// and lost tabs replace theirs or are added; nothing else is touched or removed.
SharedContent restoreSharedObjects(const SharedContent& current, const SharedLosses& losses);

}  // namespace hl
