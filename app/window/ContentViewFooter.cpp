// The foot of the sidebar — "Check for Updates…" and "Share idea" — and the
// idea sheet that the second one opens.
#include <QApplication>
#include <QDialog>
#include <QFrame>
#include <QPushButton>
#include <QVBoxLayout>

#include "AppUpdater.h"
#include "CheckForUpdatesButton.h"
#include "ContentView.h"
#include "IdeaComposerView.h"
#include "SymbolIcon.h"

namespace hl {

namespace {

// A borderless button in caption font, drawn in the palette's link colour.
void styleAsLink(QPushButton* button) {
    button->setFlat(true);
    button->setCursor(Qt::PointingHandCursor);
    QFont caption = QApplication::font();
    caption.setPointSizeF(std::max(7.0, caption.pointSizeF() - 1.5));
    button->setFont(caption);
    button->setStyleSheet(QStringLiteral(
        "QPushButton { border: none; padding: 6px 12px; text-align: left; color: palette(link); }"
        "QPushButton:disabled { color: palette(placeholder-text); }"));
}

QFrame* divider(QWidget* parent) {
    auto* line = new QFrame(parent);
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Sunken);
    return line;
}

}  // namespace

QWidget* ContentView::buildSidebarFooter(QWidget* parent) {
    auto* footer = new QWidget(parent);
    footer->setObjectName("sidebar.footer");
    auto* column = new QVBoxLayout(footer);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    column->addWidget(divider(footer));
    auto* check = new CheckForUpdatesButton(updater_, footer);
    styleAsLink(check);
    column->addWidget(check);
    column->addWidget(divider(footer));
    auto* share = new QPushButton(QStringLiteral("Share idea"), footer);
    share->setObjectName("ideas.share");
    share->setIcon(symbolIcon("lightbulb", QApplication::palette().color(QPalette::Link)));
    share->setToolTip(
        QStringLiteral("Queue an improvement idea for a future local agent director session"));
    styleAsLink(share);
    connect(share, &QPushButton::clicked, this, [this] { setIdeaComposerVisible(true); });
    column->addWidget(share);
    return footer;
}

void ContentView::setSyncPieces(QWidget* section, QWidget* statusRow) {
    auto* footer = findChild<QWidget*>(QStringLiteral("sidebar.footer"));
    auto* column = footer ? qobject_cast<QVBoxLayout*>(footer->parentWidget()->layout()) : nullptr;
    if (column) column->insertWidget(column->indexOf(footer), statusRow);
    syncSection_ = section;
    rebuildSidebarList();
}

void ContentView::setIdeaComposerVisible(bool visible) {
    if (visible == ideaComposerVisible_) return;
    ideaComposerVisible_ = visible;
    if (visible) {
        ideaComposerSheet_ =
            presentIdeaComposerSheet(this, [this] { setIdeaComposerVisible(false); });
    } else if (ideaComposerSheet_) {
        ideaComposerSheet_->close();
    }
}

}  // namespace hl
