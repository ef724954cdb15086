// One running application of its own (its own preferences file under the test's
// folder, its window shown and launched), for tests with several computers.
#pragma once

#include <QLabel>

#include <memory>
#include <string>

#include "AppTestSupport.h"
#include "HarborlatticeApp.h"
#include "MainWindow.h"

namespace hl::apptest {

struct Instance {
    explicit Instance(const std::string& name)
        : app(std::make_unique<hl::HarborlatticeApp>(baseFolder() / (name + ".db"))), window(*app) {
        window.show();
        app->delegate().scheduleDidFinishLaunching();
    }
    // The sync status row's text.
    QString status() {
        auto* label = find<QLabel>(&window, "sync.status");
        return label ? label->text() : QString();
    }
    std::unique_ptr<hl::HarborlatticeApp> app;
    hl::MainWindow window;
};

}  // namespace hl::apptest
