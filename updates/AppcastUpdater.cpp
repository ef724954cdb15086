// The update check: feed, choice, archive, signature, result.
#include "AppcastUpdater.h"

#include <QFile>
#include <QHostAddress>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSaveFile>

#include <cstdlib>
#include <system_error>

#include "RuntimePaths.h"
#include "UpdaterConfiguration.h"

namespace fs = std::filesystem;

namespace hl {

namespace {

constexpr int transferTimeoutMilliseconds = 30000;

QString httpStatusOf(QNetworkReply* reply) {
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    return status.isValid() ? status.toString() : QString();
}

}  // namespace

UpdateChannel UpdateChannel::standard() {
    UpdateChannel channel;
    channel.feedURL = QUrl(QString::fromLatin1(UpdaterConfiguration::feedURL));
    channel.publicKey = QString::fromLatin1(UpdaterConfiguration::publicKey);
    channel.currentVersion = QStringLiteral(HARBORLATTICE_VERSION);
    channel.scheduledCheckInterval =
        std::chrono::seconds(UpdaterConfiguration::scheduledCheckInterval);
    channel.automaticallyChecks = UpdaterConfiguration::automaticallyChecks;
    const char* cache = std::getenv("XDG_CACHE_HOME");
    const fs::path cacheHome =
        cache && cache[0] == '/' ? fs::path(cache) : RuntimePaths::homeDirectory() / ".cache";
    channel.downloadDirectory = cacheHome / "harborlattice" / "Updates";
    std::error_code error;
    const fs::path executable = fs::canonical("/proc/self/exe", error);
    channel.installedByPackage =
        !error && executableIsPackaged(executable, UpdaterConfiguration::packageDatabase);
    channel.packageManaged = channel.feedURL.isEmpty() || channel.installedByPackage;
    return channel;
}

bool executableIsPackaged(const fs::path& executable, const fs::path& packageDatabase) {
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(packageDatabase, error)) {
        const std::string name = entry.path().filename().string();
        // "harborlattice.list", or "harborlattice:amd64.list" under multiarch.
        if (name != "harborlattice.list" && name.rfind("harborlattice:", 0) != 0) continue;
        if (entry.path().extension() != ".list") continue;
        QFile list(QString::fromStdString(entry.path().string()));
        if (!list.open(QIODevice::ReadOnly)) continue;
        const QByteArray wanted = QByteArray::fromStdString(executable.string());
        while (!list.atEnd()) {
            if (list.readLine().trimmed() == wanted) return true;
        }
    }
    return false;
}

bool isSecureUpdateURL(const QUrl& url) {
    if (!url.isValid() || url.host().isEmpty()) return false;
    if (url.scheme() == QLatin1String("https")) return true;
    if (url.scheme() != QLatin1String("http")) return false;
    return url.host() == QLatin1String("localhost") || QHostAddress(url.host()).isLoopback();
}

UpdateResultText updateResultText(const UpdateCheckResult& result) {
    switch (result.outcome) {
        case UpdateCheckResult::Outcome::upToDate:
            return {QStringLiteral("You're up to date"),
                    "Harborlattice " + result.currentVersion + " is the newest version available."};
        case UpdateCheckResult::Outcome::updateAvailable:
            return {"Harborlattice " + result.offeredVersion + " is available",
                    "You have " + result.currentVersion +
                        ". The update was downloaded and its signature verified: " +
                        QString::fromStdString(result.archivePath.string()) +
                        ". Install it with your package manager."};
        case UpdateCheckResult::Outcome::packageManaged:
            return {QStringLiteral("Updates come from your package manager"),
                    result.hasFeed
                        ? "Harborlattice " + result.currentVersion +
                              " was installed by a package. Your package manager updates it "
                              "(on Debian: sudo apt update && sudo apt upgrade)."
                        : "This build of Harborlattice " + result.currentVersion +
                              " has no update feed. Update it the way it was installed."};
        case UpdateCheckResult::Outcome::failed:
            break;
    }
    return {QStringLiteral("Update check failed"), result.failure};
}

AppcastUpdater::AppcastUpdater(UpdateChannel channel, QObject* parent)
    : QObject(parent), channel_(std::move(channel)) {
    qRegisterMetaType<hl::UpdateCheckResult>();
    network_.setRedirectPolicy(QNetworkRequest::NoLessSafeRedirectPolicy);
    connect(&schedule_, &QTimer::timeout, this, &AppcastUpdater::checkInBackground);
    schedule();
}

void AppcastUpdater::setChannel(UpdateChannel channel) {
    channel_ = std::move(channel);
    schedule();
}

void AppcastUpdater::schedule() {
    schedule_.stop();
    if (channel_.automaticallyChecks && !channel_.packageManaged &&
        channel_.scheduledCheckInterval.count() > 0) {
        schedule_.setInterval(std::chrono::milliseconds(channel_.scheduledCheckInterval));
        schedule_.start();
    }
}

void AppcastUpdater::checkForUpdates() {
    begin(true);
}

void AppcastUpdater::checkInBackground() {
    begin(false);
}

