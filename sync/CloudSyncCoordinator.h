// CloudSyncCoordinator: keeps the project catalog and the workspaces in step with
// the one shared snapshot of the user's computers. A local change is kept on disk
// as `pending` until the record has taken it; each refresh decides whether to
// deliver it, to take the remote version or to do nothing, and a remote version
// is applied to the stores without coming back as a local change.
//
// Lives on the main thread. Transport calls block, so each runs on a worker
// thread and its answer continues on the main thread; only one refresh runs at a
// time, which also keeps the transport to one call at a time.
#pragma once

#include <QObject>
#include <QTimer>
#include <QUuid>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>

#include "CloudSyncStatus.h"
#include "DeviceCopyEndpoint.h"
#include "Preferences.h"
#include "ProjectCatalog.h"
#include "SharedContentMerge.h"
#include "SharedSnapshot.h"
#include "SharedStateTransport.h"
#include "WorkspaceStore.h"

namespace hl {

// One copy of the recovery list: objects that another computer's change
// replaced, as the computer that lost them had them. The snapshot's device and
// date say whose change it was and when it was made; `whole` copies (the state
// of a computer that joined the record, or a copy of an earlier version) put
// back every object they hold.
struct SyncRecoveryCopy {
    SharedSnapshot snapshot;
    QString deviceName;
    QStringList projectIDs;
    QList<QUuid> tabIDs;
    bool whole = false;

    // The objects this copy puts back.
    SharedLosses losses() const;
    bool sameObjects(const SyncRecoveryCopy& other) const;
};

class CloudSyncCoordinator : public QObject {
    Q_OBJECT

  public:
    static constexpr const char* acceptedKey = "harborlattice.sync.accepted.v1";
    static constexpr const char* pendingKey = "harborlattice.sync.pending.v1";
    static constexpr const char* recoveryKey = "harborlattice.sync.recovery.v1";
    static constexpr const char* deviceKey = "harborlattice.sync.device.v1";
    static constexpr int maximumRecoveryCopies = 100;
    static constexpr std::chrono::milliseconds uploadDelay{450};

    // `transport` empty means the one HARBORLATTICE_SYNC_URL names.
    CloudSyncCoordinator(std::shared_ptr<Preferences> defaults,
                         std::shared_ptr<SharedStateTransport> transport = nullptr,
                         std::optional<DeviceCopyEndpoint> deviceEndpoint = std::nullopt,
                         std::function<void(const QUuid&)> publishChangeSignal = {},
                         std::function<SharedDate()> now = {}, QObject* parent = nullptr);
    ~CloudSyncCoordinator() override;

    // A coordinator that never syncs, on the given preferences.
    static std::unique_ptr<CloudSyncCoordinator> disabled(std::shared_ptr<Preferences> defaults);

    // Hooks both stores; with `start`, the first refresh follows once the main
    // thread is free.
    void attach(ProjectCatalog* catalog, WorkspaceStore* workspace, bool start = true);
    // Settles with the record; a call while one runs returns at once. `done` runs
    // on the main thread when this call has ended.
    void refresh(std::function<void()> done = {});
    // Uses `transport` from now on (null: never syncs). The state taken from the
    // former record is no longer a base: the next refresh reads the new record
    // and joins it as a computer that comes to it, keeping this computer's state
    // whole in the recovery list when the record's state replaces it. A change
    // of place while a refresh runs waits for that refresh to end. `samePlace`
    // says that the transport reaches the record the accepted state came from
    // (the same place, now with its password): that state then stays the base.
    void setTransport(std::shared_ptr<SharedStateTransport> transport, bool samePlace = false);
    // Brings back the latest recovery copy as a new local change.
    bool restoreMostRecentRecovery();
    // Puts back the objects of the copy at `index` of `recoveryCopies()` into the
    // present state, as a new local change; nothing else is removed or replaced.
    bool restoreRecovery(int index);
    // The recovery list, newest first; entries that cannot be read are left out.
    QList<SyncRecoveryCopy> recoveryCopies() const;
    // Where unreadable sync values are copied before they are replaced.
    void setRecoveredFolder(std::filesystem::path folder) { recoveredFolder_ = std::move(folder); }
    // Gives a shared project its folder on this computer.
    std::optional<ProjectRecord> mapProject(const SharedProject& shared, const QString& rawRoot);

    const CloudSyncStatus& status() const { return status_; }
    const QList<SharedProject>& unmappedProjects() const { return unmappedProjects_; }
    int recoveryCount() const { return recoveryCount_; }
    const QUuid& deviceID() const { return deviceID_; }
    const std::optional<SharedSnapshot>& accepted() const { return accepted_; }
    const std::optional<SharedSnapshot>& pending() const { return pending_; }
    const SharedContent& sharedContent() const { return sharedContent_; }
    bool isRefreshing() const { return refreshing_; }
    SharedStateTransport& transport() const { return *transport_; }
    // Keys whose stored values could not be read and could not yet be copied
    // out; they are not written until their copy is on disk.
    const std::set<std::string>& damagedKeys() const { return damagedKeys_; }
    // The files that unreadable sync values were copied to in this run.
    const std::vector<std::filesystem::path>& recoveredFiles() const { return recoveredFiles_; }

