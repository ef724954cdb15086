// HarborlatticeApp: the one application object. It builds the long-lived
// stores in a fixed order — the move of preferences from the earlier identity
// first, because every store reads the preferences when it is built, then the
// project catalog, then the workspace store from the catalog's projects — and
// owns them, with the life-cycle delegate, until the process ends.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "StoredDataRecovery.h"

#include <filesystem>
#include <memory>

#include "AppUpdater.h"
#include "ApplicationDelegate.h"
#include "CloudSyncCoordinator.h"
#include "Preferences.h"
#include "ProjectCatalog.h"
#include "ProjectCopyController.h"
#include "RuntimePaths.h"
#include "SyncSettingsController.h"
#include "TerminalSettings.h"
#include "UpdateSettings.h"
#include "WorkspaceStore.h"

namespace hl {

class HarborlatticeApp {
  public:
    // Throws PreferencesError when the preferences database cannot be opened or
    // a stored value could not be read at all (a busy or failing database is
    // never taken for an empty one).
    // Another process's write lock is waited for `startWait` at most.
    explicit HarborlatticeApp(
        const std::filesystem::path& preferencesFile = RuntimePaths::preferencesFile(),
        std::chrono::milliseconds busyTimeout = Preferences::defaultBusyTimeout,
        std::chrono::milliseconds startWait = Preferences::startWaitLimit);
    ~HarborlatticeApp();
    HarborlatticeApp(const HarborlatticeApp&) = delete;
    HarborlatticeApp& operator=(const HarborlatticeApp&) = delete;

    ApplicationDelegate& delegate() const { return *delegate_; }
    ProjectCatalog& catalog() const { return *catalog_; }
    WorkspaceStore& workspace() const { return *workspace_; }
    // Built when first asked for, by the window, not at start-up.
    AppUpdater& updater() const;
    CloudSyncCoordinator& sync() const { return *sync_; }
    // The settings the Settings dialog shows and changes.
    SyncSettingsController& syncSettings() const { return *syncSettings_; }
    TerminalSettingsStore& terminalSettings() const { return *terminalSettings_; }
    UpdateSettings updateSettings() const;
    // Keeps `settings` and gives the updater, when it runs, the channel they make.
    void setUpdateSettings(const UpdateSettings& settings);
    // Fetches shared projects' folders from the computers that hold them.
    ProjectCopyController& projectCopy() const { return *projectCopy_; }
    const std::shared_ptr<Preferences>& defaults() const { return defaults_; }

    // Keys whose stored values could not be understood and are kept as they were.
    std::vector<std::string> damagedKeys() const;
    // The running shells that a start over keeps (see WorkspaceStore).
    std::vector<RecoveredSession> sessionsToKeepAcrossStartOver() const;
    // Records `sessions` for the next start to open again, copies each damaged
    // value's exact bytes to a private file under `folder`, then clears the
    // keys, so that the next start is writable. Throws StoredDataRecoveryError,
    // clearing nothing, when the list or a copy cannot be written.
    std::vector<RecoveredValue> keepCopyAndStartOver(
        const std::vector<RecoveredSession>& sessions,
        const std::filesystem::path& folder = StoredDataRecovery::defaultFolder());

  private:
    std::unique_ptr<ApplicationDelegate> delegate_;
    std::shared_ptr<Preferences> defaults_;
    std::unique_ptr<ProjectCatalog> catalog_;
    std::unique_ptr<WorkspaceStore> workspace_;
    mutable std::unique_ptr<AppUpdater> updater_;
    std::unique_ptr<ProjectCopyController> projectCopy_;
    std::unique_ptr<TerminalSettingsStore> terminalSettings_;
    std::unique_ptr<SyncSettingsController> syncSettings_;
    // Declared last: it lets go of the stores' hooks before they go.
    std::unique_ptr<CloudSyncCoordinator> sync_;
};

}  // namespace hl
