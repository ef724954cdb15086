// WorkspaceStore: the one holder of the live workspace model — every tab of
// every workspace in one flat list, the active workspace and tab, and what may
// still be saved. Every user command on tabs, panes and projects arrives here
// and every change ends in a save of the whole model. Stored data that cannot
// be fully understood is never overwritten: the store then runs with
// `storageIsWritable` false, refuses what it cannot save, and says so.
#pragma once

#include <QObject>
#include <QString>
#include <QTimer>
#include <QUuid>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "NodeClient.h"
#include "PaneLayout.h"
#include "Preferences.h"
#include "ProjectRecord.h"
#include "SavedWorkspace.h"
#include "SessionCloseLedger.h"
#include "SharedSnapshot.h"
#include "TerminalPane.h"

namespace hl {

// What a pane may do with its session, chosen from its context when it is built.
struct PaneRuntimePolicy {
    bool allowReconnect = true;
    bool sessionCreationIsAllowed = true;
    std::function<bool()> directoryIsReady;
    QString unavailableStatus;
};

// A running session kept across a start over, and the folder it runs in.
struct RecoveredSession {
    QString id;
    QString cwd;
    bool operator==(const RecoveredSession&) const = default;
};

struct WorkspaceStoreOptions {
    std::shared_ptr<Preferences> defaults;
    std::vector<ProjectRecord> knownProjects;
    bool catalogIsReadable = true;
    // Empty means RuntimePaths::scratchRoot().
    std::optional<QString> scratchRoot;
    // Makes a private scratch directory for the id and returns its path; throws
    // on failure. Empty means RuntimePaths::createScratchDirectory.
    std::function<QString(const QUuid&)> scratchDirectoryProvider;
    // Empty means a UnixSocketClient on the default socket.
    std::shared_ptr<const NodeClientTransport> client;
    TerminalControllerHooks controllerHooks;
    SessionCloseLedger::RetryPolicy closeRetryPolicy;
};

class WorkspaceStore : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString activeWorkspaceID READ activeWorkspaceIDText NOTIFY activeWorkspaceIDChanged)
    Q_PROPERTY(QString searchQuery READ searchQuery WRITE setSearchQuery NOTIFY searchQueryChanged)
    Q_PROPERTY(QString errorMessage READ errorMessageText NOTIFY errorMessageChanged)

  public:
    static constexpr const char* storageKey = "harborlattice.workspace.simple.v1";
    static constexpr const char* legacyKey = "harborlattice.workspace.v3";
    static constexpr const char* suspendedPanesKey = "harborlattice.sync.suspended-panes.v1";
    // Sessions kept running across a start over, opened again at the next start.
    static constexpr const char* recoveredSessionsKey = "harborlattice.recovered-sessions.v1";
    static inline const QString recoveredTabTitle = QStringLiteral("Recovered terminals");
    // Suspended panes kept for each project, newest first; the others' shells are
    // closed through the ledger, as are those suspended longer than the lifetime.
    static constexpr std::size_t maximumSuspendedPanesPerProject = 8;
    static constexpr std::chrono::hours suspendedPaneLifetime{24 * 7};

    // Builds the store and restores the saved workspace (panes are made, not started).
    explicit WorkspaceStore(WorkspaceStoreOptions options, QObject* parent = nullptr);
    ~WorkspaceStore() override;

    // Observable state.
    std::vector<TerminalTab*> tabs() const;
    const std::optional<QString>& activeWorkspaceID() const { return activeWorkspaceID_; }
    QString activeWorkspaceIDText() const { return activeWorkspaceID_.value_or(QString()); }
    const std::optional<QUuid>& selectedTabID() const { return selectedTabID_; }
    const QString& searchQuery() const { return searchQuery_; }
    void setSearchQuery(const QString& query);
    const std::optional<QString>& errorMessage() const { return errorMessage_; }
    QString errorMessageText() const { return errorMessage_.value_or(QString()); }
    bool workspaceMutationsAreAllowed() const { return storageIsWritable_; }
    bool storageIsWritable() const { return storageIsWritable_; }
    // Keys whose stored rows could not be understood at start, and are kept as
    // they were: what "Keep a Copy and Start Over…" copies and clears.
    const std::set<std::string>& damagedKeys() const { return damagedKeys_; }
    // True when a stored value could not be read at all at start.
    bool loadFailed() const { return loadFailed_; }

    // Called after each successful save.
    std::function<void()> onChange;

    // Derived values.
    std::vector<TerminalTab*> visibleTabs() const;
    TerminalTab* selectedTab() const;
    std::optional<QString> activeProjectID() const;
    std::vector<WorkspaceChoice> workspaceChoices() const;
    QString activeWorkspaceTitle() const;

    // Operations.
    bool hasWorkspace(const QString& projectID) const;
    bool openProject(const ProjectRecord& project);
    void selectWorkspace(const QString& workspaceID);
    void newTerminal();
    void createScratchTerminal();
    void selectTab(const QUuid& id);
    void selectPane(const QUuid& id);
    // A click or key press in a pane's terminal: selects the pane unless it is
    // already selected or an operation of the store is under way (views hidden
    // or re-parented by that operation must not steer it).
    void userSelectedPane(const QUuid& id);
    void selectAdjacentTab(int offset);
    void selectAdjacentWorkspace(int offset);
    void selectAdjacentPane(int offset);
    // `vertical` true splits right (panes side by side), false splits down.
    void split(bool vertical);
    void setSplitRatio(const QUuid& id, double ratio);
    void closeSelectedPane();
    void closeTab(const QUuid& id);
    bool renameProject(const QString& id, const QString& name);
    // Gives one tab the title the user typed (trimmed); a blank one is refused.
    bool renameTab(const QUuid& id, const QString& title);
    bool removeProject(const QString& id);
    void search(bool backwards = false);
    void clearError();
    // Asks the node for its sessions and closes, through the ledger, those that
    // nothing here records: no pane, no suspended pane, no pending close. Only
    // runs when everything stored was read cleanly and no start is in flight.
    // While starts are in flight it tries again later, a few times.
    void closeUnrecordedSessions(int attemptsRemaining = 10);
    // The sessions to open again after "Keep a Copy and Start Over…": every
    // session the node runs, less those whose close is recorded (unless the list
    // of closes is itself what is cleared). Without a node, those this run knows.
    std::vector<RecoveredSession> sessionsToKeepAcrossStartOver(bool closeLedgerIsCleared) const;
    // Adds `sessions` to those the next start opens again; false when the
    // database refused the write.
    static bool keepSessionsForRecovery(Preferences& defaults,
                                        const std::vector<RecoveredSession>& sessions);
    // Every session the node runs but those left out, each with its folder:
    // the known one, else the first candidate the node confirms, else none.
    // Absent when no node answers.
    static std::optional<std::vector<RecoveredSession>> runningSessions(
        const NodeClientTransport& client, const std::set<QString>& leaveOut = {},
        const std::map<QString, QString>& knownFolders = {},
        const std::vector<QString>& candidateFolders = {});
    // The scratch directories under `scratchRoot`.
    static std::vector<QString> scratchFolders(const QString& scratchRoot);
    // Sessions kept across a start over that wait for their project.
    std::set<QString> sessionsWaitingForRecovery() const;
    // True when a tab of the workspace has a bell that was not seen.
    bool workspaceHasUnseenBell(const QString& workspaceID) const;
    static constexpr std::chrono::milliseconds sweepPause{3000};
    // A previous shell that nobody reattached or closed is closed after this many days.
    static constexpr int previousShellDays = 7;
    static constexpr std::chrono::milliseconds saveRetryPeriod{1000};

    // The shape of each given project's workspace as other computers see it:
    // directories relative to the project's root, no sessions. A workspace with a
    // pane outside its root is left out whole; projects without tabs give none.
    QList<SharedWorkspace> sharedWorkspaces(const std::vector<ProjectRecord>& mappedProjects) const;
    // Makes the workspaces of the given projects what the shared list says, keeps
    // live panes whose directory is unchanged, suspends panes that leave and
    // reattaches suspended ones that come back. A leaving pane for which
    // `closesLeavingPane` says true (one another computer closed) has its shell
    // closed through the ledger instead. Gives the projects that could not be
    // applied (a directory missing here), or all of them when nothing may be saved.
    std::vector<QString> applySharedWorkspaces(
        const QList<SharedWorkspace>& workspaces, const std::vector<ProjectRecord>& mappedProjects,
        const std::function<bool(const QUuid&)>& closesLeavingPane = {});
    // `path` relative to `root` ("" for the root itself) when it lies within it.
    static std::optional<QString> relativePath(const QString& path, const QString& root);
    // The existing directory that `relativePath` names within `root`, links resolved.
    static std::optional<QString> resolvedPath(const QString& relativePath, const QString& root);

    // Ids of the panes' sessions that the ledger may retry at this start.
    const std::set<QString>& retryablePendingCloseIDs() const { return retryablePendingCloseIDs_; }
    const SessionCloseLedger& closeLedger() const { return *closeLedger_; }
    std::vector<SuspendedPane> suspendedPanes() const;

    // True when neither list repeats an id and both hold the same ids.
    static bool paneIdentitySetIsExact(const QList<QUuid>& paneIDs,
                                       const QList<QUuid>& layoutPaneIDs);
    // True when `cwd` is exactly scratchRoot + "/" + the id in lower case.
    static bool scratchPathMatchesIdentity(const QString& cwd, const QUuid& id,
                                           const QString& scratchRoot);
    // True when `path` is an existing directory, both texts are already
    // canonical, and the path is the root or lies below it.
    static bool canonicalDirectoryIsAvailable(const QString& path, const QString& root);
    // Absolute and already standardised, judged without touching the disk.
    static bool storedAbsolutePathIsCanonical(const QString& path);

  signals:
    void tabsChanged();
    // A tab's unseen bell came or went.
    void bellMarksChanged();
    void activeWorkspaceIDChanged();
    void selectedTabIDChanged();
    void searchQueryChanged();
    void errorMessageChanged();
    // The number of suspended panes changed.
    void suspendedPanesChanged();

  private:
    PaneRuntimePolicy paneRuntimePolicy(const PaneContext& context) const;
    std::unique_ptr<TerminalPane> makePane(const QUuid& id, const PaneContext& context,
                                           const std::optional<QString>& sessionID,
                                           bool isReplacementSession,
                                           std::vector<SavedPreviousShell> previousShells = {});
    void appendTab(const QString& title, const PaneContext& context, const QString& workspaceID);
    // Panes built while their project had no owner here (or another root) are
    // built again, so that they may reattach now that it has one.
    void renewPanesOfProject(const QString& projectID);
    void resignFocusedPane();
    void focusSelectedPane();
    void persist();
    // Panes equal layout leaves in every tab, no id repeats, selections exist.
    bool modelIsConsistent(QString* fault) const;
    // Stops saving after a write that failed, says why and where, and tries
    // again every `saveRetryPeriod` until a save goes through.
    void saveFailed();
    void retrySave();
    QString savingStoppedMessage() const;
    QString refusal() const;
    // Records the sessions of `panes` in the ledger before they are closed;
    // false (with a message) when the ledger cannot keep them.
    bool recordCloses(const std::vector<TerminalPane*>& panes);
    bool startIsInFlight() const;
    // A bell in a pane marks its tab unless that tab is the one in view.
    void bellRang(const QUuid& paneID);
    void markSelectedTabSeen();
    // False when it had to wait for a start in flight.
    bool closeSessionsNothingRecords(const std::set<QString>& nodeSessions);
    // Every session id that the legacy workspace bytes name, read or not.
    std::set<QString> legacySessionIDs() const;
    // A restored pane's previous shells less those past their age, which are closed.
    std::vector<SavedPreviousShell> keepYoungPreviousShells(
        const std::vector<SavedPreviousShell>& shells);
    void retrySweep(int attemptsRemaining);
    void persistSuspendedPanes();
    void closeSuspendedPanes(const QString& projectID);
    // Shared exchange.
    void replaceProjectTabs(const QString& projectID,
                            std::vector<std::unique_ptr<TerminalTab>> newTabs);
    std::optional<std::vector<std::unique_ptr<TerminalTab>>> importedTabs(
        const SharedWorkspace& workspace, const ProjectRecord& project);
    void normalizeSelectionAfterSharedImport();
    // Lets the pane's session live on and remembers it for a later return.
    void suspendPane(std::unique_ptr<TerminalPane> pane);
    // Enters a suspended session; one that it displaces under the same pane id
    // could never be reached again and is closed through the ledger.
    void fileSuspendedPane(const SuspendedPane& pane);
    // Closes, through the ledger, the suspended panes past the per-project bound
    // or the lifetime.
    void boundSuspendedPanes();
    // Closes, through the ledger, every shell of a project that another computer
    // removed: its panes and its suspended panes. False when the closes could not
    // be recorded.
    bool closeRemovedProject(const QString& projectID);
    SavedWorkspace savedWorkspace() const;
    // Lets a pane go once its controller has no start in flight, so that a
    // session that comes up late is still closed or filed, never lost.
    void retire(std::unique_ptr<TerminalPane> pane);

    // Start-up.
    void readSuspendedPanes();
    void restore();
    // Opens the sessions kept across a start over in one Scratch tab.
    void openRecoveredSessions();
    void freezeStorage(const PreferenceRead& read, const char* key, const QString& message);
    void restore(const SavedWorkspace& saved, bool sanitizingLegacyData);
    bool restoredTabIsStructurallyValid(const SavedTab& tab) const;

    void setActiveWorkspaceID(const std::optional<QString>& id);
    void setSelectedTabID(const std::optional<QUuid>& id);
    void setErrorMessage(const std::optional<QString>& message);
    TerminalTab* tab(const QUuid& id) const;
    std::vector<TerminalTab*> tabsOfWorkspace(const QString& workspaceID) const;

    std::shared_ptr<Preferences> defaults_;
    std::function<QString(const QUuid&)> scratchDirectoryProvider_;
    QString scratchRoot_;
    std::shared_ptr<const NodeClientTransport> client_;
    TerminalControllerHooks controllerHooks_;
    std::map<QString, QString> projectRoots_;
    bool catalogIsReadable_;
    bool storageIsWritable_;
    std::shared_ptr<SessionCloseLedger> closeLedger_;
    std::set<QString> retryablePendingCloseIDs_;
    std::map<QString, QUuid> selectedTabs_;
    std::map<QUuid, SuspendedPane> suspendedPanes_;
    bool suspendedPanesAreWritable_ = true;
    std::size_t persistedSuspendedCount_ = 0;
    std::set<std::string> damagedKeys_;
    bool loadFailed_ = false;
    // A migration left sessions out of the model: nothing may be swept this run.
    bool migrationDroppedSessions_ = false;
    // While a shared list is applied: which leaving panes are closed, not suspended.
    std::function<bool(const QUuid&)> closesLeavingPane_;
    bool writeFailed_ = false;
    std::string writeFailure_;
    QTimer saveRetry_;
    int operationDepth_ = 0;
    // Every session that arrived in this run, so that a sweep never takes one
    // that came up after the node's list was made.
    std::set<QString> sessionsSeenThisRun_;

    std::vector<std::unique_ptr<TerminalTab>> tabs_;
    std::vector<std::unique_ptr<TerminalPane>> retiredPanes_;
    std::optional<QString> activeWorkspaceID_;
    std::optional<QUuid> selectedTabID_;
    QString searchQuery_;
    std::optional<QString> errorMessage_;
};

}  // namespace hl
