// Where Harborlattice keeps its state: the support directory, the node's socket,
// the scratch directories of panes without a project, the idea inbox and the
// preferences database. Every value is worked out afresh on each call.
#pragma once

#include <filesystem>
#include <string>

namespace hl {

struct RuntimePaths {
    RuntimePaths() = delete;

    // $XDG_DATA_HOME/Harborlattice, else ~/.local/share/Harborlattice (macOS:
    // ~/Library/Application Support/Harborlattice).
    static std::filesystem::path supportDirectory();
    // $HARBORLATTICE_SOCKET exactly as set (even empty), else supportDirectory/node.sock.
    static std::string socketPath();
    // supportDirectory/Scratch, standardised, with symbolic links resolved.
    static std::filesystem::path scratchRoot();
    static std::filesystem::path ideaInboxDirectory();
    // scratchRoot/<uuid in lower case>.
    static std::filesystem::path scratchDirectory(const std::string& uuid);
    // Creates the scratch directory and sets it and scratchRoot to 0700; returns
    // its path. Throws std::filesystem::filesystem_error on the first failing step.
    static std::string createScratchDirectory(const std::string& uuid);

    // $XDG_CONFIG_HOME/harborlattice/preferences.sqlite3, else under ~/.config.
    static std::filesystem::path preferencesFile();
    // The user's home directory: $HOME, else the password database.
    static std::filesystem::path homeDirectory();
};

}  // namespace hl
