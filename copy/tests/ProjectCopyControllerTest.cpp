// The copy controller against a real sshd on loopback and the real ssh and
// rsync: copies that complete, cancel and resume, adopt what stands there, and
// the failures a user meets, each in its own words.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDir>

#include <unistd.h>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>

#include "CopyTestSupport.h"
#include "ProjectCopyCommand.h"
#include "ProjectCopyController.h"
#include "ProjectRecord.h"
#include "TestSshServer.h"

using namespace hl;
namespace fs = std::filesystem;
using Phase = ProjectCopyController::Phase;

namespace {

using copytest::processEventsUntil;

void writeRandomFile(const fs::path& path, std::size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (auto& byte : bytes)
        byte = static_cast<char>(random());
    std::ofstream(path, std::ios::binary) << bytes;
}

class ProjectCopyControllerTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { server_ = new test::TestSshServer(); }
    static void TearDownTestSuite() {
        delete server_;
        server_ = nullptr;
    }
    void SetUp() override { ASSERT_TRUE(server_->isRunning()) << server_->failure(); }

    // A project whose folder exists only on the origin, under the given name.
    ProjectCopySource project(const std::string& name, const char* host = kHost) {
        fs::create_directories(server_->remoteFolder() / name);
        const QString root = QString::fromStdString(server_->localFolder() / name);
        return ProjectCopySource{"id-" + QString::fromStdString(name),
                                 "Project " + QString::fromStdString(name),
                                 server_->origin(root, host)};
    }
    fs::path remote(const std::string& name) { return server_->remoteFolder() / name; }
    fs::path local(const std::string& name) { return server_->localFolder() / name; }
    fs::path staging(const ProjectCopySource& source) {
        return ProjectCopyPlan::stagingPath(source.projectID, source.origin->root)->toStdString();
    }
    // Starts a copy whose completion records the destinations it was given.
    void start(const ProjectCopySource& source, bool accept = true) {
        controller.start(source, [this, accept](const QString& destination) {
            completed.push_back(destination);
            return accept;
        });
    }
    bool finishes() {
        return processEventsUntil([&] { return !controller.isRunning(); });
    }

    static constexpr const char* kHost = test::TestSshServer::kOriginHost;
    static test::TestSshServer* server_;
    ProjectCopyController controller{&ProjectRecord::acceptedRoot};
    std::vector<QString> completed;
};

test::TestSshServer* ProjectCopyControllerTest::server_ = nullptr;

}  // namespace

TEST_F(ProjectCopyControllerTest, QuotedTextSurvivesTheRemoteShell) {
    const QString value = "-n it's a 'dir' with $HOME and `x` \\ \"q\"";
    auto task = std::make_shared<CopyTask>();
    QObject context;
    std::optional<ProjectCopyCommand::Outcome> outcome;
    const auto origin = server_->origin("/tmp/unused");
    ProjectCopyCommand::collect(
        "/usr/bin/ssh",
        ProjectCopyPlan::sshArguments(origin, "printf '%s' " + ProjectCopyPlan::shellQuote(value)),
        origin, ProjectCopyError::connectionFailed(), task, &context,
        [&](ProjectCopyCommand::Outcome result) { outcome = std::move(result); });
    ASSERT_TRUE(processEventsUntil([&] { return outcome.has_value(); }));
    ASSERT_TRUE(std::holds_alternative<QByteArray>(*outcome))
        << copyFailureText(std::get<CopyFailure>(*outcome)).toStdString();
    EXPECT_EQ(QString::fromUtf8(std::get<QByteArray>(*outcome)), value);
}

