// Start-up of the application's stores, in their required order.
#include "HarborlatticeApp.h"

#include "PreferencesMigration.h"

namespace hl {

HarborlatticeApp::HarborlatticeApp(const std::filesystem::path& preferencesFile)
    : delegate_(std::make_unique<ApplicationDelegate>()) {
    defaults_ = Preferences::open(preferencesFile);
    PreferencesMigration::importLegacyBundleDomain(*defaults_);
    auto catalog = std::make_unique<ProjectCatalog>(defaults_);
    WorkspaceStoreOptions options;
    options.defaults = defaults_;
    options.knownProjects = catalog->projects();
    options.catalogIsReadable = catalog->isReadable();
    auto workspace = std::make_unique<WorkspaceStore>(std::move(options));
    // The sync coordinator is attached to both stores here, once there is one.
    catalog_ = std::move(catalog);
    workspace_ = std::move(workspace);
}

HarborlatticeApp::~HarborlatticeApp() = default;

AppUpdater& HarborlatticeApp::updater() const {
    if (!updater_) updater_ = std::make_unique<AppUpdater>();
    return *updater_;
}

}  // namespace hl
