// The window, its menus and its sizes.
#include "MainWindow.h"

#include <QApplication>
#include <QMenuBar>

#include "ContentView.h"

namespace hl {

MainWindow::MainWindow(HarborlatticeApp& app, QWidget* parent) : QMainWindow(parent) {
    setObjectName("window");
    setWindowTitle(QStringLiteral("Harborlattice"));
    setMinimumSize(980, 620);
    resize(1360, 820);
    content_ = new ContentView(&app.catalog(), &app.workspace(), this);
    setCentralWidget(content_);

    WorkspaceStore& workspace = app.workspace();
    QMenu* file = menuBar()->addMenu(QStringLiteral("File"));
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
