// The live objects of a workspace. A TerminalPane binds one pane id and its
// PaneContext to one TerminalController; a TerminalTab owns its panes and the
// PaneLayout over them. A *workspace* is no object: it is the set of tabs that
// share a workspace id ("project:<id>" or "scratch").
#pragma once

#include <QObject>
#include <QString>
#include <QUuid>

#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "PaneLayout.h"
#include "SavedWorkspace.h"
#include "TerminalController.h"

namespace hl {

inline const QString scratchWorkspaceID = QStringLiteral("scratch");
inline QString projectWorkspaceID(const QString& projectID) {
    return "project:" + projectID;
}
inline QString workspaceIDFor(const std::optional<QString>& projectID) {
    return projectID ? projectWorkspaceID(*projectID) : scratchWorkspaceID;
}

class TerminalPane : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString sessionID READ sessionIDText NOTIFY sessionIDChanged)

  public:
    // Owns `controller`, which was built for this pane's context.
    TerminalPane(const QUuid& id, PaneContext context, std::optional<QString> sessionID,
                 std::unique_ptr<TerminalController> controller,
                 std::vector<SavedPreviousShell> previousShells = {});
    ~TerminalPane() override;

    const QUuid& id() const { return id_; }
    const PaneContext& context() const { return context_; }
    const std::optional<QString>& sessionID() const { return sessionID_; }
    QString sessionIDText() const { return sessionID_.value_or(QString()); }
    void setSessionID(const std::optional<QString>& sessionID);
    // The shells this pane keeps beside its own (see TerminalController), with
    // the time each was set aside.
    const std::vector<SavedPreviousShell>& previousShells() const { return previousShells_; }
    // Follows the controller's list: new shells are dated `now`, gone ones leave.
    // False when nothing changed.
    bool followPreviousShells(const QDateTime& now);
    TerminalController& controller() const { return *controller_; }
    // A retired pane has left the model and waits only for its controller's start.
    bool isRetired() const { return retired_; }
    void markRetired() { retired_ = true; }

  signals:
    void sessionIDChanged();

  private:
    QUuid id_;
    PaneContext context_;
    std::optional<QString> sessionID_;
    std::vector<SavedPreviousShell> previousShells_;
    std::unique_ptr<TerminalController> controller_;
    bool retired_ = false;
};

class TerminalTab : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString title READ title NOTIFY titleChanged)

  public:
    // `panes` must not be empty and must not repeat an id (a programming error
    // otherwise). Without a layout, the first pane is the only leaf; a selection
    // that names no pane falls back to the first leaf.
    TerminalTab(const QUuid& id, QString title, std::optional<QString> projectID,
                std::vector<std::unique_ptr<TerminalPane>> panes,
                std::optional<PaneLayout> layout = std::nullopt,
                std::optional<QUuid> selectedPaneID = std::nullopt);
    ~TerminalTab() override;

    const QUuid& id() const { return id_; }
    const std::optional<QString>& projectID() const { return projectID_; }
    QString workspaceID() const { return workspaceIDFor(projectID_); }
    const QString& title() const { return title_; }
    void setTitle(const QString& title);

    const PaneLayout& layout() const { return layout_; }
    void setLayout(const PaneLayout& layout);
    const std::optional<QUuid>& selectedPaneID() const { return selectedPaneID_; }
    void setSelectedPaneID(const std::optional<QUuid>& id);
    // A bell rang in one of its panes while the tab was not in view.
    bool hasUnseenBell() const { return hasUnseenBell_; }
    void setHasUnseenBell(bool value);

    // The panes in layout order; leaves without a pane are passed over.
    std::vector<TerminalPane*> panes() const;
    TerminalPane* pane(const QUuid& id) const;
    std::size_t paneCount() const { return panesByID_.size(); }
    void addPane(std::unique_ptr<TerminalPane> pane);
    // Takes the pane out of the tab and hands it back.
    std::unique_ptr<TerminalPane> takePane(const QUuid& id);

  signals:
    void titleChanged();
    void hasUnseenBellChanged();
    void layoutChanged();
    void selectedPaneIDChanged();
    void panesChanged();

  private:
    QUuid id_;
    QString title_;
    std::optional<QString> projectID_;
    std::map<QUuid, std::unique_ptr<TerminalPane>> panesByID_;
    PaneLayout layout_;
    std::optional<QUuid> selectedPaneID_;
    bool hasUnseenBell_ = false;
};

// One row of the workspace switcher.
struct WorkspaceChoice {
    QString id;
    QString title;
    std::optional<QString> projectID;
    int tabCount = 0;
    bool operator==(const WorkspaceChoice&) const = default;
};

}  // namespace hl
