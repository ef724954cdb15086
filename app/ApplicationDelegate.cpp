// Life-cycle events of the process.
#include "ApplicationDelegate.h"

#include <QGuiApplication>
#include <QTimer>

#include "CloudSyncCoordinator.h"
#include "NodeSupervisor.h"

namespace hl {

QPointer<CloudSyncCoordinator> ApplicationDelegate::cloudSync;

ApplicationDelegate::ApplicationDelegate(QObject* parent) : QObject(parent) {
    activePeerRefreshTimer_.setSingleShot(true);
    connect(&activePeerRefreshTimer_, &QTimer::timeout, this, [this] {
        if (!cloudSync) return scheduleNextTick();
        QPointer<ApplicationDelegate> self(this);
        cloudSync->refresh([self] {
            if (self) self->scheduleNextTick();
        });
    });
    if (auto* app = qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
        connect(app, &QGuiApplication::applicationStateChanged, this,
                [this](Qt::ApplicationState state) {
                    if (state == Qt::ApplicationActive) applicationDidBecomeActive();
                });
    }
}

void ApplicationDelegate::scheduleDidFinishLaunching() {
    if (auto* app = qobject_cast<QGuiApplication*>(QCoreApplication::instance()))
        app->setQuitOnLastWindowClosed(applicationShouldTerminateAfterLastWindowClosed());
    QTimer::singleShot(0, this, &ApplicationDelegate::applicationDidFinishLaunching);
}

void ApplicationDelegate::applicationDidFinishLaunching() {
    NodeSupervisor::shared().ensureRunning();
    if (cloudSync && !changeWatchIsSet_) {
        changeWatchIsSet_ = true;
        cloudSync->transport().watchChanges(this, [this] { sharedStateDidChangeExternally(); });
        // A new place is watched from when it is taken into use.
        connect(cloudSync, &CloudSyncCoordinator::transportChanged, this, [this] {
            if (cloudSync)
                cloudSync->transport().watchChanges(this,
                                                    [this] { sharedStateDidChangeExternally(); });
        });
    }
    startRefreshTick();
    emit didFinishLaunching();
}

void ApplicationDelegate::sharedStateDidChangeExternally() {
    if (cloudSync) cloudSync->refresh();
}

void ApplicationDelegate::applicationDidBecomeActive() {
    if (cloudSync) cloudSync->refresh();
}

void ApplicationDelegate::startRefreshTick() {
    if (tickRunning_) return;
    tickRunning_ = true;
    scheduleNextTick();
}

void ApplicationDelegate::scheduleNextTick() {
    activePeerRefreshTimer_.start(refreshTickPeriod);
}

}  // namespace hl