TEST_F(ProjectCopyControllerTest, CopyCompletesWithProgressAndLandsInPlace) {
    const std::string name = "-it's a project";
    const auto source = project(name);
    fs::create_directories(remote(name) / "src" / "deep dir");
    for (int i = 0; i < 6; ++i)
        writeRandomFile(remote(name) / ("blob" + std::to_string(i)), 3 << 20, i);
    std::ofstream(remote(name) / "src" / "deep dir" / "main.c") << "int main() {}\n";
    std::vector<double> figures;
    QObject::connect(&controller, &ProjectCopyController::progressChanged, &controller,
                     [&] { figures.push_back(controller.progress()); });

    // The login shell's ssh and rsync arrive from their own thread meanwhile.
    controller.discoverTools();
    start(source);
    EXPECT_EQ(controller.phase(), Phase::Preparing);
    EXPECT_EQ(controller.detail(), "Checking Test Origin…");
    EXPECT_TRUE(controller.isPresented());
    ASSERT_TRUE(finishes());
    ASSERT_EQ(controller.phase(), Phase::Complete) << controller.detail().toStdString();
    EXPECT_EQ(controller.detail(), "Copied to " + source.origin->root);
    EXPECT_EQ(completed, std::vector<QString>{source.origin->root});
    EXPECT_EQ(controller.progress(), 1.0);
    EXPECT_TRUE(
        std::any_of(figures.begin(), figures.end(), [](double f) { return f > 0 && f < 1; }));
    EXPECT_EQ(test::readFile(local(name) / "blob5"), test::readFile(remote(name) / "blob5"));
    EXPECT_EQ(test::readFile(local(name) / "src" / "deep dir" / "main.c"), "int main() {}\n");
    EXPECT_FALSE(fs::exists(staging(source)));
    // (Dismissing while running is refused: driven through the sheet, ProjectCopySheetTest.)
    controller.dismiss();
    EXPECT_FALSE(controller.isPresented());
    EXPECT_EQ(controller.phase(), Phase::Idle);
}

TEST_F(ProjectCopyControllerTest, CancelKeepsStagingAndTheNextStartResumes) {
    const std::string name = "resumed";
    const auto source = project(name);
    for (int i = 0; i < 40; ++i)
        writeRandomFile(remote(name) / ("part" + std::to_string(i)), 4 << 20, i);

    start(source);
    ASSERT_TRUE(processEventsUntil([&] { return controller.progress() > 0; }));
    controller.cancel();
    EXPECT_EQ(controller.phase(), Phase::Cancelled);
    EXPECT_EQ(controller.detail(), "Copy cancelled. Partial data was kept for resume.");
    EXPECT_TRUE(fs::is_directory(staging(source)));
    EXPECT_FALSE(fs::exists(local(name)));
    // The terminated rsync's last output finds a stale operation.
    processEventsUntil([] { return false; }, 1);
    EXPECT_EQ(controller.phase(), Phase::Cancelled);
    EXPECT_TRUE(completed.empty());

    // A start during a copy ends that copy; the newer one resumes and completes.
    start(source);
    ASSERT_TRUE(processEventsUntil([&] { return controller.phase() == Phase::Copying; }));
    start(source);
    ASSERT_TRUE(finishes());
    ASSERT_EQ(controller.phase(), Phase::Complete) << controller.detail().toStdString();
    EXPECT_EQ(completed.size(), 1u);
    EXPECT_EQ(test::readFile(local(name) / "part39"), test::readFile(remote(name) / "part39"));
    EXPECT_FALSE(fs::exists(staging(source)));
}

TEST_F(ProjectCopyControllerTest, ExistingFolderIsAdoptedWithoutATransfer) {
    // The host has no server behind it: any ssh would fail.
    const auto source = project("adopted", test::TestSshServer::kClosedHost);
    fs::create_directories(local("adopted"));
    start(source);
    ASSERT_TRUE(finishes());
    EXPECT_EQ(controller.phase(), Phase::Complete);
    EXPECT_EQ(controller.detail(), "Using existing project at " + source.origin->root);
    EXPECT_EQ(completed, std::vector<QString>{source.origin->root});

    // A catalog that refuses the folder leaves it where it is, unconfigured.
    start(source, false);
    ASSERT_TRUE(finishes());
    EXPECT_EQ(controller.phase(), Phase::Failed);
    EXPECT_EQ(controller.detail(), ProjectCopyError::invalidCopy().errorDescription());
    EXPECT_TRUE(fs::is_directory(local("adopted")));
}

TEST_F(ProjectCopyControllerTest, SymbolicLinkAtTheDestinationIsRefused) {
    const auto source = project("linked");
    fs::create_directories(server_->folder() / "elsewhere");
    fs::create_directory_symlink(server_->folder() / "elsewhere", local("linked"));
    start(source);
    ASSERT_TRUE(finishes());
    EXPECT_EQ(controller.phase(), Phase::Failed);
    EXPECT_EQ(controller.detail(), ProjectCopyError::invalidCopy().errorDescription());
    EXPECT_TRUE(completed.empty());
}

