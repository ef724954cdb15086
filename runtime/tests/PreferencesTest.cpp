// The preference store on real SQLite files: typed values, domains, durability
// across connections and processes, unreadable rows, and the preferences move.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "FaultyPreferences.h"
#include "Preferences.h"
#include "PreferencesMigration.h"
#include "StoredDataRecovery.h"
#include "TestSupport.h"

using hl::PreferenceData;
using hl::Preferences;
using hl::PreferencesMigration;
using hl::PreferenceValue;

namespace {

class PreferencesTest : public ::testing::Test {
  protected:
    std::shared_ptr<Preferences> open(const std::string& domain = Preferences::standardDomain) {
        return Preferences::open(dir_ / "prefs.sqlite3", domain);
    }
    // Runs `sql` on the file behind the store's back, as another program would.
    void writeRaw(const char* sql) {
        sqlite3* raw = nullptr;
        ASSERT_EQ(sqlite3_open((dir_ / "prefs.sqlite3").c_str(), &raw), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(raw, sql, nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(raw);
    }
    hl::test::TempDir dir_;
};

TEST_F(PreferencesTest, TypedValuesRoundTripAndKeepTheirType) {
    auto store = open();
    std::string binary("\0\x01\xff{not json", 12);
    EXPECT_TRUE(store->set("data", PreferenceData{binary}));
    EXPECT_TRUE(store->set("text", std::string("héllo")));
    EXPECT_TRUE(store->set("list", std::vector<std::string>{"a", "", "ü \"q\""}));
    EXPECT_TRUE(store->setBool("flag", false));

    EXPECT_EQ(store->data("data")->bytes, binary);
    EXPECT_EQ(store->text("text"), "héllo");
    EXPECT_EQ(store->textList("list"), (std::vector<std::string>{"a", "", "ü \"q\""}));
    EXPECT_EQ(store->boolean("flag"), false);
    EXPECT_TRUE(store->object("flag").has_value());

    // A typed read of another type is absent; the value is untouched.
    EXPECT_EQ(store->text("data"), std::nullopt);
    EXPECT_EQ(store->boolean("text"), std::nullopt);
    EXPECT_EQ(store->data("list"), std::nullopt);

    // Overwriting changes the type; removing leaves nothing.
    EXPECT_TRUE(store->set("data", std::string("now text")));
    EXPECT_EQ(store->text("data"), "now text");
    EXPECT_TRUE(store->remove("data"));
    EXPECT_FALSE(store->object("data").has_value());
    EXPECT_TRUE(store->remove("never-there"));
}

TEST_F(PreferencesTest, DomainsAreSeparateAndReadWhole) {
    auto standard = open();
    auto legacy = open("local.example.legacy");
    standard->set("k", std::string("standard"));
    legacy->set("k", std::string("legacy"));
    legacy->set("other", true);

    EXPECT_EQ(standard->text("k"), "standard");
    EXPECT_EQ(legacy->text("k"), "legacy");
    auto whole = standard->persistentDomain("local.example.legacy");
    ASSERT_EQ(whole.size(), 2u);
    EXPECT_EQ(whole.at("k"), PreferenceValue(std::string("legacy")));
    EXPECT_EQ(whole.at("other"), PreferenceValue(true));
    EXPECT_TRUE(standard->persistentDomain("no.such.domain").empty());
}

TEST_F(PreferencesTest, WritesAreVisibleToOtherConnectionsAndProcesses) {
    auto first = open();
    auto second = open();
    const std::string megabyte(1 << 20, 'm');
    first->set("big", PreferenceData{megabyte});
    EXPECT_EQ(second->data("big")->bytes, megabyte);

    // Two processes write interleaved into one file; nothing is lost.
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        auto own = Preferences::open(dir_ / "prefs.sqlite3");
        bool ok = true;
        for (int i = 0; i < 150; ++i)
            ok = own->set("child." + std::to_string(i), true) && ok;
        ::_exit(ok ? 0 : 1);
    }
    for (int i = 0; i < 150; ++i)
        EXPECT_TRUE(first->set("parent." + std::to_string(i), true));
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(second->persistentDomain(Preferences::standardDomain).size(), 301u);

    // Threads sharing one store object.
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 50; ++i)
                first->set("t" + std::to_string(t), std::to_string(i));
        });
    }
    for (auto& thread : threads)
        thread.join();
    for (int t = 0; t < 4; ++t)
        EXPECT_EQ(first->text("t" + std::to_string(t)), "49");

    // Reopened, everything is still there.
    first.reset();
    second.reset();
    EXPECT_EQ(open()->data("big")->bytes, megabyte);
}

