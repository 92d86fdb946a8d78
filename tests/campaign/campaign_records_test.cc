// The five campaign table classes: their columns in order, their types, and
// creation by name.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "campaign/dmclientsmrktcmp.h"
#include "campaign/dmmrktcmp.h"
#include "campaign/dmmrktcmphistory.h"
#include "campaign/dmmrktcmpitems.h"
#include "campaign/dmsentitems.h"
#include "platform/object.h"

namespace quillo {
namespace {

std::vector<std::string> Properties(const Record& record) {
  std::vector<std::string> names;
  for (const Column& c : record.Info().columns()) names.push_back(c.property);
  return names;
}

TEST(CampaignRecords, CampaignColumnsInOrder) {
  dmmrktcmp campaign;
  EXPECT_EQ(
      Properties(campaign),
      (std::vector<std::string>{"CampaignDescription", "CampaignEffectiveDate", "CampaignName",
                                "CampaignType", "Disabled", "Interval", "RecID", "Reminder"}));
  campaign.CampaignEffectiveDate(Date(38412));
  campaign.CampaignType(406);
  campaign.Interval(14);
  campaign.Disabled(-1);
  campaign.Reminder(2);
  EXPECT_EQ(campaign.CampaignEffectiveDate(), Date(38412));
  EXPECT_EQ(campaign.CampaignType(), 406);
  EXPECT_EQ(campaign.Interval(), 14);
  EXPECT_EQ(campaign.Disabled(), -1);
  EXPECT_EQ(campaign.Reminder(), 2);
  EXPECT_EQ(campaign.Info().select_sql(), "SELECT * FROM dmmrktcmp WHERE RecID = ");
  EXPECT_EQ(campaign.Info().delete_sql(), "DELETE FROM dmmrktcmp WHERE RecID = ");
  EXPECT_EQ(campaign.Info().insert_sql(), "INSERT INTO dmmrktcmp (?) VALUES (?);");
  EXPECT_EQ(campaign.Info().update_sql(), "UPDATE dmmrktcmp SET ? WHERE RecID = ");
}

TEST(CampaignRecords, ItemColumnsInOrder) {
  dmmrktcmpitems item;
  EXPECT_EQ(Properties(item), (std::vector<std::string>{"CampaignRecID", "Description", "Interval",
                                                        "MessageFileName", "RecID"}));
  item.Interval(-3);
  item.MessageFileName("docs\\welcome.txt");
  EXPECT_EQ(item.Interval(), -3);
  EXPECT_EQ(item.MessageFileName(), "docs\\welcome.txt");
}

TEST(CampaignRecords, HistoryColumnsInOrder) {
  dmmrktcmphistory run;
  EXPECT_EQ(Properties(run),
            (std::vector<std::string>{"CampaignRecID", "EffectiveDate", "RecID", "RunDate"}));
  run.RunDate(Date(38412.75));
  EXPECT_EQ(run.RunDate(), Date(38412.75));
}

TEST(CampaignRecords, EnrolmentColumnsInOrder) {
  dmclientsmrktcmp enrolment;
  EXPECT_EQ(Properties(enrolment),
            (std::vector<std::string>{"Account", "CampaignRecID", "EffectiveDate", "RecID"}));
  enrolment.Account("A, B");
  EXPECT_EQ(enrolment.Account(), "A, B");
}

TEST(CampaignRecords, SentItemColumnsInOrder) {
  dmsentitems sent;
  EXPECT_EQ(Properties(sent),
            (std::vector<std::string>{"Account", "CampaignItemRecID", "CampaignRecID",
                                      "HistoryRecID", "RecID", "SentDate"}));
  sent.SentDate(Date(38412.5));
  EXPECT_EQ(sent.SentDate(), Date(38412.5));
}

TEST(CampaignRecords, CreatableByNameAndEmpty) {
  for (const char* name :
       {"dmmrktcmp", "dmmrktcmpitems", "dmmrktcmphistory", "dmclientsmrktcmp", "dmsentitems"}) {
    ObjectPtr record = CreateObject(name);
    ASSERT_NE(record, nullptr) << name;
    EXPECT_EQ(record->TypeName(), name);
    EXPECT_EQ(record->Invoke("RecID", CallKind::kGet), Variant(""));
    EXPECT_TRUE(record->Invoke("IsNew", CallKind::kGet).ToBool());
  }
  ObjectPtr campaign = CreateObject("DMMRKTCMP");
  EXPECT_EQ(campaign->Invoke("CampaignType", CallKind::kGet), Variant(std::int32_t{0}));
  EXPECT_EQ(campaign->Invoke("CampaignEffectiveDate", CallKind::kGet), Variant(Date()));
}

}  // namespace
}  // namespace quillo
