// One pane: renderer, status line and the selection stroke.
#include "TerminalPaneView.h"

#include <QApplication>
#include <QFileInfo>
#include <QFontDatabase>
#include <QHBoxLayout>
#include <QLabel>
#include <QMouseEvent>
#include <QPainter>
#include <QTimer>
#include <QVBoxLayout>

#include "ElidedLabel.h"

#include "XtermWebView.h"

namespace hl {

// The 7-point connection dot.
class StatusDot : public QWidget {
  public:
    explicit StatusDot(QWidget* parent) : QWidget(parent) { setFixedSize(7, 7); }
    void setConnected(bool connected) {
        connected_ = connected;
        update();
    }

  protected:
    void paintEvent(QPaintEvent*) override {
        QPainter p(this);
        p.setRenderHint(QPainter::Antialiasing);
        p.setPen(Qt::NoPen);
        p.setBrush(connected_ ? QColor(0x34, 0xc7, 0x59) : QColor(0xff, 0x95, 0x00));
        p.drawEllipse(rect());
    }

  private:
    bool connected_ = false;
};

TerminalPaneView::TerminalPaneView(TerminalPane* pane, XtermWebView* document,
                                   std::function<void()> onSelect, QWidget* parent)
    : QWidget(parent),
      pane_(pane),
      controller_(&pane->controller()),
      document_(document),
      onSelect_(std::move(onSelect)) {
    setObjectName("pane." + pane->id().toString(QUuid::WithoutBraces));
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(1, 1, 1, 1);
    column->setSpacing(0);

    terminal_ = new QWidget(this);
    terminal_->setObjectName("pane.terminal");
    terminal_->setAttribute(Qt::WA_TransparentForMouseEvents);
    document_->open(pane->id(), controller_);
    column->addWidget(terminal_, 1);

    statusLine_ = new QWidget(this);
    statusLine_->setObjectName("pane.statusLine");
    statusLine_->setFixedHeight(24);
    statusLine_->setAutoFillBackground(true);
    auto* row = new QHBoxLayout(statusLine_);
    row->setContentsMargins(8, 0, 8, 0);
    row->setSpacing(6);
    QFont caption = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    caption.setPointSizeF(std::max(7.0, QApplication::font().pointSizeF() - 1));
    dot_ = new StatusDot(statusLine_);
    status_ = new QLabel(statusLine_);
    status_->setObjectName("pane.status");
    status_->setFont(caption);
    cwd_ = new ElidedLabel(statusLine_);
    cwd_->setObjectName("pane.cwd");
    cwd_->setFont(caption);
    cwd_->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    cwd_->setFullText(pane->context().cwd);
    row->addWidget(dot_);
    row->addWidget(status_);
    row->addStretch(1);
    row->addWidget(cwd_, 1);
    column->addWidget(statusLine_);

    connect(controller_, &TerminalController::statusChanged, this,
            &TerminalPaneView::refreshStatus);
    connect(controller_, &TerminalController::isConnectedChanged, this,
            &TerminalPaneView::refreshStatus);
    // The renderer's own widgets take the clicks and keys; the pane hears of
    // them here, before they are delivered.
    qApp->installEventFilter(this);
    connect(controller_, &TerminalController::bellRang, this, &TerminalPaneView::flashForBell);
    connect(controller_, &TerminalController::shellDirectoryChanged, this,
            &TerminalPaneView::refreshDirectory);
    refreshStatus();
    refreshDirectory();
    setSelected(false);
}

// The layout view closes the terminal when it lets the pane go.
TerminalPaneView::~TerminalPaneView() = default;

void TerminalPaneView::placeTerminal() {
    const QRect place = terminal_->geometry();
    setMask(QRegion(rect()) - QRegion(place));
    if (document_ && pane_)
        document_->place(
            pane_->id(),
            QRect(document_->mapFrom(parentWidget(), pos()) + place.topLeft(), place.size()));
}

void TerminalPaneView::moveEvent(QMoveEvent* event) {
    QWidget::moveEvent(event);
    placeTerminal();
}

void TerminalPaneView::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    placeTerminal();
}

void TerminalPaneView::setSelected(bool selected) {
    selected_ = selected;
    QPalette palette = statusLine_->palette();
    QColor background = QApplication::palette().color(QPalette::Button);
    if (selected) {
        background = QApplication::palette().color(QPalette::Highlight);
        background.setAlphaF(0.18);
    }
    palette.setColor(QPalette::Window, background);
    statusLine_->setPalette(palette);
    update();
}

