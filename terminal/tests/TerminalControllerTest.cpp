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
    std::atomic<bool> nodeRefuses{false};
};

// Why the saved session is not reattached: the node lists no such session
// (only an entry that is no id), says "session cwd mismatch", answers with
// another directory, or with none.
class RefusedReattachTest : public ControllerTest, public ::testing::WithParamInterface<int> {
  protected:
    bool lost() const { return GetParam() == 0; }
    void scriptRefusal() {
        if (lost()) {
            node->on("list_sessions", [](const NodeRequestData&) {
                return reply({{"session_ids", JSONValue::array({JSONValue::number(1)})}});
            });
            return;
        }
        node->on("list_sessions", [](const NodeRequestData&) { return sessionList({"s1"}); });
        switch (GetParam()) {
            case 1:
                node->on("replay_session", [](const NodeRequestData&) -> NodeResponse {
                    throw NodeClientError::daemon("session cwd mismatch");
                });
                break;
            case 2:
                replayWith("/w/", "other directory's output");
                break;
            default:
                node->on("replay_session", [](const NodeRequestData&) { return reply(); });
        }
    }
};

TEST_P(RefusedReattachTest, StartsAValidatedReplacementAndLeavesTheSessionAlone) {
    scriptRefusal();
    createGives("new1");
    auto& c = make({.sessionID = "s1"});
    c.start();
    // A session that lives elsewhere is not lost: it is kept beside the replacement.
    const std::string connected =
        lost() ? "Replacement connected · saved session was lost"
               : "Replacement connected · previous shell still runs elsewhere";
    ASSERT_TRUE(reaches(connected));
    EXPECT_EQ(log().texts, (std::vector<std::string>{
                               "Reconnecting…",
                               lost() ? "Saved session unavailable · starting validated replacement"
                                      : "Saved session cwd mismatch · starting replacement",
                               "Starting validated replacement…", connected}));
    EXPECT_EQ(c.isReplacementSession(), lost());
    using Kept = std::vector<TerminalController::PreviousShell>;
    EXPECT_EQ(c.previousShells(), (lost() ? Kept{} : Kept{{"s1", ""}}));
    EXPECT_EQ(c.sessionID(), "new1");
    EXPECT_EQ(c.reconnectCandidate(), "new1");
    EXPECT_EQ(ready, std::vector<std::string>{"new1"});
    EXPECT_TRUE(closeRequired.empty());
    EXPECT_TRUE(c.rendererHistory().empty());
    const auto creates = node->requests("create_session");
    ASSERT_EQ(creates.size(), 1u);
    EXPECT_EQ(textOf(creates[0], "cwd"), "/w");

    // Closing the pane lets both go.
    c.close();
    using Ids = std::vector<std::string>;
    EXPECT_EQ(closeRequired, (lost() ? Ids{"new1"} : Ids{"new1", "s1"}));
}

TEST_P(RefusedReattachTest, WithoutCreationKeepsTheCandidateRetriesOnFocusAndClosesItOnce) {
    scriptRefusal();
    auto& c = make({.sessionID = "s1",
                    .isReplacementSession = true,
                    .sessionCreationIsAllowed = false,
                    .directoryIsReady = [&] { return directoryReady.load(); }});
    c.start();
    const std::string refused = lost() ? blocked : "Saved session cwd mismatch · reattach blocked";
    ASSERT_TRUE(reaches(refused));
    EXPECT_EQ(c.reconnectCandidate(), "s1");
    EXPECT_FALSE(c.sessionID().has_value());
    EXPECT_FALSE(c.isConnected());

    // The promised retry; a session that is gone while its folder is gone says so.
    directoryReady = false;
    c.requestFocus();
    ASSERT_TRUE(reaches(lost() ? unavailable : refused));
    EXPECT_EQ(node->count("list_sessions"), 2);
    EXPECT_EQ(node->count("create_session"), 0);
    EXPECT_EQ(c.reconnectCandidate(), "s1");
    EXPECT_TRUE(closeRequired.empty());
    EXPECT_TRUE(ready.empty());

    c.close();
    c.close();
    c.requestFocus();  // a closed terminal starts nothing again
    EXPECT_EQ(status(), "Closed");
    EXPECT_EQ(closeRequired, std::vector<std::string>{"s1"});
    EXPECT_FALSE(c.isReplacementSession());
    EXPECT_FALSE(c.reconnectCandidate().has_value());
}

