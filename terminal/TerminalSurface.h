// The seam between a terminal controller and its renderer. A TerminalSurface is
// what the controller draws on; a TerminalSurfaceDelegate is told what the user
// typed and how large the renderer is. A surface is a QObject so that the
// controller can hold it weakly (QPointer): the renderer is disposable, owned
// by the view layer, and repainted from the controller's history when replaced.
// All calls happen on the main thread.
#pragma once

#include <QObject>
#include <QString>

namespace hl {

class TerminalSurface : public QObject {
    Q_OBJECT

  public:
    using QObject::QObject;
    ~TerminalSurface() override = default;

    // Appends bytes (base64) to what is shown.
    virtual void write(const QString& base64) = 0;
    // Resets the terminal and shows these bytes (base64) instead.
    virtual void replaceWithReplay(const QString& base64) = 0;
    virtual void focus() = 0;
    virtual void resignFocus() = 0;
    // Finds the next match of `text`, or the previous one with `backwards`.
    virtual void search(const QString& text, bool backwards) = 0;
    // Removes the highlight of the last search.
    virtual void clearSearch() {}
};

class TerminalSurfaceDelegate {
  public:
    virtual ~TerminalSurfaceDelegate() = default;

    // The renderer produced `text` as terminal input.
    virtual void terminalSurfaceDidReceiveInput(const QString& text) = 0;
    // The renderer now has this many columns and rows.
    virtual void terminalSurfaceDidResize(int columns, int rows) = 0;
    // A program set the terminal's title (OSC 0 or 2).
    virtual void terminalSurfaceDidChangeTitle(const QString& title) { (void)title; }
    // A program rang the bell in live output.
    virtual void terminalSurfaceDidRingBell() {}
    // The last search found `count` matches; `index` is the selected one, or -1.
    virtual void terminalSurfaceDidFindMatches(int count, int index) {
        (void)count;
        (void)index;
    }
    // The renderer was lost and has been rebuilt from the history.
    virtual void terminalSurfaceDidReload() {}
};

}  // namespace hl
