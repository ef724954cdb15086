// The Settings window against the real thing: a folder record made by another
// instance, the real Apache with a login, the real Secret Service on the
// test's own bus, and the real node with its shells.
#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTabWidget>
#include <QTest>

#include <fstream>
#include <sstream>

#include "../../sync/tests/ApacheServer.h"
#include "AppTestSupport.h"
#include "FolderSharedStateTransport.h"
#include "HarborlatticeApp.h"
#include "MainWindow.h"
#include "SettingsDialog.h"
#include "SyncInstance.h"
#include "SyncSettings.h"
#include "TerminalSettings.h"
#include "UpdateSettings.h"
#include "UpdatesTestSupport.h"
#include "WebDavSharedStateTransport.h"

namespace fs = std::filesystem;
using hl::apptest::find;
using hl::apptest::spinUntil;

namespace {

struct Instance : hl::apptest::Instance {
    using hl::apptest::Instance::Instance;
    hl::SettingsDialog* openSettings() {
        auto* action = window.findChild<QAction*>("edit.settings");
        if (!action) return nullptr;
        action->trigger();
        hl::SettingsDialog* dialog = nullptr;
        spinUntil([&] { return (dialog = window.findChild<hl::SettingsDialog*>("settings")); });
        return dialog;
    }
};

void type(QLineEdit* field, const QString& text) {
    field->setFocus();
    field->clear();
    QTest::keyClicks(field, text);
    QTest::keyClick(field, Qt::Key_Return);
}

QString testResult(QWidget* dialog) {
    auto* test = find<QAbstractButton>(dialog, "settings.sync.test");
    auto* result = find<QLabel>(dialog, "settings.sync.testResult");
    if (!test || !result) return {};
    test->click();
    spinUntil([&] { return test->isEnabled(); });
    return result->text();
}

// The files under `folder` whose bytes contain `secret`.
std::vector<fs::path> filesHolding(const fs::path& folder, const std::string& secret) {
    std::vector<fs::path> found;
    std::error_code error;
    for (const auto& entry : fs::recursive_directory_iterator(
             folder, fs::directory_options::skip_permission_denied, error)) {
        if (!entry.is_regular_file(error)) continue;
        std::ifstream file(entry.path(), std::ios::binary);
        std::stringstream bytes;
        bytes << file.rdbuf();
        if (bytes.str().find(secret) != std::string::npos) found.push_back(entry.path());
    }
    return found;
}

// The environments of this test's node and shells, one variable per entry.
std::vector<std::string> childEnvironments() {
    const std::string marker = "HARBORLATTICE_SOCKET=" + hl::apptest::baseFolder().string() + "/";
    std::vector<std::string> variables;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        if (std::stoi(name) == ::getpid()) continue;
        std::ifstream environ(entry.path() / "environ", std::ios::binary);
        std::stringstream bytes;
        bytes << environ.rdbuf();
        std::vector<std::string> mine;
        bool ours = false;
        std::string variable;
        while (std::getline(bytes, variable, '\0')) {
            ours = ours || variable.rfind(marker, 0) == 0;
            mine.push_back(variable);
        }
        if (ours) variables.insert(variables.end(), mine.begin(), mine.end());
    }
    return variables;
}

// First, so that the node starts while the variable is set.
TEST(SettingsWindowTest, TheSyncVariableNamesThePlaceButNeverReachesTheNodeOrItsShells) {
    hl::test::ApacheServer server(QStringLiteral("over"), QStringLiteral("Ov-77-secret"));
    ASSERT_TRUE(server.isRunning()) << server.error().toStdString();
    QUrl url = server.url("override.json");
    url.setUserName("over");
    url.setPassword("Ov-77-secret");
    qputenv(hl::syncUrlVariable, url.toString().toUtf8());
    Instance mine("settings-override");
    ASSERT_TRUE(spinUntil([&] { return mine.status() == "Synced with Cloud"; }))
        << mine.status().toStdString();
    mine.app->workspace().createScratchTerminal();
    ASSERT_TRUE(
        spinUntil([&] { return !hl::apptest::nodeSessions(hl::apptest::socketPath()).empty(); }));
    qunsetenv(hl::syncUrlVariable);
    const auto variables = childEnvironments();
    EXPECT_FALSE(variables.empty());
    for (const auto& variable : variables) {
        EXPECT_NE(variable.rfind(hl::syncUrlVariable, 0), 0u) << variable;
        EXPECT_EQ(variable.find("Ov-77-secret"), std::string::npos) << variable;
    }
}

