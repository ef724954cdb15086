// PaneLayoutView: the panes of one tab laid out by its split tree. Every pane
// view and every divider is a direct child, placed by walking the tree, so that
// a change of shape moves widgets and never rebuilds a renderer. Under them
// lies the tab's one terminal document, which draws every pane's terminal. A divider drag
// keeps its state per split; a new view (a change of tab) starts with none.
#pragma once

#include <QPointer>
#include <QUuid>
#include <QWidget>

#include <functional>
#include <map>
#include <set>

#include "DividerDrag.h"
#include "TerminalPane.h"

namespace hl {

class TerminalPaneView;
class XtermWebView;

// The 6-point bar between the children of a split; reports the pointer's
// translation along the axis since the press.
class SplitDivider : public QWidget {
    Q_OBJECT

  public:
    SplitDivider(const QUuid& splitID, SplitAxis axis, QWidget* parent);
    const QUuid& splitID() const { return splitID_; }
    SplitAxis axis() const { return axis_; }
    void setAxis(SplitAxis axis);

  signals:
    void dragChanged(double translation);
    void dragEnded();

  protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;

  private:
    double translation(const QPointF& globalPosition) const;

    QUuid splitID_;
    SplitAxis axis_;
    std::optional<QPointF> pressedAt_;
};

class PaneLayoutView : public QWidget {
    Q_OBJECT

  public:
    using SelectCallback = std::function<void(const QUuid&)>;
    using SetRatioCallback = std::function<void(const QUuid&, double)>;

    PaneLayoutView(TerminalTab* tab, SelectCallback onSelect, SetRatioCallback onSetRatio,
                   QWidget* parent = nullptr);

    TerminalTab* tab() const { return tab_; }
    TerminalPaneView* paneView(const QUuid& paneID) const;
    XtermWebView* document() const { return document_; }
    SplitDivider* divider(const QUuid& splitID) const;
    // The drag state of a split, for observers.
    const DividerDrag* drag(const QUuid& splitID) const;

  protected:
    void resizeEvent(QResizeEvent* event) override;

  private:
    // Places every child for the tab's current layout; drops what it no longer holds.
    void relayout();
    void place(const PaneLayout& node, const QRectF& area, std::set<QUuid>& panes,
               std::set<QUuid>& splits);
    void dividerDragged(const QUuid& splitID, double translation);
    void dividerReleased(const QUuid& splitID);

    QPointer<TerminalTab> tab_;
    XtermWebView* document_;
    SelectCallback onSelect_;
    SetRatioCallback onSetRatio_;
    std::map<QUuid, QPointer<TerminalPaneView>> paneViews_;
    std::map<QUuid, QPointer<SplitDivider>> dividers_;
    std::map<QUuid, DividerDrag> drags_;
    // What each split had at the last placement: its stored ratio and its extent.
    std::map<QUuid, std::pair<double, double>> splitMetrics_;
};

}  // namespace hl
