// Complete cores (preferences, catalog, workspace store, coordinator), each its
// own computer, on one shared record: three of them on a real folder and on a
// WebDAV record on Apache; and panes that another computer removes, which
// keep their running shells in a real node and come back to them. Splits that
// reach the others and "Restore Previous" of a lost change are driven by
// NoLostChangeTest on the same records.
#include <gtest/gtest.h>

#include "FolderSharedStateTransport.h"
#include "NodeHarness.h"
#include "RecordKindTest.h"
#include "SyncCoreSupport.h"

using namespace hl;
using hl::test::Core;
using hl::test::history;
using hl::test::spinUntil;
using Kind = CloudSyncStatus::Kind;
using namespace std::chrono_literals;

namespace {

using hl::test::RecordKind;

class SharedRecordTest : public hl::test::RecordKindTest {
  protected:
    void SetUp() override {
        chooseRecord("cores", QString::fromStdString(dir.path().string()));
        if (HasFatalFailure()) return;
        const int count = 3;
        aheadBy.assign(count, 0);
        for (int i = 0; i < count; ++i)
            cores.push_back(std::make_unique<Core>(transport(), clock(i)));
    }
    // One time for all, each core's clock ahead of it by its own amount.
    std::function<SharedDate()> clock(int i) {
        return [this, i] {
            return SharedDate(
                std::chrono::duration<double, std::milli>((time += 1000) + aheadBy[i]));
        };
    }
    void settleAll() {
        for (auto& core : cores)
            core->settle();
    }
    // Every core has settled on the same snapshot.
    void expectConverged() {
        const CloudSyncCoordinator& first = *cores[0]->sync;
        ASSERT_TRUE(first.accepted());
        for (auto& core : cores) {
            EXPECT_FALSE(core->sync->pending());
            ASSERT_TRUE(core->sync->accepted());
            EXPECT_EQ(core->sync->accepted()->revision(), first.accepted()->revision());
            EXPECT_EQ(core->sync->sharedContent(), first.sharedContent());
        }
    }
    void rename(Core& core, const QString& id, const QString& name) {
        core.catalog->rename(id, name);
        core.store->renameProject(id, name);
    }

