// Start-up of the store from real preference stores holding current data,
// legacy data, both, damaged data and pending closes. Every case reads what was
// stored afterwards: data that could not be understood must survive byte for byte.
#include <gtest/gtest.h>

#include <QJsonDocument>

#include "WorkspaceTestSupport.h"

using hl::PaneContext;
using hl::PaneLayout;
using hl::SavedPane;
using hl::SavedTab;
using hl::SavedWorkspace;
using hl::SplitAxis;
using hl::WorkspaceStore;
using hl::test::spinFor;
using hl::test::spinUntil;
using hl::test::StoreFixture;

namespace {

class WorkspaceRestoreTest : public ::testing::Test {
  protected:
    WorkspaceRestoreTest() : alpha(f.project("alpha")) {}

    SavedPane projectPane(const QString& cwd, std::optional<QString> session = std::nullopt) {
        return SavedPane{QUuid::createUuid(), std::move(session),
                         PaneContext{alpha.id, cwd, std::nullopt}, false};
    }
    SavedPane scratchPane(std::optional<QString> session = std::nullopt) {
        const QUuid id = QUuid::createUuid();
        return SavedPane{
            QUuid::createUuid(), std::move(session),
            PaneContext{std::nullopt,
                        f.scratchRoot() + "/" + id.toString(QUuid::WithoutBraces).toLower(), id},
            false};
    }
    // A tab over `panes` side by side (one leaf each, in order).
    static SavedTab tabOf(std::optional<QString> projectID, std::vector<SavedPane> panes,
                          const QString& title = "T") {
        PaneLayout layout = PaneLayout::pane(panes.back().id);
        for (auto it = panes.rbegin() + 1; it != panes.rend(); ++it) {
            layout = PaneLayout::split(QUuid::createUuid(), SplitAxis::Horizontal, 0.5,
                                       PaneLayout::pane(it->id), layout);
        }
        return SavedTab{QUuid::createUuid(), title,  std::move(projectID),
                        std::move(panes),    layout, std::nullopt};
    }
    void store(const char* key, const QByteArray& bytes) {
        f.prefs->set(key, hl::PreferenceData{bytes.toStdString()});
    }
    void store(const SavedWorkspace& saved) { store(WorkspaceStore::storageKey, saved.encoded()); }

