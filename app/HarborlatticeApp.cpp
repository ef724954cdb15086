// Start-up of the application's stores, in their required order.
#include "HarborlatticeApp.h"

#include <QTimer>

#include <algorithm>

#include "PreferencesMigration.h"

namespace hl {

HarborlatticeApp::HarborlatticeApp(const std::filesystem::path& preferencesFile,
                                   std::chrono::milliseconds busyTimeout,
                                   std::chrono::milliseconds startWait)
    : delegate_(std::make_unique<ApplicationDelegate>()) {
    defaults_ = Preferences::open(preferencesFile, Preferences::standardDomain, busyTimeout,
                                  std::min(startWait, busyTimeout));
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
    // How other computers reach this one, then the coordinator on both stores;
    // its first refresh waits for the event loop.
    const DeviceCopyEndpoint endpoint = DeviceCopyEndpoint::discover();
    syncSettings_ = std::make_unique<SyncSettingsController>(
        defaults_, std::make_shared<SecretServicePasswordStore>());
    auto current = std::make_shared<QPointer<CloudSyncCoordinator>>();
    auto sync = std::make_unique<CloudSyncCoordinator>(
        defaults_, syncSettings_->startingTransport(), endpoint, [current](const QUuid& revision) {
            if (*current) (*current)->transport().publishChange(revision);
        });
    *current = sync.get();
    sync->attach(catalog.get(), workspace.get(), true);
    syncSettings_->attach(sync.get());
    terminalSettings_ = std::make_unique<TerminalSettingsStore>(defaults_);
    catalog_ = std::move(catalog);
    workspace_ = std::move(workspace);
    sync_ = std::move(sync);
    // Once the node runs and the first starts have settled, shells that nothing
    // records are closed.
    QObject::connect(delegate_.get(), &ApplicationDelegate::didFinishLaunching, workspace_.get(),
                     [store = workspace_.get()] {
                         QTimer::singleShot(WorkspaceStore::sweepPause, store,
                                            [store] { store->closeUnrecordedSessions(); });
                     });
    ApplicationDelegate::cloudSync = sync_.get();
    // A copied folder is judged as the catalog will judge it.
    projectCopy_ = std::make_unique<ProjectCopyController>(&ProjectRecord::acceptedRoot);
    projectCopy_->discoverTools();
}

std::vector<std::string> HarborlatticeApp::damagedKeys() const {
    std::vector<std::string> keys;
    if (catalog_->damagedKey()) keys.push_back(*catalog_->damagedKey());
    for (const auto* damaged : {&workspace_->damagedKeys(), &sync_->damagedKeys()}) {
        for (const auto& key : *damaged) {
            if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(key);
        }
    }
    return keys;
}

std::vector<RecoveredSession> HarborlatticeApp::sessionsToKeepAcrossStartOver() const {
    const auto keys = damagedKeys();
    const bool ledgerIsCleared =
        std::find(keys.begin(), keys.end(), SessionCloseLedger::storageKey) != keys.end();
    return workspace_->sessionsToKeepAcrossStartOver(ledgerIsCleared);
}

std::vector<RecoveredValue> HarborlatticeApp::keepCopyAndStartOver(
    const std::vector<RecoveredSession>& sessions, const std::filesystem::path& folder) {
    if (!WorkspaceStore::keepSessionsForRecovery(*defaults_, sessions)) {
        throw StoredDataRecoveryError("the running terminals could not be recorded: " +
                                      defaults_->lastWriteFailure());
    }
    return StoredDataRecovery::keepCopiesAndClear(*defaults_, damagedKeys(), folder);
}

HarborlatticeApp::~HarborlatticeApp() = default;

AppUpdater& HarborlatticeApp::updater() const {
    if (!updater_) {
        updater_ = std::make_unique<AppUpdater>(std::make_unique<AppcastUpdater>(
            UpdateSettings::read(*defaults_).channel(UpdateChannel::standard())));
    }
    return *updater_;
}

UpdateSettings HarborlatticeApp::updateSettings() const {
    return UpdateSettings::read(*defaults_);
}

void HarborlatticeApp::setUpdateSettings(const UpdateSettings& settings) {
    settings.write(*defaults_);
    if (updater_ && updater_->standardController())
        updater_->standardController()->setChannel(settings.channel(UpdateChannel::standard()));
}

}  // namespace hl
