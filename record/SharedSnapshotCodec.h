// The JSON form of the shared snapshot: keys sorted, no spaces, dates as
// milliseconds since 1970 (a number, possibly with a fraction), UUIDs as upper-case
// text, optional members left out when absent. The encoding is a deterministic
// function of the value; decoding yields only validated snapshots.
#pragma once

#include <QByteArray>

#include <stdexcept>

#include "SharedSnapshot.h"

namespace hl {

// The document is not JSON, lacks a member, or holds a value of the wrong kind;
// or a value cannot be written as JSON.
class SharedSnapshotCodecError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
    QString errorDescription() const;
};

class SharedSnapshotCodec {
  public:
    SharedSnapshotCodec() = delete;

    // Throws SharedSnapshotCodecError for a date that is not finite or text that
    // is not valid Unicode.
    static QByteArray encode(const SharedSnapshot& snapshot);
    // Decodes and validates; throws SharedSnapshotCodecError or SharedStateError.
    // Unknown keys are ignored; an optional member may be missing or null.
    static SharedSnapshot decode(const QByteArray& bytes);
};

}  // namespace hl
