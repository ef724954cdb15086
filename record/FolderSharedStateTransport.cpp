// The folder transport: a record file with a generation number as its change tag,
// conditional saves under an exclusive lock, and the revision file as the signal.
#include "FolderSharedStateTransport.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFileInfo>

#include <cerrno>
#include <cstring>

namespace hl {

namespace {

constexpr const char* recordName = "harborlattice-state-v1.record";
constexpr const char* lockName = "harborlattice-state-v1.lock";
constexpr const char* revisionName = "harborlattice-state-v1.revision";
constexpr const char* headerWord = "harborlattice-state-v1 ";
// Anything larger cannot hold a snapshot within its limit.
constexpr qsizetype maximumRecordBytes = 4 * SharedSnapshot::maximumEncodedBytes;

[[noreturn]] void fileFailure(const QString& what) {
    const int code = errno;
    throw SharedStateTransportError(SharedStateTransportError::Kind::FileSystem, code,
                                    what + ": " + QString::fromLocal8Bit(std::strerror(code)));
}

// The whole of a file, or absent when it does not exist.
std::optional<QByteArray> readFileAt(int folderFd, const char* name, qsizetype limit) {
    UniqueFd fd(::openat(folderFd, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) {
        if (errno == ENOENT) return std::nullopt;
        fileFailure(QStringLiteral("cannot open %1").arg(name));
    }
    QByteArray bytes;
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) fileFailure(QStringLiteral("cannot read %1").arg(name));
        if (n == 0) return bytes;
        bytes.append(buffer, n);
        if (bytes.size() > limit) throw SharedStateError(SharedStateError::Kind::TooLarge);
    }
}

void writeAll(int fd, const QByteArray& bytes) {
    qsizetype done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.constData() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) fileFailure(QStringLiteral("cannot write"));
        done += n;
    }
}

// Holds an exclusive lock on the folder's lock file for its life.
UniqueFd lockExclusively(int folderFd) {
    UniqueFd fd(
        ::openat(folderFd, lockName, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!fd) fileFailure(QStringLiteral("cannot open the lock file"));
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
#ifdef F_OFD_SETLKW
    const int command = F_OFD_SETLKW;  // per open file, so threads exclude each other too
#else
    const int command = F_SETLKW;
#endif
    while (::fcntl(fd.get(), command, &lock) != 0) {
        if (errno != EINTR) fileFailure(QStringLiteral("cannot lock the record"));
    }
    return fd;
}

}  // namespace

FolderSharedStateTransport::FolderSharedStateTransport(QString folder)
    : folder_(std::move(folder)) {}

FolderSharedStateTransport::~FolderSharedStateTransport() {
    delete watcher_;
}

bool FolderSharedStateTransport::accountIsAvailable() {
    const QByteArray path = QFile::encodeName(folder_);
    struct stat info {};
    return ::stat(path.constData(), &info) == 0 && S_ISDIR(info.st_mode) &&
           ::access(path.constData(), R_OK | W_OK | X_OK) == 0;
}

