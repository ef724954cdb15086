// The sync coordinator between complete cores (preferences, catalog, workspace
// store and coordinator), each its own computer, in the cases that need a hand
// on the record or the process: a real folder held or killed in the middle, and
// an in-memory record that can be damaged or counted.
#include <gtest/gtest.h>

#include <QDir>
#include <QProcess>

#include <fcntl.h>
#include <unistd.h>
#include <csignal>

#include <atomic>
#include <fstream>
#include <thread>

#include "CloudSyncCoordinator.h"
#include "FolderSharedStateTransport.h"
#include "MemoryRecordTransport.h"
#include "SharedSnapshotCodec.h"
#include "SyncCoreSupport.h"

namespace fs = std::filesystem;
using namespace hl;
using hl::test::Core;
using hl::test::MemoryRecordTransport;
using hl::test::spinUntil;
using Kind = CloudSyncStatus::Kind;

namespace {

// A computer whose project "alpha" is already on the record.
class MemoryRecordTest : public ::testing::Test {
  protected:
    void SetUp() override {
        a.settle();
        alpha = a.addProject("alpha");
        ASSERT_TRUE(a.delivered());
    }
    std::shared_ptr<MemoryRecordTransport> record = std::make_shared<MemoryRecordTransport>();
    Core a{record};
    ProjectRecord alpha;
};

TEST_F(MemoryRecordTest, ABurstOfChangesIsOneExchange) {
    const int before = record->writes;
    QUuid lastPending;
    for (int i = 0; i < 10; ++i) {
        a.store->renameProject(alpha.id, QString("Alpha %1").arg(i));
        ASSERT_TRUE(a.sync->pending());
        EXPECT_NE(a.sync->pending()->revision(), lastPending);
        lastPending = a.sync->pending()->revision();
    }
    ASSERT_TRUE(a.delivered());
    EXPECT_EQ(record->writes - before, 1);
    EXPECT_EQ(a.sync->accepted()->revision(), lastPending);
    // A session that comes up is saved, but changes nothing shared.
    auto* pane = a.store->selectedTab()->panes()[0];
    pane->controller().requestFocus();
    ASSERT_TRUE(spinUntil([&] { return pane->sessionID().has_value(); }));
    ASSERT_NE(a.f.stored(WorkspaceStore::storageKey).find(pane->sessionID()->toStdString()),
              std::string::npos);
    EXPECT_FALSE(a.sync->pending());
    EXPECT_EQ(a.sync->status(), CloudSyncStatus::of(Kind::Synced));
}

TEST_F(MemoryRecordTest, DamagedOrForeignRecordsAreNeitherAppliedNorOverwritten) {
    const QByteArray good = record->payload();
    QByteArray schema2 = good;
    schema2.replace("\"schemaVersion\":1", "\"schemaVersion\":2");
    ASSERT_NE(schema2, good);
    QByteArray badTab = good;
    badTab.replace("\"tabs\":[", "\"tabs\":[{\"id\":\"x\"},");
    const QByteArray tooLarge =
        "{\"pad\":\"" + QByteArray(SharedSnapshot::maximumEncodedBytes, 'a') + "\"}";
    for (const QByteArray& damaged :
         {schema2, badTab, tooLarge, QByteArray("not json"), QByteArray()}) {
        record->setPayload(damaged);
        const int writes = record->writes;
        a.settle();
        EXPECT_EQ(a.sync->status(), CloudSyncStatus::of(Kind::InvalidRemote))
            << damaged.left(80).constData();
        a.store->renameProject(alpha.id, "Changed " + QString::number(writes));
        ASSERT_TRUE(a.sync->pending());
        a.settle();
        EXPECT_EQ(a.sync->status(), CloudSyncStatus::of(Kind::InvalidRemote));
        EXPECT_EQ(record->payload(), damaged) << "never overwritten";
        EXPECT_EQ(record->writes, writes);
        EXPECT_EQ(a.catalog->projects().size(), 1u) << "never applied";
        EXPECT_TRUE(a.sync->pending()) << "the change waits";
    }
    // The account goes away: working locally, the change still waits.
    record->setPayload(good);
    record->available = false;
    a.settle();
    EXPECT_EQ(a.sync->status(), CloudSyncStatus::of(Kind::CloudUnavailable));
    EXPECT_TRUE(a.sync->pending());
    record->available = true;
    a.settle();
    EXPECT_EQ(a.sync->status(), CloudSyncStatus::of(Kind::Synced));
    EXPECT_FALSE(a.sync->pending());
}

TEST_F(MemoryRecordTest, AJoiningComputerTakesTheRecordAndKeepsItsOwnStateAsACopy) {
    Core empty(record), own(record);
    own.sync.reset();
    own.addProject("mine");
    own.sync = std::make_unique<CloudSyncCoordinator>(own.f.prefs, record);
    own.sync->attach(own.catalog.get(), own.store.get(), false);
    empty.settle();
    own.settle();
    EXPECT_EQ(empty.sync->recoveryCount(), 0) << "nothing to lose";
    EXPECT_EQ(own.sync->recoveryCount(), 1);
    EXPECT_TRUE(own.catalog->projects().empty());
    EXPECT_EQ(own.sync->status(), CloudSyncStatus::needsFolder(1));
    ASSERT_EQ(own.sync->unmappedProjects().size(), 1);

    // Sync turned off: what the last sync stored asks for no set-up here.
    own.sync = std::make_unique<CloudSyncCoordinator>(
        own.f.prefs, std::make_shared<DisabledSharedStateTransport>());
    own.sync->attach(own.catalog.get(), own.store.get(), false);
    EXPECT_TRUE(own.sync->unmappedProjects().isEmpty());
}

TEST(KilledCoreTest, AChangeCaughtInTheMiddleOfAnExchangeIsDeliveredByTheNextStart) {
    hl::test::TempDir dir;
    const fs::path record = dir / "record";
    const fs::path root = dir / "alpha";
    fs::create_directories(record);
    fs::create_directories(root);
    const QString prefs = QString::fromStdString((dir / "prefs.sqlite3").string());
    const QString folder = QString::fromStdString(record.string());
    // The record's lock is held, so that the exchange waits inside its attempt.
    const std::string lockPath = (record / "harborlattice-state-v1.lock").string();
    const int lockFd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(lockFd, 0);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    ASSERT_EQ(::fcntl(lockFd, F_OFD_SETLK, &lock), 0);

    QProcess changing;
    changing.start(HL_SYNC_CORE_WORKER,
                   {prefs, folder, "change", QString::fromStdString(root.string())});
    ASSERT_TRUE(changing.waitForReadyRead(30000)) << changing.readAllStandardError().constData();
    const QByteArray line = changing.readLine().trimmed();
    ASSERT_TRUE(line.startsWith("pending ")) << line.constData();
    hl::test::spinFor(std::chrono::milliseconds(1500));  // past the debounce, into the exchange
    ::kill(static_cast<pid_t>(changing.processId()), SIGKILL);
    ASSERT_TRUE(changing.waitForFinished(30000));
    ::close(lockFd);

    FolderSharedStateTransport reader(folder);
    EXPECT_EQ(reader.fetch(), std::nullopt) << "nothing reached the record before the kill";
    QProcess delivering;
    delivering.start(HL_SYNC_CORE_WORKER, {prefs, folder, "deliver"});
    ASSERT_TRUE(delivering.waitForFinished(60000));
    EXPECT_EQ(delivering.readAllStandardOutput().trimmed(), "delivered " + line.mid(8));
    const auto stored = reader.fetch();
    ASSERT_TRUE(stored);
    ASSERT_EQ(stored->content().projects.size(), 1);
    EXPECT_EQ(stored->content().projects[0].name, "alpha");
}

// Holds every read of the record while `held` is set.
class GatedFolderTransport final : public SharedStateTransport {
  public:
    explicit GatedFolderTransport(QString folder) : inner_(std::move(folder)) {}
    bool isConfigured() const override { return true; }
    bool accountIsAvailable() override { return inner_.accountIsAvailable(); }
    std::optional<SharedSnapshot> fetch() override {
        entered = true;
        while (held)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return inner_.fetch();
    }
    SharedSnapshot exchange(const SharedSnapshot& snapshot) override {
        return inner_.exchange(snapshot);
    }
    SharedSnapshot exchangeFrom(const SharedSnapshot& snapshot,
                                const std::optional<QUuid>& base) override {
        return inner_.exchangeFrom(snapshot, base);
    }
    std::atomic<bool> held{false}, entered{false};

