// The close ledger against a scripted transport: durable pending set,
// acknowledgement rules and the retry budget. WorkspaceNodeTest runs it against
// a socket nobody serves, and the window tests against a real node.
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <mutex>

#include "SessionCloseLedger.h"
#include "WorkspaceTestSupport.h"

using namespace std::chrono_literals;
using hl::NodeClientError;
using hl::NodeResponse;
using hl::SessionCloseLedger;
using hl::test::spinFor;
using hl::test::spinUntil;

namespace {

// Answers close_session from a script of replies; an empty script means no node.
class ScriptedTransport : public hl::NodeClientTransport {
  public:
    using Reply = std::optional<NodeResponse>;
    explicit ScriptedTransport(std::deque<Reply> replies = {}) : replies_(std::move(replies)) {}

    NodeResponse request(const std::string& op, const hl::NodeRequestData& data) const override {
        std::lock_guard guard(mutex_);
        requests_.push_back(op + " " + std::get<std::string>(data.at("session_id")));
        Reply reply;
        if (!replies_.empty()) {
            reply = replies_.front();
            replies_.pop_front();
        }
        if (!reply) throw NodeClientError::connection();
        return *reply;
    }
    std::vector<std::string> requests() const {
        std::lock_guard guard(mutex_);
        return requests_;
    }

  private:
    mutable std::mutex mutex_;
    mutable std::deque<Reply> replies_;
    mutable std::vector<std::string> requests_;
};

NodeResponse replyWith(std::map<std::string, hl::JSONValue> data) {
    return NodeResponse{std::move(data)};
}

class SessionCloseLedgerTest : public ::testing::Test {
  protected:
    std::shared_ptr<SessionCloseLedger> ledger(std::shared_ptr<ScriptedTransport> transport) {
        return SessionCloseLedger::create(prefs_, transport, {[this] { ++ensureCalls_; }, 20ms});
    }
    std::vector<std::string> stored() const {
        return prefs_->textList(SessionCloseLedger::storageKey)
            .value_or(std::vector<std::string>{"<none>"});
    }

    hl::test::TempDir dir_;
    std::shared_ptr<hl::Preferences> prefs_ = hl::Preferences::open(dir_ / "p.sqlite3");
    std::atomic<int> ensureCalls_{0};
};

TEST_F(SessionCloseLedgerTest, PendingSetIsStoredSortedAndReadBack) {
    auto transport = std::make_shared<ScriptedTransport>();
    auto first = ledger(transport);
    EXPECT_EQ(prefs_->object(SessionCloseLedger::storageKey), std::nullopt)
        << "creating writes nothing";
    first->record("s-3");
    first->record("s-1");
    first->record("s-2");
    first->record("s-1");
    EXPECT_EQ(stored(), (std::vector<std::string>{"s-1", "s-2", "s-3"}));
    first->acknowledge("s-2");
    first->acknowledge("s-9");
    EXPECT_EQ(stored(), (std::vector<std::string>{"s-1", "s-3"}));
    EXPECT_EQ(ledger(transport)->pending(), (std::set<QString>{"s-1", "s-3"}));
    first->acknowledge("s-1");
    first->acknowledge("s-3");
    EXPECT_EQ(stored(), std::vector<std::string>{}) << "an empty set is an empty array";

    prefs_->set(SessionCloseLedger::storageKey, std::string("not a list"));
    EXPECT_TRUE(ledger(transport)->pending().empty());
    EXPECT_EQ(prefs_->text(SessionCloseLedger::storageKey), "not a list") << "left as it was";
}

TEST_F(SessionCloseLedgerTest, ClosedOrAbsentAcknowledgesAnythingElseKeepsTheIdPending) {
    struct Case {
        std::optional<NodeResponse> reply;
        bool acknowledged;
    };
    const Case cases[] = {
        {replyWith({{"closed", hl::JSONValue::boolean(true)}}), true},
        {replyWith({{"absent", hl::JSONValue::boolean(true)}}), true},
        {replyWith({{"closed", hl::JSONValue::boolean(false)},
                    {"absent", hl::JSONValue::boolean(false)}}),
         false},
        {replyWith({{"closed", hl::JSONValue::number(1)}}), false},
        {replyWith({}), false},
        {std::nullopt, false},
    };
    for (const auto& c : cases) {
        auto transport =
            std::make_shared<ScriptedTransport>(std::deque<ScriptedTransport::Reply>{c.reply});
        auto subject = ledger(transport);
        subject->record("s");
        ensureCalls_ = 0;
        subject->retry("s", 0);
        ASSERT_TRUE(spinUntil([&] { return transport->requests().size() == 1; }));
        if (c.acknowledged) {
            EXPECT_TRUE(spinUntil([&] { return subject->pending().count("s") == 0; }));
        } else {
            spinFor(150ms);
            EXPECT_EQ(subject->pending().count("s"), 1u);
        }
        EXPECT_EQ(transport->requests().size(), 1u) << "attempts 0 sends one request";
        EXPECT_EQ(ensureCalls_, 0) << "no further attempt, so no node start";
        subject->acknowledge("s");
    }
}

TEST_F(SessionCloseLedgerTest, TheBudgetEndsAtAnAcknowledgementAndALaterAnswerCloses) {
    // Acknowledged during the pause: no further request follows.
    auto late = std::make_shared<ScriptedTransport>();
    auto slow = SessionCloseLedger::create(prefs_, late, {[] {}, 150ms});
    slow->record("gone");
    slow->retry("gone");
    ASSERT_TRUE(spinUntil([&] { return late->requests().size() == 1; }));
    slow->acknowledge("gone");
    spinFor(400ms);
    EXPECT_EQ(late->requests().size(), 1u);

    // A later answer succeeds within the budget.
    auto recovering = std::make_shared<ScriptedTransport>(std::deque<ScriptedTransport::Reply>{
        std::nullopt, replyWith({{"closed", hl::JSONValue::boolean(true)}})});
    auto second = ledger(recovering);
    second->record("back");
    second->retryAll();
    ASSERT_TRUE(spinUntil([&] { return second->pending().count("back") == 0; }));
    EXPECT_EQ(recovering->requests().size(), 2u);
}

}  // namespace
