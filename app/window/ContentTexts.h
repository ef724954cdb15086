// The texts of the main window that depend on state: the Scratch row, the
// empty detail column, and the rename and remove dialogs. Kept apart from the
// widgets so that each rule can be read, and checked, on its own.
#pragma once

#include <QString>

#include <optional>

#include "TerminalPane.h"

namespace hl {

// The line under "Scratch": its tab count, or an offer to create it.
QString scratchRowSubtitle(const std::optional<WorkspaceChoice>& scratch);
QString scratchRowHelp(const std::optional<WorkspaceChoice>& scratch);

struct EmptyStateText {
    QString title;
    QString description;
    QString button;
};
EmptyStateText emptyStateText(bool catalogIsEmpty);

QString renameProjectMessage(bool mutationsAreAllowed);
QString removeProjectMessage(const QString& name, bool mutationsAreAllowed, bool hasWorkspace);

}  // namespace hl
