#include "delivery/ledger.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/database.h"
#include "support/test_databases.h"

namespace quillo::delivery {
namespace {

using quillo::testing_support::Engine;
using quillo::testing_support::TestDatabase;

class LedgerTest : public ::testing::TestWithParam<Engine> {
 protected:
  void SetUp() override {
    db_ = TestDatabase::Make(GetParam());
    connection_ = db_->Open();
    CreateLedgerSchema(*connection_);
  }

  static std::vector<MessageKey> Keys(int n) {
    std::vector<MessageKey> keys;
    for (int i = 0; i < n; ++i) {
      keys.push_back({"C1", "I1", "client" + std::to_string(i), "c" + std::to_string(i) + "@x.test",
                      "2026-03-0" + std::to_string(1 + i % 9)});
    }
    return keys;
  }

  std::unique_ptr<TestDatabase> db_;
  std::shared_ptr<Connection> connection_;
};

TEST_P(LedgerTest, CreatingTheSchemaTwiceIsHarmless) {
  EXPECT_NO_THROW(CreateLedgerSchema(*connection_));
}

TEST_P(LedgerTest, ALedgerFromBeforeRunDatesGainsTheColumnAndKeepsItsRows) {
  connection_->Execute("DROP TABLE quillo_deliveries");
  connection_->Execute(
      "CREATE TABLE quillo_deliveries (CampaignRecID VARCHAR(32) NOT NULL, CampaignItemRecID "
      "VARCHAR(32) NOT NULL, Account VARCHAR(32) NOT NULL, Email VARCHAR(255), State "
      "VARCHAR(16) NOT NULL, Attempts INTEGER NOT NULL DEFAULT 0, NextAttempt VARCHAR(19), "
      "LastReply VARCHAR(1000), Worker VARCHAR(300), Updated VARCHAR(19), PRIMARY KEY "
      "(CampaignRecID, CampaignItemRecID, Account))");
  connection_->Execute(
      "INSERT INTO quillo_deliveries (CampaignRecID, CampaignItemRecID, Account, Email, State, "
      "Attempts, Worker, Updated) VALUES ('C0', 'I0', 'old', 'old@x.test', 'accepted', 1, 'w', "
      "'2026-01-01 00:00:00')");
  CreateLedgerSchema(*connection_);
  Ledger ledger(connection_, "host-a:1");
  auto keys = Keys(1);
  ledger.Claim(keys, false);
  auto claimed = ledger.Rows(LedgerState::kClaimed);
  ASSERT_EQ(claimed.size(), 1u);
  EXPECT_EQ(claimed[0].key.run_date, keys[0].run_date);
  auto old = ledger.Rows(LedgerState::kAccepted);
  ASSERT_EQ(old.size(), 1u);
  EXPECT_EQ(old[0].key.email, "old@x.test");
  EXPECT_EQ(old[0].key.run_date, "");
}

TEST_P(LedgerTest, ANewMessageIsClaimedOnceOnly) {
  Ledger first(connection_, "host-a:1");
  Ledger second(db_->Open(), "host-b:2");
  auto keys = Keys(3);
  EXPECT_EQ(first.Claim(keys, false), std::vector<ClaimResult>(3, ClaimResult::kClaimed));
  EXPECT_EQ(second.Claim(keys, false), std::vector<ClaimResult>(3, ClaimResult::kBusy));
  EXPECT_EQ(first.Counts()[static_cast<int>(LedgerState::kClaimed)], 3);
}

TEST_P(LedgerTest, AGroupLargerThanOneStatementIsClaimedWholeAndAKeyGivenTwiceOnce) {
  Ledger ledger(connection_, "host-a:1");
  auto keys = Keys(450);
  keys.push_back(keys[7]);  // The same message twice in one group.
  auto claims = ledger.Claim(keys, false);
  ASSERT_EQ(claims.size(), 451u);
  EXPECT_EQ(std::count(claims.begin(), claims.end(), ClaimResult::kClaimed), 450);
  EXPECT_EQ(claims[7], ClaimResult::kClaimed);
  EXPECT_EQ(claims[450], ClaimResult::kBusy);
  EXPECT_EQ(ledger.Counts()[static_cast<int>(LedgerState::kClaimed)], 450);
}

TEST_P(LedgerTest, OutcomesOfAGroupAreWrittenTogetherOntoTheRowsThisWorkerHolds) {
  Ledger ledger(connection_, "host-a:1");
  Ledger other(db_->Open(), "host-b:2");
  auto keys = Keys(430);
  ledger.Claim({keys.data(), 420}, false);
  other.Claim({keys.data() + 420, 10}, false);
  std::vector<LedgerOutcome> outcomes;
  for (size_t i = 0; i < keys.size(); ++i) {
    const LedgerState state = i % 3 == 0   ? LedgerState::kAccepted
                              : i % 3 == 1 ? LedgerState::kDeferred
                                           : LedgerState::kRefused;
    outcomes.push_back({keys[i], state, "reply " + std::to_string(i),
                        state == LedgerState::kDeferred ? LedgerTime(3600) : std::string()});
  }
  ledger.Begin();
  ledger.RecordAll(outcomes);
  ledger.Commit();
  auto counts = ledger.Counts();
  EXPECT_EQ(counts[static_cast<int>(LedgerState::kAccepted)], 140);
  EXPECT_EQ(counts[static_cast<int>(LedgerState::kDeferred)], 140);
  EXPECT_EQ(counts[static_cast<int>(LedgerState::kRefused)], 140);
  // The ten rows the other worker holds are left as they were.
  EXPECT_EQ(counts[static_cast<int>(LedgerState::kClaimed)], 10);
  auto deferred = ledger.Rows(LedgerState::kDeferred);
  ASSERT_EQ(deferred.size(), 140u);
  EXPECT_EQ(deferred[0].attempts, 1);
  EXPECT_FALSE(deferred[0].next_attempt.empty());
  EXPECT_EQ(deferred[0].worker, "host-a:1");
  EXPECT_EQ(deferred[0].last_reply.rfind("reply ", 0), 0u);
  auto refused = ledger.Rows(LedgerState::kRefused);
  ASSERT_EQ(refused.size(), 140u);
  EXPECT_TRUE(refused[0].next_attempt.empty());
}

TEST_P(LedgerTest, AnAcceptedMessageIsNeverClaimedAgain) {
  Ledger ledger(connection_, "host-a:1");
  auto keys = Keys(1);
  ledger.Claim(keys, false);
  ledger.Begin();
  ledger.Record(keys[0], LedgerState::kAccepted, "250 2.0.0 Ok");
  ledger.Commit();
  EXPECT_EQ(ledger.Claim(keys, true), std::vector<ClaimResult>{ClaimResult::kAccepted});
  Ledger other(db_->Open(), "host-b:2");
  EXPECT_EQ(other.Claim(keys, true), std::vector<ClaimResult>{ClaimResult::kAccepted});
}

TEST_P(LedgerTest, ASuppressedMessageIsClaimedAgainAtTheNextSend) {
  Ledger ledger(connection_, "host-a:1");
  auto keys = Keys(1);
  ledger.Claim(keys, false);
  ledger.Begin();
  ledger.Record(keys[0], LedgerState::kSuppressed, "suppressed: unsubscribed");
  ledger.Commit();
  EXPECT_EQ(ledger.Counts()[static_cast<int>(LedgerState::kSuppressed)], 1);
  EXPECT_EQ(ledger.Rows(LedgerState::kSuppressed)[0].last_reply, "suppressed: unsubscribed");
  // Off the list again, the message can go: the sender claims it.
  Ledger other(db_->Open(), "host-b:2");
  EXPECT_EQ(other.Claim(keys, false), std::vector<ClaimResult>{ClaimResult::kClaimed});
}

TEST_P(LedgerTest, DeferredAndFailedMessagesAreClaimedAgainWhenDueAndARefusalIsFinal) {
  Ledger ledger(connection_, "host-a:1");
  auto keys = Keys(3);
  ledger.Claim(keys, false);
  ledger.Begin();
  ledger.Record(keys[0], LedgerState::kDeferred, "451 4.7.1 later", LedgerTime(3600));
  ledger.Record(keys[1], LedgerState::kRefused, "550 5.1.1 unknown");
  ledger.Record(keys[2], LedgerState::kFailed, "connection reset", LedgerTime(-1));
  ledger.Commit();
  Ledger other(db_->Open(), "host-b:2");
  EXPECT_EQ(
      other.Claim(keys, false),
      (std::vector<ClaimResult>{ClaimResult::kBusy, ClaimResult::kRefused, ClaimResult::kClaimed}));
  auto claimed = other.Rows(LedgerState::kClaimed);
  ASSERT_EQ(claimed.size(), 1u);
  EXPECT_EQ(claimed[0].key.client, keys[2].client);
  EXPECT_EQ(claimed[0].attempts, 1);
  EXPECT_EQ(other.Rows(LedgerState::kRefused).size(), 1u);
}

TEST_P(LedgerTest, ManyMessagesAlreadyInTheLedgerAreSortedOutTogether) {
  // More rows than one statement takes, in every state a claim must tell apart.
  Ledger ledger(connection_, "host-a:1");
  auto keys = Keys(203);
  ledger.Claim(keys, false);
  std::vector<LedgerOutcome> outcomes;
  for (size_t i = 0; i < keys.size(); ++i) {
    switch (i % 4) {
      case 0:
        outcomes.push_back({keys[i], LedgerState::kAccepted, "250 ok", {}});
        break;
      case 1:
        outcomes.push_back({keys[i], LedgerState::kDeferred, "451 later", LedgerTime(-1)});
        break;
      case 2:
        outcomes.push_back({keys[i], LedgerState::kRefused, "550 no", {}});
        break;
      default:
        outcomes.push_back({keys[i], LedgerState::kFailed, "reset", LedgerTime(3600)});
    }
  }
  ledger.Begin();
  ledger.RecordAll(outcomes);
  ledger.Commit();
  Ledger other(db_->Open(), "host-b:2");
  keys.push_back(keys[1]);  // A due message given twice is claimed once.
  auto claims = other.Claim(keys, false);
  ASSERT_EQ(claims.size(), 204u);
  for (size_t i = 0; i < 203; ++i) {
    const ClaimResult expected = i % 4 == 0   ? ClaimResult::kAccepted
                                 : i % 4 == 1 ? ClaimResult::kClaimed
                                 : i % 4 == 2 ? ClaimResult::kRefused
                                              : ClaimResult::kBusy;  // Not due yet.
    EXPECT_EQ(claims[i], expected) << i;
  }
  EXPECT_EQ(claims[203], ClaimResult::kBusy);
  auto counts = other.Counts();
  EXPECT_EQ(counts[static_cast<int>(LedgerState::kClaimed)], 51);
  EXPECT_EQ(counts[static_cast<int>(LedgerState::kFailed)], 50);
  for (const LedgerRow& row : other.Rows(LedgerState::kClaimed)) EXPECT_EQ(row.worker, "host-b:2");
}

TEST_P(LedgerTest, ClaimsOfAStoppedWorkerBecomeInDoubtAndStayUnsent) {
  // A worker of this host whose process has ended.
  pid_t child = fork();
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  std::string gone = std::string(host) + ":" + std::to_string(child);

  auto keys = Keys(2);
  Ledger stopped(connection_, gone);
  stopped.Claim(keys, false);

  Ledger next(db_->Open(), Ledger::ThisWorker());
  EXPECT_EQ(next.MarkAbandonedClaims(), 2);
  EXPECT_EQ(next.Claim(keys, false), std::vector<ClaimResult>(2, ClaimResult::kInDoubt));
  auto in_doubt = next.Rows(LedgerState::kInDoubt, "C1");
  ASSERT_EQ(in_doubt.size(), 2u);
  EXPECT_EQ(in_doubt[0].worker, gone);
  // The campaign date each message was made for is kept for reports.
  EXPECT_EQ(in_doubt[0].key.run_date, keys[0].run_date);
  EXPECT_EQ(in_doubt[1].key.run_date, keys[1].run_date);
  EXPECT_EQ(next.Claim(keys, true), std::vector<ClaimResult>(2, ClaimResult::kClaimed));
}

TEST_P(LedgerTest, ALiveWorkersRecentClaimsAreLeftAlone) {
  auto keys = Keys(1);
  Ledger other_host(connection_, "elsewhere.example:4242");
  other_host.Claim(keys, false);
  Ledger next(db_->Open(), Ledger::ThisWorker());
  EXPECT_EQ(next.MarkAbandonedClaims(), 0);
  EXPECT_EQ(next.Claim(keys, false), std::vector<ClaimResult>{ClaimResult::kBusy});
}

TEST_P(LedgerTest, ARolledBackGroupLeavesTheClaims) {
  Ledger ledger(connection_, "host-a:1");
  auto keys = Keys(1);
  ledger.Claim(keys, false);
  ledger.Begin();
  ledger.Record(keys[0], LedgerState::kAccepted, "250 ok");
  ledger.Rollback();
  EXPECT_EQ(ledger.Rows(LedgerState::kClaimed).size(), 1u);
}

TEST_P(LedgerTest, ConcurrentClaimersShareTheMessagesWithoutOverlap) {
  constexpr int kMessages = 400;
  constexpr int kWorkers = 4;
  auto keys = Keys(kMessages);
  std::vector<std::vector<std::string>> won(kWorkers);
  std::vector<std::thread> threads;
  for (int w = 0; w < kWorkers; ++w) {
    threads.emplace_back([&, w] {
      Ledger ledger(db_->Open(), "host:" + std::to_string(100 + w));
      for (size_t start = 0; start < keys.size(); start += 25) {
        std::span<const MessageKey> group(keys.data() + start, 25);
        auto results = ledger.Claim(group, false);
        for (size_t i = 0; i < results.size(); ++i) {
          if (results[i] == ClaimResult::kClaimed) won[w].push_back(group[i].client);
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  std::set<std::string> all;
  size_t total = 0;
  for (const auto& list : won) {
    total += list.size();
    all.insert(list.begin(), list.end());
  }
  EXPECT_EQ(total, static_cast<size_t>(kMessages));
  EXPECT_EQ(all.size(), static_cast<size_t>(kMessages));
}

INSTANTIATE_TEST_SUITE_P(Engines, LedgerTest, quillo::testing_support::TestEngines(),
                         quillo::testing_support::EngineName);

}  // namespace
}  // namespace quillo::delivery
