// A real Apache httpd with mod_dav for the tests, on a loopback port, with a
// configuration, logs and DAV folder of its own in a temporary folder. As root
// its workers run as www-data, which owns the DAV folder and the lock database.
#pragma once

#include <QProcess>
#include <QString>
#include <QUrl>

#include <memory>

namespace hl::test {

class ApacheServer {
  public:
    // Starts the server and waits until it accepts connections; on failure
    // `error()` says why and `isRunning()` is false.
    ApacheServer();
    // The same, where every request must carry this user name and password
    // (HTTP Basic authentication).
    ApacheServer(const QString& user, const QString& password);
    ~ApacheServer();
    ApacheServer(const ApacheServer&) = delete;
    ApacheServer& operator=(const ApacheServer&) = delete;

    bool isRunning() const { return running_; }
    const QString& error() const { return error_; }
    // The URL of `name` in the DAV folder.
    QUrl url(const QString& name) const;
    // The file behind `name` in the DAV folder.
    QString filePath(const QString& name) const;
    // Stops the server, as a network that went away.
    void pause() { stop(); }
    // Starts it again on the same port and folder.
    bool resume() { return running_ = startOnce(port_); }

  private:
    bool startOnce(quint16 port);
    void stop();

    QString root_;
    QString user_;
    QString password_;
    quint16 port_ = 0;
    std::unique_ptr<QProcess> process_;
    bool running_ = false;
    QString error_;
};

}  // namespace hl::test