// The status line turns the bell's colour for a moment.
void TerminalPaneView::flashForBell() {
    QPalette palette = statusLine_->palette();
    palette.setColor(QPalette::Window, QColor(0xff, 0x95, 0x00, 0x90));
    statusLine_->setPalette(palette);
    QTimer::singleShot(250, this, [this] { setSelected(selected_); });
}

// The footer shows where the shell is now, and says so when it has left the
// pane's folder (the folder itself and everything below it count as inside):
// such a shell is not taken up again after a restart.
void TerminalPaneView::refreshDirectory() {
    if (!controller_ || !pane_) return;
    const QString folder = pane_->context().cwd;
    const QString shell = controller_->shellDirectory();
    const bool outside = !shell.isEmpty() && !isInsideFolder(shell, folder);
    cwd_->setFullText(shell.isEmpty() ? folder : outside ? shell + shellOutsideFolderNote : shell);
    if (outside)
        cwd_->setToolTip(cwd_->fullText() + QStringLiteral("\nThe pane's folder: ") + folder);
    cwd_->setForegroundRole(outside ? QPalette::Link : QPalette::WindowText);
}

bool TerminalPaneView::isInsideFolder(const QString& directory, const QString& folder) {
    const auto within = [](const QString& path, QString root) {
        while (root.size() > 1 && root.endsWith('/'))
            root.chop(1);
        return path == root || path.startsWith(root == "/" ? root : root + '/');
    };
    if (within(directory, folder)) return true;
    // The node reports the directory with its links resolved.
    const QString resolved = QFileInfo(folder).canonicalFilePath();
    return !resolved.isEmpty() && within(directory, resolved);
}

void TerminalPaneView::refreshStatus() {
    if (!controller_) return;
    dot_->setConnected(controller_->isConnected());
    status_->setText(controller_->status());
}

namespace {

// The filter sees every object of the process, among them the web engine's own
// items, which are built without run-time type information: the undefined
// behaviour checker cannot read their type and would stop the process here.
#if defined(__clang__) || defined(__GNUC__)
__attribute__((no_sanitize("vptr")))
#endif
QWidget*
widgetOrNull(QObject* object) {
    return object->isWidgetType() ? static_cast<QWidget*>(object) : nullptr;
}

}  // namespace

bool TerminalPaneView::eventFilter(QObject* watched, QEvent* event) {
    const QEvent::Type type = event->type();
    if (watched == terminal_ && (type == QEvent::Resize || type == QEvent::Move)) {
        placeTerminal();
        return false;
    }
    if (type != QEvent::MouseButtonPress && type != QEvent::KeyPress) return false;
    QWidget* widget = widgetOrNull(watched);
    // The document's widgets take the clicks on every terminal of the tab:
    // a press counts for this pane where it lands on this pane's terminal.
    if (type == QEvent::MouseButtonPress && widget != nullptr && document_ &&
        (widget == document_ || document_->isAncestorOf(widget))) {
        const QPoint global = static_cast<QMouseEvent*>(event)->globalPosition().toPoint();
        if (!selected_ && pane_ &&
            document_->paneAt(document_->mapFromGlobal(global)) == pane_->id() && onSelect_)
            onSelect_();
        return false;
    }
    // A key counts only where the keyboard is: keys sent on to a view that does
    // not have it (a command forwarded by the window) are not the user's choice.
    if (type == QEvent::KeyPress && widget != nullptr && !widget->hasFocus()) return false;
    if (!selected_ && widget != nullptr && isAncestorOf(widget) && onSelect_) onSelect_();
    return false;
}

void TerminalPaneView::mousePressEvent(QMouseEvent* event) {
    QWidget::mousePressEvent(event);
    if (onSelect_) onSelect_();
}

void TerminalPaneView::paintEvent(QPaintEvent*) {
    QPainter p(this);
    QColor stroke = QApplication::palette().color(QPalette::Highlight);
    if (!selected_) {
        stroke = QApplication::palette().color(QPalette::WindowText);
        stroke.setAlphaF(0.25);
    }
    p.setPen(stroke);
    p.drawRect(rect().adjusted(0, 0, -1, -1));
}

}  // namespace hl
