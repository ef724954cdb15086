// The terminal pages' own scheme and the handler that serves their document.
#include "TerminalDocumentScheme.h"

#include <QBuffer>
#include <QWebEngineUrlRequestJob>
#include <QWebEngineUrlScheme>

#include "XtermCoordinator.h"

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

TerminalDocumentSchemeHandler::TerminalDocumentSchemeHandler(std::function<QString()> document,
                                                             QObject* parent)
    : QWebEngineUrlSchemeHandler(parent), document_(std::move(document)) {}

std::optional<QByteArray> TerminalDocumentSchemeHandler::contentFor(const QUrl& url) {
    if (!TerminalDocumentScheme::isDocumentUrl(url)) return std::nullopt;
    if (composed_) return composed_;
    const QString text = document_();
    // The page for missing assets is not kept: the next page looks for them again.
    if (text == XtermCoordinator::assetsUnavailableDocument) return text.toUtf8();
    composed_ = text.toUtf8();
    return composed_;
}

void TerminalDocumentSchemeHandler::requestStarted(QWebEngineUrlRequestJob* job) {
    if (job->requestMethod() != "GET") {
        job->fail(QWebEngineUrlRequestJob::RequestDenied);
        return;
    }
    const auto content = contentFor(job->requestUrl());
    if (!content) {
        job->fail(QWebEngineUrlRequestJob::UrlNotFound);
        return;
    }
    // The buffer shares the kept text and goes with the job.
    auto* body = new QBuffer(job);
    body->setData(*content);
    job->reply(QByteArrayLiteral("text/html;charset=utf-8"), body);
}

}  // namespace hl
