// The campaign processor on every engine: enrolment selection, the three
// kinds, the message fields, the queue, progress events and failures.
#include "campaign/dm_campaign_processor.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "campaign/dmmsgqueue.h"
#include "platform/clock.h"
#include "platform/database.h"
#include "platform/date.h"
#include "platform/file.h"
#include "records/record_test_util.h"
#include "support/error_matchers.h"

namespace quillo {
namespace {

using records_test::CountRows;
using records_test::FixedIdGenerator;

// 2026-03-20, the run date of most tests.
const Date kRunDate = DateSerial(2026, 3, 20);

// The run date less `days` days.
Date Before(int days) { return Date(kRunDate.value - days); }

std::string Literal(Date d) {
  char text[64];
  std::snprintf(text, sizeof text, "{ts '%04d-%02d-%02d %02d:%02d:%02d'}", Year(d), Month(d),
                Day(d), Hour(d), Minute(d), Second(d));
  return text;
}

class Processor : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    connection_ = records_test::OpenDatabase(GetParam());
    ASSERT_NE(connection_, nullptr);
    generator_ = std::make_shared<FixedIdGenerator>();
  }

  void Exec(const std::string& sql) { connection_->Execute(sql); }

  void AddCampaign(const std::string& id, int kind, const std::string& name = "Spring") {
    Exec(
        "INSERT INTO dmmrktcmp (RecID, CampaignName, CampaignType, Interval, Disabled, Reminder, "
        "CampaignDescription, CampaignEffectiveDate) VALUES ('" +
        id + "', '" + name + "', " + std::to_string(kind) + ", 0, 0, 0, 'd', " +
        Literal(DateSerial(2026, 1, 1)) + ")");
  }
  void AddItem(const std::string& id, const std::string& campaign, int interval,
               const std::string& file) {
    Exec(
        "INSERT INTO dmmrktcmpitems (RecID, CampaignRecID, Description, Interval, "
        "MessageFileName) VALUES ('" +
        id + "', '" + campaign + "', 'item', " + std::to_string(interval) + ", '" + file + "')");
  }
  void AddClient(const std::string& account, const std::string& email) {
    Exec("INSERT INTO dmclients (Account, EMail) VALUES ('" + account + "', '" + email + "')");
  }
  void Enrol(const std::string& account, const std::string& campaign, Date effective) {
    static int n = 0;
    Exec(
        "INSERT INTO dmclientsmrktcmp (RecID, Account, CampaignRecID, EffectiveDate) VALUES "
        "('E" +
        std::to_string(++n) + "', '" + account + "', '" + campaign + "', " + Literal(effective) +
        ")");
  }
  void MarkSent(const std::string& account, const std::string& campaign, const std::string& item) {
    static int n = 0;
    Exec(
        "INSERT INTO dmsentitems (RecID, Account, CampaignRecID, CampaignItemRecID, "
        "HistoryRecID, SentDate) VALUES ('S" +
        std::to_string(++n) + "', '" + account + "', '" + campaign + "', '" + item + "', 'H', " +
        Literal(DateSerial(2026, 1, 1)) + ")");
  }

  std::shared_ptr<dmCampaignProcessor> MakeProcessor(const std::string& campaign,
                                                     Date when = kRunDate) {
    auto p = std::make_shared<dmCampaignProcessor>();
    p->Connection(connection_);
    p->IDGenerator(generator_);
    p->CampaignRecID(campaign);
    p->CurrentDate(when);
    return p;
  }

  // The (email, item) pairs of the processor's messages, in list order.
  static std::vector<std::pair<std::string, std::string>> Listed(dmCampaignProcessor& p) {
    std::vector<std::pair<std::string, std::string>> out;
    for (const auto& m : *p.Messages()) out.emplace_back(m->Email(), m->CampaignItemRecID());
    return out;
  }

  long HistoryRows() { return CountRows(connection_, "SELECT RecID FROM dmmrktcmphistory"); }

  std::shared_ptr<Connection> connection_;
  std::shared_ptr<FixedIdGenerator> generator_;
};

using Pairs = std::vector<std::pair<std::string, std::string>>;

