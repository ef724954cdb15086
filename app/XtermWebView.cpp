// XtermWebView: the WebEngine page, its message-handler bridge and its
// navigation policy.
#include "XtermWebView.h"

#include <QAbstractSpinBox>
#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLineEdit>
#include <QMenu>
#include <QPlainTextEdit>
#include <QTextEdit>
#include <QTimer>
#include <QVBoxLayout>
#include <QWebChannel>
#include <QWebEnginePage>
#include <QWebEngineProfile>
#include <QWebEngineScript>
#include <QWebEngineScriptCollection>
#include <QWebEngineView>

#include "TerminalAssetLocator.h"
#include "TerminalDocumentScheme.h"
#include "XtermView.h"

namespace hl {

namespace {

// Receives the page's posts and hands them to the coordinator.
class ScriptBridge : public QObject {
    Q_OBJECT
  public:
    explicit ScriptBridge(XtermCoordinator* coordinator, QObject* parent)
        : QObject(parent), coordinator_(coordinator) {}

    // `body` is a JSON array holding the posted value.
    Q_INVOKABLE void post(const QString& name, const QString& body) {
        const QJsonDocument document = QJsonDocument::fromJson(body.toUtf8());
        if (!document.isArray() || document.array().isEmpty() || !coordinator_) return;
        coordinator_->didReceiveScriptMessage(name, document.array().at(0));
    }

  private:
    QPointer<XtermCoordinator> coordinator_;
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

// The coordinator's view of the page.
class EnginePage : public TerminalWebPage {
  public:
    EnginePage(QWebEnginePage* page, QObject* parent) : TerminalWebPage(parent), page_(page) {}
    void evaluate(const QString& script) override {
        if (page_) page_->runJavaScript(script);
    }

  private:
    QPointer<QWebEnginePage> page_;
};

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
    script += QStringLiteral(R"JS(
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
  ["input", "resize", "openLink", "ready", "title", "bell", "selection", "pastePrimary", "link",
   "searchResults"].forEach(function (name) {
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
)JS");
    return script;
}

QString XtermWebView::document() {
    try {
        const TerminalAssetLocator locator;
        const std::string js = locator.contents("xterm.js");
        const std::string fit = locator.contents("addon-fit.js");
        const std::string links = locator.contents("addon-web-links.js");
        const std::string search = locator.contents("addon-search.js");
        const std::string css = locator.contents("xterm.css");
        return QString::fromStdString(XtermView::html(js, fit, links, search, css));
    } catch (const std::exception&) {
        return XtermCoordinator::assetsUnavailableDocument;
    }
}

XtermWebView::XtermWebView(TerminalController* controller, QWidget* parent)
    : QWidget(parent),
      view_(new QWebEngineView(this)),
      coordinator_(new XtermCoordinator(controller, {}, this)) {
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
    channel->registerObject("harborlatticeBridge", new ScriptBridge(coordinator_, channel));
    page->setWebChannel(channel);
    view_->setPage(page);
    // Once a page has loaded, the renderer holds the scripts every later page shares.
    connect(page, &QWebEnginePage::loadFinished, documentHandler(),
            &TerminalDocumentSchemeHandler::releaseDocuments);
    // A renderer that dies takes the document with it: load it again, and
    // the controller repaints it from its history.
    connect(page, &QWebEnginePage::renderProcessTerminated, this,
            [this](QWebEnginePage::RenderProcessTerminationStatus status) {
                if (status == QWebEnginePage::NormalTerminationStatus) return;
                coordinator_->documentWasLost();
                QTimer::singleShot(0, this, &XtermWebView::loadDocument);
            });

    view_->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(view_, &QWidget::customContextMenuRequested, this, [this](QPoint position) {
        QMenu* menu = contextMenu(position);
        menu->setAttribute(Qt::WA_DeleteOnClose);
        menu->popup(view_->mapToGlobal(position));
    });

    coordinator_->setWebPage(new EnginePage(page, this));
    coordinator_->onFocus = [this] { view_->setFocus(Qt::OtherFocusReason); };
    coordinator_->mayTakeKeyboard = [] { return !anotherFieldHasKeyboard(); };
    coordinator_->onSelection = [](const QString& text) {
        QClipboard* clipboard = QGuiApplication::clipboard();
        if (clipboard->supportsSelection()) clipboard->setText(text, QClipboard::Selection);
    };
    coordinator_->onPastePrimary = [this] {
        QClipboard* clipboard = QGuiApplication::clipboard();
        if (clipboard->supportsSelection())
            coordinator_->paste(clipboard->text(QClipboard::Selection));
    };
    if (currentFontSize != defaultFontSize) coordinator_->setFontSize(currentFontSize);
    coordinator_->bind(controller);
    loadDocument();
}

void XtermWebView::loadDocument() {
    view_->page()->load(TerminalDocumentScheme::documentUrl());
}

bool XtermWebView::copySelection() {
    const QString& text = coordinator_->selectionText();
    if (text.isEmpty()) return false;
    QGuiApplication::clipboard()->setText(text, QClipboard::Clipboard);
    return true;
}

void XtermWebView::pasteClipboard() {
    coordinator_->paste(QGuiApplication::clipboard()->text(QClipboard::Clipboard));
}

QMenu* XtermWebView::contextMenu(QPoint) {
    auto* menu = new QMenu(this);
    menu->setObjectName("terminal.menu");
    QAction* copy = menu->addAction(QStringLiteral("Copy"), this, [this] { copySelection(); });
    copy->setEnabled(!coordinator_->selectionText().isEmpty());
    menu->addAction(QStringLiteral("Paste"), this, [this] { pasteClipboard(); });
    menu->addAction(QStringLiteral("Select All"), this, [this] { coordinator_->selectAll(); });
    menu->addSeparator();
    menu->addAction(QStringLiteral("Find…"), this, [this] {
        // The window's own Find command, which knows where the field is.
        if (auto* find = window()->findChild<QAction*>(QStringLiteral("edit.find")))
            find->trigger();
    });
    const QString link = coordinator_->hoveredLink();
    if (!link.isEmpty() && XtermCoordinator::safeExternalURL(link)) {
        menu->addSeparator();
        menu->addAction(QStringLiteral("Open Link"), this,
                        [this, link] { coordinator_->openLink(link); });
    }
    return menu;
}

int XtermWebView::fontSize() {
    return currentFontSize;
}

void XtermWebView::setFontSizeForAll(int points) {
    currentFontSize = points;
    for (QWidget* widget : QApplication::allWidgets()) {
        if (auto* view = qobject_cast<XtermWebView*>(widget))
            view->coordinator().setFontSize(points);
    }
}

XtermWebView::~XtermWebView() {
    // The page goes after this object's own part: it must not report back.
    view_->page()->disconnect(this);
    coordinator_->detach();
}

void XtermWebView::bind(TerminalController* controller) {
    coordinator_->bind(controller);
}

}  // namespace hl

#include "XtermWebView.moc"
