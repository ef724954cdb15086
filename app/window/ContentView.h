// ContentView: the one window's content — the sidebar of workspaces and
// projects, the detail column (the selected tab, or an empty state), and the
// rename and remove dialogs around projects. It keeps only what is on screen;
// every decision is the catalog's or the workspace store's, and this view only
// fixes the order in which it calls them.
#pragma once

#include <QDialog>
#include <QPointer>
#include <QWidget>

#include <functional>
#include <optional>

#include "AppUpdater.h"
#include "ProjectCatalog.h"
#include "WorkspaceStore.h"

class QLabel;
class QPushButton;
class QSplitter;
class QStackedWidget;
class QVBoxLayout;

namespace hl {

class TerminalWorkspaceView;

class ContentView : public QWidget {
    Q_OBJECT

  public:
    // Without an updater, one that can never check stands in.
    ContentView(ProjectCatalog* catalog, WorkspaceStore* workspace, AppUpdater* updater = nullptr,
                QWidget* parent = nullptr);

    // Asks for one folder and adds it as a project.
    void addProject();
    std::optional<ProjectRecord> addProject(const QString& name, const QString& rawRoot,
                                            const QString& id = newProjectID());
    bool openProject(const ProjectRecord& project);
    bool renameProject(const ProjectRecord& project, const QString& name);
    bool confirmRemoveProject(const ProjectRecord& project);
    bool openScratchWorkspace();
    // Keeps the sidebar's highlight on the project of the active workspace.
    void syncCatalogSelection();
    std::optional<WorkspaceChoice> scratchWorkspaceChoice() const;

    // The project menu's entries: they open the dialogs.
    void presentRename(const ProjectRecord& project);
    void presentRemove(const ProjectRecord& project);
    QDialog* renameDialog() const { return renameDialog_; }
    QDialog* removeDialog() const { return removeDialog_; }

    // The error row offers "Keep a Copy and Start Over…" while `isOffered` says
    // there is damaged data; the button calls `run`.
    void setStartOver(std::function<bool()> isOffered, std::function<void()> run);
    QPushButton* startOverButton() const { return startOverButton_; }

    TerminalWorkspaceView* workspaceView() const { return workspaceView_; }
    // The idea sheet is shown while this is true.
    bool ideaComposerVisible() const { return ideaComposerVisible_; }
    void setIdeaComposerVisible(bool visible);
    QSplitter* splitter() const { return splitter_; }
    // Puts the sync pieces in their places: `section` in the list between the
    // Scratch row and the projects, `statusRow` under the list, above the foot.
    void setSyncPieces(QWidget* section, QWidget* statusRow);

  private:
    QWidget* buildSidebar();
    QWidget* buildEmptyState();
    QWidget* buildSidebarFooter(QWidget* parent);
    void rebuildSidebarList();
    void refreshDetail();
    void refreshErrorRow();
    QWidget* scratchRow();
    QWidget* projectRow(const ProjectRecord& project);

    ProjectCatalog* catalog_;
    WorkspaceStore* workspace_;
    AppUpdater* updater_;
    bool ideaComposerVisible_ = false;
    QPointer<QDialog> ideaComposerSheet_;
    std::optional<ProjectRecord> projectToRename_;
    QString renameValue_;
    std::optional<ProjectRecord> projectToRemove_;

    QSplitter* splitter_ = nullptr;
    QVBoxLayout* listColumn_ = nullptr;
    QPointer<QWidget> listContent_;
    QPointer<QWidget> syncSection_;
    QWidget* errorRow_ = nullptr;
    QLabel* errorText_ = nullptr;
    QPushButton* startOverButton_ = nullptr;
    std::function<bool()> startOverIsOffered_;
    std::function<void()> startOver_;
    QStackedWidget* detail_ = nullptr;
    // The empty page: it takes the keyboard when the last terminal goes, so
    // that keys typed then reach nothing (not its button).
    QWidget* emptyPage_ = nullptr;
    QLabel* emptyTitle_ = nullptr;
    QLabel* emptyDescription_ = nullptr;
    QPushButton* emptyAction_ = nullptr;
    TerminalWorkspaceView* workspaceView_ = nullptr;
    QPointer<QDialog> renameDialog_;
    QPointer<QDialog> removeDialog_;
};

}  // namespace hl
