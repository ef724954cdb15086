// ApplicationDelegate: the process's life-cycle events. When launching has
// finished it makes sure the terminal node runs; the last window closing ends
// the application. It has no quit handling: everything was saved when it
// changed, and the shells stay in the node.
#pragma once

#include <QObject>

namespace hl {

class ApplicationDelegate : public QObject {
    Q_OBJECT

  public:
    using QObject::QObject;

    // Delivers applicationDidFinishLaunching on the event loop's first turn.
    void scheduleDidFinishLaunching();
    void applicationDidFinishLaunching();
    bool applicationShouldTerminateAfterLastWindowClosed() const { return true; }

  signals:
    void didFinishLaunching();
};

}  // namespace hl