  signals:
    void statusChanged();
    void unmappedProjectsChanged();
    void recoveryCountChanged();
    // A refresh has ended, however it ended.
    void refreshFinished();
    // Another transport is in use; its change signal has to be watched.
    void transportChanged();

  private:
    SharedContent localContent();
    void localDidChange();
    void publish(const SharedContent& content, std::function<void()> finish);
    void acceptLocal(const SharedSnapshot& snapshot);
    // Throws what validation or encoding throws. `closesLeavingPane` as for
    // WorkspaceStore::applySharedWorkspaces; empty suspends every pane that leaves.
    void applyRemote(const SharedSnapshot& snapshot,
                     const std::function<bool(const QUuid&)>& closesLeavingPane = {});
    void settleWith(const SharedSnapshot& sent, const SharedSnapshot& survivor);
    // A remote snapshot other than the accepted one: taken as it is when nothing
    // is pending, merged with the pending change otherwise.
    void takeRemote(const SharedSnapshot& remote);
    void mergeWithPending(const SharedSnapshot& remote);
    // Writes `content` into the stores without echo; gives the blocked projects.
    std::vector<QString> applyToStores(
        const SharedContent& content,
        const std::function<bool(const QUuid&)>& closesLeavingPane = {});
    QString deviceNameOf(const QUuid& device, const SharedContent& content) const;
    QString localDeviceName() const;
    // Copies the bytes of an unreadable key to the Recovered folder and clears it,
    // so that it can be written again; false while that cannot be done.
    bool rescueDamagedKey(const char* key);
    void failRefresh(std::exception_ptr error);
    void endRefresh();
    void useTransport(std::shared_ptr<SharedStateTransport> transport, bool samePlace);
    void releaseRetiredTransports();
    void updateUnmappedProjects();
    void setStatus(const CloudSyncStatus& status);
    CloudSyncStatus settledStatus() const;
    CloudSyncStatus openStatus(const std::vector<QString>& blocked,
                               const CloudSyncStatus& whenNoneOpen) const;
    std::set<QString> catalogIDs() const;
    void storeSnapshot(const char* key, const std::optional<SharedSnapshot>& snapshot);
    std::optional<SharedSnapshot> storedSnapshot(const char* key);
    // Runs `work` on a worker thread and `then` on the main thread with its failure.
    void offMainThread(std::function<void()> work, std::function<void(std::exception_ptr)> then);
    void scheduleUpload(std::chrono::milliseconds delay);

    // Recovery copies.
    QList<SyncRecoveryCopy> recoverySnapshots() const;
    void persistRecovery(const QList<SyncRecoveryCopy>& list);
    void preserveRecovery(const SyncRecoveryCopy& copy);
    void preserveWhole(const SharedSnapshot& snapshot, const QString& deviceName);
    // Reads the stored list; an entry that cannot be read has its bytes copied out
    // and is dropped from the list.
    void readRecoveryList();
    void preserveCurrentLocalContent(const SharedContent& remote);

    std::shared_ptr<Preferences> defaults_;
    std::shared_ptr<SharedStateTransport> transport_;
    // The transport to change to once the running refresh has ended.
    std::optional<std::pair<std::shared_ptr<SharedStateTransport>, bool>> nextTransport_;
    // Transports no longer in use, let go of on the main thread once no worker
    // holds them (they may own objects of this thread, such as a watcher).
    std::vector<std::shared_ptr<SharedStateTransport>> retiredTransports_;
    std::optional<DeviceCopyEndpoint> deviceEndpoint_;
    std::function<void(const QUuid&)> publishChangeSignal_;
    std::function<SharedDate()> now_;
    QUuid deviceID_;
    QPointer<ProjectCatalog> catalog_;
    QPointer<WorkspaceStore> workspace_;
    std::optional<SharedSnapshot> accepted_;
    std::optional<SharedSnapshot> pending_;
    SharedContent sharedContent_;
    std::set<QString> knownMappedProjectIDs_;
    bool applyingRemote_ = false;
    bool refreshing_ = false;
    // A refresh was asked for while one ran.
    bool refreshAgain_ = false;
    std::vector<std::function<void()>> refreshWaiters_;
    QTimer uploadTimer_;
    CloudSyncStatus status_;
    QList<SharedProject> unmappedProjects_;
    int recoveryCount_ = 0;
    std::set<std::string> damagedKeys_;
    std::filesystem::path recoveredFolder_;
    std::vector<std::filesystem::path> recoveredFiles_;
};

}  // namespace hl