TEST_F(PreferencesTest, UnreadableRowsAreToldFromAbsentAndKeepTheirBytes) {
    auto store = open();
    store->set("good", std::string("fine"));
    store->set("text", std::string("not data"));
    writeRaw(
        "INSERT INTO preferences VALUES ('standard','list',2,'not a list');"
        "INSERT INTO preferences VALUES ('standard','alien',9,'x');");

    EXPECT_EQ(store->read("list").state, hl::PreferenceReadState::unreadable);
    EXPECT_EQ(store->read("list").storedBytes, "not a list");
    EXPECT_EQ(store->read("alien").state, hl::PreferenceReadState::unreadable);
    EXPECT_EQ(store->readData("text").state, hl::PreferenceReadState::unreadable)
        << "a row of another type is not absent";
    EXPECT_EQ(store->readData("text").storedBytes, "not data");
    EXPECT_TRUE(store->read("missing").isAbsent());
    auto whole = store->readDomain(Preferences::standardDomain);
    EXPECT_EQ(whole.values.size(), 2u);
    EXPECT_EQ(whole.unreadableKeys, (std::set<std::string>{"alien", "list"}));
    EXPECT_EQ(store->text("good"), "fine");
}

TEST_F(PreferencesTest, AWriterHoldingTheDatabaseIsReportedAndWritesResumeWhenItLetsGo) {
    const auto file = dir_ / "prefs.sqlite3";
    auto store =
        Preferences::open(file, Preferences::standardDomain, std::chrono::milliseconds(50));
    ASSERT_TRUE(store->set("projects", PreferenceData{"[1]"}));
    hl::test::WriterHoldingTheLock holder(file);

    // (A start that meets the lock is driven through the window: StoredDataWindowTest.)
    // A running store's write is refused, says why, and a probe tells when to try again.
    EXPECT_FALSE(store->writeIsPossibleNow());
    EXPECT_FALSE(store->set("projects", PreferenceData{"[2]"}));
    EXPECT_EQ(store->lastWriteFailure(),
              "the database is in use by another process (database is locked)");
    EXPECT_EQ(store->data("projects")->bytes, "[1]") << "readers still read";

    holder.release();
    EXPECT_TRUE(store->writeIsPossibleNow());
    EXPECT_TRUE(store->set("projects", PreferenceData{"[2]"}));
    EXPECT_EQ(store->lastWriteFailure(), "");
    EXPECT_EQ(open()->data("projects")->bytes, "[2]");
}

TEST_F(PreferencesTest, FilesThatCannotBeWrittenAreNamedAndAStartLeavesNoCompanionBehind) {
    const auto file = dir_ / "prefs.sqlite3";
    open()->set("projects", PreferenceData{"[1]"});
    const std::string before = hl::test::readFile(file);

    // A database of mode 0444: named with its fix, and no -wal or -shm is made.
    ::chmod(file.c_str(), 0444);
    try {
        open();
        ADD_FAILURE() << "a read-only database must not open";
    } catch (const hl::PreferencesError& error) {
        EXPECT_EQ(error.kind(), hl::PreferencesError::Kind::notWritable);
        EXPECT_EQ(error.file(), file);
        EXPECT_EQ(std::string(error.what()),
                  "The file " + file.string() +
                      " has mode 0444 and cannot be written. Make it readable and writable for "
                      "your user (chmod 600 " +
                      file.string() + "), then try again.");
    }
    EXPECT_FALSE(std::filesystem::exists(file.string() + "-shm"));
    EXPECT_FALSE(std::filesystem::exists(file.string() + "-wal"));
    EXPECT_EQ(hl::test::readFile(file), before);

    // A companion left read-only by an earlier start is named too.
    ::chmod(file.c_str(), 0600);
    const std::filesystem::path shm = file.string() + "-shm";
    { std::ofstream(shm) << ""; }
    ::chmod(shm.c_str(), 0444);
    try {
        open();
        ADD_FAILURE() << "a read-only companion must not open";
    } catch (const hl::PreferencesError& error) {
        EXPECT_EQ(error.kind(), hl::PreferencesError::Kind::notWritable);
        EXPECT_EQ(error.file(), shm);
    }
    EXPECT_EQ(hl::test::modeOf(shm), 0444u);
    EXPECT_EQ(hl::test::readFile(file), before);

    // A store running when a companion turns read-only names it on its next write.
    ::chmod(shm.c_str(), 0600);
    auto store = open();
    ::chmod((file.string() + "-wal").c_str(), 0444);
    EXPECT_FALSE(store->writeIsPossibleNow());
    EXPECT_EQ(store->lastWriteFailure(), "");
    ::chmod((file.string() + "-wal").c_str(), 0600);
    EXPECT_TRUE(store->set("projects", PreferenceData{"[2]"}));
}

