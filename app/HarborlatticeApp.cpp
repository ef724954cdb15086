// Start-up of the application's stores, in their required order.
#include "HarborlatticeApp.h"

#include <QTimer>

#include <algorithm>

#include "PreferencesMigration.h"

namespace hl {

HarborlatticeApp::HarborlatticeApp(const std::filesystem::path& preferencesFile,
                                   std::chrono::milliseconds busyTimeout)
    : delegate_(std::make_unique<ApplicationDelegate>()) {
    defaults_ = Preferences::open(preferencesFile, Preferences::standardDomain, busyTimeout);
    PreferencesMigration::importLegacyBundleDomain(*defaults_);
    auto catalog = std::make_unique<ProjectCatalog>(defaults_);
    WorkspaceStoreOptions options;
    options.defaults = defaults_;
    options.knownProjects = catalog->projects();
    options.catalogIsReadable = catalog->isReadable();
    auto workspace = std::make_unique<WorkspaceStore>(std::move(options));
    if (catalog->loadFailed() || workspace->loadFailed()) {
        throw PreferencesError(PreferencesError::Kind::busy,
                               "Preferences at " + preferencesFile.string() +
                                   " could not be read; the database did not answer.");
    }
    // The sync coordinator is attached to both stores here, once there is one.
    catalog_ = std::move(catalog);
    workspace_ = std::move(workspace);
    // Once the node runs and the first starts have settled, shells that nothing
    // records are closed.
    QObject::connect(delegate_.get(), &ApplicationDelegate::didFinishLaunching, workspace_.get(),
                     [store = workspace_.get()] {
                         QTimer::singleShot(WorkspaceStore::sweepPause, store,
                                            [store] { store->closeUnrecordedSessions(); });
                     });
}

std::vector<std::string> HarborlatticeApp::damagedKeys() const {
    std::vector<std::string> keys;
    if (catalog_->damagedKey()) keys.push_back(*catalog_->damagedKey());
    for (const auto& key : workspace_->damagedKeys()) {
        if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(key);
    }
    return keys;
}

std::vector<RecoveredValue> HarborlatticeApp::keepCopyAndStartOver(
    const std::filesystem::path& folder) {
    return StoredDataRecovery::keepCopiesAndClear(*defaults_, damagedKeys(), folder);
}

HarborlatticeApp::~HarborlatticeApp() = default;

AppUpdater& HarborlatticeApp::updater() const {
    if (!updater_) updater_ = std::make_unique<AppUpdater>();
    return *updater_;
}

}  // namespace hl
