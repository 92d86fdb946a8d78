// The campaign history lookups: the latest run of a campaign by the date it
// was made for and by the time it was made, on every engine.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "campaign/dmmrktcmphistory.h"
#include "platform/database.h"
#include "platform/object.h"
#include "records/record_test_util.h"

namespace quillo {
namespace {

using records_test::FixedIdGenerator;

// 2005-03-01 00:00 as an automation date.
constexpr double kMarchFirst = 38412.0;

class History : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    connection_ = records_test::OpenDatabase(GetParam());
    ASSERT_NE(connection_, nullptr);
    generator_ = std::make_shared<FixedIdGenerator>();
  }
  std::shared_ptr<dmmrktcmphistory> Make(const std::string& campaign) {
    auto run = std::make_shared<dmmrktcmphistory>();
    run->Connection(connection_);
    run->IDGenerator(generator_);
    run->CampaignRecID(campaign);
    return run;
  }
  // Saves a run of `campaign` made for `effective` at `run_time`; returns its key.
  std::string SaveRun(const std::string& campaign, double effective, double run_time) {
    auto run = Make(campaign);
    run->EffectiveDate(Date(effective));
    run->RunDate(Date(run_time));
    EXPECT_TRUE(run->SaveData()) << run->ErrorMessage();
    return run->RecID();
  }

  std::shared_ptr<Connection> connection_;
  std::shared_ptr<FixedIdGenerator> generator_;
};

TEST_P(History, LatestByEffectiveDatePicksTheLatestDateOfThatCampaign) {
  SaveRun("C1", kMarchFirst, kMarchFirst + 5.5);
  std::string latest = SaveRun("C1", kMarchFirst + 2, kMarchFirst + 2.25);
  SaveRun("C1", kMarchFirst + 1, kMarchFirst + 9);
  SaveRun("C2", kMarchFirst + 30, kMarchFirst + 30);
  auto run = Make("C1");
  run->LoadLatestByEffectiveDate();
  EXPECT_EQ(run->RecID(), latest);
  EXPECT_EQ(run->CampaignRecID(), "C1");
  EXPECT_NEAR(run->EffectiveDate().value, kMarchFirst + 2, 1e-6);
  EXPECT_NEAR(run->RunDate().value, kMarchFirst + 2.25, 1e-6);
}

TEST_P(History, LatestByRunDatePicksTheLatestRunTime) {
  SaveRun("C1", kMarchFirst, kMarchFirst + 5.5);
  std::string latest = SaveRun("C1", kMarchFirst + 1, kMarchFirst + 9);
  SaveRun("C1", kMarchFirst + 2, kMarchFirst + 2.25);
  auto run = Make("C1");
  run->LoadLatestByRunDate();
  EXPECT_EQ(run->RecID(), latest);
}

TEST_P(History, SameEffectiveDateLatestRunTimeWins) {
  SaveRun("C1", kMarchFirst, kMarchFirst + 0.25);
  std::string later = SaveRun("C1", kMarchFirst, kMarchFirst + 0.75);
  SaveRun("C1", kMarchFirst, kMarchFirst + 0.5);
  auto by_run = Make("C1");
  by_run->LoadLatestByRunDate();
  EXPECT_EQ(by_run->RecID(), later);
  // By effective date the tie goes to whichever row the database gives first.
  auto by_effective = Make("C1");
  by_effective->LoadLatestByEffectiveDate();
  EXPECT_NE(by_effective->RecID(), "");
  EXPECT_NEAR(by_effective->EffectiveDate().value, kMarchFirst, 1e-6);
}

TEST_P(History, CampaignWithoutHistoryLeavesEveryFieldAsItWas) {
  SaveRun("C1", kMarchFirst, kMarchFirst);
  auto run = Make("C-none");
  run->RecID("MY-KEY");
  run->EffectiveDate(Date(1234.5));
  run->RunDate(Date(2345.25));
  run->LoadLatestByEffectiveDate();
  EXPECT_EQ(run->RecID(), "MY-KEY");
  EXPECT_EQ(run->CampaignRecID(), "C-none");
  EXPECT_EQ(run->EffectiveDate(), Date(1234.5));
  EXPECT_EQ(run->RunDate(), Date(2345.25));
  run->LoadLatestByRunDate();
  EXPECT_EQ(run->RecID(), "MY-KEY");
  EXPECT_FALSE(run->Error());
}

TEST_P(History, CampaignKeyGoesInAsItStandsAndAFailureReachesTheCaller) {
  auto run = Make("C'1");
  EXPECT_THROW(run->LoadLatestByEffectiveDate(), RuntimeError);
  EXPECT_THROW(run->LoadLatestByRunDate(), RuntimeError);
  EXPECT_EQ(run->RecID(), "");
}

TEST_P(History, LookupsAreCallableByName) {
  std::string latest = SaveRun("C1", kMarchFirst + 3, kMarchFirst + 3);
  SaveRun("C1", kMarchFirst + 1, kMarchFirst + 4);
  ObjectPtr run = CreateObject("dmmrktcmphistory");
  run->Invoke("Connection", CallKind::kPut, {Variant(ObjectPtr(connection_))});
  run->Invoke("CampaignRecID", CallKind::kPut, {Variant("C1")});
  run->Invoke("LoadLatestByEffectiveDate", CallKind::kMethod);
  EXPECT_EQ(run->Invoke("RecID", CallKind::kGet).ToString(), latest);
  run->Invoke("LoadLatestByRunDate", CallKind::kMethod);
  EXPECT_NE(run->Invoke("RecID", CallKind::kGet).ToString(), latest);
}

INSTANTIATE_TEST_SUITE_P(Engines, History, ::testing::ValuesIn(records_test::Engines()),
                         [](const auto& info) { return info.param; });

}  // namespace
}  // namespace quillo
