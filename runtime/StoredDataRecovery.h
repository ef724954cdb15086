// StoredDataRecovery: the way out of a read-only start that keeps the bytes.
// Each damaged value is first written, byte for byte, to a private file under
// the support directory's "Recovered" folder; only when every copy is on disk
// are the keys cleared, so that nothing is ever deleted without a copy. A
// database that is no database at all is moved there whole.
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

// A value kept: the key (or, for a whole file, the path it had) and its copy.
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

    // Moves the database file that cannot be read, and its companions, whole
    // into `folder` as "<name>-<UTC time>" (companions keep their suffix), so
    // that a fresh database can be made in its place. Across file systems the
    // file is copied, synchronised, then removed. Throws StoredDataRecoveryError
    // when the database itself could not be moved; it then stays where it was.
    static std::vector<RecoveredValue> moveDatabaseAside(
        const std::filesystem::path& file, const std::filesystem::path& folder = defaultFolder(),
        std::chrono::system_clock::time_point now = std::chrono::system_clock::now());
};

}  // namespace hl
