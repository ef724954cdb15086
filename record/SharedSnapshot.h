// The shared snapshot: the one document that the user's computers exchange. It
// says which projects exist, which computer holds each project's folder (its
// *origin*), and which tabs and panes each project's workspace has; never
// terminal output, sessions or absolute working directories.
//
// Words used here: content is *canonical* when projects are sorted by id and
// workspaces by project id; *validated* content is canonical and has passed every
// structural rule. A tab's *layout* is the split tree in the JSON form that
// PaneLayout writes ({"pane":{"_0":id}} or {"split":{id, axis, ratio, first,
// second}}); it stays JSON here so that this library needs nothing of the
// workspace's.
#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QUuid>

#include <chrono>
#include <optional>
#include <stdexcept>

#include "PlatformWords.h"

namespace hl {

// Milliseconds since 1970 UTC, possibly with a fraction, as the document stores them.
using SharedDate =
    std::chrono::time_point<std::chrono::system_clock, std::chrono::duration<double, std::milli>>;
// The present time, to the whole millisecond.
SharedDate sharedDateNow();

// The failures of the shared document and of the transports that move it.
class SharedStateError : public std::exception {
  public:
    enum class Kind {
        UnsupportedSchema,
        InvalidProject,
        DuplicateProject,
        InvalidWorkspace,
        InvalidTab,
        InvalidPane,
        TooLarge,
        InvalidCloudRecord,
        CloudConflict,
        NotConfigured,
    };
    explicit SharedStateError(Kind kind);
    Kind kind() const { return kind_; }
    QString errorDescription(TextPlatform platform = runningTextPlatform()) const;
    const char* what() const noexcept override { return text_.c_str(); }
    bool operator==(const SharedStateError& other) const { return kind_ == other.kind_; }

  private:
    Kind kind_;
    std::string text_;
};

// The computer that holds a project's folder, as far as another computer needs it
// to reach that folder over SSH.
struct ProjectOrigin {
    QUuid deviceID;
    QString deviceName;
    QString sshHost;
    QString sshUser;
    QString root;

    bool operator==(const ProjectOrigin&) const = default;

    // The name, host, user and root are safe to show and to put on a command line.
    bool isValid() const;
};

struct SharedProject {
    QString id;
    QString name;
    std::optional<ProjectOrigin> origin;

    bool operator==(const SharedProject&) const = default;
};

struct SharedPane {
    QUuid id;
    // Relative to the project's root; empty means the root itself.
    QString relativeCWD;

    bool operator==(const SharedPane&) const = default;
};

struct SharedTab {
    QUuid id;
    QString title;
    QList<SharedPane> panes;
    QJsonObject layout;
    std::optional<QUuid> selectedPaneID;

    bool operator==(const SharedTab&) const = default;
};

struct SharedWorkspace {
    QString projectID;
    QList<SharedTab> tabs;
    std::optional<QUuid> selectedTabID;

    bool operator==(const SharedWorkspace&) const = default;
};

struct SharedContent {
    QList<SharedProject> projects;
    QList<SharedWorkspace> workspaces;

    bool operator==(const SharedContent&) const = default;

    bool isEmpty() const { return projects.isEmpty() && workspaces.isEmpty(); }
    // Projects by id, workspaces by project id (plain text order); nothing inside is reordered.
    SharedContent canonicalized() const;
    // The canonical form, or SharedStateError with the first structural rule that fails.
    SharedContent validated() const;

    // Not absolute, and no piece between slashes is empty, "." or "..".
    static bool relativePathIsSafe(const QString& path);
};

// The versioned document.
class SharedSnapshot {
  public:
    static constexpr int currentSchemaVersion = 1;
    // Largest accepted size of the encoded document, in bytes.
    static constexpr qsizetype maximumEncodedBytes = 900'000;

    // Schema version 1, the content in canonical form.
    explicit SharedSnapshot(const QUuid& deviceID, const SharedContent& content = {},
                            const QUuid& revision = QUuid::createUuid(),
                            SharedDate modifiedAt = sharedDateNow());

    int schemaVersion() const { return schemaVersion_; }
    const QUuid& revision() const { return revision_; }
    SharedDate modifiedAt() const { return modifiedAt_; }
    const QUuid& deviceID() const { return deviceID_; }
    const SharedContent& content() const { return content_; }

    bool operator==(const SharedSnapshot&) const = default;

    // The same snapshot with validated content, within the size limit; throws
    // SharedStateError.
    SharedSnapshot validated() const;
    // A later date wins; on equal dates the lower revision text wins.
    bool isNewer(const SharedSnapshot& than) const;

  private:
    friend class SharedSnapshotCodec;
    SharedSnapshot() = default;

    int schemaVersion_ = currentSchemaVersion;
    QUuid revision_;
    SharedDate modifiedAt_;
    QUuid deviceID_;
    SharedContent content_;
};

// UUID text as the document writes it: canonical, upper case.
QString sharedUuidText(const QUuid& id);
// The leaves of a layout in JSON form, left to right; absent when it is not a layout.
std::optional<QList<QUuid>> sharedLayoutPaneIDs(const QJsonObject& layout);
// Both lists hold no duplicate and the same set of ids.
bool paneIdentitySetIsExact(const QList<QUuid>& paneIDs, const QList<QUuid>& layoutPaneIDs);

}  // namespace hl
