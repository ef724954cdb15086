// What a project copy runs, as plain values: where the project comes from
// (ProjectCopyOrigin, ProjectCopySource), what the origin reported about it
// (ProjectCopyPreflight), which ssh and rsync run (ProjectCopyTools), and the
// exact command lines and the staging folder's place (ProjectCopyPlan).
#pragma once

#include <QString>
#include <QStringList>

#include <cstdint>
#include <optional>

namespace hl {

// The machine that holds a project's folder, as far as this one needs it to
// reach that folder over ssh.
struct ProjectCopyOrigin {
    QString deviceName;
    QString sshHost;
    QString sshUser;
    QString root;

    // Every field is safe to show and to put on an ssh command line: a named
    // device, a host and user of plain characters not starting with "-", and a
    // standardised absolute root other than "/".
    bool isValid() const;
    bool operator==(const ProjectCopyOrigin&) const = default;
};

// One project to copy: its identity and name, and where its folder lives.
struct ProjectCopySource {
    QString projectID;
    QString projectName;
    std::optional<ProjectCopyOrigin> origin;
    bool operator==(const ProjectCopySource&) const = default;
};

// The size of the folder on the origin, as its remote shell reported it.
struct ProjectCopyPreflight {
    std::int64_t totalBytes = 0;
    int fileCount = 0;

    // Many small files are worth compressing on the wire; anything else is not.
    bool useCompression() const;
    bool operator==(const ProjectCopyPreflight&) const = default;
};

// The ssh and rsync executables of this machine.
struct ProjectCopyTools {
    QString ssh = QStringLiteral("/usr/bin/ssh");
    QString rsync = QStringLiteral("/usr/bin/rsync");

    // The two as a login shell of the user finds them on its PATH; each one
    // not found there stays in /usr/bin. Waits at most two seconds.
    static ProjectCopyTools discover();
    // The same with a given shell, which is started as a login shell.
    static ProjectCopyTools discover(const QString& loginShell);
    bool operator==(const ProjectCopyTools&) const = default;
};

namespace ProjectCopyPlan {

// The value between single quotes, each quote in it written as '\''.
QString shellQuote(const QString& value);
// The arguments of ssh that run `command` on the origin, never asking anything.
QStringList sshArguments(const ProjectCopyOrigin& origin, const QString& command);
// A remote shell command that prints "bytes=" and "files=" lines for the root.
QString preflightCommand(const QString& root);
// The arguments of rsync that fill the staging folder with the root's contents;
// an ssh path with spaces or quotes is quoted for rsync's split of -e.
QStringList rsyncArguments(const ProjectCopyOrigin& origin, const QString& stagingPath,
                           bool compress, const QString& sshExecutable = "/usr/bin/ssh");
// The hidden staging folder beside the destination, named after the project's
// identity; absent for the destination "/".
std::optional<QString> stagingPath(const QString& projectID, const QString& destination);
// The command that installs this user's key on the origin, for a valid origin.
std::optional<QString> authenticationCommand(const ProjectCopyOrigin& origin);
// The 64-bit FNV-1a hash of the bytes.
std::uint64_t fnv1a64(const QByteArray& bytes);

}  // namespace ProjectCopyPlan

}  // namespace hl
