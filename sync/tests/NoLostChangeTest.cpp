// Two complete cores on one shared record (a real folder, or a WebDAV file on a
// real Apache) in the races where a change used to vanish: concurrent splits of
// one tab, a change made while the record was out of reach and the core
// restarted, and an unrelated change that lands while a local one waits. Every
// change ends in both layouts or in a recovery copy, and "Restore Previous"
// brings back only the objects it names.
#include <gtest/gtest.h>

#include <QDir>

#include "RecordKindTest.h"
#include "SharedSnapshotCodec.h"
#include "SyncCoreSupport.h"

using namespace hl;
using hl::test::Core;
using namespace std::chrono_literals;

namespace {

using hl::test::RecordKind;

class NoLostChangeTest : public hl::test::RecordKindTest {
  protected:
    void SetUp() override {
        chooseRecord("lost", QString::fromStdString((dir / "record").string()));
        if (HasFatalFailure()) return;
        QDir().mkpath(folder);
        a = std::make_unique<Core>(transport(), clock(clockA));
        b = std::make_unique<Core>(transport(), clock(clockB));
        a->settle();
        b->settle();
        alpha = a->addProject("alpha");
        ASSERT_TRUE(a->delivered());
        b->settle();
        ASSERT_TRUE(b->sync->mapProject(b->sync->unmappedProjects()[0], b->folder("alpha")));
    }
    std::function<SharedDate()> clock(double& ms) {
        return [&ms] { return SharedDate(std::chrono::duration<double, std::milli>(ms += 1000)); };
    }
    // The record goes out of reach, or comes back.
    void recordDown() {
        if (!url.isEmpty()) return apache->pause();
        ASSERT_TRUE(QDir().rename(folder, folder + ".away"));
    }
    void recordUp() {
        if (!url.isEmpty()) {
            ASSERT_TRUE(apache->resume()) << apache->error().toStdString();
            return;
        }
        ASSERT_TRUE(QDir().rename(folder + ".away", folder));
    }
    static QList<QUuid> paneIDs(const Core& core) {
        QList<QUuid> ids;
        for (auto* tab : core.store->tabs()) {
            for (auto* pane : tab->panes())
                ids.append(pane->id());
        }
        return ids;
    }
    // Both cores settled on one state, which the record holds.
    void expectConverged() {
        a->settle();
        b->settle();
        a->settle();
        ASSERT_TRUE(a->sync->accepted() && b->sync->accepted());
        EXPECT_FALSE(a->sync->pending());
        EXPECT_FALSE(b->sync->pending());
        EXPECT_EQ(a->sync->accepted()->revision(), b->sync->accepted()->revision());
        EXPECT_EQ(a->sync->sharedContent(), b->sync->sharedContent());
        if (a->sync->unmappedProjects().isEmpty() && b->sync->unmappedProjects().isEmpty())
            EXPECT_EQ(paneIDs(*a), paneIDs(*b));
        const auto stored = transport()->fetch();
        ASSERT_TRUE(stored);
        EXPECT_EQ(stored->content(), a->sync->sharedContent());
    }
    // The recovery copy on `core` that holds `pane`, if any.
    static std::optional<SyncRecoveryCopy> copyHolding(const Core& core, const QUuid& pane) {
        for (const auto& copy : core.sync->recoveryCopies()) {
            for (const auto& workspace : copy.snapshot.content().workspaces) {
                for (const auto& tab : workspace.tabs) {
                    for (const auto& p : tab.panes) {
                        if (p.id == pane && copy.losses().tabIDs.contains(tab.id)) return copy;
                    }
                }
            }
        }
        return std::nullopt;
    }
    static QUuid splitAndTakeNewPane(Core& core, bool vertical) {
        const QList<QUuid> before = paneIDs(core);
        core.store->split(vertical);
        for (const auto& id : paneIDs(core)) {
            if (!before.contains(id)) return id;
        }
        return {};
    }

