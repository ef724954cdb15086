// XtermWebView: the terminal renderer widget. It hosts the terminal document in
// Qt WebEngine, gives the page `window.webkit.messageHandlers` over a web
// channel (queueing posts made before the channel is up), loads only the
// document itself, and lets an XtermCoordinator drive it.
#pragma once

#include <QWidget>

#include <memory>
#include <optional>

#include "TerminalDocumentScheme.h"
#include "XtermCoordinator.h"

class QMenu;
class QWebEngineProfile;
class QWebEngineView;

namespace hl {

class XtermWebView : public QWidget {
    Q_OBJECT
  public:
    explicit XtermWebView(TerminalController* controller, QWidget* parent = nullptr);
    ~XtermWebView() override;

    // Hands this view to another controller.
    void bind(TerminalController* controller);
    XtermCoordinator& coordinator() { return *coordinator_; }
    QWebEngineView* webView() const { return view_; }

    // The composed document, or the one-line page shown when assets are missing.
    static QString document();
    // The in-memory profile of every terminal page, whose scheme serves the document.
    static QWebEngineProfile* profile();
    // That scheme's handler.
    static TerminalDocumentSchemeHandler* documentHandler();
    // What that scheme serves: the document naming its scripts, and the
    // scripts; absent when an asset cannot be read.
    static std::optional<TerminalDocumentFiles> documentFiles();

    // Puts the selection on the clipboard; false when nothing is selected.
    bool copySelection();
    // Pastes the clipboard's text as if typed.
    void pasteClipboard();
    // The menu shown for a right click at `position` (in this view's coordinates).
    QMenu* contextMenu(QPoint position);

    // The font size of every terminal, in points.
    static int fontSize();
    static void setFontSizeForAll(int points);
    static constexpr int defaultFontSize = 13;

  private:
    void loadDocument();

    QWebEngineView* view_;
    XtermCoordinator* coordinator_;
};

// The script run at document creation that defines the page's message handlers.
QString messageHandlerBridgeScript();

}  // namespace hl