TEST_F(PreferencesTest, AFileThatIsNoDatabaseIsToldApartAndMovedAsideWhole) {
    std::filesystem::create_directories(dir_ / "a-directory");
    EXPECT_THROW(Preferences::open(dir_ / "a-directory"), hl::PreferencesError);

    // A database whose second page was overwritten (a file of random bytes from
    // the start is driven through the window: StoredDataWindowTest).
    std::string noise(4000, '\0');
    for (std::size_t i = 0; i < noise.size(); ++i)
        noise[i] = static_cast<char>((i * 7919 + 13) % 251);
    const auto file = dir_ / "prefs.sqlite3";
    {
        auto store = open();
        for (int i = 0; i < 8; ++i)
            store->set("value-" + std::to_string(i), PreferenceData{std::string(40000, 'a' + i)});
    }
    {
        std::fstream damage(file, std::ios::in | std::ios::out | std::ios::binary);
        damage.seekp(65536);
        damage << noise;
    }
    const std::string damaged = hl::test::readFile(file);
    try {
        open();
        ADD_FAILURE() << "a damaged page must be found at the start";
    } catch (const hl::PreferencesError& error) {
        EXPECT_EQ(error.kind(), hl::PreferencesError::Kind::notADatabase);
        EXPECT_EQ(error.file(), file);
        EXPECT_EQ(error.reason(), "database disk image is malformed");
    }
    EXPECT_EQ(hl::test::readFile(file), damaged);

    // Moved aside whole, companions with it; a new database then opens in its place.
    { std::ofstream(file.string() + "-wal") << "companion"; }
    const auto moved = hl::StoredDataRecovery::moveDatabaseAside(
        file, dir_ / "Recovered", std::chrono::system_clock::from_time_t(0));
    ASSERT_EQ(moved.size(), 2u);
    EXPECT_EQ(moved[0].key, file.string());
    EXPECT_EQ(moved[0].file, dir_ / "Recovered" / "prefs.sqlite3-19700101T000000Z");
    EXPECT_EQ(hl::test::readFile(moved[0].file), damaged);
    EXPECT_EQ(hl::test::readFile(moved[1].file), "companion");
    EXPECT_EQ(moved[1].file.string(), moved[0].file.string() + "-wal");
    EXPECT_EQ(hl::test::modeOf(moved[0].file), 0600u);
    EXPECT_EQ(hl::test::modeOf(dir_ / "Recovered"), 0700u);
    EXPECT_FALSE(std::filesystem::exists(file.string() + "-wal"));
    EXPECT_TRUE(open()->set("projects", PreferenceData{"[]"}));
    // A second move the same second gets a name of its own.
    open().reset();
    const auto again = hl::StoredDataRecovery::moveDatabaseAside(
        file, dir_ / "Recovered", std::chrono::system_clock::from_time_t(0));
    ASSERT_FALSE(again.empty());
    EXPECT_EQ(again[0].file, dir_ / "Recovered" / "prefs.sqlite3-19700101T000000Z-1");
    EXPECT_EQ(hl::test::readFile(moved[0].file), damaged);
}

