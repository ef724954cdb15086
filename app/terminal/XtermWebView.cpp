// XtermWebView: the WebEngine page, its message-handler bridge and its
// navigation policy.
#include "XtermWebView.h"

#include <QAbstractSpinBox>
#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QCursor>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLineEdit>
#include <QMenu>
#include <QPlainTextEdit>
#include <QTextEdit>
#include <QTimer>
#include <QToolTip>
#include <QVBoxLayout>
#include <QWebChannel>
#include <QWebEnginePage>
#include <QWebEngineProfile>
#include <QWebEngineScript>
#include <QWebEngineScriptCollection>
#include <QWebEngineView>

#include "PreviousShellMenu.h"
#include "TerminalAssetLocator.h"
#include "TerminalDocumentScheme.h"
#include "XtermView.h"

namespace hl {

namespace {

// Receives the page's posts and hands them to the view.
class ScriptBridge : public QObject {
    Q_OBJECT
  public:
    using Receive = std::function<void(const QString&, const QJsonValue&)>;
    ScriptBridge(Receive receive, QObject* parent)
        : QObject(parent), receive_(std::move(receive)) {}

    // `body` is a JSON array holding the posted value.
    Q_INVOKABLE void post(const QString& name, const QString& body) {
        const QJsonDocument document = QJsonDocument::fromJson(body.toUtf8());
        if (!document.isArray() || document.array().isEmpty()) return;
        receive_(name, document.array().at(0));
    }

  private:
    Receive receive_;
};

// A page that loads the terminal document at its own address and nothing else.
class DocumentOnlyPage : public QWebEnginePage {
  public:
    using QWebEnginePage::QWebEnginePage;

  protected:
    bool acceptNavigationRequest(const QUrl& url, NavigationType type, bool isMainFrame) override {
        return isMainFrame && TerminalDocumentScheme::isDocumentUrl(url) &&
               (type == NavigationTypeTyped || type == NavigationTypeOther);
    }
    QWebEnginePage* createWindow(WebWindowType) override { return nullptr; }
    // The page never shows a dialog of its own.
    void javaScriptAlert(const QUrl&, const QString&) override {}
    bool javaScriptConfirm(const QUrl&, const QString&) override { return false; }
    bool javaScriptPrompt(const QUrl&, const QString&, const QString&, QString*) override {
        return false;
    }
};

int currentFontSize = XtermWebView::defaultFontSize;
XtermLook currentLook;
bool copiesOnSelect = false;

// True when the keyboard is in a field the user types in, outside every terminal.
bool anotherFieldHasKeyboard() {
    QWidget* focus = QApplication::focusWidget();
    if (!focus) return false;
    for (QWidget* each = focus; each; each = each->parentWidget()) {
        if (qobject_cast<XtermWebView*>(each)) return false;
    }
    return qobject_cast<QLineEdit*>(focus) || qobject_cast<QTextEdit*>(focus) ||
           qobject_cast<QPlainTextEdit*>(focus) || qobject_cast<QAbstractSpinBox*>(focus) ||
           qobject_cast<QComboBox*>(focus);
}

}  // namespace

// One terminal's part of the page.
class PaneTerminalPage : public TerminalWebPage {
  public:
    PaneTerminalPage(XtermWebView* view, const QUuid& pane, QObject* parent)
        : TerminalWebPage(parent),
          view_(view),
          pane_(pane),
          receiver_("window.harborlattice.terminal(\"" + pane.toString(QUuid::WithoutBraces) +
                    "\")?.") {}
    void call(const QString& call) override {
        if (view_) view_->webView()->page()->runJavaScript(receiver_ + call);
    }
    void callThen(const QString& call, std::function<void()> done) override {
        if (view_) {
            view_->webView()->page()->runJavaScript(
                receiver_ + call, [done = std::move(done)](const QVariant&) { done(); });
        }
    }
    void moveKeyboard(const QString& call) override {
        if (view_) view_->moveKeyboard(pane_, call.section('(', 0, 0));
    }

