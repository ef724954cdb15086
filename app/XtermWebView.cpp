// XtermWebView: the WebEngine page, its message-handler bridge and its
// navigation policy.
#include "XtermWebView.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QVBoxLayout>
#include <QWebChannel>
#include <QWebEnginePage>
#include <QWebEngineProfile>
#include <QWebEngineScript>
#include <QWebEngineScriptCollection>
#include <QWebEngineView>

#include "TerminalAssetLocator.h"
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

// A page that loads the document it was given and nothing else.
class DocumentOnlyPage : public QWebEnginePage {
  public:
    using QWebEnginePage::QWebEnginePage;

  protected:
    bool acceptNavigationRequest(const QUrl& url, NavigationType type, bool isMainFrame) override {
        return isMainFrame && url.scheme() == "data" &&
               (type == NavigationTypeTyped || type == NavigationTypeOther);
    }
    QWebEnginePage* createWindow(WebWindowType) override { return nullptr; }
};

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

// One profile for every terminal, kept in memory only.
QWebEngineProfile* terminalProfile() {
    static QWebEngineProfile* profile = new QWebEngineProfile(QCoreApplication::instance());
    return profile;
}

}  // namespace

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
  ["input", "resize", "openLink", "ready"].forEach(function (name) {
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

    auto* page = new DocumentOnlyPage(terminalProfile(), view_);
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

    coordinator_->setWebPage(new EnginePage(page, this));
    coordinator_->onFocus = [this] { view_->setFocus(Qt::OtherFocusReason); };
    coordinator_->bind(controller);
    page->setHtml(document(), QUrl());
}

XtermWebView::~XtermWebView() {
    coordinator_->detach();
}

void XtermWebView::bind(TerminalController* controller) {
    coordinator_->bind(controller);
}

}  // namespace hl

#include "XtermWebView.moc"
