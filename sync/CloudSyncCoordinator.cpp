// CloudSyncCoordinator: the content of this computer as shared, the pending
// change and its debounce, the refresh that decides between deliver, take and
// nothing, and the application of a remote snapshot without echo.
#include "CloudSyncCoordinator.h"

#include <QCollator>
#include <QThreadPool>

#include <map>
#include <set>

#include "SharedSnapshotCodec.h"
#include "StoredDataRecovery.h"

namespace hl {

CloudSyncCoordinator::CloudSyncCoordinator(std::shared_ptr<Preferences> defaults,
                                           std::shared_ptr<SharedStateTransport> transport,
                                           std::optional<DeviceCopyEndpoint> deviceEndpoint,
                                           std::function<void(const QUuid&)> publishChangeSignal,
                                           std::function<SharedDate()> now, QObject* parent)
    : QObject(parent),
      defaults_(std::move(defaults)),
      transport_(transport ? std::move(transport)
                           : std::shared_ptr<SharedStateTransport>(makeSharedStateTransport())),
      deviceEndpoint_(std::move(deviceEndpoint)),
      publishChangeSignal_(std::move(publishChangeSignal)),
      now_(now ? std::move(now) : std::function<SharedDate()>(sharedDateNow)) {
    const PreferenceRead storedDevice = defaults_->read(deviceKey);
    const auto* deviceText =
        storedDevice.isPresent() ? std::get_if<std::string>(&*storedDevice.value) : nullptr;
    const QUuid parsed =
        deviceText ? QUuid::fromString(QString::fromStdString(*deviceText)) : QUuid();
    if (!parsed.isNull()) {
        deviceID_ = parsed;
    } else {
        deviceID_ = QUuid::createUuid();
        // Only a device id that was never stored is made for good; one that
        // could not be read stays as it is, and this run uses a passing id.
        if (!storedDevice.isAbsent()) {
            damagedKeys_.insert(deviceKey);
        } else if (transport_->isConfigured()) {
            defaults_->set(deviceKey, sharedUuidText(deviceID_).toStdString());
        }
    }
    accepted_ = storedSnapshot(acceptedKey);
    pending_ = storedSnapshot(pendingKey);
    if (pending_) {
        sharedContent_ = pending_->content();
    } else if (accepted_) {
        sharedContent_ = accepted_->content();
    }
    readRecoveryList();
    status_ = CloudSyncStatus::of(transport_->isConfigured() ? CloudSyncStatus::Kind::Syncing
                                                             : CloudSyncStatus::Kind::LocalOnly);
    uploadTimer_.setSingleShot(true);
    connect(&uploadTimer_, &QTimer::timeout, this, [this] { refresh(); });
}

CloudSyncCoordinator::~CloudSyncCoordinator() {
    if (catalog_) catalog_->onChange = nullptr;
    if (workspace_) workspace_->onChange = nullptr;
}

std::unique_ptr<CloudSyncCoordinator> CloudSyncCoordinator::disabled(
    std::shared_ptr<Preferences> defaults) {
    if (!defaults) std::abort();  // a coordinator always has a place for its values
    return std::make_unique<CloudSyncCoordinator>(std::move(defaults),
                                                  std::make_shared<DisabledSharedStateTransport>());
}

void CloudSyncCoordinator::attach(ProjectCatalog* catalog, WorkspaceStore* workspace, bool start) {
    catalog_ = catalog;
    workspace_ = workspace;
    knownMappedProjectIDs_ = catalogIDs();
    if (!accepted_ && !pending_) sharedContent_ = localContent();
    QPointer<CloudSyncCoordinator> self(this);
    catalog->onChange = [self] {
        if (self) self->localDidChange();
    };
    workspace->onChange = [self] {
        if (self) self->localDidChange();
    };
    updateUnmappedProjects();
    if (start) {
        QTimer::singleShot(0, this, [this] { refresh(); });
    }
}

std::set<QString> CloudSyncCoordinator::catalogIDs() const {
    std::set<QString> ids;
    if (catalog_) {
        for (const auto& record : catalog_->projects())
            ids.insert(record.id);
    }
    return ids;
}

// --- Local content -----------------------------------------------------------------

SharedContent CloudSyncCoordinator::localContent() {
    if (!catalog_ || !workspace_) return sharedContent_;
    const std::set<QString> local = catalogIDs();
    std::map<QString, SharedProject> projects;
    std::map<QString, SharedWorkspace> workspaces;
    for (const auto& project : sharedContent_.projects)
        projects.emplace(project.id, project);
    for (const auto& workspace : sharedContent_.workspaces)
        workspaces.emplace(workspace.projectID, workspace);
    for (const QString& id : knownMappedProjectIDs_) {
        if (local.count(id) != 0) continue;
        projects.erase(id);  // removed here since the last look
        workspaces.erase(id);
    }
    for (const auto& record : catalog_->projects()) {
        std::optional<ProjectOrigin> origin;
        auto shared = projects.find(record.id);
        if (shared != projects.end() && shared->second.origin) {
            origin = shared->second.origin;
        } else if (deviceEndpoint_) {
            origin = ProjectOrigin{deviceID_, deviceEndpoint_->deviceName, deviceEndpoint_->sshHost,
                                   deviceEndpoint_->sshUser, record.root};
        }
        projects[record.id] = SharedProject{record.id, record.name, origin};
        workspaces.erase(record.id);
    }
    for (const auto& workspace : workspace_->sharedWorkspaces(catalog_->projects()))
        workspaces[workspace.projectID] = workspace;
    knownMappedProjectIDs_ = local;
    SharedContent content;
    for (auto& [id, project] : projects)
        content.projects.append(project);
    for (auto& [id, workspace] : workspaces)
        content.workspaces.append(workspace);
    return content.canonicalized();
}

void CloudSyncCoordinator::localDidChange() {
    if (applyingRemote_ || !catalog_ || !workspace_) return;
    const SharedContent content = localContent();
    if (content == sharedContent_) {
        updateUnmappedProjects();
        return;
    }
    sharedContent_ = content;
    pending_ = SharedSnapshot(deviceID_, content, QUuid::createUuid(), now_());
    storeSnapshot(pendingKey, pending_);
    updateUnmappedProjects();
    setStatus(CloudSyncStatus::of(transport_->isConfigured() ? CloudSyncStatus::Kind::Syncing
                                                             : CloudSyncStatus::Kind::LocalOnly));
    scheduleUpload(uploadDelay);
}

void CloudSyncCoordinator::scheduleUpload(std::chrono::milliseconds delay) {
    uploadTimer_.stop();
    uploadTimer_.start(delay);
}

// --- Refresh -----------------------------------------------------------------------

void CloudSyncCoordinator::offMainThread(std::function<void()> work,
                                         std::function<void(std::exception_ptr)> then) {
    QPointer<CloudSyncCoordinator> self(this);
    // The worker keeps the transport alive even if the coordinator goes first.
    QThreadPool::globalInstance()->start([work = std::move(work), then = std::move(then), self,
                                          keep = transport_]() mutable {
        std::exception_ptr error;
        try {
            work();
        } catch (...) {
            error = std::current_exception();
        }
        if (!self) return;
        QMetaObject::invokeMethod(
            self.data(), [then = std::move(then), error] { then(error); }, Qt::QueuedConnection);
    });
}

void CloudSyncCoordinator::refresh(std::function<void()> done) {
    if (refreshing_) {
        refreshAgain_ = true;
        if (done) done();
        return;
    }
    if (!transport_->isConfigured()) {
        setStatus(CloudSyncStatus::of(CloudSyncStatus::Kind::LocalOnly));
        if (done) done();
        return;
    }
    refreshing_ = true;
    refreshAgain_ = false;
    for (const char* key : {acceptedKey, pendingKey, recoveryKey}) {
        if (damagedKeys_.count(key) != 0) rescueDamagedKey(key);
    }
    if (done) refreshWaiters_.push_back(std::move(done));
    auto available = std::make_shared<bool>(false);
    offMainThread(
        [available, transport = transport_] { *available = transport->accountIsAvailable(); },
        [this, available](std::exception_ptr) {
            if (!*available) {
                setStatus(CloudSyncStatus::of(CloudSyncStatus::Kind::CloudUnavailable));
                endRefresh();
                return;
            }
            auto remote = std::make_shared<std::optional<SharedSnapshot>>();
            if (const std::optional<SharedSnapshot> sent = pending_) {
                const std::optional<QUuid> base =
                    accepted_ ? std::optional<QUuid>(accepted_->revision()) : std::nullopt;
                offMainThread(
                    [remote, sent, base, transport = transport_] {
                        *remote = transport->exchangeFrom(*sent, base);
                    },
                    [this, remote, sent](std::exception_ptr error) {
                        if (error) return failRefresh(error);
                        try {
                            settleWith(*sent, **remote);
                        } catch (...) {
                            return failRefresh(std::current_exception());
                        }
                        endRefresh();
                    });
                return;
            }
            offMainThread([remote, transport = transport_] { *remote = transport->fetch(); },
                          [this, remote](std::exception_ptr error) {
                              if (error) return failRefresh(error);
                              if (!*remote) {
                                  if (pending_) return endRefresh();  // delivered next
                                  publish(localContent(), [this] { endRefresh(); });
                                  return;
                              }
                              const SharedSnapshot& found = **remote;
                              try {
                                  if (accepted_ && found.revision() == accepted_->revision()) {
                                      if (!pending_) setStatus(settledStatus());
                                  } else if (!accepted_ && !pending_) {
                                      preserveCurrentLocalContent(found.content());
                                      applyRemote(found);
                                  } else {
                                      // Another computer's change, maybe met by a local
                                      // change made while the fetch was under way.
                                      takeRemote(found);
                                  }
                              } catch (...) {
                                  return failRefresh(std::current_exception());
                              }
                              endRefresh();
                          });
        });
}

void CloudSyncCoordinator::publish(const SharedContent& content, std::function<void()> finish) {
    std::optional<SharedSnapshot> snapshot;
    try {
        const SharedDate time = now_();
        snapshot = SharedSnapshot(deviceID_, content.validated(), QUuid::createUuid(), time);
        SharedSnapshotCodec::encode(*snapshot);  // throws when it cannot be written
        pending_ = snapshot;
        storeSnapshot(pendingKey, pending_);
    } catch (...) {
        return failRefresh(std::current_exception());
    }
    const std::optional<QUuid> base =
        accepted_ ? std::optional<QUuid>(accepted_->revision()) : std::nullopt;
    auto survivor = std::make_shared<std::optional<SharedSnapshot>>();
    offMainThread([survivor, sent = *snapshot, base,
                   transport = transport_] { *survivor = transport->exchangeFrom(sent, base); },
                  [this, survivor, sent = *snapshot, finish](std::exception_ptr error) {
                      if (error) return failRefresh(error);
                      try {
                          settleWith(sent, **survivor);
                      } catch (...) {
                          return failRefresh(std::current_exception());
                      }
                      finish();
                  });
}

void CloudSyncCoordinator::settleWith(const SharedSnapshot& sent, const SharedSnapshot& survivor) {
    if (survivor.revision() == sent.revision()) {
        acceptLocal(survivor);
    } else {
        takeRemote(survivor);
    }
}

void CloudSyncCoordinator::takeRemote(const SharedSnapshot& remote) {
    if (pending_) {
        mergeWithPending(remote);
    } else {
        // Nothing changed here since the last agreement: a pane that the record
        // no longer holds was closed on another computer, and so is its shell here.
        applyRemote(remote, [](const QUuid&) { return true; });
    }
}

namespace {

// The panes of the tabs (and of the whole projects) that a side lost: their
// shells stay suspended, so that bringing the copy back finds them again.
std::set<QUuid> panesOf(const SharedLosses& losses) {
    std::set<QUuid> panes;
    for (const auto& workspace : losses.content.workspaces) {
        const bool wholeProject = losses.projectIDs.contains(workspace.projectID);
        for (const auto& tab : workspace.tabs) {
            if (!wholeProject && !losses.tabIDs.contains(tab.id)) continue;
            for (const auto& pane : tab.panes)
                panes.insert(pane.id);
        }
    }
    return panes;
}

}  // namespace

void CloudSyncCoordinator::mergeWithPending(const SharedSnapshot& remote) {
    if (!catalog_ || !workspace_) return;
    const SharedSnapshot theirs = remote.validated();
    const SharedSnapshot ours = *pending_;
    const SharedContent base = accepted_ ? accepted_->content() : SharedContent{};
    const SharedMerge merge =
        mergeSharedContent(base, ours.content(), theirs.content(), ours.isNewer(theirs));
    SharedContent merged;
    try {
        merged = merge.merged.validated();
        SharedSnapshotCodec::encode(SharedSnapshot(deviceID_, merged).validated());
    } catch (...) {
        // The two sides cannot be put together: the record's state is taken and
        // this computer's keeps a whole copy.
        preserveWhole(ours, localDeviceName());
        applyRemote(theirs);
        return;
    }
    if (!merge.localLosses.isEmpty()) {
        preserveRecovery({SharedSnapshot(deviceID_, merge.localLosses.content, QUuid::createUuid(),
                                         ours.modifiedAt()),
                          localDeviceName(), merge.localLosses.projectIDs,
                          merge.localLosses.tabIDs});
    }
    if (!merge.remoteLosses.isEmpty()) {
        preserveRecovery({SharedSnapshot(theirs.deviceID(), merge.remoteLosses.content,
                                         QUuid::createUuid(), theirs.modifiedAt()),
                          deviceNameOf(theirs.deviceID(), theirs.content()),
                          merge.remoteLosses.projectIDs, merge.remoteLosses.tabIDs});
    }
    // Panes closed on the other computer close their shells here; those of a
    // copy this computer lost stay suspended with it.
    const auto closes = [kept = panesOf(merge.localLosses)](const QUuid& pane) {
        return kept.count(pane) == 0;
    };
    if (merged == theirs.content()) {
        applyRemote(theirs, closes);
        return;
    }
    const std::vector<QString> blocked = applyToStores(merged, closes);
    accepted_ = theirs;
    pending_ = SharedSnapshot(deviceID_, merged, QUuid::createUuid(), now_());
    sharedContent_ = merged;
    knownMappedProjectIDs_ = catalogIDs();
    storeSnapshot(acceptedKey, accepted_);
    storeSnapshot(pendingKey, pending_);
    updateUnmappedProjects();
    setStatus(openStatus(blocked, CloudSyncStatus::of(CloudSyncStatus::Kind::Syncing)));
    refreshAgain_ = true;  // the merged state goes out at once
}

std::vector<QString> CloudSyncCoordinator::applyToStores(
    const SharedContent& content, const std::function<bool(const QUuid&)>& closesLeavingPane) {
    applyingRemote_ = true;
    struct Reset {
        bool& flag;
        ~Reset() { flag = false; }
    } reset{applyingRemote_};
    catalog_->applySharedProjects(content.projects);
    return workspace_->applySharedWorkspaces(content.workspaces, catalog_->projects(),
                                             closesLeavingPane);
}

QString CloudSyncCoordinator::localDeviceName() const {
    if (deviceEndpoint_ && !deviceEndpoint_->deviceName.isEmpty())
        return deviceEndpoint_->deviceName;
    return QStringLiteral("this computer");
}

QString CloudSyncCoordinator::deviceNameOf(const QUuid& device,
                                           const SharedContent& content) const {
    if (device == deviceID_) return localDeviceName();
    for (const auto* source : {&content, &sharedContent_}) {
        for (const auto& project : source->projects) {
            if (project.origin && project.origin->deviceID == device)
                return project.origin->deviceName;
        }
    }
    return QStringLiteral("another computer");
}

void CloudSyncCoordinator::acceptLocal(const SharedSnapshot& snapshot) {
    if (pending_ && pending_->revision() != snapshot.revision()) {
        // A later local change waits: the record took the earlier one, which is
        // the later one's base from now on.
        accepted_ = snapshot;
        storeSnapshot(acceptedKey, accepted_);
        refreshAgain_ = true;
        if (publishChangeSignal_) publishChangeSignal_(snapshot.revision());
        return;
    }
    accepted_ = snapshot;
    pending_.reset();
    sharedContent_ = snapshot.content();
    storeSnapshot(acceptedKey, accepted_);
    storeSnapshot(pendingKey, std::nullopt);
    updateUnmappedProjects();
    setStatus(settledStatus());
    if (publishChangeSignal_) publishChangeSignal_(snapshot.revision());
}

void CloudSyncCoordinator::applyRemote(const SharedSnapshot& snapshot,
                                       const std::function<bool(const QUuid&)>& closesLeavingPane) {
    if (!catalog_ || !workspace_) return;
    const SharedSnapshot validated = snapshot.validated();
    const std::vector<QString> blocked = applyToStores(validated.content(), closesLeavingPane);
    accepted_ = validated;
    pending_.reset();
    sharedContent_ = validated.content();
    knownMappedProjectIDs_ = catalogIDs();
    storeSnapshot(acceptedKey, accepted_);
    storeSnapshot(pendingKey, std::nullopt);
    updateUnmappedProjects();
    setStatus(openStatus(blocked, CloudSyncStatus::of(CloudSyncStatus::Kind::Synced)));
}

void CloudSyncCoordinator::failRefresh(std::exception_ptr error) {
    const CloudSyncStatus status = syncStatusForFailure(error);
    setStatus(status);
    refreshAgain_ = false;  // a failure waits for the next tick, never a loop
    endRefresh();
}

void CloudSyncCoordinator::endRefresh() {
    refreshing_ = false;
    releaseRetiredTransports();
    if (nextTransport_) {
        auto [next, samePlace] = std::move(*nextTransport_);
        nextTransport_.reset();
        useTransport(std::move(next), samePlace);
    }
    if (refreshAgain_ && pending_) scheduleUpload(std::chrono::milliseconds(0));
    refreshAgain_ = false;
    auto waiters = std::move(refreshWaiters_);
    refreshWaiters_.clear();
    for (auto& done : waiters)
        done();
    emit refreshFinished();
}

// --- Status and bookkeeping --------------------------------------------------------

void CloudSyncCoordinator::updateUnmappedProjects() {
    const std::set<QString> mapped = catalogIDs();
    QList<SharedProject> list;
    // With sync off, what an earlier sync stored names no project to set up here.
    for (const auto& project : sharedContent_.projects) {
        if (transport_->isConfigured() && mapped.count(project.id) == 0) list.append(project);
    }
    QCollator collator;
    collator.setNumericMode(true);
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    std::stable_sort(list.begin(), list.end(), [&](const SharedProject& a, const SharedProject& b) {
        return collator.compare(a.name, b.name) < 0;
    });
    if (list == unmappedProjects_) return;
    unmappedProjects_ = list;
    emit unmappedProjectsChanged();
}

void CloudSyncCoordinator::setStatus(const CloudSyncStatus& status) {
    if (status_ == status) return;
    status_ = status;
    emit statusChanged();
}

CloudSyncStatus CloudSyncCoordinator::settledStatus() const {
    return unmappedProjects_.isEmpty()
               ? CloudSyncStatus::of(CloudSyncStatus::Kind::Synced)
               : CloudSyncStatus::needsFolder(static_cast<int>(unmappedProjects_.size()));
}

CloudSyncStatus CloudSyncCoordinator::openStatus(const std::vector<QString>& blocked,
                                                 const CloudSyncStatus& whenNoneOpen) const {
    std::set<QString> open(blocked.begin(), blocked.end());
    for (const auto& project : unmappedProjects_)
        open.insert(project.id);
    return open.empty() ? whenNoneOpen
                        : CloudSyncStatus::needsFolder(static_cast<int>(open.size()));
}

void CloudSyncCoordinator::storeSnapshot(const char* key,
                                         const std::optional<SharedSnapshot>& snapshot) {
    if (damagedKeys_.count(key) != 0 && !rescueDamagedKey(key)) return;  // no copy yet
    if (!snapshot) {
        defaults_->remove(key);
        return;
    }
    try {
        defaults_->set(key, PreferenceData{SharedSnapshotCodec::encode(*snapshot).toStdString()});
    } catch (...) {
        defaults_->remove(key);
    }
}

std::optional<SharedSnapshot> CloudSyncCoordinator::storedSnapshot(const char* key) {
    const PreferenceRead stored = defaults_->readData(key);
    if (stored.isAbsent()) return std::nullopt;
    try {
        if (stored.isDamaged()) throw SharedSnapshotCodecError("unreadable");
        return SharedSnapshotCodec::decode(
            QByteArray::fromStdString(std::get<PreferenceData>(*stored.value).bytes));
    } catch (...) {
        damagedKeys_.insert(key);  // kept on disk as it is
        return std::nullopt;
    }
}

}  // namespace hl

namespace hl {

bool CloudSyncCoordinator::rescueDamagedKey(const char* key) {
    try {
        const auto folder =
            recoveredFolder_.empty() ? StoredDataRecovery::defaultFolder() : recoveredFolder_;
        for (auto& copy : StoredDataRecovery::keepCopiesAndClear(*defaults_, {key}, folder))
            recoveredFiles_.push_back(copy.file);
    } catch (const StoredDataRecoveryError&) {
        return false;  // kept as it is; tried again at the next write
    }
    damagedKeys_.erase(key);
    return true;
}

}  // namespace hl
