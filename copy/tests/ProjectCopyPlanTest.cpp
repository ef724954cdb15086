// The copy's pure parts: command lines, the compression rule, the staging
// name, origin checks, failure classification, the preflight report and
// rsync's progress lines.
#include <gtest/gtest.h>

#include <QProcess>

#include "ProjectCopyCommand.h"
#include "ProjectCopyController.h"
#include "ProjectCopyPlan.h"

using namespace hl;
namespace Plan = ProjectCopyPlan;

namespace {

const ProjectCopyOrigin kOrigin{"Studio", "studio.example.ts.net", "ada", "/Users/ada/Code/app"};

}  // namespace

TEST(ProjectCopyPlanTest, CommandLinesAreExact) {
    EXPECT_EQ(Plan::sshArguments(kOrigin, "true"),
              QStringList({"-o", "BatchMode=yes", "-o", "ConnectTimeout=10", "-o",
                           "StrictHostKeyChecking=accept-new", "--", "ada@studio.example.ts.net",
                           "true"}));
    EXPECT_EQ(Plan::preflightCommand("/a b").toStdString(),
              "set -eu; test -d '/a b'; printf 'bytes='; /usr/bin/du -sk '/a b' | /usr/bin/awk "
              "'{printf \"%.0f\\n\", $1 * 1024}'; printf 'files='; /usr/bin/find '/a b' -type f | "
              "/usr/bin/wc -l");
    // A size of 2 GiB and more stays an integer, whatever the origin's awk.
    QProcess awk;
    awk.start("/bin/sh", {"-c", "echo 5000000 | /usr/bin/awk '{printf \"%.0f\\n\", $1 * 1024}'"});
    ASSERT_TRUE(awk.waitForFinished(30000));
    EXPECT_EQ(awk.readAllStandardOutput(), "5120000000\n");
    const QStringList head = {"-a",
                              "--partial",
                              "--progress",
                              "--stats",
                              "--no-human-readable",
                              "-e",
                              "/usr/bin/ssh -o BatchMode=yes -o ConnectTimeout=10 -o "
                              "StrictHostKeyChecking=accept-new"};
    EXPECT_EQ(Plan::rsyncArguments(kOrigin, "/s/.x-partial", false),
              head + QStringList({"--", "ada@studio.example.ts.net:'/Users/ada/Code/app/'",
                                  "/s/.x-partial/"}));
    EXPECT_EQ(Plan::rsyncArguments(kOrigin, "/s/p", true, "/opt/bin/ssh").mid(5, 4),
              QStringList({"-e",
                           "/opt/bin/ssh -o BatchMode=yes -o ConnectTimeout=10 -o "
                           "StrictHostKeyChecking=accept-new",
                           "--compress", "--"}));
    EXPECT_EQ(Plan::shellQuote(""), "''");
}

TEST(ProjectCopyPlanTest, CompressionOnlyForManySmallFiles) {
    EXPECT_FALSE((ProjectCopyPreflight{999, 999}.useCompression()));
    EXPECT_TRUE((ProjectCopyPreflight{1000LL * 65535, 1000}.useCompression()));
    EXPECT_FALSE((ProjectCopyPreflight{1000LL * 65536, 1000}.useCompression()));
    EXPECT_FALSE((ProjectCopyPreflight{0, 0}.useCompression()));
}

TEST(ProjectCopyPlanTest, StagingFolderIsBesideTheDestinationAndNamedByIdentity) {
    EXPECT_EQ(Plan::fnv1a64(""), 0xcbf29ce484222325ull);
    EXPECT_EQ(Plan::stagingPath("a", "/one/two"), "/one/.harborlattice-af63dc4c8601ec8c-partial");
    EXPECT_EQ(Plan::stagingPath("a", "/top"), "/.harborlattice-af63dc4c8601ec8c-partial");
    EXPECT_EQ(Plan::stagingPath("a", "/"), std::nullopt);
    EXPECT_NE(Plan::stagingPath("a", "/one/two"), Plan::stagingPath("b", "/one/two"));
}

