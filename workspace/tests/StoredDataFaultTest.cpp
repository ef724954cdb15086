// The stores against a preference store that fails on purpose: reads that fail
// or come back damaged at start, writes that fail during operations. The bytes
// on disk are read afterwards through the real store: what could not be read is
// never overwritten, and nothing that was refused leaves a trace.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "FaultyPreferences.h"
#include "ProjectCatalog.h"
#include "StoredDataRecovery.h"
#include "WorkspaceTestSupport.h"

using hl::PaneContext;
using hl::PaneLayout;
using hl::PreferenceData;
using hl::ProjectCatalog;
using hl::SavedPane;
using hl::SavedTab;
using hl::SavedWorkspace;
using hl::SessionCloseLedger;
using hl::WorkspaceStore;
using hl::test::FaultyPreferences;
using hl::test::spinFor;
using hl::test::spinUntil;
using hl::test::StoreFixture;

namespace {

class StoredDataFaultTest : public ::testing::Test {
  protected:
    StoredDataFaultTest() : real(f.prefs), alpha(f.project("alpha")) {
        const QUuid pane = QUuid::createUuid();
        SavedWorkspace saved{std::nullopt, std::nullopt, {}, {}};
        saved.tabs.push_back(
            SavedTab{QUuid::createUuid(),
                     "alpha",
                     alpha.id,
                     {SavedPane{pane, QString("mem-live"),
                                PaneContext{alpha.id, alpha.root, std::nullopt}, false}},
                     PaneLayout::pane(pane),
                     pane});
        f.node->adopt("mem-live", alpha.root.toStdString());
        real->set(WorkspaceStore::storageKey, PreferenceData{saved.encoded().toStdString()});
        real->set(SessionCloseLedger::storageKey, std::vector<std::string>{"mem-pending"});
        EXPECT_TRUE(ProjectCatalog(real).add("alpha", alpha.root, alpha.id));
        faulty = std::make_shared<FaultyPreferences>(real);
        f.prefs = faulty;
    }

    // Every row of the standard domain as stored bytes.
    std::map<std::string, std::string> everything() const {
        std::map<std::string, std::string> rows;
        for (const auto& key : {WorkspaceStore::storageKey, WorkspaceStore::legacyKey,
                                WorkspaceStore::suspendedPanesKey, SessionCloseLedger::storageKey,
                                ProjectCatalog::storageKey}) {
            rows[key] = real->read(key).storedBytes;
        }
        return rows;
    }

    // The operations a user may try; each is refused or works on the live model only.
    void tryEverything(WorkspaceStore& store) {
        store.openProject(alpha);
        store.newTerminal();
        store.split(true);
        store.createScratchTerminal();
        store.renameProject(alpha.id, "renamed");
        store.closeSelectedPane();
        spinFor(std::chrono::milliseconds(100));
    }

