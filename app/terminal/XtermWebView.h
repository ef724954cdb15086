// XtermWebView: the terminal document of one tab. One Qt WebEngine page hosts
// the terminals of every pane of the tab, each at the rectangle its pane view
// gives it; the pane views lie over this view and leave those rectangles open.
// The page's `window.webkit.messageHandlers` reach the host over a web channel
// (posts made before the channel is up wait), each post naming its pane; the
// page loads only the document itself. Every pane's terminal is driven by an
// XtermCoordinator of its own.
#pragma once

#include <QPointer>
#include <QRect>
#include <QUuid>
#include <QWidget>

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <variant>

#include "TerminalDocumentScheme.h"
#include "XtermCoordinator.h"
#include "XtermView.h"

class QMenu;
class QWebEngineProfile;
class QWebEngineView;

namespace hl {

class XtermWebView : public QWidget {
    Q_OBJECT
  public:
    explicit XtermWebView(QWidget* parent = nullptr);
    ~XtermWebView() override;

    // Opens a terminal for `pane`, driven by a coordinator bound to
    // `controller`; opening a pane that is open only binds it again.
    XtermCoordinator* open(const QUuid& pane, TerminalController* controller);
    // Closes the pane's terminal and lets go of its controller.
    void close(const QUuid& pane);
    // The pane's terminal moves to `rect`, in this view's coordinates.
    void place(const QUuid& pane, const QRect& rect);
    XtermCoordinator* coordinator(const QUuid& pane) const;
    // The panes whose terminals are open here.
    QList<QUuid> panes() const;
    // The pane whose terminal lies under `position`, in this view's coordinates.
    std::optional<QUuid> paneAt(QPoint position) const;
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

    // Puts a terminal's selection on the clipboard; false when nothing is selected.
    static bool copySelection(XtermCoordinator& terminal);
    // Pastes the clipboard's text into a terminal as if typed.
    static void pasteClipboard(XtermCoordinator& terminal);
    // The menu shown for a right click at `position` (in this view's coordinates).
    QMenu* contextMenu(QPoint position);

    // The font size of every terminal, in points.
    static int fontSize();
    static void setFontSizeForAll(int points);
    // How every terminal looks and rings, and whether a selection is copied to
    // the clipboard as it is made; pages opened later take it on as they load.
    static void setLookForAll(const XtermLook& look, bool copyOnSelect);
    static const XtermLook& look();
    static constexpr int defaultFontSize = 13;

    // Gives the pane's terminal the keyboard ("focus") or takes it ("blur").
    // The page makes the move once the keys sent before it have reached their
    // terminal; keys pressed from now on wait here until the page has made
    // it, and then follow in order.
    void moveKeyboard(const QUuid& pane, const QString& operation);
    // How long keys wait for a page that does not answer.
    static constexpr int keyboardMoveTimeout = 3000;

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    struct Terminal {
        QPointer<XtermCoordinator> coordinator;
        QRect rect;
        bool opened = false;
    };

    void loadDocument();
    void documentDidLoad();
    void documentWasLost();
    // A message the page posted: "loaded", or one naming its pane.
    void receive(const QString& name, const QJsonValue& message);
    // Sends the opens and placements made since the last send, in one script.
    void scheduleSend();
    void send();
    void watchKeys();
    void releaseKeys();
    void keyboardDidMove(unsigned move);

    QWebEngineView* view_;
    std::map<QUuid, Terminal> terminals_;
    bool loaded_ = false;
    bool sendIsScheduled_ = false;
    std::map<QUuid, QRect> unsentPlacements_;
    // Keys held while a move of the keyboard is with the page, and the moves
    // asked for meanwhile, in the order they came.
    std::deque<std::variant<std::unique_ptr<QEvent>, QString>> keyGate_;
    bool keyboardMoveInFlight_ = false;
    bool releasingKeys_ = false;
    unsigned keyboardMoves_ = 0;
    // Key presses and releases sent to the page since it loaded.
    qint64 keyEventsSent_ = 0;
    QPointer<QWidget> keyTarget_;
};

// The script run at document creation that defines the page's message handlers.
QString messageHandlerBridgeScript();

}  // namespace hl
