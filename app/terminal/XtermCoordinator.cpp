// XtermCoordinator: binding, the queue of writes before "ready", the deferred
// start, script messages and the link check.
#include "XtermCoordinator.h"

#include <QDesktopServices>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

#include <cmath>

namespace hl {

const QStringList XtermCoordinator::scriptMessageHandlerNames = {
    "loaded", "keyboardMoved", "input",     "resize",       "openLink", "ready",
    "title",  "bell",          "selection", "pastePrimary", "link",     "searchResults"};

// It says so at every pane's place, and opens no terminal: no pane says
// "ready", so no shell is started for a page that cannot show it.
const QString XtermCoordinator::assetsUnavailableDocument = QStringLiteral(R"HTML(<!doctype html>
<html><body style="margin:0;background:#10131a;color:#ff7b72;font:13px monospace"><script>
(() => {
  const places = new Map();
  function put(element, rect) {
    Object.assign(element.style, { position: 'absolute', overflow: 'hidden', padding: '4px',
      boxSizing: 'border-box', left: `${rect.left}px`, top: `${rect.top}px`,
      width: `${rect.width}px`, height: `${rect.height}px` });
  }
  window.harborlattice = {
    open(id, rect) {
      if (places.has(id)) return;
      const element = document.createElement('div');
      element.textContent = 'Terminal assets unavailable.';
      put(element, rect);
      places.set(id, element);
      document.body.append(element);
    },
    place(id, rect) { if (places.has(id)) put(places.get(id), rect); },
    close(id) { places.get(id)?.remove(); places.delete(id); },
    terminal() { return undefined; },
  };
  window.webkit?.messageHandlers?.loaded?.postMessage('');
})();
</script></body></html>)HTML");

namespace {

// An integer member of a message body; absent when missing, fractional or not a number.
std::optional<int> integerMember(const QJsonObject& body, const char* key) {
    const QJsonValue value = body.value(key);
    if (!value.isDouble()) return std::nullopt;
    const double number = value.toDouble();
    if (std::floor(number) != number || std::abs(number) > 1e9) return std::nullopt;
    return static_cast<int>(number);
}

}  // namespace

XtermCoordinator::XtermCoordinator(TerminalController* controller, DeferStart deferStart,
                                   QObject* parent)
    : TerminalSurface(parent), controller_(controller), deferStart_(std::move(deferStart)) {
    if (!deferStart_) {
        deferStart_ = [this](std::function<void()> work) {
            QTimer::singleShot(0, this, std::move(work));
        };
    }
    openExternal = [](const QUrl& url) { QDesktopServices::openUrl(url); };
}

void XtermCoordinator::bind(TerminalController* next) {
    if (controller_.data() != next) {
        if (controller_ && controller_->surface() == this) controller_->setSurface(nullptr);
        controller_ = next;
        pending_.clear();
        unsent_.clear();
        startRequestedFor_ = nullptr;
    }
    if (next && next->surface() != this) next->setSurface(this);
    if (ready_ && next) requestDeferredStart(next);
}

void XtermCoordinator::detach() {
    if (controller_ && controller_->surface() == this) controller_->setSurface(nullptr);
    controller_ = nullptr;
    pending_.clear();
    forgetWritesInFlight();
    ready_ = false;
    startRequestedFor_ = nullptr;
    pendingStartController_ = nullptr;
}

void XtermCoordinator::requestDeferredStart(TerminalController* target) {
    if (startRequestedFor_ && startRequestedFor_.data() == target) return;
    startRequestedFor_ = target;
    pendingStartController_ = target;
    if (startIsScheduled_) return;
    startIsScheduled_ = true;
    QPointer<XtermCoordinator> self(this);
    deferStart_([self] {
        if (!self) return;
        self->startIsScheduled_ = false;
        TerminalController* target = self->pendingStartController_.data();
        self->pendingStartController_ = nullptr;
        if (self->ready_ && target && target == self->controller_.data()) target->start();
    });
}

void XtermCoordinator::terminalDidBecomeReady() {
    ready_ = true;
    auto queued = std::move(pending_);
    pending_.clear();
    for (const auto& [base64, replace] : queued)
        write(base64, replace);
    if (controller_) requestDeferredStart(controller_.data());
    // A focus asked for while the page was loading takes effect now.
    if (controller_ && controller_->wantsFocus()) focus();
    if (fontSize_ > 0) setFontSize(fontSize_);
}

void XtermCoordinator::documentWasLost() {
    ready_ = false;
    pending_.clear();
    forgetWritesInFlight();
    selectionText_.clear();
    hoveredLink_.clear();
    startRequestedFor_ = nullptr;
    pendingStartController_ = nullptr;
    // Rebinding repaints the next document from the controller's history.
    if (auto* controller = controller_.data()) {
        if (controller->surface() == this) controller->setSurface(nullptr);
        controller->setSurface(this);
        controller->terminalSurfaceDidReload();
    }
}

void XtermCoordinator::write(const QString& base64, bool replace) {
    if (!ready_) {
        pending_.emplace_back(base64, replace);
        return;
    }
    // A replay holds all the output before it.
    if (replace) unsent_.clear();
    unsent_.emplace_back(base64, replace);
    sendWrites();
}

void XtermCoordinator::sendWrites() {
    if (!page_) return;
    while (!unsent_.empty() &&
           (bytesInFlight_ == 0 ||
            bytesInFlight_ + unsent_.front().first.size() <= maximumBytesInFlight)) {
        auto [base64, replace] = std::move(unsent_.front());
        unsent_.pop_front();
        const qsizetype size = base64.size();
        bytesInFlight_ += size;
        QPointer<XtermCoordinator> self(this);
        const unsigned generation = writeGeneration_;
        page_->callThen("writeBase64(" + json(base64) + ", " + (replace ? "true" : "false") + ")",
                        [self, generation, size] {
                            if (!self || self->writeGeneration_ != generation) return;
                            self->bytesInFlight_ -= size;
                            self->sendWrites();
                        });
    }
}

void XtermCoordinator::forgetWritesInFlight() {
    unsent_.clear();
    bytesInFlight_ = 0;
    ++writeGeneration_;
}

// Focus, blur and search are not queued: before "ready" they do nothing.
// The keyboard is never taken from a field the user is typing in.
void XtermCoordinator::focus() {
    if (mayTakeKeyboard && !mayTakeKeyboard()) return;
    takeKeyboard();
}

void XtermCoordinator::takeKeyboard() {
    if (onFocus) onFocus();
    if (ready_ && page_) page_->moveKeyboard("focus()");
}

void XtermCoordinator::clearSearch() {
    if (ready_) evaluate("clearSearch()");
}

void XtermCoordinator::paste(const QString& text) {
    if (ready_ && !text.isEmpty()) evaluate("paste(" + json(text) + ")");
}

void XtermCoordinator::selectAll() {
    if (ready_) evaluate("selectAll()");
}

void XtermCoordinator::openLink(const QString& text) {
    if (auto url = safeExternalURL(text)) openExternal(*url);
}

void XtermCoordinator::setFontSize(int points) {
    fontSize_ = points;
    if (ready_) evaluate("setFontSize(" + QString::number(points) + ")");
}

void XtermCoordinator::resignFocus() {
    if (ready_ && page_) page_->moveKeyboard("blur()");
}

void XtermCoordinator::search(const QString& text, bool backwards) {
    if (!ready_) return;
    evaluate("search(" + json(text) + ", " + (backwards ? "true" : "false") + ")");
}

void XtermCoordinator::evaluate(const QString& script) {
    if (page_) page_->call(script);
}

void XtermCoordinator::didReceiveScriptMessage(const QString& name, const QJsonValue& body) {
    if (name == "input") {
        if (body.isString() && controller_)
            controller_->terminalSurfaceDidReceiveInput(body.toString());
    } else if (name == "resize") {
        if (!body.isObject()) return;
        const auto columns = integerMember(body.toObject(), "cols");
        const auto rows = integerMember(body.toObject(), "rows");
        if (columns && rows && controller_) controller_->terminalSurfaceDidResize(*columns, *rows);
    } else if (name == "openLink") {
        if (body.isString()) openLink(body.toString());
    } else if (name == "ready") {
        terminalDidBecomeReady();
    } else if (name == "title") {
        if (body.isString() && controller_)
            controller_->terminalSurfaceDidChangeTitle(body.toString());
    } else if (name == "bell") {
        if (controller_) controller_->terminalSurfaceDidRingBell();
    } else if (name == "selection") {
        if (!body.isString()) return;
        selectionText_ = body.toString();
        if (onSelection && !selectionText_.isEmpty()) onSelection(selectionText_);
    } else if (name == "pastePrimary") {
        if (onPastePrimary) onPastePrimary();
    } else if (name == "link") {
        if (!body.isString()) return;
        hoveredLink_ = body.toString();
        if (onHoverLink) onHoverLink(hoveredLink_);
    } else if (name == "searchResults") {
        if (!body.isObject()) return;
        const auto count = integerMember(body.toObject(), "count");
        const auto index = integerMember(body.toObject(), "index");
        if (count && index && controller_)
            controller_->terminalSurfaceDidFindMatches(*count, *index);
    }
}

std::optional<QUrl> XtermCoordinator::safeExternalURL(const QString& text) {
    const QUrl url(text, QUrl::StrictMode);
    if (!url.isValid() || url.scheme().isEmpty()) return std::nullopt;
    const QString scheme = url.scheme().toLower();
    if (scheme != "http" && scheme != "https") return std::nullopt;
    if (url.host().isEmpty()) return std::nullopt;
    return url;
}

QString XtermCoordinator::json(const QString& text) {
    const QByteArray encoded = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    const QString literal = QString::fromUtf8(encoded);
    if (literal.size() < 2) return QStringLiteral("\"\"");
    return literal.mid(1, literal.size() - 2);
}

}  // namespace hl
