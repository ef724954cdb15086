// The idea sheet in the real window: "Share idea" opens it, a failed save keeps
// the text, Control+Return queues the typed idea into the inbox, and "Show in
// File Manager" asks the file manager's service on a real session bus (or opens
// the folder when there is none).
#include <gtest/gtest.h>

#include <QAction>
#include <QDBusConnection>
#include <QDesktopServices>
#include <QDialog>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTest>

#include <fstream>

#include "AppTestSupport.h"
#include "ContentView.h"
#include "FileManagerReveal.h"
#include "HarborlatticeApp.h"
#include "IdeaComposerView.h"
#include "MainWindow.h"
#include "RuntimePaths.h"
#include "UpdatesTestSupport.h"

namespace fs = std::filesystem;
using hl::apptest::find;
using hl::apptest::spinUntil;

namespace {

// Stands in for the desktop's file manager on the private session bus.
class FileManagerService : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.FileManager1")

  public:
    QStringList shown;

  public slots:
    void ShowItems(const QStringList& uris, const QString&) { shown += uris; }
};

// Receives what QDesktopServices would hand to the desktop.
class OpenedFolders : public QObject {
    Q_OBJECT

  public:
    QList<QUrl> opened;

  public slots:
    void open(const QUrl& url) { opened.append(url); }
};

