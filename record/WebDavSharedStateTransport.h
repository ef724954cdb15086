// The shared record as one file on a WebDAV server (http:// or https:// URL of
// the file): GET reads it and its ETag is the change tag; 404 means no record.
//
// Each read-compare-write runs under an exclusive WebDAV LOCK where the server
// offers one, and the save is a PUT that presents the lock token. That also serves
// servers whose ETag stays weak for a moment after a write (a weak tag never
// satisfies If-Match). Where the server refuses LOCK, the save is a PUT with
// If-Match (If-None-Match: * for a new record), and a weak tag is read again until
// it is strong. Nothing is ever written without one of the two guards.
//
// Credentials come from the URL, else from the given login, else from ~/.netrc. Calls block on a
// local event loop of the calling thread.
//
// The change signal is a WebDavChangeWatcher: a HEAD request a few times a second
// on the watching thread, compared with the tag this transport last read or wrote
// (after its own save, read under the lock), so that its own saves are not
// signalled back to it.
#pragma once

#include <QUrl>

#include <QPointer>

#include <chrono>
#include <memory>

#include "SharedStateTransport.h"
#include "WebDavChangeWatcher.h"

class QNetworkRequest;

namespace hl {

class WebDavSharedStateTransport final : public RecordSharedStateTransport {
  public:
    struct Options {
        // Longest wait for one request's answer.
        std::chrono::milliseconds requestTimeout{30'000};
        // Longest wait for a lock that another client holds.
        std::chrono::milliseconds lockWait{30'000};
        // Longest wait for a weak ETag to turn strong, where there is no LOCK.
        std::chrono::milliseconds strongTagWait{5'000};
        // The .netrc file; empty means ~/.netrc.
        QString netrcPath;
        // A user name and password (kept by the caller, never in the URL) that
        // take the place of the .netrc login.
        std::optional<std::pair<QString, QString>> login;
        // The change watcher's pause between requests while the server answers,
        // and its longest pause after failures.
        std::chrono::milliseconds changeInterval{250};
        std::chrono::milliseconds longestChangeInterval{30'000};
    };

    explicit WebDavSharedStateTransport(QUrl url);
    WebDavSharedStateTransport(QUrl url, Options options);

    const QUrl& url() const { return url_; }
    bool isConfigured() const override { return true; }
    // The URL is an http or https URL with a host.
    bool accountIsAvailable() override;
    // Watches the record from `context`'s thread; call it on that thread.
    void watchChanges(QObject* context, std::function<void()> onChange) override;
    // The watcher that watchChanges started, while it runs.
    const WebDavChangeWatcher* changeWatcher() const { return watcher_.data(); }

  protected:
    std::optional<SharedStateRecord> readRecord() override;
    SaveOutcome writeRecord(const QByteArray& payload,
                            const std::optional<QByteArray>& expectedTag) override;
    void beginAttempt() override;
    void endAttempt() noexcept override;

  private:
    struct Answer {
        int status = 0;
        QByteArray body;
        QByteArray etag;
        QByteArray lockToken;
    };
    // One request; throws SharedStateTransportError when no HTTP answer came.
    Answer send(const QByteArray& verb, const QList<std::pair<QByteArray, QByteArray>>& headers,
                const QByteArray& body = {});

    // Takes the lock where the server offers one.
    void lockForAttempt();
    // Remembers the tag of this transport's own save.
    void rememberOwnSave(const QByteArray& etag);

    QUrl url_;
    Options options_;
    bool lockingUnsupported_ = false;
    bool inAttempt_ = false;
    // The record as last read, for a conditional read.
    std::optional<SharedStateRecord> lastRecord_;
    QByteArray lockToken_;
    // The tag of an empty resource (what a LOCK leaves at a new URL): no record,
    // but a save must still present it.
    QByteArray emptyResourceTag_;
    std::shared_ptr<WebDavKnownTag> knownTag_ = std::make_shared<WebDavKnownTag>();
    QPointer<WebDavChangeWatcher> watcher_;
};

// The login and password for `host` in a .netrc file, if it names one (or a default).
std::optional<std::pair<QString, QString>> netrcCredentials(const QString& netrcPath,
                                                            const QString& host);

}  // namespace hl
