// The controller's decision and status texts against a scripted node: reattach,
// validated replacement, directory mismatch, blocked starts, retries, nonsense
// replies, close and suspend while a request is in flight, input, polling and
// the end of a shell.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <atomic>

#include "TerminalController.h"
#include "TerminalTestSupport.h"

using namespace std::chrono_literals;
using hl::JSONValue;
using hl::NodeClientError;
using hl::NodeRequestData;
using hl::NodeResponse;
using hl::TerminalController;
using hl::test::b64;
using hl::test::RecordingSurface;
using hl::test::reply;
using hl::test::sessionList;
using hl::test::spinFor;
using hl::test::spinUntil;
using hl::test::StatusLog;
using hl::test::textOf;

namespace {

const std::string unavailable = "Folder gone · focus to retry";
const std::string blocked = "Unsafe data · new session blocked";

struct Options {
    std::optional<std::string> sessionID = std::nullopt;
    bool isReplacementSession = false;
    bool allowReconnect = true;
    bool sessionCreationIsAllowed = true;
    std::function<bool()> directoryIsReady = nullptr;
};

class ControllerTest : public ::testing::Test {
  protected:
    ControllerTest() : node(std::make_shared<hl::test::ScriptedTransport>()) {
        node->on("poll", [](const NodeRequestData&) { return reply(); });
        node->on("input", [](const NodeRequestData&) { return reply(); });
        node->on("resize", [](const NodeRequestData&) { return reply(); });
    }

    ~ControllerTest() override {
        for (auto& controller : controllers)
            controller->close();
        node->releaseAll();
        EXPECT_TRUE(hl::test::drainDetachedWork());
    }

    // A controller on the scripted node with short pacing, changed by `tune`;
    // it records what it reports to its owner.
    TerminalController& make(const Options& options,
                             const std::function<void(hl::TerminalControllerHooks&)>& tune = {}) {
        hl::TerminalControllerHooks hooks;
        hooks.ensureNodeRunning = [this] { ++ensureCalls; };
        hooks.retryDelay = 20ms;
        hooks.busyPollInterval = 5ms;
        hooks.idlePollInterval = 10ms;
        hooks.firstSizeWait = 300ms;
        if (tune) tune(hooks);
        controllers.push_back(std::make_unique<TerminalController>(
            options.sessionID, "/w", options.isReplacementSession, options.allowReconnect,
            options.sessionCreationIsAllowed, options.directoryIsReady,
            QString::fromStdString(unavailable), QString::fromStdString(blocked), node, hooks));
        auto& controller = *controllers.back();
        controller.onSessionReady = [this](const std::string& id) { ready.push_back(id); };
        controller.onCloseRequired = [this](const std::string& id) { closeRequired.push_back(id); };
        logs.push_back(std::make_unique<StatusLog>(controller));
        return controller;
    }

    StatusLog& log() { return *logs.back(); }
    std::string status() const { return controllers.back()->status().toStdString(); }
    bool reaches(const std::string& text, std::chrono::milliseconds timeout = 5s) {
        return spinUntil([&] { return status() == text; }, timeout);
    }

    void replayWith(const std::string& cwd, const std::string& output, bool exited = false) {
        node->on("replay_session", [=](const NodeRequestData&) {
            return reply({{"cwd", JSONValue::string(cwd)},
                          {"output_base64", JSONValue::string(b64(output))},
                          {"exited", JSONValue::boolean(exited)}});
        });
    }
    void createGives(const std::string& id) {
        node->on("create_session", [id](const NodeRequestData&) {
            return reply({{"session_id", JSONValue::string(id)}});
        });
    }

