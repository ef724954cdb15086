// One start of the application in a window test: the stores, the window shown
// and active, and the launch event.
#pragma once

#include <QApplication>

#include <memory>

#include "AppTestSupport.h"
#include "ContentView.h"
#include "HarborlatticeApp.h"
#include "MainWindow.h"

namespace hl::apptest {

struct RunningApp {
    RunningApp() : app(std::make_unique<HarborlatticeApp>()), window(*app) {
        window.show();
        QApplication::setActiveWindow(&window);
        app->delegate().scheduleDidFinishLaunching();
        spinFor(std::chrono::milliseconds(50));
    }
    ContentView* content() { return window.contentView(); }
    WorkspaceStore& workspace() { return app->workspace(); }

    std::unique_ptr<HarborlatticeApp> app;
    MainWindow window;
};

}  // namespace hl::apptest
