// WorkspaceStore operations against an in-memory node: selection after every
// close, split and removal, the refusals and their messages, what is saved,
// and the path rules on real folders with symbolic links.
#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "WorkspaceTestSupport.h"

namespace fs = std::filesystem;
using hl::PaneLayout;
using hl::WorkspaceStore;
using hl::test::spinUntil;
using hl::test::StoreFixture;

namespace {

QJsonObject savedJson(const StoreFixture& f) {
    return QJsonDocument::fromJson(QByteArray::fromStdString(f.stored(WorkspaceStore::storageKey)))
        .object();
}

QList<QUuid> paneOrder(hl::TerminalTab* tab) {
    return tab->layout().paneIDs();
}

class WorkspaceStoreTest : public ::testing::Test {
  protected:
    StoreFixture f;
};

TEST_F(WorkspaceStoreTest, OpeningAProjectStartsAShellAndSavesItsSession) {
    auto alpha = f.project("alpha");
    auto store = f.makeStore({alpha});
    int changes = 0;
    store->onChange = [&] { ++changes; };
    ASSERT_TRUE(store->openProject(alpha));
    ASSERT_EQ(store->tabs().size(), 1u);
    auto* tab = store->selectedTab();
    ASSERT_NE(tab, nullptr);
    EXPECT_EQ(tab->title(), "alpha");
    EXPECT_EQ(store->activeWorkspaceID(), "project:" + alpha.id);
    EXPECT_EQ(store->activeProjectID(), alpha.id);

    auto* pane = tab->panes().front();
    ASSERT_TRUE(spinUntil([&] { return pane->sessionID().has_value(); }));
    EXPECT_EQ(f.node->cwdOf(pane->sessionID()->toStdString()), alpha.root.toStdString());
    EXPECT_EQ(pane->controller().status(), "Connected");
    EXPECT_GE(changes, 2) << "the open and the arriving session are both saved";

    const QJsonObject saved = savedJson(f);
    EXPECT_EQ(saved["activeWorkspaceID"].toString(), "project:" + alpha.id);
    const QJsonValue savedPane = saved.value("tabs")[0]["panes"][0];
    EXPECT_EQ(savedPane["sessionID"].toString(), *pane->sessionID());
    EXPECT_EQ(savedPane["isReplacement"].toBool(true), false);
    EXPECT_EQ(savedPane["context"].toObject()["cwd"].toString(), alpha.root);

    // Opening it again selects the same workspace, even after the folder has gone.
    fs::remove_all(alpha.root.toStdString());
    store->clearError();
    EXPECT_TRUE(store->openProject(alpha));
    EXPECT_EQ(store->tabs().size(), 1u);
    auto beta = f.project("beta");
    fs::remove_all(beta.root.toStdString());
    EXPECT_FALSE(store->openProject(beta));
    EXPECT_EQ(store->errorMessage(), "The project root is unavailable. No terminal was opened.");
}

TEST_F(WorkspaceStoreTest, SplittingAndClosingPanesKeepsTheLeftToRightOrder) {
    auto alpha = f.project("alpha");
    auto store = f.makeStore({alpha});
    store->openProject(alpha);
    auto* tab = store->selectedTab();
    const QUuid a = tab->panes().front()->id();
    store->split(true);  // right: side by side
    const QUuid b = *tab->selectedPaneID();
    store->split(false);  // down, in b
    const QUuid c = *tab->selectedPaneID();
    EXPECT_EQ(paneOrder(tab), (QList<QUuid>{a, b, c}));
    EXPECT_EQ(tab->layout().signature(), "H(P,V(P,P))");
    EXPECT_EQ(tab->pane(c)->context(), tab->pane(a)->context());
    ASSERT_TRUE(spinUntil([&] {
        const auto panes = tab->panes();
        return std::all_of(panes.begin(), panes.end(),
                           [](auto* p) { return p->sessionID().has_value(); });
    }));
    EXPECT_EQ(f.node->sessions().size(), 3u);

    // The divider's ratio is saved, clamped.
    store->setSplitRatio(tab->layout().id(), 0.95);
    EXPECT_EQ(tab->layout().ratio(), 0.9);
    EXPECT_EQ(savedJson(f).value("tabs")[0]["layout"]["split"]["ratio"].toDouble(), 0.9);

    // Closing b selects c, its successor; closing the last selects the new last.
    store->selectPane(b);
    const QString bSession = *tab->pane(b)->sessionID();
    store->closeSelectedPane();
    EXPECT_EQ(paneOrder(tab), (QList<QUuid>{a, c}));
    EXPECT_EQ(tab->selectedPaneID(), c);
    EXPECT_EQ(tab->layout().signature(), "H(P,P)");
    ASSERT_TRUE(spinUntil([&] { return f.node->sessions().count(bSession.toStdString()) == 0; }));
    ASSERT_TRUE(spinUntil([&] { return store->closeLedger().pending().empty(); }));

    store->closeSelectedPane();  // c was last: a is selected
    EXPECT_EQ(tab->selectedPaneID(), a);
    EXPECT_EQ(tab->layout(), PaneLayout::pane(a));

    // The last pane closes the tab, and the workspace goes with it.
    store->closeSelectedPane();
    EXPECT_TRUE(store->tabs().empty());
    EXPECT_EQ(store->activeWorkspaceID(), std::nullopt);
    EXPECT_EQ(store->selectedTabID(), std::nullopt);
    ASSERT_TRUE(spinUntil([&] { return f.node->sessions().empty(); }))
        << f.node->sessions().size() << " left; created " << f.node->count("create_session")
        << ", closes " << f.node->count("close_session");
    EXPECT_TRUE(savedJson(f)["tabs"].toArray().isEmpty());
}

TEST_F(WorkspaceStoreTest, TabsAndWorkspacesSelectAndWrap) {
    auto alpha = f.project("alpha");
    auto beta = f.project("beta");
    auto store = f.makeStore({alpha, beta});
    store->openProject(alpha);
    const QUuid first = *store->selectedTabID();
    store->newTerminal();
    const QUuid second = *store->selectedTabID();
    store->newTerminal();
    const QUuid third = *store->selectedTabID();
    EXPECT_EQ(store->visibleTabs().size(), 3u);

    store->selectAdjacentTab(1);
    EXPECT_EQ(store->selectedTabID(), first) << "wraps from the last to the first";
    store->selectAdjacentTab(-1);
    EXPECT_EQ(store->selectedTabID(), third);

    store->openProject(beta);
    const QUuid betaTab = *store->selectedTabID();
    store->createScratchTerminal();
    EXPECT_EQ(store->activeWorkspaceID(), "scratch");
    EXPECT_EQ(store->activeWorkspaceTitle(), "Scratch");
    const auto choices = store->workspaceChoices();
    ASSERT_EQ(choices.size(), 3u);
    EXPECT_EQ(choices[0], (hl::WorkspaceChoice{"project:" + alpha.id, "alpha", alpha.id, 3}));
    EXPECT_EQ(choices[2].title, "Scratch");

    store->selectTab(first);  // a tab of another workspace: nothing happens
    EXPECT_EQ(store->activeWorkspaceID(), "scratch");

    store->selectAdjacentWorkspace(1);  // wraps to alpha, which remembers its tab
    EXPECT_EQ(store->activeWorkspaceID(), "project:" + alpha.id);
    EXPECT_EQ(store->selectedTabID(), third);

    // Closing a tab that is not selected keeps the selection; closing the
    // selected one goes to the first tab of the workspace.
    store->closeTab(second);
    EXPECT_EQ(store->selectedTabID(), third);
    store->closeTab(third);
    EXPECT_EQ(store->selectedTabID(), first);
    EXPECT_FALSE(savedJson(f)["selectedTabs"].toObject().keys().isEmpty());
    for (const auto& value : savedJson(f)["selectedTabs"].toObject()) {
        EXPECT_NE(value.toString(), hl::uuidText(third));
    }

    // Removing the active project moves to the first remaining workspace.
    EXPECT_TRUE(store->removeProject(alpha.id));
    EXPECT_EQ(store->activeWorkspaceID(), "project:" + beta.id);
    EXPECT_EQ(store->selectedTabID(), betaTab);
    EXPECT_FALSE(store->hasWorkspace(alpha.id));
}

TEST_F(WorkspaceStoreTest, ABellOutOfViewMarksItsTabAndWorkspaceUntilShown) {
    auto alpha = f.project("alpha");
    auto beta = f.project("beta");
    auto store = f.makeStore({alpha, beta});
    store->openProject(alpha);
    store->newTerminal();
    const auto alphaTabs = store->visibleTabs();
    ASSERT_EQ(alphaTabs.size(), 2u);
    store->openProject(beta);
    int marks = 0;
    QObject::connect(store.get(), &WorkspaceStore::bellMarksChanged, [&] { ++marks; });

    // In view: nothing to mark.
    emit store->selectedTab()->panes().front()->controller().bellRang();
    EXPECT_EQ(marks, 0);
    // Another workspace's tab: it and its workspace are marked, once.
    emit alphaTabs[0]->panes().front()->controller().bellRang();
    emit alphaTabs[0]->panes().front()->controller().bellRang();
    EXPECT_EQ(marks, 1);
    EXPECT_TRUE(alphaTabs[0]->hasUnseenBell());
    EXPECT_TRUE(store->workspaceHasUnseenBell(hl::projectWorkspaceID(alpha.id)));
    EXPECT_FALSE(store->workspaceHasUnseenBell(hl::projectWorkspaceID(beta.id)));
    // Shown again: the marks go.
    store->selectWorkspace(hl::projectWorkspaceID(alpha.id));
    store->selectTab(alphaTabs[0]->id());
    EXPECT_FALSE(alphaTabs[0]->hasUnseenBell());
    EXPECT_FALSE(store->workspaceHasUnseenBell(hl::projectWorkspaceID(alpha.id)));
}

TEST_F(WorkspaceStoreTest, NewTerminalTakesTheDirectoryOfTheFirstPaneAndRenamesApply) {
    auto alpha = f.project("alpha");
    fs::create_directories(alpha.root.toStdString() + "/sub");
    auto store = f.makeStore({alpha});
    store->newTerminal();
    EXPECT_EQ(store->errorMessage(), "Choose a project or create a scratch terminal first.");

    store->openProject(alpha);
    EXPECT_EQ(store->errorMessage(), std::nullopt);
    // A store restarted from a save whose first pane lives in a subdirectory.
    auto saved =
        hl::SavedWorkspace::decode(QByteArray::fromStdString(f.stored(WorkspaceStore::storageKey)));
    saved.tabs[0].panes[0].context.cwd = alpha.root + "/sub";
    saved.tabs[0].panes[0].sessionID.reset();
    store.reset();
    f.prefs->set(WorkspaceStore::storageKey, hl::PreferenceData{saved.encoded().toStdString()});

    auto restarted = f.makeStore({alpha});
    restarted->newTerminal();
    ASSERT_EQ(restarted->tabs().size(), 2u);
    EXPECT_EQ(restarted->selectedTab()->panes().front()->context().cwd, alpha.root + "/sub");

    EXPECT_FALSE(restarted->renameProject(alpha.id, " \n\t"));
    EXPECT_EQ(restarted->errorMessage(), std::nullopt);
    EXPECT_TRUE(restarted->renameProject(alpha.id, "  Renamed "));
    for (auto* each : restarted->tabs())
        EXPECT_EQ(each->title(), "Renamed");

    // The subdirectory goes away: no new terminal there.
    fs::remove_all(alpha.root.toStdString() + "/sub");
    restarted->selectTab(restarted->tabs().front()->id());
    restarted->newTerminal();
    EXPECT_EQ(restarted->errorMessage(),
              "The project root is unavailable. No terminal was created.");
    restarted->split(true);
    EXPECT_EQ(restarted->errorMessage(),
              "The working directory is unavailable. No split was created.");
    EXPECT_EQ(restarted->selectedTab()->paneCount(), 1u);

    f.scratchFails = true;
    restarted->createScratchTerminal();
    EXPECT_EQ(restarted->errorMessage(), "Could not create a private scratch directory.");
}

TEST_F(WorkspaceStoreTest, AnUnreadableCatalogRefusesChangesButSelectsAndCloses) {
    auto alpha = f.project("alpha");
    {
        auto writable = f.makeStore({alpha});
        writable->openProject(alpha);
        writable->split(true);
        writable->createScratchTerminal();
        for (auto* tab : writable->tabs())
            for (auto* pane : tab->panes())
                ASSERT_TRUE(spinUntil([&] { return pane->sessionID().has_value(); }));
    }
    f.prefs->set(hl::SessionCloseLedger::storageKey, std::vector<std::string>{"other"});
    const std::string before = f.stored(WorkspaceStore::storageKey);

    auto store = f.makeStore({alpha}, /*catalogIsReadable=*/false);
    EXPECT_FALSE(store->workspaceMutationsAreAllowed());
    ASSERT_EQ(store->tabs().size(), 2u) << "the saved tabs still open";
    EXPECT_TRUE(store->retryablePendingCloseIDs().empty());
    EXPECT_FALSE(store->openProject(alpha));
    EXPECT_EQ(store->errorMessage(),
              "The saved project catalog is unreadable. No terminal was opened.");
    store->newTerminal();
    EXPECT_EQ(store->errorMessage(),
              "Saved workspace data is unreadable and was preserved. No terminal was created.");
    store->createScratchTerminal();
    EXPECT_EQ(store->errorMessage(),
              "Saved workspace data is unreadable and was preserved. No terminal was created.");
    store->split(false);
    EXPECT_EQ(store->errorMessage(), "Saved workspace data is unreadable and was preserved.");
    EXPECT_FALSE(store->renameProject(alpha.id, "x"));
    EXPECT_EQ(store->errorMessage(),
              "Saved workspace data is unreadable and was preserved. The project was not renamed.");
    EXPECT_FALSE(store->removeProject(alpha.id));
    EXPECT_EQ(store->errorMessage(),
              "Saved workspace data is unreadable and was preserved. The project was not removed.");

    // Project panes are blocked with the catalog's reason.
    auto* projectTab = store->tabs().front();
    for (auto* pane : projectTab->panes()) {
        pane->controller().requestFocus();
        EXPECT_EQ(pane->controller().status(), "Project catalog unreadable · reattach blocked");
    }

    // Selection and closing work on the live model; nothing reaches the preferences.
    // The closed panes' sessions are closed all the same, but the earlier pending
    // close is not retried at this start.
    store->selectWorkspace("project:" + alpha.id);
    EXPECT_EQ(store->errorMessage(), std::nullopt);
    store->selectAdjacentPane(1);
    store->closeSelectedPane();
    EXPECT_EQ(projectTab->paneCount(), 1u);
    store->closeTab(projectTab->id());
    EXPECT_EQ(store->tabs().size(), 1u);
    ASSERT_TRUE(spinUntil([&] { return f.node->count("close_session") == 2; }));
    hl::test::spinFor(std::chrono::milliseconds(100));
    EXPECT_EQ(f.node->count("close_session"), 2);
    EXPECT_EQ(store->closeLedger().pending(), std::set<QString>{"other"});
    EXPECT_EQ(f.stored(WorkspaceStore::storageKey), before);
}

TEST_F(WorkspaceStoreTest, ASessionThatComesUpAfterItsPaneClosedIsClosedToo) {
    auto alpha = f.project("alpha");
    auto store = f.makeStore({alpha});
    f.node->holdCreates(true);
    store->openProject(alpha);
    store->split(true);
    ASSERT_TRUE(spinUntil([&] { return f.node->count("create_session") == 2; }));
    store->closeSelectedPane();
    store->closeTab(*store->selectedTabID());
    EXPECT_TRUE(store->tabs().empty());
    f.node->holdCreates(false);
    // Both sessions come up for panes that are gone, and are closed, not leaked.
    ASSERT_TRUE(spinUntil([&] { return f.node->count("close_session") == 2; }));
    ASSERT_TRUE(spinUntil([&] { return f.node->sessions().empty(); }));
    EXPECT_TRUE(spinUntil([&] { return store->closeLedger().pending().empty(); }));
    EXPECT_TRUE(store->suspendedPanes().empty());
}

TEST(WorkspacePathRulesTest, CanonicalDirectoriesAndScratchIdentity) {
    hl::test::TempDir dir;
    const fs::path base = fs::canonical(dir.path());
    fs::create_directories(base / "a/b/c");
    fs::create_directories(base / "a/bc");
    fs::create_directory_symlink(base / "a/b", base / "link");
    auto q = [&](const char* rel) { return QString::fromStdString((base / rel).string()); };
    const QString root = q("a/b");
    EXPECT_TRUE(WorkspaceStore::canonicalDirectoryIsAvailable(root, root));
    EXPECT_TRUE(WorkspaceStore::canonicalDirectoryIsAvailable(q("a/b/c"), root));
    EXPECT_FALSE(WorkspaceStore::canonicalDirectoryIsAvailable(q("a/bc"), root)) << "a sibling";
    EXPECT_FALSE(WorkspaceStore::canonicalDirectoryIsAvailable(q("a"), root));
    EXPECT_FALSE(WorkspaceStore::canonicalDirectoryIsAvailable(q("link/c"), root))
        << "through a link";
    EXPECT_FALSE(WorkspaceStore::canonicalDirectoryIsAvailable(q("link/c"), q("link")));
    EXPECT_FALSE(WorkspaceStore::canonicalDirectoryIsAvailable(q("a/b/missing"), root));
    EXPECT_FALSE(WorkspaceStore::canonicalDirectoryIsAvailable("a/b", "a/b"));

    const QUuid id = QUuid::fromString(QStringLiteral("0E5B1C2A-7F0D-4B0E-9A9B-2C3D4E5F6A7B"));
    EXPECT_TRUE(WorkspaceStore::scratchPathMatchesIdentity(
        "/s/Scratch/0e5b1c2a-7f0d-4b0e-9a9b-2c3d4e5f6a7b", id, "/s/Scratch"));
    EXPECT_FALSE(WorkspaceStore::scratchPathMatchesIdentity(
        "/s/Scratch/0e5b1c2a-7f0d-4b0e-9a9b-2c3d4e5f6a7b/", id, "/s/Scratch"));

    EXPECT_TRUE(WorkspaceStore::paneIdentitySetIsExact({id}, {id}));
    EXPECT_FALSE(WorkspaceStore::paneIdentitySetIsExact({id, id}, {id}));
    EXPECT_FALSE(WorkspaceStore::paneIdentitySetIsExact({id}, {QUuid::createUuid()}));
}

}  // namespace
