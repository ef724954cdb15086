// The workspace against a real node: the close ledger acknowledging a live
// session and keeping an id while the node is away, and a restart of the
// store that brings every terminal back to its own shell with its history.
#include <gtest/gtest.h>

#include "NodeHarness.h"
#include "WorkspaceTestSupport.h"

using hl::SessionCloseLedger;
using hl::WorkspaceStore;
using hl::node::testing::NodeHarness;
using hl::test::history;
using hl::test::spinFor;
using hl::test::spinUntil;
using hl::test::StoreFixture;
using namespace std::chrono_literals;

namespace {

// A real client that counts what it sends.
class CountingClient final : public hl::NodeClientTransport {
  public:
    explicit CountingClient(std::string path) : client_(std::move(path)) {}
    hl::NodeResponse request(const std::string& op,
                             const hl::NodeRequestData& data) const override {
        ++count_;
        return client_.request(op, data);
    }
    int count() const { return count_; }

  private:
    hl::UnixSocketClient client_;
    mutable std::atomic<int> count_{0};
};

bool nodeHolds(const NodeHarness& node, const std::string& id) {
    const auto ids = node.client().request("list_sessions")["session_ids"].arrayValue();
    for (const auto& each : ids.value_or(std::vector<hl::JSONValue>{})) {
        if (each.stringValue() == id) return true;
    }
    return false;
}

TEST(WorkspaceNodeTest, TheLedgerClosesLiveSessionsAndKeepsIdsWhileTheNodeIsAway) {
    NodeHarness node;
    StoreFixture f;
    const std::string live = node.createSession();
    auto ledger = SessionCloseLedger::create(
        f.prefs, std::make_shared<hl::UnixSocketClient>(node.socketPath()), {[] {}, 50ms});
    ledger->record(QString::fromStdString(live));
    ledger->retry(QString::fromStdString(live));
    ASSERT_TRUE(spinUntil([&] { return ledger->pending().empty(); }));
    EXPECT_FALSE(nodeHolds(node, live));

    // No node on this socket: three requests, and the id stays.
    auto absent = std::make_shared<CountingClient>((f.base / "nobody.sock").string());
    int starts = 0;
    auto waiting = SessionCloseLedger::create(f.prefs, absent, {[&] { ++starts; }, 50ms});
    waiting->record("s-away");
    waiting->retry("s-away");
    ASSERT_TRUE(spinUntil([&] { return absent->count() == 3; }));
    spinFor(200ms);
    EXPECT_EQ(absent->count(), 3);
    EXPECT_EQ(starts, 2);
    auto rebuilt = SessionCloseLedger::create(f.prefs, absent);
    EXPECT_EQ(rebuilt->pending(), std::set<QString>{"s-away"});
}

TEST(WorkspaceNodeTest, ARestartedStoreReattachesEveryPaneToItsOwnShell) {
    NodeHarness node;
    StoreFixture f;
    auto project = f.project("alpha");
    auto client = std::make_shared<hl::UnixSocketClient>(node.socketPath());
    auto build = [&] { return f.makeStore({project}, true, client); };
    auto connectedCount = [](WorkspaceStore& store, const QString& status) {
        int n = 0;
        for (auto* tab : store.tabs()) {
            for (auto* pane : tab->panes()) {
                if (pane->controller().status() == status) ++n;
            }
        }
        return n;
    };

    std::map<QUuid, QString> sessions;
    std::string closedSession;
    {
        auto store = build();
        store->openProject(project);
        store->split(true);
        store->split(false);
        store->createScratchTerminal();
        ASSERT_TRUE(spinUntil([&] { return connectedCount(*store, "Connected") == 4; }, 20s));

        // Something to find again after the restart.
        auto* first = store->tabs()[0]->panes()[0];
        // Typed only once the shell shows its prompt, so that its start-up cannot swallow it.
        ASSERT_TRUE(spinUntil([&] { return !history(first->controller()).empty(); }, 20s));
        spinFor(300ms);
        first->controller().terminalSurfaceDidReceiveInput("echo marker-$((6*7))\n");
        ASSERT_TRUE(spinUntil(
            [&] { return history(first->controller()).find("marker-42") != std::string::npos; },
            20s))
            << "history: " << history(first->controller()) << " status "
            << first->controller().status().toStdString() << " polling "
            << first->controller().isPolling();

        // One pane is closed before the restart.
        store->selectWorkspace("project:" + project.id);
        store->selectPane(store->tabs()[0]->panes()[2]->id());
        closedSession = store->tabs()[0]->panes()[2]->sessionID()->toStdString();
        store->closeSelectedPane();
        for (auto* tab : store->tabs()) {
            for (auto* pane : tab->panes())
                sessions[pane->id()] = *pane->sessionID();
        }
        ASSERT_TRUE(spinUntil([&] { return store->closeLedger().pending().empty(); }));
    }  // the store goes; the shells stay in the node
    EXPECT_FALSE(nodeHolds(node, closedSession));

    auto store = build();
    ASSERT_EQ(store->tabs().size(), 2u) << store->errorMessageText().toStdString();
    EXPECT_EQ(store->tabs()[0]->layout().signature(), "H(P,P)");
    for (auto* tab : store->tabs()) {
        for (auto* pane : tab->panes()) {
            EXPECT_EQ(pane->sessionID(), sessions.at(pane->id()));
            pane->controller().requestFocus();
        }
    }
    ASSERT_TRUE(spinUntil([&] { return connectedCount(*store, "Reconnected") == 3; }, 20s));
    for (auto* tab : store->tabs()) {
        for (auto* pane : tab->panes())
            EXPECT_EQ(pane->controller().sessionIDText(), sessions.at(pane->id()));
    }
    EXPECT_NE(history(store->tabs()[0]->panes()[0]->controller()).find("marker-42"),
              std::string::npos)
        << "the history is replayed";
}

}  // namespace