  private:
    FolderSharedStateTransport inner_;
};

TEST(FolderRecordTest, AChangeMadeWhileAFetchWaitsMeetsTheNewerRecordAndBothSurvive) {
    hl::test::TempDir dir;
    const QString folder = QString::fromStdString(dir.path().string());
    auto gated = std::make_shared<GatedFolderTransport>(folder);
    Core a(gated), b(std::make_shared<FolderSharedStateTransport>(folder));
    a.settle();
    b.settle();
    const auto beta = b.addProject("beta");
    ASSERT_TRUE(b.delivered());
    gated->held = true;
    gated->entered = false;
    a.sync->refresh();
    ASSERT_TRUE(spinUntil([&] { return gated->entered.load(); }));
    const auto alpha = a.addProject("alpha");  // while the fetch of B's record waits
    gated->held = false;
    ASSERT_TRUE(a.delivered());
    ASSERT_EQ(a.catalog->projects().size(), 1u);
    EXPECT_EQ(a.catalog->projects()[0].id, alpha.id);
    b.settle();
    ASSERT_EQ(b.catalog->projects().size(), 1u) << "B's delivered project stays";
    EXPECT_EQ(b.catalog->projects()[0].id, beta.id);
    ASSERT_EQ(b.sync->unmappedProjects().size(), 1) << "the later change reached B";
    EXPECT_EQ(b.sync->unmappedProjects()[0].id, alpha.id);
    const auto stored = FolderSharedStateTransport(folder).fetch();
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->content().projects.size(), 2);
    EXPECT_EQ(stored->content(), b.sync->sharedContent());
    EXPECT_EQ(a.sync->sharedContent(), b.sync->sharedContent());
}

