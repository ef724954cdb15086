// The one-line state of sync, and which state a failure of the transport shows.
#pragma once

#include <QString>

#include <exception>

#include "PlatformWords.h"

namespace hl {

struct CloudSyncStatus {
    enum class Kind {
        NeedsFolder,  // `count` shared projects wait for a local folder
        LocalOnly,
        CloudUnavailable,
        Syncing,
        Synced,
        Offline,
        InvalidRemote,
        CloudSchema,
        CloudSigning,
        CloudPermission,
        SyncFailed,
    };
    Kind kind = Kind::Syncing;
    int count = 0;

    static CloudSyncStatus needsFolder(int count) { return {Kind::NeedsFolder, count}; }
    static CloudSyncStatus of(Kind kind) { return {kind, 0}; }

    bool operator==(const CloudSyncStatus&) const = default;

    QString title(TextPlatform platform = runningTextPlatform()) const;
    // The name of the symbol shown beside the title.
    QString systemImage() const;
};

// The status a failed fetch or exchange shows, for every failure but the rejected
// remote document: network trouble is Offline, refused credentials CloudPermission,
// an untrusted certificate CloudSigning, a server that cannot hold the record
// CloudSchema, anything else SyncFailed.
CloudSyncStatus syncStatusForError(const std::exception& error);
// The status any failure of a refresh shows: a record that cannot be read or
// was rejected is InvalidRemote, the rest as syncStatusForError says.
CloudSyncStatus syncStatusForFailure(std::exception_ptr error);

}  // namespace hl
