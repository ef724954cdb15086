// The copy sheet in each state of a real copy (a real sshd on loopback), on
// Qt's offscreen platform; each state is also saved as a picture. A failure
// and its selectable advice are shown through the window (CopyWindowTest).
#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>

#include <filesystem>
#include <fstream>

#include "CopyTestSupport.h"
#include "ProjectCopyController.h"
#include "ProjectCopySheet.h"
#include "ProjectRecord.h"
#include "TestSshServer.h"

using namespace hl;
namespace fs = std::filesystem;
using Phase = ProjectCopyController::Phase;

namespace {

using copytest::processEventsUntil;

class ProjectCopySheetTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(server.isRunning()) << server.failure(); }

    ProjectCopySource project(const std::string& name) {
        fs::create_directories(server.remoteFolder() / name);
        return ProjectCopySource{
            "sheet-" + QString::fromStdString(name), "Atlas",
            server.origin(QString::fromStdString(server.localFolder() / name))};
    }
    QString detailText() { return sheet.findChildren<QLabel*>().at(1)->text(); }
    QProgressBar* bar() { return sheet.findChild<QProgressBar*>(); }
    QPushButton* button(const QString& text) {
        for (auto* candidate : sheet.findChildren<QPushButton*>())
            if (candidate->text() == text) return candidate;
        return nullptr;
    }
    void save(const char* state) {
        QDir().mkpath(HL_SCREENSHOT_DIR);
        sheet.grab().save(QString(HL_SCREENSHOT_DIR) + "/copy-sheet-" + state + ".png");
    }

    test::TestSshServer server;
    ProjectCopyController controller{&ProjectRecord::acceptedRoot};
    ProjectCopySheet sheet{&controller};
    std::function<bool(const QString&)> accept = [](const QString&) { return true; };
};

}  // namespace

TEST_F(ProjectCopySheetTest, StatesOfACopy) {
    EXPECT_FALSE(sheet.isVisible());
    const auto source = project("atlas");
    for (int i = 0; i < 40; ++i) {
        std::ofstream out(server.remoteFolder() / "atlas" / ("f" + std::to_string(i)),
                          std::ios::binary);
        out << std::string(4 << 20, static_cast<char>('a' + i % 26));
    }
    // The bar as the copy phase begins: rsync has no figure yet.
    std::optional<int> barAtCopying;
    QObject::connect(&controller, &ProjectCopyController::phaseChanged, &sheet, [&] {
        if (controller.phase() == Phase::Copying && !barAtCopying) barAtCopying = bar()->maximum();
    });
    controller.start(source, accept);
    ASSERT_TRUE(sheet.isVisible());
    EXPECT_EQ(sheet.findChildren<QLabel*>().at(0)->text(), "Copy Atlas");
    EXPECT_EQ(detailText(), controller.detail());
    EXPECT_EQ(bar()->maximum(), 0);  // busy
    EXPECT_TRUE(button("Cancel")->isVisible());
    EXPECT_FALSE(button("Done")->isVisible());
    save("preparing");
    sheet.reject();  // Escape while running changes nothing
    EXPECT_TRUE(sheet.isVisible());

    ASSERT_TRUE(processEventsUntil([&] { return controller.progress() > 0.05; }));
    EXPECT_EQ(barAtCopying, 0) << "busy until the first figure";
    EXPECT_EQ(bar()->maximum(), 1000);
    EXPECT_GT(bar()->value(), 0);
    save("copying");
    button("Cancel")->click();
    EXPECT_EQ(controller.phase(), Phase::Cancelled);
    EXPECT_EQ(detailText(), controller.detail());
    EXPECT_TRUE(button("Done")->isVisible());
    EXPECT_TRUE(button("Done")->isDefault());
    save("cancelled");

    controller.start(source, accept);
    ASSERT_TRUE(processEventsUntil([&] { return !controller.isRunning(); }));
    ASSERT_EQ(controller.phase(), Phase::Complete);
    EXPECT_EQ(bar()->value(), 1000);
    save("complete");
    button("Done")->click();
    EXPECT_FALSE(sheet.isVisible());
    EXPECT_FALSE(controller.isPresented());
}

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
