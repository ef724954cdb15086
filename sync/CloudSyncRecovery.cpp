// CloudSyncCoordinator for the user: copies of local state that another
// computer's state replaced, the command that brings the latest back, and the
// local folder for a shared project that has none here.
//
// The recovery list is a JSON array, newest first, of snapshot objects whose
// "modifiedAt" is seconds since 1 January 2001 UTC: not the bytes of a single
// snapshot, and never read as one.
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "CloudSyncCoordinator.h"
#include "SharedSnapshotCodec.h"

namespace hl {

namespace {

constexpr double secondsFrom1970To2001 = 978307200.0;

QJsonObject recoveryEntry(const SharedSnapshot& snapshot) {
    QJsonObject object = QJsonDocument::fromJson(SharedSnapshotCodec::encode(snapshot)).object();
    object["modifiedAt"] = object["modifiedAt"].toDouble() / 1000.0 - secondsFrom1970To2001;
    return object;
}

SharedSnapshot snapshotFromEntry(QJsonObject object) {
    if (!object["modifiedAt"].isDouble()) throw SharedSnapshotCodecError("no modifiedAt");
    object["modifiedAt"] = (object["modifiedAt"].toDouble() + secondsFrom1970To2001) * 1000.0;
    return SharedSnapshotCodec::decode(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

}  // namespace

bool CloudSyncCoordinator::recoveryListIsReadable() const {
    const PreferenceRead stored = defaults_->readData(recoveryKey);
    if (stored.isAbsent()) return true;
    if (stored.isDamaged()) return false;
    const QJsonDocument document = QJsonDocument::fromJson(
        QByteArray::fromStdString(std::get<PreferenceData>(*stored.value).bytes));
    if (!document.isArray()) return false;
    try {
        for (const QJsonValue& entry : document.array())
            snapshotFromEntry(entry.toObject());
    } catch (...) {
        return false;
    }
    return true;
}

QList<SharedSnapshot> CloudSyncCoordinator::recoverySnapshots() const {
    if (damagedKeys_.count(recoveryKey) != 0) return {};
    const auto bytes = defaults_->data(recoveryKey);
    if (!bytes) return {};
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(bytes->bytes));
    if (!document.isArray()) return {};
    QList<SharedSnapshot> list;
    for (const QJsonValue& entry : document.array()) {
        try {
            list.append(snapshotFromEntry(entry.toObject()));
        } catch (...) {
            return {};
        }
    }
    return list;
}

void CloudSyncCoordinator::persistRecovery(const QList<SharedSnapshot>& list) {
    if (damagedKeys_.count(recoveryKey) != 0) return;  // an unreadable list stays as it is
    if (list.isEmpty()) {
        defaults_->remove(recoveryKey);
    } else {
        try {
            QJsonArray array;
            for (const auto& snapshot : list)
                array.append(recoveryEntry(snapshot));
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

void CloudSyncCoordinator::preserveRecovery(const SharedSnapshot& snapshot) {
    QList<SharedSnapshot> list = recoverySnapshots();
    for (const auto& entry : list) {
        if (entry.revision() == snapshot.revision()) return;
    }
    list.prepend(snapshot);
    persistRecovery(list.mid(0, maximumRecoveryCopies));
}

void CloudSyncCoordinator::preserveCurrentLocalContent(const SharedContent& remote) {
    const SharedContent content = localContent();
    if (content.isEmpty() || content == remote) return;
    preserveRecovery(SharedSnapshot(deviceID_, content, QUuid::createUuid(), now_()));
}

bool CloudSyncCoordinator::restoreMostRecentRecovery() {
    if (!catalog_ || !workspace_) return false;
    QList<SharedSnapshot> list = recoverySnapshots();
    if (list.isEmpty()) return false;
    const SharedSnapshot head = list.takeFirst();
    std::optional<SharedSnapshot> validated;
    try {
        validated = head.validated();
    } catch (...) {
        persistRecovery(list);
        return false;
    }
    std::vector<QString> blocked;
    applyingRemote_ = true;
    catalog_->applySharedProjects(validated->content().projects);
    blocked =
        workspace_->applySharedWorkspaces(validated->content().workspaces, catalog_->projects());
    applyingRemote_ = false;
    sharedContent_ = validated->content();
    knownMappedProjectIDs_ = catalogIDs();
    pending_ = SharedSnapshot(deviceID_, validated->content(), QUuid::createUuid(), now_());
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
