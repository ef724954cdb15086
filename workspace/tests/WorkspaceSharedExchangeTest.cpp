// The shared workspace exchange between two stores, each on its own folders:
// shapes that travel, directories that do not exist on the other side, panes
// that leave and come back to their running sessions.
#include <gtest/gtest.h>

#include "WorkspaceTestSupport.h"

namespace fs = std::filesystem;
using hl::ProjectRecord;
using hl::SharedPane;
using hl::SharedWorkspace;
using hl::WorkspaceStore;
using hl::test::spinUntil;
using hl::test::StoreFixture;

namespace {

// The same project on another computer: same id and name, its own folder.
ProjectRecord sameProjectIn(StoreFixture& f, const ProjectRecord& project) {
    auto local = f.project(project.name);
    return ProjectRecord{project.id, project.name, local.root};
}

std::vector<hl::TerminalPane*> allPanes(WorkspaceStore& store) {
    std::vector<hl::TerminalPane*> list;
    for (auto* tab : store.tabs())
        for (auto* pane : tab->panes())
            list.push_back(pane);
    return list;
}

class WorkspaceSharedExchangeTest : public ::testing::Test {
  protected:
    StoreFixture a, b;
};

TEST_F(WorkspaceSharedExchangeTest, PathsAreRelativeOnlyWithinTheRoot) {
    const QString root = QString::fromStdString(a.base.string()) + "/root";
    EXPECT_EQ(WorkspaceStore::relativePath(root, root), QString());
    EXPECT_EQ(WorkspaceStore::relativePath(root + "/src/lib", root), "src/lib");
    EXPECT_EQ(WorkspaceStore::relativePath(root + "2/src", root), std::nullopt);
    EXPECT_EQ(WorkspaceStore::relativePath("/elsewhere", root), std::nullopt);

    fs::create_directories(a.base / "root" / "src");
    fs::create_directories(a.base / "outside");
    fs::create_directory_symlink(a.base / "outside", a.base / "root" / "out");
    EXPECT_EQ(WorkspaceStore::resolvedPath("", root + "/missing"), root + "/missing");
    EXPECT_EQ(WorkspaceStore::resolvedPath("src", root), root + "/src");
    EXPECT_EQ(WorkspaceStore::resolvedPath("gone", root), std::nullopt);
    EXPECT_EQ(WorkspaceStore::resolvedPath("out", root), std::nullopt) << "a link out of the root";
    EXPECT_EQ(WorkspaceStore::resolvedPath("../outside", root), std::nullopt);
    EXPECT_EQ(WorkspaceStore::resolvedPath("/etc", root), std::nullopt);
}

TEST_F(WorkspaceSharedExchangeTest, AShapeTravelsWithoutSessionsAndResolvesAgainstTheOtherRoot) {
    auto alpha = a.project("alpha");
    fs::create_directories((alpha.root + "/src").toStdString());
    auto storeA = a.makeStore({alpha});
    storeA->openProject(alpha);
    storeA->split(true);
    storeA->newTerminal();
    storeA->renameProject(alpha.id, "Alpha");
    // A pane in a subdirectory arrives through an import of A's own shape.
    auto shape = storeA->sharedWorkspaces({alpha});
    ASSERT_EQ(shape.size(), 1);
    shape[0].tabs[0].panes[1].relativeCWD = "src";
    ASSERT_TRUE(storeA->applySharedWorkspaces(shape, {alpha}).empty());
    shape = storeA->sharedWorkspaces({alpha});
    EXPECT_EQ(shape[0].tabs.size(), 2);
    EXPECT_EQ(shape[0].tabs[0].panes[1].relativeCWD, "src");
    EXPECT_EQ(shape[0].selectedTabID, storeA->selectedTabID());
    EXPECT_EQ(shape[0].tabs[0].title, "Alpha");

    auto alphaB = sameProjectIn(b, alpha);
    auto storeB = b.makeStore({alphaB});
    EXPECT_EQ(storeB->applySharedWorkspaces(shape, {alphaB}), std::vector<QString>{alpha.id})
        << "src is missing on B";
    EXPECT_TRUE(storeB->tabs().empty());
    fs::create_directories((alphaB.root + "/src").toStdString());
    EXPECT_TRUE(storeB->applySharedWorkspaces(shape, {alphaB}).empty());
    ASSERT_EQ(storeB->tabs().size(), 2u);
    EXPECT_EQ(storeB->sharedWorkspaces({alphaB}), shape);
    EXPECT_EQ(storeB->activeWorkspaceID(), "project:" + alpha.id);
    EXPECT_EQ(storeB->selectedTabID(), shape[0].selectedTabID);
    const auto panes = allPanes(*storeB);
    EXPECT_EQ(panes[1]->context().cwd, alphaB.root + "/src");
    EXPECT_FALSE(panes[0]->sessionID()) << "sessions never travel";

    // A pane outside the root leaves the whole workspace out of the export.
    auto other = a.project("other");
    EXPECT_TRUE(storeA->sharedWorkspaces({other, alpha}).size() == 1);
    EXPECT_TRUE(storeA->sharedWorkspaces({ProjectRecord{alpha.id, "Alpha", other.root}}).isEmpty());
}

TEST_F(WorkspaceSharedExchangeTest, PanesThatLeaveAreSuspendedAndComeBackToTheirSessions) {
    auto alpha = a.project("alpha");
    fs::create_directories((alpha.root + "/src").toStdString());
    auto store = a.makeStore({alpha});
    store->openProject(alpha);
    store->split(true);
    const auto full = store->sharedWorkspaces({alpha});
    auto* tab = store->selectedTab();
    for (auto* pane : tab->panes())
        pane->controller().requestFocus();
    ASSERT_TRUE(spinUntil([&] {
        const auto panes = tab->panes();
        return std::all_of(panes.begin(), panes.end(), [](auto* p) { return p->sessionID(); });
    }));
    hl::TerminalPane* kept = tab->panes()[0];
    hl::TerminalPane* leaving = tab->panes()[1];
    const QUuid leavingID = leaving->id();
    const QString leavingSession = *leaving->sessionID();

    // Only the title changes: every pane object stays.
    auto renamed = full;
    renamed[0].tabs[0].title = "Renamed";
    ASSERT_TRUE(store->applySharedWorkspaces(renamed, {alpha}).empty());
    EXPECT_EQ(store->selectedTab()->title(), "Renamed");
    EXPECT_EQ(allPanes(*store), (std::vector<hl::TerminalPane*>{kept, leaving}));

    // The second pane is closed on another computer: its shell lives on.
    auto single = renamed;
    single[0].tabs[0].panes = {single[0].tabs[0].panes[0]};
    single[0].tabs[0].layout = hl::PaneLayout::pane(kept->id()).toJson();
    single[0].tabs[0].selectedPaneID = kept->id();
    ASSERT_TRUE(store->applySharedWorkspaces(single, {alpha}).empty());
    EXPECT_EQ(allPanes(*store), std::vector<hl::TerminalPane*>{kept});
    ASSERT_EQ(store->suspendedPanes().size(), 1u);
    EXPECT_EQ(store->suspendedPanes()[0].sessionID, leavingSession);
    EXPECT_NE(a.stored(WorkspaceStore::suspendedPanesKey), "<absent>");
    hl::test::spinFor(std::chrono::milliseconds(100));
    EXPECT_EQ(a.node->sessions().count(leavingSession.toStdString()), 1u);

    // It comes back in another directory: the entry is not used and stays.
    auto moved = renamed;
    moved[0].tabs[0].panes[1].relativeCWD = "src";
    ASSERT_TRUE(store->applySharedWorkspaces(moved, {alpha}).empty());
    EXPECT_NE(allPanes(*store)[1]->sessionID(), leavingSession);
    ASSERT_EQ(store->suspendedPanes().size(), 1u);
    EXPECT_EQ(store->suspendedPanes()[0].id, leavingID);

    // (Coming back to the same shell, and the removal of the project ending both
    // shells, run against a real node between two computers: SuspendedPaneTest.)
    // The workspace is gone elsewhere: everything is suspended, nothing is active.
    ASSERT_TRUE(store->applySharedWorkspaces({}, {alpha}).empty());
    EXPECT_TRUE(store->tabs().empty());
    EXPECT_EQ(store->activeWorkspaceID(), std::nullopt);
    EXPECT_EQ(store->suspendedPanes().size(), 2u);
}

TEST_F(WorkspaceSharedExchangeTest, ImportsKeepPlacesAndSelectionAndRefuseWhatCannotBeSaved) {
    auto alpha = a.project("alpha");
    auto beta = a.project("beta");
    auto store = a.makeStore({alpha, beta});
    store->openProject(alpha);
    store->newTerminal();
    store->newTerminal();
    store->openProject(beta);
    auto three = store->sharedWorkspaces({alpha, beta});
    ASSERT_EQ(three[0].tabs.size(), 3);
    // Alpha's three tabs become two; beta's tab stays after them.
    auto two = three;
    two[0].tabs.removeLast();
    two[0].selectedTabID = two[0].tabs[1].id;
    ASSERT_TRUE(store->applySharedWorkspaces(two, {alpha, beta}).empty());
    ASSERT_EQ(store->tabs().size(), 3u);
    EXPECT_EQ(store->tabs()[2]->projectID(), beta.id);
    EXPECT_EQ(store->activeWorkspaceID(), "project:" + beta.id);
    store->selectWorkspace("project:" + alpha.id);
    EXPECT_EQ(store->selectedTabID(), two[0].tabs[1].id);

    // Alpha is no longer mapped here: its tabs leave and beta becomes active.
    ASSERT_TRUE(store->applySharedWorkspaces(two, {beta}).empty());
    EXPECT_EQ(store->tabs().size(), 1u);
    EXPECT_EQ(store->activeWorkspaceID(), "project:" + beta.id);

    // Repeated project ids are refused whole.
    auto repeated = two;
    repeated.append(two[1]);
    EXPECT_EQ(store->applySharedWorkspaces(repeated, {alpha, beta}),
              (std::vector<QString>{alpha.id, beta.id}));
    EXPECT_EQ(store->tabs().size(), 1u);

    // A store that may not save changes nothing and names every project.
    StoreFixture c;
    auto gamma = c.project("gamma");
    auto readOnly = c.makeStore({gamma}, false);
    SharedWorkspace incoming{gamma.id, two[1].tabs, std::nullopt};
    EXPECT_EQ(readOnly->applySharedWorkspaces({incoming}, {gamma}), std::vector<QString>{gamma.id});
    EXPECT_TRUE(readOnly->tabs().empty());
}

}  // namespace
