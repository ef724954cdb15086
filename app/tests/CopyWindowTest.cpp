// A copy through the whole window: shared projects arrive in a folder record
// as another computer would leave them, the "From Cloud" row and the set-up
// dialog offer "Copy from …" only for a project with an origin, and the copy
// runs the real ssh and rsync against a real sshd on loopback, then maps the
// project and opens its workspace; a denied key shows the sheet's advice.
#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QLabel>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QToolButton>

#include <fstream>

#include "AppTestSupport.h"
#include "HarborlatticeApp.h"
#include "MainWindow.h"
#include "ProjectCopySheet.h"
#include "SharedStateTransport.h"
#include "SyncSidebar.h"
#include "TestSshServer.h"

namespace fs = std::filesystem;
using hl::apptest::find;
using hl::apptest::spinUntil;
using Phase = hl::ProjectCopyController::Phase;

namespace {

constexpr std::chrono::seconds kCopyTimeout(180);

class CopyWindowTest : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
        const fs::path record = hl::apptest::baseFolder() / (name + "-record");
        fs::create_directories(record);
        url_ = "file://" + QString::fromStdString(record.string());
        qputenv(hl::syncUrlVariable, url_.toUtf8());
        app_ = std::make_unique<hl::HarborlatticeApp>(hl::apptest::baseFolder() / (name + ".db"));
        qunsetenv(hl::syncUrlVariable);
        window_ = std::make_unique<hl::MainWindow>(*app_);
        window_->show();
        app_->delegate().scheduleDidFinishLaunching();
        ASSERT_TRUE(spinUntil([&] { return status() == "Synced with Cloud"; }))
            << status().toStdString();
        // The server preloads nss_wrapper into every child from now on: the
        // node, and the shells it starts, come first.
        const auto socket = (hl::apptest::baseFolder() / "node.sock").string();
        ASSERT_TRUE(spinUntil([&] { return hl::apptest::nodeAnswers(socket); }));
        server_ = std::make_unique<hl::test::TestSshServer>();
        ASSERT_TRUE(server_->isRunning()) << server_->failure();
    }
    void TearDown() override {
        window_.reset();
        app_.reset();
        server_.reset();
    }

    QString status() {
        auto* label = find<QLabel>(window_.get(), "sync.status");
        return label ? label->text() : QString();
    }
    // Leaves these projects in the record as another computer's newer snapshot.
    void publish(const QList<hl::SharedProject>& projects) {
        auto transport = hl::makeSharedStateTransport(url_);
        const hl::SharedSnapshot snapshot(QUuid::createUuid(), hl::SharedContent{projects, {}});
        transport->exchange(snapshot);
        transport->publishChange(snapshot.revision());
    }
    // A project whose folder exists only on the origin, reached through `host`.
    hl::SharedProject originProject(const QString& id, const std::string& name, const char* host) {
        fs::create_directories(server_->remoteFolder() / name / "src");
        std::ofstream(server_->remoteFolder() / name / "src" / "main.c") << "int main() {}\n";
        const auto origin = server_->origin(QString::fromStdString(server_->localFolder() / name));
        return hl::SharedProject{id, QString::fromStdString(name),
                                 hl::ProjectOrigin{QUuid::createUuid(), origin.deviceName, host,
                                                   origin.sshUser, origin.root}};
    }
    // The dialog announcing a project, once it is shown.
    QMessageBox* setUpDialog(const QString& name) {
        QMessageBox* dialog = nullptr;
        spinUntil([&] {
            dialog = window_->findChild<QMessageBox*>("sync.setUp");
            return dialog && dialog->text() == "Set Up " + name + "?";
        });
        return dialog && dialog->text() == "Set Up " + name + "?" ? dialog : nullptr;
    }
    void answerLater(QMessageBox* dialog) {
        dialog->findChild<QAbstractButton*>("sync.setUp.later")->click();
        ASSERT_TRUE(spinUntil([&] { return !window_->findChild<QMessageBox*>("sync.setUp"); }));
    }
    // The entries of the "Set Up…" menu in the project's "From Cloud" row.
    QList<QAction*> rowMenu(const QString& name) {
        for (auto* row : window_->findChildren<QWidget*>("sync.fromCloud.row")) {
            const auto labels = row->findChildren<QLabel*>();
            const bool matches = std::any_of(labels.begin(), labels.end(),
                                             [&](QLabel* label) { return label->text() == name; });
            auto* button = row->findChild<QToolButton*>();
            if (matches && button && button->menu()) return button->menu()->actions();
        }
        return {};
    }
    static QStringList texts(const QList<QAction*>& actions) {
        QStringList result;
        for (auto* action : actions)
            result << action->text();
        return result;
    }
    hl::ProjectCopySheet* sheet() { return window_->findChild<hl::ProjectCopySheet*>(); }

    std::unique_ptr<hl::test::TestSshServer> server_;
    QString url_;
    std::unique_ptr<hl::HarborlatticeApp> app_;
    std::unique_ptr<hl::MainWindow> window_;
};

}  // namespace