TEST_P(Processor, ACampaignWithoutClientsStillWritesItsHistoryRow) {
  AddCampaign("C", 1);
  AddItem("I1", "C", 0, "a.txt");
  auto p = MakeProcessor("C");
  int events = 0;
  p->OnStatusChange([&](std::string&, std::int32_t&, std::int32_t&) { ++events; });
  p->LoadData();
  p->Process();
  EXPECT_EQ(p->Messages()->Count(), 0);
  EXPECT_EQ(events, 0);
  EXPECT_EQ(HistoryRows(), 1);
  ASSERT_NE(p->History(), nullptr);
  EXPECT_EQ(p->History()->CampaignRecID(), "C");
  EXPECT_EQ(p->History()->EffectiveDate(), kRunDate);
  EXPECT_EQ(p->History()->RecID(), "KEY1");
}

TEST_P(Processor, AClientEnrolledAfterTheRunDateIsNotSelected) {
  for (int kind : {0, 1, 2}) {
    std::string c = "C" + std::to_string(kind);
    AddCampaign(c, kind);
    AddItem(c + "I", c, 0, "a.txt");
    AddClient(c + "early", c + "early@x.com");
    AddClient(c + "late", c + "late@x.com");
    Enrol(c + "early", c, kRunDate);  // Midnight of the run date: selected.
    Enrol(c + "late", c, kRunDate + Date(1));
    auto p = MakeProcessor(c);
    p->LoadData();
    p->Process();
    EXPECT_EQ(Listed(*p), (Pairs{{c + "early@x.com", c + "I"}})) << kind;
  }
}

TEST_P(Processor, AnEnrolmentLaterOnTheRunDayIsNotSelected) {
  AddCampaign("C", 0);
  AddItem("I", "C", 0, "a.txt");
  AddClient("A", "a@x.com");
  Enrol("A", "C", kRunDate + TimeSerial(9, 0, 0));
  auto p = MakeProcessor("C");
  p->LoadData();
  p->Process();
  EXPECT_EQ(p->Messages()->Count(), 0);
}

TEST_P(Processor, SequentialItemWithInterval0IsDueOnTheEnrolmentDate) {
  AddCampaign("C", 1);
  AddItem("I0", "C", 0, "a.txt");
  AddItem("I1", "C", 1, "b.txt");
  AddClient("A", "a@x.com");
  Enrol("A", "C", kRunDate);
  auto p = MakeProcessor("C");
  p->LoadData();
  p->Process();
  EXPECT_EQ(Listed(*p), (Pairs{{"a@x.com", "I0"}}));
}

TEST_P(Processor, SequentialClientEnrolledTenDaysAgoGetsEveryMissedDueItemAtOnce) {
  AddCampaign("C", 1);
  AddItem("I14", "C", 14, "c.txt");
  AddItem("I0", "C", 0, "a.txt");
  AddItem("I7", "C", 7, "b.txt");
  AddClient("A", "a@x.com");
  Enrol("A", "C", Before(10));
  auto p = MakeProcessor("C");
  p->LoadData();
  ASSERT_EQ(p->CampaignItems()->Count(), 3);
  EXPECT_EQ(p->CampaignItem(1)->RecID(), "I0");
  EXPECT_EQ(p->CampaignItem(3)->RecID(), "I14");
  p->Process();
  EXPECT_EQ(Listed(*p), (Pairs{{"a@x.com", "I0"}, {"a@x.com", "I7"}}));
}

TEST_P(Processor, SequentialItemsAlreadySentAreNotProducedAgain) {
  AddCampaign("C", 1);
  AddItem("I0", "C", 0, "a.txt");
  AddItem("I7", "C", 7, "b.txt");
  AddClient("A", "a@x.com");
  Enrol("A", "C", Before(10));
  MarkSent("A", "C", "I0");
  auto p = MakeProcessor("C");
  p->LoadData();
  p->Process();
  EXPECT_EQ(Listed(*p), (Pairs{{"a@x.com", "I7"}}));
}

