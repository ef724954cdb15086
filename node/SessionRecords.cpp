// SessionRecords: the place's checks, the records, and the check of what an
// earlier node left.
#include "SessionRecords.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "Shell.h"

namespace hl::node {

namespace {

// A record's name, parsed: the shell's pid and start time.
std::optional<std::pair<pid_t, unsigned long long>> parseRecord(const char* name) {
    long pid = 0;
    unsigned long long started = 0;
    int end = 0;
    if (std::sscanf(name, "%ld.%llu%n", &pid, &started, &end) != 2 || name[end] != '\0' || pid <= 1)
        return std::nullopt;
    return std::make_pair(static_cast<pid_t>(pid), started);
}

}  // namespace

SessionRecords::SessionRecords(const std::string& socketPath) : path_(socketPath + ".sessions") {
    if (::mkdir(path_.c_str(), 0700) != 0 && errno != EEXIST) return;
    UniqueFd place(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat info;
    if (!place || ::fstat(place.get(), &info) != 0 || !S_ISDIR(info.st_mode) ||
        info.st_uid != ::geteuid())
        return;
    if ((info.st_mode & 07777) != 0700 && ::fchmod(place.get(), 0700) != 0) return;
    place_ = std::move(place);
}

std::string SessionRecords::add(pid_t shell) {
    const auto started = processStartTime(shell);
    if (!place_ || !started) return {};
    const std::string name = std::to_string(shell) + "." + std::to_string(*started);
    UniqueFd record(::openat(place_.get(), name.c_str(),
                             O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    return record ? name : std::string();
}

void SessionRecords::remove(const std::string& record) {
    if (place_ && !record.empty()) ::unlinkat(place_.get(), record.c_str(), 0);
}

std::vector<SessionRecords::Leftover> SessionRecords::takeLeftovers() {
    std::vector<Leftover> leftovers;
    if (!place_) return leftovers;
    const int listing = ::openat(place_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* folder = listing >= 0 ? ::fdopendir(listing) : nullptr;
    if (!folder) {
        if (listing >= 0) ::close(listing);
        return leftovers;
    }
    std::vector<std::string> stale;
    while (dirent* entry = ::readdir(folder)) {
        if (entry->d_name[0] == '.') continue;
        const auto parsed = parseRecord(entry->d_name);
        bool same = false;
        if (parsed) {
            const auto [leader, started] = *parsed;
            if (const auto now = processStartTime(leader)) {
                struct stat owner;
                same = *now == started &&
                       ::stat(("/proc/" + std::to_string(leader)).c_str(), &owner) == 0 &&
                       owner.st_uid == ::geteuid();
            } else {
                same = sessionHasOwnProcess(leader);
            }
            if (same) leftovers.push_back({leader, entry->d_name});
        }
        if (!same) stale.push_back(entry->d_name);
    }
    ::closedir(folder);
    for (const auto& name : stale)
        ::unlinkat(place_.get(), name.c_str(), 0);
    return leftovers;
}

}  // namespace hl::node