  private:
    QPointer<XtermWebView> view_;
    QUuid pane_;
    QString receiver_;
};

namespace {

QString rectLiteral(const QRect& rect) {
    return QStringLiteral("{left: %1, top: %2, width: %3, height: %4}")
        .arg(rect.x())
        .arg(rect.y())
        .arg(std::max(0, rect.width()))
        .arg(std::max(0, rect.height()));
}

QString paneLiteral(const QUuid& pane) {
    return "\"" + pane.toString(QUuid::WithoutBraces) + "\"";
}

}  // namespace

TerminalDocumentSchemeHandler* XtermWebView::documentHandler() {
    static QPointer<TerminalDocumentSchemeHandler> handler = [] {
        auto* made = new TerminalDocumentSchemeHandler(&XtermWebView::documentFiles,
                                                       XtermCoordinator::assetsUnavailableDocument,
                                                       QApplication::instance());
        made->holdDocumentsAfterFirst();
        return made;
    }();
    return handler;
}

QWebEngineProfile* XtermWebView::profile() {
    static QWebEngineProfile* profile = [] {
        auto* made = new QWebEngineProfile(QApplication::instance());
        made->installUrlSchemeHandler(TerminalDocumentScheme::name, documentHandler());
        return made;
    }();
    return profile;
}

std::optional<TerminalDocumentFiles> XtermWebView::documentFiles() {
    try {
        const TerminalAssetLocator locator;
        TerminalDocumentFiles files;
        for (const std::string_view name : XtermView::scriptAssets) {
            files[QString::fromUtf8(name.data(), static_cast<qsizetype>(name.size()))] =
                QByteArray::fromStdString(locator.contents(name));
        }
        files[QString()] =
            QByteArray::fromStdString(XtermView::htmlNamingScripts(locator.contents("xterm.css")));
        return files;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

QString messageHandlerBridgeScript() {
    QFile channelScript(":/qtwebchannel/qwebchannel.js");
    QString script;
    if (channelScript.open(QIODevice::ReadOnly))
        script = QString::fromUtf8(channelScript.readAll());
    script +=
        QStringLiteral(R"JS(
;(function () {
  var queue = [];
  var bridge = null;
  function send(name, body) {
    bridge.post(name, JSON.stringify([body === undefined ? null : body]));
  }
  function post(name, body) {
    if (bridge) { send(name, body); } else { queue.push([name, body]); }
  }
  var handlers = {};
  %1.forEach(function (name) {
    handlers[name] = { postMessage: function (body) { post(name, body); } };
  });
  window.webkit = { messageHandlers: handlers };
  function connect() {
    if (typeof qt === "undefined" || !qt.webChannelTransport) { setTimeout(connect, 5); return; }
    new QWebChannel(qt.webChannelTransport, function (channel) {
      bridge = channel.objects.harborlatticeBridge;
      var waiting = queue;
      queue = [];
      waiting.forEach(function (message) { send(message[0], message[1]); });
    });
  }
  connect();
})();
)JS")
            .arg(QString::fromUtf8(QJsonDocument(QJsonArray::fromStringList(
                                                     XtermCoordinator::scriptMessageHandlerNames))
                                       .toJson(QJsonDocument::Compact)));
    return script;
}

QString XtermWebView::document() {
    try {
        const TerminalAssetLocator locator;
        const std::string js = locator.contents("xterm.js");
        const std::string fit = locator.contents("addon-fit.js");
        const std::string links = locator.contents("addon-web-links.js");
        const std::string search = locator.contents("addon-search.js");
        const std::string unicode = locator.contents("addon-unicode11.js");
        const std::string css = locator.contents("xterm.css");
        return QString::fromStdString(XtermView::html(js, fit, links, search, unicode, css));
    } catch (const std::exception&) {
        return XtermCoordinator::assetsUnavailableDocument;
    }
}

XtermWebView::XtermWebView(QWidget* parent) : QWidget(parent), view_(new QWebEngineView(this)) {
    setObjectName("terminal.document");
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(view_);

    auto* page = new DocumentOnlyPage(profile(), view_);
    page->setBackgroundColor(Qt::transparent);
    QWebEngineScript bridge;
    bridge.setName("harborlattice-message-handlers");
    bridge.setInjectionPoint(QWebEngineScript::DocumentCreation);
    bridge.setWorldId(QWebEngineScript::MainWorld);
    bridge.setRunsOnSubFrames(false);
    bridge.setSourceCode(messageHandlerBridgeScript());
    page->scripts().insert(bridge);
    auto* channel = new QWebChannel(page);
    QPointer<XtermWebView> self(this);
    channel->registerObject("harborlatticeBridge",
                            new ScriptBridge(
                                [self](const QString& name, const QJsonValue& message) {
                                    if (self) self->receive(name, message);
                                },
                                channel));
    page->setWebChannel(channel);
    view_->setPage(page);
    // Once a page has loaded, the renderer holds the scripts every later page shares.
    connect(page, &QWebEnginePage::loadFinished, documentHandler(),
            &TerminalDocumentSchemeHandler::releaseDocuments);
    // A renderer that dies takes the document with it: load it again, and
    // every controller repaints its terminal from its history.
    connect(page, &QWebEnginePage::renderProcessTerminated, this,
            [this](QWebEnginePage::RenderProcessTerminationStatus status) {
                if (status == QWebEnginePage::NormalTerminationStatus) return;
                documentWasLost();
                QTimer::singleShot(0, this, &XtermWebView::loadDocument);
            });

    view_->installEventFilter(this);
    watchKeys();
    view_->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(view_, &QWidget::customContextMenuRequested, this, [this](QPoint position) {
        QMenu* menu = contextMenu(view_->mapTo(this, position));
        if (!menu) return;
        menu->setAttribute(Qt::WA_DeleteOnClose);
        menu->popup(view_->mapToGlobal(position));
    });
    loadDocument();
}

XtermWebView::~XtermWebView() {
    // The page goes after this object's own part: it must not report back.
    view_->page()->disconnect(this);
    for (auto& [pane, terminal] : terminals_) {
        if (terminal.coordinator) terminal.coordinator->detach();
    }
}

void XtermWebView::loadDocument() {
    view_->page()->load(TerminalDocumentScheme::documentUrl());
}

XtermCoordinator* XtermWebView::open(const QUuid& pane, TerminalController* controller) {
    Terminal& terminal = terminals_[pane];
    if (terminal.coordinator) {
        terminal.coordinator->bind(controller);
        return terminal.coordinator;
    }
    auto* coordinator = new XtermCoordinator(controller, {}, this);
    terminal.coordinator = coordinator;
    coordinator->setWebPage(new PaneTerminalPage(this, pane, coordinator));
    coordinator->onFocus = [this] { view_->setFocus(Qt::OtherFocusReason); };
    coordinator->mayTakeKeyboard = [] { return !anotherFieldHasKeyboard(); };
    coordinator->onSelection = [](const QString& text) {
        QClipboard* clipboard = QGuiApplication::clipboard();
        if (clipboard->supportsSelection()) clipboard->setText(text, QClipboard::Selection);
    };
    QPointer<XtermCoordinator> guarded(coordinator);
    coordinator->onPastePrimary = [guarded] {
        QClipboard* clipboard = QGuiApplication::clipboard();
        if (guarded && clipboard->supportsSelection())
            guarded->paste(clipboard->text(QClipboard::Selection));
    };
    // Where a link goes shows beside the pointer while it is over the link.
    coordinator->onHoverLink = [this](const QString& link) {
        if (link.isEmpty()) {
            QToolTip::hideText();
        } else {
            QToolTip::showText(QCursor::pos(), link, view_);
        }
    };
    if (currentFontSize != defaultFontSize) coordinator->setFontSize(currentFontSize);
    coordinator->bind(controller);
    scheduleSend();
    return coordinator;
}

void XtermWebView::close(const QUuid& pane) {
    const auto found = terminals_.find(pane);
    if (found == terminals_.end()) return;
    if (XtermCoordinator* coordinator = found->second.coordinator) {
        coordinator->detach();
        coordinator->deleteLater();
    }
    const bool opened = found->second.opened;
    terminals_.erase(found);
    unsentPlacements_.erase(pane);
    if (loaded_ && opened)
        view_->page()->runJavaScript("window.harborlattice.close(" + paneLiteral(pane) + ")");
}

void XtermWebView::place(const QUuid& pane, const QRect& rect) {
    const auto found = terminals_.find(pane);
    if (found == terminals_.end() || found->second.rect == rect) return;
    found->second.rect = rect;
    unsentPlacements_[pane] = rect;
    scheduleSend();
}

XtermCoordinator* XtermWebView::coordinator(const QUuid& pane) const {
    const auto found = terminals_.find(pane);
    return found == terminals_.end() ? nullptr : found->second.coordinator.data();
}

QList<QUuid> XtermWebView::panes() const {
    QList<QUuid> open;
    for (const auto& [pane, terminal] : terminals_)
        open << pane;
    return open;
}

std::optional<QUuid> XtermWebView::paneAt(QPoint position) const {
    for (const auto& [pane, terminal] : terminals_) {
        if (terminal.rect.contains(position)) return pane;
    }
    return std::nullopt;
}

void XtermWebView::scheduleSend() {
    if (sendIsScheduled_ || !loaded_) return;
    sendIsScheduled_ = true;
    QTimer::singleShot(0, this, &XtermWebView::send);
}

void XtermWebView::send() {
    sendIsScheduled_ = false;
    if (!loaded_) return;
    QString script;
    for (auto& [pane, terminal] : terminals_) {
        if (terminal.opened) continue;
        terminal.opened = true;
        unsentPlacements_.erase(pane);
        script += "window.harborlattice.open(" + paneLiteral(pane) + ", " +
                  rectLiteral(terminal.rect) + ");\n";
    }
    for (const auto& [pane, rect] : unsentPlacements_) {
        script +=
            "window.harborlattice.place(" + paneLiteral(pane) + ", " + rectLiteral(rect) + ");\n";
    }
    unsentPlacements_.clear();
    if (!script.isEmpty()) view_->page()->runJavaScript(script);
}

void XtermWebView::documentDidLoad() {
    loaded_ = true;
    if (currentLook != XtermLook{})
        view_->page()->runJavaScript(QString::fromStdString("window.harborlattice.setOptions(" +
                                                            currentLook.script() + ")"));
    keyEventsSent_ = 0;
    for (auto& [pane, terminal] : terminals_)
        terminal.opened = false;
    unsentPlacements_.clear();
    send();
}

void XtermWebView::documentWasLost() {
    loaded_ = false;
    keyboardMoveInFlight_ = false;
    for (auto& [pane, terminal] : terminals_) {
        terminal.opened = false;
        if (terminal.coordinator) terminal.coordinator->documentWasLost();
    }
}

void XtermWebView::receive(const QString& name, const QJsonValue& message) {
    if (name == "loaded") {
        documentDidLoad();
        return;
    }
    if (name == "keyboardMoved") {
        keyboardDidMove(static_cast<unsigned>(message.toInteger()));
        return;
    }
    const QJsonObject object = message.toObject();
    const QUuid pane = QUuid::fromString(object.value("pane").toString());
    if (pane.isNull()) return;
    XtermCoordinator* target = coordinator(pane);
    if (!target) return;
    target->didReceiveScriptMessage(name, object.value("body"));
    if (name == "bell" && currentLook.bell == "sound") QApplication::beep();
    if (name == "selection" && copiesOnSelect && !target->selectionText().isEmpty())
        QGuiApplication::clipboard()->setText(target->selectionText(), QClipboard::Clipboard);
}

bool XtermWebView::copySelection(XtermCoordinator& terminal) {
    const QString& text = terminal.selectionText();
    if (text.isEmpty()) return false;
    QGuiApplication::clipboard()->setText(text, QClipboard::Clipboard);
    return true;
}

void XtermWebView::pasteClipboard(XtermCoordinator& terminal) {
    terminal.paste(QGuiApplication::clipboard()->text(QClipboard::Clipboard));
}

QMenu* XtermWebView::contextMenu(QPoint position) {
    const auto pane = paneAt(position);
    QPointer<XtermCoordinator> terminal = pane ? coordinator(*pane) : nullptr;
    if (!terminal) return nullptr;
    auto* menu = new QMenu(this);
    menu->setObjectName("terminal.menu");
    QAction* copy = menu->addAction(QStringLiteral("Copy"), this, [terminal] {
        if (terminal) copySelection(*terminal);
    });
    copy->setEnabled(!terminal->selectionText().isEmpty());
    menu->addAction(QStringLiteral("Paste"), this, [terminal] {
        if (terminal) pasteClipboard(*terminal);
    });
    menu->addAction(QStringLiteral("Select All"), this, [terminal] {
        if (terminal) terminal->selectAll();
    });
    menu->addSeparator();
    menu->addAction(QStringLiteral("Find…"), this, [this] {
        // The window's own Find command, which knows where the field is.
        if (auto* find = window()->findChild<QAction*>(QStringLiteral("edit.find")))
            find->trigger();
    });
    const QString link = terminal->hoveredLink();
    if (!link.isEmpty() && XtermCoordinator::safeExternalURL(link)) {
        menu->addSeparator();
        menu->addAction(QStringLiteral("Open Link"), this, [terminal, link] {
            if (terminal) terminal->openLink(link);
        });
        menu->addAction(QStringLiteral("Copy Link Address"), this, [link] {
            QGuiApplication::clipboard()->setText(link, QClipboard::Clipboard);
        });
    }
    if (TerminalController* controller = terminal->controller())
        addPreviousShellActions(*menu, *controller);
    return menu;
}

void XtermWebView::moveKeyboard(const QUuid& pane, const QString& operation) {
    keyGate_.emplace_back(paneLiteral(pane) + ", \"" + operation + "\")");
    releaseKeys();
}

bool XtermWebView::eventFilter(QObject* watched, QEvent* event) {
    if (watched == view_ && event->type() == QEvent::ChildAdded) {
        // The view's focus proxy, which takes the keys, comes with the page.
        QTimer::singleShot(0, this, &XtermWebView::watchKeys);
        return QWidget::eventFilter(watched, event);
    }
    // Only the keys on their way to the page: not those it hands back unused.
    if (watched != keyTarget_ ||
        (event->type() != QEvent::KeyPress && event->type() != QEvent::KeyRelease))
        return QWidget::eventFilter(watched, event);
    if (!releasingKeys_ && (keyboardMoveInFlight_ || !keyGate_.empty())) {
        keyGate_.emplace_back(std::unique_ptr<QEvent>(event->clone()));
        return true;
    }
    ++keyEventsSent_;
    return QWidget::eventFilter(watched, event);
}

void XtermWebView::watchKeys() {
    QWidget* proxy = view_->focusProxy();
    if (!proxy || proxy == keyTarget_) return;
    if (keyTarget_) keyTarget_->removeEventFilter(this);
    keyTarget_ = proxy;
    proxy->installEventFilter(this);
}

void XtermWebView::releaseKeys() {
    while (!keyboardMoveInFlight_ && !keyGate_.empty()) {
        auto next = std::move(keyGate_.front());
        keyGate_.pop_front();
        if (auto* key = std::get_if<std::unique_ptr<QEvent>>(&next)) {
            QWidget* target = view_->focusProxy() ? view_->focusProxy() : view_;
            releasingKeys_ = true;
            QCoreApplication::sendEvent(target, key->get());
            releasingKeys_ = false;
            continue;
        }
        if (!loaded_) continue;
        // The page makes the move once the keys sent before it have reached
        // their terminal; keys pressed after it wait until it says so.
        keyboardMoveInFlight_ = true;
        const unsigned move = ++keyboardMoves_;
        view_->page()->runJavaScript(QStringLiteral("window.harborlattice.moveKeyboard(%1, %2, ")
                                         .arg(move)
                                         .arg(keyEventsSent_) +
                                     std::get<QString>(next));
        // A page that never answers (its renderer is gone) keeps no key.
        QPointer<XtermWebView> self(this);
        QTimer::singleShot(keyboardMoveTimeout, this, [self, move] {
            if (self) self->keyboardDidMove(move);
        });
    }
}

void XtermWebView::keyboardDidMove(unsigned move) {
    if (!keyboardMoveInFlight_ || keyboardMoves_ != move) return;
    keyboardMoveInFlight_ = false;
    releaseKeys();
}

int XtermWebView::fontSize() {
    return currentFontSize;
}

const XtermLook& XtermWebView::look() {
    return currentLook;
}

void XtermWebView::setLookForAll(const XtermLook& look, bool copyOnSelect) {
    copiesOnSelect = copyOnSelect;
    if (look == currentLook) return;
    currentLook = look;
    const QString script =
        QString::fromStdString("window.harborlattice.setOptions(" + look.script() + ")");
    for (QWidget* widget : QApplication::allWidgets()) {
        auto* view = qobject_cast<XtermWebView*>(widget);
        if (view && view->loaded_) view->view_->page()->runJavaScript(script);
    }
}

void XtermWebView::setFontSizeForAll(int points) {
    currentFontSize = points;
    for (QWidget* widget : QApplication::allWidgets()) {
        auto* view = qobject_cast<XtermWebView*>(widget);
        if (!view) continue;
        for (auto& [pane, terminal] : view->terminals_) {
            if (terminal.coordinator) terminal.coordinator->setFontSize(points);
        }
    }
}

}  // namespace hl

#include "XtermWebView.moc"
