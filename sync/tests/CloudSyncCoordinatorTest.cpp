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
    std::atomic<bool> held{false}, entered{false};

  private:
    FolderSharedStateTransport inner_;
};

TEST(FolderRecordTest, AChangeMadeWhileARefreshWaitsIsNeverOverwritten) {
    hl::test::TempDir dir;
    const QString folder = QString::fromStdString(dir.path().string());
    auto gated = std::make_shared<GatedFolderTransport>(folder);
    Core a(gated), b(std::make_shared<FolderSharedStateTransport>(folder));
    a.settle();
    b.settle();
    b.addProject("beta");
    ASSERT_TRUE(b.delivered());
    gated->held = true;
    gated->entered = false;
    a.sync->refresh();
    ASSERT_TRUE(spinUntil([&] { return gated->entered.load(); }));
    const auto alpha = a.addProject("alpha");  // while the fetch waits
    gated->held = false;
    ASSERT_TRUE(a.delivered());
    ASSERT_EQ(a.catalog->projects().size(), 1u);
    EXPECT_EQ(a.catalog->projects()[0].id, alpha.id);
    b.settle();
    EXPECT_EQ(b.sync->unmappedProjects().size(), 1) << "the later change reached B";
}

TEST(StoredSyncStateTest, UnreadableSyncKeysAreKeptWhileSyncGoesOn) {
    // Rows this version cannot read: a recovery list of another shape, a device
    // id stored as data, a pending snapshot that does not decode.
    auto record = std::make_shared<MemoryRecordTransport>();
    std::map<std::string, std::string> damaged = {
        {CloudSyncCoordinator::recoveryKey, "[{\"not\": \"a snapshot\"}]"},
        {CloudSyncCoordinator::deviceKey, "device id as data"},
        {CloudSyncCoordinator::pendingKey, "{ half a snapshot"}};
    Core a(record);
    for (const auto& [key, bytes] : damaged)
        a.f.prefs->set(key, hl::PreferenceData{bytes});
    a.restart();
    EXPECT_EQ(a.sync->damagedKeys().size(), 3u);
    a.addProject("alpha");
    a.settle();
    EXPECT_EQ(hl::SharedSnapshotCodec::decode(record->payload()).content().projects.size(), 1)
        << "sync still works";
    for (const auto& [key, bytes] : damaged)
        EXPECT_EQ(a.f.prefs->read(key).storedBytes, bytes) << key;
}

}  // namespace
