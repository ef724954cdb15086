// TerminalCommands: the commands that act on one terminal rather than on the
// workspace. An Edit menu holds Copy, Paste, Select All and Find…, with the
// keys of Linux terminals (Ctrl+Shift+C and Ctrl+Insert, Ctrl+Shift+V and
// Shift+Insert, Ctrl+Shift+A, Ctrl+Shift+F); a View menu holds the font zoom
// (Ctrl+Plus, Ctrl+Minus, Ctrl+0), kept in the preferences and applied to
// every terminal. It also gives the Find field its keys (Enter and
// Shift+Enter step through matches, Escape clears the highlight and hands the
// keyboard back to the terminal), shows the match count beside the query, and
// keeps the window title on the active workspace and the selected terminal.
//
// The *active terminal* is the one holding the keyboard, else the selected pane's.
#pragma once

#include <QList>
#include <QObject>
#include <QPointer>

#include <functional>
#include <memory>
#include <optional>

#include "Preferences.h"
#include "WorkspaceStore.h"

class QAction;
class QLabel;
class QLineEdit;
class QMainWindow;
class QMenu;

namespace hl {

class XtermCoordinator;

class TerminalCommands : public QObject {
    Q_OBJECT

  public:
    static constexpr const char* fontSizeKey = "harborlattice.terminal.fontSize.v1";
    static constexpr int minimumFontSize = 6;
    static constexpr int maximumFontSize = 40;

    // Adds the menus to the window's menu bar and applies the saved font size.
    TerminalCommands(QMainWindow* window, WorkspaceStore* workspace,
                     std::shared_ptr<Preferences> defaults);

    // Every entry with keys, for the window's filter that keeps them from the page.
    const QList<QAction*>& actions() const { return actions_; }
    QAction* action(const QString& objectName) const;
    // The terminal of the selected pane, when its document shows it.
    XtermCoordinator* activeTerminal() const;
    QLineEdit* findField() const;

    void copy();
    void paste();
    void selectAll();
    void find();
    // One step larger (1), smaller (-1), or back to the default size (0).
    void zoom(int step);
    // The font size stored in the preferences; absent when none or unreadable.
    std::optional<int> savedFontSize() const;

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    QAction* addAction(QMenu* menu, const QString& objectName, const QString& title,
                       const QList<QKeySequence>& keys, std::function<void()> run);
    void attachFindField();
    void watchSelection();
    void showMatches();
    void refreshWindowTitle();
    TerminalController* selectedController() const;

    QMainWindow* window_;
    WorkspaceStore* workspace_;
    std::shared_ptr<Preferences> defaults_;
    QList<QAction*> actions_;
    QPointer<QLineEdit> findField_;
    // The same field as the object whose events are filtered: compared only,
    // since events still come while the field is being destroyed.
    const QObject* filteredField_ = nullptr;
    QPointer<QLabel> matches_;
    QPointer<TerminalTab> watchedTab_;
    QPointer<TerminalController> watchedController_;
    QList<QMetaObject::Connection> watches_;
};

}  // namespace hl