UniqueFd FolderSharedStateTransport::openFolder() const {
    UniqueFd fd(::open(QFile::encodeName(folder_).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd) fileFailure(QStringLiteral("cannot open the sync folder %1").arg(folder_));
    return fd;
}

std::optional<SharedStateRecord> FolderSharedStateTransport::readRecordIn(int folderFd) const {
    const auto bytes = readFileAt(folderFd, recordName, maximumRecordBytes);
    if (!bytes) return std::nullopt;
    const qsizetype lineEnd = bytes->indexOf('\n');
    const QByteArray header = bytes->left(lineEnd);
    const QByteArray tag = header.mid(qsizetype(std::strlen(headerWord)));
    bool isNumber = false;
    tag.toULongLong(&isNumber);
    if (lineEnd < 0 || !header.startsWith(headerWord) || !isNumber) {
        throw SharedStateError(SharedStateError::Kind::InvalidCloudRecord);
    }
    return SharedStateRecord{bytes->mid(lineEnd + 1), tag};
}

std::optional<SharedStateRecord> FolderSharedStateTransport::readRecord() {
    const UniqueFd folderFd = openFolder();
    return readRecordIn(folderFd.get());
}

RecordSharedStateTransport::SaveOutcome FolderSharedStateTransport::writeRecord(
    const QByteArray& payload, const std::optional<QByteArray>& expectedTag) {
    const UniqueFd folderFd = openFolder();
    const auto current = readRecordIn(folderFd.get());
    if (current.has_value() != expectedTag.has_value() ||
        (current && current->tag != *expectedTag)) {
        return SaveOutcome::TagMoved;
    }
    const qulonglong generation = current ? current->tag.toULongLong() + 1 : 1;
    replaceFile(folderFd.get(), recordName,
                headerWord + QByteArray::number(generation) + '\n' + payload);
    return SaveOutcome::Saved;
}

void FolderSharedStateTransport::beginAttempt() {
    const UniqueFd folderFd = openFolder();
    lock_ = lockExclusively(folderFd.get());
}

void FolderSharedStateTransport::endAttempt() noexcept {
    lock_.reset();
}

void FolderSharedStateTransport::replaceFile(int folderFd, const char* name,
                                             const QByteArray& bytes) const {
    const QByteArray temporary = QByteArray(".") + name + "." +
                                 QUuid::createUuid().toString(QUuid::Id128).toLatin1() + ".tmp";
    UniqueFd fd(::openat(folderFd, temporary.constData(),
                         O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!fd) fileFailure(QStringLiteral("cannot create a temporary file"));
    try {
        writeAll(fd.get(), bytes);
        if (::fsync(fd.get()) != 0) fileFailure(QStringLiteral("cannot flush %1").arg(name));
        if (::renameat(folderFd, temporary.constData(), folderFd, name) != 0) {
            fileFailure(QStringLiteral("cannot rename into %1").arg(name));
        }
    } catch (...) {
        ::unlinkat(folderFd, temporary.constData(), 0);
        throw;
    }
    ::fsync(folderFd);
}

void FolderSharedStateTransport::publishChange(const QUuid& revision) {
    const QString text = sharedUuidText(revision);
    {
        std::lock_guard guard(mutex_);
        lastPublished_ = text;
    }
    try {
        const UniqueFd folderFd = openFolder();
        replaceFile(folderFd.get(), revisionName, text.toLatin1());
    } catch (const SharedStateTransportError&) {
        // The signal only hastens the peers' next refresh; their tick still comes.
    }
}

void FolderSharedStateTransport::watchChanges(QObject* context, std::function<void()> onChange) {
    delete watcher_;
    onChange_ = std::move(onChange);
    {
        std::lock_guard guard(mutex_);
        lastSeen_ = currentRevisionText();
    }
    watcher_ = new QFileSystemWatcher(context);
    watcher_->addPath(folder_);
    QObject::connect(watcher_, &QFileSystemWatcher::directoryChanged, watcher_,
                     [this] { folderChanged(); });
    QObject::connect(watcher_, &QFileSystemWatcher::fileChanged, watcher_,
                     [this] { folderChanged(); });
    folderChanged();
}

QString FolderSharedStateTransport::currentRevisionText() const {
    try {
        const UniqueFd folderFd = openFolder();
        return QString::fromLatin1(readFileAt(folderFd.get(), revisionName, 64).value_or(""));
    } catch (const std::exception&) {
        return {};
    }
}

void FolderSharedStateTransport::folderChanged() {
    const QString revisionPath = folder_ + "/" + revisionName;
    if (watcher_ && !watcher_->files().contains(revisionPath) && QFileInfo::exists(revisionPath)) {
        watcher_->addPath(revisionPath);
    }
    const QString seen = currentRevisionText();
    {
        std::lock_guard guard(mutex_);
        if (seen.isEmpty() || seen == lastSeen_) return;
        lastSeen_ = seen;
        if (seen == lastPublished_) return;
    }
    if (onChange_) onChange_();
}

}  // namespace hl
