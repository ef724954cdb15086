// StoredDataRecovery: exclusive, no-follow, synchronised copies, then the clear.
#include "StoredDataRecovery.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "RuntimePaths.h"

namespace hl {

namespace {

std::string timeText(std::chrono::system_clock::time_point now) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &utc);
    return text;
}

[[noreturn]] void fail(const std::string& what) {
    throw StoredDataRecoveryError(what + ": " + std::strerror(errno));
}

// Writes `bytes` to a new file in `folder`; the name gets a counter when taken.
std::filesystem::path writeCopy(const std::filesystem::path& folder, const std::string& stem,
                                const std::string& bytes) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string name =
            stem + (attempt == 0 ? "" : "-" + std::to_string(attempt)) + ".bin";
        const std::filesystem::path file = folder / name;
        const int fd =
            ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0) {
            if (errno == EEXIST) continue;
            fail("cannot create " + file.string());
        }
        std::size_t written = 0;
        while (written < bytes.size()) {
            const ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                ::close(fd);
                ::unlink(file.c_str());
                fail("cannot write " + file.string());
            }
            written += static_cast<std::size_t>(n);
        }
        if (::fchmod(fd, 0600) != 0 || ::fsync(fd) != 0) {
            ::close(fd);
            ::unlink(file.c_str());
            fail("cannot synchronise " + file.string());
        }
        ::close(fd);
        return file;
    }
    errno = EEXIST;
    fail("no free name for " + stem);
}

// Makes `folder` a private folder, refusing anything else at its path.
void preparePrivateFolder(const std::filesystem::path& folder) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) throw StoredDataRecoveryError("cannot create " + folder.string());
    struct stat info {};
    if (::lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
        throw StoredDataRecoveryError(folder.string() + " is not a folder");
    ::chmod(folder.c_str(), 0700);
}

void synchroniseFolder(const std::filesystem::path& folder) {
    const int directory = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0 || ::fsync(directory) != 0) {
        if (directory >= 0) ::close(directory);
        fail("cannot synchronise " + folder.string());
    }
    ::close(directory);
}

// Moves `from` to `to`, which must not exist; across file systems by a copy.
void moveWhole(const std::filesystem::path& from, const std::filesystem::path& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return;
    if (errno != EXDEV) fail("cannot move " + from.string() + " to " + to.string());
    std::error_code error;
    std::filesystem::copy_file(from, to, error);
    const int fd = ::open(to.c_str(), O_RDONLY | O_CLOEXEC);
    if (error || fd < 0 || ::fsync(fd) != 0) {
        if (fd >= 0) ::close(fd);
        fail("cannot copy " + from.string() + " to " + to.string());
    }
    ::close(fd);
    if (::unlink(from.c_str()) != 0) fail("cannot remove " + from.string());
}

}  // namespace

std::vector<RecoveredValue> StoredDataRecovery::moveDatabaseAside(
    const std::filesystem::path& file, const std::filesystem::path& folder,
    std::chrono::system_clock::time_point now) {
    preparePrivateFolder(folder);
    std::string stem = file.filename().string() + "-" + timeText(now);
    for (int attempt = 1; std::filesystem::exists(folder / stem); ++attempt)
        stem = file.filename().string() + "-" + timeText(now) + "-" + std::to_string(attempt);
    std::vector<RecoveredValue> moved;
    const std::string suffixes[] = {"", "-wal", "-shm"};
    for (const auto& suffix : suffixes) {
        const std::filesystem::path from = file.string() + suffix;
        if (::access(from.c_str(), F_OK) != 0) continue;
        const std::filesystem::path to = folder / (stem + suffix);
        moveWhole(from, to);
        ::chmod(to.c_str(), 0600);
        moved.push_back({from.string(), to});
    }
    synchroniseFolder(folder);
    if (file.has_parent_path()) synchroniseFolder(file.parent_path());
    return moved;
}

std::filesystem::path StoredDataRecovery::defaultFolder() {
    return RuntimePaths::supportDirectory() / "Recovered";
}

std::vector<RecoveredValue> StoredDataRecovery::keepCopiesAndClear(
    Preferences& defaults, const std::vector<std::string>& keys,
    const std::filesystem::path& folder, std::chrono::system_clock::time_point now) {
    preparePrivateFolder(folder);
    std::vector<RecoveredValue> copies;
    for (const auto& key : keys) {
        const PreferenceRead stored = defaults.read(key);
        if (stored.isAbsent()) continue;
        if (stored.state == PreferenceReadState::failed)
            throw StoredDataRecoveryError("cannot read " + key + ": " + stored.detail);
        copies.push_back({key, writeCopy(folder, key + "-" + timeText(now), stored.storedBytes)});
    }
    synchroniseFolder(folder);
    for (const auto& copy : copies) {
        if (!defaults.remove(copy.key))
            throw StoredDataRecoveryError("cannot clear " + copy.key + "; its copy is at " +
                                          copy.file.string());
    }
    return copies;
}

}  // namespace hl