TEST_F(CopyWindowTest, CopyIsOfferedWithAnOriginFailsWithAdviceAndOpensTheCopiedProject) {
    const hl::SharedProject plain{"plain-id", "plain", std::nullopt};
    publish({plain});
    QMessageBox* dialog = setUpDialog("plain");
    ASSERT_NE(dialog, nullptr);
    EXPECT_EQ(dialog->informativeText(), "Choose this project's existing folder on this computer.");
    EXPECT_EQ(dialog->findChild<QAbstractButton*>("sync.setUp.copy"), nullptr);
    EXPECT_EQ(texts(rowMenu("plain")), QStringList{"Choose Existing Folder…"});
    answerLater(dialog);

    // A denied key: the sheet shows the advice, and nothing is mapped.
    const auto denied = originProject("denied-id", "denied", hl::test::TestSshServer::kDeniedHost);
    publish({plain, denied});
    ASSERT_NE(dialog = setUpDialog("denied"), nullptr);
    answerLater(dialog);
    const auto entries = rowMenu("denied");
    ASSERT_EQ(entries.size(), 2);
    entries.front()->trigger();
    hl::ProjectCopyController& controller = app_->projectCopy();
    ASSERT_TRUE(spinUntil([&] { return sheet() && sheet()->isVisible(); }));
    ASSERT_TRUE(spinUntil([&] { return !controller.isRunning(); }, kCopyTimeout));
    EXPECT_EQ(controller.phase(), Phase::Failed);
    const QString advice =
        "SSH authentication was denied. On the receiving computer, run this "
        "once, then retry: ssh-copy-id " +
        QString::fromStdString(server_->userName()) + "@origin-denied";
    QLabel* detail = nullptr;
    for (auto* label : sheet()->findChildren<QLabel*>())
        if (label->text() == advice) detail = label;
    ASSERT_NE(detail, nullptr) << controller.detail().toStdString();
    EXPECT_TRUE(detail->textInteractionFlags() & Qt::TextSelectableByMouse);
    hl::apptest::saveScreenshot(sheet(), "copy-window-denied");
    EXPECT_TRUE(app_->catalog().projects().empty());
    EXPECT_FALSE(fs::exists(denied.origin->root.toStdString()));
    sheet()->reject();  // Escape once it has stopped closes it
    EXPECT_FALSE(sheet()->isVisible());

    const auto atlas = originProject("atlas-id", "atlas", hl::test::TestSshServer::kOriginHost);
    const QString root = atlas.origin->root;
    publish({plain, denied, atlas});
    ASSERT_NE(dialog = setUpDialog("atlas"), nullptr);
    EXPECT_EQ(dialog->informativeText(), "atlas exists on Test Origin at " + root +
                                             ". Copy it to the same path on this computer?");
    EXPECT_EQ(texts(rowMenu("atlas")),
              (QStringList{"Copy from Test Origin…", "Choose Existing Folder…"}));
    auto* copy = dialog->findChild<QAbstractButton*>("sync.setUp.copy");
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->text(), "Copy from Test Origin");
    copy->click();
    ASSERT_TRUE(spinUntil([&] { return sheet() && sheet()->isVisible(); }));
    EXPECT_TRUE(spinUntil([&] { return !window_->findChild<QMessageBox*>("sync.setUp"); }));

    ASSERT_TRUE(spinUntil([&] { return !controller.isRunning(); }, kCopyTimeout));
    ASSERT_EQ(controller.phase(), Phase::Complete) << controller.detail().toStdString();
    hl::apptest::saveScreenshot(sheet(), "copy-window-complete");
    EXPECT_TRUE(fs::is_regular_file(root.toStdString() + "/src/main.c"));
    ASSERT_EQ(app_->catalog().projects().size(), 1u);
    EXPECT_EQ(app_->catalog().projects().front().root, root);
    EXPECT_EQ(app_->workspace().activeProjectID(), QString("atlas-id"));
    EXPECT_EQ(app_->workspace().tabs().size(), 1u);
    EXPECT_EQ(app_->catalog().selectedProjectID(), QString("atlas-id"));
    EXPECT_TRUE(spinUntil([&] { return rowMenu("atlas").isEmpty(); })) << "left From Cloud";
    EXPECT_FALSE(rowMenu("plain").isEmpty());
    EXPECT_FALSE(rowMenu("denied").isEmpty()) << "still waits in From Cloud";

    for (auto* button : sheet()->findChildren<QPushButton*>())
        if (button->text() == "Done") button->click();
    EXPECT_FALSE(sheet()->isVisible());
    EXPECT_FALSE(controller.isPresented());
}

TEST(CopyTextsTest, TheSetUpMessageUsesThePlatformsWordForAMachine) {
    const hl::SharedProject atlas{
        "a", "Atlas",
        hl::ProjectOrigin{QUuid::createUuid(), "Studio", "studio", "ada", "/w/atlas"}};
    EXPECT_EQ(hl::SyncTexts::setUpMessage(atlas, hl::TextPlatform::MacOS),
              "Atlas exists on Studio at /w/atlas. Copy it to the same path on this Mac?");
    EXPECT_EQ(hl::SyncTexts::setUpMessage({"b", "Plain", std::nullopt}, hl::TextPlatform::MacOS),
              "Choose this project's existing folder on this Mac.");
}
