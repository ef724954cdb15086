// ApplicationDelegate: the process's life-cycle events. When launching has
// finished it makes sure the terminal node runs; the last window closing ends
// the application. It has no quit handling: everything was saved when it
// changed, and the shells stay in the node.
#pragma once

#include <QObject>
#include <QPointer>
#include <QTimer>

#include <chrono>

namespace hl {

class CloudSyncCoordinator;

class ApplicationDelegate : public QObject {
    Q_OBJECT

  public:
    explicit ApplicationDelegate(QObject* parent = nullptr);

    // The coordinator that the application object owns; the delegate never does.
    static QPointer<CloudSyncCoordinator> cloudSync;
    static constexpr std::chrono::milliseconds refreshTickPeriod{1000};

    // Delivers applicationDidFinishLaunching on the event loop's first turn.
    void scheduleDidFinishLaunching();
    void applicationDidFinishLaunching();
    bool applicationShouldTerminateAfterLastWindowClosed() const { return true; }
    // The application came to the front: the record is looked at once more.
    void applicationDidBecomeActive();
    // Another instance announced a new revision.
    void sharedStateDidChangeExternally();
    bool refreshTickIsRunning() const { return tickRunning_; }

  signals:
    void didFinishLaunching();

  private:
    // One refresh a second, each pause starting when the previous refresh ended.
    void startRefreshTick();
    void scheduleNextTick();

    QTimer activePeerRefreshTimer_;
    bool tickRunning_ = false;
    bool changeWatchIsSet_ = false;
};

}  // namespace hl
