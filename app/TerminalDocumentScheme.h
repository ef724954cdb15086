// TerminalDocumentScheme: the one origin every terminal page comes from. The
// scheme "harborlattice" is registered before the QApplication exists; its
// handler, installed on the terminal profile, answers exactly one address,
// `documentUrl`, with the composed terminal document held in memory, and
// nothing else: any other path, host or method gets no content. Pages of one
// origin can share one renderer process, and the short address keeps the
// document's text out of each page's navigation entries (a data: address
// carries the whole document in every one of them).
#pragma once

#include <QByteArray>
#include <QUrl>
#include <QWebEngineUrlSchemeHandler>

#include <functional>
#include <optional>

namespace hl {

namespace TerminalDocumentScheme {

inline constexpr char name[] = "harborlattice";

// "harborlattice://terminal/": where every terminal page loads its document.
QUrl documentUrl();

// Declares the scheme to the web engine: a secure, local scheme with a host,
// so that other schemes cannot load it and it reaches nothing local. Must run
// before the QApplication is built; runs once however often it is called.
void registerScheme();

// True for the document's own address and nothing else.
bool isDocumentUrl(const QUrl& url);

}  // namespace TerminalDocumentScheme

// Answers the scheme's requests from memory. `document` is asked on the first
// request and its text kept for every later page (the page that says the
// assets are missing is asked for again).
class TerminalDocumentSchemeHandler : public QWebEngineUrlSchemeHandler {
    Q_OBJECT
  public:
    explicit TerminalDocumentSchemeHandler(std::function<QString()> document,
                                           QObject* parent = nullptr);

    // The body served for a GET of `url`: the document for its own address,
    // absent for anything else.
    std::optional<QByteArray> contentFor(const QUrl& url);

    void requestStarted(QWebEngineUrlRequestJob* job) override;

  private:
    std::function<QString()> document_;
    std::optional<QByteArray> composed_;
};

}  // namespace hl
