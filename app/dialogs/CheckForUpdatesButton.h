// "Check for Updates…": the sidebar's button and the menu's entry. Both call
// the updater's check and are disabled while it cannot start one.
#pragma once

#include <QPushButton>

class QAction;

namespace hl {

class AppUpdater;

class CheckForUpdatesButton : public QPushButton {
    Q_OBJECT

  public:
    explicit CheckForUpdatesButton(AppUpdater* updater, QWidget* parent = nullptr);

    static QString title();
    // The menu entry, bound to the updater in the same way.
    static QAction* menuAction(AppUpdater* updater, QObject* parent);

  private:
    AppUpdater* updater_;
};

}  // namespace hl
