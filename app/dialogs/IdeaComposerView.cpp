// The idea composer sheet.
#include "IdeaComposerView.h"

#include <QApplication>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QStackedWidget>
#include <QVBoxLayout>

#include "FileManagerReveal.h"
#include "IdeaComposerRules.h"
#include "SymbolIcon.h"

namespace hl {

namespace {

const QColor failureRed(0xd7, 0x30, 0x2a);
const QColor confirmedGreen(0x2e, 0x9d, 0x4b);

QLabel* wrapped(const QString& text, QWidget* parent, const char* name = nullptr) {
    auto* label = new QLabel(text, parent);
    label->setWordWrap(true);
    if (name) label->setObjectName(name);
    return label;
}

QLabel* symbol(const QString& name, QWidget* parent, QColor color = QColor(), int size = 16) {
    auto* label = new QLabel(parent);
    label->setPixmap(symbolPixmap(name, size, color));
    label->setFixedSize(size, size);
    return label;
}

QFont scaled(QFont font, double factor, bool bold) {
    font.setPointSizeF(font.pointSizeF() * factor);
    font.setBold(bold);
    return font;
}

// The modifiers held with Return, by their meaning (Qt swaps Control and
// Command on macOS); Caps Lock is not a modifier to Qt.
unsigned returnModifiers(Qt::KeyboardModifiers held) {
    using S = IdeaComposerShortcut;
#ifdef Q_OS_MACOS
    const Qt::KeyboardModifier control = Qt::MetaModifier, command = Qt::ControlModifier;
#else
    const Qt::KeyboardModifier control = Qt::ControlModifier, command = Qt::MetaModifier;
#endif
    unsigned modifiers = 0;
    if (held & control) modifiers |= S::control;
    if (held & command) modifiers |= S::command;
    if (held & Qt::ShiftModifier) modifiers |= S::shift;
    if (held & Qt::AltModifier) modifiers |= S::option;
    return modifiers;
}

}  // namespace

QString IdeaComposerView::failureText() {
    return QStringLiteral("The idea could not be queued safely.");
}

IdeaComposerView::IdeaComposerView(std::function<void()> dismiss, QWidget* parent)
    : QWidget(parent), dismiss_(std::move(dismiss)) {
    setObjectName("ideas.composer");
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 18, 20, 18);
    pages_ = new QStackedWidget(this);
    pages_->addWidget(buildEditor());
    pages_->addWidget(buildConfirmation());
    layout->addWidget(pages_);
    refresh();
}

QWidget* IdeaComposerView::buildEditor() {
    auto* page = new QWidget(this);
    auto* column = new QVBoxLayout(page);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(10);

    auto* header = new QHBoxLayout();
    auto* titles = new QVBoxLayout();
    titles->setSpacing(2);
    auto* title = new QLabel(QStringLiteral("Share an idea"), page);
    title->setObjectName("ideas.title");
    title->setFont(scaled(title->font(), 1.4, true));
    titles->addWidget(title);
    auto* subtitle = wrapped(
        QStringLiteral("Capture an improvement thought without leaving your workspace."), page);
    subtitle->setForegroundRole(QPalette::PlaceholderText);
    titles->addWidget(subtitle);
    header->addLayout(titles, 1);
    auto* close = new QPushButton(QStringLiteral("Close"), page);
    close->setObjectName("ideas.close");
    close->setAutoDefault(false);
    connect(close, &QPushButton::clicked, this, [this] { dismiss_(); });
    header->addWidget(close, 0, Qt::AlignTop);
    column->addLayout(header);

    auto* fieldLine = new QHBoxLayout();
    auto* label = new QLabel(QStringLiteral("Improvement idea"), page);
    label->setFont(scaled(label->font(), 1.0, true));
    fieldLine->addWidget(label, 1);
    counter_ = new QLabel(page);
    counter_->setObjectName("ideas.counter");
    counter_->setForegroundRole(QPalette::PlaceholderText);
    counter_->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    counter_->setMinimumWidth(counter_->fontMetrics().horizontalAdvance(
        ideaByteCounter(QString(int(IdeaInboxStore::maximumIdeaBytes) * 10, 'x'))));
    fieldLine->addWidget(counter_);
    column->addLayout(fieldLine);
    field_ = new QPlainTextEdit(page);
    field_->setObjectName("ideas.field");
    field_->setAccessibleName(QStringLiteral("Improvement idea"));
    // Tab is text here, as in Qt's editors; Control+Tab moves on.
    field_->setTabChangesFocus(false);
    field_->setMinimumHeight(150);
    field_->installEventFilter(this);
    connect(field_, &QPlainTextEdit::textChanged, this, &IdeaComposerView::refresh);
    label->setBuddy(field_);
    column->addWidget(field_, 1);

    auto* privacy = wrapped(
        QStringLiteral("The only captured user content is the text you type here. Terminal "
                       "output, commands, project paths, clipboard contents, and screenshots are "
                       "not collected."),
        page, "ideas.privacy");
    privacy->setForegroundRole(QPalette::PlaceholderText);
    column->addWidget(privacy);
    auto* consentLine = new QHBoxLayout();
    consentLine->setSpacing(8);
    consentLine->addWidget(symbol("hand.raised", page), 0, Qt::AlignTop);
    auto* consent = wrapped(
        QStringLiteral("Choosing Queue for agent review gives future local agent director "
                       "sessions permission to claim and read this report. It does not start an "
                       "agent or change source code automatically."),
        page, "ideas.consent");
    consentLine->addWidget(consent, 1);
    column->addLayout(consentLine);

    failureRow_ = new QWidget(page);
    failureRow_->setObjectName("ideas.failure");
    auto* failureLine = new QHBoxLayout(failureRow_);
    failureLine->setContentsMargins(0, 0, 0, 0);
    failureLine->setSpacing(8);
    failureLine->addWidget(symbol("exclamationmark.triangle.fill", failureRow_, failureRed), 0,
                           Qt::AlignTop);
    failureLabel_ = wrapped(QString(), failureRow_, "ideas.failureText");
    QPalette red = failureLabel_->palette();
    red.setColor(QPalette::WindowText, failureRed);
    failureLabel_->setPalette(red);
    failureLine->addWidget(failureLabel_, 1);
    column->addWidget(failureRow_);

    auto* buttons = new QHBoxLayout();
    buttons->addStretch(1);
    queue_ = new QPushButton(QStringLiteral("Queue for agent review"), page);
    queue_->setObjectName("ideas.queue");
    queue_->setDefault(true);
    connect(queue_, &QPushButton::clicked, this, &IdeaComposerView::save);
    buttons->addWidget(queue_);
    column->addLayout(buttons);
    return page;
}

