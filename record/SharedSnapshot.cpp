// The shared snapshot's rules: origin checks, canonical order, validation in
// order, the size limit and the ordering of two snapshots.
#include "SharedSnapshot.h"

#include <QRegularExpression>
#include <QSet>
#include <QTextBoundaryFinder>

#include <algorithm>
#include <cmath>

#include "PathRules.h"
#include "SharedSnapshotCodec.h"

namespace hl {

#ifdef Q_OS_MACOS
TextPlatform runningTextPlatform() {
    return TextPlatform::MacOS;
}
#else
TextPlatform runningTextPlatform() {
    return TextPlatform::Linux;
}
#endif

SharedDate sharedDateNow() {
    const auto now =
        std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
    return SharedDate(std::chrono::duration<double, std::milli>(
        static_cast<double>(now.time_since_epoch().count())));
}

namespace {

const char* sharedStateErrorText(SharedStateError::Kind kind, TextPlatform platform) {
    const bool mac = platform == TextPlatform::MacOS;
    switch (kind) {
        case SharedStateError::Kind::UnsupportedSchema:
            return mac ? "The iCloud workspace uses an unsupported format."
                       : "The Cloud workspace uses an unsupported format.";
        case SharedStateError::Kind::InvalidProject:
        case SharedStateError::Kind::DuplicateProject:
        case SharedStateError::Kind::InvalidWorkspace:
        case SharedStateError::Kind::InvalidTab:
        case SharedStateError::Kind::InvalidPane:
            return mac ? "The iCloud workspace is structurally invalid and was not applied."
                       : "The Cloud workspace is structurally invalid and was not applied.";
        case SharedStateError::Kind::TooLarge:
            return mac ? "The iCloud workspace is too large to sync safely."
                       : "The Cloud workspace is too large to sync safely.";
        case SharedStateError::Kind::InvalidCloudRecord:
            return mac ? "The iCloud workspace record is unreadable."
                       : "The Cloud workspace record is unreadable.";
        case SharedStateError::Kind::CloudConflict:
            return mac ? "The iCloud workspace changed repeatedly. Sync will retry."
                       : "The Cloud workspace changed repeatedly. Sync will retry.";
        case SharedStateError::Kind::NotConfigured:
            return mac ? "This build is not configured for the Harborlattice iCloud container."
                       : "This build is not configured for the Harborlattice Cloud container.";
    }
    return "";
}

// User-perceived characters of `text`, counting no further than `limit` + 1.
qsizetype characterCount(const QString& text, qsizetype limit) {
    if (text.isEmpty()) return 0;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype count = 0;
    while (count <= limit && finder.toNextBoundary() != -1)
        ++count;
    return count;
}

bool hasControlCharacter(const QString& text) {
    for (const char32_t scalar : text.toUcs4()) {
        const QChar::Category category = QChar::category(scalar);
        if (category == QChar::Other_Control || category == QChar::Other_Format) return true;
    }
    return false;
}

bool onlyCharactersOf(const QString& text, const char* allowed) {
    const QByteArray set(allowed);
    return std::all_of(text.begin(), text.end(), [&](QChar c) {
        return c.unicode() < 128 && set.contains(static_cast<char>(c.unicode()));
    });
}

// The origin's root as a standardised file URL would give it back: absolute,
// without ".", "..", empty pieces or a trailing "/".
bool rootIsStandardized(const QString& root) {
    if (!root.startsWith(u'/')) return false;
    const std::string path = root.toStdString();
    return hl::standardizedPath(path) == path;
}

std::optional<QUuid> uuidFromCanonicalText(const QString& text) {
    static const QRegularExpression canonical(QStringLiteral(
        "^[0-9A-Fa-f]{8}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{12}$"));
    if (!canonical.match(text).hasMatch()) return std::nullopt;
    return QUuid::fromString(text);
}

// Collects the leaves of one layout node; false when the node is not a layout.
bool collectLayoutLeaves(const QJsonValue& node, QList<QUuid>& leaves) {
    if (!node.isObject()) return false;
    const QJsonObject object = node.toObject();
    if (object.contains(QStringLiteral("pane"))) {
        const QJsonValue id = object.value(QStringLiteral("pane")).toObject().value("_0");
        const auto uuid = uuidFromCanonicalText(id.toString());
        if (!id.isString() || !uuid) return false;
        leaves.append(*uuid);
        return true;
    }
    const QJsonValue split = object.value(QStringLiteral("split"));
    if (!split.isObject()) return false;
    const QJsonObject fields = split.toObject();
    const QString axis = fields.value(QStringLiteral("axis")).toString();
    const QJsonValue ratio = fields.value(QStringLiteral("ratio"));
    if (!uuidFromCanonicalText(fields.value(QStringLiteral("id")).toString()) ||
        (axis != QStringLiteral("horizontal") && axis != QStringLiteral("vertical")) ||
        !(ratio.isUndefined() || ratio.isNull() || ratio.isDouble())) {
        return false;
    }
    return collectLayoutLeaves(fields.value(QStringLiteral("first")), leaves) &&
           collectLayoutLeaves(fields.value(QStringLiteral("second")), leaves);
}

bool projectIsValid(const SharedProject& project) {
    return !project.id.isEmpty() && project.id == project.id.trimmed() &&
           !project.name.trimmed().isEmpty() && (!project.origin || project.origin->isValid());
}

[[noreturn]] void fail(SharedStateError::Kind kind) {
    throw SharedStateError(kind);
}

}  // namespace

SharedStateError::SharedStateError(Kind kind)
    : kind_(kind), text_(sharedStateErrorText(kind, runningTextPlatform())) {}

QString SharedStateError::errorDescription(TextPlatform platform) const {
    return QString::fromUtf8(sharedStateErrorText(kind_, platform));
}

bool ProjectOrigin::isValid() const {
    const QString name = deviceName.trimmed();
    if (name.isEmpty() || characterCount(name, 128) > 128 || hasControlCharacter(name)) {
        return false;
    }
    if (sshHost.isEmpty() || characterCount(sshHost, 253) > 253) return false;
    if (!onlyCharactersOf(sshHost,
                          "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-")) {
        return false;
    }
    if (sshHost.startsWith(u'-')) return false;
    if (sshUser.isEmpty() || characterCount(sshUser, 128) > 128) return false;
    if (!onlyCharactersOf(sshUser,
                          "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-")) {
        return false;
    }
    if (sshUser.startsWith(u'-')) return false;
    if (!isAbsolutePath(root.toStdString())) return false;
    if (root == QStringLiteral("/")) return false;
    if (characterCount(root, 4096) > 4096) return false;
    if (hasControlCharacter(root)) return false;
    return rootIsStandardized(root);
}

SharedContent SharedContent::canonicalized() const {
    SharedContent canonical = *this;
    std::stable_sort(canonical.projects.begin(), canonical.projects.end(),
                     [](const SharedProject& a, const SharedProject& b) { return a.id < b.id; });
    std::stable_sort(canonical.workspaces.begin(), canonical.workspaces.end(),
                     [](const SharedWorkspace& a, const SharedWorkspace& b) {
                         return a.projectID < b.projectID;
                     });
    return canonical;
}

bool SharedContent::relativePathIsSafe(const QString& path) {
    if (isAbsolutePath(path.toStdString())) return false;
    if (path.isEmpty()) return true;
    const QStringList pieces = path.split(u'/', Qt::KeepEmptyParts);
    return std::none_of(pieces.begin(), pieces.end(), [](const QString& piece) {
        return piece.isEmpty() || piece == QStringLiteral(".") || piece == QStringLiteral("..");
    });
}

SharedContent SharedContent::validated() const {
    using Kind = SharedStateError::Kind;
    const SharedContent canonical = canonicalized();
    if (!std::all_of(canonical.projects.begin(), canonical.projects.end(), projectIsValid)) {
        fail(Kind::InvalidProject);
    }
    QSet<QString> projectIDs;
    for (const SharedProject& project : canonical.projects) {
        if (projectIDs.contains(project.id)) fail(Kind::DuplicateProject);
        projectIDs.insert(project.id);
    }
    QSet<QString> workspaceIDs;
    for (const SharedWorkspace& workspace : canonical.workspaces) {
        if (workspaceIDs.contains(workspace.projectID)) fail(Kind::InvalidWorkspace);
        workspaceIDs.insert(workspace.projectID);
    }
    for (const SharedWorkspace& workspace : canonical.workspaces) {
        if (!projectIDs.contains(workspace.projectID)) fail(Kind::InvalidWorkspace);
    }
    QSet<QUuid> seenTabs;
    QSet<QUuid> seenPanes;
    for (const SharedWorkspace& workspace : canonical.workspaces) {
        if (workspace.tabs.isEmpty()) fail(Kind::InvalidWorkspace);
        if (workspace.selectedTabID &&
            std::none_of(workspace.tabs.begin(), workspace.tabs.end(), [&](const SharedTab& tab) {
                return tab.id == *workspace.selectedTabID;
            })) {
            fail(Kind::InvalidWorkspace);
        }
        for (const SharedTab& tab : workspace.tabs) {
            if (seenTabs.contains(tab.id)) fail(Kind::InvalidTab);
            seenTabs.insert(tab.id);
            if (tab.title.trimmed().isEmpty() || tab.panes.isEmpty()) fail(Kind::InvalidTab);
            QList<QUuid> paneIDs;
            for (const SharedPane& pane : tab.panes)
                paneIDs.append(pane.id);
            const auto layoutPaneIDs = sharedLayoutPaneIDs(tab.layout);
            if (!layoutPaneIDs || !paneIdentitySetIsExact(paneIDs, *layoutPaneIDs)) {
                fail(Kind::InvalidTab);
            }
            if (tab.selectedPaneID && !paneIDs.contains(*tab.selectedPaneID))
                fail(Kind::InvalidTab);
            for (const SharedPane& pane : tab.panes) {
                if (seenPanes.contains(pane.id)) fail(Kind::InvalidPane);
                seenPanes.insert(pane.id);
                if (!relativePathIsSafe(pane.relativeCWD)) fail(Kind::InvalidPane);
            }
        }
    }
    return canonical;
}

SharedSnapshot::SharedSnapshot(const QUuid& deviceID, const SharedContent& content,
                               const QUuid& revision, SharedDate modifiedAt)
    : revision_(revision),
      modifiedAt_(modifiedAt),
      deviceID_(deviceID),
      content_(content.canonicalized()) {}

SharedSnapshot SharedSnapshot::validated() const {
    if (schemaVersion_ != currentSchemaVersion) fail(SharedStateError::Kind::UnsupportedSchema);
    const SharedSnapshot result(deviceID_, content_.validated(), revision_, modifiedAt_);
    if (SharedSnapshotCodec::encode(result).size() > maximumEncodedBytes) {
        fail(SharedStateError::Kind::TooLarge);
    }
    return result;
}

bool SharedSnapshot::isNewer(const SharedSnapshot& than) const {
    if (modifiedAt_ != than.modifiedAt_) return modifiedAt_ > than.modifiedAt_;
    return sharedUuidText(revision_) < sharedUuidText(than.revision_);
}

QString sharedUuidText(const QUuid& id) {
    return id.toString(QUuid::WithoutBraces).toUpper();
}

std::optional<QList<QUuid>> sharedLayoutPaneIDs(const QJsonObject& layout) {
    QList<QUuid> leaves;
    if (!collectLayoutLeaves(layout, leaves)) return std::nullopt;
    return leaves;
}

bool paneIdentitySetIsExact(const QList<QUuid>& paneIDs, const QList<QUuid>& layoutPaneIDs) {
    const QSet<QUuid> panes(paneIDs.begin(), paneIDs.end());
    const QSet<QUuid> leaves(layoutPaneIDs.begin(), layoutPaneIDs.end());
    return panes.size() == paneIDs.size() && leaves.size() == layoutPaneIDs.size() &&
           panes == leaves;
}

}  // namespace hl
