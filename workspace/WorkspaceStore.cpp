// WorkspaceStore: the operations on the live model, each in its order of steps,
// and the save of the whole model after every change.
#include "WorkspaceStore.h"

#include <QFileInfo>
#include <QPointer>

#include <algorithm>
#include <cstdlib>

#include "PathRules.h"
#include "RuntimePaths.h"

namespace hl {

namespace {

const QString unreadableStorage =
    QStringLiteral("Saved workspace data is unreadable and was preserved.");

// Marks an operation of the store as under way for as long as it lives.
class OperationScope {
  public:
    explicit OperationScope(int& depth) : depth_(depth) { ++depth_; }
    ~OperationScope() { --depth_; }
    OperationScope(const OperationScope&) = delete;
    OperationScope& operator=(const OperationScope&) = delete;

  private:
    int& depth_;
};

// The index of `current` in `ids` moved by `offset`, wrapping at both ends.
template <typename T>
std::optional<T> adjacent(const std::vector<T>& ids, const std::optional<T>& current, int offset) {
    if (ids.empty()) return std::nullopt;
    const int count = static_cast<int>(ids.size());
    int index = 0;
    if (current) {
        auto it = std::find(ids.begin(), ids.end(), *current);
        if (it != ids.end()) index = static_cast<int>(it - ids.begin());
    }
    return ids[static_cast<std::size_t>((((index + offset) % count) + count) % count)];
}

}  // namespace

WorkspaceStore::WorkspaceStore(WorkspaceStoreOptions options, QObject* parent)
    : QObject(parent),
      defaults_(std::move(options.defaults)),
      scratchDirectoryProvider_(std::move(options.scratchDirectoryProvider)),
      scratchRoot_(options.scratchRoot.value_or(
          QString::fromStdString(standardizedPath(RuntimePaths::scratchRoot().string())))),
      client_(options.client ? options.client : std::make_shared<UnixSocketClient>()),
      controllerHooks_(std::move(options.controllerHooks)),
      catalogIsReadable_(options.catalogIsReadable),
      storageIsWritable_(options.catalogIsReadable) {
    if (!scratchDirectoryProvider_) {
        scratchDirectoryProvider_ = [](const QUuid& id) {
            return QString::fromStdString(RuntimePaths::createScratchDirectory(
                id.toString(QUuid::WithoutBraces).toStdString()));
        };
    }
    for (const auto& project : options.knownProjects) {
        if (!projectRoots_.emplace(project.id, project.root).second) std::abort();  // repeated id
    }
    closeLedger_ =
        SessionCloseLedger::create(defaults_, client_, std::move(options.closeRetryPolicy));
    readSuspendedPanes();
    restore();
    openRecoveredSessions();
    closeLedger_->retryAll(retryablePendingCloseIDs_);
}

WorkspaceStore::~WorkspaceStore() = default;

// --- Observable state and derived values -------------------------------------------

std::vector<TerminalTab*> WorkspaceStore::tabs() const {
    std::vector<TerminalTab*> list;
    for (const auto& tab : tabs_)
        list.push_back(tab.get());
    return list;
}

void WorkspaceStore::setSearchQuery(const QString& query) {
    if (searchQuery_ == query) return;
    searchQuery_ = query;
    emit searchQueryChanged();
}

void WorkspaceStore::setActiveWorkspaceID(const std::optional<QString>& id) {
    if (activeWorkspaceID_ == id) return;
    activeWorkspaceID_ = id;
    emit activeWorkspaceIDChanged();
}

void WorkspaceStore::setSelectedTabID(const std::optional<QUuid>& id) {
    if (selectedTabID_ == id) return;
    selectedTabID_ = id;
    emit selectedTabIDChanged();
}

void WorkspaceStore::setErrorMessage(const std::optional<QString>& message) {
    if (errorMessage_ == message) return;
    errorMessage_ = message;
    emit errorMessageChanged();
}

TerminalTab* WorkspaceStore::tab(const QUuid& id) const {
    for (const auto& candidate : tabs_) {
        if (candidate->id() == id) return candidate.get();
    }
    return nullptr;
}

std::vector<TerminalTab*> WorkspaceStore::tabsOfWorkspace(const QString& workspaceID) const {
    std::vector<TerminalTab*> list;
    for (const auto& candidate : tabs_) {
        if (candidate->workspaceID() == workspaceID) list.push_back(candidate.get());
    }
    return list;
}

std::vector<TerminalTab*> WorkspaceStore::visibleTabs() const {
    return activeWorkspaceID_ ? tabsOfWorkspace(*activeWorkspaceID_) : std::vector<TerminalTab*>{};
}

TerminalTab* WorkspaceStore::selectedTab() const {
    if (!selectedTabID_) return nullptr;
    for (TerminalTab* candidate : visibleTabs()) {
        if (candidate->id() == *selectedTabID_) return candidate;
    }
    return nullptr;
}

std::optional<QString> WorkspaceStore::activeProjectID() const {
    TerminalTab* selected = selectedTab();
    return selected ? selected->projectID() : std::nullopt;
}

std::vector<WorkspaceChoice> WorkspaceStore::workspaceChoices() const {
    std::vector<WorkspaceChoice> choices;
    for (const auto& candidate : tabs_) {
        const QString id = candidate->workspaceID();
        auto existing = std::find_if(choices.begin(), choices.end(),
                                     [&](const WorkspaceChoice& c) { return c.id == id; });
        if (existing != choices.end()) {
            ++existing->tabCount;
            continue;
        }
        choices.push_back(WorkspaceChoice{
            id, candidate->projectID() ? candidate->title() : QStringLiteral("Scratch"),
            candidate->projectID(), 1});
    }
    return choices;
}

QString WorkspaceStore::activeWorkspaceTitle() const {
    for (const auto& choice : workspaceChoices()) {
        if (activeWorkspaceID_ && choice.id == *activeWorkspaceID_) return choice.title;
    }
    return QStringLiteral("No workspace");
}

std::vector<SuspendedPane> WorkspaceStore::suspendedPanes() const {
    std::vector<SuspendedPane> list;
    for (const auto& [id, pane] : suspendedPanes_)
        list.push_back(pane);
    return list;
}

void WorkspaceStore::clearError() {
    setErrorMessage(std::nullopt);
}

// --- Operations --------------------------------------------------------------------

bool WorkspaceStore::hasWorkspace(const QString& projectID) const {
    return std::any_of(tabs_.begin(), tabs_.end(),
                       [&](const auto& each) { return each->projectID() == projectID; });
}

bool WorkspaceStore::openProject(const ProjectRecord& project) {
    OperationScope scope(operationDepth_);
    if (!catalogIsReadable_) {
        setErrorMessage("The saved project catalog is unreadable. No terminal was opened.");
        return false;
    }
    if (!storageIsWritable_) {
        setErrorMessage(refusal() + " No project was opened.");
        return false;
    }
    const auto known = projectRoots_.find(project.id);
    const bool ownerIsNew = known == projectRoots_.end() || known->second != project.root;
    projectRoots_[project.id] = project.root;
    if (ownerIsNew) renewPanesOfProject(project.id);
    const QString workspaceID = projectWorkspaceID(project.id);
    if (!tabsOfWorkspace(workspaceID).empty()) {
        selectWorkspace(workspaceID);
        return true;
    }
    if (!project.rootIsAvailable()) {
        setErrorMessage("The project root is unavailable. No terminal was opened.");
        return false;
    }
    appendTab(project.name, PaneContext{project.id, project.root, std::nullopt}, workspaceID);
    return true;
}

void WorkspaceStore::selectWorkspace(const QString& workspaceID) {
    OperationScope scope(operationDepth_);
    const auto members = tabsOfWorkspace(workspaceID);
    if (members.empty()) return;
    resignFocusedPane();
    setActiveWorkspaceID(workspaceID);
    auto remembered = selectedTabs_.find(workspaceID);
    const bool holdsRemembered = remembered != selectedTabs_.end() &&
                                 std::any_of(members.begin(), members.end(), [&](TerminalTab* t) {
                                     return t->id() == remembered->second;
                                 });
    setSelectedTabID(holdsRemembered ? remembered->second : members.front()->id());
    selectedTabs_[workspaceID] = *selectedTabID_;
    markSelectedTabSeen();
    focusSelectedPane();
    setErrorMessage(std::nullopt);
    persist();
}

void WorkspaceStore::appendTab(const QString& title, const PaneContext& context,
                               const QString& workspaceID) {
    resignFocusedPane();
    std::vector<std::unique_ptr<TerminalPane>> panes;
    panes.push_back(makePane(QUuid::createUuid(), context, std::nullopt, false));
    auto created = std::make_unique<TerminalTab>(QUuid::createUuid(), title, context.projectID,
                                                 std::move(panes));
    const QUuid tabID = created->id();
    tabs_.push_back(std::move(created));
    emit tabsChanged();
    setActiveWorkspaceID(workspaceID);
    setSelectedTabID(tabID);
    selectedTabs_[workspaceID] = tabID;
    setErrorMessage(std::nullopt);
    focusSelectedPane();
    persist();
}

void WorkspaceStore::newTerminal() {
    OperationScope scope(operationDepth_);
    if (!storageIsWritable_) {
        setErrorMessage(refusal() + " No terminal was created.");
        return;
    }
    if (!activeWorkspaceID_) {
        setErrorMessage("Choose a project or create a scratch terminal first.");
        return;
    }
    if (*activeWorkspaceID_ == scratchWorkspaceID) {
        createScratchTerminal();
        return;
    }
    TerminalTab* source = selectedTab();
    if (!source) {
        const auto visible = visibleTabs();
        if (!visible.empty()) source = visible.front();
    }
    std::optional<PaneContext> context;
    if (source && !source->panes().empty()) context = source->panes().front()->context();
    auto root = context && context->projectID ? projectRoots_.find(*context->projectID)
                                              : projectRoots_.end();
    if (!context || root == projectRoots_.end() ||
        !canonicalDirectoryIsAvailable(context->cwd, root->second)) {
        setErrorMessage("The project root is unavailable. No terminal was created.");
        return;
    }
    appendTab(source->title(), *context, *activeWorkspaceID_);
}

void WorkspaceStore::createScratchTerminal() {
    OperationScope scope(operationDepth_);
    if (!storageIsWritable_) {
        setErrorMessage(refusal() + " No terminal was created.");
        return;
    }
    const QUuid id = QUuid::createUuid();
    QString path;
    try {
        path = scratchDirectoryProvider_(id);
    } catch (...) {
        setErrorMessage("Could not create a private scratch directory.");
        return;
    }
    appendTab(QStringLiteral("Scratch"), PaneContext{std::nullopt, path, id}, scratchWorkspaceID);
}

void WorkspaceStore::selectTab(const QUuid& id) {
    OperationScope scope(operationDepth_);
    if (!activeWorkspaceID_) return;
    const auto visible = visibleTabs();
    if (std::none_of(visible.begin(), visible.end(),
                     [&](TerminalTab* t) { return t->id() == id; })) {
        return;
    }
    resignFocusedPane();
    setSelectedTabID(id);
    selectedTabs_[*activeWorkspaceID_] = id;
    markSelectedTabSeen();
    focusSelectedPane();
    persist();
}

void WorkspaceStore::userSelectedPane(const QUuid& id) {
    if (operationDepth_ > 0) return;
    TerminalTab* selected = selectedTab();
    if (!selected || selected->selectedPaneID() == id) return;
    selectPane(id);
}

void WorkspaceStore::selectPane(const QUuid& id) {
    TerminalTab* selected = selectedTab();
    TerminalPane* pane = selected ? selected->pane(id) : nullptr;
    if (!pane) return;
    OperationScope scope(operationDepth_);
    resignFocusedPane();
    selected->setSelectedPaneID(id);
    pane->controller().requestFocus();
    persist();
}

void WorkspaceStore::selectAdjacentTab(int offset) {
    std::vector<QUuid> ids;
    for (TerminalTab* each : visibleTabs())
        ids.push_back(each->id());
    if (auto next = adjacent(ids, selectedTabID_, offset)) selectTab(*next);
}

void WorkspaceStore::selectAdjacentWorkspace(int offset) {
    std::vector<QString> ids;
    for (const auto& choice : workspaceChoices())
        ids.push_back(choice.id);
    if (auto next = adjacent(ids, activeWorkspaceID_, offset)) selectWorkspace(*next);
}

void WorkspaceStore::selectAdjacentPane(int offset) {
    TerminalTab* selected = selectedTab();
    if (!selected) return;
    std::vector<QUuid> ids;
    for (TerminalPane* pane : selected->panes())
        ids.push_back(pane->id());
    if (auto next = adjacent(ids, selected->selectedPaneID(), offset)) selectPane(*next);
}

void WorkspaceStore::split(bool vertical) {
    OperationScope scope(operationDepth_);
    if (!storageIsWritable_) {
        setErrorMessage(refusal());
        return;
    }
    TerminalTab* selected = selectedTab();
    if (!selected || !selected->selectedPaneID()) return;
    TerminalPane* current = selected->pane(*selected->selectedPaneID());
    if (!current) return;
    if (!paneRuntimePolicy(current->context()).directoryIsReady()) {
        setErrorMessage("The working directory is unavailable. No split was created.");
        return;
    }
    resignFocusedPane();
    auto pane = makePane(QUuid::createUuid(), current->context(), std::nullopt, false);
    const QUuid newID = pane->id();
    const QUuid oldID = current->id();
    selected->addPane(std::move(pane));
    const PaneLayout node = PaneLayout::split(
        QUuid::createUuid(), vertical ? SplitAxis::Horizontal : SplitAxis::Vertical,
        PaneLayout::defaultSplitRatio, PaneLayout::pane(oldID), PaneLayout::pane(newID));
    selected->setLayout(selected->layout().replacing(oldID, node));
    selected->setSelectedPaneID(newID);
    focusSelectedPane();
    persist();
}

void WorkspaceStore::setSplitRatio(const QUuid& id, double ratio) {
    TerminalTab* selected = selectedTab();
    if (!selected) return;
    selected->setLayout(selected->layout().settingRatio(id, ratio));
    persist();
}

void WorkspaceStore::closeSelectedPane() {
    OperationScope scope(operationDepth_);
    TerminalTab* selected = selectedTab();
    if (!selected || !selected->selectedPaneID()) return;
    const QUuid paneID = *selected->selectedPaneID();
    TerminalPane* pane = selected->pane(paneID);
    if (!pane) return;
    if (selected->paneCount() == 1) {
        closeTab(selected->id());
        return;
    }
    const QList<QUuid> order = selected->layout().paneIDs();
    const auto index = order.indexOf(paneID);
    const auto remaining = selected->layout().removing(paneID);
    if (index < 0 || !remaining) return;
    if (!recordCloses({pane})) return;
    pane->controller().close();
    auto removed = selected->takePane(paneID);
    selected->setLayout(*remaining);
    const QList<QUuid> left = remaining->paneIDs();
    selected->setSelectedPaneID(left[std::min<qsizetype>(index, left.size() - 1)]);
    retire(std::move(removed));
    focusSelectedPane();
    persist();
}

void WorkspaceStore::closeTab(const QUuid& id) {
    OperationScope scope(operationDepth_);
    auto found = std::find_if(tabs_.begin(), tabs_.end(),
                              [&](const auto& each) { return each->id() == id; });
    if (found == tabs_.end()) return;
    if (!recordCloses((*found)->panes())) return;
    const std::optional<QUuid> kept = selectedTabID_;
    std::unique_ptr<TerminalTab> closing = std::move(*found);
    tabs_.erase(found);
    emit tabsChanged();
    for (TerminalPane* pane : closing->panes())
        pane->controller().close();
    for (auto it = selectedTabs_.begin(); it != selectedTabs_.end();) {
        it = it->second == id ? selectedTabs_.erase(it) : std::next(it);
    }
    if (activeWorkspaceID_) {
        const auto remaining = tabsOfWorkspace(*activeWorkspaceID_);
        const bool keepsSelection =
            kept && std::any_of(remaining.begin(), remaining.end(),
                                [&](TerminalTab* t) { return t->id() == *kept; });
        if (keepsSelection) {
            setSelectedTabID(kept);
        } else {
            setSelectedTabID(remaining.empty() ? std::nullopt
                                               : std::optional<QUuid>(remaining.front()->id()));
        }
        if (selectedTabID_) selectedTabs_[*activeWorkspaceID_] = *selectedTabID_;
        if (remaining.empty()) {
            setActiveWorkspaceID(std::nullopt);
            setSelectedTabID(std::nullopt);
        } else {
            focusSelectedPane();
        }
    }
    for (const QUuid& paneID : closing->layout().paneIDs())
        retire(closing->takePane(paneID));
    closing.reset();
    persist();
}

bool WorkspaceStore::renameProject(const QString& id, const QString& name) {
    if (!storageIsWritable_) {
        setErrorMessage(refusal() + " The project was not renamed.");
        return false;
    }
    const QString trimmed = name.trimmed();
    if (trimmed.isEmpty()) return false;
    for (const auto& each : tabs_) {
        if (each->projectID() == id) each->setTitle(trimmed);
    }
    persist();
    return true;
}

bool WorkspaceStore::removeProject(const QString& id) {
    OperationScope scope(operationDepth_);
    if (!storageIsWritable_) {
        setErrorMessage(refusal() + " The project was not removed.");
        return false;
    }
    std::vector<TerminalPane*> closing;
    for (const auto& each : tabs_) {
        if (each->projectID() != id) continue;
        for (TerminalPane* pane : each->panes())
            closing.push_back(pane);
    }
    if (!recordCloses(closing)) return false;
    closeSuspendedPanes(id);
    std::vector<std::unique_ptr<TerminalTab>> removed;
    for (const auto& each : tabs_) {
        if (each->projectID() != id) continue;
        for (TerminalPane* pane : each->panes())
            pane->controller().close();
    }
    for (auto it = tabs_.begin(); it != tabs_.end();) {
        if ((*it)->projectID() == id) {
            removed.push_back(std::move(*it));
            it = tabs_.erase(it);
        } else {
            ++it;
        }
    }
    if (!removed.empty()) emit tabsChanged();
    projectRoots_.erase(id);
    const QString workspaceID = projectWorkspaceID(id);
    selectedTabs_.erase(workspaceID);
    if (activeWorkspaceID_ == workspaceID) {
        resignFocusedPane();
        const auto choices = workspaceChoices();
        setActiveWorkspaceID(choices.empty() ? std::nullopt
                                             : std::optional<QString>(choices.front().id));
        std::optional<QUuid> selection;
        if (activeWorkspaceID_) {
            auto remembered = selectedTabs_.find(*activeWorkspaceID_);
            if (remembered != selectedTabs_.end()) {
                selection = remembered->second;
            } else if (const auto members = tabsOfWorkspace(*activeWorkspaceID_);
                       !members.empty()) {
                selection = members.front()->id();
            }
        }
        setSelectedTabID(selection);
        if (activeWorkspaceID_ && selectedTabID_)
            selectedTabs_[*activeWorkspaceID_] = *selectedTabID_;
        focusSelectedPane();
    }
    for (auto& tab : removed) {
        for (const QUuid& paneID : tab->layout().paneIDs())
            retire(tab->takePane(paneID));
    }
    removed.clear();
    persist();
    return true;
}

void WorkspaceStore::search(bool backwards) {
    TerminalTab* selected = selectedTab();
    if (searchQuery_.isEmpty() || !selected || !selected->selectedPaneID()) return;
    TerminalPane* pane = selected->pane(*selected->selectedPaneID());
    if (!pane || !pane->controller().surface()) return;
    pane->controller().surface()->search(searchQuery_, backwards);
}

void WorkspaceStore::closeSuspendedPanes(const QString& projectID) {
    for (auto it = suspendedPanes_.begin(); it != suspendedPanes_.end();) {
        if (it->second.projectID != projectID) {
            ++it;
            continue;
        }
        closeLedger_->record(it->second.sessionID);
        closeLedger_->retry(it->second.sessionID);
        it = suspendedPanes_.erase(it);
    }
    persistSuspendedPanes();
}

void WorkspaceStore::retire(std::unique_ptr<TerminalPane> pane) {
    if (!pane) return;
    pane->markRetired();
    if (!pane->controller().hasStartInFlight()) return;
    TerminalPane* waiting = pane.get();
    connect(
        &pane->controller(), &TerminalController::startSettled, this,
        [this, waiting] {
            std::erase_if(retiredPanes_,
                          [waiting](const auto& each) { return each.get() == waiting; });
        },
        Qt::QueuedConnection);
    retiredPanes_.push_back(std::move(pane));
}

}  // namespace hl
