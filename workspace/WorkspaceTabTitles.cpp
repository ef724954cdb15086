// WorkspaceStore's tab titles given by the user.
#include "WorkspaceStore.h"

namespace hl {

bool WorkspaceStore::renameTab(const QUuid& id, const QString& title) {
    if (!storageIsWritable_) {
        setErrorMessage(refusal() + " The tab was not renamed.");
        return false;
    }
    const QString trimmed = title.trimmed();
    if (trimmed.isEmpty()) return false;
    for (const auto& each : tabs_) {
        if (each->id() != id) continue;
        if (each->title() == trimmed) return true;
        each->setTitle(trimmed);
        persist();
        return true;
    }
    return false;
}

}  // namespace hl