    hl::test::TempDir dir;
    double time = 1.0e12;
    std::vector<double> aheadBy;
    std::vector<std::unique_ptr<Core>> cores;
};

TEST_P(SharedRecordTest, EveryCoresChangesReachTheOthersAndTheLatestOfConcurrentOnesWins) {
    const auto count = cores.size();
    settleAll();
    Core& first = *cores[0];
    const auto alpha = first.addProject("alpha");
    first.store->split(true);
    EXPECT_EQ(first.sync->status(), CloudSyncStatus::of(Kind::Syncing));
    EXPECT_TRUE(first.f.prefs->data(CloudSyncCoordinator::pendingKey)) << "on disk before the wait";
    ASSERT_TRUE(first.delivered());
    EXPECT_EQ(first.sync->status(), CloudSyncStatus::of(Kind::Synced));

    // The others list it as needing a folder until each maps its own.
    for (std::size_t i = 1; i < count; ++i) {
        Core& core = *cores[i];
        core.settle();
        EXPECT_EQ(core.sync->status(), CloudSyncStatus::needsFolder(1));
        ASSERT_EQ(core.sync->unmappedProjects().size(), 1);
        const SharedProject shared = core.sync->unmappedProjects()[0];
        EXPECT_EQ(shared.origin->root, alpha.root);
        const auto mapped = core.sync->mapProject(shared, core.folder("alpha"));
        ASSERT_TRUE(mapped);
        EXPECT_FALSE(core.sync->pending()) << "mapping uploads nothing";
        EXPECT_EQ(core.sync->status(), CloudSyncStatus::of(Kind::Synced));
        ASSERT_EQ(core.store->tabs().size(), 1u);
        EXPECT_EQ(core.store->tabs()[0]->paneCount(), 2u);
        EXPECT_EQ(core.store->tabs()[0]->panes()[0]->context().cwd, mapped->root);
    }

    // Concurrent renames, each made before its core saw the others': the latest
    // clock wins wherever it is delivered, and every loser keeps a copy.
    for (std::size_t i = 0; i < count; ++i)
        aheadBy[i] = 60'000.0 * double(i + 1);
    for (std::size_t i = count; i-- > 0;) {
        rename(*cores[i], alpha.id, QStringLiteral("From %1").arg(i));
        ASSERT_TRUE(cores[i]->delivered());
    }
    settleAll();
    expectConverged();
    const QString latest = QStringLiteral("From %1").arg(count - 1);
    for (std::size_t i = 0; i < count; ++i) {
        EXPECT_EQ(cores[i]->catalog->projects()[0].name, latest) << i;
        EXPECT_EQ(cores[i]->store->tabs()[0]->title(), latest) << i;
        EXPECT_EQ(cores[i]->sync->recoveryCount(), i + 1 == count ? 0 : 1) << i;
    }
    EXPECT_EQ(cores[1]->catalog->projects()[0].root, cores[1]->folder("alpha"))
        << "the folder stays each computer's own";

    // Removed on the last core, gone everywhere.
    Core& last = *cores.back();
    last.store->removeProject(alpha.id);
    last.catalog->remove(alpha.id);
    ASSERT_TRUE(last.delivered());
    EXPECT_TRUE(last.sync->sharedContent().isEmpty());
    settleAll();
    for (auto& core : cores) {
        EXPECT_TRUE(core->catalog->projects().empty());
        EXPECT_TRUE(core->store->tabs().empty());
        EXPECT_EQ(core->sync->status(), CloudSyncStatus::of(Kind::Synced));
    }
}

INSTANTIATE_TEST_SUITE_P(Cores, SharedRecordTest,
                         ::testing::Values(RecordKind::Folder, RecordKind::WebDav),
                         hl::test::RecordKindTest::kindName);

bool shows(const TerminalPane* pane, const std::string& text) {
    return spinUntil([&] { return history(pane->controller()).find(text) != std::string::npos; },
                     30s);
}

TEST(SuspendedPaneTest, ALostPaneKeepsItsShellAndAClosedOneClosesIt) {
    hl::test::TempDir dir;
    const QString folder = QString::fromStdString(dir.path().string());
    double clockA = 1.0e12, clockB = 1.0e12;
    auto clock = [](double& ms) {
        return [&ms] { return SharedDate(std::chrono::duration<double, std::milli>(ms += 1000)); };
    };
    hl::node::testing::NodeHarness node;  // B's
    Core a(std::make_shared<FolderSharedStateTransport>(folder), clock(clockA));
    Core b(std::make_shared<FolderSharedStateTransport>(folder), clock(clockB),
           std::make_shared<UnixSocketClient>(node.socketPath()));
    a.settle();
    b.settle();
    const auto alpha = a.addProject("alpha");
    a.store->split(true);
    ASSERT_TRUE(a.delivered());
    b.settle();
    ASSERT_TRUE(b.sync->mapProject(b.sync->unmappedProjects()[0], b.folder("alpha")));
    ASSERT_EQ(b.store->tabs().size(), 1u);
    for (auto* pane : b.store->tabs()[0]->panes())
        pane->controller().requestFocus();
    TerminalPane* leaving = b.store->tabs()[0]->panes()[1];
    ASSERT_TRUE(spinUntil([&] { return leaving->controller().status() == "Connected"; }, 30s));
    const QUuid leavingID = leaving->id();
    const QString session = *leaving->sessionID();
    // Typed once the prompt shows, so that the shell's start cannot swallow it.
    ASSERT_TRUE(spinUntil([&] { return !history(leaving->controller()).empty(); }, 30s));
    hl::test::spinFor(300ms);
    leaving->controller().terminalSurfaceDidReceiveInput(
        "HL_MARK=kept-$((6*7)); echo marker-$((6*7))\n");
    ASSERT_TRUE(shows(leaving, "marker-42"));

    const auto client = node.client();
    const auto listed = [&] {
        std::set<std::string> ids;
        const auto values = client.request("list_sessions")["session_ids"].arrayValue();
        for (const auto& id : values.value_or(std::vector<JSONValue>{}))
            ids.insert(id.stringValue().value_or(""));
        return ids;
    };

    // A closes the second pane while B, earlier, splits the same tab: B's tab
    // loses and is kept as B's copy, and the pane leaving B is suspended with it.
    clockA += 120'000;
    a.store->selectPane(a.store->tabs()[0]->panes()[1]->id());
    a.store->closeSelectedPane();
    ASSERT_TRUE(a.delivered());
    b.store->selectPane(b.store->tabs()[0]->panes()[0]->id());
    b.store->split(false);
    b.settle();
    ASSERT_EQ(b.sync->recoveryCount(), 1);
    ASSERT_EQ(b.store->tabs()[0]->paneCount(), 1u);
    ASSERT_GE(b.store->suspendedPanes().size(), 1u);
    hl::test::spinFor(500ms);
    EXPECT_TRUE(b.store->closeLedger().pending().empty()) << "nothing was closed";
    node.type(session.toStdString(), "echo alive-$((2+3))\n");
    EXPECT_NE(node.pollUntilContains(session.toStdString(), "alive-5").output.find("alive-5"),
              std::string::npos);

    // "Restore Previous" on B brings its tab back, to the same shell.
    clockB += 600'000;
    ASSERT_TRUE(b.sync->restoreMostRecentRecovery());
    ASSERT_TRUE(b.delivered());
    TerminalPane* back = b.store->tabs()[0]->pane(leavingID);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->sessionID(), session);
    back->controller().requestFocus();
    ASSERT_TRUE(spinUntil([&] { return back->controller().status() == "Reconnected"; }, 30s));
    EXPECT_TRUE(shows(back, "marker-42")) << "the earlier output is replayed";
    back->controller().terminalSurfaceDidReceiveInput("echo mark-is-$HL_MARK\n");
    EXPECT_TRUE(shows(back, "mark-is-kept-42")) << "the same shell, with its variable";

