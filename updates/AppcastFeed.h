// The update feed: an RSS "appcast" whose items each offer one version of the
// application as an archive, with the archive's Ed25519 signature. This file
// reads a feed, picks the newest item for this system, compares versions and
// checks an archive's signature; fetching is the updater's.
#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <optional>
#include <stdexcept>
#include <vector>

namespace hl {

// The feed is not an appcast: malformed XML, or no RSS channel.
class AppcastError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct AppcastItem {
    QString title;
    QString version;         // compared with the running version
    QString displayVersion;  // shown to the user; the version when the feed gives none
    QUrl archiveURL;         // resolved against the feed's address
    std::optional<qint64> length;
    QString edSignature;  // base64, as the feed gives it
    QString os;           // empty for every system
};

struct AppcastFeed {
    static constexpr const char* sparkleNamespace =
        "http://www.andymatuschak.org/xml-namespaces/sparkle";

    std::vector<AppcastItem> items;

    // Items without an archive address or a version are left out. Throws AppcastError.
    static AppcastFeed parse(const QByteArray& bytes, const QUrl& feedURL);
    // The newest item meant for this system (no "os", or "linux").
    std::optional<AppcastItem> newestItem() const;
};

// Compares dotted versions part by part, numerically where both parts start
// with a number; a missing part counts as 0, and a part with text after its
// number is a pre-release, below the bare number ("1.0.0b" < "1.0.0").
// Negative, zero or positive.
int compareVersions(const QString& a, const QString& b);

enum class SignatureCheck { valid, invalid, badKey };
// Checks a detached Ed25519 signature (base64, 64 bytes) of `archive` against
// a public key (base64, 32 bytes).
SignatureCheck verifyArchiveSignature(const QByteArray& archive, const QString& signature,
                                      const QString& publicKey);

}  // namespace hl
