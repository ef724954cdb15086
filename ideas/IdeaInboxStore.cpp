// Saving an idea: the record, the private folder and the exclusive publish.
#include "IdeaInboxStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "PathRules.h"

namespace fs = std::filesystem;

namespace hl {

namespace {

const char* describe(IdeaInboxStore::SaveError::Case which) {
    switch (which) {
        case IdeaInboxStore::SaveError::invalidIdea:
            return "The idea is empty or too long.";
        case IdeaInboxStore::SaveError::unsafeDirectory:
            return "The idea inbox folder is not private to this user.";
        case IdeaInboxStore::SaveError::writeFailed:
            return "The idea report could not be written.";
    }
    return "";
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

IdeaInboxStore::SaveError::SaveError(Case which)
    : std::runtime_error(describe(which)), which_(which) {}

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
        throw SaveError(SaveError::unsafeDirectory);
    if (::mkdir(standard.c_str(), 0700) != 0 && errno != EEXIST)
        throw SaveError(SaveError::unsafeDirectory);
    UniqueFd fd(::open(standard.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) throw SaveError(SaveError::unsafeDirectory);
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::geteuid() ||
        ::fchmod(fd.get(), 0700) != 0)
        throw SaveError(SaveError::unsafeDirectory);
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
    const std::string finalName = reportName(id);
    TemporaryName temporary(folder.get(),
                            "." + finalName + "." + lowerUuid(QUuid::createUuid()) + ".tmp");
    {
        UniqueFd file(::openat(folder.get(), temporary.c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!file) {
            temporary.published();  // nothing was created under that name
            throw SaveError(SaveError::writeFailed);
        }
        if (!writeAll(file.get(), encoded) || ::fchmod(file.get(), 0600) != 0 ||
            ::fsync(file.get()) != 0)
            throw SaveError(SaveError::writeFailed);
    }
    if (renameExclusive(folder.get(), temporary.c_str(), finalName.c_str()) != 0)
        throw SaveError(SaveError::writeFailed);
    temporary.published();
    if (::fsync(folder.get()) != 0) {
        // A report that cannot be made durable is taken back.
        ::unlinkat(folder.get(), finalName.c_str(), 0);
        ::fsync(folder.get());
        throw SaveError(SaveError::writeFailed);
    }
    return {id, fs::path(standardizedPath(directory.string())) / finalName};
}

}  // namespace hl