TEST_F(PreferencesTest, MigrationMovesRetainedKeysOnceWithoutOverwriting) {
    auto store = open();
    auto legacyDomain = open(PreferencesMigration::legacyBundleIdentifier);
    legacyDomain->set("harborlattice.projects.v1", PreferenceData{"legacy projects"});
    legacyDomain->set("harborlattice.workspace.simple.v1", PreferenceData{"legacy workspace"});
    legacyDomain->set("harborlattice.sync.device.v1", PreferenceData{"device"});
    legacyDomain->set("harborlattice.not-retained.v1", std::string("stays behind"));
    store->set("harborlattice.workspace.simple.v1", PreferenceData{"current workspace"});

    PreferencesMigration::importLegacyBundleDomain(*store);

    EXPECT_EQ(store->data("harborlattice.projects.v1")->bytes, "legacy projects");
    EXPECT_EQ(store->data("harborlattice.workspace.simple.v1")->bytes, "current workspace");
    EXPECT_EQ(store->data("harborlattice.sync.device.v1")->bytes, "device");
    EXPECT_FALSE(store->object("harborlattice.not-retained.v1"));
    EXPECT_EQ(store->boolean(PreferencesMigration::markerKey), true);
    EXPECT_EQ(legacyDomain->persistentDomain(PreferencesMigration::legacyBundleIdentifier).size(),
              4u);

    // Marked: a second run moves nothing, even after the key was removed.
    store->remove("harborlattice.projects.v1");
    PreferencesMigration::importLegacyBundleDomain(*store);
    EXPECT_FALSE(store->object("harborlattice.projects.v1"));
}

TEST_F(PreferencesTest, MigrationMarkerCountsByPresenceAndSuppliedValuesStandIn) {
    auto store = open();
    store->setBool(PreferencesMigration::markerKey, false);
    PreferencesMigration::importLegacyBundleDomain(
        *store, std::map<std::string, PreferenceValue>{
                    {"harborlattice.pending-closes.v1", std::vector<std::string>{"s1"}}});
    EXPECT_FALSE(store->object("harborlattice.pending-closes.v1"));
    EXPECT_EQ(store->boolean(PreferencesMigration::markerKey), false);

    store->remove(PreferencesMigration::markerKey);
    auto legacyDomain = open(PreferencesMigration::legacyBundleIdentifier);
    legacyDomain->set("harborlattice.sync.pending.v1", PreferenceData{"stored legacy"});
    PreferencesMigration::importLegacyBundleDomain(
        *store, std::map<std::string, PreferenceValue>{
                    {"harborlattice.pending-closes.v1", std::vector<std::string>{"s1"}}});
    EXPECT_EQ(store->textList("harborlattice.pending-closes.v1"), std::vector<std::string>{"s1"});
    EXPECT_FALSE(store->object("harborlattice.sync.pending.v1")) << "the map replaces the domain";

    // A fresh installation with no legacy domain gets only the marker.
    hl::test::TempDir other;
    auto fresh = Preferences::open(other / "p.sqlite3");
    PreferencesMigration::importLegacyBundleDomain(*fresh);
    auto all = fresh->persistentDomain(Preferences::standardDomain);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all.begin()->first, PreferencesMigration::markerKey);
}

TEST_F(PreferencesTest, MigrationNeverWritesOverUnreadableValuesAndRetriesAfterFailures) {
    auto real = open();
    auto legacyDomain = open(PreferencesMigration::legacyBundleIdentifier);
    legacyDomain->set("harborlattice.projects.v1", PreferenceData{"legacy projects"});
    legacyDomain->set("harborlattice.pending-closes.v1", std::vector<std::string>{"s1"});
    writeRaw(
        "INSERT INTO preferences VALUES "
        "('standard','harborlattice.pending-closes.v1',9,'future');");

    hl::test::FaultyPreferences faulty(real);
    faulty.failingWrites = {"harborlattice.projects.v1"};
    PreferencesMigration::importLegacyBundleDomain(faulty);
    EXPECT_FALSE(real->object(PreferencesMigration::markerKey)) << "a failed move is not marked";

    faulty.failingWrites.clear();
    faulty.failingReads = {PreferencesMigration::markerKey};
    PreferencesMigration::importLegacyBundleDomain(faulty);
    EXPECT_FALSE(real->object("harborlattice.projects.v1")) << "an unanswered marker moves nothing";

    faulty.failingReads.clear();
    PreferencesMigration::importLegacyBundleDomain(faulty);
    EXPECT_EQ(real->data("harborlattice.projects.v1")->bytes, "legacy projects");
    EXPECT_EQ(real->read("harborlattice.pending-closes.v1").storedBytes, "future");
    EXPECT_EQ(real->boolean(PreferencesMigration::markerKey), true);
}

}  // namespace
