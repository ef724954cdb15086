// Reading an appcast, ordering versions and checking signatures.
#include "AppcastFeed.h"

#include <QStringList>
#include <QXmlStreamReader>

#include <sodium.h>

namespace hl {

namespace {

std::optional<QByteArray> strictBase64(const QString& text, qsizetype size) {
    const auto decoded = QByteArray::fromBase64Encoding(text.trimmed().toLatin1(),
                                                        QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded || decoded.decoded.size() != size) return std::nullopt;
    return decoded.decoded;
}

void readEnclosure(const QXmlStreamAttributes& attributes, const QUrl& feedURL, AppcastItem& item) {
    const auto sparkle = [&](const char* name) {
        return attributes.value(AppcastFeed::sparkleNamespace, name).toString();
    };
    const QString url = attributes.value("url").toString().trimmed();
    if (!url.isEmpty()) item.archiveURL = feedURL.resolved(QUrl(url));
    bool ok = false;
    const qint64 length = attributes.value("length").toLongLong(&ok);
    if (ok && length > 0) item.length = length;
    item.edSignature = sparkle("edSignature");
    item.os = sparkle("os");
    if (!sparkle("version").isEmpty()) item.version = sparkle("version");
    if (!sparkle("shortVersionString").isEmpty())
        item.displayVersion = sparkle("shortVersionString");
}

AppcastItem readItem(QXmlStreamReader& xml, const QUrl& feedURL) {
    AppcastItem item;
    while (xml.readNextStartElement()) {
        const bool sparkle = xml.namespaceUri() == QLatin1String(AppcastFeed::sparkleNamespace);
        const auto name = xml.name();
        if (name == QLatin1String("enclosure") && xml.namespaceUri().isEmpty()) {
            readEnclosure(xml.attributes(), feedURL, item);
            xml.skipCurrentElement();
        } else if (name == QLatin1String("title") && xml.namespaceUri().isEmpty()) {
            item.title = xml.readElementText().trimmed();
        } else if (sparkle && name == QLatin1String("version")) {
            item.version = xml.readElementText().trimmed();
        } else if (sparkle && name == QLatin1String("shortVersionString")) {
            item.displayVersion = xml.readElementText().trimmed();
        } else {
            xml.skipCurrentElement();
        }
    }
    if (item.displayVersion.isEmpty()) item.displayVersion = item.version;
    return item;
}

}  // namespace

AppcastFeed AppcastFeed::parse(const QByteArray& bytes, const QUrl& feedURL) {
    QXmlStreamReader xml(bytes);
    AppcastFeed feed;
    if (!xml.readNextStartElement() || xml.name() != QLatin1String("rss"))
        throw AppcastError("not an RSS feed");
    bool channel = false;
    while (xml.readNextStartElement()) {
        if (xml.name() != QLatin1String("channel")) {
            xml.skipCurrentElement();
            continue;
        }
        channel = true;
        while (xml.readNextStartElement()) {
            if (xml.name() != QLatin1String("item")) {
                xml.skipCurrentElement();
                continue;
            }
            AppcastItem item = readItem(xml, feedURL);
            if (item.archiveURL.isValid() && !item.version.isEmpty())
                feed.items.push_back(std::move(item));
        }
    }
    // Reads to the end, so that a broken tail is not taken for a whole feed.
    while (!xml.atEnd())
        xml.readNext();
    if (xml.hasError()) throw AppcastError(xml.errorString().toStdString());
    if (!channel) throw AppcastError("no channel in the feed");
    return feed;
}

std::optional<AppcastItem> AppcastFeed::newestItem() const {
    std::optional<AppcastItem> newest;
    for (const auto& item : items) {
        if (!item.os.isEmpty() && item.os.compare("linux", Qt::CaseInsensitive) != 0) continue;
        if (!newest || compareVersions(item.version, newest->version) > 0) newest = item;
    }
    return newest;
}

namespace {

// One dotted part: its leading number and what follows it ("0b2" is 0 and "b2").
struct VersionPart {
    bool numeric = false;
    qulonglong number = 0;
    QString rest;
};

VersionPart versionPart(const QString& text) {
    qsizetype digits = 0;
    while (digits < text.size() && text[digits].isDigit())
        ++digits;
    VersionPart part;
    part.numeric = digits > 0;
    part.number = text.left(digits).toULongLong();
    part.rest = text.mid(digits);
    return part;
}

}  // namespace

int compareVersions(const QString& a, const QString& b) {
    const QStringList left = a.trimmed().split('.');
    const QStringList right = b.trimmed().split('.');
    for (qsizetype i = 0; i < std::max(left.size(), right.size()); ++i) {
        const VersionPart x = versionPart(i < left.size() ? left[i] : QStringLiteral("0"));
        const VersionPart y = versionPart(i < right.size() ? right[i] : QStringLiteral("0"));
        if (!x.numeric || !y.numeric) {
            const int order = (x.numeric ? QString::number(x.number) + x.rest : x.rest)
                                  .compare(y.numeric ? QString::number(y.number) + y.rest : y.rest);
            if (order != 0) return order < 0 ? -1 : 1;
            continue;
        }
        if (x.number != y.number) return x.number < y.number ? -1 : 1;
        // A pre-release ("0b", "0rc1", "0-beta") ranks below its release ("0").
        if (x.rest.isEmpty() != y.rest.isEmpty()) return x.rest.isEmpty() ? 1 : -1;
        if (const int order = x.rest.compare(y.rest); order != 0) return order < 0 ? -1 : 1;
    }
    return 0;
}

SignatureCheck verifyArchiveSignature(const QByteArray& archive, const QString& signature,
                                      const QString& publicKey) {
    if (sodium_init() < 0) return SignatureCheck::badKey;
    const auto key = strictBase64(publicKey, crypto_sign_PUBLICKEYBYTES);
    if (!key) return SignatureCheck::badKey;
    const auto detached = strictBase64(signature, crypto_sign_BYTES);
    if (!detached) return SignatureCheck::invalid;
    const int result =
        crypto_sign_verify_detached(reinterpret_cast<const unsigned char*>(detached->constData()),
                                    reinterpret_cast<const unsigned char*>(archive.constData()),
                                    static_cast<unsigned long long>(archive.size()),
                                    reinterpret_cast<const unsigned char*>(key->constData()));
    return result == 0 ? SignatureCheck::valid : SignatureCheck::invalid;
}

}  // namespace hl
