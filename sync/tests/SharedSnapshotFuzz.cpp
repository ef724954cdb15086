// Feeds arbitrary bytes to the snapshot decoder. Whatever decodes must be
// validated, encode within the size limit and decode again to the same value.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "SharedSnapshotCodec.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    try {
        const hl::SharedSnapshot snapshot = hl::SharedSnapshotCodec::decode(bytes);
        const QByteArray encoded = hl::SharedSnapshotCodec::encode(snapshot);
        if (encoded.size() > hl::SharedSnapshot::maximumEncodedBytes) std::abort();
        if (!(snapshot.validated() == snapshot)) std::abort();
        if (!(hl::SharedSnapshotCodec::decode(encoded) == snapshot)) std::abort();
        if (hl::SharedSnapshotCodec::encode(hl::SharedSnapshotCodec::decode(encoded)) != encoded) {
            std::abort();
        }
    } catch (const hl::SharedStateError&) {
    } catch (const hl::SharedSnapshotCodecError&) {
    }
    return 0;
}