TEST_P(Processor, IncrementalGivesTheFirstItemNotYetSent) {
  AddCampaign("C", 2);
  AddItem("I1", "C", 5, "a.txt");
  AddItem("I2", "C", 10, "b.txt");
  AddItem("I3", "C", 400, "c.txt");  // No date test: the interval only orders.
  AddClient("A", "a@x.com");
  AddClient("B", "b@x.com");
  AddClient("N", "n@x.com");
  for (const char* acc : {"A", "B", "N"}) Enrol(acc, "C", kRunDate);
  MarkSent("A", "C", "I1");
  MarkSent("A", "C", "I2");
  for (const char* item : {"I1", "I2", "I3"}) MarkSent("B", "C", item);
  auto p = MakeProcessor("C");
  p->LoadData();
  p->Process();
  EXPECT_EQ(Listed(*p), (Pairs{{"a@x.com", "I3"}, {"n@x.com", "I1"}}));
}

TEST_P(Processor, StandardListGivesEveryClientEveryItemOnEveryRun) {
  for (int kind : {0, 3, 99, -1}) {
    std::string c = "K" + std::to_string(kind + 10);
    AddCampaign(c, kind);
    AddItem(c + "b", c, 9, "b.txt");
    AddItem(c + "a", c, 1, "a.txt");
    AddClient(c + "1", c + "x@x.com");
    AddClient(c + "2", c + "y@x.com");
    Enrol(c + "1", c, kRunDate);
    Enrol(c + "2", c, Before(300));
    MarkSent(c + "1", c, c + "a");  // Ignored by this kind.
    auto p = MakeProcessor(c);
    p->LoadData();
    int events = 0;
    p->OnStatusChange([&](std::string&, std::int32_t&, std::int32_t&) { ++events; });
    Pairs expected = {{c + "x@x.com", c + "a"},
                      {c + "x@x.com", c + "b"},
                      {c + "y@x.com", c + "a"},
                      {c + "y@x.com", c + "b"}};
    p->Process();
    EXPECT_EQ(Listed(*p), expected) << kind;
    p->Process();
    EXPECT_EQ(Listed(*p), expected) << kind;
    EXPECT_EQ(events, 0) << kind;
  }
}

TEST_P(Processor, PlaceholderAddressesAreSkippedButCountedInKinds1And2) {
  for (int kind : {0, 1, 2}) {
    std::string c = "T" + std::to_string(kind);
    AddCampaign(c, kind);
    AddItem(c + "I", c, 0, "a.txt");
    AddClient(c + "a", "a" + c + "@x.com");
    AddClient(c + "t", "~TMP" + c + "@x.com");
    AddClient(c + "u", "~tmp" + c + "@x.com");
    AddClient(c + "z", "z" + c + "@x.com");
    for (const char* s : {"a", "t", "u", "z"}) Enrol(c + s, c, kRunDate);
    auto p = MakeProcessor(c);
    p->LoadData();
    std::vector<std::tuple<std::string, int, int>> events;
    p->OnStatusChange([&](std::string& m, std::int32_t& cnt, std::int32_t& total) {
      events.emplace_back(m, cnt, total);
    });
    p->Process();
    EXPECT_EQ(Listed(*p), (Pairs{{"a" + c + "@x.com", c + "I"}, {"z" + c + "@x.com", c + "I"}}));
    if (kind == 0) {
      EXPECT_TRUE(events.empty());
    } else {
      ASSERT_EQ(events.size(), 4u) << kind;
      for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(std::get<1>(events[static_cast<size_t>(i)]), i + 1);
        EXPECT_EQ(std::get<2>(events[static_cast<size_t>(i)]), 4);
      }
      int placeholders = 0;
      for (auto& e : events) placeholders += std::get<0>(e).rfind("~", 0) == 0;
      EXPECT_EQ(placeholders, 2);
    }
  }
}

