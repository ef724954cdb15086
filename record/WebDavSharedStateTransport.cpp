// The WebDAV transport: GET, LOCK, conditional PUT and UNLOCK over Qt Network,
// each request waited for on a local event loop.
#include "WebDavSharedStateTransport.h"

#include <QAuthenticator>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QRandomGenerator>
#include <QSslError>
#include <QThread>

namespace hl {

namespace {

using Clock = std::chrono::steady_clock;
using Error = SharedStateTransportError;

const QByteArray lockRequestBody =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>"
    "<D:lockinfo xmlns:D=\"DAV:\"><D:lockscope><D:exclusive/></D:lockscope>"
    "<D:locktype><D:write/></D:locktype><D:owner>Harborlattice</D:owner></D:lockinfo>";

bool certificateIsUntrusted(const QSslError& error) {
    switch (error.error()) {
        case QSslError::UnableToGetIssuerCertificate:
        case QSslError::UnableToGetLocalIssuerCertificate:
        case QSslError::UnableToVerifyFirstCertificate:
        case QSslError::SelfSignedCertificate:
        case QSslError::SelfSignedCertificateInChain:
        case QSslError::CertificateUntrusted:
        case QSslError::CertificateRejected:
        case QSslError::CertificateNotYetValid:
        case QSslError::CertificateExpired:
        case QSslError::CertificateRevoked:
        case QSslError::InvalidCaCertificate:
        case QSslError::HostNameMismatch:
            return true;
        default:
            return false;
    }
}

// The failure of a request that got no HTTP answer.
Error networkFailure(QNetworkReply::NetworkError error, const QString& text) {
    switch (error) {
        case QNetworkReply::HostNotFoundError:
            return Error(Error::Kind::HostNotFound, error, text);
        case QNetworkReply::TimeoutError:
        case QNetworkReply::OperationCanceledError:  // the transfer time-out
            return Error(Error::Kind::TimedOut, error, text);
        case QNetworkReply::SslHandshakeFailedError:
            return Error(Error::Kind::TlsHandshake, error, text);
        case QNetworkReply::ConnectionRefusedError:
        case QNetworkReply::RemoteHostClosedError:
        case QNetworkReply::TemporaryNetworkFailureError:
        case QNetworkReply::NetworkSessionFailedError:
        case QNetworkReply::UnknownNetworkError:
        case QNetworkReply::ProxyConnectionRefusedError:
        case QNetworkReply::ProxyConnectionClosedError:
        case QNetworkReply::ProxyNotFoundError:
        case QNetworkReply::ProxyTimeoutError:
            return Error(Error::Kind::Unreachable, error, text);
        case QNetworkReply::ProtocolUnknownError:
        case QNetworkReply::ProtocolInvalidOperationError:
        case QNetworkReply::ProtocolFailure:
            return Error(Error::Kind::UnusableServer, error, text);
        default:
            return Error(Error::Kind::Other, error, text);
    }
}

Error httpFailure(const QByteArray& verb, int status) {
    return Error(Error::Kind::HttpStatus, status,
                 QStringLiteral("%1 answered %2").arg(QString::fromLatin1(verb)).arg(status));
}

bool isWeak(const QByteArray& etag) {
    return etag.startsWith("W/");
}

void pauseBriefly(int fromMs, int toMs) {
    QThread::msleep(static_cast<unsigned long>(QRandomGenerator::global()->bounded(fromMs, toMs)));
}

}  // namespace

std::optional<std::pair<QString, QString>> netrcCredentials(const QString& netrcPath,
                                                            const QString& host) {
    QFile file(netrcPath);
    if (!file.open(QIODevice::ReadOnly)) return std::nullopt;
    const QList<QByteArray> tokens = file.readAll().simplified().split(' ');
    std::optional<std::pair<QString, QString>> found;
    std::optional<std::pair<QString, QString>> fallback;
    std::optional<std::pair<QString, QString>>* current = nullptr;
    for (qsizetype i = 0; i < tokens.size(); ++i) {
        const QByteArray& token = tokens[i];
        if (token == "machine" && i + 1 < tokens.size()) {
            current = (!found && QString::fromUtf8(tokens[++i]) == host) ? &found : nullptr;
            if (current) *current = std::make_pair(QString(), QString());
        } else if (token == "default") {
            current = fallback ? nullptr : &fallback;
            if (current) *current = std::make_pair(QString(), QString());
        } else if (token == "login" && i + 1 < tokens.size()) {
            if (current) (*current)->first = QString::fromUtf8(tokens[i + 1]);
            ++i;
        } else if (token == "password" && i + 1 < tokens.size()) {
            if (current) (*current)->second = QString::fromUtf8(tokens[i + 1]);
            ++i;
        }
    }
    return found ? found : fallback;
}

WebDavSharedStateTransport::WebDavSharedStateTransport(QUrl url)
    : WebDavSharedStateTransport(std::move(url), Options{}) {}

WebDavSharedStateTransport::WebDavSharedStateTransport(QUrl url, Options options)
    : url_(std::move(url)), options_(std::move(options)) {
    if (options_.netrcPath.isEmpty()) options_.netrcPath = QDir::homePath() + "/.netrc";
}

bool WebDavSharedStateTransport::accountIsAvailable() {
    const QString scheme = url_.scheme();
    return url_.isValid() && !url_.host().isEmpty() &&
           (scheme == QStringLiteral("http") || scheme == QStringLiteral("https"));
}

WebDavSharedStateTransport::Answer WebDavSharedStateTransport::send(
    const QByteArray& verb, const QList<std::pair<QByteArray, QByteArray>>& headers,
    const QByteArray& body) {
    if (!accountIsAvailable()) {
        throw Error(Error::Kind::UnusableServer, 0,
                    QStringLiteral("not an http or https URL: %1").arg(url_.toDisplayString()));
    }
    QNetworkAccessManager manager;
    QNetworkRequest request(url_);
    request.setTransferTimeout(static_cast<int>(options_.requestTimeout.count()));
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                         QNetworkRequest::AlwaysNetwork);
    for (const auto& [name, value] : headers)
        request.setRawHeader(name, value);

