// StoredDataRecovery: the way out of a read-only start that keeps the bytes.
// Each damaged value is first written, byte for byte, to a private file under
// the support directory's "Recovered" folder; only when every copy is on disk
// are the keys cleared, so that nothing is ever deleted without a copy.
#pragma once

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "Preferences.h"

namespace hl {

class StoredDataRecoveryError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct RecoveredValue {
    std::string key;
    std::filesystem::path file;
};

struct StoredDataRecovery {
    StoredDataRecovery() = delete;

    // supportDirectory/Recovered.
    static std::filesystem::path defaultFolder();

    // Copies the stored bytes of each key that holds a row into `folder` (made
    // 0700) as "<key>-<UTC time>.bin" with mode 0600, synchronised, then removes
    // those keys. Throws StoredDataRecoveryError, with no key removed, when a
    // value cannot be read or a copy cannot be made.
    static std::vector<RecoveredValue> keepCopiesAndClear(
        Preferences& defaults, const std::vector<std::string>& keys,
        const std::filesystem::path& folder = defaultFolder(),
        std::chrono::system_clock::time_point now = std::chrono::system_clock::now());
};

}  // namespace hl