    hl::test::TempDir dir;
    double clockA = 1.0e12, clockB = 1.0e12;
    std::unique_ptr<Core> a, b;
    ProjectRecord alpha;
};

TEST_P(NoLostChangeTest, ConcurrentSplitsOfOneTabKeepTheEarlierAsACopyThatRestoresAlone) {
    // A splits right; B, which has not seen it, splits down a moment later.
    const QUuid fromA = splitAndTakeNewPane(*a, true);
    ASSERT_TRUE(a->delivered());
    clockB = std::max(clockA, clockB) + 200;
    const QUuid fromB = splitAndTakeNewPane(*b, false);
    ASSERT_TRUE(b->delivered());
    expectConverged();
    EXPECT_TRUE(paneIDs(*a).contains(fromB)) << "the later split is in both layouts";
    EXPECT_FALSE(paneIDs(*a).contains(fromA));
    const auto copy = copyHolding(*b, fromA);
    ASSERT_TRUE(copy) << "the earlier split is kept as a copy";
    EXPECT_EQ(copy->deviceName, "Studio");
    EXPECT_EQ(copy->snapshot.deviceID(), a->sync->deviceID());
    EXPECT_FALSE(copy->whole);
    EXPECT_TRUE(copy->projectIDs.isEmpty()) << "only the tab lost, not the project";

    // A project added since stays when the copy is restored: only the tab comes back.
    const auto beta = a->addProject("beta");
    ASSERT_TRUE(a->delivered());
    b->settle();
    ASSERT_EQ(b->sync->unmappedProjects().size(), 1);
    ASSERT_TRUE(b->sync->restoreMostRecentRecovery());
    ASSERT_TRUE(b->delivered());
    expectConverged();
    EXPECT_TRUE(paneIDs(*a).contains(fromA));
    EXPECT_FALSE(paneIDs(*a).contains(fromB)) << "the tab is as A had it";
    ASSERT_EQ(a->catalog->projects().size(), 2u);
    EXPECT_EQ(b->sync->unmappedProjects().size(), 1) << beta.name.toStdString();
}

TEST_P(NoLostChangeTest, SplitsMadeWhileTheRecordIsAwayAndAcrossARestartAllArrive) {
    a->store->newTerminal();  // a second tab, split on A while B splits the first
    ASSERT_TRUE(a->delivered());
    b->settle();
    recordDown();
    b->store->selectTab(b->store->tabs()[0]->id());
    const QUuid fromB = splitAndTakeNewPane(*b, false);
    ASSERT_FALSE(fromB.isNull());
    b->settle();
    EXPECT_TRUE(b->sync->pending()) << b->sync->status().title().toStdString();
    b->restart();
    ASSERT_TRUE(b->sync->pending()) << "the change is back after the restart";
    clockA += 10'000;
    a->store->selectTab(a->store->tabs()[1]->id());
    const QUuid fromA = splitAndTakeNewPane(*a, true);
    a->settle();
    recordUp();
    b->settle();
    a->settle();
    expectConverged();
    EXPECT_TRUE(paneIDs(*a).contains(fromA));
    EXPECT_TRUE(paneIDs(*a).contains(fromB));
    EXPECT_EQ(a->sync->recoveryCount() + b->sync->recoveryCount(), 0) << "nothing conflicted";
}

TEST_P(NoLostChangeTest, AnUnrelatedChangeThatLandsFirstNeverTakesAProjectAway) {
    // A adds a project; before A delivers it, B renames alpha with a later clock.
    const auto gamma = a->addProject("gamma");
    ASSERT_TRUE(a->sync->pending());
    clockB += 60'000;
    b->catalog->rename(alpha.id, "Renamed on B");
    b->store->renameProject(alpha.id, "Renamed on B");
    ASSERT_TRUE(b->delivered());
    ASSERT_TRUE(a->delivered());
    expectConverged();
    const auto& projects = a->catalog->projects();
    ASSERT_EQ(projects.size(), 2u);
    const auto named = [&](const QString& id) {
        for (const auto& p : projects) {
            if (p.id == id) return p.name;
        }
        return QString();
    };
    EXPECT_EQ(named(gamma.id), "gamma");
    EXPECT_EQ(named(alpha.id), "Renamed on B");
    EXPECT_EQ(b->sync->unmappedProjects().size(), 1);
    EXPECT_EQ(a->sync->recoveryCount() + b->sync->recoveryCount(), 0);
}

INSTANTIATE_TEST_SUITE_P(Records, NoLostChangeTest,
                         ::testing::Values(RecordKind::Folder, RecordKind::WebDav),
                         hl::test::RecordKindTest::kindName);

}  // namespace
