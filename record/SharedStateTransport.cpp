// The exchange algorithm shared by the record-based transports.
#include "SharedStateTransport.h"

#include "SharedSnapshotCodec.h"

namespace hl {

SharedStateTransportError::SharedStateTransportError(Kind kind, int code, QString detail)
    : kind_(kind), code_(code), detail_(std::move(detail)), text_(detail_.toStdString()) {}

void SharedStateTransport::publishChange(const QUuid&) {}

void SharedStateTransport::watchChanges(QObject*, std::function<void()>) {}

std::optional<std::pair<SharedStateRecord, SharedSnapshot>>
RecordSharedStateTransport::fetchRecord() {
    if (!isConfigured()) throw SharedStateError(SharedStateError::Kind::NotConfigured);
    auto record = readRecord();
    if (!record) return std::nullopt;
    SharedSnapshot snapshot = SharedSnapshotCodec::decode(record->payload);
    return std::make_pair(std::move(*record), std::move(snapshot));
}

std::optional<SharedSnapshot> RecordSharedStateTransport::fetch() {
    auto found = fetchRecord();
    if (!found) return std::nullopt;
    return found->second;
}

SharedSnapshot SharedStateTransport::exchangeFrom(const SharedSnapshot& snapshot,
                                                  const std::optional<QUuid>&) {
    return exchange(snapshot);
}

SharedSnapshot RecordSharedStateTransport::exchange(const SharedSnapshot& snapshot) {
    return exchangeWhile(snapshot,
                         [](const SharedSnapshot& found, const SharedSnapshot& candidate) {
                             return found.isNewer(candidate);
                         });
}

SharedSnapshot RecordSharedStateTransport::exchangeFrom(const SharedSnapshot& snapshot,
                                                        const std::optional<QUuid>& base) {
    return exchangeWhile(
        snapshot, [base](const SharedSnapshot& found, const SharedSnapshot& candidate) {
            return found.revision() != base && found.revision() != candidate.revision();
        });
}

SharedSnapshot RecordSharedStateTransport::exchangeWhile(
    const SharedSnapshot& snapshot,
    const std::function<bool(const SharedSnapshot&, const SharedSnapshot&)>& wins) {
    if (!isConfigured()) throw SharedStateError(SharedStateError::Kind::NotConfigured);
    const SharedSnapshot candidate = snapshot.validated();
    const QByteArray payload = SharedSnapshotCodec::encode(candidate);
    for (int attempt = 0; attempt < maximumAttempts; ++attempt) {
        struct AttemptScope {
            RecordSharedStateTransport& transport;
            ~AttemptScope() { transport.endAttempt(); }
        };
        beginAttempt();
        AttemptScope scope{*this};
        const auto found = fetchRecord();
        if (found && wins(found->second, candidate)) return found->second;
        const std::optional<QByteArray> tag =
            found ? std::optional<QByteArray>(found->first.tag) : std::nullopt;
        if (writeRecord(payload, tag) == SaveOutcome::Saved) return candidate;
    }
    throw SharedStateError(SharedStateError::Kind::CloudConflict);
}

}  // namespace hl
