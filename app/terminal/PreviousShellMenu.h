// The pane menu's previous shells: a shell that had left the pane's folder when
// the pane last started, offered to swap back in or to close.
#pragma once

#include <QString>

class QMenu;

namespace hl {

class TerminalController;

// "Reattach Previous Shell (now in <dir>)" and "Close Previous Shell" for each
// previous shell of the controller; nothing when it has none.
void addPreviousShellActions(QMenu& menu, TerminalController& controller);

// The reattach command's title for a shell that is now at `place` ("in <dir>").
QString reattachPreviousShellTitle(const QString& place);

}  // namespace hl