    StoreFixture f;
    std::shared_ptr<hl::Preferences> real;
    hl::ProjectRecord alpha;
    std::shared_ptr<FaultyPreferences> faulty;
};

TEST_F(StoredDataFaultTest, AReadThatFailsOrIsDamagedAtStartFreezesWhatItGuards) {
    f.node->adopt("mem-orphan", alpha.root.toStdString());
    for (const char* key : {WorkspaceStore::storageKey, SessionCloseLedger::storageKey,
                            WorkspaceStore::suspendedPanesKey}) {
        for (const bool failed : {true, false}) {
            SCOPED_TRACE(std::string(key) + (failed ? " failed" : " damaged"));
            if (std::string(key) == WorkspaceStore::suspendedPanesKey) {
                real->set(key, std::string("a row of another type"));
            }
            const auto before = everything();
            faulty->failingReads.clear();
            faulty->damagedReads.clear();
            (failed ? faulty->failingReads : faulty->damagedReads).insert(key);
            {
                auto store = f.makeStore({alpha});
                EXPECT_EQ(store->loadFailed(), failed);
                EXPECT_EQ(store->damagedKeys().count(key), failed ? 0u : 1u);
                if (std::string(key) != WorkspaceStore::suspendedPanesKey) {
                    EXPECT_FALSE(store->storageIsWritable());
                    EXPECT_TRUE(store->retryablePendingCloseIDs().empty());
                }
                tryEverything(*store);
                store->closeUnrecordedSessions();
                spinFor(std::chrono::milliseconds(100));
            }
            EXPECT_EQ(everything().at(key), before.at(key)) << "the guarded bytes stay";
            if (std::string(key) == WorkspaceStore::storageKey) {
                EXPECT_EQ(everything(), before);
            }
            EXPECT_EQ(f.node->sessions().count("mem-orphan"), 1u) << "no sweep over unclear data";
            real->remove(WorkspaceStore::suspendedPanesKey);
        }
    }
}

TEST_F(StoredDataFaultTest, TheCatalogNeverStartsFreshOverWhatItCouldNotRead) {
    for (const bool failed : {true, false}) {
        faulty->failingReads.clear();
        faulty->damagedReads.clear();
        (failed ? faulty->failingReads : faulty->damagedReads).insert(ProjectCatalog::storageKey);
        const auto before = everything();
        ProjectCatalog catalog(faulty);
        EXPECT_FALSE(catalog.isReadable());
        EXPECT_EQ(catalog.loadFailed(), failed);
        EXPECT_EQ(catalog.errorMessage(),
                  "The saved project catalog is unreadable. Its original data was preserved.");
        EXPECT_FALSE(catalog.add("beta", f.project("beta").root));
        EXPECT_EQ(everything(), before);
    }
    // An old workspace that cannot be read may hold projects: no empty list over it.
    real->remove(ProjectCatalog::storageKey);
    faulty->failingReads = {ProjectCatalog::legacyWorkspaceKey};
    ProjectCatalog catalog(faulty);
    EXPECT_FALSE(catalog.isReadable());
    EXPECT_TRUE(real->read(ProjectCatalog::storageKey).isAbsent());
}

TEST_F(StoredDataFaultTest, AFailedCloseRecordKeepsThePaneAndItsShell) {
    auto store = f.makeStore({alpha});
    ASSERT_TRUE(store->storageIsWritable());
    ASSERT_TRUE(store->openProject(alpha));
    store->split(true);
    ASSERT_EQ(store->selectedTab()->paneCount(), 2);
    ASSERT_TRUE(spinUntil([&] {
        for (auto* pane : store->selectedTab()->panes()) {
            if (!pane->sessionID()) return false;
        }
        return true;
    }));

    // The ledger cannot keep the close: the pane and its shell stay.
    spinFor(std::chrono::milliseconds(100));
    const auto before = everything();
    const auto sessions = f.node->sessions();
    faulty->failingWrites = {SessionCloseLedger::storageKey};
    store->closeSelectedPane();
    EXPECT_EQ(store->selectedTab()->paneCount(), 2);
    EXPECT_EQ(store->errorMessage(),
              "The close could not be recorded, so the terminal was kept open.");
    spinFor(std::chrono::milliseconds(100));
    EXPECT_EQ(everything(), before);
    EXPECT_EQ(f.node->sessions(), sessions);
}

// Against the real database: another connection holds the write lock while the
// store saves. The store stops saving, says where and why, refuses new terminals
// and catalog changes in the same words, keeps the split it could not save, and
// saves again by itself once the lock is gone.
TEST_F(StoredDataFaultTest, ASaveWhileAnotherConnectionHoldsTheDatabaseResumesOnItsOwn) {
    const auto file = real->location();
    f.prefs = hl::Preferences::open(file, hl::Preferences::standardDomain,
                                    std::chrono::milliseconds(100));
    auto store = f.makeStore({alpha});
    ASSERT_TRUE(store->storageIsWritable());
    ASSERT_TRUE(store->openProject(alpha));
    hl::test::WriterHoldingTheLock holder(file);
    const auto before = everything();

    store->split(true);
    EXPECT_FALSE(store->storageIsWritable());
    const QString stopped = "Workspace changes could not be saved to " +
                            QString::fromStdString(file.string()) +
                            " (the database is in use by another process (database is locked))."
                            " Harborlattice tries again every second and saves them as soon as it "
                            "can; until then no terminal is started.";
    EXPECT_EQ(store->errorMessage(), stopped);
    store->newTerminal();
    EXPECT_EQ(store->errorMessage(), stopped + " No terminal was created.");
    EXPECT_FALSE(ProjectCatalog(f.prefs).add("beta", f.project("beta").root))
        << "nothing that is not on disk";
    spinFor(WorkspaceStore::saveRetryPeriod * 2);
    EXPECT_FALSE(store->storageIsWritable()) << "still held";
    EXPECT_EQ(store->selectedTab()->paneCount(), 2) << "the split lives on unsaved";

    holder.release();
    EXPECT_EQ(everything(), before);
    ASSERT_TRUE(spinUntil([&] { return store->storageIsWritable(); }));
    EXPECT_EQ(store->errorMessage(), std::nullopt);
    const auto saved = SavedWorkspace::decode(QByteArray::fromStdString(
        std::get<PreferenceData>(*real->read(WorkspaceStore::storageKey).value).bytes));
    EXPECT_EQ(saved.tabs.at(0).panes.size(), 2u);
    store->newTerminal();
    EXPECT_EQ(store->tabs().size(), 2u);
}

TEST_F(StoredDataFaultTest, KeepACopyAndStartOverCopiesTheExactBytesFirstAndKeepsEveryShell) {
    const std::string damaged("\x01{\"tabs\": [ half", 16);
    real->set(WorkspaceStore::storageKey, std::string(damaged));  // text, not data
    const QUuid scratchID = QUuid::createUuid();
    const QString scratch = f.scratchRoot() + "/" + scratchID.toString(QUuid::WithoutBraces);
    std::filesystem::create_directories(scratch.toStdString());
    f.node->adopt("mem-second", alpha.root.toStdString());
    f.node->adopt("mem-scratch", scratch.toStdString());
    f.node->adopt("mem-elsewhere", "/nowhere/known");
    f.node->adopt("mem-pending", alpha.root.toStdString());
    std::set<std::string> keys;
    std::vector<hl::RecoveredSession> kept;
    {
        auto store = f.makeStore({alpha});
        EXPECT_FALSE(store->storageIsWritable());
        keys = store->damagedKeys();
        kept = store->sessionsToKeepAcrossStartOver(false);
    }
    ASSERT_EQ(keys, std::set<std::string>{WorkspaceStore::storageKey});
    // Every running shell, but the one whose close is recorded, with its folder
    // when the node confirms one of those this computer knows.
    std::map<QString, QString> keptFolders;
    for (const auto& session : kept)
        keptFolders[session.id] = session.cwd;
    EXPECT_EQ(keptFolders, (std::map<QString, QString>{{"mem-live", alpha.root},
                                                       {"mem-second", alpha.root},
                                                       {"mem-scratch", scratch},
                                                       {"mem-elsewhere", ""}}));

    ASSERT_TRUE(WorkspaceStore::keepSessionsForRecovery(*real, kept));
    const auto folder = f.base / "support" / "Recovered";
    const auto copies = hl::StoredDataRecovery::keepCopiesAndClear(
        *real, std::vector<std::string>(keys.begin(), keys.end()), folder);
    ASSERT_EQ(copies.size(), 1u);
    std::ifstream in(copies[0].file, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), damaged);
    EXPECT_EQ(hl::test::modeOf(copies[0].file), 0600u);
    EXPECT_EQ(hl::test::modeOf(folder), 0700u);

