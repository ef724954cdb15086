// The HTTP server of the update tests.
#include "UpdatesTestSupport.h"

#include <signal.h>
#include <sys/prctl.h>

#include <QDeadlineTimer>
#include <QRegularExpression>

#include <stdexcept>

namespace hl::updatestest {

HttpFolderServer::HttpFolderServer(const QString& folder) {
    process_.setProcessChannelMode(QProcess::SeparateChannels);
    // The server ends with the test, even one that is killed.
    process_.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
    process_.start(QStringLiteral("python3"),
                   {"-u", "-m", "http.server", "0", "--bind", "127.0.0.1", "--directory", folder});
    QByteArray said;
    const QRegularExpression port(QStringLiteral("port (\\d+)"));
    QDeadlineTimer deadline(30000);
    while (!deadline.hasExpired() && process_.state() != QProcess::NotRunning) {
        process_.waitForReadyRead(200);
        said += process_.readAllStandardOutput();
        const auto match = port.match(QString::fromUtf8(said));
        if (match.hasMatch()) {
            port_ = match.captured(1).toInt();
            return;
        }
    }
    throw std::runtime_error("http.server did not start: " + said.toStdString() +
                             process_.readAllStandardError().toStdString());
}

HttpFolderServer::~HttpFolderServer() {
    stop();
}

QString HttpFolderServer::url(const QString& path) const {
    return QStringLiteral("http://127.0.0.1:%1/%2").arg(port_).arg(path);
}

void HttpFolderServer::stop() {
    if (process_.state() == QProcess::NotRunning) return;
    process_.terminate();
    if (!process_.waitForFinished(10000)) {
        process_.kill();
        process_.waitForFinished(10000);
    }
}

}  // namespace hl::updatestest
