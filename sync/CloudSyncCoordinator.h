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

#include <functional>
#include <memory>
#include <optional>
#include <set>

#include "CloudSyncStatus.h"
#include "DeviceCopyEndpoint.h"
#include "Preferences.h"
#include "ProjectCatalog.h"
#include "SharedSnapshot.h"
#include "SharedStateTransport.h"
#include "WorkspaceStore.h"

namespace hl {

class CloudSyncCoordinator : public QObject {
    Q_OBJECT

  public:
    static constexpr const char* acceptedKey = "harborlattice.sync.accepted.v1";
    static constexpr const char* pendingKey = "harborlattice.sync.pending.v1";
    static constexpr const char* recoveryKey = "harborlattice.sync.recovery.v1";
    static constexpr const char* deviceKey = "harborlattice.sync.device.v1";
    static constexpr int maximumRecoveryCopies = 3;
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
    // Brings back the latest recovery copy as a new local change.
    bool restoreMostRecentRecovery();
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
    // Keys whose stored values could not be read at start; they are kept as they
    // are and never written in this run.
    const std::set<std::string>& damagedKeys() const { return damagedKeys_; }

  signals:
    void statusChanged();
    void unmappedProjectsChanged();
    void recoveryCountChanged();
    // A refresh has ended, however it ended.
    void refreshFinished();

  private:
    SharedContent localContent();
    void localDidChange();
    void publish(const SharedContent& content, std::function<void()> finish);
    void acceptLocal(const SharedSnapshot& snapshot);
    // Throws what validation or encoding throws.
    void applyRemote(const SharedSnapshot& snapshot);
    void settleWith(const SharedSnapshot& sent, const SharedSnapshot& survivor);
    void failRefresh(std::exception_ptr error);
    void endRefresh();
    void updateUnmappedProjects();
    void setStatus(const CloudSyncStatus& status);
    CloudSyncStatus settledStatus() const;
    CloudSyncStatus openStatus(const std::vector<QString>& blocked,
                               const CloudSyncStatus& whenNoneOpen) const;
    std::set<QString> catalogIDs() const;
    void storeSnapshot(const char* key, const std::optional<SharedSnapshot>& snapshot);
    std::optional<SharedSnapshot> storedSnapshot(const char* key);
    bool recoveryListIsReadable() const;
    // Runs `work` on a worker thread and `then` on the main thread with its failure.
    void offMainThread(std::function<void()> work, std::function<void(std::exception_ptr)> then);
    void scheduleUpload(std::chrono::milliseconds delay);

    // Recovery copies.
    QList<SharedSnapshot> recoverySnapshots() const;
    void persistRecovery(const QList<SharedSnapshot>& list);
    void preserveRecovery(const SharedSnapshot& snapshot);
    void preserveCurrentLocalContent(const SharedContent& remote);

    std::shared_ptr<Preferences> defaults_;
    std::shared_ptr<SharedStateTransport> transport_;
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
    std::vector<std::function<void()>> refreshWaiters_;
    QTimer uploadTimer_;
    CloudSyncStatus status_;
    QList<SharedProject> unmappedProjects_;
    int recoveryCount_ = 0;
    std::set<std::string> damagedKeys_;
};

}  // namespace hl
