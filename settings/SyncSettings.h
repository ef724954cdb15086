// SyncSettings: where this computer keeps the shared record, as the user chose
// it: nowhere, a shared folder, or one file on a WebDAV server. The password of
// a WebDAV file is not part of it: it lives in the desktop's Secret Service
// (SyncPasswordStore), and the URL kept here never carries one.
#pragma once

#include <QString>
#include <QUrl>

#include <memory>
#include <optional>

#include "Preferences.h"
#include "SharedStateTransport.h"

namespace hl {

struct SyncSettings {
    static constexpr const char* name = "sync";
    enum class Mode { Off, Folder, WebDav };

    Mode mode = Mode::Off;
    QString folder;    // with Folder: an absolute path
    QUrl webDavUrl;    // with WebDav: http(s), without user name or password
    QString userName;  // with WebDav; may be empty

    bool operator==(const SyncSettings&) const = default;

    static SyncSettings read(const Preferences& defaults);
    bool write(Preferences& defaults) const;
    // The account the password is kept under: "user@host:port/path".
    QString passwordAccount() const;
};

// Splits a typed URL: the user name and password it carries are taken out
// (the password given back, to be kept in the Secret Service).
struct TypedWebDavUrl {
    QUrl url;
    QString userName;
    std::optional<QString> password;
};
TypedWebDavUrl splitWebDavUrl(const QString& typed);

// The transport for `settings`; `password` with WebDav only.
std::shared_ptr<SharedStateTransport> makeSyncTransport(const SyncSettings& settings,
                                                        const std::optional<QString>& password);

// The value of HARBORLATTICE_SYNC_URL when it is set and not empty: it then
// names the place instead of the settings (the tests use it).
std::optional<QString> syncUrlOverride();
// Takes HARBORLATTICE_SYNC_URL out of this process's environment, so that no
// child of the application (the node, its shells, a copy's ssh) receives it;
// syncUrlOverride() still gives it. Called once, before the application is built.
void takeSyncUrlOverrideFromEnvironment();

}  // namespace hl