TEST_F(ProjectCopyControllerTest, FailuresOfTheUsersSshSetup) {
    struct Case {
        const char* host;
        ProjectCopyError error;
    };
    // A denied key, through the sheet in CopyWindowTest.
    for (const Case& c : {
             Case{test::TestSshServer::kChangedHost, ProjectCopyError::hostVerificationFailed()},
             Case{test::TestSshServer::kClosedHost, ProjectCopyError::connectionFailed()},
         }) {
        start(project(std::string("failing-") + c.host, c.host));
        ASSERT_TRUE(finishes());
        EXPECT_EQ(controller.phase(), Phase::Failed) << c.host;
        EXPECT_EQ(controller.detail(), c.error.errorDescription()) << c.host;
    }
    EXPECT_TRUE(completed.empty());
}

TEST_F(ProjectCopyControllerTest, EmptyRootCompletesAndMissingRootFails) {
    const auto empty = project("empty");
    start(empty);
    ASSERT_TRUE(finishes());
    EXPECT_EQ(controller.phase(), Phase::Complete) << controller.detail().toStdString();
    EXPECT_TRUE(fs::is_directory(local("empty")));

    auto missing = project("missing");
    fs::remove(remote("missing"));
    start(missing);
    ASSERT_TRUE(finishes());
    EXPECT_EQ(controller.detail(), ProjectCopyError::connectionFailed().errorDescription());
    EXPECT_FALSE(fs::exists(local("missing")));
}

TEST_F(ProjectCopyControllerTest, InvalidOriginFailsAtOnce) {
    auto source = project("invalid");
    source.origin->sshHost = "-oProxyCommand=touch";
    start(source);
    EXPECT_EQ(controller.phase(), Phase::Failed);
    EXPECT_EQ(controller.projectName(), "Project");
    EXPECT_EQ(controller.detail(), ProjectCopyError::invalidOrigin().errorDescription());
    source.origin.reset();
    start(source);
    EXPECT_EQ(controller.phase(), Phase::Failed);
}

TEST_F(ProjectCopyControllerTest, CancelDuringThePreflightStaysCancelled) {
    start(project("preflight-cancel"));
    QCoreApplication::processEvents();  // the preflight's ssh starts
    ASSERT_EQ(controller.phase(), Phase::Preparing);
    controller.cancel();
    processEventsUntil([] { return false; }, 2);
    EXPECT_EQ(controller.phase(), Phase::Cancelled);
    EXPECT_FALSE(fs::exists(local("preflight-cancel")));
}

TEST_F(ProjectCopyControllerTest, AStagingFolderOfAnotherUserIsRefusedUntouched) {
    if (::geteuid() != 0) GTEST_SKIP() << "handing a folder to another user needs root";
    const auto source = project("foreign-staging");
    std::ofstream(remote("foreign-staging") / "file") << "from the origin\n";
    fs::create_directories(staging(source));
    ASSERT_EQ(::chown(staging(source).c_str(), 65534, 65534), 0);
    start(source);
    ASSERT_TRUE(finishes());
    EXPECT_EQ(controller.phase(), Phase::Failed);
    EXPECT_EQ(controller.detail(), ProjectCopyError::stagingPathUnavailable().errorDescription());
    EXPECT_TRUE(fs::is_empty(staging(source)));
    EXPECT_FALSE(fs::exists(local("foreign-staging")));
    EXPECT_TRUE(completed.empty());
}

TEST_F(ProjectCopyControllerTest, AnSshPathWithSpacesAndQuotesReachesRsyncWhole) {
    const fs::path tools = server_->folder() / "it's my tools";
    fs::create_directories(tools);
    fs::create_symlink("/usr/bin/ssh", tools / "ssh");
    ProjectCopyController spaced(&ProjectRecord::acceptedRoot,
                                 ProjectCopyTools{QString::fromStdString(tools / "ssh")});
    const auto source = project("spaced-ssh");
    std::ofstream(remote("spaced-ssh") / "file") << "from the origin\n";
    spaced.start(source, [&](const QString& destination) {
        completed.push_back(destination);
        return true;
    });
    ASSERT_TRUE(processEventsUntil([&] { return !spaced.isRunning(); }));
    EXPECT_EQ(spaced.phase(), Phase::Complete) << spaced.detail().toStdString();
    EXPECT_EQ(test::readFile(local("spaced-ssh") / "file"), "from the origin\n");
    EXPECT_EQ(completed, std::vector<QString>{source.origin->root});
}
