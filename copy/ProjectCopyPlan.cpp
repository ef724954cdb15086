// The command lines of a copy, the staging folder's name, and the checks on
// what an origin publishes about itself.
#include "ProjectCopyPlan.h"

#include <QTextBoundaryFinder>

#include <algorithm>

#include "PathRules.h"

namespace hl {

namespace {

// User-perceived characters.
int graphemeCount(const QString& text) {
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    int count = 0;
    while (finder.toNextBoundary() != -1)
        ++count;
    return count;
}

bool hasControlCharacter(const QString& text) {
    const auto scalars = text.toUcs4();
    return std::any_of(scalars.begin(), scalars.end(), [](char32_t scalar) {
        const auto category = QChar::category(scalar);
        return category == QChar::Other_Control || category == QChar::Other_Format;
    });
}

bool consistsOf(const QString& text, QStringView allowed) {
    return std::all_of(text.begin(), text.end(), [&](QChar c) { return allowed.contains(c); });
}

const QStringView kLetters = u"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";

}  // namespace

bool ProjectCopyOrigin::isValid() const {
    const QString name = deviceName.trimmed();
    if (name.isEmpty() || graphemeCount(name) > 128 || hasControlCharacter(name)) return false;
    if (sshHost.isEmpty() || graphemeCount(sshHost) > 253) return false;
    if (!consistsOf(sshHost, kLetters.toString() + ".-") || sshHost.startsWith('-')) return false;
    if (sshUser.isEmpty() || graphemeCount(sshUser) > 128) return false;
    if (!consistsOf(sshUser, kLetters.toString() + "._-") || sshUser.startsWith('-')) return false;
    const std::string path = root.toStdString();
    if (!isAbsolutePath(path) || root == "/" || graphemeCount(root) > 4096) return false;
    if (hasControlCharacter(root)) return false;
    return QString::fromStdString(standardizedPath(path)) == root;
}

bool ProjectCopyPreflight::useCompression() const {
    return fileCount >= 1000 && totalBytes / std::max(fileCount, 1) < 65536;
}

namespace ProjectCopyPlan {

namespace {

const QStringList kSshOptions = {
    "-o", "BatchMode=yes", "-o", "ConnectTimeout=10", "-o", "StrictHostKeyChecking=accept-new"};

QString destinationOf(const ProjectCopyOrigin& origin) {
    return origin.sshUser + "@" + origin.sshHost;
}

// A word of rsync's -e command as rsync splits it: on spaces, with single
// quotes keeping a word whole and a doubled quote standing for one (rsync has
// no backslash escapes). A plain path stays as it is.
QString rsyncCommandWord(const QString& word) {
    if (!word.contains(' ') && !word.contains('\'') && !word.contains('"')) return word;
    QString quoted = word;
    quoted.replace("'", "''");
    return "'" + quoted + "'";
}

}  // namespace

QString shellQuote(const QString& value) {
    QString quoted = value;
    quoted.replace("'", "'\\''");
    return "'" + quoted + "'";
}

QStringList sshArguments(const ProjectCopyOrigin& origin, const QString& command) {
    return kSshOptions + QStringList{"--", destinationOf(origin), command};
}

// awk prints the size with printf: mawk, Debian's awk, prints a plain `print` of
// 2 GiB and more in exponent notation.
QString preflightCommand(const QString& root) {
    const QString q = shellQuote(root);
    return QStringList{
        "set -eu",
        "test -d " + q,
        "printf 'bytes='",
        "/usr/bin/du -sk " + q + " | /usr/bin/awk '{printf \"%.0f\\n\", $1 * 1024}'",
        "printf 'files='",
        "/usr/bin/find " + q + " -type f | /usr/bin/wc -l",
    }
        .join("; ");
}

QStringList rsyncArguments(const ProjectCopyOrigin& origin, const QString& stagingPath,
                           bool compress, const QString& sshExecutable) {
    QStringList arguments = {"-a", "--partial", "--progress", "--stats"};
#ifndef __APPLE__
    // rsync 3 groups the digits of its progress figures unless told not to.
    arguments << "--no-human-readable";
#endif
    arguments << "-e" << rsyncCommandWord(sshExecutable) + " " + kSshOptions.join(' ');
    if (compress) arguments << "--compress";
    arguments << "--" << destinationOf(origin) + ":" + shellQuote(origin.root + "/")
              << stagingPath + "/";
    return arguments;
}

std::uint64_t fnv1a64(const QByteArray& bytes) {
    std::uint64_t hash = 14695981039346656037ull;
    for (const char byte : bytes) {
        hash ^= static_cast<unsigned char>(byte);
        hash *= 1099511628211ull;
    }
    return hash;
}

std::optional<QString> stagingPath(const QString& projectID, const QString& destination) {
    const QString path = QString::fromStdString(standardizedPath(destination.toStdString()));
    if (path == "/" || !path.startsWith('/')) return std::nullopt;
    QString parent = path.left(path.lastIndexOf('/'));
    const QString name =
        ".harborlattice-" + QString::number(fnv1a64(projectID.toUtf8()), 16) + "-partial";
    return parent + "/" + name;
}

std::optional<QString> authenticationCommand(const ProjectCopyOrigin& origin) {
    if (!origin.isValid()) return std::nullopt;
    return "ssh-copy-id " + destinationOf(origin);
}

}  // namespace ProjectCopyPlan

}  // namespace hl
