// PreferencesFile: the database's files as the file system holds them, checked
// before SQLite touches them. SQLite gives the companions it creates beside the
// database (`-wal`, `-shm`) the database's own mode, so a database opened while
// it cannot be written leaves companions that refuse every later save. A file is
// *usable* when its mode lets this user read and write it; the mode bits are
// judged as written, whoever runs the process.
#pragma once

#include <filesystem>
#include <optional>
#include <vector>

#include "Preferences.h"

namespace hl::PreferencesFile {

// `file`-wal and `file`-shm, whether or not they exist.
std::vector<std::filesystem::path> companions(const std::filesystem::path& file);

// The error that names the first of the database, its companions and its folder
// that this user may not read and write, with the way to fix it; absent when all
// are usable (a file not there yet is usable when its folder is).
std::optional<PreferencesError> accessProblem(const std::filesystem::path& file);

// The mode as "0444".
std::string modeText(unsigned mode);

}  // namespace hl::PreferencesFile