    // The next start opens each kept shell in a "Recovered terminals" tab of the
    // workspace its folder belongs to, saves them, and the sweep of unrecorded
    // sessions leaves every one running; the one without a known folder waits.
    auto next = f.makeStore({alpha});
    EXPECT_TRUE(next->storageIsWritable());
    std::map<QString, std::set<QString>> tabs;
    for (auto* tab : next->tabs()) {
        EXPECT_EQ(tab->title(), "Recovered terminals");
        for (auto* pane : tab->panes()) {
            tabs[hl::workspaceIDFor(tab->projectID())].insert(pane->sessionID().value_or(""));
            EXPECT_EQ(pane->context().cwd, keptFolders[pane->sessionID().value_or("")]);
        }
    }
    EXPECT_EQ(tabs, (std::map<QString, std::set<QString>>{
                        {hl::scratchWorkspaceID, {"mem-scratch"}},
                        {hl::projectWorkspaceID(alpha.id), {"mem-live", "mem-second"}}}));
    EXPECT_EQ(next->activeWorkspaceID(), hl::scratchWorkspaceID);
    EXPECT_EQ(next->errorMessage(),
              "1 recovered terminal keeps running, but its folder belongs to no project here, so "
              "it has no pane.");
    EXPECT_EQ(real->textList(WorkspaceStore::recoveredSessionsKey),
              std::vector<std::string>{"mem-elsewhere\t"});
    const auto saved = SavedWorkspace::decode(QByteArray::fromStdString(
        std::get<PreferenceData>(*real->read(WorkspaceStore::storageKey).value).bytes));
    EXPECT_EQ(saved.tabs.size(), 2u);
    next->closeUnrecordedSessions();
    spinFor(std::chrono::milliseconds(300));
    EXPECT_EQ(f.node->sessions(),
              (std::set<std::string>{"mem-live", "mem-second", "mem-scratch", "mem-elsewhere"}));
    EXPECT_TRUE(next->openProject(alpha));
}

}  // namespace