TEST_P(Processor, StatusChangeReportsEachRowInAddressOrderWithTheTotal) {
  AddCampaign("C", 1);
  AddItem("I", "C", 0, "a.txt");
  AddClient("3", "c@x.com");
  AddClient("1", "a@x.com");
  AddClient("2", "b@x.com");
  for (const char* s : {"1", "2", "3"}) Enrol(s, "C", kRunDate);
  auto p = MakeProcessor("C");
  std::vector<std::tuple<std::string, int, int>> typed;
  p->OnStatusChange([&](std::string& m, std::int32_t& cnt, std::int32_t& total) {
    typed.emplace_back(m, cnt, total);
  });
  std::vector<std::vector<Variant>> by_name;
  p->Advise("statuschange", [&](std::vector<Variant>& args) { by_name.push_back(args); });
  p->LoadData();
  p->Process();
  std::vector<std::tuple<std::string, int, int>> expected = {
      {"a@x.com", 1, 3}, {"b@x.com", 2, 3}, {"c@x.com", 3, 3}};
  EXPECT_EQ(typed, expected);
  ASSERT_EQ(by_name.size(), 3u);
  EXPECT_EQ(by_name[1][0].ToString(), "b@x.com");
  EXPECT_EQ(by_name[1][1].ToLong(), 2);
  EXPECT_EQ(by_name[1][2].ToLong(), 3);
  EXPECT_EQ(Listed(*p), (Pairs{{"a@x.com", "I"}, {"b@x.com", "I"}, {"c@x.com", "I"}}));
}

TEST_P(Processor, EventIsRaisedBeforeTheRowsItemsAreConsidered) {
  AddCampaign("C", 2);
  AddItem("I", "C", 0, "a.txt");
  AddClient("1", "a@x.com");
  Enrol("1", "C", kRunDate);
  auto p = MakeProcessor("C");
  p->LoadData();
  long listed_at_event = -1;
  p->OnStatusChange([&](std::string&, std::int32_t&, std::int32_t&) {
    listed_at_event = p->Messages()->Count();
  });
  p->Process();
  EXPECT_EQ(listed_at_event, 0);
  EXPECT_EQ(p->Messages()->Count(), 1);
}

TEST_P(Processor, MessagesCarryTheirFieldsFromTheRunTheItemAndTheClient) {
  AddCampaign("C", 1, "Spring, \"Best\" Deals");
  AddItem("I7", "C", 7, "docs/seven.txt");
  AddClient("ACC", "ann@x.com");
  Enrol("ACC", "C", Before(8));
  generator_ = std::make_shared<FixedIdGenerator>(std::deque<std::string>{"HISTORYKEY"});
  auto p = MakeProcessor("C");
  p->LoadData();
  p->Process();
  ASSERT_EQ(p->Messages()->Count(), 1);
  auto m = p->Message(1);
  EXPECT_EQ(m->Account(), "ACC");
  EXPECT_EQ(m->CampaignName(), "Spring, \"Best\" Deals");
  EXPECT_EQ(m->CampaignType(), "1");
  EXPECT_EQ(m->CampaignRecID(), "C");
  EXPECT_EQ(m->CampaignItemRecID(), "I7");
  EXPECT_EQ(m->Email(), "ann@x.com");
  EXPECT_EQ(m->MessageFileName(), "docs/seven.txt");
  EXPECT_EQ(m->HistoryRecID(), "HISTORYKEY");
  EXPECT_EQ(m->SendDate(), "2026-03-20");
  EXPECT_EQ(p->History()->RecID(), "HISTORYKEY");
  EXPECT_RUNTIME_ERROR(p->Message(2), err::kSubscriptOutOfRange);
  EXPECT_RUNTIME_ERROR(p->Message(0), err::kSubscriptOutOfRange);
}

TEST_P(Processor, ANullAddressBecomesEmptyText) {
  AddCampaign("C", 0);
  AddItem("I", "C", 0, "a.txt");
  Exec("INSERT INTO dmclients (Account) VALUES ('A')");
  Enrol("A", "C", kRunDate);
  auto p = MakeProcessor("C");
  p->LoadData();
  p->Process();
  EXPECT_EQ(Listed(*p), (Pairs{{"", "I"}}));
}

TEST_P(Processor, LastRunDatesAreTheZeroDateEvenAfterProcess) {
  AddCampaign("C", 0);
  auto p = MakeProcessor("C");
  EXPECT_EQ(p->LastRunDate(), kZeroDate);
  EXPECT_EQ(p->LastRunEffectiveDate(), kZeroDate);
  p->LoadData();
  p->Process();
  EXPECT_EQ(p->LastRunDate(), kZeroDate);
  EXPECT_EQ(p->LastRunEffectiveDate(), kZeroDate);
  EXPECT_EQ(p->Invoke("LastRunDate", CallKind::kGet).ToDate(), kZeroDate);
}

