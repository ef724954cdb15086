#include "ApacheServer.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif

#include <unistd.h>
#include <csignal>

#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>

namespace hl::test {

namespace {

constexpr const char* apacheExecutable = "/usr/sbin/apache2";
constexpr const char* moduleDirectory = "/usr/lib/apache2/modules";

// A port that was free a moment ago.
quint16 freePort() {
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

void giveToWorkers(const QString& path) {
    if (::geteuid() != 0) return;
    if (const passwd* user = ::getpwnam("www-data")) {
        const QByteArray name = QFile::encodeName(path);
        if (::chown(name.constData(), user->pw_uid, user->pw_gid) != 0) return;
    }
}

}  // namespace

ApacheServer::ApacheServer() : ApacheServer(QString(), QString()) {}

ApacheServer::ApacheServer(const QString& user, const QString& password)
    : user_(user), password_(password) {
    QByteArray pattern = QFile::encodeName(QDir::tempPath() + "/hl-apache-XXXXXX");
    if (::mkdtemp(pattern.data()) == nullptr) {
        error_ = "cannot create a temporary folder";
        return;
    }
    root_ = QFile::decodeName(pattern);
    ::chmod(pattern.constData(), 0755);  // the workers must reach the DAV folder
    for (const char* folder : {"dav", "lock"}) {
        QDir(root_).mkdir(folder);
        giveToWorkers(root_ + "/" + folder);
    }
    if (!QFile::exists(apacheExecutable)) {
        error_ = "Apache is not installed (scripts/install-deps.sh installs apache2)";
        return;
    }
    for (int attempt = 0; attempt < 5 && !running_; ++attempt)
        running_ = startOnce(freePort());
}

ApacheServer::~ApacheServer() {
    stop();
    if (!root_.isEmpty()) QDir(root_).removeRecursively();
}

bool ApacheServer::startOnce(quint16 port) {
    port_ = port;
    const bool asRoot = ::geteuid() == 0;
    QString config;
    config += QStringLiteral("ServerRoot \"%1\"\nServerName 127.0.0.1\n").arg(root_);
    config += QStringLiteral("Listen 127.0.0.1:%1\n").arg(port);
    config += QStringLiteral("PidFile \"%1/httpd.pid\"\nDefaultRuntimeDir \"%1\"\n").arg(root_);
    config += QStringLiteral("ErrorLog \"%1/error.log\"\nLogLevel warn\n").arg(root_);
    for (const char* module : {"mpm_event", "authz_core", "dav", "dav_fs", "auth_basic",
                               "authn_core", "authn_file", "authz_user"}) {
        config +=
            QStringLiteral("LoadModule %1_module %2/mod_%1.so\n").arg(module, moduleDirectory);
    }
    config += QStringLiteral(
        "StartServers 1\nServerLimit 2\nThreadsPerChild 16\nMaxRequestWorkers 32\n"
        "MinSpareThreads 4\nMaxSpareThreads 32\nTimeout 60\n");
    if (asRoot) config += QStringLiteral("User www-data\nGroup www-data\n");
    config += QStringLiteral("DocumentRoot \"%1/dav\"\nDavLockDB \"%1/lock/DavLock\"\n").arg(root_);
    if (user_.isEmpty()) {
        config += QStringLiteral(
                      "<Directory \"%1/dav\">\n  Dav On\n  Require all granted\n</Directory>\n")
                      .arg(root_);
    } else {
        QFile users(root_ + "/users");
        const QByteArray digest =
            QCryptographicHash::hash(password_.toUtf8(), QCryptographicHash::Sha1).toBase64();
        if (!users.open(QIODevice::WriteOnly) ||
            users.write(user_.toUtf8() + ":{SHA}" + digest + "\n") < 0) {
            error_ = "cannot write the user file";
            return false;
        }
        users.close();
        config += QStringLiteral(
                      "<Directory \"%1/dav\">\n  Dav On\n  AuthType Basic\n"
                      "  AuthName dav\n  AuthUserFile \"%1/users\"\n"
                      "  Require valid-user\n</Directory>\n")
                      .arg(root_);
    }
    QFile file(root_ + "/httpd.conf");
    if (!file.open(QIODevice::WriteOnly) || file.write(config.toUtf8()) < 0) {
        error_ = "cannot write the configuration";
        return false;
    }
    file.close();

    process_ = std::make_unique<QProcess>();
    process_->setProcessChannelMode(QProcess::MergedChannels);
#ifdef __linux__
    // A test that dies leaves no server behind.
    process_->setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
#endif
    process_->start(apacheExecutable, {"-f", root_ + "/httpd.conf", "-DFOREGROUND"});
    if (!process_->waitForStarted(30'000)) {
        error_ = "Apache did not start: " + process_->errorString();
        return false;
    }
    const QDeadlineTimer deadline(60'000);
    while (!deadline.hasExpired()) {
        if (process_->state() != QProcess::Running) break;
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, port);
        if (socket.waitForConnected(1000)) return true;
        QThread::msleep(50);
    }
    QFile log(root_ + "/error.log");
    log.open(QIODevice::ReadOnly);
    error_ = "Apache did not accept connections: " + QString::fromUtf8(process_->readAll()) +
             QString::fromUtf8(log.readAll());
    stop();
    return false;
}

void ApacheServer::stop() {
    if (!process_) return;
    if (process_->state() != QProcess::NotRunning) {
        process_->terminate();
        if (!process_->waitForFinished(30'000)) {
            process_->kill();
            process_->waitForFinished(30'000);
        }
    }
    process_.reset();
    running_ = false;
}

QUrl ApacheServer::url(const QString& name) const {
    return QUrl(QStringLiteral("http://127.0.0.1:%1/%2").arg(port_).arg(name));
}

QString ApacheServer::filePath(const QString& name) const {
    return root_ + "/dav/" + name;
}

}  // namespace hl::test
