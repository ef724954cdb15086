// PreferencesFile: mode checks of the database, its companions and its folder.
#include "PreferencesFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

namespace hl::PreferencesFile {

namespace {

// True when the mode bits that apply to this user grant `read` and `write`
// (and `search` for a folder).
bool modeGrants(const struct stat& info, bool folder) {
    const mode_t needed = folder ? 07 : 06;
    mode_t granted = info.st_mode & 07;
    if (info.st_uid == ::geteuid()) {
        granted = (info.st_mode >> 6) & 07;
    } else if (info.st_gid == ::getegid()) {
        granted = (info.st_mode >> 3) & 07;
    }
    return (granted & needed) == needed;
}

PreferencesError notWritable(const std::filesystem::path& path, const struct stat& info,
                             bool folder) {
    const std::string what = folder ? "The folder " : "The file ";
    return PreferencesError(PreferencesError::Kind::notWritable,
                            what + path.string() + " has mode " + modeText(info.st_mode & 07777) +
                                " and cannot be written. Make it readable and writable for "
                                "your user (chmod " +
                                (folder ? "700 " : "600 ") + path.string() + "), then try again.",
                            path);
}

}  // namespace

std::vector<std::filesystem::path> companions(const std::filesystem::path& file) {
    return {file.string() + "-wal", file.string() + "-shm"};
}

std::string modeText(unsigned mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", mode);
    return text;
}

std::optional<PreferencesError> accessProblem(const std::filesystem::path& file) {
    struct stat info {};
    if (::stat(file.c_str(), &info) == 0) {
        if (!S_ISREG(info.st_mode)) {
            return PreferencesError(PreferencesError::Kind::cannotOpen,
                                    file.string() + " is not a file.", file);
        }
        if (!modeGrants(info, false)) return notWritable(file, info, false);
    }
    bool companionMissing = false;
    for (const auto& companion : companions(file)) {
        if (::stat(companion.c_str(), &info) != 0) {
            companionMissing = true;
            continue;
        }
        if (!S_ISREG(info.st_mode) || !modeGrants(info, false))
            return notWritable(companion, info, false);
    }
    // A missing file or companion is made in the folder.
    const auto folder = file.has_parent_path() ? file.parent_path() : ".";
    if ((companionMissing || ::access(file.c_str(), F_OK) != 0) &&
        ::stat(folder.c_str(), &info) == 0 && !modeGrants(info, true)) {
        return notWritable(folder, info, true);
    }
    return std::nullopt;
}

}  // namespace hl::PreferencesFile