TEST_P(Processor, LoadingTwiceDoublesTheItemsAndEachDueItemIsProducedTwice) {
  AddCampaign("C", 1);
  AddItem("I0", "C", 0, "a.txt");
  AddItem("I9", "C", 9, "b.txt");
  AddClient("A", "a@x.com");
  Enrol("A", "C", Before(1));
  auto p = MakeProcessor("C");
  p->LoadData();
  p->LoadData();
  ASSERT_EQ(p->CampaignItems()->Count(), 4);
  p->Process();
  EXPECT_EQ(Listed(*p), (Pairs{{"a@x.com", "I0"}, {"a@x.com", "I0"}}));
}

TEST_P(Processor, LoadDataEmptiesTheMessageList) {
  AddCampaign("C", 0);
  AddItem("I", "C", 0, "a.txt");
  AddClient("A", "a@x.com");
  Enrol("A", "C", kRunDate);
  auto p = MakeProcessor("C");
  p->LoadData();
  p->Process();
  ASSERT_EQ(p->Messages()->Count(), 1);
  p->LoadData();
  EXPECT_EQ(p->Messages()->Count(), 0);
}

TEST_P(Processor, DeleteBeforeAnyProcessDoesNothing) {
  AddCampaign("C", 0);
  auto p = MakeProcessor("C");
  p->Delete();
  EXPECT_EQ(p->History(), nullptr);
  p->LoadData();
  p->Process();
  auto other = MakeProcessor("C");
  other->Delete();
  EXPECT_EQ(HistoryRows(), 1);
}

TEST_P(Processor, DeleteRemovesTheHistoryRowOfTheLastRun) {
  AddCampaign("C", 0);
  auto p = MakeProcessor("C");
  p->LoadData();
  p->Process();
  p->Process();
  EXPECT_EQ(HistoryRows(), 2);
  p->Delete();
  EXPECT_EQ(HistoryRows(), 1);
  EXPECT_EQ(CountRows(connection_, "SELECT RecID FROM dmmrktcmphistory WHERE RecID = 'KEY1'"), 1);
}

TEST_P(Processor, ProcessWithoutLoadDataFailsWithObjectNotSet) {
  AddCampaign("C", 0);
  auto p = MakeProcessor("C");
  EXPECT_RUNTIME_ERROR(p->Process(), err::kObjectNotSet);
  EXPECT_EQ(HistoryRows(), 0);
}

TEST_P(Processor, QueueingWritesEveryListedMessageToTheQueue) {
  AddCampaign("C", 0);
  AddItem("I1", "C", 0, "a.txt");
  AddItem("I2", "C", 1, "b.txt");
  AddClient("A", "a@x.com");
  AddClient("B", "b@x.com");
  Enrol("A", "C", kRunDate);
  Enrol("B", "C", kRunDate);
  std::string path =
      (std::filesystem::temp_directory_path() / ("quillo-processor-queue-" + GetParam() + ".txt"))
          .string();
  auto queue = std::make_shared<dmmsgqueue>();
  queue->MessageQueueFileName(path);
  ASSERT_TRUE(queue->OpenQueueWrite());
  auto p = MakeProcessor("C");
  p->UseMessageQueue(true);
  p->MessageQueue(queue);
  p->LoadData();
  p->Process();
  queue->CloseQueue();
  ASSERT_TRUE(queue->OpenQueueRead());
  Pairs queued;
  while (auto m = queue->ReadMessage()) {
    queued.emplace_back(m->Email(), m->CampaignItemRecID());
    EXPECT_EQ(m->SendDate(), "2026-03-20");
    EXPECT_EQ(m->HistoryRecID(), p->History()->RecID());
  }
  queue->CloseQueue();
  EXPECT_EQ(queued, Listed(*p));
  EXPECT_EQ(queued.size(), 4u);
  std::filesystem::remove(path);
}

