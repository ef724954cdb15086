// The window, its menus and its sizes.
#include "MainWindow.h"
#include "SyncSidebar.h"

#include <QApplication>
#include <QKeyEvent>
#include <QMenuBar>
#include <QWindow>

#include "AboutDialog.h"
#include "CheckForUpdatesButton.h"
#include "ContentView.h"
#include "SettingsDialog.h"
#include "StoredDataPrompts.h"
#include "TerminalCommands.h"
#include "TerminalLook.h"
#include "WindowGeometry.h"
#include "XtermWebView.h"

namespace hl {

MainWindow::MainWindow(HarborlatticeApp& app, QWidget* parent) : QMainWindow(parent) {
    setObjectName("window");
    setWindowTitle(QStringLiteral("Harborlattice"));
    // At a large scale the screen may hold less than the preferred size.
    new WindowGeometry(this, app.defaults(), QSize(1360, 820), QSize(980, 620));
    content_ = new ContentView(&app.catalog(), &app.workspace(), &app.updater(), this);
    setCentralWidget(content_);
    content_->setStartOver([&app] { return !app.damagedKeys().empty(); },
                           [&app, this] { offerKeepCopyAndStartOver(app, this); });
    SyncSidebar* syncPieces = installSyncSidebar(
        app.sync(), content_,
        [this](const ProjectRecord& record) { content_->openProject(record); }, &app.projectCopy(),
        &app.workspace());
    if (syncPieces) {
        connect(syncPieces, &SyncSidebar::syncSettingsRequested, this,
                [&app, this] { SettingsDialog::present(app, this, SettingsDialog::Page::Sync); });
    }

    WorkspaceStore& workspace = app.workspace();
    QMenu* file = menuBar()->addMenu(QStringLiteral("File"));
    QAction* addProject = file->addAction(QStringLiteral("Add Project…"));
    addProject->setObjectName("file.addProject");
    connect(addProject, &QAction::triggered, content_, [this] { content_->addProject(); });
    file->addSeparator();
    file->addAction(CheckForUpdatesButton::menuAction(&app.updater(), this));
    file->addSeparator();
    addCommand(file, Command::NewTerminal, [&workspace] { workspace.newTerminal(); });
    addCommand(file, Command::NewScratchTerminal,
               [&workspace] { workspace.createScratchTerminal(); });
    file->addSeparator();
    QAction* quit = file->addAction(QStringLiteral("Quit Harborlattice"));
    quit->setMenuRole(QAction::QuitRole);
    quit->setShortcut(
        runningKeyPlatform() == KeyPlatform::MacOS
            ? QKeySequence(QKeySequence::Quit)
            : QKeySequence(QKeyCombination(Qt::ControlModifier | Qt::ShiftModifier, Qt::Key_Q)));
    connect(quit, &QAction::triggered, qApp, &QApplication::quit, Qt::QueuedConnection);

    terminalCommands_ = new TerminalCommands(this, &workspace, app.defaults());
    // The terminals' settings: a zoom kept from before wins over the chosen size at start.
    applyTerminalSettings(app.terminalSettings().settings(),
                          XtermWebView::fontSize() != XtermWebView::defaultFontSize);
    connect(&app.terminalSettings(), &TerminalSettingsStore::changed, this,
            [](const TerminalSettings& settings) { applyTerminalSettings(settings, false); });
    for (QAction* menu : menuBar()->actions()) {
        if (menu->menu() == nullptr || menu->text() != QLatin1String("Edit")) continue;
        menu->menu()->addSeparator();
        QAction* settings = menu->menu()->addAction(QStringLiteral("Settings…"));
        settings->setObjectName("edit.settings");
        settings->setMenuRole(QAction::PreferencesRole);
        settings->setShortcut(
            runningKeyPlatform() == KeyPlatform::MacOS
                ? QKeySequence(QKeySequence::Preferences)
                : QKeySequence(QKeyCombination(Qt::ControlModifier, Qt::Key_Comma)));
        addAction(settings);
        connect(settings, &QAction::triggered, this,
                [&app, this] { SettingsDialog::present(app, this, SettingsDialog::Page::Sync); });
    }

    QMenu* terminal = menuBar()->addMenu(QStringLiteral("Terminal"));
    addCommand(terminal, Command::SplitRight, [&workspace] { workspace.split(true); });
    addCommand(terminal, Command::SplitDown, [&workspace] { workspace.split(false); });
    terminal->addSeparator();
    addCommand(terminal, Command::SelectPreviousPane,
               [&workspace] { workspace.selectAdjacentPane(-1); });
    addCommand(terminal, Command::SelectNextPane,
               [&workspace] { workspace.selectAdjacentPane(1); });
    terminal->addSeparator();
    addCommand(terminal, Command::SelectPreviousTab,
               [&workspace] { workspace.selectAdjacentTab(-1); });
    addCommand(terminal, Command::SelectNextTab, [&workspace] { workspace.selectAdjacentTab(1); });
    addCommand(terminal, Command::SelectPreviousWorkspace,
               [&workspace] { workspace.selectAdjacentWorkspace(-1); });
    addCommand(terminal, Command::SelectNextWorkspace,
               [&workspace] { workspace.selectAdjacentWorkspace(1); });
    terminal->addSeparator();
    addCommand(terminal, Command::FindNext, [&workspace] { workspace.search(false); });
    addCommand(terminal, Command::FindPrevious, [&workspace] { workspace.search(true); });
    terminal->addSeparator();
    addCommand(terminal, Command::CloseSelectedPane,
               [&workspace] { workspace.closeSelectedPane(); });

    QMenu* help = menuBar()->addMenu(QStringLiteral("Help"));
    QAction* about = help->addAction(QStringLiteral("About Harborlattice"));
    about->setObjectName("help.about");
    about->setMenuRole(QAction::AboutRole);
    connect(about, &QAction::triggered, this, [this] {
        auto* dialog = new AboutDialog(this);
        dialog->setAttribute(Qt::WA_DeleteOnClose);
        dialog->open();
    });
    qApp->installEventFilter(this);
}

bool MainWindow::eventFilter(QObject* watched, QEvent* event) {
    const bool shortcut = event->type() == QEvent::ShortcutOverride;
    if ((!shortcut && event->type() != QEvent::KeyPress) ||
        watched != static_cast<QObject*>(windowHandle()))
        return false;
    // Every key for this window stops first at its window handle, before the
    // web engine's objects that would take it for the page.
    const QKeySequence pressed(static_cast<QKeyEvent*>(event)->keyCombination());
    QList<QAction*> all = terminalCommands_->actions();
    for (const auto& [command, action] : actions_)
        all.append(action);
    for (QAction* action : all) {
        if (!action->shortcuts().contains(pressed)) continue;
        if (shortcut) {
            event->ignore();  // not claimed: the window's shortcut may run
        } else {
            action->trigger();  // no shortcut ran (the window is not active): run it here
        }
        return true;
    }
    return false;
}

QAction* MainWindow::action(Command command) const {
    const auto found = actions_.find(command);
    return found == actions_.end() ? nullptr : found->second;
}

void MainWindow::addCommand(QMenu* menu, Command command, std::function<void()> run) {
    QAction* action = menu->addAction(commandTitle(command));
    action->setShortcut(commandKeySequence(command));
    // The keys work wherever focus is in the window, the terminal included.
    action->setShortcutContext(Qt::WindowShortcut);
    addAction(action);
    connect(action, &QAction::triggered, this, std::move(run));
    actions_[command] = action;
}

}  // namespace hl
