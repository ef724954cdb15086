// harborlattice: the desktop application. Builds the stores, shows the one
// window, and starts the terminal node once launching has finished.
#include <QApplication>

#include <cstdio>
#include <memory>

#include "HarborlatticeApp.h"
#include "MainWindow.h"
#include "ProcessEnvironment.h"

int main(int argc, char** argv) {
    hl::prepareProcessEnvironment();
    QApplication qt(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Harborlattice"));
    hl::chooseRenderingBackend();
    std::unique_ptr<hl::HarborlatticeApp> app;
    try {
        app = std::make_unique<hl::HarborlatticeApp>();
    } catch (const hl::PreferencesError& error) {
        std::fprintf(stderr, "harborlattice: %s\n", error.what());
        return 1;
    }
    hl::MainWindow window(*app);
    window.show();
    app->delegate().scheduleDidFinishLaunching();
    return QApplication::exec();
}
