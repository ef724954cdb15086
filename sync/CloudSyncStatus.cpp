// Titles and symbols of the sync status, and the mapping of failures to it.
#include "CloudSyncStatus.h"

#include <cerrno>

#include "SharedSnapshotCodec.h"
#include "SharedStateTransport.h"

namespace hl {

QString CloudSyncStatus::title(TextPlatform platform) const {
    switch (kind) {
        case Kind::NeedsFolder:
            return QString::number(count) + platformText(platform, " iCloud ", " Cloud ") +
                   (count == 1 ? QStringLiteral("project needs")
                               : QStringLiteral("projects need")) +
                   QStringLiteral(" local folder setup");
        case Kind::LocalOnly:
            return platformText(platform, "Local only · CloudKit entitlement missing",
                                "Local only · sync is not set up");
        case Kind::CloudUnavailable:
            return platformText(platform, "iCloud unavailable · working locally",
                                "Cloud unavailable · working locally");
        case Kind::Syncing:
            return platformText(platform, "Syncing with iCloud…", "Syncing with Cloud…");
        case Kind::Synced:
            return platformText(platform, "Synced with iCloud", "Synced with Cloud");
        case Kind::Offline:
            return QStringLiteral("Offline · changes saved locally");
        case Kind::InvalidRemote:
            return platformText(platform, "iCloud data rejected · local state preserved",
                                "Cloud data rejected · local state preserved");
        case Kind::CloudSchema:
            return platformText(platform, "CloudKit schema unavailable · changes saved locally",
                                "Sync location not supported · changes saved locally");
        case Kind::CloudSigning:
            return platformText(platform, "CloudKit signing mismatch · changes saved locally",
                                "Sync server certificate not trusted · changes saved locally");
        case Kind::CloudPermission:
            return platformText(platform, "iCloud permission denied · changes saved locally",
                                "Cloud permission denied · changes saved locally");
        case Kind::SyncFailed:
            return platformText(platform, "iCloud sync failed · changes saved locally",
                                "Cloud sync failed · changes saved locally");
    }
    return {};
}

QString CloudSyncStatus::systemImage() const {
    switch (kind) {
        case Kind::NeedsFolder:
            return QStringLiteral("folder.badge.questionmark");
        case Kind::Syncing:
            return QStringLiteral("arrow.triangle.2.circlepath.icloud");
        case Kind::Synced:
            return QStringLiteral("checkmark.icloud");
        default:
            return QStringLiteral("icloud.slash");
    }
}

namespace {

CloudSyncStatus::Kind statusForHttp(int code) {
    using Kind = CloudSyncStatus::Kind;
    if (code >= 500 || code == 429) return Kind::Offline;
    if (code == 401 || code == 403) return Kind::CloudPermission;
    if (code == 400 || code == 405 || code == 409 || code == 415) return Kind::CloudSchema;
    return Kind::SyncFailed;
}

CloudSyncStatus::Kind statusForFileSystem(int code) {
    using Kind = CloudSyncStatus::Kind;
    switch (code) {
        case EACCES:
        case EPERM:
        case EROFS:
            return Kind::CloudPermission;
        case ENOENT:
        case ENOTDIR:
        case ESTALE:
        case ENOTCONN:
        case EHOSTDOWN:
        case EHOSTUNREACH:
        case ETIMEDOUT:
            return Kind::Offline;
        default:
            return Kind::SyncFailed;
    }
}

}  // namespace

CloudSyncStatus syncStatusForError(const std::exception& error) {
    using Kind = CloudSyncStatus::Kind;
    const auto* transport = dynamic_cast<const SharedStateTransportError*>(&error);
    if (transport == nullptr) return CloudSyncStatus::of(Kind::SyncFailed);
    switch (transport->kind()) {
        case SharedStateTransportError::Kind::Unreachable:
        case SharedStateTransportError::Kind::TimedOut:
        case SharedStateTransportError::Kind::HostNotFound:
        case SharedStateTransportError::Kind::TlsHandshake:
            return CloudSyncStatus::of(Kind::Offline);
        case SharedStateTransportError::Kind::UntrustedCertificate:
            return CloudSyncStatus::of(Kind::CloudSigning);
        case SharedStateTransportError::Kind::HttpStatus:
            return CloudSyncStatus::of(statusForHttp(transport->code()));
        case SharedStateTransportError::Kind::UnusableServer:
            return CloudSyncStatus::of(Kind::CloudSchema);
        case SharedStateTransportError::Kind::FileSystem:
            return CloudSyncStatus::of(statusForFileSystem(transport->code()));
        case SharedStateTransportError::Kind::Other:
            break;
    }
    return CloudSyncStatus::of(Kind::SyncFailed);
}

CloudSyncStatus syncStatusForFailure(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const SharedStateError& failure) {
        const bool rejected = failure.kind() != SharedStateError::Kind::CloudConflict &&
                              failure.kind() != SharedStateError::Kind::NotConfigured;
        return rejected ? CloudSyncStatus::of(CloudSyncStatus::Kind::InvalidRemote)
                        : syncStatusForError(failure);
    } catch (const SharedSnapshotCodecError&) {
        return CloudSyncStatus::of(CloudSyncStatus::Kind::InvalidRemote);
    } catch (const std::exception& failure) {
        return syncStatusForError(failure);
    } catch (...) {
    }
    return CloudSyncStatus::of(CloudSyncStatus::Kind::SyncFailed);
}

}  // namespace hl