QWidget* IdeaComposerView::buildConfirmation() {
    auto* page = new QWidget(this);
    auto* column = new QVBoxLayout(page);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(10);
    auto* header = new QHBoxLayout();
    header->setSpacing(10);
    header->addWidget(symbol("checkmark.circle.fill", page, confirmedGreen, 24));
    auto* title = new QLabel(QStringLiteral("Idea queued"), page);
    title->setObjectName("ideas.queuedTitle");
    title->setFont(scaled(title->font(), 1.4, true));
    header->addWidget(title, 1);
    column->addLayout(header);
    reference_ = new QLabel(page);
    reference_->setObjectName("ideas.reference");
    reference_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    column->addWidget(reference_);
    column->addWidget(wrapped(QStringLiteral("Queued locally for a future agent director session. "
                                             "Processing does not run in the background."),
                              page));
    column->addStretch(1);
    auto* buttons = new QHBoxLayout();
    buttons->addStretch(1);
    auto* reveal = new QPushButton(showInFileManagerTitle(), page);
    reveal->setObjectName("ideas.reveal");
    reveal->setAutoDefault(false);
    connect(reveal, &QPushButton::clicked, this, [this] {
        if (saved_) revealInFileManager(saved_->reportURL);
    });
    auto* done = new QPushButton(QStringLiteral("Done"), page);
    done->setObjectName("ideas.done");
    done->setDefault(true);
    connect(done, &QPushButton::clicked, this, [this] { dismiss_(); });
    buttons->addWidget(reveal);
    buttons->addWidget(done);
    column->addLayout(buttons);
    return page;
}

QString IdeaComposerView::idea() const {
    return field_->toPlainText();
}

bool IdeaComposerView::ideaFocused() const {
    return field_->hasFocus();
}

void IdeaComposerView::refresh() {
    const QString text = idea();
    counter_->setText(ideaByteCounter(text));
    queue_->setEnabled(canQueueIdea(text));
    failureLabel_->setText(failure_.value_or(QString()));
    failureRow_->setVisible(failure_.has_value());
    if (saved_) {
        reference_->setText("Reference " + saved_->id.toString(QUuid::WithoutBraces).toUpper());
        pages_->setCurrentIndex(1);
    }
}

void IdeaComposerView::save() {
    try {
        saved_ = IdeaInboxStore::save(idea());
        failure_.reset();
    } catch (const IdeaInboxStore::SaveError& error) {
        failure_ = failureText() + " " + QString::fromStdString(error.what());
    } catch (const std::filesystem::filesystem_error& error) {
        failure_ = failureText() + " " +
                   QStringLiteral("The folder %1 could not be made (%2).")
                       .arg(QString::fromStdString(error.path1().string()),
                            QString::fromStdString(error.code().message()));
    } catch (...) {
        failure_ = failureText();
    }
    refresh();
}

bool IdeaComposerView::eventFilter(QObject* watched, QEvent* event) {
    if (watched == field_ && event->type() == QEvent::KeyPress) {
        auto* key = static_cast<QKeyEvent*>(event);
        // Tab is text in the field; Control+Tab (with Shift, backwards) moves on.
        const bool tab = key->key() == Qt::Key_Tab || key->key() == Qt::Key_Backtab;
        if (tab && (key->modifiers() & Qt::ControlModifier)) {
            const bool back =
                key->key() == Qt::Key_Backtab || (key->modifiers() & Qt::ShiftModifier);
            focusNextPrevChild(!back);
            return true;
        }
        if (key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter) {
            const auto result = IdeaComposerShortcut::handleReturn(
                returnModifiers(key->modifiers()), canQueueIdea(idea()), [this] { save(); });
            if (result == IdeaComposerShortcut::Result::handled) return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}

QDialog* presentIdeaComposerSheet(QWidget* parent, std::function<void()> dismiss) {
    auto* sheet = new QDialog(parent);
    sheet->setObjectName("ideas.sheet");
    sheet->setWindowTitle(QStringLiteral("Share an idea"));
    sheet->setWindowModality(Qt::WindowModal);
    sheet->setAttribute(Qt::WA_DeleteOnClose);
    sheet->setMinimumSize(520, 460);
    auto* layout = new QVBoxLayout(sheet);
    layout->setContentsMargins(0, 0, 0, 0);
    QPointer<QDialog> guard(sheet);
    auto* view = new IdeaComposerView(
        [guard] {
            if (guard) guard->close();
        },
        sheet);
    layout->addWidget(view);
    QObject::connect(sheet, &QDialog::finished, sheet,
                     [dismiss = std::move(dismiss)] { dismiss(); });
    sheet->open();
    view->findChild<QPlainTextEdit*>("ideas.field")->setFocus();
    return sheet;
}

}  // namespace hl
