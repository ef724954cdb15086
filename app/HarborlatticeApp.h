// HarborlatticeApp: the one application object. It builds the long-lived
// stores in a fixed order — the move of preferences from the earlier identity
// first, because every store reads the preferences when it is built, then the
// project catalog, then the workspace store from the catalog's projects — and
// owns them, with the life-cycle delegate, until the process ends.
#pragma once

#include <filesystem>
#include <memory>

#include "AppUpdater.h"
#include "ApplicationDelegate.h"
#include "Preferences.h"
#include "ProjectCatalog.h"
#include "RuntimePaths.h"
#include "WorkspaceStore.h"

namespace hl {

class HarborlatticeApp {
  public:
    // Throws PreferencesError when the preferences database cannot be opened.
    explicit HarborlatticeApp(
        const std::filesystem::path& preferencesFile = RuntimePaths::preferencesFile());
    ~HarborlatticeApp();
    HarborlatticeApp(const HarborlatticeApp&) = delete;
    HarborlatticeApp& operator=(const HarborlatticeApp&) = delete;

    ApplicationDelegate& delegate() const { return *delegate_; }
    ProjectCatalog& catalog() const { return *catalog_; }
    WorkspaceStore& workspace() const { return *workspace_; }
    // Built when first asked for, by the window, not at start-up.
    AppUpdater& updater() const;
    const std::shared_ptr<Preferences>& defaults() const { return defaults_; }

  private:
    std::unique_ptr<ApplicationDelegate> delegate_;
    std::shared_ptr<Preferences> defaults_;
    std::unique_ptr<ProjectCatalog> catalog_;
    std::unique_ptr<WorkspaceStore> workspace_;
    mutable std::unique_ptr<AppUpdater> updater_;
};

}  // namespace hl