TEST(ProjectCopyPlanTest, OriginChecks) {
    EXPECT_TRUE(kOrigin.isValid());
    auto with = [](auto change) {
        ProjectCopyOrigin origin = kOrigin;
        change(origin);
        return origin.isValid();
    };
    EXPECT_TRUE(with([](auto& o) { o.deviceName = "  Ada’s Studio  "; }));
    EXPECT_FALSE(with([](auto& o) { o.deviceName = " \n "; }));
    EXPECT_FALSE(with([](auto& o) { o.deviceName = QString("x\u200By"); }));  // format character
    EXPECT_FALSE(with([](auto& o) { o.deviceName = QString(129, 'n'); }));
    EXPECT_FALSE(with([](auto& o) { o.sshHost = "-oProxyCommand=x"; }));
    EXPECT_FALSE(with([](auto& o) { o.sshHost = "host name"; }));
    EXPECT_FALSE(with([](auto& o) { o.sshUser = "ada;rm"; }));
    EXPECT_TRUE(with([](auto& o) { o.sshUser = "ada.b_c-d"; }));
    EXPECT_FALSE(with([](auto& o) { o.sshUser = "-ada"; }));
    EXPECT_FALSE(with([](auto& o) { o.root = "/"; }));
    EXPECT_FALSE(with([](auto& o) { o.root = "relative/path"; }));
    EXPECT_FALSE(with([](auto& o) { o.root = "/a/../b"; }));
    EXPECT_FALSE(with([](auto& o) { o.root = "/a/b/"; }));
    EXPECT_FALSE(with([](auto& o) { o.root = "/a/\nb"; }));
}

TEST(ProjectCopyPlanTest, FailuresAreReadFromTheComplaint) {
    using ProjectCopyCommand::failure;
    const auto fallback = ProjectCopyError::connectionFailed();
    EXPECT_EQ(failure("Permission DENIED (publickey,password).\n", kOrigin, fallback),
              ProjectCopyError::authenticationFailed("ssh-copy-id ada@studio.example.ts.net"));
    ProjectCopyOrigin invalid = kOrigin;
    invalid.sshHost = "-bad";
    EXPECT_EQ(failure("Permission denied (publickey).", invalid, fallback), fallback);
    EXPECT_EQ(
        failure("@@@ WARNING: REMOTE HOST IDENTIFICATION HAS CHANGED! @@@", kOrigin, fallback),
        ProjectCopyError::hostVerificationFailed());
    EXPECT_EQ(failure("Host key verification failed.", kOrigin, fallback),
              ProjectCopyError::hostVerificationFailed());
    EXPECT_EQ(failure("Connection refused", kOrigin, ProjectCopyError::transferFailed()),
              ProjectCopyError::transferFailed());
}

// The denial's Linux text is read through the window (CopyWindowTest).
TEST(ProjectCopyPlanTest, TextsUseThePlatformsWordForAMachine) {
    EXPECT_EQ(ProjectCopyError::hostVerificationFailed().errorDescription(CopyTextPlatform::MacOS),
              "SSH host verification failed. On the receiving Mac, verify the saved host key for "
              "the origin Mac, then retry.");
    EXPECT_EQ(ProjectCopyError::hostVerificationFailed().errorDescription(CopyTextPlatform::Linux),
              "SSH host verification failed. On the receiving computer, verify the saved host key "
              "for the origin computer, then retry.");
}

TEST(ProjectCopyPlanTest, PreflightReport) {
    EXPECT_EQ(parsePreflight("bytes=4096\nfiles=       12\n"), (ProjectCopyPreflight{4096, 12}));
    EXPECT_EQ(parsePreflight("motd\nfiles=0\nbytes=0\n"), (ProjectCopyPreflight{0, 0}));
    EXPECT_EQ(parsePreflight("bytes=4096\n"), std::nullopt);
    EXPECT_EQ(parsePreflight("bytes=-1\nfiles=1\n"), std::nullopt);
    EXPECT_EQ(parsePreflight("bytes=1,024\nfiles=1\n"), std::nullopt);
}

TEST(ProjectCopyPlanTest, ProgressCountsFinishedFilesOnce) {
    RsyncProgress progress(1000);
    EXPECT_EQ(progress.consume("a.txt\n\r   100  50%  1kB/s  0:00:01"), std::nullopt);
    EXPECT_EQ(progress.outputBuffer(), "   100  50%  1kB/s  0:00:01");
    EXPECT_EQ(progress.consume("\r   200 100%  1kB/s 0:00:00\r   200 100%  1kB/s (xfr#1)\n"), 0.2);
    EXPECT_EQ(progress.consume("b.txt\n   300 100%\n"), 0.5);
    EXPECT_EQ(progress.consume("c.txt\n   1,000  10%\n"), std::nullopt);  // grouped digits
    EXPECT_EQ(progress.consume("   100  x%\n"), 0.6);  // percent that is no number
    EXPECT_EQ(progress.consume("d\n 9000 100%\n"), 0.99);
}
