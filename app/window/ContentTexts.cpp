// State-dependent texts of the main window.
#include "ContentTexts.h"

#include "PlatformWords.h"

namespace hl {

namespace {
const QString unreadableWorkspace =
    QStringLiteral("Saved workspace data is unreadable and was preserved.");
}

QString scratchRowSubtitle(const std::optional<WorkspaceChoice>& scratch) {
    if (!scratch) return QStringLiteral("Create a workspace separate from projects");
    const QString noun = scratch->tabCount == 1 ? QStringLiteral("tab") : QStringLiteral("tabs");
    return QString::number(scratch->tabCount) + " " + noun + " · separate from projects";
}

QString scratchRowHelp(const std::optional<WorkspaceChoice>& scratch) {
    return scratch ? QStringLiteral("Switch to Scratch workspace")
                   : QStringLiteral("Create Scratch workspace");
}

EmptyStateText emptyStateText(bool catalogIsEmpty) {
    if (catalogIsEmpty) {
        return {QStringLiteral("Add your first project"),
                QStringLiteral("Harborlattice starts empty and uses only projects you add."),
                QStringLiteral("Add Project…")};
    }
    return {
        QStringLiteral("Choose a workspace"),
        QStringLiteral("Open a project from the sidebar, or create an explicit scratch terminal."),
        QStringLiteral("Open Scratch Workspace")};
}

QString renameProjectMessage(bool mutationsAreAllowed) {
    if (mutationsAreAllowed)
        return QStringLiteral("This changes only the name shown in Harborlattice.");
    return unreadableWorkspace + " Resolve that problem before renaming this project.";
}

QString removeProjectMessage(const QString& name, bool mutationsAreAllowed, bool hasWorkspace) {
    if (!mutationsAreAllowed)
        return unreadableWorkspace + " Resolve that problem before removing " + name + ".";
    const QString others =
        platformText(runningTextPlatform(), "your other Macs", "your other computers");
    if (hasWorkspace) {
        return "This closes every terminal in " + name + ", here and on " + others +
               ", and removes its saved workspace. The folder and its files will not be changed.";
    }
    return "This removes " + name + " from the list and closes its terminals on " + others +
           ". The folder and its files will not be changed.";
}

}  // namespace hl
