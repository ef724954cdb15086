// NodeSupervisor with a stand-in node that records each start: one launch for a
// crowd of calls, none when a node answers, the candidate order, and what the
// child is given (session, working directory, stdio, socket variable).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "NodeSupervisor.h"
#include "RuntimePaths.h"
#include "ScriptedPeer.h"
#include "TestSupport.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using hl::NodeSupervisor;
using hl::test::ScopedEnv;
using hl::test::TempDir;
using hl::test::waitUntil;

namespace {

struct Start {
    std::string program;
    int pid = 0, sid = 0;
    std::string cwd;
    bool stdinIsNull = false;
    std::string socket;
    int descriptors = -1;
};

class NodeSupervisorTest : public ::testing::Test {
  protected:
    NodeSupervisorTest()
        : home_("HOME", (dir_ / "home").string()),
          data_("XDG_DATA_HOME", (dir_ / "data").string()),
          log_("FAKE_NODE_LOG", (dir_ / "starts.log").string()),
          lifetime_("FAKE_NODE_LIFETIME_MS", "1500"),
          root_("HARBORLATTICE_ROOT", std::nullopt) {
        fs::create_directories(dir_ / "home");
    }

    static fs::path besideTheTest() { return fs::read_symlink("/proc/self/exe").parent_path(); }

    std::vector<Start> starts() const {
        std::vector<Start> result;
        std::istringstream lines(hl::test::readFile(dir_ / "starts.log"));
        std::string line;
        while (std::getline(lines, line)) {
            Start s;
            int isNull = 0;
            std::istringstream fields(line);
            fields >> s.program >> s.pid >> s.sid >> s.cwd >> isNull >> s.socket >> s.descriptors;
            s.stdinIsNull = isNull == 1;
            result.push_back(s);
        }
        return result;
    }

    // Waits for the check to end, then a little longer for a stray second launch.
    void settle() {
        ASSERT_TRUE(waitUntil([] { return !NodeSupervisor::shared().launchInFlight(); }));
        std::this_thread::sleep_for(200ms);
    }

    TempDir dir_;
    ScopedEnv home_, data_, log_, lifetime_, root_;
};

TEST_F(NodeSupervisorTest, ACrowdOfCallsLaunchesOneDetachedNode) {
    ScopedEnv executable("HARBORLATTICE_NODE_EXECUTABLE", std::nullopt);
    ScopedEnv socket("HARBORLATTICE_SOCKET", (dir_ / "n.sock").string());
    for (int i = 0; i < 10; ++i)
        NodeSupervisor::shared().ensureRunning();
    ASSERT_TRUE(waitUntil([&] { return starts().size() == 1; }));
    settle();

    auto all = starts();
    ASSERT_EQ(all.size(), 1u);
    const Start& s = all.front();
    EXPECT_EQ(fs::path(s.program), besideTheTest() / "harborlattice-node");
    EXPECT_EQ(s.sid, s.pid) << "the node leads a session of its own";
    EXPECT_NE(s.sid, ::getsid(0));
    EXPECT_EQ(s.cwd, (dir_ / "home").string());
    EXPECT_TRUE(s.stdinIsNull);
    EXPECT_EQ(s.descriptors, 3) << "only stdio reaches the node";
    EXPECT_EQ(s.socket, (dir_ / "n.sock").string());

    struct stat info {};
    ASSERT_EQ(::stat(hl::RuntimePaths::supportDirectory().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0700u);

    // Once it answers, further calls launch nothing.
    ASSERT_TRUE(waitUntil([&] { return fs::exists(dir_ / "n.sock"); }));
    NodeSupervisor::shared().ensureRunning();
    settle();
    EXPECT_EQ(starts().size(), 1u);
}

TEST_F(NodeSupervisorTest, AnAnsweringNodeIsUsedAndNothingIsTouched) {
    ScopedEnv socket("HARBORLATTICE_SOCKET", (dir_ / "live.sock").string());
    hl::test::ScriptedPeer node((dir_ / "live.sock").string(), {{"{\"ok\":true}\n"}});
    NodeSupervisor::shared().ensureRunning();
    ASSERT_TRUE(waitUntil([&] { return node.connections() == 1; }));
    settle();
    EXPECT_TRUE(starts().empty());
    EXPECT_FALSE(fs::exists(hl::RuntimePaths::supportDirectory()));
    EXPECT_FALSE(NodeSupervisor::shared().launchInFlight());
}

TEST_F(NodeSupervisorTest,
       ExplicitExecutableComesFirstEvenRelativeAndFallsThroughWhenNotExecutable) {
    ScopedEnv socket("HARBORLATTICE_SOCKET", std::nullopt);
    const fs::path copy = dir_ / "custom-node";
    fs::copy_file(besideTheTest() / "harborlattice-node", copy);

    {
        // Relative to the application's directory, though the node starts in the home.
        ScopedEnv executable("HARBORLATTICE_NODE_EXECUTABLE",
                             fs::relative(copy, fs::current_path()).string());
        NodeSupervisor::shared().ensureRunning();
        ASSERT_TRUE(waitUntil([&] { return starts().size() == 1; }));
        settle();
        EXPECT_EQ(starts().back().program, copy.string());
        // Unset in the application, the child is given the default path.
        EXPECT_EQ(starts().back().socket, hl::RuntimePaths::socketPath());
    }
    // Let the first stand-in stop answering before asking again.
    ASSERT_TRUE(waitUntil([&] { return !fs::exists(hl::RuntimePaths::socketPath()); }, 5s));

    fs::permissions(copy, fs::perms::owner_read | fs::perms::owner_write,
                    fs::perm_options::replace);
    ScopedEnv executable("HARBORLATTICE_NODE_EXECUTABLE", copy.string());
    NodeSupervisor::shared().ensureRunning();
    ASSERT_TRUE(waitUntil([&] { return starts().size() == 2; }));
    settle();
    EXPECT_EQ(fs::path(starts().back().program), besideTheTest() / "harborlattice-node");
}

}  // namespace
