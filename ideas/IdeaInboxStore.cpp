// Saving an idea: the record, the private folder and the exclusive publish.
#include "IdeaInboxStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <nlohmann/json.hpp>

#include "PathRules.h"

namespace fs = std::filesystem;

namespace hl {

namespace {

std::string describe(IdeaInboxStore::SaveError::Case which, const fs::path& folder,
                     const std::string& reason) {
    const std::string because = reason.empty() ? "" : " (" + reason + ")";
    switch (which) {
        case IdeaInboxStore::SaveError::invalidIdea:
            return "The idea is empty or longer than " +
                   std::to_string(IdeaInboxStore::maximumIdeaBytes) + " bytes.";
        case IdeaInboxStore::SaveError::unsafeDirectory:
            return "The idea inbox folder " + folder.string() + " is not private to this user" +
                   because + ".";
        case IdeaInboxStore::SaveError::writeFailed:
            return "The idea report could not be written in " + folder.string() + because + ".";
    }
    return "";
}

// The system's words for the last failure.
std::string lastError() {
    return std::strerror(errno);
}

std::string lowerUuid(const QUuid& id) {
    return id.toString(QUuid::WithoutBraces).toLower().toStdString();
}

// Renames within one folder, never replacing what is at `to`.
int renameExclusive(int directory, const char* from, const char* to) {
#ifdef __APPLE__
    return ::renameatx_np(directory, from, directory, to, RENAME_EXCL);
#else
    return ::renameat2(directory, from, directory, to, RENAME_NOREPLACE);
#endif
}

// Removes the temporary file of a save that did not publish it.
class TemporaryName {
  public:
    TemporaryName(int directory, std::string name)
        : directory_(directory), name_(std::move(name)) {}
    ~TemporaryName() {
        if (!published_) ::unlinkat(directory_, name_.c_str(), 0);
    }
    void published() { published_ = true; }
    const char* c_str() const { return name_.c_str(); }

  private:
    int directory_;
    std::string name_;
    bool published_ = false;
};

}  // namespace

IdeaInboxStore::SaveError::SaveError(Case which, const fs::path& folder, const std::string& reason)
    : std::runtime_error(describe(which, folder, reason)), which_(which) {}

std::string IdeaInboxRecord::encoded() const {
    const nlohmann::json record = {
        {"schemaVersion", schemaVersion},
        {"id", id.toString(QUuid::WithoutBraces).toUpper().toStdString()},
        {"createdAt", createdAt.toUTC().toString(Qt::ISODate).toStdString()},
        {"processingConsent", processingConsent},
        {"idea", idea.toStdString()},
    };
    return record.dump(2);
}

std::string IdeaInboxStore::reportName(const QUuid& id) {
    return lowerUuid(id) + ".queued.json";
}

bool IdeaInboxStore::writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

UniqueFd IdeaInboxStore::openPrivateDirectory(const fs::path& directory) {
    const fs::path standard(standardizedPath(directory.string()));
    const fs::path parent = standard.parent_path();
    fs::create_directories(parent);  // a failure here is passed up as it is
    if (standardizedPath(parent.string()) !=
        standardizedPath(resolvingSymlinksInPath(parent.string())))
        throw SaveError(SaveError::unsafeDirectory, standard, "a link in the path to it");
    if (::mkdir(standard.c_str(), 0700) != 0 && errno != EEXIST)
        throw SaveError(SaveError::unsafeDirectory, standard, "cannot be made: " + lastError());
    UniqueFd fd(::open(standard.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) {
        const std::string reason = errno == ELOOP || errno == ENOTDIR
                                       ? "it is a link or not a folder"
                                       : "cannot be opened: " + lastError();
        throw SaveError(SaveError::unsafeDirectory, standard, reason);
    }
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0 || !S_ISDIR(info.st_mode))
        throw SaveError(SaveError::unsafeDirectory, standard, "not a folder");
    if (info.st_uid != ::geteuid()) {
        throw SaveError(SaveError::unsafeDirectory, standard,
                        "owned by user " + std::to_string(info.st_uid) + ", not by user " +
                            std::to_string(::geteuid()));
    }
    if (::fchmod(fd.get(), 0700) != 0)
        throw SaveError(SaveError::unsafeDirectory, standard, "mode cannot be set: " + lastError());
    return fd;
}

SavedIdea IdeaInboxStore::save(const QString& idea, const fs::path& directory, const QDateTime& now,
                               const QUuid& id) {
    const QString trimmed = idea.trimmed();
    if (trimmed.isEmpty() || static_cast<std::size_t>(trimmed.toUtf8().size()) > maximumIdeaBytes)
        throw SaveError(SaveError::invalidIdea);
    const std::string encoded = IdeaInboxRecord{id, now, trimmed}.encoded();
    if (encoded.size() > maximumRecordBytes) throw SaveError(SaveError::invalidIdea);

    const UniqueFd folder = openPrivateDirectory(directory);
    const fs::path where(standardizedPath(directory.string()));
    const std::string finalName = reportName(id);
    TemporaryName temporary(folder.get(),
                            "." + finalName + "." + lowerUuid(QUuid::createUuid()) + ".tmp");
    {
        UniqueFd file(::openat(folder.get(), temporary.c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!file) {
            temporary.published();  // nothing was created under that name
            throw SaveError(SaveError::writeFailed, where, lastError());
        }
        if (!writeAll(file.get(), encoded) || ::fchmod(file.get(), 0600) != 0 ||
            ::fsync(file.get()) != 0)
            throw SaveError(SaveError::writeFailed, where, lastError());
    }
    if (renameExclusive(folder.get(), temporary.c_str(), finalName.c_str()) != 0)
        throw SaveError(SaveError::writeFailed, where, lastError());
    temporary.published();
    if (::fsync(folder.get()) != 0) {
        const std::string reason = lastError();
        // A report that cannot be made durable is taken back.
        ::unlinkat(folder.get(), finalName.c_str(), 0);
        ::fsync(folder.get());
        throw SaveError(SaveError::writeFailed, where, reason);
    }
    return {id, fs::path(standardizedPath(directory.string())) / finalName};
}

}  // namespace hl