    StoreFixture f;
    hl::ProjectRecord alpha;
};

TEST_F(WorkspaceRestoreTest, UnreadableCurrentDataWinsOverLegacyAndIsNeverOverwritten) {
    const SavedWorkspace legacy{.tabs = {tabOf(alpha.id, {projectPane(alpha.root)})}};
    store(WorkspaceStore::legacyKey, legacy.encoded());
    store(WorkspaceStore::storageKey, "{\"tabs\": [ not json");
    f.prefs->set("harborlattice.pending-closes.v1", std::vector<std::string>{"pending-1"});
    f.node->adopt("pending-1", alpha.root.toStdString());
    const std::string current = f.stored(WorkspaceStore::storageKey);

    auto subject = f.makeStore({alpha});
    EXPECT_TRUE(subject->tabs().empty());
    EXPECT_FALSE(subject->storageIsWritable());
    EXPECT_EQ(subject->errorMessage(),
              "Saved workspace data is unreadable. Its original data was preserved.");
    EXPECT_TRUE(subject->retryablePendingCloseIDs().empty());

    // Refused operations leave every stored byte in place.
    EXPECT_FALSE(subject->openProject(alpha));
    subject->createScratchTerminal();
    subject->newTerminal();
    spinFor(std::chrono::milliseconds(100));
    EXPECT_EQ(f.stored(WorkspaceStore::storageKey), current);
    EXPECT_EQ(f.stored(WorkspaceStore::legacyKey), legacy.encoded().toStdString());
    EXPECT_EQ(f.node->count("close_session"), 0) << "no close while the workspace is unread";
    EXPECT_EQ(subject->closeLedger().pending().count("pending-1"), 1u);
}

TEST_F(WorkspaceRestoreTest, LegacyDuplicatesAreRepairedAndMigratedCurrentOnesFreeze) {
    f.node->adopt("dup", alpha.root.toStdString());

    // Legacy: the second pane loses the session, and the new key is written.
    const SavedWorkspace legacy{
        .tabs = {tabOf(alpha.id, {projectPane(alpha.root, QString("dup")),
                                  projectPane(alpha.root, QString("dup"))})}};
    store(WorkspaceStore::legacyKey, legacy.encoded());
    {
        auto subject = f.makeStore({alpha});
        EXPECT_EQ(subject->errorMessage(),
                  "Legacy workspace migrated; 1 duplicate session attachment was replaced safely.");
        EXPECT_TRUE(subject->storageIsWritable());
        const SavedWorkspace written =
            SavedWorkspace::decode(QByteArray::fromStdString(f.stored(WorkspaceStore::storageKey)));
        ASSERT_EQ(written.tabs.size(), 1u);
        EXPECT_EQ(written.tabs[0].panes[0].sessionID, "dup");
        EXPECT_EQ(written.tabs[0].panes[1].sessionID, std::nullopt);
        EXPECT_EQ(f.stored(WorkspaceStore::legacyKey), legacy.encoded().toStdString());
    }

    // Current data with the same damage: both panes open, only the first keeps
    // the session, and nothing is rewritten.
    StoreFixture other;
    auto project = other.project("alpha");
    SavedPane one{QUuid::createUuid(), QString("dup"),
                  PaneContext{project.id, project.root, std::nullopt}, true};
    SavedPane two = one;
    two.id = QUuid::createUuid();
    const SavedWorkspace current{.tabs = {tabOf(project.id, {one, two})}};
    other.prefs->set(WorkspaceStore::storageKey,
                     hl::PreferenceData{current.encoded().toStdString()});
    auto subject = other.makeStore({project});
    EXPECT_EQ(
        subject->errorMessage(),
        "1 duplicate saved session attachment was neutralized; the stored data was not rewritten.");
    EXPECT_FALSE(subject->storageIsWritable());
    const auto panes = subject->tabs().at(0)->panes();
    ASSERT_EQ(panes.size(), 2u);
    EXPECT_EQ(panes[0]->sessionID(), "dup");
    EXPECT_TRUE(panes[0]->controller().isReplacementSession());
    EXPECT_EQ(panes[1]->sessionID(), std::nullopt);
    EXPECT_FALSE(panes[1]->controller().isReplacementSession());
    subject->selectAdjacentPane(1);
    subject->closeSelectedPane();
    EXPECT_EQ(other.stored(WorkspaceStore::storageKey), current.encoded().toStdString());
}

TEST_F(WorkspaceRestoreTest, PreviousShellsLiveAWeekAndLegacyShellsAreNeverSwept) {
    const QDateTime now = QDateTime::currentDateTimeUtc();
    for (const char* id : {"current", "young", "old", "legacy-shell", "orphan"})
        f.node->adopt(id, "/tmp");
    f.node->adopt("current", alpha.root.toStdString());
    SavedPane pane = projectPane(alpha.root, QString("current"));
    pane.previousShells = {{"young", now.addDays(-6)}, {"old", now.addDays(-8)}};
    // A legacy tab dropped as invalid (its pane has no leaf) still names its shell.
    SavedTab invalid = tabOf(alpha.id, {projectPane(alpha.root), projectPane(alpha.root)});
    invalid.panes.back().sessionID = QString("legacy-shell");
    invalid.layout = hl::PaneLayout::pane(invalid.panes.front().id);
    store(WorkspaceStore::legacyKey,
          SavedWorkspace{.tabs = {tabOf(alpha.id, {projectPane(alpha.root)}), invalid}}.encoded());
    {
        auto migrated = f.makeStore({alpha});
        ASSERT_EQ(migrated->tabs().size(), 1u);
        // Its pane's new shell comes up before the store goes (the next sweep closes it).
        ASSERT_TRUE(
            spinUntil([&] { return migrated->tabs()[0]->panes()[0]->sessionID().has_value(); }));
        migrated->closeUnrecordedSessions();
        spinFor(std::chrono::milliseconds(300));
        EXPECT_EQ(f.node->sessions().count("orphan"), 1u)
            << "nothing is swept after a lossy migration";
    }

    // A later start with a pane that keeps two previous shells: the week-old one
    // is closed, the young one is kept and saved again, and the sweep spares the
    // legacy shell.
    store(SavedWorkspace{.tabs = {tabOf(alpha.id, {pane})}});
    auto subject = f.makeStore({alpha});
    auto* restored = subject->tabs().at(0)->panes().at(0);
    ASSERT_EQ(restored->previousShells().size(), 1u);
    EXPECT_EQ(restored->previousShells()[0].sessionID, "young");
    EXPECT_TRUE(spinUntil([&] { return f.node->sessions().count("old") == 0; }));
    subject->closeUnrecordedSessions();
    EXPECT_TRUE(spinUntil([&] { return f.node->sessions().count("orphan") == 0; }));
    EXPECT_TRUE(spinUntil([&] {
        return f.node->sessions() == std::set<std::string>{"current", "young", "legacy-shell"};
    }));
    ASSERT_TRUE(spinUntil([&] { return restored->controller().isConnected(); }));
    const auto saved =
        SavedWorkspace::decode(QByteArray::fromStdString(f.stored(WorkspaceStore::storageKey)));
    EXPECT_EQ(saved.tabs.at(0).panes.at(0).previousShells, restored->previousShells());
    EXPECT_EQ(saved.tabs.at(0).panes.at(0).previousShells.at(0).since.toSecsSinceEpoch(),
              now.addDays(-6).toSecsSinceEpoch());
}

TEST_F(WorkspaceRestoreTest, InvalidTabsAreCountedAndOnlyTheirMessageIsShown) {
    SavedTab leafWithoutPane = tabOf(alpha.id, {projectPane(alpha.root), projectPane(alpha.root)});
    leafWithoutPane.panes.pop_back();
    SavedTab paneWithoutLeaf = tabOf(alpha.id, {projectPane(alpha.root)});
    paneWithoutLeaf.panes.push_back(projectPane(alpha.root));
    SavedTab trailingSlash = tabOf(alpha.id, {projectPane(alpha.root + "/")});
    SavedTab unknownWithSlash = tabOf(
        QString("gone"), {SavedPane{QUuid::createUuid(), std::nullopt,
                                    PaneContext{QString("gone"), "/x/", std::nullopt}, false}});
    SavedPane noIdentity = scratchPane();
    noIdentity.context.scratchID.reset();
    SavedTab scratchWithoutID = tabOf(std::nullopt, {noIdentity});
    SavedPane upper = scratchPane();
    upper.context.cwd =
        f.scratchRoot() + "/" + upper.context.scratchID->toString(QUuid::WithoutBraces).toUpper();
    SavedTab scratchUpperCase = tabOf(std::nullopt, {upper});
    SavedTab outsideRoot = tabOf(alpha.id, {projectPane(alpha.root + "x")});
    SavedTab good = tabOf(alpha.id, {projectPane(alpha.root, QString("s1"))});
    SavedTab duplicateTab = good;
    duplicateTab.panes[0].sessionID = QString("s1");  // also a duplicate session
    SavedTab goodScratch = tabOf(std::nullopt, {scratchPane()});
    store(SavedWorkspace{.tabs = {leafWithoutPane, paneWithoutLeaf, trailingSlash, unknownWithSlash,
                                  scratchWithoutID, scratchUpperCase, outsideRoot, good,
                                  duplicateTab, goodScratch}});
    const std::string bytes = f.stored(WorkspaceStore::storageKey);

    auto subject = f.makeStore({alpha});
    EXPECT_EQ(
        subject->errorMessage(),
        "8 structurally invalid saved tabs were not opened; the stored data was not rewritten.");
    ASSERT_EQ(subject->tabs().size(), 2u);
    EXPECT_EQ(subject->tabs()[0]->id(), good.id);
    EXPECT_EQ(subject->tabs()[1]->id(), goodScratch.id);
    EXPECT_FALSE(subject->storageIsWritable());
    EXPECT_EQ(f.stored(WorkspaceStore::storageKey), bytes);

    // One invalid tab reads "was".
    subject.reset();
    store(SavedWorkspace{.tabs = {trailingSlash}});
    EXPECT_EQ(
        f.makeStore({alpha})->errorMessage(),
        "1 structurally invalid saved tab was not opened; the stored data was not rewritten.");
}

TEST_F(WorkspaceRestoreTest, PendingClosesDropPanesAndTheDataIsRewrittenOnce) {
    SavedPane kept = projectPane(alpha.root, QString("live"));
    SavedPane closed = projectPane(alpha.root, QString("closing"));
    SavedTab both = tabOf(alpha.id, {kept, closed});
    both.selectedPaneID = closed.id;
    SavedTab lonely = tabOf(alpha.id, {projectPane(alpha.root, QString("closing-too"))});
    SavedWorkspace saved{QString("project:" + alpha.id),
                         lonely.id,
                         {{"project:" + alpha.id, lonely.id}},
                         {both, lonely}};
    store(saved);
    f.prefs->set("harborlattice.pending-closes.v1",
                 std::vector<std::string>{"closing", "closing-too"});
    f.node->adopt("live", alpha.root.toStdString());
    f.node->adopt("closing", alpha.root.toStdString());
    f.node->adopt("closing-too", alpha.root.toStdString());

    auto subject = f.makeStore({alpha});
    EXPECT_EQ(subject->errorMessage(), std::nullopt);
    ASSERT_EQ(subject->tabs().size(), 1u);
    auto* tab = subject->tabs()[0];
    EXPECT_EQ(tab->layout(), PaneLayout::pane(kept.id));
    EXPECT_EQ(tab->selectedPaneID(), kept.id);
    EXPECT_EQ(subject->selectedTabID(), both.id) << "the saved choice is gone: the first tab";

    const SavedWorkspace written =
        SavedWorkspace::decode(QByteArray::fromStdString(f.stored(WorkspaceStore::storageKey)));
    ASSERT_EQ(written.tabs.size(), 1u);
    EXPECT_EQ(written.tabs[0].panes.size(), 1u);
    EXPECT_EQ(written.selectedTabs.at("project:" + alpha.id), both.id);

    // The ledger retries both closes at the end of start-up.
    EXPECT_EQ(subject->retryablePendingCloseIDs(), (std::set<QString>{"closing", "closing-too"}));
    ASSERT_TRUE(spinUntil([&] { return subject->closeLedger().pending().empty(); }));
    EXPECT_EQ(f.node->sessions(), std::set<std::string>{"live"});
}

TEST_F(WorkspaceRestoreTest, ActiveWorkspaceFallsBackAndOrphansKeepTheirDataUntilMapped) {
    SavedTab scratch = tabOf(std::nullopt, {scratchPane()});
    SavedTab project = tabOf(alpha.id, {projectPane(alpha.root)});
    const hl::ProjectRecord elsewhere = f.project("elsewhere");
    SavedTab orphan =
        tabOf(elsewhere.id,
              {SavedPane{QUuid::createUuid(), QString("o1"),
                         PaneContext{elsewhere.id, elsewhere.root, std::nullopt}, false}},
              "Orphan");
    SavedTab other =
        tabOf(QString("other"),
              {SavedPane{QUuid::createUuid(), QString("o2"),
                         PaneContext{QString("other"), "/somewhere/else", std::nullopt}, false}},
              "Other");
    f.node->adopt("o1", elsewhere.root.toStdString());
    // The named workspace has no tab: the selected tab's workspace wins.
    store(SavedWorkspace{
        QString("project:nothing"), project.id, {}, {scratch, project, orphan, other}});
    {
        auto subject = f.makeStore({alpha});
        EXPECT_EQ(subject->activeWorkspaceID(), "project:" + alpha.id);
        EXPECT_EQ(subject->errorMessage(),
                  "2 saved project workspaces have no validated catalog owner. Data was preserved "
                  "and reattach is blocked.");
        EXPECT_TRUE(subject->storageIsWritable());
        auto* orphanPane = subject->tabs()[2]->panes()[0];
        orphanPane->controller().requestFocus();
        EXPECT_EQ(orphanPane->controller().status(),
                  "Project ownership unavailable · reattach blocked");
        subject->selectWorkspace("scratch");  // saving goes on, orphans included
        const auto written =
            SavedWorkspace::decode(QByteArray::fromStdString(f.stored(WorkspaceStore::storageKey)));
        ASSERT_EQ(written.tabs.size(), 4u);
        EXPECT_EQ(written.tabs[2].panes[0].sessionID, "o1");

        // Its project mapped again, the orphan's pane reattaches without a restart.
        ASSERT_TRUE(subject->openProject(elsewhere));
        EXPECT_EQ(subject->activeWorkspaceID(), "project:" + elsewhere.id);
        hl::TerminalPane* mapped = subject->tabs()[2]->panes()[0];
        mapped->controller().requestFocus();
        ASSERT_TRUE(spinUntil([&] { return mapped->controller().isConnected(); }));
        EXPECT_EQ(mapped->controller().sessionID(), "o1");
        EXPECT_EQ(f.node->sessions().count("o1"), 1u);
        auto* still = subject->tabs()[3]->panes()[0];
        still->controller().requestFocus();
        EXPECT_EQ(still->controller().status(), "Project ownership unavailable · reattach blocked");
    }
    // Neither names a remaining tab: the first tab's workspace.
    store(SavedWorkspace{QString("project:nothing"), QUuid::createUuid(), {}, {scratch, project}});
    EXPECT_EQ(f.makeStore({alpha})->activeWorkspaceID(), "scratch");
}

TEST_F(WorkspaceRestoreTest, SuspendedPanesAreReadAndClosedWithTheirProject) {
    store(WorkspaceStore::suspendedPanesKey, "[{\"id\":\"nonsense\"}]");
    {
        auto subject = f.makeStore({alpha});
        EXPECT_TRUE(subject->suspendedPanes().empty());
        EXPECT_EQ(f.stored(WorkspaceStore::suspendedPanesKey), "[{\"id\":\"nonsense\"}]");
    }
    const double now = hl::suspendedPaneClock();
    const hl::SuspendedPane waiting{QUuid::createUuid(), alpha.id, alpha.root,
                                    "waiting",           true,     now};
    store(WorkspaceStore::suspendedPanesKey, hl::encodeSuspendedPanes({waiting, waiting}));
    EXPECT_TRUE(f.makeStore({alpha})->suspendedPanes().empty()) << "a repeated id drops the list";

    // Nine more of one project, one of them eight days old: the old one and the
    // oldest past eight are closed through the ledger at start.
    std::vector<hl::SuspendedPane> stored{waiting};
    f.node->adopt("waiting", alpha.root.toStdString());
    for (int i = 0; i < 9; ++i) {
        const std::string session = "s" + std::to_string(i);
        const double age = i == 0 ? 8 * 24 * 3600e3 : 1000.0 * (i + 1);
        stored.push_back({QUuid::createUuid(), alpha.id, alpha.root,
                          QString::fromStdString(session), false, now - age});
        f.node->adopt(session, alpha.root.toStdString());
    }
    store(WorkspaceStore::suspendedPanesKey, hl::encodeSuspendedPanes(stored));
    auto subject = f.makeStore({alpha});
    auto kept = subject->suspendedPanes();
    std::sort(kept.begin(), kept.end(),
              [](const auto& a, const auto& b) { return a.suspendedAt > b.suspendedAt; });
    std::vector<hl::SuspendedPane> newest{stored[0]};
    newest.insert(newest.end(), stored.begin() + 2, stored.end() - 1);
    EXPECT_EQ(kept, newest);
    ASSERT_TRUE(spinUntil([&] { return f.node->sessions().size() == 8; }));
    EXPECT_EQ(f.node->sessions().count("s0"), 0u) << "the old one";
    EXPECT_EQ(f.node->sessions().count("s8"), 0u) << "the oldest past eight";
    EXPECT_EQ(hl::decodeSuspendedPanes(
                  QByteArray::fromStdString(f.stored(WorkspaceStore::suspendedPanesKey)))
                  .size(),
              8u);

    EXPECT_TRUE(subject->removeProject(alpha.id));
    EXPECT_TRUE(subject->suspendedPanes().empty());
    EXPECT_EQ(f.stored(WorkspaceStore::suspendedPanesKey), "<absent>");
    ASSERT_TRUE(spinUntil([&] { return f.node->sessions().empty(); }));
}

}  // namespace
