// The update settings in the preferences and the channel they make.
#include "UpdateSettings.h"

#include <QJsonObject>

#include "SettingsValue.h"

namespace hl {

UpdateSettings UpdateSettings::read(const Preferences& defaults) {
    const QJsonObject object = readSettingsObject(defaults, name);
    UpdateSettings settings;
    settings.automaticallyChecks = object.value("automatic").toBool(true);
    settings.feedURL = object.value("feed").toString().trimmed();
    return settings;
}

bool UpdateSettings::write(Preferences& defaults) const {
    QJsonObject object;
    object["automatic"] = automaticallyChecks;
    object["feed"] = feedURL.trimmed();
    return writeSettingsObject(defaults, name, object);
}

UpdateChannel UpdateSettings::channel(UpdateChannel build) const {
    if (!feedURL.trimmed().isEmpty()) build.feedURL = QUrl(feedURL.trimmed());
    build.automaticallyChecks = build.automaticallyChecks && automaticallyChecks;
    build.packageManaged = build.feedURL.isEmpty() || build.installedByPackage;
    return build;
}

}  // namespace hl
