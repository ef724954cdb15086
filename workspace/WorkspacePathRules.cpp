// WorkspaceStore's rules on pane identities and directories: exact pane sets,
// scratch paths that match their identity, and directories that are available
// and canonical. None of them changes the model.
#include <QFileInfo>

#include <set>

#include "PathRules.h"
#include "WorkspaceStore.h"

namespace hl {

bool WorkspaceStore::paneIdentitySetIsExact(const QList<QUuid>& paneIDs,
                                            const QList<QUuid>& layoutPaneIDs) {
    const std::set<QUuid> panes(paneIDs.begin(), paneIDs.end());
    const std::set<QUuid> leaves(layoutPaneIDs.begin(), layoutPaneIDs.end());
    return panes.size() == static_cast<std::size_t>(paneIDs.size()) &&
           leaves.size() == static_cast<std::size_t>(layoutPaneIDs.size()) && panes == leaves;
}

bool WorkspaceStore::scratchPathMatchesIdentity(const QString& cwd, const QUuid& id,
                                                const QString& scratchRoot) {
    return cwd == scratchRoot + "/" + id.toString(QUuid::WithoutBraces).toLower();
}

bool WorkspaceStore::canonicalDirectoryIsAvailable(const QString& path, const QString& root) {
    if (!isAbsolutePath(path.toStdString())) return false;
    const QFileInfo info(path);
    if (!info.exists() || !info.isDir()) return false;
    auto canonical = [](const QString& text) {
        return QString::fromStdString(
            resolvingSymlinksInPath(standardizedDirectoryPath(text).toStdString()));
    };
    const QString resolvedPath = canonical(path);
    const QString resolvedRoot = canonical(root);
    if (resolvedPath != path || resolvedRoot != root) return false;
    return resolvedPath == resolvedRoot || resolvedPath.startsWith(resolvedRoot + "/");
}

bool WorkspaceStore::storedAbsolutePathIsCanonical(const QString& path) {
    return isAbsolutePath(path.toStdString()) && standardizedDirectoryPath(path) == path;
}

}  // namespace hl
