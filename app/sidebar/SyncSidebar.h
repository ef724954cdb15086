// The sidebar's sync pieces: the status row with "Restore Previous", the
// section of shared projects that have no folder here with "Copy from …" and
// "Choose Existing Folder…", and the set-up dialog that announces each new one
// once per run. All decisions are the coordinator's and the copy controller's;
// these views only call them.
#pragma once

#include <QLabel>
#include <QMenu>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QVBoxLayout>
#include <QWidget>

#include <functional>
#include <optional>
#include <set>

#include "CloudSyncCoordinator.h"
#include "PlatformWords.h"
#include "ProjectCopyController.h"

namespace hl {

// The sync texts the user reads, each with its Linux spelling.
struct SyncTexts {
    static QString restorePrevious() { return QStringLiteral("Restore Previous"); }
    static QString restoreHelp(TextPlatform p = runningTextPlatform());
    static QString fromCloud(TextPlatform p = runningTextPlatform());
    static QString setUpMenu() { return QStringLiteral("Set Up…"); }
    static QString chooseExistingFolder() { return QStringLiteral("Choose Existing Folder…"); }
    static QString copyFromMenu(const QString& deviceName) {
        return "Copy from " + deviceName + "…";
    }
    static QString copyFromButton(const QString& deviceName) { return "Copy from " + deviceName; }
    static QString later() { return QStringLiteral("Later"); }
    static QString panelTitle(const QString& name, TextPlatform p = runningTextPlatform());
    static QString panelMessage(TextPlatform p = runningTextPlatform());
    static QString panelPrompt() { return QStringLiteral("Use Folder"); }
    static QString setUpTitle(const std::optional<SharedProject>& project);
    static QString setUpMessage(const SharedProject& project,
                                TextPlatform p = runningTextPlatform());
    // What a recovery copy puts back: its projects and tabs by name.
    static QString recoveryObjects(const SyncRecoveryCopy& copy);
    // "just now", "5 minutes ago", "2 hours ago", "3 days ago".
    static QString timeAgo(SharedDate then, SharedDate now);
    // One line of the list of copies: what, whose, how long ago.
    static QString recoveryItem(const SyncRecoveryCopy& copy, SharedDate now);
    static QString restoreQuestion(const SyncRecoveryCopy& copy, SharedDate now);
    static QString restoreDetail() {
        return QStringLiteral("Only these are put back. Everything else stays as it is.");
    }
    static QString restoreButton() { return QStringLiteral("Restore"); }
    // The status row menu's count of shells kept for panes that left.
    static QString suspendedTerminals(std::size_t count);
    static QString cancel() { return QStringLiteral("Cancel"); }
};

class SyncSidebar : public QObject {
    Q_OBJECT

  public:
    // `openProject` opens a newly mapped project's workspace and selects it.
    // `copy` fetches a project's folder from its origin; without it, nothing
    // offers a copy. `chooseFolder` asks for a directory (title, message,
    // prompt); empty means a directory dialog.
    SyncSidebar(
        CloudSyncCoordinator* sync, QWidget* sidebar,
        std::function<void(const ProjectRecord&)> openProject,
        ProjectCopyController* copy = nullptr,
        std::function<std::optional<QString>(const QString&, const QString&, const QString&)>
            chooseFolder = {},
        WorkspaceStore* workspace = nullptr);

    QWidget* statusRow() const { return statusRow_; }
    // The status row's menu: the suspended shells' count.
    QMenu* statusMenu() const { return statusMenu_; }
    QWidget* fromCloudSection() const { return section_; }
    // The set-up dialog while it is shown.
    QMessageBox* setUpDialog() const { return dialog_; }
    // Asks for a folder for `project` and maps it; opens its workspace on success.
    void mapSyncedProject(const SharedProject& project);
    // Copies the project's folder from its origin to the same path here, then
    // maps it and opens its workspace.
    void startCopy(const SharedProject& project);
    // Offers the first project not offered before in this run.
    void announceNewUnmappedProjects(const QList<SharedProject>& projects);
    // Asks whether to restore the recovery copy with this revision, saying what
    // it brings back, whose it was and how long ago; restores it on "Restore".
    void confirmRestore(const QUuid& revision);
    // The restore question while it is shown.
    QMessageBox* restoreDialog() const { return restoreDialog_; }

  signals:
    // The status row was clicked while sync is not set up.
    void syncSettingsRequested();

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    void updateStatus();
    void rebuildSection();
    void showSetUp(const SharedProject& project);
    // The copies to choose from, or the question at once when there is one.
    void offerRestore();

    QPointer<CloudSyncCoordinator> sync_;
    std::function<void(const ProjectRecord&)> openProject_;
    QPointer<ProjectCopyController> copy_;
    std::function<std::optional<QString>(const QString&, const QString&, const QString&)>
        chooseFolder_;
    QWidget* statusRow_;
    QLabel* statusIcon_;
    QLabel* statusText_;
    QPushButton* restore_;
    QPointer<WorkspaceStore> workspace_;
    QMenu* statusMenu_;
    QAction* suspendedCount_;
    QWidget* section_;
    QVBoxLayout* rows_;
    QPointer<QMessageBox> dialog_;
    QPointer<QMessageBox> restoreDialog_;
    std::optional<SharedProject> projectToSetUp_;
    std::set<QString> announcedUnmappedProjectIDs_;
};

// What a copy needs of a shared project.
ProjectCopySource copySourceOf(const SharedProject& project);

// Puts the sync pieces into the sidebar of `window` (a ContentView): the "From
// Cloud" section in the list after Scratch, the status row under the list above
// "Check for Updates…" and "Share idea"; with a copy
// controller, its sheet over the window while it is presented.
SyncSidebar* installSyncSidebar(CloudSyncCoordinator& sync, QWidget* window,
                                std::function<void(const ProjectRecord&)> openProject,
                                ProjectCopyController* copy = nullptr,
                                WorkspaceStore* workspace = nullptr);

}  // namespace hl
