// CloudSyncCoordinator for the user: copies of local state that another
// computer's state replaced, the command that brings the latest back, and the
// local folder for a shared project that has none here.
//
// The recovery list is a JSON array, newest first, of snapshot objects whose
// "modifiedAt" is seconds since 1 January 2001 UTC: not the bytes of a single
// snapshot, and never read as one. Each entry also names the computer whose
// change was replaced ("deviceName") and, unless it is a whole copy, the objects
// it puts back ("restores": project ids and tab ids).
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "CloudSyncCoordinator.h"
#include "SharedSnapshotCodec.h"

namespace hl {

namespace {

constexpr double secondsFrom1970To2001 = 978307200.0;

QJsonObject recoveryEntry(const SyncRecoveryCopy& copy) {
    QJsonObject object =
        QJsonDocument::fromJson(SharedSnapshotCodec::encode(copy.snapshot)).object();
    object["modifiedAt"] = object["modifiedAt"].toDouble() / 1000.0 - secondsFrom1970To2001;
    object["deviceName"] = copy.deviceName;
    if (!copy.whole) {
        QJsonArray projects, tabs;
        for (const auto& id : copy.projectIDs)
            projects.append(id);
        for (const auto& id : copy.tabIDs)
            tabs.append(sharedUuidText(id));
        object["restores"] = QJsonObject{{"projects", projects}, {"tabs", tabs}};
    }
    return object;
}

SyncRecoveryCopy copyFromEntry(QJsonObject object) {
    if (!object["modifiedAt"].isDouble()) throw SharedSnapshotCodecError("no modifiedAt");
    object["modifiedAt"] = (object["modifiedAt"].toDouble() + secondsFrom1970To2001) * 1000.0;
    SyncRecoveryCopy copy{
        SharedSnapshotCodec::decode(QJsonDocument(object).toJson(QJsonDocument::Compact)),
        object["deviceName"].toString(),
        {},
        {},
        true};
    if (object["restores"].isObject()) {
        copy.whole = false;
        const QJsonObject restores = object["restores"].toObject();
        for (const QJsonValue& id : restores["projects"].toArray())
            copy.projectIDs.append(id.toString());
        for (const QJsonValue& id : restores["tabs"].toArray())
            copy.tabIDs.append(QUuid::fromString(id.toString()));
    }
    return copy;
}

// The entries that read, and whether all did.
std::pair<QList<SyncRecoveryCopy>, bool> parseRecoveryList(const PreferenceRead& stored) {
    if (stored.isAbsent()) return {{}, true};
    if (stored.isDamaged()) return {{}, false};
    const QJsonDocument document = QJsonDocument::fromJson(
        QByteArray::fromStdString(std::get<PreferenceData>(*stored.value).bytes));
    if (!document.isArray()) return {{}, false};
    QList<SyncRecoveryCopy> list;
    bool whole = true;
    for (const QJsonValue& entry : document.array()) {
        try {
            list.append(copyFromEntry(entry.toObject()));
        } catch (...) {
            whole = false;
        }
    }
    return {list, whole};
}

}  // namespace

SharedLosses SyncRecoveryCopy::losses() const {
    SharedLosses losses{snapshot.content(), projectIDs, tabIDs};
    if (whole) {
        losses.projectIDs.clear();
        losses.tabIDs.clear();
        for (const auto& project : snapshot.content().projects)
            losses.projectIDs.append(project.id);
        for (const auto& workspace : snapshot.content().workspaces) {
            for (const auto& tab : workspace.tabs)
                losses.tabIDs.append(tab.id);
        }
    }
    return losses;
}

bool SyncRecoveryCopy::sameObjects(const SyncRecoveryCopy& other) const {
    return snapshot.revision() == other.snapshot.revision() ||
           (snapshot.content() == other.snapshot.content() && projectIDs == other.projectIDs &&
            tabIDs == other.tabIDs && whole == other.whole);
}

void CloudSyncCoordinator::readRecoveryList() {
    const auto [list, whole] = parseRecoveryList(defaults_->readData(recoveryKey));
    if (!whole) damagedKeys_.insert(recoveryKey);  // copied out at the next write
    recoveryCount_ = static_cast<int>(list.size());
}

QList<SyncRecoveryCopy> CloudSyncCoordinator::recoverySnapshots() const {
    return parseRecoveryList(defaults_->readData(recoveryKey)).first;
}

QList<SyncRecoveryCopy> CloudSyncCoordinator::recoveryCopies() const {
    return recoverySnapshots();
}

void CloudSyncCoordinator::persistRecovery(const QList<SyncRecoveryCopy>& list) {
    if (damagedKeys_.count(recoveryKey) != 0 && !rescueDamagedKey(recoveryKey)) return;
    if (list.isEmpty()) {
        defaults_->remove(recoveryKey);
    } else {
        try {
            QJsonArray array;
            for (const auto& copy : list)
                array.append(recoveryEntry(copy));
            defaults_->set(
                recoveryKey,
                PreferenceData{QJsonDocument(array).toJson(QJsonDocument::Compact).toStdString()});
        } catch (...) {
            defaults_->remove(recoveryKey);
        }
    }
    const int count = static_cast<int>(list.size());
    if (recoveryCount_ == count) return;
    recoveryCount_ = count;
    emit recoveryCountChanged();
}

void CloudSyncCoordinator::preserveRecovery(const SyncRecoveryCopy& copy) {
    QList<SyncRecoveryCopy> list = recoverySnapshots();
    for (const auto& entry : list) {
        if (entry.sameObjects(copy)) return;
    }
    list.prepend(copy);
    persistRecovery(list.mid(0, maximumRecoveryCopies));
}

void CloudSyncCoordinator::preserveWhole(const SharedSnapshot& snapshot,
                                         const QString& deviceName) {
    preserveRecovery({snapshot, deviceName, {}, {}, true});
}

void CloudSyncCoordinator::preserveCurrentLocalContent(const SharedContent& remote) {
    const SharedContent content = localContent();
    if (content.isEmpty() || content == remote) return;
    preserveWhole(SharedSnapshot(deviceID_, content, QUuid::createUuid(), now_()),
                  localDeviceName());
}

bool CloudSyncCoordinator::restoreMostRecentRecovery() {
    return restoreRecovery(0);
}

bool CloudSyncCoordinator::restoreRecovery(int index) {
    if (!catalog_ || !workspace_) return false;
    QList<SyncRecoveryCopy> list = recoverySnapshots();
    if (index < 0 || index >= list.size()) return false;
    const SyncRecoveryCopy copy = list.takeAt(index);
    try {
        copy.snapshot.validated();
    } catch (...) {
        // A copy that can no longer be applied is dropped.
        persistRecovery(list);
        return false;
    }
    SharedContent restored;
    try {
        restored = restoreSharedObjects(sharedContent_, copy.losses()).validated();
        SharedSnapshot(deviceID_, restored).validated();
    } catch (...) {
        return false;  // does not fit the present state; the copy stays
    }
    const std::vector<QString> blocked = applyToStores(restored);
    sharedContent_ = restored;
    knownMappedProjectIDs_ = catalogIDs();
    pending_ = SharedSnapshot(deviceID_, restored, QUuid::createUuid(), now_());
    storeSnapshot(pendingKey, pending_);
    persistRecovery(list);
    updateUnmappedProjects();
    setStatus(openStatus(blocked, CloudSyncStatus::of(CloudSyncStatus::Kind::Syncing)));
    scheduleUpload(std::chrono::milliseconds(0));
    return true;
}

std::optional<ProjectRecord> CloudSyncCoordinator::mapProject(const SharedProject& shared,
                                                              const QString& rawRoot) {
    if (!catalog_ || !workspace_) return std::nullopt;
    if (!sharedContent_.projects.contains(shared)) return std::nullopt;  // a stale row
    std::optional<ProjectRecord> candidate;
    try {
        candidate = ProjectRecord::create(shared.name, rawRoot, shared.id);
    } catch (...) {
        return std::nullopt;
    }
    for (const auto& workspace : sharedContent_.workspaces) {
        if (workspace.projectID != shared.id) continue;
        for (const auto& tab : workspace.tabs) {
            for (const auto& pane : tab.panes) {
                if (!WorkspaceStore::resolvedPath(pane.relativeCWD, candidate->root))
                    return std::nullopt;
            }
        }
    }
    std::optional<ProjectRecord> record;
    std::vector<QString> blocked;
    {
        applyingRemote_ = true;
        struct Reset {
            bool& flag;
            ~Reset() { flag = false; }
        } reset{applyingRemote_};
        record = catalog_->add(shared.name, rawRoot, shared.id);
        if (!record) return std::nullopt;
        blocked =
            workspace_->applySharedWorkspaces(sharedContent_.workspaces, catalog_->projects());
    }
    knownMappedProjectIDs_ = catalogIDs();
    updateUnmappedProjects();
    setStatus(openStatus(blocked, CloudSyncStatus::of(CloudSyncStatus::Kind::Synced)));
    return record;
}

}  // namespace hl