TEST_P(Processor, WithoutQueueingNothingIsWrittenToTheQueue) {
  AddCampaign("C", 0);
  AddItem("I1", "C", 0, "a.txt");
  AddClient("A", "a@x.com");
  Enrol("A", "C", kRunDate);
  auto queue = std::make_shared<dmmsgqueue>();  // Not open: a write would fail.
  auto p = MakeProcessor("C");
  p->MessageQueue(queue);
  p->LoadData();
  p->Process();
  EXPECT_EQ(p->Messages()->Count(), 1);
}

TEST_P(Processor, AFailingQueueWriteEndsTheRunAndKeepsWhatWasDone) {
  AddCampaign("C", 2);
  AddItem("I1", "C", 0, "a.txt");
  AddClient("A", "a@x.com");
  AddClient("B", "b@x.com");
  Enrol("A", "C", kRunDate);
  Enrol("B", "C", kRunDate);
  auto p = MakeProcessor("C");
  p->UseMessageQueue(true);  // No queue supplied: one is made, never opened.
  p->LoadData();
  EXPECT_RUNTIME_ERROR(p->Process(), err::kBadFileNameOrNumber);
  ASSERT_NE(p->MessageQueue(), nullptr);
  EXPECT_EQ(Listed(*p), (Pairs{{"a@x.com", "I1"}}));
  EXPECT_EQ(HistoryRows(), 1);
}

TEST_P(Processor, ADatabaseFailureMidRunEndsItAndKeepsWhatWasDone) {
  AddCampaign("C", 1);
  AddItem("I1", "C", 0, "a.txt");
  AddClient("A", "a@x.com");
  AddClient("B", "b@x.com");
  AddClient("C", "c@x.com");
  for (const char* s : {"A", "B", "C"}) Enrol(s, "C", kRunDate);
  auto p = MakeProcessor("C");
  p->LoadData();
  p->OnStatusChange([&](std::string&, std::int32_t& cnt, std::int32_t&) {
    if (cnt == 2) Exec("DROP TABLE dmsentitems");
  });
  bool failed = false;
  try {
    p->Process();
  } catch (const RuntimeError& e) {
    failed = true;
  }
  EXPECT_TRUE(failed);
  EXPECT_EQ(Listed(*p), (Pairs{{"a@x.com", "I1"}}));
  EXPECT_EQ(HistoryRows(), 1);
}

TEST_P(Processor, AHandlerMayLogSentItemsAndChangeTheSchemaOnTheSameConnectionMidRun) {
  AddCampaign("C", 2);
  AddItem("I1", "C", 0, "a.txt");
  AddItem("I2", "C", 7, "b.txt");
  for (int i = 0; i < 200; ++i) {
    const std::string a = std::string("A").append(std::to_string(1000 + i));
    AddClient(a, a + "@x.com");
    Enrol(a, "C", kRunDate);
  }
  auto p = MakeProcessor("C");
  p->LoadData();
  // The handler logs item 1 as sent for every client from the 100th on, and
  // adds a table at row 150: the run sees the log and the change succeeds.
  p->OnStatusChange([&](std::string&, std::int32_t& cnt, std::int32_t&) {
    if (cnt >= 100) MarkSent("A" + std::to_string(1000 + cnt - 1), "C", "I1");
    if (cnt == 150) Exec("CREATE TABLE handler_table (a INTEGER)");
  });
  p->Process();
  ASSERT_EQ(p->Messages()->Count(), 200);
  for (std::int32_t n = 1; n <= 200; ++n) {
    EXPECT_EQ(p->Message(n)->CampaignItemRecID(), n < 100 ? "I1" : "I2") << n;
  }
  EXPECT_EQ(CountRows(connection_, "SELECT a FROM handler_table"), 0);
}

