// The controller against the real harborlattice-node over its real socket, with
// real shells in real pseudo-terminals: one session typed into through the poll
// loop and the batcher, suspended, reattached by a second controller and ended
// by its shell, and a node that dies and is started again.
#include <gtest/gtest.h>

#include "NodeSupervisor.h"
#include "TerminalController.h"
#include "TerminalTestSupport.h"

using namespace std::chrono_literals;
using hl::TerminalController;
using hl::test::RecordingSurface;
using hl::test::spinFor;
using hl::test::spinUntil;
using hl::test::StatusLog;

namespace {

using hl::test::ScopedEnv;

class RealNodeTest : public ::testing::Test {
  protected:
    RealNodeTest()
        : socket((dir / "node.sock").string()),
          cwd((dir.path() / "work").string()),
          node(socket, dir.path()) {
        std::filesystem::create_directories(cwd);
    }

    ~RealNodeTest() override {
        for (auto& controller : controllers)
            controller->close();
        EXPECT_TRUE(hl::test::drainDetachedWork());
        controllers.clear();
        node.kill();
        hl::test::killNodesServing(socket);
    }

    // A controller on the test's socket. Its ensure-running hook starts the
    // test's node again if it is not running.
    TerminalController& make(std::optional<std::string> sessionID, std::string directory = {},
                             bool creationAllowed = true,
                             std::shared_ptr<const hl::NodeClientTransport> client = {}) {
        hl::TerminalControllerHooks hooks;
        hooks.ensureNodeRunning = [this] {
            if (!node.running()) node.launch();
        };
        if (!client) client = std::make_shared<hl::UnixSocketClient>(socket);
        controllers.push_back(std::make_unique<TerminalController>(
            std::move(sessionID), directory.empty() ? cwd : directory, false, true, creationAllowed,
            nullptr, QStringLiteral("Working directory unavailable · focus to retry"),
            QStringLiteral("Saved workspace data is unsafe · new session blocked"), client, hooks));
        auto& controller = *controllers.back();
        controller.onSessionReady = [this](const std::string& id) { ready.push_back(id); };
        controller.onCloseRequired = [this](const std::string& id) { closeRequired.push_back(id); };
        return controller;
    }

    // Types `text` one key at a time, as a renderer would.
    static void type(TerminalController& controller, const QString& text) {
        for (const QChar key : text)
            controller.terminalSurfaceDidReceiveInput(key);
    }

    static bool shows(const RecordingSurface& surface, const std::string& text,
                      std::chrono::milliseconds timeout = 10s) {
        return spinUntil([&] { return surface.shown.find(text) != std::string::npos; }, timeout);
    }

