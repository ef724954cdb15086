// MainWindow: the one window of the application — ContentView inside, the menu
// commands on the menu bar, and the window's sizes. Each command calls one
// operation of the workspace store and is never disabled here: an operation
// with nothing to act on does nothing. Closing the window ends the application.
#pragma once

#include <QMainWindow>

#include <functional>
#include <map>

#include "CommandKeys.h"
#include "HarborlatticeApp.h"

class QAction;

namespace hl {

class ContentView;
class TerminalCommands;

class MainWindow : public QMainWindow {
    Q_OBJECT

  public:
    explicit MainWindow(HarborlatticeApp& app, QWidget* parent = nullptr);

    ContentView* contentView() const { return content_; }
    // The menu entry of a command.
    QAction* action(Command command) const;
    TerminalCommands* terminalCommands() const { return terminalCommands_; }

  protected:
    // Keeps the command keys for the window while a terminal has the keyboard:
    // the web view would otherwise claim every key for the page.
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    void addCommand(QMenu* menu, Command command, std::function<void()> run);

    ContentView* content_;
    std::map<Command, QAction*> actions_;
    TerminalCommands* terminalCommands_ = nullptr;
};

}  // namespace hl
