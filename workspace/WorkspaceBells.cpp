// WorkspaceStore's bell marks: a bell in a pane whose tab is out of view marks
// the tab, and through it the tab's workspace, until the tab is shown again.
// The marks are not saved: they speak of this run only.
#include "WorkspaceStore.h"

namespace hl {

void WorkspaceStore::bellRang(const QUuid& paneID) {
    for (const auto& each : tabs_) {
        if (!each->pane(paneID)) continue;
        if (each.get() == selectedTab()) return;
        if (each->hasUnseenBell()) return;
        each->setHasUnseenBell(true);
        emit bellMarksChanged();
        return;
    }
}

void WorkspaceStore::markSelectedTabSeen() {
    TerminalTab* selected = selectedTab();
    if (!selected || !selected->hasUnseenBell()) return;
    selected->setHasUnseenBell(false);
    emit bellMarksChanged();
}

bool WorkspaceStore::workspaceHasUnseenBell(const QString& workspaceID) const {
    for (TerminalTab* each : tabsOfWorkspace(workspaceID)) {
        if (each->hasUnseenBell()) return true;
    }
    return false;
}

}  // namespace hl
