// DeviceCopyEndpoint: `tailscale status --json` run with its output into a
// temporary file (a large report can never block the child on a full pipe
// while this thread waits), with a deadline; then the local names.
#include "DeviceCopyEndpoint.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUuid>

#include <fcntl.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <thread>

#include "UniqueFd.h"

extern char** environ;

namespace hl {

namespace {

QString userName() {
    if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_name)
        return QString::fromLocal8Bit(entry->pw_name);
    return QString::fromLocal8Bit(qgetenv("USER"));
}

QString hostName() {
    char name[256] = {};
    if (::gethostname(name, sizeof name - 1) != 0) return {};
    return QString::fromLocal8Bit(name);
}

// The pretty host name that the system's settings show, when one is set.
QString prettyHostName() {
    QFile file("/etc/machine-info");
    if (!file.open(QIODevice::ReadOnly)) return {};
    for (const QByteArray& raw : file.readAll().split('\n')) {
        const QString line = QString::fromUtf8(raw).trimmed();
        if (!line.startsWith("PRETTY_HOSTNAME=")) continue;
        QString value = line.mid(int(sizeof "PRETTY_HOSTNAME=") - 1);
        if (value.size() >= 2 && (value.startsWith('"') || value.startsWith('\'')) &&
            value.endsWith(value[0]))
            value = value.mid(1, value.size() - 2);
        return value.trimmed();
    }
    return {};
}

// Runs the command with its output in `outputFd`; false unless it exits with 0
// before the deadline. A late command is terminated and reaped.
bool runWithDeadline(const QString& executable, int outputFd, std::chrono::milliseconds timeout) {
    const std::string path = executable.toStdString();
    std::string status = "status", json = "--json";
    std::string program = path;
    char* argv[] = {program.data(), status.data(), json.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outputFd, 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int launched = ::posix_spawn(&pid, path.c_str(), &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (launched != 0) return false;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int result = 0;
    while (true) {
        const pid_t waited = ::waitpid(pid, &result, WNOHANG);
        if (waited == pid) break;
        if (waited < 0 && errno != EINTR) return false;
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(pid, SIGTERM);
            while (::waitpid(pid, &result, 0) < 0 && errno == EINTR) {
            }
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return WIFEXITED(result) && WEXITSTATUS(result) == 0;
}

std::optional<DeviceCopyEndpoint> tailscaleIdentity(const QStringList& candidates,
                                                    std::chrono::milliseconds timeout) {
    QString executable;
    for (const QString& candidate : candidates) {
        const QFileInfo info(candidate);
        if (info.isFile() && info.isExecutable()) {
            executable = candidate;
            break;
        }
    }
    if (executable.isEmpty()) return std::nullopt;
    const QString reportPath = QDir::tempPath() + "/harborlattice-tailscale-" +
                               QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper() +
                               ".json";
    const QByteArray reportName = QFile::encodeName(reportPath);
    UniqueFd report(
        ::open(reportName.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!report) return std::nullopt;
    std::optional<DeviceCopyEndpoint> endpoint;
    if (runWithDeadline(executable, report.get(), timeout) && ::fsync(report.get()) == 0) {
        QFile file(reportPath);
        if (file.open(QIODevice::ReadOnly))
            endpoint = endpointFromTailscaleStatus(file.readAll(), userName());
    }
    report.reset();
    ::unlink(reportName.constData());
    return endpoint;
}

}  // namespace

std::optional<DeviceCopyEndpoint> endpointFromTailscaleStatus(const QByteArray& json,
                                                              const QString& user) {
    const QJsonDocument document = QJsonDocument::fromJson(json);
    if (!document.isObject()) return std::nullopt;
    const QJsonValue self = document.object().value("Self");
    if (!self.isObject()) return std::nullopt;
    const QJsonValue dnsName = self.toObject().value("DNSName");
    if (!dnsName.isString()) return std::nullopt;
    QString host = dnsName.toString();
    while (host.startsWith('.'))
        host.remove(0, 1);
    while (host.endsWith('.'))
        host.chop(1);
    if (host.isEmpty()) return std::nullopt;
    const QString name = self.toObject().value("HostName").toString().trimmed();
    return DeviceCopyEndpoint{name.isEmpty() ? host : name, host, user};
}

DeviceCopyEndpoint DeviceCopyEndpoint::localIdentity() {
    const QString host = hostName();
    const QString pretty = prettyHostName();
    return DeviceCopyEndpoint{pretty.isEmpty() ? host : pretty, host, userName()};
}

QStringList DeviceCopyEndpoint::tailscaleCandidates() {
    return {"/opt/homebrew/bin/tailscale", "/Applications/Tailscale.app/Contents/MacOS/Tailscale",
            "/usr/local/bin/tailscale", "/usr/bin/tailscale", "/snap/bin/tailscale"};
}

DeviceCopyEndpoint DeviceCopyEndpoint::discover() {
    return discover(tailscaleCandidates(), std::chrono::seconds(2));
}

DeviceCopyEndpoint DeviceCopyEndpoint::discover(const QStringList& candidates,
                                                std::chrono::milliseconds timeout) {
    if (auto endpoint = tailscaleIdentity(candidates, timeout)) return *endpoint;
    return localIdentity();
}

}  // namespace hl
