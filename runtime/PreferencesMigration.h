// The one-time move of preferences from the domain of the application's earlier
// identity into the standard domain. Only the retained keys move, an existing
// value is never overwritten, and the legacy domain is left as it was.
#pragma once

#include <array>
#include <map>
#include <optional>
#include <string>

#include "Preferences.h"

namespace hl {

struct PreferencesMigration {
    PreferencesMigration() = delete;

    static constexpr const char* legacyBundleIdentifier = "local.harborlattice.alpha";
    static constexpr const char* markerKey = "harborlattice.preferences.migrated-from-alpha.v1";
    static constexpr std::array<const char*, 9> retainedKeys = {
        "harborlattice.projects.v1",
        "harborlattice.workspace.v3",
        "harborlattice.workspace.simple.v1",
        "harborlattice.pending-closes.v1",
        "harborlattice.sync.suspended-panes.v1",
        "harborlattice.sync.accepted.v1",
        "harborlattice.sync.pending.v1",
        "harborlattice.sync.recovery.v1",
        "harborlattice.sync.device.v1",
    };

    // Moves the retained keys once; `legacyValues`, when given, stands in for the
    // stored legacy domain. A key that holds anything here, readable or not, is
    // left alone; when a read or a write fails the marker stays unset, so the
    // move is tried again at the next start.
    static void importLegacyBundleDomain(
        Preferences& to,
        const std::optional<std::map<std::string, PreferenceValue>>& legacyValues = std::nullopt);

  private:
    static bool copy(const std::map<std::string, PreferenceValue>& values, Preferences& to);
};

}  // namespace hl
