// The change signal of a WebDAV record: a HEAD request a few times a second
// compares the record's tag with the last tag this instance read or wrote, and
// calls back when another client has saved something this instance has not seen.
//
// Words used here: the *signature* of the record is its ETag without the weak
// mark (Last-Modified and Content-Length where there is no ETag), or "absent"
// for 404 and 410. The *known tag* is the signature that this instance's own
// transport last read or wrote; the transport keeps it up to date from any
// thread, and a tag seen while its own save is under way waits for the next
// request. A failed request (no answer, or any status but 200, 404 and 410)
// doubles the pause before the next one, up to the longest pause.
#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QTimer>
#include <QUrl>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

class QNetworkAccessManager;
class QNetworkReply;

namespace hl {

// The signature this instance last saw of the record; shared between the
// transport (worker threads) and its watcher (the watching thread).
class WebDavKnownTag {
  public:
    void remember(const QByteArray& signature);
    QByteArray value() const;
    // While this instance saves, a tag it has not seen may be its own save's.
    void setSaving(bool saving);
    bool isSaving() const;

  private:
    mutable std::mutex mutex_;
    QByteArray signature_;
    bool saving_ = false;
};

// The signature of an answer's ETag: without the weak mark, as Apache turns
// W/"x" into "x" a second after a write without any change of the content.
QByteArray webDavSignature(const QByteArray& etag);
inline const QByteArray webDavAbsentSignature = "absent";

class WebDavChangeWatcher final : public QObject {
  public:
    struct Options {
        // Pause between two requests while the server answers.
        std::chrono::milliseconds interval{250};
        // Longest pause, after failures in a row, and between reminders of a
        // change that this instance has still not read.
        std::chrono::milliseconds longestInterval{30'000};
        std::chrono::milliseconds requestTimeout{10'000};
        // The .netrc file for credentials; empty means none.
        QString netrcPath;
        // A user name and password that take the place of the .netrc login.
        std::optional<std::pair<QString, QString>> login;
    };

    // Starts at once; stops by itself once `known` has gone with its transport.
    WebDavChangeWatcher(QUrl url, std::weak_ptr<WebDavKnownTag> known, Options options,
                        std::function<void()> onChange, QObject* parent);
    ~WebDavChangeWatcher() override;

    // Requests sent so far.
    int requestCount() const { return requests_; }

  private:
    void probe();
    void answered(QNetworkReply* reply);
    void scheduleNext(std::chrono::milliseconds pause);

    QUrl url_;
    std::weak_ptr<WebDavKnownTag> known_;
    Options options_;
    std::function<void()> onChange_;
    QNetworkAccessManager* manager_;
    QTimer timer_;
    int requests_ = 0;
    int failuresInARow_ = 0;
    bool firstAnswer_ = true;
    // The unread signature last signalled, when the next reminder is due, and
    // the pause before the one after.
    QByteArray signalled_;
    QElapsedTimer sinceSignal_;
    std::chrono::milliseconds reminderPause_{0};
};

}  // namespace hl
