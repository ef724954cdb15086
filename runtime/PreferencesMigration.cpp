// PreferencesMigration: the marker decides, the retained keys move, nothing is
// overwritten, and the marker is set only once every move is on disk.
#include "PreferencesMigration.h"

namespace hl {

void PreferencesMigration::importLegacyBundleDomain(
    Preferences& to, const std::optional<std::map<std::string, PreferenceValue>>& legacyValues) {
    // Any row under the marker, even one this version cannot read, means done; a
    // read that failed means "ask again at the next start".
    if (!to.read(markerKey).isAbsent()) return;
    std::map<std::string, PreferenceValue> values;
    if (legacyValues) {
        values = *legacyValues;
    } else {
        auto domain = to.readDomain(legacyBundleIdentifier);
        if (domain.failed) return;
        values = std::move(domain.values);
    }
    if (copy(values, to)) to.setBool(markerKey, true);
}

bool PreferencesMigration::copy(const std::map<std::string, PreferenceValue>& values,
                                Preferences& to) {
    bool complete = true;
    for (const char* key : retainedKeys) {
        auto legacy = values.find(key);
        if (legacy == values.end()) continue;
        const auto existing = to.read(key);
        if (existing.state == PreferenceReadState::failed) {
            complete = false;
        } else if (existing.isAbsent() && !to.set(key, legacy->second)) {
            complete = false;
        }
    }
    return complete;
}

}  // namespace hl
