// The endpoint from a tailscale command (stand-in scripts, since no Tailscale
// runs here) and from the local names, and the login shell's ssh and rsync.
#include <gtest/gtest.h>

#include <QDir>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "DeviceCopyEndpoint.h"
#include "ProjectCopyPlan.h"
#include "TestSupport.h"

using namespace hl;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

QString script(const fs::path& path, const std::string& body) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
    fs::permissions(path, fs::perms::owner_all);
    return QString::fromStdString(path);
}

int reportFiles() {
    return QDir(QDir::tempPath()).entryList({"harborlattice-tailscale-*"}).size();
}

}  // namespace

TEST(DeviceCopyEndpointTest, TailscaleNameIsPreferredOverLocalNames) {
    test::TempDir dir;
    const auto local = DeviceCopyEndpoint::localIdentity();
    EXPECT_FALSE(local.sshHost.isEmpty());
    EXPECT_FALSE(local.sshUser.isEmpty());
    const int before = reportFiles();

    const QString missing = QString::fromStdString(dir / "absent");
    const QString second = script(dir / "b" / "tailscale",
                                  R"(test "$1 $2" = "status --json" || exit 9
printf '%s' '{"Self":{"DNSName":"box.tail1.ts.net.","HostName":"  Ada box \n"}}')");
    EXPECT_EQ(DeviceCopyEndpoint::discover({missing, second}, 10s),
              (DeviceCopyEndpoint{"Ada box", "box.tail1.ts.net", local.sshUser}));
    EXPECT_EQ(DeviceCopyEndpoint::discover({missing}, 10s), local);

    const QString loggedOut = script(dir / "c" / "tailscale", "echo '{}'; exit 1");
    EXPECT_EQ(DeviceCopyEndpoint::discover({loggedOut}, 10s), local);
    const QString silent = script(dir / "d" / "tailscale", "exec sleep 60");
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(DeviceCopyEndpoint::discover({silent}, 300ms), local);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 30s);
    EXPECT_EQ(reportFiles(), before);
}

TEST(DeviceCopyEndpointTest, StatusReportsThatGiveNoEndpoint) {
    EXPECT_EQ(endpointFromTailscaleStatus(R"({"Self":{"DNSName":"h.ts.net"}})", "u"),
              (DeviceCopyEndpoint{"h.ts.net", "h.ts.net", "u"}));
    EXPECT_EQ(
        endpointFromTailscaleStatus(R"({"Self":{"DNSName":"h","HostName":" "}})", "u")->deviceName,
        "h");
    for (const char* report : {R"({"Self":{"DNSName":"."}})", R"({"Self":{"DNSName":""}})",
                               R"({"Self":{"DNSName":7}})", R"({"Peer":{}})", "not json", "[]"})
        EXPECT_EQ(endpointFromTailscaleStatus(report, "u"), std::nullopt) << report;
}

TEST(DeviceCopyEndpointTest, ToolsAreThoseOfTheLoginShell) {
    test::TempDir dir;
    test::ScopedEnv home("HOME", dir.path().string());
    const QString rsync = script(dir / "bin" / "rsync", "exit 0");
    std::ofstream(dir / ".bash_profile")
        << "echo welcome\nPATH=" << (dir / "bin").string() << ":$PATH\n";
    const auto tools = ProjectCopyTools::discover("/bin/bash");
    EXPECT_EQ(tools.rsync, rsync);
    EXPECT_EQ(tools.ssh, "/usr/bin/ssh");
    EXPECT_EQ(ProjectCopyTools::discover("/nonexistent/shell"), ProjectCopyTools());
}