TEST_P(Processor, SentItemsLoggedByAnotherConnectionDuringTheRunAreSeen) {
  AddCampaign("C", 2);
  AddItem("I1", "C", 0, "a.txt");
  AddItem("I2", "C", 7, "b.txt");
  for (int i = 0; i < 300; ++i) {
    const std::string a = std::string("A").append(std::to_string(1000 + i));
    AddClient(a, a + "@x.com");
    Enrol(a, "C", kRunDate);
  }
  if (connection_->ConnectionString().find(":memory:") != std::string::npos) {
    GTEST_SKIP() << "an in-memory database has a single connection";
  }
  auto other = std::make_shared<Connection>();
  other->Open(connection_->ConnectionString());
  auto p = MakeProcessor("C");
  p->LoadData();
  // At row 100 another connection logs item 1 for the last 100 clients.
  p->OnStatusChange([&](std::string&, std::int32_t& cnt, std::int32_t&) {
    if (cnt != 100) return;
    for (int i = 200; i < 300; ++i) {
      other->Execute(
          "INSERT INTO dmsentitems (RecID, Account, CampaignRecID, CampaignItemRecID, "
          "HistoryRecID) VALUES ('O" +
          std::to_string(i) + "', 'A" + std::to_string(1000 + i) + "', 'C', 'I1', 'H')");
    }
  });
  p->Process();
  ASSERT_EQ(p->Messages()->Count(), 300);
  for (std::int32_t n = 1; n <= 300; ++n) {
    EXPECT_EQ(p->Message(n)->CampaignItemRecID(), n <= 200 ? "I1" : "I2") << n;
  }
}

TEST_P(Processor, MessagesShareTheRunsTextsAndEachKeepsItsOwnWhenSet) {
  AddCampaign("C", 0);
  AddItem("I1", "C", 0, "a.txt");
  AddItem("I2", "C", 7, "b.txt");
  AddClient("A", "a@x.com");
  AddClient("B", "b@x.com");
  Enrol("A", "C", kRunDate);
  Enrol("B", "C", kRunDate);
  auto p = MakeProcessor("C");
  p->LoadData();
  p->Process();
  ASSERT_EQ(p->Messages()->Count(), 4);
  auto m1 = p->Message(1);
  auto m3 = p->Message(3);
  EXPECT_EQ(&m1->CampaignName(), &m3->CampaignName());
  EXPECT_EQ(&m1->Email(), &p->Message(2)->Email());
  m1->CampaignName("Changed");
  m1->Email("other@x.com");
  EXPECT_EQ(m1->CampaignName(), "Changed");
  EXPECT_EQ(m3->CampaignName(), "Spring");
  EXPECT_EQ(p->Message(2)->Email(), "a@x.com");
  EXPECT_EQ(p->Message(2)->CampaignName(), "Spring");
}

TEST_P(Processor, AnEnrolmentQueryFailureEndsTheRunAfterTheHistoryRow) {
  AddCampaign("C", 0);
  auto p = MakeProcessor("C");
  p->LoadData();
  Exec("DROP TABLE dmclientsmrktcmp");
  EXPECT_THROW(p->Process(), RuntimeError);
  EXPECT_EQ(HistoryRows(), 1);
}

TEST_P(Processor, HostsCanChangeTheEventArgumentsByReference) {
  AddCampaign("C", 1);
  AddItem("I", "C", 0, "a.txt");
  for (const char* s : {"1", "2", "3"}) {
    AddClient(s, std::string(s) + "@x.com");
    Enrol(s, "C", kRunDate);
  }
  auto p = MakeProcessor("C");
  p->LoadData();
  std::vector<int> seen;
  p->Advise("StatusChange", [&](std::vector<Variant>& args) {
    seen.push_back(args[1].ToLong());
    args[1] = Variant(std::int32_t{args[1].ToLong() + 10});
  });
  p->Process();
  EXPECT_EQ(seen, (std::vector<int>{1, 12, 23}));
}

