// UpdaterConfiguration: the recorded settings of the update channel. The
// updater takes its channel from here; nothing else reads these values.
#pragma once

#ifndef HARBORLATTICE_UPDATE_FEED_URL
#define HARBORLATTICE_UPDATE_FEED_URL ""
#endif

namespace hl {

struct UpdaterConfiguration {
    UpdaterConfiguration() = delete;

    // The channel's feed, chosen when the build is configured; empty means this
    // build leaves its updates to the package manager that installed it.
    static constexpr const char* feedURL = HARBORLATTICE_UPDATE_FEED_URL;
    // Where dpkg lists the files of each installed package.
    static constexpr const char* packageDatabase = "/var/lib/dpkg/info";
    static constexpr int scheduledCheckInterval = 3600;  // seconds
    static constexpr bool automaticallyChecks = true;
    static constexpr bool allowsAutomaticUpdates = false;
    static constexpr bool automaticallyInstalls = false;
    // The Ed25519 key that verifies update archives: 32 bytes in base64.
    static constexpr const char* publicKey = "pU3KGCUwux1tEyze1iN7LtkeP3IfyxlxF0SU1kk8nVw=";
    // What stands in the key's place in a build whose channel is not set up.
    static constexpr const char* publicKeyPlaceholder =
        "REPLACE_WITH_GENERATED_SPARKLE_ED25519_PUBLIC_KEY";
};

}  // namespace hl
