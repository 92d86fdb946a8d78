#include "campaign/dm_campaign_msg.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "campaign/constants.h"
#include "platform/object.h"

namespace quillo {
namespace {

const std::vector<std::string> kFieldOrder = {
    "CampaignType",      "HistoryRecID",    "Email",    "Account",      "CampaignRecID",
    "CampaignItemRecID", "MessageFileName", "SendDate", "CampaignName",
};

TEST(DmCampaignMsg, EveryPropertyStartsEmpty) {
  dmCampaignMsg m;
  for (const std::string& name : kFieldOrder) {
    EXPECT_EQ(m.Invoke(name, CallKind::kGet).ToString(), "") << name;
  }
}

TEST(DmCampaignMsg, TextWithCommasIsKeptUnchanged) {
  dmCampaignMsg m;
  m.CampaignName("Spring, Summer, and \"Fall\"");
  m.Email(" ann@example.com ");
  EXPECT_EQ(m.CampaignName(), "Spring, Summer, and \"Fall\"");
  EXPECT_EQ(m.Email(), " ann@example.com ");
}

TEST(DmCampaignMsg, EachPropertyStoresItsOwnText) {
  dmCampaignMsg m;
  for (const std::string& name : kFieldOrder) {
    m.Invoke(name, CallKind::kPut, {Variant("value of " + name)});
  }
  EXPECT_EQ(m.CampaignType(), "value of CampaignType");
  EXPECT_EQ(m.HistoryRecID(), "value of HistoryRecID");
  EXPECT_EQ(m.Email(), "value of Email");
  EXPECT_EQ(m.Account(), "value of Account");
  EXPECT_EQ(m.CampaignRecID(), "value of CampaignRecID");
  EXPECT_EQ(m.CampaignItemRecID(), "value of CampaignItemRecID");
  EXPECT_EQ(m.MessageFileName(), "value of MessageFileName");
  EXPECT_EQ(m.SendDate(), "value of SendDate");
  EXPECT_EQ(m.CampaignName(), "value of CampaignName");
}

TEST(DmCampaignMsg, PublishesSetterThenGetterForEachFieldInInterfaceOrder) {
  dmCampaignMsg m;
  const auto& members = m.Members().members();
  ASSERT_EQ(members.size(), 18u);
  for (size_t i = 0; i < kFieldOrder.size(); ++i) {
    EXPECT_EQ(members[2 * i].name, kFieldOrder[i]);
    EXPECT_EQ(members[2 * i].kind, CallKind::kPut);
    EXPECT_EQ(members[2 * i + 1].name, kFieldOrder[i]);
    EXPECT_EQ(members[2 * i + 1].kind, CallKind::kGet);
  }
}

TEST(DmCampaignMsg, IsCreatableByName) {
  ObjectPtr o = CreateObject("dmCampaignMsg");
  ASSERT_NE(o, nullptr);
  EXPECT_EQ(o->TypeName(), "dmCampaignMsg");
  o->Invoke("email", CallKind::kPut, {Variant("a@b.c")});
  EXPECT_EQ(o->Invoke("EMAIL", CallKind::kGet).ToString(), "a@b.c");
}

TEST(CampaignConstants, KindNamesAndInactiveMarkerAreExact) {
  EXPECT_EQ(kStandardListName, "Standard List");
  EXPECT_EQ(kSequentialOffsetCampaignName, "Sequential Offset Campaign");
  EXPECT_EQ(kIncrementalCampaignName, "Incremental Campaign");
  EXPECT_EQ(kCampaignIsInactive, "Campaign Is INACTIVE");
  EXPECT_EQ(kSequentialMailTypeHeading, "Sequential Mail Type");
  EXPECT_EQ(kSequentialOffsetKind, 1);
  EXPECT_EQ(kIncrementalKind, 2);
}

TEST(CampaignConstants, ListNamesAreExactAndInOrder) {
  EXPECT_EQ(kSystemListNames[0], "Quillo System - All Clients");
  EXPECT_EQ(kSystemListNames[1], "Quillo System - Email List");
  EXPECT_EQ(kSystemListNames[2], "Quillo System - Mailing List");
  EXPECT_EQ(kSystemListNames[3], "Quillo System - Agents List");
  EXPECT_EQ(kSystemListNames[4], "Quillo System - Vendors List");
  EXPECT_EQ(kSystemListNames[5], "Quillo System - Last Minute List");
  EXPECT_EQ(kSystemListNames[6], "Quillo System - HotSheet List");
}

TEST(CampaignConstants, ImportSourcesAreExactAndInOrder) {
  EXPECT_EQ(kImportSources[0], "Email Addresses Only (Comma Delimited)");
  EXPECT_EQ(kImportSources[1], "Microsoft Access Database");
  EXPECT_EQ(kImportSources[2], "Outlook Mail And Contact Folders");
  EXPECT_EQ(kImportSources[3], "Quickbooks Customers, Vendors, Employees, etc.");
  EXPECT_EQ(kImportSources[4], "Comma Delimited File");
  EXPECT_EQ(kImportSources[5], "Tab Delimited File");
  EXPECT_EQ(kImportSources[6], "Text or HTML Files Containing Email Addresses");
  EXPECT_EQ(kImportSources[7], "Outlook Express Message Files");
  EXPECT_EQ(kImportSources[8], "Excel Spreadsheet Files");
  EXPECT_EQ(kImportSources[9], "Custom Developed Import Feature");
}

TEST(CampaignConstants, ScheduleDescriptionsAreExact) {
  EXPECT_EQ(ScheduleCodeDescription(100), "Send Every Monday");
  EXPECT_EQ(ScheduleCodeDescription(105), "Send Every Saturday");
  EXPECT_EQ(ScheduleCodeDescription(106), "Send Every Sunday");
  EXPECT_EQ(ScheduleCodeDescription(200), "Send On The 1st Of Every Month");
  EXPECT_EQ(ScheduleCodeDescription(201), "Send On The 15th Of Every Month");
  EXPECT_EQ(ScheduleCodeDescription(202), "Send On the 30th of Every Month");
  EXPECT_EQ(ScheduleCodeDescription(203), "Send On the ??? of Every Month (See Interval)");
  EXPECT_EQ(ScheduleCodeDescription(300), "Send Every First Monday Of The Month");
  EXPECT_EQ(ScheduleCodeDescription(306), "Send Every First Sunday Of The Month");
  EXPECT_EQ(ScheduleCodeDescription(307), "Send Every Second Monday Of The Month");
  EXPECT_EQ(ScheduleCodeDescription(316), "Send Every Third Wednesday Of The Month");
  EXPECT_EQ(ScheduleCodeDescription(326), "Send Every Fourth Saturday Of The Month");
  EXPECT_EQ(ScheduleCodeDescription(328), "Send Every Last Monday Of The Month");
  EXPECT_EQ(ScheduleCodeDescription(334), "Send Every Last Sunday Of The Month");
  EXPECT_EQ(ScheduleCodeDescription(400), "Send Every Day");
  EXPECT_EQ(ScheduleCodeDescription(401), "Send Every Two Days");
  EXPECT_EQ(ScheduleCodeDescription(402), "Send Every Three (3) Days");
  EXPECT_EQ(ScheduleCodeDescription(403), "Send Every Seven (7) Days");
  EXPECT_EQ(ScheduleCodeDescription(404), "Send Every Ten (10) Days");
  EXPECT_EQ(ScheduleCodeDescription(405), "Send Every Fourteen (14) Days");
  EXPECT_EQ(ScheduleCodeDescription(406), "Send Every ??? Days (See Interval)");
}

TEST(CampaignConstants, CodesWithoutAScheduleHaveNoDescription) {
  EXPECT_EQ(ScheduleCodeDescription(0), "");
  EXPECT_EQ(ScheduleCodeDescription(1), "");
  EXPECT_EQ(ScheduleCodeDescription(107), "");
  EXPECT_EQ(ScheduleCodeDescription(204), "");
  EXPECT_EQ(ScheduleCodeDescription(335), "");
  EXPECT_EQ(ScheduleCodeDescription(407), "");
}

}  // namespace
}  // namespace quillo
