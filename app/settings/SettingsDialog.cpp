// The Settings window and its pages.
#include "SettingsDialog.h"

#include <QTabWidget>
#include <QVBoxLayout>

#include "HarborlatticeApp.h"
#include "SyncSettingsPage.h"
#include "TerminalSettingsPage.h"
#include "UpdateSettingsPage.h"

namespace hl {

SettingsDialog* SettingsDialog::present(HarborlatticeApp& app, QWidget* parent, Page page) {
    auto* shown =
        parent->findChild<SettingsDialog*>(QStringLiteral("settings"), Qt::FindDirectChildrenOnly);
    // Closing hides it; it lives as long as its window.
    if (!shown) shown = new SettingsDialog(app, parent);
    shown->showPage(page);
    shown->show();
    shown->raise();
    shown->activateWindow();
    return shown;
}

SettingsDialog::SettingsDialog(HarborlatticeApp& app, QWidget* parent) : QDialog(parent) {
    setObjectName("settings");
    setWindowTitle(QStringLiteral("Settings"));
    setModal(false);
    pages_ = new QTabWidget(this);
    pages_->setObjectName("settings.pages");
    pages_->addTab(new SyncSettingsPage(app.syncSettings(), pages_), QStringLiteral("Sync"));
    pages_->addTab(new TerminalSettingsPage(app.terminalSettings(), pages_),
                   QStringLiteral("Terminals"));
    pages_->addTab(new UpdateSettingsPage(app, pages_), QStringLiteral("Updates"));
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(pages_);
    resize(560, 440);
}

void SettingsDialog::showPage(Page page) {
    pages_->setCurrentIndex(static_cast<int>(page));
}

}  // namespace hl
