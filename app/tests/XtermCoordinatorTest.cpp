// The coordinator's ordering rules against a substitute page: writes before
// "ready", rebinding, the deferred start, script messages and the link check.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "XtermCoordinator.h"

using hl::TerminalController;
using hl::XtermCoordinator;

namespace {

// Records every script the coordinator evaluates.
class RecordingPage : public hl::TerminalWebPage {
  public:
    void call(const QString& script) override { scripts.push_back(script); }
    std::vector<QString> scripts;
};

// A node that is never there; the controllers below never get past their start.
class AbsentNode : public hl::NodeClientTransport {
  public:
    hl::NodeResponse request(const std::string&, const hl::NodeRequestData&) const override {
        throw hl::NodeClientError::connection();
    }
};

// A controller that records what its renderer tells it.
class RecordingController : public TerminalController {
  public:
    RecordingController()
        : TerminalController(std::string("saved"), "/tmp", false, true, true, {},
                             QStringLiteral("Working directory unavailable · focus to retry"),
                             QStringLiteral("Saved workspace data is unsafe · new session blocked"),
                             std::make_shared<AbsentNode>(),
                             hl::TerminalControllerHooks{[] {}, std::chrono::hours(1)}) {}
    void terminalSurfaceDidReceiveInput(const QString& text) override { inputs.push_back(text); }
    void terminalSurfaceDidResize(int columns, int rows) override {
        sizes.emplace_back(columns, rows);
    }
    // start() shows "Reconnecting…" at once for a saved session.
    bool wasStarted() const { return status() != "Connecting…"; }
    std::vector<QString> inputs;
    std::vector<std::pair<int, int>> sizes;
};

class XtermCoordinatorTest : public ::testing::Test {
  protected:
    XtermCoordinatorTest() {
        coordinator.setWebPage(&page);
        coordinator.openExternal = [this](const QUrl& url) { opened.push_back(url); };
    }
    void runDeferred() {
        auto work = std::move(deferred);
        deferred.clear();
        for (auto& each : work)
            each();
    }

