// WorkspaceStore's panes: what a pane may do with its session, the building of
// a pane and its controller (and what the store hears from it), and the keyboard.
#include <QPointer>

#include "WorkspaceStore.h"

namespace hl {

namespace {

std::optional<std::string> toStd(const std::optional<QString>& text) {
    return text ? std::optional<std::string>(text->toStdString()) : std::nullopt;
}

}  // namespace

PaneRuntimePolicy WorkspaceStore::paneRuntimePolicy(const PaneContext& context) const {
    if (context.projectID) {
        if (!catalogIsReadable_) {
            return {false, false, [] { return false; },
                    QStringLiteral("Project catalog unreadable · reattach blocked")};
        }
        auto root = projectRoots_.find(*context.projectID);
        if (root == projectRoots_.end()) {
            return {false, false, [] { return false; },
                    QStringLiteral("Project ownership unavailable · reattach blocked")};
        }
        return {true, storageIsWritable_,
                [cwd = context.cwd, rootPath = root->second] {
                    return canonicalDirectoryIsAvailable(cwd, rootPath);
                },
                QStringLiteral("Project directory unavailable · focus to retry")};
    }
    const bool matches = context.scratchID &&
                         scratchPathMatchesIdentity(context.cwd, *context.scratchID, scratchRoot_);
    return {
        matches, storageIsWritable_,
        [matches, cwd = context.cwd] { return matches && canonicalDirectoryIsAvailable(cwd, cwd); },
        QStringLiteral("Scratch directory unavailable · focus to retry")};
}

std::unique_ptr<TerminalPane> WorkspaceStore::makePane(
    const QUuid& id, const PaneContext& context, const std::optional<QString>& sessionID,
    bool isReplacementSession, std::vector<SavedPreviousShell> previousShells) {
    PaneRuntimePolicy policy = paneRuntimePolicy(context);
    auto controller = std::make_unique<TerminalController>(
        toStd(sessionID), context.cwd.toStdString(), isReplacementSession, policy.allowReconnect,
        policy.sessionCreationIsAllowed, policy.directoryIsReady, policy.unavailableStatus,
        QStringLiteral("Saved workspace data is unsafe · new session blocked"), client_,
        controllerHooks_);
    if (!previousShells.empty()) {
        std::vector<std::string> ids;
        for (const auto& shell : previousShells)
            ids.push_back(shell.sessionID.toStdString());
        controller->setPreviousShells(ids);
    }
    auto pane = std::make_unique<TerminalPane>(id, context, sessionID, std::move(controller),
                                               std::move(previousShells));

    QPointer<WorkspaceStore> store(this);
    QPointer<TerminalPane> weakPane(pane.get());
    QPointer<TerminalController> weakController(&pane->controller());
    pane->controller().onSessionReady = [store, weakPane, weakController, context,
                                         id](const std::string& session) {
        const QString sessionText = QString::fromStdString(session);
        if (store) store->sessionsSeenThisRun_.insert(sessionText);
        if (weakPane && !weakPane->isRetired()) {
            weakPane->setSessionID(sessionText);
        } else if (context.projectID && store) {
            // The pane left the model while its session came up: keep the session.
            store->fileSuspendedPane(
                SuspendedPane{id, *context.projectID, context.cwd, sessionText,
                              weakController && weakController->isReplacementSession()});
            store->persistSuspendedPanes();
        }
        if (store) store->persist();
    };
    connect(&pane->controller(), &TerminalController::bellRang, this, [this, id] { bellRang(id); });
    connect(&pane->controller(), &TerminalController::previousShellsChanged, this,
            [this, weakPane] {
                // Mid-operation (a pane closing) the operation's own save follows.
                if (weakPane && weakPane->followPreviousShells(QDateTime::currentDateTimeUtc()) &&
                    !weakPane->isRetired() && operationDepth_ == 0)
                    persist();
            });
    pane->controller().onCloseRequired = [store](const std::string& session) {
        if (!store) return;
        const QString sessionText = QString::fromStdString(session);
        store->closeLedger_->record(sessionText);
        store->persist();
        store->closeLedger_->retry(sessionText);
    };
    return pane;
}

void WorkspaceStore::resignFocusedPane() {
    for (const auto& each : tabs_) {
        for (TerminalPane* pane : each->panes())
            pane->controller().resignFocus();
    }
}

void WorkspaceStore::focusSelectedPane() {
    TerminalTab* selected = selectedTab();
    if (!selected || !selected->selectedPaneID()) return;
    if (TerminalPane* pane = selected->pane(*selected->selectedPaneID())) {
        pane->controller().requestFocus();
    }
}

}  // namespace hl
