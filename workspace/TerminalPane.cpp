// TerminalPane and TerminalTab: ownership and the tab's invariants.
#include "TerminalPane.h"

#include <algorithm>

#include <cstdlib>

namespace hl {

TerminalPane::TerminalPane(const QUuid& id, PaneContext context, std::optional<QString> sessionID,
                           std::unique_ptr<TerminalController> controller,
                           std::vector<SavedPreviousShell> previousShells)
    : id_(id),
      context_(std::move(context)),
      sessionID_(std::move(sessionID)),
      previousShells_(std::move(previousShells)),
      controller_(std::move(controller)) {}

bool TerminalPane::followPreviousShells(const QDateTime& now) {
    std::vector<SavedPreviousShell> next;
    for (const auto& shell : controller_->previousShells()) {
        const QString id = QString::fromStdString(shell.id);
        auto known =
            std::find_if(previousShells_.begin(), previousShells_.end(),
                         [&](const SavedPreviousShell& each) { return each.sessionID == id; });
        next.push_back(known != previousShells_.end() ? *known : SavedPreviousShell{id, now});
    }
    if (next == previousShells_) return false;
    previousShells_ = std::move(next);
    return true;
}

TerminalPane::~TerminalPane() = default;

void TerminalPane::setSessionID(const std::optional<QString>& sessionID) {
    if (sessionID_ == sessionID) return;
    sessionID_ = sessionID;
    emit sessionIDChanged();
}

TerminalTab::TerminalTab(const QUuid& id, QString title, std::optional<QString> projectID,
                         std::vector<std::unique_ptr<TerminalPane>> panes,
                         std::optional<PaneLayout> layout, std::optional<QUuid> selectedPaneID)
    : id_(id), title_(std::move(title)), projectID_(std::move(projectID)) {
    if (panes.empty()) std::abort();  // a tab without panes is a programming error
    const QUuid firstID = panes.front()->id();
    for (auto& pane : panes) {
        const QUuid paneID = pane->id();
        if (!panesByID_.emplace(paneID, std::move(pane)).second) std::abort();  // repeated pane id
    }
    layout_ = layout.value_or(PaneLayout::pane(firstID));
    if (selectedPaneID && panesByID_.count(*selectedPaneID) != 0) {
        selectedPaneID_ = selectedPaneID;
    } else {
        selectedPaneID_ = layout_.paneIDs().front();
    }
}

TerminalTab::~TerminalTab() = default;

void TerminalTab::setTitle(const QString& title) {
    if (title_ == title) return;
    title_ = title;
    emit titleChanged();
}

void TerminalTab::setHasUnseenBell(bool value) {
    if (hasUnseenBell_ == value) return;
    hasUnseenBell_ = value;
    emit hasUnseenBellChanged();
}

void TerminalTab::setLayout(const PaneLayout& layout) {
    if (layout_ == layout) return;
    layout_ = layout;
    emit layoutChanged();
}

void TerminalTab::setSelectedPaneID(const std::optional<QUuid>& id) {
    if (selectedPaneID_ == id) return;
    selectedPaneID_ = id;
    emit selectedPaneIDChanged();
}

std::vector<TerminalPane*> TerminalTab::panes() const {
    std::vector<TerminalPane*> ordered;
    for (const QUuid& id : layout_.paneIDs()) {
        if (TerminalPane* found = pane(id)) ordered.push_back(found);
    }
    return ordered;
}

TerminalPane* TerminalTab::pane(const QUuid& id) const {
    auto it = panesByID_.find(id);
    return it == panesByID_.end() ? nullptr : it->second.get();
}

void TerminalTab::addPane(std::unique_ptr<TerminalPane> pane) {
    const QUuid id = pane->id();
    if (!panesByID_.emplace(id, std::move(pane)).second) std::abort();
    emit panesChanged();
}

std::unique_ptr<TerminalPane> TerminalTab::takePane(const QUuid& id) {
    auto it = panesByID_.find(id);
    if (it == panesByID_.end()) return nullptr;
    auto pane = std::move(it->second);
    panesByID_.erase(it);
    emit panesChanged();
    return pane;
}

}  // namespace hl