    bool untrusted = false;
    bool triedNetrc = false;
    QObject::connect(&manager, &QNetworkAccessManager::authenticationRequired, &manager,
                     [&](QNetworkReply*, QAuthenticator* authenticator) {
                         if (triedNetrc || !url_.userName().isEmpty()) return;
                         triedNetrc = true;
                         auto login = options_.login;
                         if (!login) login = netrcCredentials(options_.netrcPath, url_.host());
                         if (login) {
                             authenticator->setUser(login->first);
                             authenticator->setPassword(login->second);
                         }
                     });
    // HEAD goes through its own call, so that the answer is known to have no body.
    QNetworkReply* reply =
        verb == "HEAD" ? manager.head(request) : manager.sendCustomRequest(request, verb, body);
    QObject::connect(reply, &QNetworkReply::sslErrors, reply, [&](const QList<QSslError>& errors) {
        untrusted = untrusted || std::any_of(errors.begin(), errors.end(), certificateIsUntrusted);
    });
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    if (!reply->isFinished()) loop.exec(QEventLoop::ExcludeUserInputEvents);
    reply->deleteLater();

    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (untrusted) {
        throw Error(Error::Kind::UntrustedCertificate, 0,
                    QStringLiteral("the server's certificate is not trusted"));
    }
    if (!status.isValid()) throw networkFailure(reply->error(), reply->errorString());
    Answer answer;
    answer.status = status.toInt();
    answer.body = reply->readAll();
    answer.etag = reply->rawHeader("ETag");
    answer.lockToken = reply->rawHeader("Lock-Token");
    return answer;
}

void WebDavSharedStateTransport::rememberOwnSave(const QByteArray& etag) {
    if (!etag.isEmpty()) {
        knownTag_->remember(webDavSignature(etag));
        return;
    }
    // Apache gives no tag with its answer to a PUT. Under the lock nobody else
    // can have saved since, so the tag read now is this save's; without a lock it
    // could be another client's, and the watcher signals it rather than miss it.
    if (lockToken_.isEmpty()) return;
    try {
        const Answer answer = send("HEAD", {});
        if (answer.status == 200 && !answer.etag.isEmpty())
            knownTag_->remember(webDavSignature(answer.etag));
    } catch (const Error&) {
        // The watcher then signals this save back once: one needless refresh.
    }
}