TEST(SettingsWindowTest, AFolderChosenInTheSyncPageIsUsedAtOnceAndKept) {
    const fs::path record = hl::apptest::baseFolder() / "shared-folder";
    fs::create_directories(record);
    qputenv(hl::syncUrlVariable,
            QByteArray("file://") + QByteArray::fromStdString(record.string()));
    Instance other("settings-other");
    qunsetenv(hl::syncUrlVariable);
    const fs::path root = hl::apptest::baseFolder() / "beta";
    fs::create_directories(root);
    ASSERT_TRUE(other.app->catalog().add("beta", QString::fromStdString(root.string())));
    ASSERT_TRUE(spinUntil([&] {
        return other.app->sync().accepted() &&
               other.app->sync().accepted()->content().projects.size() == 1;
    }));

    Instance mine("settings-mine");
    ASSERT_TRUE(spinUntil([&] { return mine.status() == "Local only · sync is not set up"; }))
        << mine.status().toStdString();
    // The row of a sync that is not set up opens the sync settings.
    QWidget* row = find(&mine.window, "sync.statusRow");
    ASSERT_NE(row, nullptr);
    QTest::mouseClick(row, Qt::LeftButton);
    hl::SettingsDialog* dialog = nullptr;
    ASSERT_TRUE(spinUntil(
        [&] { return (dialog = mine.window.findChild<hl::SettingsDialog*>("settings")); }));
    EXPECT_FALSE(dialog->isModal());
    ASSERT_NE(find(dialog, "settings.sync"), nullptr) << "opened on the Sync page";

    find<QAbstractButton>(dialog, "settings.sync.folderMode")->click();
    QFileDialog* chooser = nullptr;
    ASSERT_TRUE(spinUntil(
        [&] { return (chooser = dialog->findChild<QFileDialog*>("settings.sync.folderDialog")); }));
    emit chooser->fileSelected(QString::fromStdString(record.string()));
    chooser->close();

    ASSERT_TRUE(spinUntil([&] {
        return mine.status() == "1 Cloud project needs local folder setup";
    })) << mine.status().toStdString();
    EXPECT_EQ(mine.app->sync().unmappedProjects().value(0).name, "beta");
    EXPECT_EQ(testResult(dialog), "Reachable · shared state found with 1 project");
    const hl::SyncSettings kept = hl::SyncSettings::read(*mine.app->defaults());
    EXPECT_EQ(kept.mode, hl::SyncSettings::Mode::Folder);
    EXPECT_EQ(kept.folder, QString::fromStdString(record.string()));

    // Off again: local only at once, and the row opens the settings again.
    find<QAbstractButton>(dialog, "settings.sync.off")->click();
    ASSERT_TRUE(spinUntil([&] { return mine.status() == "Local only · sync is not set up"; }));
    EXPECT_FALSE(mine.app->sync().transport().isConfigured());
    dialog->close();
}

TEST(SettingsWindowTest, AWebDavFileSyncsWithThePasswordOnlyInTheSecretService) {
    if (!hl::updatestest::secretServiceRuns())
        GTEST_SKIP() << "gnome-keyring-daemon did not start on the test's bus";
    const QString password = QStringLiteral("Pw-4kq9-harbor");
    hl::test::ApacheServer server(QStringLiteral("harbor"), password);
    ASSERT_TRUE(server.isRunning()) << server.error().toStdString();
    auto first = std::make_unique<Instance>("settings-webdav");
    Instance& mine = *first;
    hl::SettingsDialog* dialog = mine.openSettings();
    ASSERT_NE(dialog, nullptr);
    find<QAbstractButton>(dialog, "settings.sync.webDavMode")->click();
    // A wrong password is refused by the server, in the status words.
    QUrl url = server.url("shared.json");
    type(find<QLineEdit>(dialog, "settings.sync.url"), url.toString());
    type(find<QLineEdit>(dialog, "settings.sync.user"), "harbor");
    find<QLineEdit>(dialog, "settings.sync.password")->setText("wrong");
    EXPECT_EQ(testResult(dialog), "Cloud permission denied · changes saved locally");
    // The password typed into the URL goes to the Secret Service, not the URL.
    url.setUserName("harbor");
    url.setPassword(password);
    type(find<QLineEdit>(dialog, "settings.sync.url"), url.toString());
    EXPECT_EQ(find<QLineEdit>(dialog, "settings.sync.url")->text(),
              server.url("shared.json").toString());
    ASSERT_TRUE(spinUntil([&] { return mine.status() == "Synced with Cloud"; }))
        << mine.status().toStdString();
    hl::apptest::saveScreenshot(dialog, "settings-sync-webdav");
    EXPECT_TRUE(QFile::exists(server.filePath("shared.json")));
    EXPECT_EQ(testResult(dialog), "Reachable · shared state found with 0 projects");

    const hl::SyncSettings kept = hl::SyncSettings::read(*mine.app->defaults());
    EXPECT_EQ(kept.mode, hl::SyncSettings::Mode::WebDav);
    EXPECT_EQ(kept.webDavUrl, server.url("shared.json"));
    std::optional<QString> stored;
    bool answered = false;
    mine.app->syncSettings().passwords().read(kept.passwordAccount(),
                                              [&](std::optional<QString> found, QString) {
                                                  stored = found;
                                                  answered = true;
                                              });
    ASSERT_TRUE(spinUntil([&] { return answered; }));
    EXPECT_EQ(stored, password);

    // A shell runs; neither it nor the node, nor any file of the test's home,
    // the preferences included, holds the password.
    mine.app->workspace().createScratchTerminal();
    ASSERT_TRUE(
        spinUntil([&] { return !hl::apptest::nodeSessions(hl::apptest::socketPath()).empty(); }));
    for (const auto& variable : childEnvironments())
        EXPECT_EQ(variable.find(password.toStdString()), std::string::npos) << variable;
    EXPECT_EQ(filesHolding(hl::apptest::baseFolder(), password.toStdString()),
              std::vector<fs::path>{});
    dialog->close();
    const QUuid accepted = mine.app->sync().accepted()->revision();

    // The next start reads the password from the Secret Service and goes on
    // with the same record, from the state it had accepted.
    first.reset();
    Instance again("settings-webdav");
    EXPECT_EQ(again.app->sync().accepted()->revision(), accepted);
    ASSERT_TRUE(spinUntil([&] { return again.status() == "Synced with Cloud"; }))
        << again.status().toStdString();
    EXPECT_EQ(again.app->sync().accepted()->revision(), accepted);
}

