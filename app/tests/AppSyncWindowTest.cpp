// Two whole applications in one process, each with its own preferences, sharing
// one folder record: the status row, the "From Cloud" section and the set-up
// dialog as the user sees them, driven by the refresh tick alone.
#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QFile>
#include <QLabel>

#include "AppTestSupport.h"
#include "FolderSharedStateTransport.h"
#include "HarborlatticeApp.h"
#include "MainWindow.h"
#include "SyncInstance.h"
#include "SyncSidebar.h"

namespace fs = std::filesystem;
using hl::apptest::find;
using hl::apptest::spinUntil;

namespace {

using hl::apptest::Instance;

TEST(SyncWindowTest, AProjectFromTheOtherInstanceIsShownAnnouncedOnceAndSetUp) {
    const fs::path record = hl::apptest::baseFolder() / "record";
    fs::create_directories(record);
    qputenv(hl::syncUrlVariable,
            QByteArray("file://") + QByteArray::fromStdString(record.string()));
    Instance a("sync-a"), b("sync-b");
    qunsetenv(hl::syncUrlVariable);
    ASSERT_TRUE(spinUntil([&] { return a.status() == "Synced with Cloud"; }))
        << a.status().toStdString();
    EXPECT_EQ(find(&a.window, "sync.restorePrevious"), nullptr);
    EXPECT_EQ(find(&a.window, "sync.fromCloud"), nullptr);

    const fs::path root = hl::apptest::baseFolder() / "alpha";
    fs::create_directories(root / "src");
    auto alpha = a.app->catalog().add("alpha", QString::fromStdString(root.string()));
    ASSERT_TRUE(alpha);
    ASSERT_TRUE(a.app->workspace().openProject(*alpha));

    ASSERT_TRUE(spinUntil([&] { return b.status() == "1 Cloud project needs local folder setup"; }))
        << b.status().toStdString();
    QLabel* header = nullptr;
    ASSERT_TRUE(
        spinUntil([&] { return (header = find<QLabel>(&b.window, "sync.fromCloud.header")); }));
    EXPECT_EQ(header->text(), "From Cloud");
    // Scratch, "From Cloud" and the projects in the list; the status row under
    // the list and above the foot.
    const auto top = [&](const char* name) {
        QWidget* widget = find(&b.window, name);
        return widget ? widget->mapTo(&b.window, QPoint()).y() : -1;
    };
    EXPECT_TRUE(find(&b.window, "sidebar.list")->isAncestorOf(find(&b.window, "sync.fromCloud")));
    EXPECT_LT(top("workspace.scratch"), top("sync.fromCloud"));
    EXPECT_LT(top("sync.fromCloud"), top("sidebar.addFirstProject"));
    EXPECT_LT(top("sidebar.list"), top("sync.statusRow"));
    EXPECT_LT(top("sync.statusRow"), top("updates.check"));
    EXPECT_LT(top("updates.check"), top("ideas.share"));
    QMessageBox* dialog = nullptr;
    ASSERT_TRUE(
        spinUntil([&] { return (dialog = b.window.findChild<QMessageBox*>("sync.setUp")); }));
    EXPECT_EQ(dialog->text(), "Set Up alpha?");
    const auto endpoint = hl::DeviceCopyEndpoint::discover();
    EXPECT_EQ(dialog->informativeText(), "alpha exists on " + endpoint.deviceName + " at " +
                                             alpha->root +
                                             ". Copy it to the same path on this computer?");
    hl::apptest::saveScreenshot(&b.window, "sync-set-up");
    auto* later = dialog->findChild<QAbstractButton*>("sync.setUp.later");
    ASSERT_NE(later, nullptr);
    later->click();
    ASSERT_TRUE(spinUntil([&] { return !b.window.findChild<QMessageBox*>("sync.setUp"); }));
    hl::apptest::spinFor(std::chrono::milliseconds(1500));
    EXPECT_EQ(b.window.findChild<QMessageBox*>("sync.setUp"), nullptr) << "announced once";
    EXPECT_NE(find(&b.window, "sync.fromCloud"), nullptr) << "it waits in the sidebar";

    // A folder is chosen on B: the project and its workspace open there.
    const fs::path mine = hl::apptest::baseFolder() / "mine";
    fs::create_directories(mine);
    ASSERT_TRUE(b.app->sync().mapProject(b.app->sync().unmappedProjects().front(),
                                         QString::fromStdString(mine.string())));
    ASSERT_TRUE(spinUntil([&] { return b.status() == "Synced with Cloud"; }))
        << b.status().toStdString();
    EXPECT_EQ(find(&b.window, "sync.fromCloud"), nullptr);
    ASSERT_EQ(b.app->catalog().projects().size(), 1u);
    EXPECT_EQ(b.app->workspace().tabs().size(), 1u);
}

TEST(SyncWindowTest, RestorePreviousSaysWhatItBringsBackAsksAndRestoresOnlyThat) {
    const fs::path record = hl::apptest::baseFolder() / "restore-record";
    fs::create_directories(record);
    const QString folder = QString::fromStdString(record.string());
    qputenv(hl::syncUrlVariable, "file://" + QFile::encodeName(folder));
    Instance a("restore-a");
    qunsetenv(hl::syncUrlVariable);
    const fs::path root = hl::apptest::baseFolder() / "restored";
    fs::create_directories(root);
    auto alpha = a.app->catalog().add("alpha", QString::fromStdString(root.string()));
    ASSERT_TRUE(alpha);
    ASSERT_TRUE(a.app->workspace().openProject(*alpha));
    ASSERT_TRUE(spinUntil([&] { return a.status() == "Synced with Cloud"; }))
        << a.status().toStdString();

    // Another computer, an hour ahead, retitles the tab and adds a project while
    // this one retitles the same tab.
    hl::FolderSharedStateTransport other(folder);
    const auto base = other.fetch();
    ASSERT_TRUE(base);
    hl::SharedContent theirs = base->content();
    theirs.workspaces[0].tabs[0].title = "Theirs";
    theirs.projects.append({"gamma", "gamma", std::nullopt});
    a.app->workspace().renameProject(alpha->id, "Mine");
    other.exchangeFrom(hl::SharedSnapshot(QUuid::createUuid(), theirs, QUuid::createUuid(),
                                          hl::sharedDateNow() + std::chrono::hours(1)),
                       base->revision());
    QAbstractButton* restore = nullptr;
    ASSERT_TRUE(spinUntil([&] {
        restore = find<QAbstractButton>(&a.window, "sync.restorePrevious");
        return restore && restore->isVisible();
    }));
    ASSERT_TRUE(spinUntil([&] { return a.app->workspace().tabs()[0]->title() == "Theirs"; }));

    // Asked first: cancelling changes nothing.
    const QString question =
        QString::fromUtf8(
            "Restore tab \u201CMine\u201D of \u201Calpha\u201D as %1 had it just now?")
            .arg(hl::DeviceCopyEndpoint::discover().deviceName);
    for (const char* answer : {"sync.restore.cancel", "sync.restore.restore"}) {
        restore->click();
        QMessageBox* dialog = nullptr;
        ASSERT_TRUE(
            spinUntil([&] { return (dialog = a.window.findChild<QMessageBox*>("sync.restore")); }));
        EXPECT_EQ(dialog->text(), question);
        hl::apptest::saveScreenshot(dialog, "sync-restore");
        dialog->findChild<QAbstractButton*>(answer)->click();
        ASSERT_TRUE(spinUntil([&] { return !a.window.findChild<QMessageBox*>("sync.restore"); }));
        if (std::string(answer) == "sync.restore.cancel") {
            hl::apptest::spinFor(std::chrono::milliseconds(300));
            EXPECT_EQ(a.app->workspace().tabs()[0]->title(), "Theirs");
            EXPECT_EQ(a.app->sync().recoveryCount(), 1);
        }
    }
    ASSERT_TRUE(spinUntil([&] { return !a.app->sync().pending(); }));
    EXPECT_EQ(a.app->workspace().tabs()[0]->title(), "Mine");
    EXPECT_EQ(a.app->sync().recoveryCount(), 0);
    const auto stored = other.fetch();
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->content().projects.size(), 2) << "the other computer's project stays";
    EXPECT_EQ(stored->content().workspaces[0].tabs[0].title, "Mine");
}

}  // namespace
