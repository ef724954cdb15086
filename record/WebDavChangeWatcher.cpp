// The WebDAV change signal: one HEAD request at a time on the watching thread's
// event loop, never blocking it.
#include "WebDavChangeWatcher.h"

#include <QAuthenticator>
#include <QNetworkAccessManager>
#include <QNetworkReply>

#include <algorithm>

#include "WebDavSharedStateTransport.h"

namespace hl {

void WebDavKnownTag::remember(const QByteArray& signature) {
    std::lock_guard guard(mutex_);
    signature_ = signature;
}

QByteArray WebDavKnownTag::value() const {
    std::lock_guard guard(mutex_);
    return signature_;
}

void WebDavKnownTag::setSaving(bool saving) {
    std::lock_guard guard(mutex_);
    saving_ = saving;
}

bool WebDavKnownTag::isSaving() const {
    std::lock_guard guard(mutex_);
    return saving_;
}

QByteArray webDavSignature(const QByteArray& etag) {
    const QByteArray trimmed = etag.trimmed();
    return trimmed.startsWith("W/") ? trimmed.mid(2) : trimmed;
}

WebDavChangeWatcher::WebDavChangeWatcher(QUrl url, std::weak_ptr<WebDavKnownTag> known,
                                         Options options, std::function<void()> onChange,
                                         QObject* parent)
    : QObject(parent),
      url_(std::move(url)),
      known_(std::move(known)),
      options_(std::move(options)),
      onChange_(std::move(onChange)),
      manager_(new QNetworkAccessManager(this)) {
    timer_.setSingleShot(true);
    connect(&timer_, &QTimer::timeout, this, [this] { probe(); });
    connect(manager_, &QNetworkAccessManager::authenticationRequired, this,
            [this](QNetworkReply* reply, QAuthenticator* authenticator) {
                // Each request offers the .netrc login once; a refused one fails.
                if (reply->property("hl.netrcTried").toBool() || !url_.userName().isEmpty()) return;
                reply->setProperty("hl.netrcTried", true);
                auto login = options_.login;
                if (!login && !options_.netrcPath.isEmpty())
                    login = netrcCredentials(options_.netrcPath, url_.host());
                if (login) {
                    authenticator->setUser(login->first);
                    authenticator->setPassword(login->second);
                }
            });
    probe();
}

WebDavChangeWatcher::~WebDavChangeWatcher() {
    timer_.stop();
}

void WebDavChangeWatcher::scheduleNext(std::chrono::milliseconds pause) {
    timer_.start(pause);
}

void WebDavChangeWatcher::probe() {
    if (known_.expired()) {
        deleteLater();  // the transport is gone
        return;
    }
    QNetworkRequest request(url_);
    request.setTransferTimeout(static_cast<int>(options_.requestTimeout.count()));
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                         QNetworkRequest::AlwaysNetwork);
    ++requests_;
    QNetworkReply* reply = manager_->head(request);
    connect(reply, &QNetworkReply::finished, this, [this, reply] { answered(reply); });
}

void WebDavChangeWatcher::answered(QNetworkReply* reply) {
    reply->deleteLater();
    const auto known = known_.lock();
    if (!known) {
        deleteLater();
        return;
    }
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    QByteArray signature;
    if (reply->error() == QNetworkReply::NoError && status == 200) {
        signature = webDavSignature(reply->rawHeader("ETag"));
        if (signature.isEmpty()) {
            signature =
                reply->rawHeader("Last-Modified") + " " + reply->rawHeader("Content-Length");
        }
    } else if (status == 404 || status == 410) {
        signature = webDavAbsentSignature;
    } else {
        // No answer, or one that says nothing of the record: wait longer each time.
        failuresInARow_ = std::min(failuresInARow_ + 1, 30);
        const auto pause = options_.interval * (qint64(1) << std::min(failuresInARow_, 16));
        scheduleNext(std::min<std::chrono::milliseconds>(pause, options_.longestInterval));
        return;
    }
    failuresInARow_ = 0;
    scheduleNext(options_.interval);

    if (signature == known->value()) {
        signalled_.clear();  // this instance has read it
        firstAnswer_ = false;
        return;
    }
    if (known->isSaving()) return;  // perhaps this instance's own save
    if (firstAnswer_) {
        // What was there before watching began is for the first refresh to read;
        // it is signalled only if it is still unread after a reminder's pause.
        firstAnswer_ = false;
        signalled_ = signature;
        reminderPause_ = options_.interval * 4;
        sinceSignal_.start();
        return;
    }
    if (signature != signalled_) {
        signalled_ = signature;
        reminderPause_ = options_.interval * 4;
    } else if (sinceSignal_.elapsed() < reminderPause_.count()) {
        return;
    } else {
        // The signal was not followed by a read (a refresh was already running):
        // remind, less often each time.
        reminderPause_ = std::min(reminderPause_ * 2, options_.longestInterval);
    }
    sinceSignal_.start();
    if (onChange_) onChange_();
}

}  // namespace hl
