// PreferencesMigration: the marker decides, the retained keys move, nothing is
// overwritten.
#include "PreferencesMigration.h"

namespace hl {

void PreferencesMigration::importLegacyBundleDomain(
    Preferences& to, const std::optional<std::map<std::string, PreferenceValue>>& legacyValues) {
    if (to.object(markerKey)) return;
    copy(legacyValues ? *legacyValues : to.persistentDomain(legacyBundleIdentifier), to);
    to.setBool(markerKey, true);
}

void PreferencesMigration::copy(const std::map<std::string, PreferenceValue>& values,
                                Preferences& to) {
    for (const char* key : retainedKeys) {
        auto legacy = values.find(key);
        if (legacy != values.end() && !to.object(key)) to.set(key, legacy->second);
    }
}

}  // namespace hl
