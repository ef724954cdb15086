// Reading and writing a settings page's JSON object in the preferences.
#include "SettingsValue.h"

#include <QJsonDocument>

namespace hl {

QJsonObject readSettingsObject(const Preferences& defaults, const char* name) {
    const std::optional<std::string> text = defaults.text(settingsKey(name));
    if (!text) return {};
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(*text));
    return document.isObject() ? document.object() : QJsonObject();
}

bool writeSettingsObject(Preferences& defaults, const char* name, const QJsonObject& object) {
    return defaults.set(settingsKey(name),
                        QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString());
}

}  // namespace hl
