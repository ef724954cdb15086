// XtermCoordinator: the host side of one terminal document. It is the
// controller's TerminalSurface, carries text both ways between the controller
// and the page, and decides when the controller may start: only once the
// document has said "ready", and never inside the update that bound it.
// It drives the page through the small TerminalWebPage seam, so that its logic
// runs against a substitute page in tests and against Qt WebEngine in the app.
#pragma once

#include <QJsonValue>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>

#include <deque>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "TerminalController.h"
#include "TerminalSurface.h"

namespace hl {

// What the coordinator needs of a page: runs `call`, a method of this
// terminal's interface with its arguments (`name(...)`), result dropped.
class TerminalWebPage : public QObject {
    Q_OBJECT
  public:
    using QObject::QObject;
    virtual void call(const QString& call) = 0;
    // Runs `call` and then `done`, once the page has run it (never, when the
    // page is gone). A page that runs calls at once calls `done` at once.
    virtual void callThen(const QString& call, std::function<void()> done) {
        this->call(call);
        done();
    }
    // A call that gives or takes the keyboard ("focus()", "blur()"): keys
    // pressed before it reach the terminal that had the keyboard then, keys
    // pressed after it the one that has it now.
    virtual void moveKeyboard(const QString& call) { this->call(call); }
};

class XtermCoordinator : public TerminalSurface {
    Q_OBJECT
  public:
    // The names of the page's message channels: "loaded" and "keyboardMoved"
    // are the page's own;
    // every other is posted by one terminal, naming its pane.
    static const QStringList scriptMessageHandlerNames;
    // The page shown when the terminal's assets cannot be found: it says so at
    // every pane's place and opens no terminal.
    static const QString assetsUnavailableDocument;

    using DeferStart = std::function<void(std::function<void()>)>;

    // `deferStart` runs a function later on the main thread; empty means the
    // next turn of the event loop.
    explicit XtermCoordinator(TerminalController* controller, DeferStart deferStart = {},
                              QObject* parent = nullptr);

    void setWebPage(TerminalWebPage* page) { page_ = page; }
    TerminalController* controller() const { return controller_.data(); }
    bool isReady() const { return ready_; }
    // Writes that wait for "ready": base64 text and whether it replaces the screen.
    const std::vector<std::pair<QString, bool>>& pending() const { return pending_; }
    // Base64 text the page may be running at once: past it, writes wait here
    // until the page has taken the earlier ones, so that a flood of output
    // never queues up in the page ahead of a key or a focus change.
    static constexpr qsizetype maximumBytesInFlight = 512 * 1024;

    // Takes over `next`: drops what was queued for another controller and
    // becomes `next`'s surface (which repaints it from its history).
    void bind(TerminalController* next);
    // Lets go of the controller and forgets the document's state.
    void detach();
    // A message posted by the page on one of its channels.
    void didReceiveScriptMessage(const QString& name, const QJsonValue& body);
    void terminalDidBecomeReady();

    // Called when the terminal is to take the keyboard, so the host view can
    // take the toolkit's focus too.
    std::function<void()> onFocus;

    // Opens an accepted link; the default uses the desktop's handler.
    std::function<void(const QUrl&)> openExternal;

    // An http or https URL with a host, unchanged; absent for anything else.
    static std::optional<QUrl> safeExternalURL(const QString& text);
    // The text as a JavaScript string literal.
    static QString json(const QString& text);

    // TerminalSurface
    void write(const QString& base64) override { write(base64, false); }
    void replaceWithReplay(const QString& base64) override { write(base64, true); }
    void focus() override;
    void resignFocus() override;
    void search(const QString& text, bool backwards) override;
    void clearSearch() override;

    // Gives the terminal the keyboard even when another field has it: the
    // user asked for it by name.
    void takeKeyboard();
    // Copy and paste with the host's clipboard.
    const QString& selectionText() const { return selectionText_; }
    void paste(const QString& text);
    void selectAll();
    // The link under the pointer, empty when there is none.
    const QString& hoveredLink() const { return hoveredLink_; }
    // Opens a link after the same check as a clicked one.
    void openLink(const QString& text);
    // Applies now and to every later document of this coordinator.
    void setFontSize(int points);
    // The document is gone (its renderer died): forget it until the next "ready".
    void documentWasLost();

    // Whether the terminal may take the keyboard now; empty means always.
    std::function<bool()> mayTakeKeyboard;
    // The selection changed; the host offers it as the primary selection.
    std::function<void(const QString&)> onSelection;
    // A middle click asks for the primary selection to be pasted.
    std::function<void()> onPastePrimary;
    // The pointer is over a link (its target), or has left it (empty).
    std::function<void(const QString&)> onHoverLink;

  private:
    void write(const QString& base64, bool replace);
    void sendWrites();
    // Forgets the writes the page was given: they went with its document.
    void forgetWritesInFlight();
    void requestDeferredStart(TerminalController* target);
    void evaluate(const QString& script);

    QPointer<TerminalController> controller_;
    QPointer<TerminalWebPage> page_;
    bool ready_ = false;
    std::vector<std::pair<QString, bool>> pending_;
    std::deque<std::pair<QString, bool>> unsent_;
    qsizetype bytesInFlight_ = 0;
    // Counts the documents and bindings whose writes are in flight; an answer
    // for an older one is dropped.
    unsigned writeGeneration_ = 0;
    DeferStart deferStart_;
    QPointer<TerminalController> startRequestedFor_;
    QPointer<TerminalController> pendingStartController_;
    bool startIsScheduled_ = false;
    QString selectionText_;
    QString hoveredLink_;
    int fontSize_ = 0;
};

}  // namespace hl