    // A closes that pane on purpose: B's shell for it is closed through the ledger.
    a.settle();
    ASSERT_NE(a.store->tabs()[0]->pane(leavingID), nullptr);
    clockA += 1'200'000;
    a.store->selectPane(leavingID);
    a.store->closeSelectedPane();
    ASSERT_TRUE(a.delivered());
    b.settle();
    EXPECT_EQ(b.store->tabs()[0]->pane(leavingID), nullptr);
    EXPECT_TRUE(spinUntil([&] { return listed().count(session.toStdString()) == 0; }, 30s))
        << "a pane closed on another computer closes its shell here";

    // A removes the project: B's shells for it, shown and suspended, are closed.
    std::set<std::string> others;
    for (auto* pane : b.store->tabs()[0]->panes())
        if (pane->sessionID()) others.insert(pane->sessionID()->toStdString());
    for (const auto& suspended : b.store->suspendedPanes())
        others.insert(suspended.sessionID.toStdString());
    ASSERT_FALSE(others.empty());
    a.store->removeProject(alpha.id);
    a.catalog->remove(alpha.id);
    ASSERT_TRUE(a.delivered());
    b.settle();
    EXPECT_TRUE(b.catalog->projects().empty());
    EXPECT_TRUE(b.store->tabs().empty());
    EXPECT_TRUE(b.store->suspendedPanes().empty());
    EXPECT_TRUE(spinUntil(
        [&] {
            const auto ids = listed();
            return std::none_of(others.begin(), others.end(),
                                [&](const auto& id) { return ids.count(id) != 0; });
        },
        30s));
    EXPECT_TRUE(spinUntil([&] { return b.store->closeLedger().pending().empty(); }, 30s));
}

}  // namespace
