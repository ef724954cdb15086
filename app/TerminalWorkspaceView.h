// TerminalWorkspaceView: the detail column while a tab is selected — a control
// row (the tab strip of the active workspace, search, tab and pane navigation,
// split and close) above the selected tab's panes. Every control calls one
// operation of the WorkspaceStore; the view keeps nothing of its own.
#pragma once

#include <QPointer>
#include <QWidget>

#include "PaneLayoutView.h"
#include "WorkspaceStore.h"

class QHBoxLayout;
class QLineEdit;
class QScrollArea;
class QToolButton;
class QVBoxLayout;

namespace hl {

class TerminalWorkspaceView : public QWidget {
    Q_OBJECT

  public:
    explicit TerminalWorkspaceView(WorkspaceStore* workspace, QWidget* parent = nullptr);

    // Shows this tab's panes; a different tab gets a new layout view (and so
    // loses any drag in progress). Null shows none.
    void setTab(TerminalTab* tab);
    TerminalTab* tab() const { return tab_; }
    PaneLayoutView* paneLayoutView() const { return paneLayout_; }

  private:
    void rebuildTabStrip();
    void searchQueryChanged();
    QWidget* tabEntry(TerminalTab* tab);
    QToolButton* iconButton(const QString& objectName, const QString& symbol, const QString& label,
                            const QString& help);

    WorkspaceStore* workspace_;
    QPointer<TerminalTab> tab_;
    QPointer<PaneLayoutView> paneLayout_;
    QVBoxLayout* column_ = nullptr;
    QScrollArea* tabScroll_ = nullptr;
    QPointer<QWidget> tabStrip_;
    QLineEdit* find_ = nullptr;
    QToolButton* findPrevious_ = nullptr;
    QToolButton* findNext_ = nullptr;
    // Tabs whose title and pane count the strip shows.
    std::vector<QMetaObject::Connection> tabConnections_;
};

}  // namespace hl
