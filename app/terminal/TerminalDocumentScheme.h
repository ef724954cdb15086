// TerminalDocumentScheme: the one origin every terminal page comes from. The
// scheme "harborlattice" is registered before the QApplication exists; its
// handler, installed on the terminal profile, answers the document's own
// address, `documentUrl`, with the terminal document, and the addresses of
// the scripts the document names beside it, all held in memory; anything
// else (another path, host or query, another method) gets no content. Pages
// of one origin share one renderer process, which loads the scripts once for
// all of them; and the short address keeps the document's text out of each
// page's navigation entries (a data: address carries all of it in each).
#pragma once

#include <QByteArray>
#include <QPointer>
#include <QString>
#include <QTimer>
#include <QUrl>
#include <QWebEngineUrlRequestJob>
#include <QWebEngineUrlSchemeHandler>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <vector>

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

// The file an address of the scheme names: "" for the document, else the name
// after the document's address ("xterm.js"); absent for any other address.
std::optional<QString> fileName(const QUrl& url);

}  // namespace TerminalDocumentScheme

// What the scheme serves, by file name ("" is the document).
using TerminalDocumentFiles = std::map<QString, QByteArray>;

// Answers the scheme's requests from memory. `files` is asked on the first
// request and what it gives kept for every later page; when it has nothing
// (an asset could not be read), the document is `unavailable` and is asked
// for again next time.
//
// Pages that load side by side each fetch and decode their own copy of the
// scripts: the renderer shares a script between pages only once one page has
// loaded it completely. After `holdDocumentsAfterFirst`, the documents asked
// for after the first wait until `releaseDocuments` (the first page has
// loaded) or `holdLimit`, and then all find the scripts in the renderer.
class TerminalDocumentSchemeHandler : public QWebEngineUrlSchemeHandler {
    Q_OBJECT
  public:
    static constexpr std::chrono::milliseconds holdLimit{2000};

    TerminalDocumentSchemeHandler(std::function<std::optional<TerminalDocumentFiles>()> files,
                                  QString unavailable, QObject* parent = nullptr);

    // The body served for a GET of `url`, absent when there is none.
    std::optional<QByteArray> contentFor(const QUrl& url);

    void holdDocumentsAfterFirst();
    // Serves every document held back, and holds none from now on.
    void releaseDocuments();

    void requestStarted(QWebEngineUrlRequestJob* job) override;

  private:
    void serve(QWebEngineUrlRequestJob* job);

    std::function<std::optional<TerminalDocumentFiles>()> files_;
    QString unavailable_;
    std::optional<TerminalDocumentFiles> kept_;
    enum class Hold { Off, BeforeFirst, AfterFirst, Released };
    Hold hold_ = Hold::Off;
    // A page closed meanwhile takes its request with it.
    std::vector<QPointer<QWebEngineUrlRequestJob>> held_;
    QTimer holdTimer_;
};

}  // namespace hl
