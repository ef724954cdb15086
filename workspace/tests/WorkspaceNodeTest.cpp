// The close ledger on a real socket that no node serves: a bounded number of
// requests, a node start asked for between them, and the id kept for the next
// start. Closing against a live node is driven through the window
// (ApplicationWindowTest), whose restart finds every other shell again.
#include <gtest/gtest.h>

#include "WorkspaceTestSupport.h"

using hl::SessionCloseLedger;
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

TEST(WorkspaceNodeTest, TheLedgerKeepsIdsWhileTheNodeIsAway) {
    StoreFixture f;
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

}  // namespace
