// TerminalWorkspaceView: the detail column while a tab is selected — a control
// row (the tab strip of the active workspace, search, tab and pane navigation,
// split and close) above the selected tab's panes. Every control calls one
// operation of the WorkspaceStore; the view keeps nothing of its own but the
// pane views of tabs shown before, hidden, so that going back to a tab shows
// its terminals as they were, scroll position and selection included.
#pragma once

#include <QPointer>
#include <QWidget>

#include <cstdint>
#include <vector>

#include "PaneLayoutView.h"
#include "WorkspaceStore.h"

class QHBoxLayout;
class QLineEdit;
class QScrollArea;
class QStackedLayout;
class QToolButton;
class QVBoxLayout;

namespace hl {

class TerminalWorkspaceView : public QWidget {
    Q_OBJECT

  public:
    explicit TerminalWorkspaceView(WorkspaceStore* workspace, QWidget* parent = nullptr);

    // Shows this tab's panes: the layout view kept from when it was last
    // shown, or a new one. The tab shown before is kept, hidden. Null shows none.
    void setTab(TerminalTab* tab);
    TerminalTab* tab() const { return tab_; }
    PaneLayoutView* paneLayoutView() const { return paneLayout_; }

    // How many pane views the kept tabs may hold together, the shown tab's
    // included; the tab shown least recently goes first. The shown tab is
    // never dropped, whatever its size.
    void setKeptPaneLimit(int limit);
    static constexpr int defaultKeptPaneLimit = 24;
    // The layout views alive, the shown one included.
    int keptLayoutCount() const { return static_cast<int>(kept_.size()); }

  private:
    void rebuildTabStrip();
    void searchQueryChanged();
    QWidget* tabEntry(TerminalTab* tab);
    QToolButton* iconButton(const QString& objectName, const QString& symbol, const QString& label,
                            const QString& help);
    PaneLayoutView* layoutFor(TerminalTab* tab);
    void dropLayout(PaneLayoutView* view);
    void dropLeastRecentlyShown();

    struct KeptLayout {
        QPointer<TerminalTab> tab;
        QPointer<PaneLayoutView> view;
        std::uint64_t shownAt = 0;
    };

    WorkspaceStore* workspace_;
    QPointer<TerminalTab> tab_;
    QPointer<PaneLayoutView> paneLayout_;
    QVBoxLayout* column_ = nullptr;
    QStackedLayout* panes_ = nullptr;
    std::vector<KeptLayout> kept_;
    std::uint64_t showCount_ = 0;
    int keptPaneLimit_ = defaultKeptPaneLimit;
    QScrollArea* tabScroll_ = nullptr;
    QPointer<QWidget> tabStrip_;
    QLineEdit* find_ = nullptr;
    QToolButton* findPrevious_ = nullptr;
    QToolButton* findNext_ = nullptr;
    // Tabs whose title and pane count the strip shows.
    std::vector<QMetaObject::Connection> tabConnections_;
};

}  // namespace hl