void WebDavSharedStateTransport::watchChanges(QObject* context, std::function<void()> onChange) {
    delete watcher_;
    WebDavChangeWatcher::Options watch;
    watch.interval = options_.changeInterval;
    watch.longestInterval = options_.longestChangeInterval;
    watch.requestTimeout = std::min(options_.requestTimeout, std::chrono::milliseconds(10'000));
    watch.netrcPath = options_.netrcPath;
    watch.login = options_.login;
    watcher_ = new WebDavChangeWatcher(url_, knownTag_, watch, std::move(onChange), context);
}

void WebDavSharedStateTransport::beginAttempt() {
    inAttempt_ = true;
    try {
        lockForAttempt();
    } catch (...) {
        inAttempt_ = false;
        throw;
    }
}

void WebDavSharedStateTransport::lockForAttempt() {
    if (lockingUnsupported_) return;
    const auto deadline = Clock::now() + options_.lockWait;
    for (;;) {
        const Answer answer = send("LOCK",
                                   {{"Content-Type", "application/xml; charset=utf-8"},
                                    {"Depth", "0"},
                                    {"Timeout", "Second-60"}},
                                   lockRequestBody);
        if (answer.status == 200 || answer.status == 201) {
            lockToken_ = answer.lockToken.trimmed();
            if (lockToken_.isEmpty()) {
                throw Error(Error::Kind::UnusableServer, answer.status,
                            QStringLiteral("LOCK gave no lock token"));
            }
            return;
        }
        if (answer.status == 405 || answer.status == 501) {
            lockingUnsupported_ = true;
            return;
        }
        if (answer.status != 423) throw httpFailure("LOCK", answer.status);
        if (Clock::now() > deadline) throw SharedStateError(SharedStateError::Kind::CloudConflict);
        pauseBriefly(10, 60);
    }
}

void WebDavSharedStateTransport::endAttempt() noexcept {
    inAttempt_ = false;
    if (lockToken_.isEmpty()) return;
    const QByteArray token = std::exchange(lockToken_, {});
    try {
        send("UNLOCK", {{"Lock-Token", token}});
    } catch (...) {
        // An unreleased lock expires on the server by itself.
    }
}

std::optional<SharedStateRecord> WebDavSharedStateTransport::readRecord() {
    const auto deadline = Clock::now() + options_.strongTagWait;
    for (;;) {
        // The record as last read is asked for again only if it has changed.
        QList<std::pair<QByteArray, QByteArray>> headers;
        if (lastRecord_) headers.append({QByteArray("If-None-Match"), lastRecord_->tag});
        Answer answer = send("GET", headers);
        emptyResourceTag_.clear();
        if (answer.status == 404 || answer.status == 410) {
            lastRecord_.reset();
            knownTag_->remember(webDavAbsentSignature);
            return std::nullopt;
        }
        if (answer.status == 304 && lastRecord_) {
            answer.body = lastRecord_->payload;
            if (answer.etag.isEmpty()) answer.etag = lastRecord_->tag;
        } else if (answer.status != 200) {
            throw httpFailure("GET", answer.status);
        }
        // Only a save without a lock needs a strong tag (a weak one never
        // satisfies If-Match); a plain read takes the weak tag that Apache gives
        // for a second after each write.
        const bool locked = !lockToken_.isEmpty();
        const bool guardsASave = inAttempt_ && !locked;
        if (!locked && (answer.etag.isEmpty() || (guardsASave && isWeak(answer.etag)))) {
            if (Clock::now() > deadline) {
                throw Error(Error::Kind::UnusableServer, answer.status,
                            QStringLiteral("the server gives no strong ETag and no LOCK"));
            }
            pauseBriefly(50, 150);
            continue;
        }
        knownTag_->remember(webDavSignature(answer.etag));
        if (answer.body.isEmpty()) {
            lastRecord_.reset();
            emptyResourceTag_ = answer.etag;
            return std::nullopt;
        }
        lastRecord_ = SharedStateRecord{answer.body, answer.etag};
        return lastRecord_;
    }
}

RecordSharedStateTransport::SaveOutcome WebDavSharedStateTransport::writeRecord(
    const QByteArray& payload, const std::optional<QByteArray>& expectedTag) {
    QList<std::pair<QByteArray, QByteArray>> headers{{"Content-Type", "application/json"}};
    if (!lockToken_.isEmpty()) {
        headers.append(std::make_pair(QByteArray("If"), "(" + lockToken_ + ")"));
    } else if (expectedTag) {
        headers.append(std::make_pair(QByteArray("If-Match"), *expectedTag));
    } else if (!emptyResourceTag_.isEmpty()) {
        headers.append(std::make_pair(QByteArray("If-Match"), emptyResourceTag_));
    } else {
        headers.append(std::make_pair(QByteArray("If-None-Match"), QByteArray("*")));
    }
    struct SavingScope {
        WebDavKnownTag& known;
        ~SavingScope() { known.setSaving(false); }
    } saving{*knownTag_};
    knownTag_->setSaving(true);
    const Answer answer = send("PUT", headers, payload);
    if (answer.status == 200 || answer.status == 201 || answer.status == 204) {
        rememberOwnSave(answer.etag);
        return SaveOutcome::Saved;
    }
    // The record moved, or a lock that ran out was taken by another client.
    if (answer.status == 412 || answer.status == 423) return SaveOutcome::TagMoved;
    throw httpFailure("PUT", answer.status);
}

}  // namespace hl
