// harborlattice: the desktop application. Builds the stores, shows the one
// window, and starts the terminal node once launching has finished.
#include <QApplication>
#include <QIcon>
#include <QPainter>
#include <QPixmap>
#include <QSvgRenderer>

#include <memory>
#include <vector>

#include "HarborlatticeApp.h"
#include "MainWindow.h"
#include "ProcessEnvironment.h"
#include "StoredDataPrompts.h"
#include "SyncSettings.h"

namespace {

// The application's icon, as the desktop entry names it: the small sizes drawn
// on their own pixel grids, the larger ones from the SVG, all compiled into the
// executable.
QIcon applicationIcon() {
    QSvgRenderer renderer(QStringLiteral(":/icons/com.quarrynotch.harborlattice.svg"));
    QIcon icon;
    for (const int size : {16, 24, 32})
        icon.addFile(QStringLiteral(":/icons/icons/%1.png").arg(size), QSize(size, size));
    if (!renderer.isValid()) return icon;
    for (const int size : {48, 64, 128, 256}) {
        QPixmap pixmap(size, size);
        pixmap.fill(Qt::transparent);
        QPainter painter(&pixmap);
        renderer.render(&painter);
        painter.end();
        icon.addPixmap(pixmap);
    }
    return icon;
}

}  // namespace

int main(int argc, char** argv) {
    hl::prepareProcessEnvironment();
    hl::takeSyncUrlOverrideFromEnvironment();
    std::vector<char*> arguments = hl::withWebEngineOptions(argc, argv);
    int count = static_cast<int>(arguments.size()) - 1;
    QApplication qt(count, arguments.data());
    // The name is also the window's class (StartupWMClass of the desktop entry);
    // the desktop file name is the application id Wayland compositors match.
    QApplication::setApplicationName(QStringLiteral("Harborlattice"));
    QGuiApplication::setDesktopFileName(QStringLiteral("com.quarrynotch.harborlattice"));
    QApplication::setWindowIcon(applicationIcon());
    hl::chooseRenderingBackend();
    const auto file = hl::RuntimePaths::preferencesFile();
    auto app =
        hl::openApplication(file, [&file] { return std::make_unique<hl::HarborlatticeApp>(file); });
    if (!app) return 1;
    hl::MainWindow window(*app);
    window.show();
    app->delegate().scheduleDidFinishLaunching();
    return QApplication::exec();
}
