// The settings a user chooses in the Settings dialog are kept in the
// preferences, one JSON object under "harborlattice.settings.<name>.v1" for
// each page. An absent or unreadable value reads as the page's defaults; a
// value the user writes replaces it.
#pragma once

#include <QJsonObject>

#include <string>

#include "Preferences.h"

namespace hl {

inline std::string settingsKey(const char* name) {
    return std::string("harborlattice.settings.") + name + ".v1";
}

// The stored object, or an empty one when there is none that can be read.
QJsonObject readSettingsObject(const Preferences& defaults, const char* name);
// False when the preferences did not take it.
bool writeSettingsObject(Preferences& defaults, const char* name, const QJsonObject& object);

}  // namespace hl
