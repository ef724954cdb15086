// The saved forms of the workspace model: SavedWorkspace (the current format),
// the legacy format it replaced (read only), and the list of suspended panes.
// All are JSON values kept as one data value each in the preferences.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QUuid>

#include <map>
#include <optional>
#include <vector>

#include "PaneLayout.h"

namespace hl {

// A shell the pane held before it got a replacement, kept running since `since`.
struct SavedPreviousShell {
    QString sessionID;
    QDateTime since;
    bool operator==(const SavedPreviousShell&) const = default;
};

struct SavedPane {
    QUuid id;
    std::optional<QString> sessionID;
    PaneContext context;
    bool isReplacement = false;
    std::vector<SavedPreviousShell> previousShells;
    bool operator==(const SavedPane&) const = default;
};

struct SavedTab {
    QUuid id;
    QString title;
    std::optional<QString> projectID;
    std::vector<SavedPane> panes;
    PaneLayout layout;
    std::optional<QUuid> selectedPaneID;
    bool operator==(const SavedTab&) const = default;
};

struct SavedWorkspace {
    std::optional<QString> activeWorkspaceID;
    std::optional<QUuid> selectedTabID;
    std::map<QString, QUuid> selectedTabs;
    std::vector<SavedTab> tabs;
    bool operator==(const SavedWorkspace&) const = default;

    QByteArray encoded() const;
    // Throws LayoutDecodingError when the bytes are not a SavedWorkspace.
    static SavedWorkspace decode(const QByteArray& bytes);
    // The earlier format: "selectedTabIDsByWorkspace" (optional) in place of
    // "selectedTabs", and panes without "isReplacement". Throws LayoutDecodingError.
    static SavedWorkspace decodeLegacy(const QByteArray& bytes);
};

// A running session whose pane is not in the model at present, since
// `suspendedAt` (milliseconds since 1970; an entry of an earlier version, which
// has none, counts from the start that read it).
struct SuspendedPane {
    QUuid id;
    QString projectID;
    QString cwd;
    QString sessionID;
    bool isReplacement = false;
    double suspendedAt = 0;
    bool operator==(const SuspendedPane&) const = default;
};

// The present time as `suspendedAt` counts it.
double suspendedPaneClock();

QByteArray encodeSuspendedPanes(const std::vector<SuspendedPane>& panes);
// Throws LayoutDecodingError.
std::vector<SuspendedPane> decodeSuspendedPanes(const QByteArray& bytes);

}  // namespace hl
