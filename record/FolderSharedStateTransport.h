// The shared record as a file in a folder (file:///path/to/folder): any file
// system with POSIX advisory locks, a local disk or NFS. Serves one computer with
// several instances, and the tests.
//
// Files in the folder: "harborlattice-state-v1.record" holds a header line with
// the change tag, a generation number, and then the encoded snapshot;
// "harborlattice-state-v1.lock" is locked around each read-compare-write;
// "harborlattice-state-v1.revision" holds the last accepted revision, and its
// change is the signal to other instances. Every write goes to a private temporary
// file that is renamed into place.
#pragma once

#include <QFileSystemWatcher>
#include <QPointer>

#include <mutex>

#include "SharedStateTransport.h"
#include "UniqueFd.h"

namespace hl {

class FolderSharedStateTransport final : public RecordSharedStateTransport {
  public:
    // `folder` must exist; it is never created here.
    explicit FolderSharedStateTransport(QString folder);
    ~FolderSharedStateTransport() override;

    const QString& folder() const { return folder_; }
    bool isConfigured() const override { return true; }
    // The folder is a directory that this user may read and write.
    bool accountIsAvailable() override;
    void publishChange(const QUuid& revision) override;
    // Watches the folder from `context`'s thread; call it on that thread.
    void watchChanges(QObject* context, std::function<void()> onChange) override;

  protected:
    std::optional<SharedStateRecord> readRecord() override;
    // Called only between beginAttempt and endAttempt, under the folder's lock.
    SaveOutcome writeRecord(const QByteArray& payload,
                            const std::optional<QByteArray>& expectedTag) override;
    // Takes the exclusive lock for the whole read-compare-write.
    void beginAttempt() override;
    void endAttempt() noexcept override;

  private:
    UniqueFd openFolder() const;
    std::optional<SharedStateRecord> readRecordIn(int folderFd) const;
    // Writes `bytes` to a temporary file and renames it over `name`.
    void replaceFile(int folderFd, const char* name, const QByteArray& bytes) const;
    // The revision file's text; empty when it is missing or unreadable.
    QString currentRevisionText() const;
    void folderChanged();

    QString folder_;
    UniqueFd lock_;
    std::mutex mutex_;
    QString lastPublished_;
    QString lastSeen_;
    QPointer<QFileSystemWatcher> watcher_;
    std::function<void()> onChange_;
};

}  // namespace hl