TEST_P(Processor, DrivenByName) {
  AddCampaign("C", 0);
  AddItem("I", "C", 0, "a.txt");
  AddClient("A", "a@x.com");
  Enrol("A", "C", kRunDate);
  ObjectPtr p = CreateObject("dmCampaignProcessor");
  p->Invoke("Connection", CallKind::kPut, {Variant(ObjectPtr(connection_))});
  p->Invoke("IDGenerator", CallKind::kPut, {Variant(ObjectPtr(generator_))});
  p->Invoke("CampaignRecID", CallKind::kPut, {Variant("C")});
  p->Invoke("CurrentDate", CallKind::kPut, {Variant(kRunDate)});
  p->Invoke("LoadData", CallKind::kMethod);
  p->Invoke("Process", CallKind::kMethod);
  Variant m = p->Invoke("Message", CallKind::kMethod, {Variant(std::int32_t{1})});
  ASSERT_TRUE(m.IsObject());
  EXPECT_EQ(m.ObjectRef()->Invoke("Email", CallKind::kGet).ToString(), "a@x.com");
  Variant list = p->Invoke("Messages", CallKind::kMethod);
  EXPECT_EQ(list.ObjectRef()->Invoke("Count", CallKind::kGet).ToLong(), 1);
  Variant history = p->Invoke("History", CallKind::kGet);
  EXPECT_EQ(history.ObjectRef()->Invoke("CampaignRecID", CallKind::kGet).ToString(), "C");
  EXPECT_EQ(p->Invoke("Campaign", CallKind::kMethod)
                .ObjectRef()
                ->Invoke("CampaignName", CallKind::kGet)
                .ToString(),
            "Spring");
  EXPECT_RUNTIME_ERROR(p->Invoke("CampaignItem", CallKind::kMethod, {Variant(std::int32_t{2})}),
                       err::kSubscriptOutOfRange);
}

INSTANTIATE_TEST_SUITE_P(Engines, Processor, ::testing::ValuesIn(records_test::Engines()),
                         [](const auto& info) { return info.param; });

// --- Without a database -------------------------------------------------------

TEST(ProcessorState, ANewProcessorRunsForTodayWithQueueingOff) {
  ClockFunction previous = SetClock([] { return DateSerial(2026, 5, 4) + TimeSerial(15, 30, 0); });
  dmCampaignProcessor p;
  SetClock(previous);
  EXPECT_EQ(p.CurrentDate(), DateSerial(2026, 5, 4));
  EXPECT_FALSE(p.UseMessageQueue());
  EXPECT_EQ(p.MessageQueue(), nullptr);
  EXPECT_EQ(p.Campaign(), nullptr);
  EXPECT_EQ(p.History(), nullptr);
  EXPECT_EQ(p.Connection(), nullptr);
  EXPECT_EQ(p.Messages()->Count(), 0);
  EXPECT_EQ(p.CampaignItems()->Count(), 0);
  EXPECT_FALSE(p.NoPrompt());
  p.NoPrompt(true);
  EXPECT_TRUE(p.NoPrompt());
}

TEST(ProcessorState, PublishesItsMembersInInterfaceOrder) {
  dmCampaignProcessor p;
  std::vector<std::pair<std::string, CallKind>> expected = {
      {"UseMessageQueue", CallKind::kPut},
      {"MessageQueue", CallKind::kPut},
      {"LastRunEffectiveDate", CallKind::kGet},
      {"LastRunDate", CallKind::kGet},
      {"Connection", CallKind::kPut},
      {"IDGenerator", CallKind::kPut},
      {"CampaignRecID", CallKind::kPut},
      {"CurrentDate", CallKind::kPut},
      {"Message", CallKind::kMethod},
      {"Messages", CallKind::kMethod},
      {"CampaignItem", CallKind::kMethod},
      {"CampaignItems", CallKind::kMethod},
      {"NoPrompt", CallKind::kGet},
      {"NoPrompt", CallKind::kPut},
      {"Campaign", CallKind::kMethod},
      {"History", CallKind::kGet},
      {"LoadCampaign", CallKind::kMethod},
      {"LoadCampaignItems", CallKind::kMethod},
      {"LoadData", CallKind::kMethod},
      {"Process", CallKind::kMethod},
      {"Delete", CallKind::kMethod},
  };
  const auto& members = p.Members().members();
  ASSERT_EQ(members.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(members[i].name, expected[i].first) << i;
    EXPECT_EQ(members[i].kind, expected[i].second) << i;
  }
}

TEST(ProcessorState, DeleteWithoutAnyRunDoesNothing) {
  dmCampaignProcessor p;
  p.Delete();
  EXPECT_EQ(p.History(), nullptr);
}

}  // namespace
}  // namespace quillo
