// Process settings made around the building of the QApplication: the
// renderer's sandbox, the shared graphics context, the terminal scheme, the
// web engine's options, and the scene graph's backend on machines whose
// OpenGL is a software rasterizer.
#include "ProcessEnvironment.h"

#include <unistd.h>

#include <QCoreApplication>
#include <QGuiApplication>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QQuickWindow>
#include <QSGRendererInterface>

#include <cstring>

#include "TerminalDocumentScheme.h"

namespace hl {

void prepareProcessEnvironment() {
    if (::geteuid() == 0) qputenv("QTWEBENGINE_DISABLE_SANDBOX", "1");
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    TerminalDocumentScheme::registerScheme();
}

const std::vector<const char*>& webEngineOptions() {
    static const std::vector<const char*> options{"--process-per-site"};
    return options;
}

std::vector<char*> withWebEngineOptions(int argc, char** argv) {
    std::vector<char*> arguments(argv, argv + argc);
    // The web engine reads no argument when this variable is set: the options
    // then go after the user's own there.
    if (qEnvironmentVariableIsSet("QTWEBENGINE_CHROMIUM_FLAGS")) {
        QByteArray flags = qgetenv("QTWEBENGINE_CHROMIUM_FLAGS");
        for (const char* option : webEngineOptions())
            flags += QByteArray(" ") + option;
        qputenv("QTWEBENGINE_CHROMIUM_FLAGS", flags);
        arguments.push_back(nullptr);
        return arguments;
    }
    bool separated = false;
    for (char* argument : arguments)
        separated = separated || std::strcmp(argument, "--webEngineArgs") == 0;
    static char separator[] = "--webEngineArgs";
    if (!separated) arguments.push_back(separator);
    for (const char* option : webEngineOptions())
        arguments.push_back(const_cast<char*>(option));
    arguments.push_back(nullptr);
    return arguments;
}

bool openGLIsSoftwareOrMissing() {
    QOffscreenSurface surface;
    surface.create();
    QOpenGLContext context;
    if (!surface.isValid() || !context.create() || !context.makeCurrent(&surface)) return true;
    const auto* renderer =
        reinterpret_cast<const char*>(context.functions()->glGetString(GL_RENDERER));
    const QByteArray name = renderer != nullptr ? QByteArray(renderer).toLower() : QByteArray();
    context.doneCurrent();
    return name.isEmpty() || name.contains("llvmpipe") || name.contains("softpipe") ||
           name.contains("software");
}

void chooseRenderingBackend() {
    if (qEnvironmentVariableIsSet("QT_QUICK_BACKEND")) return;  // the user's choice stands
    if (QCoreApplication::instance() == nullptr) return;
    const QString platform = QGuiApplication::platformName();
    if (platform == "offscreen" || platform == "minimal") return;
    // Web views composite through the scene graph; on a software rasterizer its
    // OpenGL path can leave them blank, while the software path draws them.
    if (openGLIsSoftwareOrMissing()) QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
}

}  // namespace hl
