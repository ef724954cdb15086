// WorkspaceStore: the one holder of the live workspace model — every tab of
// every workspace in one flat list, the active workspace and tab, and what may
// still be saved. Every user command on tabs, panes and projects arrives here
// and every change ends in a save of the whole model. Stored data that cannot
// be fully understood is never overwritten: the store then runs with
// `storageIsWritable` false, refuses what it cannot save, and says so.
#pragma once

#include <QObject>
#include <QString>
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
    // True when a tab of the workspace has a bell that was not seen.
    bool workspaceHasUnseenBell(const QString& workspaceID) const;
    static constexpr std::chrono::milliseconds sweepPause{3000};

    // The shape of each given project's workspace as other computers see it:
    // directories relative to the project's root, no sessions. A workspace with a
    // pane outside its root is left out whole; projects without tabs give none.
    QList<SharedWorkspace> sharedWorkspaces(const std::vector<ProjectRecord>& mappedProjects) const;
    // Makes the workspaces of the given projects what the shared list says, keeps
    // live panes whose directory is unchanged, suspends panes that leave and
    // reattaches suspended ones that come back. Gives the projects that could not
    // be applied (a directory missing here), or all of them when nothing may be saved.
    std::vector<QString> applySharedWorkspaces(const QList<SharedWorkspace>& workspaces,
                                               const std::vector<ProjectRecord>& mappedProjects);
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

  private:
    PaneRuntimePolicy paneRuntimePolicy(const PaneContext& context) const;
    std::unique_ptr<TerminalPane> makePane(const QUuid& id, const PaneContext& context,
                                           const std::optional<QString>& sessionID,
                                           bool isReplacementSession);
    void appendTab(const QString& title, const PaneContext& context, const QString& workspaceID);
    void resignFocusedPane();
    void focusSelectedPane();
    void persist();
    // Panes equal layout leaves in every tab, no id repeats, selections exist.
    bool modelIsConsistent(QString* fault) const;
    // Stops saving after a write that failed, with a message that says so.
    void saveFailed();
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
    SavedWorkspace savedWorkspace() const;
    // Lets a pane go once its controller has no start in flight, so that a
    // session that comes up late is still closed or filed, never lost.
    void retire(std::unique_ptr<TerminalPane> pane);

    // Start-up.
    void readSuspendedPanes();
    void restore();
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
    std::set<std::string> damagedKeys_;
    bool loadFailed_ = false;
    bool writeFailed_ = false;
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
