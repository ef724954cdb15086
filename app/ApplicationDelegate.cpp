// Life-cycle events of the process.
#include "ApplicationDelegate.h"

#include <QGuiApplication>
#include <QTimer>

#include "NodeSupervisor.h"

namespace hl {

void ApplicationDelegate::scheduleDidFinishLaunching() {
    if (auto* app = qobject_cast<QGuiApplication*>(QCoreApplication::instance()))
        app->setQuitOnLastWindowClosed(applicationShouldTerminateAfterLastWindowClosed());
    QTimer::singleShot(0, this, &ApplicationDelegate::applicationDidFinishLaunching);
}

void ApplicationDelegate::applicationDidFinishLaunching() {
    NodeSupervisor::shared().ensureRunning();
    emit didFinishLaunching();
}

}  // namespace hl
