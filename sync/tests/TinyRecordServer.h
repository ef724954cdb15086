// A small HTTP server in the test process that holds one file the way a plain
// WebDAV server without locking would: strong ETags, If-Match and If-None-Match on
// PUT, If-None-Match on GET, 405 for LOCK. Settings make its tags weak for a while after each
// write, leave them out, answer every request with one status, or never answer. It runs on the
// thread that created it, which the blocking transport keeps serving.
#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QTcpServer>
#include <QUrl>

#include <functional>
#include <optional>

namespace hl::test {

class TinyRecordServer : public QObject {
  public:
    struct Settings {
        int weakAfterWriteMs = 0;
        bool givesETag = true;
        int forcedStatus = 0;
        bool silent = false;
        // "user:password" that Basic authentication must present; empty: none asked.
        QByteArray login;
    };
    explicit TinyRecordServer(Settings settings);

    QUrl url() const;
    // Stores `bytes` as another writer's save would, moving the tag.
    void replace(const QByteArray& bytes);

    std::optional<QByteArray> body;
    // Runs once, right after the next GET has been answered.
    std::function<void()> afterNextGet;
    int requests = 0;
    int notModified = 0;
    int refusedPuts = 0;

  private:
    void answer(QTcpSocket* socket, const QByteArray& request);
    QByteArray currentTag() const;

    Settings settings_;
    QTcpServer server_;
    int generation_ = 0;
    QElapsedTimer sinceWrite_;
};

}  // namespace hl::test
