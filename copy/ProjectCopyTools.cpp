// Finding ssh and rsync as the user's login shell finds them: an application
// started from a desktop session may have a shorter PATH than the user's
// terminals, and the copy should run the programs the user runs.
#include <QFileInfo>

#include <pwd.h>
#include <unistd.h>
#include <chrono>
#include <future>

#include "ProjectCopyPlan.h"
#include "StreamingProcess.h"

namespace hl {

namespace {

QString userLoginShell() {
    if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_shell && *entry->pw_shell)
        return QString::fromLocal8Bit(entry->pw_shell);
    return QStringLiteral("/bin/sh");
}

bool isExecutableFile(const QString& path) {
    const QFileInfo info(path);
    return info.isFile() && info.isExecutable();
}

}  // namespace

ProjectCopyTools ProjectCopyTools::discover() {
    return discover(userLoginShell());
}

ProjectCopyTools ProjectCopyTools::discover(const QString& loginShell) {
    ProjectCopyTools tools;
    auto output = std::make_shared<LockedData>();
    auto exited = std::make_shared<std::promise<void>>();
    std::future<void> done = exited->get_future();
    StreamingProcess shell(loginShell, {"-l", "-c", "command -v ssh; command -v rsync"});
    shell.run([output](const QByteArray& bytes) { output->append(bytes); },
              [](const QByteArray&) {},
              [exited](const StreamingProcess::Result&) { exited->set_value(); });
    if (done.wait_for(std::chrono::seconds(2)) != std::future_status::ready) {
        shell.terminate();
        return tools;
    }
    // Start-up files may print anything: only absolute paths of executables count.
    for (const QString& line : QString::fromUtf8(output->value()).split('\n')) {
        const QString path = line.trimmed();
        if (!path.startsWith('/') || !isExecutableFile(path)) continue;
        if (path.endsWith("/ssh")) tools.ssh = path;
        if (path.endsWith("/rsync")) tools.rsync = path;
    }
    return tools;
}

}  // namespace hl
