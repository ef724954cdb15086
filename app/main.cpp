// harborlattice: the desktop application. Builds the stores, shows the one
// window, and starts the terminal node once launching has finished.
#include <QApplication>

#include <cstdio>
#include <memory>

#include "HarborlatticeApp.h"
#include "MainWindow.h"
#include "ProcessEnvironment.h"
#include "StoredDataPrompts.h"

int main(int argc, char** argv) {
    hl::prepareProcessEnvironment();
    QApplication qt(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Harborlattice"));
    hl::chooseRenderingBackend();
    std::unique_ptr<hl::HarborlatticeApp> app;
    const auto file = hl::RuntimePaths::preferencesFile();
    while (!app) {
        try {
            app = std::make_unique<hl::HarborlatticeApp>(file);
        } catch (const hl::PreferencesError& error) {
            std::fprintf(stderr, "harborlattice: %s\n", error.what());
            if (!hl::askToRetryOpeningPreferences(error, file)) return 1;
        }
    }
    hl::MainWindow window(*app);
    window.show();
    app->delegate().scheduleDidFinishLaunching();
    return QApplication::exec();
}