TEST(SettingsWindowTest, TheUpdatesAndTerminalsPagesChangeWhatTheySay) {
    Instance mine("settings-pages");
    // Ctrl+, opens it, wherever focus is in the window.
    QApplication::setActiveWindow(&mine.window);
    QTest::keyClick(mine.window.windowHandle(), Qt::Key_Comma, Qt::ControlModifier);
    hl::SettingsDialog* dialog = nullptr;
    ASSERT_TRUE(spinUntil([&] {
        return (dialog = mine.window.findChild<hl::SettingsDialog*>("settings")) &&
               dialog->isVisible();
    }));
    auto* pages = find<QTabWidget>(dialog, "settings.pages");
    ASSERT_NE(pages, nullptr);

    // Updates: this build has no feed of its own, so until the user gives one
    // the package manager updates it; a feed of the user's reaches the updater.
    pages->setCurrentIndex(static_cast<int>(hl::SettingsDialog::Page::Updates));
    auto* note = find<QLabel>(dialog, "settings.updates.note");
    ASSERT_NE(note, nullptr);
    EXPECT_EQ(note->text(), "Updates come from your package manager");
    const QString feed = QStringLiteral("https://127.0.0.1:9/appcast.xml");
    type(find<QLineEdit>(dialog, "settings.updates.feed"), feed);
    const hl::UpdateChannel& channel = mine.app->updater().standardController()->channel();
    EXPECT_EQ(channel.feedURL, QUrl(feed));
    EXPECT_FALSE(channel.packageManaged);
    EXPECT_TRUE(channel.automaticallyChecks);
    EXPECT_EQ(note->text(), "Updates are checked at " + feed);
    find<QCheckBox>(dialog, "settings.updates.automatic")->click();
    EXPECT_FALSE(mine.app->updater().standardController()->channel().automaticallyChecks);
    EXPECT_EQ(hl::UpdateSettings::read(*mine.app->defaults()), (hl::UpdateSettings{false, feed}));
    // A build that dpkg installed stays with its package manager whatever feed is set.
    hl::UpdateChannel packaged = hl::UpdateChannel::standard();
    packaged.installedByPackage = true;
    EXPECT_TRUE((hl::UpdateSettings{true, feed}.channel(packaged).packageManaged));

    // Terminals: each control changes the kept settings, told once per change.
    pages->setCurrentIndex(static_cast<int>(hl::SettingsDialog::Page::Terminals));
    QSignalSpy told(&mine.app->terminalSettings(), &hl::TerminalSettingsStore::changed);
    find<QSpinBox>(dialog, "settings.terminals.size")->setValue(17);
    find<QComboBox>(dialog, "settings.terminals.scheme")->setCurrentIndex(2);
    find<QComboBox>(dialog, "settings.terminals.bell")->setCurrentIndex(2);
    find<QCheckBox>(dialog, "settings.terminals.copyOnSelect")->click();
    ASSERT_TRUE(spinUntil([&] { return told.size() == 4; })) << told.size();
    const hl::TerminalSettings kept = hl::TerminalSettings::read(*mine.app->defaults());
    EXPECT_EQ(kept, mine.app->terminalSettings().settings());
    EXPECT_EQ(kept.fontSize, 17);
    EXPECT_EQ(kept.colorScheme, hl::TerminalSettings::ColorScheme::Dark);
    EXPECT_EQ(kept.bell, hl::TerminalSettings::Bell::None);
    EXPECT_TRUE(kept.copyOnSelect);
    EXPECT_EQ(told.last().first().value<hl::TerminalSettings>(), kept);
    EXPECT_FALSE(kept.fontFamily.isEmpty());
    dialog->close();
}

}  // namespace
