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
#include <functional>
#include <optional>
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

    // Opens the field that renames the tab in its place in the strip; Enter
    // gives the tab its text, Escape or leaving the field keeps the title.
    void beginRename(const QUuid& id);
    // The tab being renamed; null when none is.
    QUuid renamingTab() const { return renaming_; }
    // The name of a project, to tell a tab that keeps its project's name
    // (and shows its terminal's title) from one the user renamed.
    std::function<std::optional<QString>(const QString& projectID)> projectName;

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    void rebuildTabStrip();
    void endRename(bool commit);
    // What the tab's entry shows: its selected terminal's title while the tab
    // keeps its first title, otherwise the title the user gave it.
    QString label(TerminalTab* tab) const;
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
    static constexpr int maximumTabLabelWidth = 180;
    QLineEdit* find_ = nullptr;
    QToolButton* findPrevious_ = nullptr;
    QToolButton* findNext_ = nullptr;
    // Tabs whose title and pane count the strip shows.
    std::vector<QMetaObject::Connection> tabConnections_;
    QUuid renaming_;
    QPointer<QLineEdit> renameField_;
    bool rebuildIsWaiting_ = false;
};

}  // namespace hl
