// Helpers of the update, idea and settings tests: the private session bus, and a real
// HTTP server (python3's http.server) serving a folder on loopback.
#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include <string>

namespace hl::updatestest {

// The address of the private session bus; empty when none could be started.
const std::string& sessionBusAddress();
// Whether gnome-keyring-daemon serves the Secret Service on that bus.
bool secretServiceRuns();

// Serves `folder` over HTTP/1.1 on 127.0.0.1 at a port the system chooses.
class HttpFolderServer {
  public:
    explicit HttpFolderServer(const QString& folder);
    ~HttpFolderServer();
    HttpFolderServer(const HttpFolderServer&) = delete;
    HttpFolderServer& operator=(const HttpFolderServer&) = delete;

    int port() const { return port_; }
    QString url(const QString& path) const;
    void stop();

  private:
    QProcess process_;
    int port_ = 0;
};

}  // namespace hl::updatestest