void AppcastUpdater::begin(bool userInitiated) {
    if (checking_) return;
    checking_ = true;
    userInitiated_ = userInitiated;
    emit canCheckForUpdatesChanged(false);
    if (channel_.packageManaged) {
        QTimer::singleShot(0, this, [this] {
            UpdateCheckResult result;
            result.outcome = UpdateCheckResult::Outcome::packageManaged;
            result.currentVersion = channel_.currentVersion;
            result.hasFeed = !channel_.feedURL.isEmpty();
            finish(result);
        });
        return;
    }
    if (!isSecureUpdateURL(channel_.feedURL)) {
        QTimer::singleShot(0, this, [this] {
            fail(QStringLiteral("The update feed is not an HTTPS address, so it is not used."));
        });
        return;
    }
    if (verifyArchiveSignature({}, {}, channel_.publicKey) == SignatureCheck::badKey) {
        QTimer::singleShot(0, this, [this] {
            fail(QStringLiteral(
                "This build's update signing key is not valid, so no update can be trusted."));
        });
        return;
    }
    QNetworkReply* reply = fetch(channel_.feedURL, maximumFeedBytes);
    connect(reply, &QNetworkReply::finished, this, [this, reply] { feedArrived(reply); });
}

QNetworkReply* AppcastUpdater::fetch(const QUrl& url, qint64 limit) {
    QNetworkRequest request(url);
    request.setTransferTimeout(transferTimeoutMilliseconds);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                         QNetworkRequest::AlwaysNetwork);
    QNetworkReply* reply = network_.get(request);
    connect(reply, &QNetworkReply::downloadProgress, reply,
            [reply, limit](qint64 received, qint64) {
                if (received <= limit) return;
                reply->setProperty("tooLarge", true);
                reply->abort();
            });
    return reply;
}

void AppcastUpdater::feedArrived(QNetworkReply* reply) {
    reply->deleteLater();
    const QString status = httpStatusOf(reply);
    if (reply->property("tooLarge").toBool())
        return fail(QStringLiteral("The update feed is too large to be an update feed."));
    if (!status.isEmpty() && status != QLatin1String("200"))
        return fail("The update feed answered with HTTP status " + status + ".");
    if (reply->error() != QNetworkReply::NoError)
        return fail("The update feed could not be reached (" + reply->errorString() + ").");
    if (!isSecureUpdateURL(reply->url()))
        return fail(QStringLiteral("The update feed is not an HTTPS address, so it is not used."));

    AppcastFeed feed;
    try {
        feed = AppcastFeed::parse(reply->readAll(), reply->url());
    } catch (const AppcastError&) {
        return fail(QStringLiteral("The update feed could not be read."));
    }
    const auto newest = feed.newestItem();
    if (!newest || compareVersions(newest->version, channel_.currentVersion) <= 0) {
        UpdateCheckResult result;
        result.outcome = UpdateCheckResult::Outcome::upToDate;
        result.currentVersion = channel_.currentVersion;
        return finish(result);
    }
    const QString name = "Harborlattice " + newest->displayVersion;
    if (!isSecureUpdateURL(newest->archiveURL))
        return fail(name + " is not offered over HTTPS and was not downloaded.");
    if (newest->edSignature.isEmpty()) return fail(name + " is not signed and was not offered.");
    if (newest->length && *newest->length > maximumArchiveBytes)
        return fail(name + " is too large to download.");
    QNetworkReply* archive =
        fetch(newest->archiveURL, newest->length.value_or(maximumArchiveBytes));
    connect(archive, &QNetworkReply::finished, this,
            [this, archive, item = *newest] { archiveArrived(archive, item); });
}

void AppcastUpdater::archiveArrived(QNetworkReply* reply, const AppcastItem& item) {
    reply->deleteLater();
    const QString name = "Harborlattice " + item.displayVersion;
    const QString status = httpStatusOf(reply);
    if (reply->property("tooLarge").toBool())
        return fail(name + " is larger than its feed says and was not offered.");
    if (!status.isEmpty() && status != QLatin1String("200"))
        return fail(name + " could not be downloaded (HTTP status " + status + ").");
    if (reply->error() != QNetworkReply::NoError)
        return fail(name + " could not be downloaded (" + reply->errorString() + ").");
    const QByteArray bytes = reply->readAll();
    if (item.length && bytes.size() != *item.length)
        return fail(name + " arrived incomplete and was not offered.");
    if (verifyArchiveSignature(bytes, item.edSignature, channel_.publicKey) !=
        SignatureCheck::valid)
        return fail("The signature of " + name + " is not valid; the update was not offered.");
    const auto kept = keepArchive(bytes, item);
    if (!kept) {
        return fail(name + " could not be kept in " +
                    QString::fromStdString(channel_.downloadDirectory.string()) + ".");
    }
    UpdateCheckResult result;
    result.outcome = UpdateCheckResult::Outcome::updateAvailable;
    result.currentVersion = channel_.currentVersion;
    result.offeredVersion = item.displayVersion;
    result.archivePath = *kept;
    finish(result);
}

std::optional<fs::path> AppcastUpdater::keepArchive(const QByteArray& bytes,
                                                    const AppcastItem& item) const {
    std::error_code error;
    fs::create_directories(channel_.downloadDirectory, error);
    if (error) return std::nullopt;
    fs::permissions(channel_.downloadDirectory, fs::perms::owner_all, error);
    QString name = item.archiveURL.fileName();
    if (name.isEmpty() || name.startsWith('.')) name = "harborlattice-" + item.version;
    const fs::path path = channel_.downloadDirectory / name.toStdString();
    QSaveFile file(QString::fromStdString(path.string()));
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() ||
        !file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner) || !file.commit())
        return std::nullopt;
    return path;
}

void AppcastUpdater::fail(const QString& failure) {
    UpdateCheckResult result;
    result.currentVersion = channel_.currentVersion;
    result.failure = failure;
    finish(result);
}

void AppcastUpdater::finish(UpdateCheckResult result) {
    checking_ = false;
    emit canCheckForUpdatesChanged(true);
    if (userInitiated_ || result.outcome == UpdateCheckResult::Outcome::updateAvailable)
        emit checkFinished(result, userInitiated_);
}

}  // namespace hl