TEST(FolderRecordTest, AChangeOfPlaceWaitsForTheRefreshUnderWayAndJoinsTheNewRecord) {
    hl::test::TempDir first, second;
    auto gated =
        std::make_shared<GatedFolderTransport>(QString::fromStdString(first.path().string()));
    auto other = std::make_shared<FolderSharedStateTransport>(
        QString::fromStdString(second.path().string()));
    Core a(gated), b(other);
    a.settle();
    const auto alpha = a.addProject("alpha");
    ASSERT_TRUE(a.delivered());
    b.settle();
    const auto beta = b.addProject("beta");
    ASSERT_TRUE(b.delivered());

    gated->held = true;
    gated->entered = false;
    a.sync->refresh();
    ASSERT_TRUE(spinUntil([&] { return gated->entered.load(); }));
    a.sync->setTransport(std::make_shared<FolderSharedStateTransport>(
        QString::fromStdString(second.path().string())));
    EXPECT_EQ(&a.sync->transport(), gated.get()) << "the refresh under way keeps its place";
    gated->held = false;
    ASSERT_TRUE(spinUntil([&] { return &a.sync->transport() != gated.get(); }));
    a.settle();

    // A takes the second record as a computer that joins it, keeping its own
    // state as a copy; the first record is left as it was.
    EXPECT_EQ(a.sync->status(), CloudSyncStatus::needsFolder(1));
    ASSERT_EQ(a.sync->unmappedProjects().size(), 1);
    EXPECT_EQ(a.sync->unmappedProjects()[0].id, beta.id);
    EXPECT_EQ(a.sync->recoveryCount(), 1);
    ASSERT_EQ(a.sync->recoveryCopies().size(), 1);
    EXPECT_TRUE(a.sync->recoveryCopies()[0].whole);
    EXPECT_EQ(a.sync->recoveryCopies()[0].snapshot.content().projects.value(0).id, alpha.id);
    EXPECT_EQ(a.sync->accepted()->content(), other->fetch()->content());
    const auto left =
        FolderSharedStateTransport(QString::fromStdString(first.path().string())).fetch();
    ASSERT_TRUE(left);
    ASSERT_EQ(left->content().projects.size(), 1);
    EXPECT_EQ(left->content().projects[0].id, alpha.id);
}

