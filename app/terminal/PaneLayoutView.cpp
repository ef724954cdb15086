// Placement of panes and dividers, and the divider drag.
#include "PaneLayoutView.h"

#include <QApplication>
#include <QMouseEvent>
#include <QPainter>

#include "TerminalPaneView.h"
#include "XtermWebView.h"

namespace hl {

SplitDivider::SplitDivider(const QUuid& splitID, SplitAxis axis, QWidget* parent)
    : QWidget(parent), splitID_(splitID), axis_(axis) {
    setObjectName("split.divider." + splitID.toString(QUuid::WithoutBraces));
    setToolTip(QStringLiteral("Drag to resize this split"));
    setAxis(axis);
}

void SplitDivider::setAxis(SplitAxis axis) {
    axis_ = axis;
    setCursor(axis == SplitAxis::Horizontal ? Qt::SplitHCursor : Qt::SplitVCursor);
}

double SplitDivider::translation(const QPointF& globalPosition) const {
    const QPointF moved = globalPosition - pressedAt_.value_or(globalPosition);
    return axis_ == SplitAxis::Horizontal ? moved.x() : moved.y();
}

void SplitDivider::paintEvent(QPaintEvent*) {
    QPainter p(this);
    QColor fill = QApplication::palette().color(QPalette::WindowText);
    fill.setAlphaF(0.35);
    p.fillRect(rect(), fill);
}

void SplitDivider::mousePressEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton) return QWidget::mousePressEvent(event);
    pressedAt_ = event->globalPosition();
    emit dragChanged(0);
}

void SplitDivider::mouseMoveEvent(QMouseEvent* event) {
    if (!pressedAt_) return QWidget::mouseMoveEvent(event);
    emit dragChanged(translation(event->globalPosition()));
}

void SplitDivider::mouseReleaseEvent(QMouseEvent* event) {
    if (!pressedAt_ || event->button() != Qt::LeftButton) return QWidget::mouseReleaseEvent(event);
    pressedAt_.reset();
    emit dragEnded();
}

PaneLayoutView::PaneLayoutView(TerminalTab* tab, SelectCallback onSelect,
                               SetRatioCallback onSetRatio, QWidget* parent)
    : QWidget(parent),
      tab_(tab),
      document_(new XtermWebView(this)),
      onSelect_(std::move(onSelect)),
      onSetRatio_(std::move(onSetRatio)) {
    setObjectName("paneLayout");
    document_->lower();
    connect(tab, &TerminalTab::layoutChanged, this, &PaneLayoutView::relayout);
    connect(tab, &TerminalTab::panesChanged, this, &PaneLayoutView::relayout);
    connect(tab, &TerminalTab::selectedPaneIDChanged, this, &PaneLayoutView::relayout);
    relayout();
}

TerminalPaneView* PaneLayoutView::paneView(const QUuid& paneID) const {
    const auto found = paneViews_.find(paneID);
    return found == paneViews_.end() ? nullptr : found->second.data();
}

SplitDivider* PaneLayoutView::divider(const QUuid& splitID) const {
    const auto found = dividers_.find(splitID);
    return found == dividers_.end() ? nullptr : found->second.data();
}

const DividerDrag* PaneLayoutView::drag(const QUuid& splitID) const {
    const auto found = drags_.find(splitID);
    return found == drags_.end() ? nullptr : &found->second;
}

void PaneLayoutView::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    document_->setGeometry(rect());
    relayout();
}

void PaneLayoutView::relayout() {
    std::set<QUuid> panes;
    std::set<QUuid> splits;
    if (tab_) place(tab_->layout(), QRectF(rect()), panes, splits);
    for (auto it = paneViews_.begin(); it != paneViews_.end();) {
        if (panes.count(it->first)) {
            ++it;
            continue;
        }
        // The terminal leaves the document with its pane, before the next placement.
        document_->close(it->first);
        if (it->second) {
            it->second->hide();
            it->second->deleteLater();
        }
        it = paneViews_.erase(it);
    }
    for (auto it = dividers_.begin(); it != dividers_.end();) {
        if (splits.count(it->first)) {
            ++it;
            continue;
        }
        if (it->second) {
            it->second->hide();
            it->second->deleteLater();
        }
        drags_.erase(it->first);
        splitMetrics_.erase(it->first);
        it = dividers_.erase(it);
    }
}

void PaneLayoutView::place(const PaneLayout& node, const QRectF& area, std::set<QUuid>& panes,
                           std::set<QUuid>& splits) {
    if (node.isPane()) {
        TerminalPane* pane = tab_->pane(node.id());
        if (!pane) return;
        panes.insert(node.id());
        auto& view = paneViews_[node.id()];
        if (!view) {
            const QUuid id = node.id();
            view = new TerminalPaneView(
                pane, document_, [this, id] { onSelect_(id); }, this);
            view->show();
        }
        view->setSelected(tab_->selectedPaneID() == node.id());
        view->setGeometry(area.toAlignedRect());
        return;
    }
    const QUuid id = node.id();
    splits.insert(id);
    const bool sideBySide = node.axis() == SplitAxis::Horizontal;
    const double extent = sideBySide ? area.width() : area.height();
    const double ratio = drags_[id].ratioInForce(node.ratio());
    splitMetrics_[id] = {ratio, extent};
    const SplitLengths lengths = splitLengths(extent, ratio);
    QRectF first = area, bar = area, second = area;
    if (sideBySide) {
        first.setWidth(lengths.first);
        bar = QRectF(area.left() + lengths.first, area.top(), splitDividerThickness, area.height());
        second = QRectF(bar.right(), area.top(), lengths.second, area.height());
    } else {
        first.setHeight(lengths.first);
        bar = QRectF(area.left(), area.top() + lengths.first, area.width(), splitDividerThickness);
        second = QRectF(area.left(), bar.bottom(), area.width(), lengths.second);
    }
    auto& divider = dividers_[id];
    if (!divider) {
        divider = new SplitDivider(id, node.axis(), this);
        connect(divider, &SplitDivider::dragChanged, this,
                [this, id](double translation) { dividerDragged(id, translation); });
        connect(divider, &SplitDivider::dragEnded, this, [this, id] { dividerReleased(id); });
        divider->show();
    }
    divider->setAxis(node.axis());
    divider->setGeometry(bar.toAlignedRect());
    divider->raise();
    place(node.first(), first, panes, splits);
    place(node.second(), second, panes, splits);
}

void PaneLayoutView::dividerDragged(const QUuid& splitID, double translation) {
    const auto metrics = splitMetrics_.find(splitID);
    if (metrics == splitMetrics_.end()) return;
    const auto [ratio, extent] = metrics->second;
    const double next = drags_[splitID].change(ratio, translation, extent);
    relayout();
    onSetRatio_(splitID, next);
}

void PaneLayoutView::dividerReleased(const QUuid& splitID) {
    drags_[splitID].end();
    relayout();
}

}  // namespace hl