    hl::test::TempDir dir;
    std::string socket;
    std::string cwd;
    hl::test::NodeProcess node;
    std::vector<std::unique_ptr<TerminalController>> controllers;
    std::vector<std::string> ready, closeRequired;
};

TEST_F(RealNodeTest, OneSessionTypedIntoReattachedElsewhereAndEndedByItsShell) {
    ASSERT_TRUE(node.start());
    auto& first = make(std::nullopt);
    StatusLog log(first);
    RecordingSurface firstSurface;
    first.setSurface(&firstSurface);
    first.start();
    ASSERT_TRUE(spinUntil([&] { return first.status() == "Connected"; }));
    EXPECT_TRUE(first.isConnected());
    ASSERT_EQ(ready.size(), 1u);
    EXPECT_EQ(first.sessionID(), ready[0]);

    type(first, "echo $((40+2)) $(pwd -P)\r");
    ASSERT_TRUE(shows(firstSurface, "42 " + cwd + "\r\n")) << firstSurface.shown;
    EXPECT_FALSE(firstSurface.offMainThread);
    first.terminalSurfaceDidResize(91, 27);
    type(first, "stty size\r");
    ASSERT_TRUE(shows(firstSurface, "27 91")) << firstSurface.shown;
    first.suspend();
    EXPECT_EQ(log.texts,
              std::vector<std::string>(
                  {"Connected", "Suspended locally · terminal remains on this computer"}));
    const auto saved = first.reconnectCandidate();
    ASSERT_EQ(saved, ready[0]);

    // Another directory (a sibling; the parent would hold the shell's folder):
    // refused by the node itself, and nothing is started.
    const auto sibling = dir.path() / "sibling";
    std::filesystem::create_directories(sibling);
    auto& elsewhere = make(saved, sibling.string(), false);
    elsewhere.start();
    ASSERT_TRUE(spinUntil(
        [&] { return elsewhere.status() == "Saved session cwd mismatch · reattach blocked"; }));
    EXPECT_EQ(elsewhere.reconnectCandidate(), saved);

    auto counting = std::make_shared<hl::test::CountingTransport>(socket);
    auto& second = make(saved, {}, true, counting);
    RecordingSurface secondSurface;
    second.setSurface(&secondSurface);
    second.start();
    ASSERT_TRUE(spinUntil([&] { return second.status() == "Reconnected"; }));
    EXPECT_EQ(second.sessionID(), saved);
    EXPECT_FALSE(second.isReplacementSession());
    ASSERT_FALSE(secondSurface.replays.empty());
    EXPECT_NE(secondSurface.replays.back().find("42 " + cwd + "\r\n"), std::string::npos);
    type(second, "echo $((50+5))\r");
    EXPECT_TRUE(shows(secondSurface, "55\r\n"));
    EXPECT_FALSE(secondSurface.offMainThread);
    EXPECT_TRUE(closeRequired.empty());

    // The node tells where the shell is.
    EXPECT_TRUE(spinUntil([&] { return second.shellDirectory() == QString::fromStdString(cwd); }))
        << second.shellDirectory().toStdString();
    type(second, "cd /tmp\r");
    EXPECT_TRUE(spinUntil([&] { return second.shellDirectory() == "/tmp"; }))
        << second.shellDirectory().toStdString();

    // The shell ends: the polling stops, the status gives its exit status, and
    // only Enter starts a new shell, in the pane's directory; the ended
    // session is handed over to be closed.
    type(second, "echo goodbye; exit 3\r");
    ASSERT_TRUE(spinUntil([&] {
        return second.status() == "Exited (status 3) · press Enter to start a new shell";
    })) << second.status().toStdString();
    EXPECT_FALSE(second.isConnected());
    EXPECT_FALSE(second.isPolling());
    EXPECT_TRUE(second.shellDirectory().isEmpty());
    EXPECT_NE(secondSurface.shown.find("goodbye"), std::string::npos);
    const int polls = counting->count("poll");
    type(second, "ls");
    spinFor(500ms);  // more than two idle intervals
    EXPECT_EQ(counting->count("poll"), polls);
    EXPECT_EQ(second.sessionID(), saved);
    EXPECT_TRUE(closeRequired.empty());
    type(second, "\r");
    ASSERT_TRUE(spinUntil([&] { return second.status() == "Connected"; }))
        << second.status().toStdString();
    EXPECT_NE(second.sessionID(), saved);
    EXPECT_FALSE(second.isReplacementSession());
    EXPECT_EQ(closeRequired, std::vector<std::string>{*saved});
    type(second, "echo again-$PWD\r");
    EXPECT_TRUE(shows(secondSurface, "again-" + cwd + "\r\n")) << secondSurface.shown;
    const auto fresh = second.sessionID();
    second.close();
    EXPECT_EQ(closeRequired, (std::vector<std::string>{*saved, *fresh}));
}

TEST_F(RealNodeTest, NodeStartedAgainAfterItDiedGetsAValidatedReplacement) {
    // The node is started by the real supervisor, from the environment, on this
    // test's socket.
    hl::test::TempDir data;
    const ScopedEnv socketVariable("HARBORLATTICE_SOCKET", socket);
    const ScopedEnv executableVariable("HARBORLATTICE_NODE_EXECUTABLE", hl::test::nodeExecutable());
    const ScopedEnv dataVariable("XDG_DATA_HOME", data.path().string());
    const ScopedEnv homeVariable("HOME", dir.path().string());
    ASSERT_TRUE(node.start());
    controllers.push_back(std::make_unique<TerminalController>(std::nullopt, cwd));
    auto& c = *controllers.back();
    c.onSessionReady = [this](const std::string& id) { ready.push_back(id); };
    StatusLog log(c);
    RecordingSurface surface;
    c.setSurface(&surface);
    c.start();
    ASSERT_TRUE(spinUntil([&] { return c.status() == "Connected"; }));
    const auto lost = *c.sessionID();
    type(c, "echo before-$((1+1))\r");
    ASSERT_TRUE(shows(surface, "before-2")) << surface.shown;

    node.kill();
    ASSERT_TRUE(spinUntil(
        [&] { return c.status() == "Replacement connected · saved session was lost"; }, 20s))
        << c.status().toStdString();
    EXPECT_TRUE(log.sawInOrder({"Connected", "Node unavailable · reconnecting", "Reconnecting…",
                                "Saved session unavailable · starting validated replacement",
                                "Starting validated replacement…",
                                "Replacement connected · saved session was lost"}));
    EXPECT_TRUE(c.isReplacementSession());
    EXPECT_TRUE(c.isConnected());
    ASSERT_EQ(ready.size(), 2u);
    EXPECT_NE(ready[1], lost);
    EXPECT_EQ(c.sessionID(), ready[1]);

    // The new shell's output starts below a rule, not over the old screen.
    const auto rule = surface.shown.find("\u2500\u2500 new session \u2500\u2500");
    ASSERT_NE(rule, std::string::npos) << surface.shown;
    type(c, "echo $((6*7))\r");
    EXPECT_TRUE(shows(surface, "42")) << surface.shown;
    EXPECT_GT(surface.shown.rfind("42"), rule);
    c.close();
    // The supervisor's check reads the environment: it must be over before it changes back.
    EXPECT_TRUE(spinUntil([] { return !hl::NodeSupervisor::shared().launchInFlight(); }));
}

}  // namespace