class IdeaComposerTest : public ::testing::Test {
  protected:
    IdeaComposerTest()
        : app(std::make_unique<hl::HarborlatticeApp>(hl::apptest::baseFolder() / "ideas.db")),
          window(*app) {
        window.show();
        window.activateWindow();
        fs::remove_all(inbox());
    }
    ~IdeaComposerTest() override {
        if (content()->ideaComposerVisible()) content()->setIdeaComposerVisible(false);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

    static fs::path inbox() { return hl::RuntimePaths::ideaInboxDirectory(); }
    hl::ContentView* content() { return window.contentView(); }
    QDialog* sheet() { return content()->findChild<QDialog*>("ideas.sheet"); }

    std::unique_ptr<hl::HarborlatticeApp> app;
    hl::MainWindow window;
};

TEST_F(IdeaComposerTest, ShareIdeaOpensTheSheetAFailedSaveKeepsTheTextAndControlReturnQueues) {
    auto* check = find<QPushButton>(&window, "updates.check");
    ASSERT_NE(check, nullptr);
    EXPECT_EQ(check->text(), "Check for Updates…");
    EXPECT_TRUE(check->isEnabled());
    auto* menuCheck = window.findChild<QAction*>("updates.check.menu");
    ASSERT_NE(menuCheck, nullptr);
    EXPECT_TRUE(menuCheck->isEnabled());

    auto* share = find<QPushButton>(&window, "ideas.share");
    ASSERT_NE(share, nullptr);
    EXPECT_EQ(share->text(), "Share idea");
    share->click();
    ASSERT_TRUE(spinUntil([&] { return sheet() && sheet()->isVisible(); }));
    EXPECT_TRUE(content()->ideaComposerVisible());
    auto* view = sheet()->findChild<hl::IdeaComposerView*>();
    auto* field = find<QPlainTextEdit>(sheet(), "ideas.field");
    auto* queue = find<QPushButton>(sheet(), "ideas.queue");
    auto* counter = find<QLabel>(sheet(), "ideas.counter");
    ASSERT_TRUE(view && field && queue && counter);
    sheet()->activateWindow();
    EXPECT_TRUE(spinUntil([&] { return view->ideaFocused(); }, std::chrono::seconds(5)));
    EXPECT_FALSE(queue->isEnabled());

    QTest::keyClicks(field, "Let a tab be dragged");
    QTest::keyClick(field, Qt::Key_Return, Qt::ShiftModifier);  // a line break, as usual
    QTest::keyClicks(field, "onto another");
    // Tab is text: a Space after it types, it does not press "Queue for agent review".
    QTest::keyClick(field, Qt::Key_Tab);
    QTest::keyClick(field, Qt::Key_Space);
    EXPECT_TRUE(field->hasFocus());
    EXPECT_FALSE(view->saved());
    EXPECT_EQ(view->idea(), "Let a tab be dragged\nonto another\t ");
    QTest::keyClick(field, Qt::Key_Backspace);
    QTest::keyClick(field, Qt::Key_Backspace);
    QTest::keyClicks(field, " workspace");
    EXPECT_EQ(view->idea(), "Let a tab be dragged\nonto another workspace");
    // Control+Tab moves on, as in Qt's editors.
    QTest::keyClick(field, Qt::Key_Tab, Qt::ControlModifier);
    EXPECT_TRUE(spinUntil([&] { return !field->hasFocus(); }, std::chrono::seconds(2)));
    EXPECT_EQ(view->idea(), "Let a tab be dragged\nonto another workspace");
    field->setFocus();
    EXPECT_EQ(counter->text(), "43/8000 bytes");
    EXPECT_TRUE(queue->isEnabled());
    EXPECT_FALSE(fs::exists(inbox()));
    hl::apptest::spinFor(std::chrono::milliseconds(100));
    hl::apptest::saveScreenshot(&window, "window-with-share-idea");
    hl::apptest::saveScreenshot(sheet(), "idea-sheet-editing");

    // An inbox that is a link elsewhere: nothing is written, the text stays.
    fs::create_directories(inbox().parent_path());
    const fs::path elsewhere = hl::apptest::baseFolder() / "elsewhere";
    fs::create_directories(elsewhere);
    fs::create_directory_symlink(elsewhere, inbox());
    queue->click();
    EXPECT_FALSE(view->saved());
    auto* failure = find<QLabel>(sheet(), "ideas.failureText");
    ASSERT_NE(failure, nullptr);
    EXPECT_EQ(failure->text(), "The idea could not be queued safely. The idea inbox folder " +
                                   QString::fromStdString(inbox().string()) +
                                   " is not private to this user (it is a link or not a folder).");
    EXPECT_EQ(view->idea(), "Let a tab be dragged\nonto another workspace");
    EXPECT_TRUE(fs::is_empty(elsewhere));
    hl::apptest::spinFor(std::chrono::milliseconds(100));
    hl::apptest::saveScreenshot(sheet(), "idea-sheet-failed");
    fs::remove(inbox());

    QTest::keyClick(field, Qt::Key_Return, Qt::ControlModifier);
    ASSERT_TRUE(view->saved().has_value());
    EXPECT_FALSE(view->failure());
    const auto saved = *view->saved();
    EXPECT_EQ(saved.reportURL, inbox() / hl::IdeaInboxStore::reportName(saved.id));
    std::ifstream report(saved.reportURL);
    const std::string text((std::istreambuf_iterator<char>(report)), {});
    EXPECT_NE(text.find("Let a tab be dragged\\nonto another workspace"), std::string::npos);
    auto* reference = find<QLabel>(sheet(), "ideas.reference");
    ASSERT_NE(reference, nullptr);
    EXPECT_EQ(reference->text(), "Reference " + saved.id.toString(QUuid::WithoutBraces).toUpper());
    hl::apptest::spinFor(std::chrono::milliseconds(100));
    hl::apptest::saveScreenshot(sheet(), "idea-sheet-queued");

    // "Show in File Manager" asks the file manager on the session bus.
    ASSERT_FALSE(hl::updatestest::sessionBusAddress().empty()) << "no dbus-daemon";
    FileManagerService fileManager;
    QDBusConnection bus = QDBusConnection::connectToBus(
        QString::fromStdString(hl::updatestest::sessionBusAddress()), "filemanager");
    ASSERT_TRUE(bus.registerObject("/org/freedesktop/FileManager1", &fileManager,
                                   QDBusConnection::ExportAllSlots));
    ASSERT_TRUE(bus.registerService("org.freedesktop.FileManager1"));
    auto* reveal = find<QPushButton>(sheet(), "ideas.reveal");
    ASSERT_NE(reveal, nullptr);
    EXPECT_EQ(reveal->text(), "Show in File Manager");
    reveal->click();
    EXPECT_TRUE(spinUntil([&] { return !fileManager.shown.isEmpty(); }));
    EXPECT_EQ(
        fileManager.shown,
        QStringList{
            QUrl::fromLocalFile(QString::fromStdString(saved.reportURL.string())).toString()});
    bus.unregisterService("org.freedesktop.FileManager1");
    bus.unregisterObject("/org/freedesktop/FileManager1");
    QDBusConnection::disconnectFromBus("filemanager");

    find<QPushButton>(sheet(), "ideas.done")->click();
    EXPECT_TRUE(spinUntil([&] { return !sheet(); }));
    EXPECT_FALSE(content()->ideaComposerVisible());
}

TEST(FileManagerRevealTest, WithoutTheFileManagersServiceTheFolderIsOpened) {
    OpenedFolders folders;
    QDesktopServices::setUrlHandler("file", &folders, "open");
    const fs::path file = hl::apptest::baseFolder() / "reports" / "a.queued.json";
    hl::revealInFileManager(file);
    EXPECT_TRUE(spinUntil([&] { return !folders.opened.isEmpty(); }));
    QDesktopServices::unsetUrlHandler("file");
    EXPECT_EQ(
        folders.opened,
        QList<QUrl>{QUrl::fromLocalFile(QString::fromStdString(file.parent_path().string()))});
    EXPECT_EQ(hl::showInFileManagerTitle(hl::KeyPlatform::MacOS), "Show in Finder");
}

}  // namespace

#include "IdeaComposerViewTest.moc"
