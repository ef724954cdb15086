// The pane menu's previous shells.
#include "PreviousShellMenu.h"

#include <QMenu>
#include <QPointer>

#include "TerminalController.h"

namespace hl {

QString reattachPreviousShellTitle(const QString& place) {
    return QStringLiteral("Reattach Previous Shell (now %1)").arg(place);
}

void addPreviousShellActions(QMenu& menu, TerminalController& controller) {
    if (controller.previousShells().empty()) return;
    menu.addSeparator();
    QPointer<TerminalController> target(&controller);
    const bool several = controller.previousShells().size() > 1;
    for (const auto& shell : controller.previousShells()) {
        const QString place = TerminalController::previousShellPlace(shell);
        QAction* reattach = menu.addAction(reattachPreviousShellTitle(place));
        reattach->setObjectName(QStringLiteral("terminal.reattachPrevious"));
        QObject::connect(reattach, &QAction::triggered, &controller, [target, id = shell.id] {
            if (target) target->reattachPreviousShell(id);
        });
        QAction* close =
            menu.addAction(several ? QStringLiteral("Close Previous Shell (%1)").arg(place)
                                   : QStringLiteral("Close Previous Shell"));
        close->setObjectName(QStringLiteral("terminal.closePrevious"));
        QObject::connect(close, &QAction::triggered, &controller, [target, id = shell.id] {
            if (target) target->closePreviousShell(id);
        });
    }
}

}  // namespace hl
