// RuntimePaths: the per-user locations, composed afresh on each call.
#include "RuntimePaths.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <optional>

#include "PathRules.h"

namespace fs = std::filesystem;

namespace hl {

namespace {

// An XDG base directory from the environment, if it is set to an absolute path.
std::optional<fs::path> xdgDirectory(const char* variable) {
    const char* value = std::getenv(variable);
    if (value == nullptr || value[0] != '/') return std::nullopt;
    return fs::path(value);
}

void setPrivateMode(const fs::path& path) {
    fs::permissions(path, fs::perms::owner_all, fs::perm_options::replace);
}

}  // namespace

fs::path RuntimePaths::homeDirectory() {
    if (const char* home = std::getenv("HOME"); home != nullptr && home[0] != '\0') return home;
    if (const passwd* entry = ::getpwuid(::getuid());
        entry != nullptr && entry->pw_dir != nullptr) {
        return entry->pw_dir;
    }
    return "/";
}

fs::path RuntimePaths::supportDirectory() {
#ifdef __APPLE__
    return homeDirectory() / "Library" / "Application Support" / "Harborlattice";
#else
    const fs::path base =
        xdgDirectory("XDG_DATA_HOME").value_or(homeDirectory() / ".local" / "share");
    return base / "Harborlattice";
#endif
}

std::string RuntimePaths::socketPath() {
    if (const char* value = std::getenv("HARBORLATTICE_SOCKET"); value != nullptr) return value;
    return (supportDirectory() / "node.sock").string();
}

fs::path RuntimePaths::scratchRoot() {
    return resolvingSymlinksInPath(standardizedPath((supportDirectory() / "Scratch").string()));
}

fs::path RuntimePaths::ideaInboxDirectory() {
    return supportDirectory() / "Idea Inbox";
}

fs::path RuntimePaths::scratchDirectory(const std::string& uuid) {
    std::string name = uuid;
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return scratchRoot() / name;
}

std::string RuntimePaths::createScratchDirectory(const std::string& uuid) {
    const fs::path root = scratchRoot();
    const fs::path directory = scratchDirectory(uuid);
    fs::create_directories(directory);
    setPrivateMode(root);
    setPrivateMode(directory);
    return directory.string();
}

fs::path RuntimePaths::preferencesFile() {
    const fs::path base = xdgDirectory("XDG_CONFIG_HOME").value_or(homeDirectory() / ".config");
    return base / "harborlattice" / "preferences.sqlite3";
}

}  // namespace hl