INSTANTIATE_TEST_SUITE_P(Replies, RefusedReattachTest, ::testing::Values(0, 1, 2, 3));

TEST_F(ControllerTest, AFreshStartSendsNothingUntilItMayThenWaitsForASessionId) {
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

    // Once the directory is back, focus starts the terminal; a create reply
    // without a session id is a node problem, retried until the id comes.
    node->on("create_session", [](const NodeRequestData&) {
        return reply({{"session_id", JSONValue::number(7)}});
    });
    directoryReady = true;
    c.requestFocus();
    // Between two attempts the status says so (during one it reads "Connecting…").
    ASSERT_TRUE(spinUntil([&] {
        return node->count("create_session") >= 3 && c.status() == "Node unavailable · retrying";
    }));
    EXPECT_TRUE(ready.empty());
    createGives("new1");
    ASSERT_TRUE(spinUntil([&] { return c.status() == "Connected"; }));
    EXPECT_FALSE(c.isReplacementSession());
    EXPECT_EQ(ready, std::vector<std::string>{"new1"});
}

TEST_F(ControllerTest, AnAbsentOrNonsensicalNodeIsRetriedAndLosesNothing) {
    // Each attempt meets another failure; the saved id survives them all, and
    // every failure asks for the node to be started.
    node->on("list_sessions", [this](const NodeRequestData&) -> NodeResponse {
        switch (step++) {
            case 0:
                throw NodeClientError::connection();
            case 1:
                return hl::decodeNodeReply("garbage\n");  // the parser's own error
            case 2:
                return hl::decodeNodeReply("[]\n");  // invalid response
            case 3:
                throw NodeClientError::daemon("session cwd mismatch, sort of");
            default:
                return sessionList({"s1"});
        }
    });
    node->on("replay_session", [this](const NodeRequestData&) -> NodeResponse {
        if (step++ == 5) throw NodeClientError::daemon("Node request failed.");
        return reply({{"cwd", JSONValue::string("/w")}, {"exited", JSONValue::string("yes")}});
    });
    auto& c = make({.sessionID = "s1"});
    c.start();
    ASSERT_TRUE(reaches("Reconnected"));
    EXPECT_EQ(std::count(log().texts.begin(), log().texts.end(), "Node unavailable · retrying"), 5);
    EXPECT_FALSE(log().sawInOrder({"Saved session cwd mismatch · starting replacement"}));
    EXPECT_EQ(ensureCalls, 5);
    EXPECT_EQ(node->count("list_sessions"), 6);

    // A node that cannot start says why, with its way out, until one answers.
    nodeRefuses = true;
    node->on("list_sessions", [this](const NodeRequestData&) -> NodeResponse {
        if (nodeRefuses) throw NodeClientError::connection();
        return sessionList({"s1"});
    });
    auto& blockedByLock = make({.sessionID = "s1"}, [&](hl::TerminalControllerHooks& hooks) {
        hooks.nodeLaunchFailure = [this]() -> std::optional<std::string> {
            if (!nodeRefuses) return std::nullopt;
            return "the lock file /s.lock is held, and no node answers on /s. Remove /s.lock.";
        };
    });
    blockedByLock.start();
    ASSERT_TRUE(spinUntil([&] {
        return blockedByLock.status() ==
               "Node cannot start · the lock file /s.lock is held, and no node answers on /s. "
               "Remove /s.lock.";
    }));
    nodeRefuses = false;
    EXPECT_TRUE(spinUntil([&] { return blockedByLock.status() == "Reconnected"; }));
    EXPECT_TRUE(c.isConnected());  // "exited" that is no boolean counts as false
    EXPECT_EQ(node->count("create_session"), 0);
    EXPECT_TRUE(closeRequired.empty());
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

// Closed or suspended while its create is in flight: a closed terminal hands
// the new session to its owner to close, a suspended one keeps it for later.
TEST_F(ControllerTest, CloseOrSuspendDuringCreateKeepsTheNewSessionAccountedFor) {
    createGives("new1");
    node->hold("create_session");
    auto& closed = make({});
    closed.start();
    auto& c = make({});
    RecordingSurface surface;
    c.setSurface(&surface);
    c.start();
    ASSERT_TRUE(spinUntil([&] { return node->waiting("create_session") == 2; }));
    closed.close();
    EXPECT_EQ(closed.status(), "Closed");
    EXPECT_TRUE(closeRequired.empty());  // no id known yet
    c.suspend();
    EXPECT_EQ(status(), "Suspended locally · terminal remains on this computer");
    EXPECT_EQ(TerminalController::suspendedStatus(true),
              "Suspended locally · terminal remains on this Mac");
    EXPECT_EQ(c.surface(), nullptr);
    EXPECT_EQ(surface.resignCount, 1);
    node->releaseAll();
    ASSERT_TRUE(spinUntil([&] { return !ready.empty() && !closeRequired.empty(); }));
    EXPECT_EQ(closeRequired, std::vector<std::string>{"new1"});  // the closed one's
    EXPECT_EQ(ready, std::vector<std::string>{"new1"});          // the suspended one's
    closed.close();
    EXPECT_EQ(closed.status(), "Closed");
    EXPECT_EQ(c.reconnectCandidate(), "new1");
    EXPECT_EQ(c.sessionID(), "new1");
    EXPECT_FALSE(c.isConnected());
    spinFor(50ms);
    EXPECT_EQ(closeRequired.size(), 1u);
    EXPECT_EQ(node->count("poll"), 0);
    c.requestFocus();  // no way back
    c.close();         // still closes the kept id
    EXPECT_EQ(closeRequired, (std::vector<std::string>{"new1", "new1"}));
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

// A shell that had exited before it was reattached shows its last output,
// keeps its id and is never polled. (One that exits while polled: the real
// node's case in TerminalNodeTest.)
TEST_F(ControllerTest, AShellExitedBeforeItsReattachShowsItsLastOutputAndIsNotPolled) {
    node->on("list_sessions", [](const NodeRequestData&) { return sessionList({"s1"}); });
    replayWith("/w", "last words", true);
    auto& reattached = make({.sessionID = "s1"});
    reattached.start();
    ASSERT_TRUE(reaches("Exited · press Enter to start a new shell"));
    EXPECT_FALSE(reattached.isConnected());
    EXPECT_FALSE(reattached.isPolling());
    EXPECT_EQ(reattached.sessionID(), "s1");
    EXPECT_EQ(ready, std::vector<std::string>{"s1"});
    EXPECT_EQ(reattached.rendererHistory(), std::vector<std::string>{b64("last words")});
    spinFor(50ms);
    EXPECT_EQ(node->count("poll"), 0);
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
    ASSERT_TRUE(spinUntil([&] { return log().sawInOrder({"Node unavailable · reconnecting"}); }));
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

TEST_F(ControllerTest, InputIsDroppedBeforeASessionThenSentInOrderAndWakesThePollLoop) {
    createGives("new1");
    node->hold("create_session");
    // Only a wake can bring the next poll.
    auto& c = make({}, [](auto& hooks) { hooks.idlePollInterval = 60s; });
    c.start();
    c.terminalSurfaceDidReceiveInput("lost");
    c.terminalSurfaceDidResize(80, 24);
    node->releaseAll();
    ASSERT_TRUE(reaches("Connected"));
    ASSERT_TRUE(spinUntil([&] { return node->count("poll") == 1; }));

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
    EXPECT_TRUE(spinUntil([&] { return node->count("poll") >= 2; }));
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
