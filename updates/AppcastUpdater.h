// AppcastUpdater: checks an update channel. It fetches the appcast over HTTPS,
// picks the newest item for this system, and offers it only after its archive
// has been downloaded and its Ed25519 signature verified against the channel's
// public key; the verified archive is kept for the user's package manager,
// nothing is installed. A user's check always ends in a result; a scheduled
// check speaks only when it found an update. While a check runs, no other can
// start.
#pragma once

#include <QNetworkAccessManager>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>
#include <QUrl>

#include <chrono>
#include <filesystem>

#include "AppcastFeed.h"

class QNetworkReply;

namespace hl {

struct UpdateChannel {
    QUrl feedURL;
    QString publicKey;       // base64 Ed25519 key
    QString currentVersion;  // the running application's
    std::chrono::seconds scheduledCheckInterval{3600};
    bool automaticallyChecks = false;
    // Where a verified archive is kept.
    std::filesystem::path downloadDirectory;
    // True when a package manager updates this build (it installed the
    // executable, or the build has no feed): no check fetches anything then.
    bool packageManaged = false;
    // True when dpkg installed the running executable: its package manager
    // updates it whatever feed is set.
    bool installedByPackage = false;

    // The recorded channel: UpdaterConfiguration, this build's version, and
    // $XDG_CACHE_HOME/harborlattice/Updates (default ~/.cache/...).
    static UpdateChannel standard();
};

// Whether dpkg's database (`packageDatabase`, its info folder) lists
// `executable` as a file of the harborlattice package.
bool executableIsPackaged(const std::filesystem::path& executable,
                          const std::filesystem::path& packageDatabase);

// An HTTPS address with a host, or plain HTTP to this machine's loopback.
bool isSecureUpdateURL(const QUrl& url);

struct UpdateCheckResult {
    enum class Outcome { upToDate, updateAvailable, failed, packageManaged };
    Outcome outcome = Outcome::failed;
    QString currentVersion;
    QString offeredVersion;             // with updateAvailable
    std::filesystem::path archivePath;  // with updateAvailable: the verified archive
    QString failure;                    // with failed: one line for the user
    bool hasFeed = true;                // with packageManaged: whether a feed was set
};

struct UpdateResultText {
    QString title;
    QString message;
};
UpdateResultText updateResultText(const UpdateCheckResult& result);

class AppcastUpdater : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool canCheckForUpdates READ canCheckForUpdates NOTIFY canCheckForUpdatesChanged)

  public:
    static constexpr qint64 maximumFeedBytes = 4 << 20;
    static constexpr qint64 maximumArchiveBytes = qint64(1) << 30;

    explicit AppcastUpdater(UpdateChannel channel, QObject* parent = nullptr);

    bool canCheckForUpdates() const { return !checking_; }
    const UpdateChannel& channel() const { return channel_; }
    // Checks `channel` from now on; its scheduled checks start or stop with it.
    // A check under way keeps the feed it fetched.
    void setChannel(UpdateChannel channel);
    // A check the user asked for: its result is always reported.
    void checkForUpdates();
    // A scheduled check: reported only when an update is offered.
    void checkInBackground();

  signals:
    void canCheckForUpdatesChanged(bool canCheck);
    void checkFinished(const hl::UpdateCheckResult& result, bool userInitiated);

  private:
    void begin(bool userInitiated);
    void schedule();
    void finish(UpdateCheckResult result);
    void fail(const QString& failure);
    QNetworkReply* fetch(const QUrl& url, qint64 limit);
    void feedArrived(QNetworkReply* reply);
    void archiveArrived(QNetworkReply* reply, const AppcastItem& item);
    // Keeps the verified archive; returns its path, or nothing when it could not be written.
    std::optional<std::filesystem::path> keepArchive(const QByteArray& bytes,
                                                     const AppcastItem& item) const;

    UpdateChannel channel_;
    QNetworkAccessManager network_;
    QTimer schedule_;
    bool checking_ = false;
    bool userInitiated_ = false;
};

}  // namespace hl

Q_DECLARE_METATYPE(hl::UpdateCheckResult)