    std::vector<std::function<void()>> deferred;
    RecordingPage page;
    RecordingController a, b;
    XtermCoordinator coordinator{
        &a, [this](std::function<void()> work) { deferred.push_back(std::move(work)); }};
    std::vector<QUrl> opened;
};

TEST_F(XtermCoordinatorTest, WritesWaitForReadyThenTheStartFollows) {
    coordinator.bind(&a);
    ASSERT_EQ(coordinator.pending().size(), 1u) << "binding repaints from the history";
    EXPECT_TRUE(coordinator.pending()[0].second);
    coordinator.write("AAA=");
    coordinator.replaceWithReplay("QkJC");
    coordinator.focus();  // not queued: before ready it does nothing
    coordinator.search("x", false);
    EXPECT_TRUE(page.scripts.empty());
    EXPECT_EQ(coordinator.pending().size(), 3u);

    coordinator.didReceiveScriptMessage("ready", QJsonValue());
    ASSERT_EQ(page.scripts.size(), 3u);
    EXPECT_EQ(page.scripts[0], "writeBase64(\"\", true)");
    EXPECT_EQ(page.scripts[1], "writeBase64(\"AAA=\", false)");
    EXPECT_EQ(page.scripts[2], "writeBase64(\"QkJC\", true)");
    EXPECT_TRUE(coordinator.pending().empty());
    EXPECT_FALSE(a.wasStarted()) << "the start runs after the current update";
    runDeferred();
    EXPECT_TRUE(a.wasStarted());

    coordinator.write("Q0M=");
    coordinator.search("a \"b\"", true);
    coordinator.resignFocus();
    EXPECT_EQ(page.scripts[3], "writeBase64(\"Q0M=\", false)");
    EXPECT_EQ(page.scripts[4], "search(\"a \\\"b\\\"\", true)");
    EXPECT_EQ(page.scripts[5], "blur()");
}

TEST_F(XtermCoordinatorTest, RebindingDropsTheOldControllersWritesAndStartsOnlyTheLatest) {
    coordinator.bind(&a);
    coordinator.write("AAA=");
    coordinator.bind(&b);
    EXPECT_EQ(a.surface(), nullptr);
    EXPECT_EQ(b.surface(), &coordinator);
    ASSERT_EQ(coordinator.pending().size(), 1u) << "only b's repaint is left";

    coordinator.terminalDidBecomeReady();
    coordinator.bind(&b);  // the same controller again asks for no second start
    EXPECT_EQ(deferred.size(), 1u);
    coordinator.bind(&a);  // a rebinding before the deferred run wins
    runDeferred();
    EXPECT_TRUE(a.wasStarted());
    EXPECT_FALSE(b.wasStarted());

    // A controller that has since been given another surface is left alone.
    coordinator.bind(&b);
    XtermCoordinator other(&b);
    other.bind(&b);
    coordinator.bind(&a);
    EXPECT_EQ(b.surface(), &other);
    EXPECT_EQ(a.surface(), &coordinator);
}

TEST_F(XtermCoordinatorTest, AFocusAskedForWhileLoadingFollowsTheWrites) {
    int hostFocus = 0;
    coordinator.onFocus = [&] { ++hostFocus; };
    coordinator.bind(&a);
    a.requestFocus();
    EXPECT_TRUE(page.scripts.empty()) << "the page is not up yet";
    EXPECT_GE(hostFocus, 1) << "the host view takes the toolkit's focus at once";
    coordinator.terminalDidBecomeReady();
    ASSERT_EQ(page.scripts.size(), 2u);
    EXPECT_EQ(page.scripts[1], "focus()");
}

TEST_F(XtermCoordinatorTest, DetachingBeforeTheDeferredRunStartsNothing) {
    coordinator.bind(&a);
    coordinator.terminalDidBecomeReady();
    coordinator.detach();
    runDeferred();
    EXPECT_FALSE(a.wasStarted());
    EXPECT_EQ(a.surface(), nullptr);
    EXPECT_FALSE(coordinator.isReady());
    coordinator.write("AAA=");
    EXPECT_EQ(coordinator.pending().size(), 1u);
}

TEST_F(XtermCoordinatorTest, ScriptMessagesAreCheckedBeforeTheyReachTheController) {
    coordinator.bind(&a);
    coordinator.didReceiveScriptMessage("input", QJsonValue("ls\r"));
    coordinator.didReceiveScriptMessage("input", QJsonValue(7));
    coordinator.didReceiveScriptMessage("resize", QJsonObject{{"cols", 100}, {"rows", 30}});
    coordinator.didReceiveScriptMessage("resize", QJsonObject{{"cols", 100.5}, {"rows", 30}});
    coordinator.didReceiveScriptMessage("resize", QJsonObject{{"cols", 100}});
    coordinator.didReceiveScriptMessage("resize", QJsonValue("100x30"));
    coordinator.didReceiveScriptMessage("unknown", QJsonValue("x"));
    EXPECT_EQ(a.inputs, std::vector<QString>{"ls\r"});
    EXPECT_EQ(a.sizes, (std::vector<std::pair<int, int>>{{100, 30}}));

    for (const char* link :
         {"https://example.org/a?b=1", "HTTP://example.org/x", "file:///etc/passwd", "mailto:a@b.c",
          "javascript:alert(1)", "https:///nohost", "not a url", "custom://host/x", "https:"}) {
        coordinator.didReceiveScriptMessage("openLink", QJsonValue(link));
    }
    coordinator.didReceiveScriptMessage("openLink", QJsonValue(3));
    ASSERT_EQ(opened.size(), 2u);
    EXPECT_EQ(opened[0].toString(), "https://example.org/a?b=1");
    EXPECT_EQ(opened[1].host(), "example.org");
    EXPECT_EQ(opened[1].path(), "/x");
}

TEST(XtermCoordinatorJsonTest, LiteralsReadBackAsTheSameText) {
    for (const QString& text :
         {QString("plain"), QString("quote \" and \\ backslash"), QString("line\nfeed\t"),
          QString("héllo ✓ 𝄞"), QString(""), QString("</script>")}) {
        const QString literal = XtermCoordinator::json(text);
        ASSERT_TRUE(literal.startsWith('"') && literal.endsWith('"')) << literal.toStdString();
        const QJsonDocument back = QJsonDocument::fromJson(("[" + literal + "]").toUtf8());
        ASSERT_TRUE(back.isArray()) << literal.toStdString();
        EXPECT_EQ(back.array().at(0).toString(), text);
        EXPECT_FALSE(literal.contains('\n'));
    }
}

}  // namespace
