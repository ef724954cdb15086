// The ways out of stored-data faults, through the windows the user sees, on
// real preference files and against the real node with real shells: a start
// that meets a held database, a file that is no database moved aside whole,
// and "Keep a Copy and Start Over…" for a damaged value. Each keeps every
// running shell, and each is checked by the bytes kept and by what the
// windows say.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>

#include <fstream>
#include <iterator>

#include "AppTestSupport.h"
#include "HarborlatticeApp.h"
#include "NodeSupervisor.h"
#include "StoredDataPrompts.h"

namespace {

using namespace std::chrono_literals;
using hl::apptest::socketPath;
using hl::apptest::spinUntil;

std::string fileBytes(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// The visible message box of that name, or null.
QMessageBox* shownBox(const QString& objectName) {
    for (QWidget* widget : QApplication::topLevelWidgets()) {
        auto* box = qobject_cast<QMessageBox*>(widget);
        if (box && box->isVisible() && box->objectName() == objectName) return box;
    }
    return nullptr;
}

QPushButton* button(QMessageBox* box, const QString& text) {
    for (auto* each : box->findChildren<QPushButton*>()) {
        if (each->text() == text) return each;
    }
    return nullptr;
}

// Once the box of that name shows, keeps its text and presses the button; the
// texts of every box met, in order, end up in `seen`.
void whenShown(const QString& objectName, const QString& press, QStringList* seen) {
    auto* poll = new QTimer;
    QObject::connect(poll, &QTimer::timeout, poll, [=] {
        QMessageBox* box = shownBox(objectName);
        if (!box) return;
        poll->deleteLater();
        poll->stop();
        *seen << box->text();
        if (press.isEmpty()) return;
        QPushButton* target = button(box, press);
        if (!target) return box->reject();
        target->click();
    });
    poll->start(20);
}

// A shell in a new scratch directory; its session id.
std::string startScratchShell() {
    const auto folder = hl::RuntimePaths::scratchRoot() /
                        QUuid::createUuid().toString(QUuid::WithoutBraces).toStdString();
    std::filesystem::create_directories(folder);
    return *hl::UnixSocketClient(socketPath())
                .request("create_session", {{"cwd", folder.string()},
                                            {"cols", std::int64_t{80}},
                                            {"rows", std::int64_t{24}}})["session_id"]
                .stringValue();
}

std::set<QString> recoveredSessions(hl::HarborlatticeApp& app) {
    std::set<QString> sessions;
    for (auto* tab : app.workspace().tabs()) {
        if (tab->title() != "Recovered terminals") continue;
        for (auto* pane : tab->panes())
            sessions.insert(pane->sessionID().value_or(""));
    }
    return sessions;
}

class StoredDataWindowTest : public ::testing::Test {
  protected:
    StoredDataWindowTest() {
        hl::NodeSupervisor::shared().ensureRunning();
        EXPECT_TRUE(spinUntil([] { return hl::apptest::nodeAnswers(socketPath()); }));
        for (const auto& id : hl::apptest::nodeSessions(socketPath()))
            hl::UnixSocketClient(socketPath()).request("close_session", {{"session_id", id}});
    }
    std::unique_ptr<hl::HarborlatticeApp> open(const std::filesystem::path& file) {
        return hl::openApplication(
            file, [&file] { return std::make_unique<hl::HarborlatticeApp>(file); });
    }
    const std::filesystem::path folder = hl::apptest::baseFolder() / "stored-data";
};

TEST_F(StoredDataWindowTest, AHeldDatabaseIsToldAtOnceAndTheStartGoesOnWhenItIsLetGo) {
    std::filesystem::create_directories(folder);
    const auto file = folder / "held.sqlite3";
    hl::Preferences::open(file)->set("harborlattice.projects.v1", hl::PreferenceData{"[]"});
    sqlite3* holder = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &holder), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(holder, "BEGIN EXCLUSIVE; UPDATE preferences SET value = value;",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    // The window shows, and the holder lets go while it is up: no click is needed.
    QStringList seen;
    whenShown("preferences.unavailable", QString(), &seen);
    QTimer::singleShot(1500ms, [&] {
        sqlite3_exec(holder, "ROLLBACK", nullptr, nullptr, nullptr);
        sqlite3_close(holder);
    });
    auto app = open(file);
    ASSERT_NE(app, nullptr);
    EXPECT_EQ(seen,
              QStringList{"The preferences database " + QString::fromStdString(file.string()) +
                          " is in use by another process. Nothing was read or changed. "
                          "Harborlattice tries again every second and starts as soon as "
                          "the other process lets the database go."});
    EXPECT_TRUE(app->workspace().storageIsWritable());
}

TEST_F(StoredDataWindowTest, AFileThatIsNoDatabaseIsMovedAsideWholeAndEveryShellIsKept) {
    std::filesystem::create_directories(folder);
    const auto file = folder / "noise.sqlite3";
    std::string noise(20000, '\0');
    for (std::size_t i = 0; i < noise.size(); ++i)
        noise[i] = static_cast<char>((i * 7919 + 7) % 253);
    { std::ofstream(file, std::ios::binary) << noise; }
    const std::set<QString> shells{QString::fromStdString(startScratchShell()),
                                   QString::fromStdString(startScratchShell())};

    QStringList seen;
    whenShown("preferences.unavailable", "Keep a Copy and Start Over…", &seen);
    whenShown("startOver.confirm", "Keep a Copy and Start Over", &seen);
    whenShown("startOver.done", "OK", &seen);
    auto app = open(file);
    ASSERT_NE(app, nullptr);
    ASSERT_EQ(seen.size(), 3);
    const QString path = QString::fromStdString(file.string());
    const QString recovered =
        QString::fromStdString(hl::StoredDataRecovery::defaultFolder().string());
    EXPECT_EQ(seen[0], "The preferences file " + path +
                           " is not a database Harborlattice can read (file is not a database). "
                           "Nothing was changed. Keep a Copy and Start Over… moves the file whole "
                           "to " +
                           recovered +
                           " and starts with new preferences; running terminals are kept.");
    const QString kept =
        "All 2 running terminals are kept: they open again in a \"Recovered terminals\" tab of "
        "the Scratch workspace, or of the project whose folder they run in.";
    EXPECT_EQ(seen[1], path + " is moved whole, with its companion files, to " + recovered +
                           ". Harborlattice then starts with new preferences, to which projects "
                           "are added again. " +
                           kept);
    EXPECT_TRUE(seen[2].startsWith("The unreadable preferences were kept at:\n" + recovered + "/"));
    EXPECT_TRUE(seen[2].endsWith(kept));

    // The file, whole, in Recovered/; a new database in its place; both shells in panes.
    const QString copy = seen[2].section('\n', 1, 1);
    EXPECT_EQ(fileBytes(copy.toStdString()), noise);
    EXPECT_NE(fileBytes(file).substr(0, 15), noise.substr(0, 15));
    EXPECT_EQ(recoveredSessions(*app), shells);
    EXPECT_EQ(app->workspace().activeWorkspaceID(), hl::scratchWorkspaceID);
    EXPECT_TRUE(app->workspace().storageIsWritable());
}

TEST_F(StoredDataWindowTest, StartOverFromTheWindowKeepsEveryShellOfTheDamagedWorkspace) {
    std::filesystem::create_directories(folder);
    const auto file = folder / "damaged.sqlite3";
    const std::string damaged("\x01{\"tabs\": [ half", 16);
    hl::Preferences::open(file)->set(hl::WorkspaceStore::storageKey, hl::PreferenceData{damaged});
    const std::set<QString> shells{QString::fromStdString(startScratchShell()),
                                   QString::fromStdString(startScratchShell()),
                                   QString::fromStdString(startScratchShell())};
    auto app = std::make_unique<hl::HarborlatticeApp>(file);
    ASSERT_FALSE(app->workspace().storageIsWritable());

    // The confirmation counts the shells it keeps; Cancel changes nothing.
    QStringList seen;
    whenShown("startOver.confirm", "Cancel", &seen);
    hl::offerKeepCopyAndStartOver(*app, nullptr);
    ASSERT_EQ(seen.size(), 1);
    EXPECT_TRUE(seen[0].endsWith(
        "All 3 running terminals are kept: they open again in a \"Recovered terminals\" tab of "
        "the Scratch workspace, or of the project whose folder they run in."))
        << seen[0].toStdString();
    EXPECT_EQ(app->defaults()->read(hl::WorkspaceStore::storageKey).storedBytes, damaged);

    // What the window's Start Over does before it starts the application again.
    EXPECT_EQ(app->keepCopyAndStartOver(app->sessionsToKeepAcrossStartOver()).size(), 1u);
    app.reset();
    auto next = std::make_unique<hl::HarborlatticeApp>(file);
    EXPECT_EQ(recoveredSessions(*next), shells);
    // The sweep of unrecorded sessions, once launched, leaves them all running.
    next->workspace().closeUnrecordedSessions();
    hl::apptest::spinFor(1s);
    std::set<QString> running;
    for (const auto& id : hl::apptest::nodeSessions(socketPath()))
        running.insert(QString::fromStdString(id));
    EXPECT_EQ(running, shells);
}

}  // namespace