    std::shared_ptr<hl::test::ScriptedTransport> node;
    std::vector<std::unique_ptr<StatusLog>> logs;
    std::vector<std::unique_ptr<TerminalController>> controllers;
    std::vector<std::string> ready, closeRequired;
    std::atomic<int> ensureCalls{0};
    // State of scripted handlers. Members, not locals: a poll thread may still
    // call a handler after the test body has returned.
    std::atomic<int> step{0};
    std::atomic<int> limit{0};
    std::atomic<bool> directoryReady{true};
};

TEST_F(ControllerTest, LostSavedSessionGetsValidatedReplacement) {
    node->on("list_sessions", [](const NodeRequestData&) {
        return reply({{"session_ids", JSONValue::array({JSONValue::number(1)})}});
    });
    createGives("new1");
    auto& c = make({.sessionID = "s1"});
    c.start();
    ASSERT_TRUE(reaches("Replacement connected · saved session was lost"));
    EXPECT_EQ(
        log().texts,
        (std::vector<std::string>{
            "Reconnecting…", "Saved session unavailable · starting validated replacement",
            "Starting validated replacement…", "Replacement connected · saved session was lost"}));
    EXPECT_TRUE(c.isReplacementSession());
    EXPECT_EQ(c.sessionID(), "new1");
    EXPECT_EQ(c.reconnectCandidate(), "new1");
    EXPECT_EQ(ready, std::vector<std::string>{"new1"});
    EXPECT_TRUE(closeRequired.empty());
    const auto creates = node->requests("create_session");
    ASSERT_EQ(creates.size(), 1u);
    EXPECT_EQ(textOf(creates[0], "cwd"), "/w");
}

TEST_F(ControllerTest, LostSavedSessionWithoutCreationKeepsTheCandidate) {
    node->on("list_sessions", [](const NodeRequestData&) { return reply(); });
    auto& c = make({.sessionID = "s1", .sessionCreationIsAllowed = false, .directoryIsReady = [&] {
                        return directoryReady.load();
                    }});
    c.start();
    ASSERT_TRUE(reaches(blocked));
    EXPECT_EQ(c.reconnectCandidate(), "s1");
    EXPECT_FALSE(c.sessionID().has_value());

    directoryReady = false;
    c.requestFocus();  // the promised retry
    ASSERT_TRUE(reaches(unavailable));
    EXPECT_EQ(node->count("list_sessions"), 2);
    EXPECT_EQ(node->count("create_session"), 0);
    EXPECT_EQ(c.reconnectCandidate(), "s1");
    EXPECT_TRUE(ready.empty());
}

// The node says "session cwd mismatch", or answers with another directory, or none.
class MismatchTest : public ControllerTest, public ::testing::WithParamInterface<int> {
  protected:
    void scriptMismatch() {
        node->on("list_sessions", [](const NodeRequestData&) { return sessionList({"s1"}); });
        switch (GetParam()) {
            case 0:
                node->on("replay_session", [](const NodeRequestData&) -> NodeResponse {
                    throw NodeClientError::daemon("session cwd mismatch");
                });
                break;
            case 1:
                replayWith("/w/", "other directory's output");
                break;
            default:
                node->on("replay_session", [](const NodeRequestData&) { return reply(); });
        }
    }
};

TEST_P(MismatchTest, StartsReplacementWhenAllowedAndLeavesTheSessionAlone) {
    scriptMismatch();
    createGives("new1");
    auto& c = make({.sessionID = "s1"});
    c.start();
    ASSERT_TRUE(reaches("Replacement connected · saved session was lost"));
    EXPECT_EQ(log().texts, (std::vector<std::string>{
                               "Reconnecting…", "Saved session cwd mismatch · starting replacement",
                               "Starting validated replacement…",
                               "Replacement connected · saved session was lost"}));
    EXPECT_TRUE(closeRequired.empty());
    EXPECT_TRUE(c.rendererHistory().empty());
    EXPECT_EQ(ready, std::vector<std::string>{"new1"});
}

TEST_P(MismatchTest, BlocksReattachWhenCreationIsForbidden) {
    scriptMismatch();
    auto& c = make({.sessionID = "s1", .sessionCreationIsAllowed = false});
    c.start();
    ASSERT_TRUE(reaches("Saved session cwd mismatch · reattach blocked"));
    EXPECT_EQ(c.reconnectCandidate(), "s1");
    EXPECT_FALSE(c.isConnected());
    EXPECT_EQ(node->count("create_session"), 0);
    EXPECT_TRUE(closeRequired.empty());
    EXPECT_TRUE(ready.empty());
}

INSTANTIATE_TEST_SUITE_P(Replies, MismatchTest, ::testing::Values(0, 1, 2));

TEST_F(ControllerTest, NothingToDoSendsNothingAndSaysWhy) {
    directoryReady = false;
    auto& c = make({.directoryIsReady = [&] { return directoryReady.load(); }});
    c.start();
    EXPECT_EQ(status(), unavailable);
    c.start();
    c.requestFocus();
    EXPECT_EQ(log().texts, std::vector<std::string>{unavailable});  // no repeated signal
    EXPECT_TRUE(c.wantsFocus());

    // Creation forbidden and no candidate: blocked, even with the directory back.
    auto& forbidden = make({.sessionCreationIsAllowed = false});
    forbidden.start();
    EXPECT_EQ(status(), blocked);
    spinFor(30ms);
    EXPECT_TRUE(node->operations().empty());

    // Once the directory is back, focus starts the terminal.
    createGives("new1");
    directoryReady = true;
    c.requestFocus();
    ASSERT_TRUE(spinUntil([&] { return c.status() == "Connected"; }));
    EXPECT_FALSE(c.isReplacementSession());
}

TEST_F(ControllerTest, UnreachableNodeRetriesUntilItAnswers) {
    limit = 3;
    node->on("list_sessions", [this](const NodeRequestData&) {
        if (step++ < limit) throw NodeClientError::connection();
        return sessionList({"s1"});
    });
    replayWith("/w", "back");
    auto& c = make({.sessionID = "s1"});
    c.start();
    ASSERT_TRUE(reaches("Reconnected"));
    EXPECT_TRUE(log().sawInOrder({"Reconnecting…", "Node unavailable · retrying", "Reconnecting…",
                                  "Node unavailable · retrying", "Reconnecting…",
                                  "Node unavailable · retrying", "Reconnecting…", "Reconnected"}));
    EXPECT_EQ(ensureCalls, 3);
    EXPECT_EQ(node->count("list_sessions"), 4);
}

TEST_F(ControllerTest, NonsenseFromTheNodeRetriesAndLosesNothing) {
    // Each attempt meets another kind of nonsense; the saved id survives them all.
    node->on("list_sessions", [this](const NodeRequestData&) -> NodeResponse {
        switch (step++) {
            case 0:
                return hl::decodeNodeReply("garbage\n");  // the parser's own error
            case 1:
                return hl::decodeNodeReply("[]\n");  // invalid response
            case 2:
                throw NodeClientError::daemon("session cwd mismatch, sort of");
            default:
                return sessionList({"s1"});
        }
    });
    node->on("replay_session", [this](const NodeRequestData&) -> NodeResponse {
        if (step++ == 4) throw NodeClientError::daemon("Node request failed.");
        return reply({{"cwd", JSONValue::string("/w")}, {"exited", JSONValue::string("yes")}});
    });
    auto& c = make({.sessionID = "s1"});
    c.start();
    ASSERT_TRUE(reaches("Reconnected"));
    EXPECT_EQ(std::count(log().texts.begin(), log().texts.end(), "Node unavailable · retrying"), 4);
    EXPECT_FALSE(log().saw("Saved session cwd mismatch · starting replacement"));
    EXPECT_TRUE(c.isConnected());  // "exited" that is no boolean counts as false
    EXPECT_EQ(node->count("create_session"), 0);
    EXPECT_TRUE(closeRequired.empty());
}

TEST_F(ControllerTest, CreateWithoutSessionIdIsANodeProblem) {
    node->on("create_session", [](const NodeRequestData&) {
        return reply({{"session_id", JSONValue::number(7)}});
    });
    auto& c = make({});
    c.start();
    ASSERT_TRUE(spinUntil([&] { return node->count("create_session") >= 3; }));
    EXPECT_EQ(c.status().toStdString(), "Node unavailable · retrying");
    EXPECT_TRUE(ready.empty());
    createGives("new1");
    ASSERT_TRUE(reaches("Connected"));
    EXPECT_FALSE(c.isReplacementSession());
}

TEST_F(ControllerTest, DroppedControllerStopsRetrying) {
    auto& c = make({.sessionID = "s1"});
    c.start();
    ASSERT_TRUE(spinUntil([&] { return node->count("list_sessions") >= 2; }));
    controllers.clear();
    logs.clear();
    ASSERT_TRUE(hl::test::drainDetachedWork());
    const int sent = node->count("list_sessions");
    spinFor(200ms);  // ten retry delays
    EXPECT_EQ(node->count("list_sessions"), sent);
}

TEST_F(ControllerTest, CloseDuringCreateHandsTheNewSessionToTheOwner) {
    createGives("new1");
    node->hold("create_session");
    auto& c = make({});
    c.start();
    ASSERT_TRUE(spinUntil([&] { return node->waiting("create_session") == 1; }));
    c.close();
    EXPECT_EQ(status(), "Closed");
    EXPECT_TRUE(closeRequired.empty());  // no id known yet
    node->release("create_session");
    ASSERT_TRUE(spinUntil([&] { return !closeRequired.empty(); }));
    EXPECT_EQ(closeRequired, std::vector<std::string>{"new1"});
    c.close();
    spinFor(30ms);
    EXPECT_EQ(closeRequired.size(), 1u);
    EXPECT_EQ(status(), "Closed");
    EXPECT_TRUE(ready.empty());
    EXPECT_EQ(node->count("poll"), 0);
}

TEST_F(ControllerTest, CloseTwiceReportsTheSavedIdOnce) {
    auto& c = make({.sessionID = "s1", .isReplacementSession = true});
    c.close();
    c.close();
    EXPECT_EQ(closeRequired, std::vector<std::string>{"s1"});
    EXPECT_FALSE(c.isReplacementSession());
    EXPECT_FALSE(c.reconnectCandidate().has_value());
    c.start();
    c.requestFocus();
    EXPECT_TRUE(node->operations().empty());
}

TEST_F(ControllerTest, SuspendDuringCreateKeepsTheNewSessionForLater) {
    createGives("new1");
    node->hold("create_session");
    auto& c = make({});
    RecordingSurface surface;
    c.setSurface(&surface);
    c.start();
    ASSERT_TRUE(spinUntil([&] { return node->waiting("create_session") == 1; }));
    c.suspend();
    EXPECT_EQ(status(), "Suspended locally · terminal remains on this Mac");
    EXPECT_EQ(c.surface(), nullptr);
    EXPECT_EQ(surface.resignCount, 1);
    node->release("create_session");
    ASSERT_TRUE(spinUntil([&] { return !ready.empty(); }));
    EXPECT_EQ(ready, std::vector<std::string>{"new1"});
    EXPECT_EQ(c.reconnectCandidate(), "new1");
    EXPECT_EQ(c.sessionID(), "new1");
    EXPECT_FALSE(c.isConnected());
    spinFor(50ms);
    EXPECT_EQ(node->count("poll"), 0);
    EXPECT_TRUE(closeRequired.empty());
    EXPECT_EQ(status(), "Suspended locally · terminal remains on this Mac");
    c.requestFocus();  // no way back
    c.close();         // still closes the kept id
    EXPECT_EQ(closeRequired, std::vector<std::string>{"new1"});
}

TEST_F(ControllerTest, ControllersDroppedWithRequestsInFlightAreNotTouched) {
    // One dropped during its start, one during a poll: the late replies find nobody.
    createGives("new1");
    node->hold("create_session");
    auto& starting = make({});
    starting.start();
    ASSERT_TRUE(spinUntil([&] { return node->waiting("create_session") == 1; }));
    starting.close();
    node->hold("poll");
    auto& polling = make({.sessionID = "s1"});
    node->on("list_sessions", [](const NodeRequestData&) { return sessionList({"s1"}); });
    node->on("poll", [](const NodeRequestData&) {
        return reply({{"output_base64", JSONValue::string(b64("late"))},
                      {"exited", JSONValue::boolean(true)}});
    });
    replayWith("/w", "");
    polling.start();
    ASSERT_TRUE(spinUntil([&] { return node->waiting("poll") == 1; }));
    polling.suspend();
    controllers.clear();
    logs.clear();
    closeRequired.clear();
    node->releaseAll();
    ASSERT_TRUE(hl::test::drainDetachedWork());
    spinFor(20ms);
    EXPECT_TRUE(closeRequired.empty());
}

TEST_F(ControllerTest, ReattachToAnExitedShellShowsItWithoutPolling) {
    node->on("list_sessions", [](const NodeRequestData&) { return sessionList({"s1"}); });
    replayWith("/w", "last words", true);
    auto& c = make({.sessionID = "s1"});
    c.start();
    ASSERT_TRUE(reaches("Exited"));
    EXPECT_FALSE(c.isConnected());
    EXPECT_EQ(c.sessionID(), "s1");
    EXPECT_EQ(ready, std::vector<std::string>{"s1"});
    EXPECT_EQ(c.rendererHistory(), std::vector<std::string>{b64("last words")});
    spinFor(40ms);
    EXPECT_EQ(node->count("poll"), 0);
}

TEST_F(ControllerTest, ShellExitDeliversItsLastOutputThenStopsPolling) {
    createGives("new1");
    node->on("poll", [this](const NodeRequestData&) {
        if (++step < 3) return reply();
        return reply({{"output_base64", JSONValue::string(b64("bye\r\n"))},
                      {"exited", JSONValue::boolean(true)}});
    });
    auto& c = make({});
    RecordingSurface surface;
    c.setSurface(&surface);
    c.start();
    ASSERT_TRUE(reaches("Exited"));
    EXPECT_EQ(surface.shown, "bye\r\n");
    EXPECT_FALSE(c.isConnected());
    EXPECT_FALSE(c.isPolling());
    EXPECT_EQ(c.sessionID(), "new1");  // the pane keeps pointing at the dead session
    spinFor(50ms);
    EXPECT_EQ(step, 3);
}

TEST_F(ControllerTest, FailedPollReconnectsToTheSameSession) {
    node->on("list_sessions", [](const NodeRequestData&) { return sessionList({"s1"}); });
    replayWith("/w", "");
    node->on("poll", [this](const NodeRequestData&) -> NodeResponse {
        if (++step == 2) return hl::decodeNodeReply("{\"ok\":1}");
        return reply();
    });
    auto& c = make({.sessionID = "s1", .isReplacementSession = true});
    c.start();
    ASSERT_TRUE(spinUntil([&] { return log().saw("Node unavailable · reconnecting"); }));
    ASSERT_TRUE(reaches("Replacement reconnected · original session was lost"));
    // A replacement stays one through every reattach.
    EXPECT_EQ(log().texts, (std::vector<std::string>{
                               "Reconnecting replacement…",
                               "Replacement reconnected · original session was lost",
                               "Node unavailable · reconnecting", "Reconnecting replacement…",
                               "Replacement reconnected · original session was lost"}));
    EXPECT_TRUE(c.isReplacementSession());
    EXPECT_EQ(ensureCalls, 1);
    EXPECT_EQ(node->count("replay_session"), 2);
    EXPECT_EQ(node->count("create_session"), 0);
}

TEST_F(ControllerTest, InputIsDroppedBeforeASessionAndSentInOrderAfter) {
    createGives("new1");
    node->hold("create_session");
    auto& c = make({});
    c.start();
    c.terminalSurfaceDidReceiveInput("lost");
    c.terminalSurfaceDidResize(80, 24);
    node->release("create_session");
    ASSERT_TRUE(reaches("Connected"));

    const std::string typed = "echo héllo\r";
    for (const QChar ch : QString::fromUtf8(typed.c_str()))
        c.terminalSurfaceDidReceiveInput(ch);
    c.terminalSurfaceDidResize(100, 30);
    // Input and resizes share one ordered queue: once the last has arrived, so has all before.
    // The size reported during the start reached the session as soon as it was there.
    ASSERT_TRUE(spinUntil([&] { return node->count("resize") >= 2; }));
    EXPECT_EQ(node->count("resize"), 2);
    std::string received;
    for (const auto& request : node->requests("input")) {
        EXPECT_EQ(textOf(request, "session_id"), "new1");
        received += hl::test::unb64(textOf(request, "input_base64"));
    }
    EXPECT_EQ(received, typed);
    const auto early = node->requests("resize").at(0);
    EXPECT_EQ(hl::test::numberOf(early, "cols"), 80);
    EXPECT_EQ(hl::test::numberOf(early, "rows"), 24);
    const auto resize = node->requests("resize").at(1);
    EXPECT_EQ(hl::test::numberOf(resize, "cols"), 100);
    EXPECT_EQ(hl::test::numberOf(resize, "rows"), 30);
}

// A new shell waits for its renderer's size, so that it never starts at the
// default size and is resized at once; a renderer that never measures itself
// gets the default size when the wait ends.
TEST_F(ControllerTest, ANewSessionStartsAtTheSizeTheRendererReported) {
    createGives("new1");
    auto& c = make({});
    RecordingSurface surface;
    c.setSurface(&surface);
    c.start();
    c.requestFocus();
    spinFor(100ms);
    EXPECT_EQ(node->count("create_session"), 0);
    c.terminalSurfaceDidResize(91, 27);
    ASSERT_TRUE(reaches("Connected"));

    auto& silent = make({});
    RecordingSurface quiet;
    silent.setSurface(&quiet);
    silent.start();
    ASSERT_TRUE(spinUntil([&] { return node->count("create_session") == 2; }));
    const auto creates = node->requests("create_session");
    EXPECT_EQ(hl::test::numberOf(creates[0], "cols"), 91);
    EXPECT_EQ(hl::test::numberOf(creates[0], "rows"), 27);
    EXPECT_EQ(hl::test::numberOf(creates[1], "cols"), 120);
    EXPECT_EQ(hl::test::numberOf(creates[1], "rows"), 36);
}

TEST_F(ControllerTest, InputWakesAnIdlePollLoop) {
    createGives("new1");
    // Only a wake can bring the next poll.
    auto& c = make({}, [](auto& hooks) { hooks.idlePollInterval = 60s; });
    c.start();
    ASSERT_TRUE(spinUntil([&] { return node->count("poll") == 1; }));
    c.terminalSurfaceDidReceiveInput("x");
    ASSERT_TRUE(spinUntil([&] { return node->count("poll") == 2; }));
    EXPECT_EQ(node->count("input"), 1);
}

TEST_F(ControllerTest, SurfaceReplacedDuringFloodSeesEveryByteOnce) {
    createGives("new1");
    limit = 150;
    const int chunks = 400;
    node->on("poll", [this](const NodeRequestData&) {
        if (step >= limit) return reply();
        const int n = step++;
        return reply(
            {{"output_base64", JSONValue::string(b64("line " + std::to_string(n) + "\n"))}});
    });
    std::string expected;
    for (int n = 0; n < chunks; ++n)
        expected += "line " + std::to_string(n) + "\n";

    auto& c = make({}, [](auto& hooks) {
        hooks.busyPollInterval = 0ms;
        hooks.targetLatencyMilliseconds = 1;
    });
    RecordingSurface first, second;
    c.setSurface(&first);
    c.start();
    ASSERT_TRUE(spinUntil([&] { return !first.writes.empty(); }));
    c.setSurface(&second);
    limit = chunks;
    const auto firstWrites = first.writes.size();
    ASSERT_TRUE(spinUntil([&] { return second.shown.size() == expected.size(); }));
    spinFor(30ms);
    EXPECT_EQ(second.shown, expected);
    EXPECT_EQ(first.writes.size(), firstWrites);
    EXPECT_EQ(second.replays.size(), 1u);
    EXPECT_GT(second.writes.size(), 0u);
}

}  // namespace
