// The update check's button and menu entry.
#include "CheckForUpdatesButton.h"

#include <QAction>

#include "AppUpdater.h"

namespace hl {

QString CheckForUpdatesButton::title() {
    return QStringLiteral("Check for Updates…");
}

CheckForUpdatesButton::CheckForUpdatesButton(AppUpdater* updater, QWidget* parent)
    : QPushButton(title(), parent), updater_(updater) {
    setObjectName("updates.check");
    setAccessibleName(title());
    setEnabled(updater_->canCheckForUpdates());
    connect(updater_, &AppUpdater::canCheckForUpdatesChanged, this,
            [this] { setEnabled(updater_->canCheckForUpdates()); });
    connect(this, &QPushButton::clicked, updater_, &AppUpdater::checkForUpdates);
}

QAction* CheckForUpdatesButton::menuAction(AppUpdater* updater, QObject* parent) {
    auto* action = new QAction(title(), parent);
    action->setObjectName("updates.check.menu");
    action->setMenuRole(QAction::ApplicationSpecificRole);
    action->setEnabled(updater->canCheckForUpdates());
    QObject::connect(updater, &AppUpdater::canCheckForUpdatesChanged, action,
                     [action, updater] { action->setEnabled(updater->canCheckForUpdates()); });
    QObject::connect(action, &QAction::triggered, updater, &AppUpdater::checkForUpdates);
    return action;
}

}  // namespace hl