TEST(StoredSyncStateTest, UnreadableSyncKeysAreCopiedOutAndReplacedWhileSyncGoesOn) {
    // Rows this version cannot read: a recovery list with one entry of another
    // shape beside a good one, a device id stored as data, pending and accepted
    // snapshots that do not decode.
    auto record = std::make_shared<MemoryRecordTransport>();
    auto ahead = std::chrono::hours(0);
    Core a(record, [&] { return hl::sharedDateNow() + ahead; });
    a.settle();
    a.addProject("alpha");
    ASSERT_TRUE(a.delivered());
    // A good recovery entry, from a rename lost to another computer's later one.
    SharedContent theirs = hl::SharedSnapshotCodec::decode(record->payload()).content();
    theirs.workspaces[0].tabs[0].title = "Their name";
    a.store->renameProject(a.catalog->projects()[0].id, "Lost name");
    record->setPayload(hl::SharedSnapshotCodec::encode(
        SharedSnapshot(QUuid::createUuid(), theirs, QUuid::createUuid(),
                       hl::sharedDateNow() + std::chrono::hours(1))));
    ASSERT_TRUE(a.delivered());
    ASSERT_EQ(a.sync->recoveryCount(), 1);
    std::string goodList = a.f.prefs->read(CloudSyncCoordinator::recoveryKey).storedBytes;
    const std::string badList =
        goodList.substr(0, goodList.size() - 1) + ",{\"not\": \"a snapshot\"}]";
    const std::map<std::string, std::string> damaged = {
        {CloudSyncCoordinator::recoveryKey, badList},
        {CloudSyncCoordinator::deviceKey, "device id as data"},
        {CloudSyncCoordinator::pendingKey, "{ half a snapshot"},
        {CloudSyncCoordinator::acceptedKey, "{ half an accepted"}};
    for (const auto& [key, bytes] : damaged)
        a.f.prefs->set(key, hl::PreferenceData{bytes});
    a.restart();
    EXPECT_EQ(a.sync->damagedKeys().size(), 4u);
    EXPECT_EQ(a.sync->recoveryCount(), 1) << "the readable entry stays listed";

    // Offline, a change, then a quit inside the debounce: the change is on disk.
    ahead = std::chrono::hours(2);
    record->available = false;
    a.store->renameProject(a.catalog->projects()[0].id, "Offline name");
    ASSERT_TRUE(a.sync->pending());
    const QUuid offline = a.sync->pending()->revision();
    a.restart();
    ASSERT_TRUE(a.sync->pending());
    EXPECT_EQ(a.sync->pending()->revision(), offline) << "the pending key was written again";
    record->available = true;
    a.settle();
    ASSERT_TRUE(a.delivered());
    const auto stored = hl::SharedSnapshotCodec::decode(record->payload());
    ASSERT_EQ(stored.content().workspaces.size(), 1);
    EXPECT_EQ(stored.content().workspaces[0].tabs[0].title, "Offline name");

    // Each unreadable sync value's bytes are in Recovered; only the device id,
    // which this computer never replaces, is kept where it is.
    std::map<std::string, std::string> copies;
    for (const auto& entry : fs::directory_iterator(a.f.base / "Recovered")) {
        std::ifstream in(entry.path(), std::ios::binary);
        const std::string name = entry.path().filename().string();
        copies[name.substr(0, name.find(".v1-") + 3)] =
            std::string(std::istreambuf_iterator<char>(in), {});
    }
    for (const auto& [key, bytes] : damaged) {
        if (key == CloudSyncCoordinator::deviceKey) {
            EXPECT_EQ(a.f.prefs->read(key).storedBytes, bytes);
            continue;
        }
        EXPECT_EQ(copies[key], bytes) << key;
        EXPECT_NE(a.f.prefs->read(key).storedBytes, bytes) << key;
    }
    EXPECT_EQ(a.sync->damagedKeys(), std::set<std::string>{CloudSyncCoordinator::deviceKey});
    EXPECT_EQ(a.sync->recoveryCopies().size(), 1) << "the readable entry was kept";
}

}  // namespace
