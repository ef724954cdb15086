// The one narrow door between the sync and the shared record: whether it can be
// reached, the stored snapshot, and a compare-and-swap that stores a candidate
// unless the record already holds something newer.
//
// Words used here: the *record* is one stored document with a *change tag* that
// moves with every save; a *conditional save* writes only while the record still
// carries the tag that was read. Calls block until their answer is complete; make
// them off the main thread, one at a time for each transport object.
#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>

#include "SharedSnapshot.h"

namespace hl {

// A failure met on the way to the record: the network, the server or the file system.
class SharedStateTransportError : public std::exception {
  public:
    enum class Kind {
        Unreachable,           // refused, reset, no route, network down
        TimedOut,              //
        HostNotFound,          // the name did not resolve
        TlsHandshake,          // the secure connection could not be set up
        UntrustedCertificate,  // the server's certificate is not trusted by the system
        HttpStatus,            // the server answered with an unexpected status (code())
        UnusableServer,        // the answers cannot serve as a record with a change tag
        FileSystem,            // a file operation failed (code() is errno)
        Other,
    };
    SharedStateTransportError(Kind kind, int code, QString detail);
    Kind kind() const { return kind_; }
    int code() const { return code_; }
    const QString& detail() const { return detail_; }
    const char* what() const noexcept override { return text_.c_str(); }

  private:
    Kind kind_;
    int code_;
    QString detail_;
    std::string text_;
};

class SharedStateTransport {
  public:
    virtual ~SharedStateTransport() = default;

    // Whether this transport can ever reach a record.
    virtual bool isConfigured() const = 0;
    // Whether the record's place is usable now; never throws.
    virtual bool accountIsAvailable() = 0;
    // The stored snapshot, validated; absent when there is no record. A record that
    // cannot be read throws (SharedStateError, SharedSnapshotCodecError), as does a
    // failure on the way (SharedStateTransportError).
    virtual std::optional<SharedSnapshot> fetch() = 0;
    // Stores `snapshot` unless the record holds a newer one, and gives the survivor.
    virtual SharedSnapshot exchange(const SharedSnapshot& snapshot) = 0;
    // Stores `snapshot` only while the record is absent or still holds the revision
    // `base` (or already holds `snapshot`), and gives the survivor: `snapshot`, or
    // the record as found, newer or older, for the caller to merge with. By
    // default the plain exchange.
    virtual SharedSnapshot exchangeFrom(const SharedSnapshot& snapshot,
                                        const std::optional<QUuid>& base);

    // Tells other instances that `revision` was accepted; by default nobody.
    virtual void publishChange(const QUuid& revision);
    // Calls `onChange` on `context`'s thread, while it lives, whenever another
    // instance may have saved; by default never.
    virtual void watchChanges(QObject* context, std::function<void()> onChange);
};

// Never reaches anything: not configured, no account, nothing stored, and every
// exchange gives back its argument unchanged.
class DisabledSharedStateTransport final : public SharedStateTransport {
  public:
    bool isConfigured() const override { return false; }
    bool accountIsAvailable() override { return false; }
    std::optional<SharedSnapshot> fetch() override { return std::nullopt; }
    SharedSnapshot exchange(const SharedSnapshot& snapshot) override { return snapshot; }
};

// One stored record as read: the encoded snapshot and its change tag.
struct SharedStateRecord {
    QByteArray payload;
    QByteArray tag;
};

// The exchange over two record operations, read and conditional save. Up to three
// attempts, one after the other: a record that is newer than the candidate wins
// without a write, a record that cannot be read ends the exchange before any
// write, and a save that finds the tag moved starts the next attempt.
class RecordSharedStateTransport : public SharedStateTransport {
  public:
    static constexpr int maximumAttempts = 3;

    std::optional<SharedSnapshot> fetch() override;
    SharedSnapshot exchange(const SharedSnapshot& snapshot) override;
    SharedSnapshot exchangeFrom(const SharedSnapshot& snapshot,
                                const std::optional<QUuid>& base) override;

  protected:
    enum class SaveOutcome { Saved, TagMoved };

    // The record, or absent when none exists.
    virtual std::optional<SharedStateRecord> readRecord() = 0;
    // Saves `payload` only while the record carries `expectedTag` (absent: while
    // there is no record).
    virtual SaveOutcome writeRecord(const QByteArray& payload,
                                    const std::optional<QByteArray>& expectedTag) = 0;
    // Brackets each attempt's read-compare-write, e.g. with a lock; by default nothing.
    virtual void beginAttempt() {}
    // Always called after beginAttempt, also when the attempt failed; never throws.
    virtual void endAttempt() noexcept {}

  private:
    std::optional<std::pair<SharedStateRecord, SharedSnapshot>> fetchRecord();
    // The attempts of both exchanges; `wins` says whether the record as found
    // survives without a write.
    SharedSnapshot exchangeWhile(const SharedSnapshot& snapshot,
                                 const std::function<bool(const SharedSnapshot& found,
                                                          const SharedSnapshot& candidate)>& wins);
};

// The variable that names the record's place: a file:// URL of a folder or the
// http(s):// URL of a file on a WebDAV server.
inline constexpr const char* syncUrlVariable = "HARBORLATTICE_SYNC_URL";

// The transport named by HARBORLATTICE_SYNC_URL: unset or empty gives the disabled
// one, a file:// URL the folder transport, anything else the WebDAV transport
// (which refuses, as an unusable server, what is not http or https).
std::unique_ptr<SharedStateTransport> makeSharedStateTransport();
std::unique_ptr<SharedStateTransport> makeSharedStateTransport(const QString& url);

}  // namespace hl
