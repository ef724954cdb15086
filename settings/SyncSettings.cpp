// The sync settings in the preferences, and the transport they name.
#include "SyncSettings.h"

#include <QJsonObject>

#include <stdlib.h>

#include <cstdlib>

#include "FolderSharedStateTransport.h"
#include "SettingsValue.h"
#include "WebDavSharedStateTransport.h"

namespace hl {

namespace {

QUrl withoutUserInfo(QUrl url) {
    url.setUserInfo({});
    return url;
}

}  // namespace

SyncSettings SyncSettings::read(const Preferences& defaults) {
    const QJsonObject object = readSettingsObject(defaults, name);
    SyncSettings settings;
    const QString mode = object.value("mode").toString();
    settings.folder = object.value("folder").toString();
    settings.webDavUrl = withoutUserInfo(QUrl(object.value("url").toString()));
    settings.userName = object.value("user").toString();
    if (mode == QLatin1String("folder") && !settings.folder.isEmpty()) {
        settings.mode = Mode::Folder;
    } else if (mode == QLatin1String("webdav") && settings.webDavUrl.isValid()) {
        settings.mode = Mode::WebDav;
    }
    return settings;
}

bool SyncSettings::write(Preferences& defaults) const {
    QJsonObject object;
    object["mode"] = mode == Mode::Folder   ? QStringLiteral("folder")
                     : mode == Mode::WebDav ? QStringLiteral("webdav")
                                            : QStringLiteral("off");
    object["folder"] = folder;
    object["url"] = withoutUserInfo(webDavUrl).toString();
    object["user"] = userName;
    return writeSettingsObject(defaults, name, object);
}

QString SyncSettings::passwordAccount() const {
    const QUrl url = withoutUserInfo(webDavUrl);
    return userName + "@" + url.host() + ":" +
           QString::number(url.port(url.scheme() == "https" ? 443 : 80)) + url.path();
}

TypedWebDavUrl splitWebDavUrl(const QString& typed) {
    QUrl url(typed.trimmed());
    TypedWebDavUrl split;
    split.userName = url.userName();
    if (!url.password().isEmpty()) split.password = url.password();
    split.url = withoutUserInfo(url);
    return split;
}

std::shared_ptr<SharedStateTransport> makeSyncTransport(const SyncSettings& settings,
                                                        const std::optional<QString>& password) {
    switch (settings.mode) {
        case SyncSettings::Mode::Off:
            break;
        case SyncSettings::Mode::Folder:
            return std::make_shared<FolderSharedStateTransport>(settings.folder);
        case SyncSettings::Mode::WebDav: {
            WebDavSharedStateTransport::Options options;
            if (!settings.userName.isEmpty() || password)
                options.login = std::make_pair(settings.userName, password.value_or(QString()));
            return std::make_shared<WebDavSharedStateTransport>(withoutUserInfo(settings.webDavUrl),
                                                                options);
        }
    }
    return std::make_shared<DisabledSharedStateTransport>();
}

namespace {

std::optional<QString>& takenOverride() {
    static std::optional<QString> taken;
    return taken;
}

}  // namespace

std::optional<QString> syncUrlOverride() {
    const char* value = std::getenv(syncUrlVariable);
    if (value == nullptr) return takenOverride();
    if (QString::fromUtf8(value).trimmed().isEmpty()) return std::nullopt;
    return QString::fromUtf8(value);
}

void takeSyncUrlOverrideFromEnvironment() {
    takenOverride() = syncUrlOverride();
    ::unsetenv(syncUrlVariable);
}

}  // namespace hl
