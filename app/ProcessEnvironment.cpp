// Process settings made before the QApplication is built.
#include "ProcessEnvironment.h"

#include <unistd.h>

#include <QCoreApplication>

namespace hl {

void prepareProcessEnvironment() {
    if (::geteuid() == 0) qputenv("QTWEBENGINE_DISABLE_SANDBOX", "1");
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
}

}  // namespace hl
