// UpdaterConfiguration: the recorded settings of the update channel. The
// updater takes its channel from here; nothing else reads these values.
#pragma once

namespace hl {

struct UpdaterConfiguration {
    UpdaterConfiguration() = delete;

    // The channel's host is a deployment setting; the path is fixed.
    static constexpr const char* feedURL = "https://updates.harborlattice.example/appcast.xml";
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
