// The terminal pages' own scheme and the handler that serves their document.
#include "TerminalDocumentScheme.h"

#include <QBuffer>
#include <QWebEngineUrlRequestJob>
#include <QWebEngineUrlScheme>

namespace hl {

QUrl TerminalDocumentScheme::documentUrl() {
    return QUrl(QStringLiteral("harborlattice://terminal/"));
}

void TerminalDocumentScheme::registerScheme() {
    if (QWebEngineUrlScheme::schemeByName(name).name() == name) return;
    QWebEngineUrlScheme scheme(name);
    scheme.setSyntax(QWebEngineUrlScheme::Syntax::Host);
    scheme.setFlags(QWebEngineUrlScheme::SecureScheme | QWebEngineUrlScheme::LocalScheme);
    QWebEngineUrlScheme::registerScheme(scheme);
}

bool TerminalDocumentScheme::isDocumentUrl(const QUrl& url) {
    // Compared as text, so a query, a fragment, a user or a port is another address.
    return url.toString(QUrl::FullyEncoded) == documentUrl().toString(QUrl::FullyEncoded);
}

std::optional<QString> TerminalDocumentScheme::fileName(const QUrl& url) {
    const QString text = url.toString(QUrl::FullyEncoded);
    const QString prefix = documentUrl().toString(QUrl::FullyEncoded);
    if (!text.startsWith(prefix)) return std::nullopt;
    const QString name = text.mid(prefix.size());
    // One plain name: no folder, query or fragment.
    for (const QChar character : name) {
        if (!character.isLetterOrNumber() && character != '-' && character != '.')
            return std::nullopt;
    }
    if (name.startsWith('.')) return std::nullopt;
    return name;
}

TerminalDocumentSchemeHandler::TerminalDocumentSchemeHandler(
    std::function<std::optional<TerminalDocumentFiles>()> files, QString unavailable,
    QObject* parent)
    : QWebEngineUrlSchemeHandler(parent),
      files_(std::move(files)),
      unavailable_(std::move(unavailable)) {
    holdTimer_.setSingleShot(true);
    holdTimer_.setInterval(holdLimit);
    connect(&holdTimer_, &QTimer::timeout, this, &TerminalDocumentSchemeHandler::releaseDocuments);
}

void TerminalDocumentSchemeHandler::holdDocumentsAfterFirst() {
    if (hold_ == Hold::Off) hold_ = Hold::BeforeFirst;
}

void TerminalDocumentSchemeHandler::releaseDocuments() {
    if (hold_ == Hold::Off || hold_ == Hold::Released) return;
    hold_ = Hold::Released;
    holdTimer_.stop();
    const auto held = std::move(held_);
    held_.clear();
    for (const auto& job : held) {
        if (job) serve(job);
    }
}

std::optional<QByteArray> TerminalDocumentSchemeHandler::contentFor(const QUrl& url) {
    const auto name = TerminalDocumentScheme::fileName(url);
    if (!name) return std::nullopt;
    if (!kept_) kept_ = files_();
    if (!kept_) {
        if (name->isEmpty()) return unavailable_.toUtf8();
        return std::nullopt;
    }
    const auto found = kept_->find(*name);
    if (found == kept_->end()) return std::nullopt;
    return found->second;
}

void TerminalDocumentSchemeHandler::requestStarted(QWebEngineUrlRequestJob* job) {
    if (hold_ == Hold::BeforeFirst || hold_ == Hold::AfterFirst) {
        const auto name = TerminalDocumentScheme::fileName(job->requestUrl());
        if (name && name->isEmpty() && job->requestMethod() == "GET") {
            if (hold_ == Hold::AfterFirst) {
                held_.emplace_back(job);
                return;
            }
            hold_ = Hold::AfterFirst;
            holdTimer_.start();
        }
    }
    serve(job);
}

void TerminalDocumentSchemeHandler::serve(QWebEngineUrlRequestJob* job) {
    if (job->requestMethod() != "GET") {
        job->fail(QWebEngineUrlRequestJob::RequestDenied);
        return;
    }
    const auto content = contentFor(job->requestUrl());
    if (!content) {
        job->fail(QWebEngineUrlRequestJob::UrlNotFound);
        return;
    }
    const bool isScript = job->requestUrl().path().endsWith(QStringLiteral(".js"));
    // The buffer shares the kept bytes and goes with the job.
    auto* body = new QBuffer(job);
    body->setData(*content);
    job->reply(isScript ? QByteArrayLiteral("text/javascript;charset=utf-8")
                        : QByteArrayLiteral("text/html;charset=utf-8"),
               body);
}

}  // namespace hl
