#include "delivery/bounces.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "delivery/ledger.h"
#include "delivery/unsubscribe.h"
#include "platform/database.h"
#include "platform/schema.h"
#include "support/temp_folder.h"
#include "support/test_databases.h"

namespace quillo::delivery {
namespace {

using quillo::testing_support::Engine;
using quillo::testing_support::TestDatabase;

// A delivery status notification for one recipient block.
std::string Dsn(const std::string& date, const std::string& final_recipient,
                const std::string& action, const std::string& status,
                const std::string& to = "bounces@news.example.com",
                const std::string& list_id = "\"Spring\" <k1.news.example.com>") {
  return "From: MAILER-DAEMON@mx.example.net\n"
         "To: " +
         to + "\nDate: " + date +
         "\n"
         "Subject: Undelivered Mail Returned to Sender\n"
         "MIME-Version: 1.0\n"
         "Content-Type: multipart/report; report-type=delivery-status; boundary=\"B\"\n"
         "\n"
         "--B\n"
         "Content-Type: text/plain\n"
         "\n"
         "Not delivered.\n"
         "--B\n"
         "Content-Type: message/delivery-status\n"
         "\n"
         "Reporting-MTA: dns; mx.example.net\n"
         "\n"
         "Final-Recipient: rfc822; " +
         final_recipient + "\nAction: " + action + "\nStatus: " + status +
         "\n"
         "Diagnostic-Code: smtp; " +
         (status[0] == '5' ? "550 " : "452 ") + status +
         " says the server\n"
         "\n"
         "--B\n"
         "Content-Type: text/rfc822-headers\n"
         "\n"
         "From: news@news.example.com\n"
         "List-Id: " +
         list_id +
         "\n"
         "\n"
         "--B--\n";
}

std::string Complaint(const std::string& address) {
  return "From: fbl@isp.example.net\n"
         "To: abuse@news.example.com\n"
         "Date: Thu, 10 Sep 2026 08:00:00 GMT\n"
         "Content-Type: multipart/report; report-type=feedback-report; boundary=\"F\"\n"
         "\n"
         "--F\n"
         "Content-Type: message/feedback-report\n"
         "\n"
         "Feedback-Type: abuse\nVersion: 1\nOriginal-Rcpt-To: " +
         address +
         "\n"
         "--F--\n";
}

class BounceImportTest : public ::testing::TestWithParam<Engine> {
 protected:
  void SetUp() override {
    db_ = TestDatabase::Make(GetParam());
    connection_ = db_->Open();
    schema::Create(*connection_);
    connection_->Execute("INSERT INTO dmclients (Account, EMail) VALUES ('A1', 'ada@example.org')");
    connection_->Execute("INSERT INTO dmmrktcmp (RecID, CampaignName) VALUES ('K1', 'Spring')");
    connection_->Execute("INSERT INTO dmmrktcmp (RecID, CampaignName) VALUES ('K2', 'Autumn')");
  }

  // Email -> "Reason CampaignRecID".
  std::map<std::string, std::string> Suppressed() {
    std::map<std::string, std::string> out;
    Recordset rs;
    rs.Open("SELECT Email, Reason, CampaignRecID FROM quillo_suppressions", connection_,
            kAdOpenForwardOnly, kAdLockReadOnly, kAdCmdText);
    for (; !rs.Eof(); rs.MoveNext())
      out[FieldText(rs, "Email")] = FieldText(rs, "Reason") + " " + FieldText(rs, "CampaignRecID");
    rs.Close();
    return out;
  }

  std::unique_ptr<TestDatabase> db_;
  std::shared_ptr<Connection> connection_;
};

TEST_P(BounceImportTest, AHardBounceSuppressesAtOnceAndASecondReadChangesNothing) {
  const std::string dsn =
      Dsn("Tue, 1 Sep 2026 10:00:00 +0000", "Bob@Example.net", "failed", "5.1.1");
  {
    BounceImporter importer(connection_);
    importer.Import("one", dsn);
    EXPECT_EQ(importer.summary().hard, 1);
    EXPECT_EQ(importer.summary().suppressed, 1);
  }
  EXPECT_EQ(Suppressed(), (std::map<std::string, std::string>{{"bob@example.net", "bounced K1"}}));
  BounceImporter again(connection_);
  again.Import("one", dsn);
  EXPECT_EQ(again.summary().already_imported, 1);
  EXPECT_EQ(again.summary().hard, 0);
  EXPECT_EQ(again.summary().suppressed, 0);
}

TEST_P(BounceImportTest, TheThirdSoftBounceWithin30DaysSuppressesInWhateverOrderTheyAreRead) {
  BounceImporter importer(connection_);
  importer.Import("c",
                  Dsn("Sun, 20 Sep 2026 10:00:00 +0000", "soft@example.org", "failed", "4.2.2"));
  importer.Import("a",
                  Dsn("Tue, 1 Sep 2026 10:00:00 +0000", "soft@example.org", "failed", "4.2.2"));
  EXPECT_TRUE(Suppressed().empty());
  importer.Import("b",
                  Dsn("Thu, 10 Sep 2026 10:00:00 +0000", "soft@example.org", "failed", "4.4.7"));
  EXPECT_EQ(importer.summary().soft, 3);
  EXPECT_EQ(importer.summary().suppressed, 1);
  EXPECT_EQ(Suppressed(), (std::map<std::string, std::string>{{"soft@example.org", "bounced K1"}}));
}

TEST_P(BounceImportTest, SoftBouncesSpreadOverMoreThan30DaysOnlyCount) {
  BounceImporter importer(connection_);
  importer.Import("a",
                  Dsn("Wed, 1 Jul 2026 10:00:00 +0000", "spread@example.org", "failed", "4.2.2"));
  importer.Import("b",
                  Dsn("Wed, 5 Aug 2026 10:00:00 +0000", "spread@example.org", "failed", "4.2.2"));
  importer.Import("c",
                  Dsn("Sat, 12 Sep 2026 10:00:00 +0000", "spread@example.org", "failed", "4.2.2"));
  EXPECT_EQ(importer.summary().soft, 3);
  EXPECT_TRUE(Suppressed().empty());
}

TEST_P(BounceImportTest, DelayWarningsAndDeliveriesAreCountedOnly) {
  BounceImporter importer(connection_);
  importer.Import("a",
                  Dsn("Tue, 1 Sep 2026 10:00:00 +0000", "slow@example.org", "delayed", "4.4.1"));
  importer.Import("b",
                  Dsn("Tue, 1 Sep 2026 10:00:00 +0000", "fine@example.org", "relayed", "2.0.0"));
  EXPECT_EQ(importer.summary().delayed, 1);
  EXPECT_EQ(importer.summary().delivered, 1);
  EXPECT_TRUE(Suppressed().empty());
}

TEST_P(BounceImportTest, AComplaintSuppressesAsComplained) {
  BounceImporter importer(connection_);
  importer.Import("arf", Complaint("<carol@example.com>"));
  EXPECT_EQ(importer.summary().complaints, 1);
  EXPECT_EQ(Suppressed(),
            (std::map<std::string, std::string>{{"carol@example.com", "complained "}}));
}

TEST_P(BounceImportTest, AVerpReturnPathNamesTheClientWhereTheReportDoesNot) {
  const std::string key = UnsubscribeKey(*connection_);
  const std::string verp = VerpAddress(key, "bounces@news.example.com", "A1", "K2");
  BounceImporter importer(connection_);
  // The report names the address the mail was forwarded to, not Ada's.
  importer.Import("fwd", Dsn("Tue, 1 Sep 2026 10:00:00 +0000", "ada@forward.example.net", "failed",
                             "5.1.1", verp));
  EXPECT_EQ(Suppressed(), (std::map<std::string, std::string>{{"ada@example.org", "bounced K2"}}));
}

TEST_P(BounceImportTest, AForgedVerpTokenIsIgnoredAndTheReportsAddressIsUsed) {
  const std::string key = UnsubscribeKey(*connection_);
  std::string verp = VerpAddress(key, "bounces@news.example.com", "A1", "K2");
  verp[verp.find('@') - 1] ^= 1;
  BounceImporter importer(connection_);
  importer.Import("forged", Dsn("Tue, 1 Sep 2026 10:00:00 +0000", "eve@example.net", "failed",
                                "5.1.1", verp, "nothing"));
  EXPECT_EQ(Suppressed(), (std::map<std::string, std::string>{{"eve@example.net", "bounced "}}));
}

TEST_P(BounceImportTest, AMessageInNoStandardFormatIsReportedAndNothingIsDone) {
  BounceImporter importer(connection_);
  importer.Import("away", "From: ada@example.org\nSubject: Away\n\nBack on Monday.\n");
  importer.Import("away", "From: ada@example.org\nSubject: Away\n\nBack on Monday.\n");
  ASSERT_EQ(importer.summary().not_understood.size(), 2u);
  EXPECT_EQ(importer.summary().not_understood[0].first, "away");
  EXPECT_EQ(importer.summary().not_understood[0].second,
            "not a delivery status notification or feedback report (text/plain)");
  EXPECT_EQ(importer.summary().already_imported, 0);
  EXPECT_TRUE(Suppressed().empty());
}

INSTANTIATE_TEST_SUITE_P(Engines, BounceImportTest, quillo::testing_support::TestEngines(),
                         quillo::testing_support::EngineName);

std::vector<std::pair<std::string, std::string>> Read(const std::string& path) {
  std::vector<std::pair<std::string, std::string>> out;
  ReadMailbox(path, [&](const std::string& name, std::string_view bytes) {
    out.emplace_back(std::filesystem::path(name).filename().string(), std::string(bytes));
  });
  return out;
}

TEST(ReadMailbox, AMaildirGivesNewAndCurButNotTmp) {
  quillo::testing::TempFolder folder;
  for (const char* sub : {"new", "cur", "tmp"}) std::filesystem::create_directory(folder.File(sub));
  folder.Write("new/2", "B");
  folder.Write("cur/1:2,S", "A");
  folder.Write("tmp/3", "half written");
  EXPECT_EQ(Read(folder.path()),
            (std::vector<std::pair<std::string, std::string>>{{"2", "B"}, {"1:2,S", "A"}}));
}

TEST(ReadMailbox, AnMboxIsSplitAtFromLinesAndQuotedFromLinesLoseOneMark) {
  quillo::testing::TempFolder folder;
  std::string path = folder.Write("box",
                                  "From MAILER-DAEMON Tue Sep  1 10:00:00 2026\n"
                                  "Subject: one\n\n>From the start\n>>From two\n\n"
                                  "From MAILER-DAEMON Tue Sep  1 11:00:00 2026\n"
                                  "Subject: two\n\nbody\n");
  auto messages = Read(path);
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0].second, "Subject: one\n\nFrom the start\n>From two\n");
  EXPECT_EQ(messages[1].second, "Subject: two\n\nbody\n");
  EXPECT_EQ(messages[1].first, "box message 2 (line 7)");
}

TEST(ReadMailbox, AFolderGivesEachFileAndAFileIsOneMessage) {
  quillo::testing::TempFolder folder;
  folder.Write("b.eml", "B");
  folder.Write("a.eml", "A");
  folder.Write(".hidden", "H");
  EXPECT_EQ(Read(folder.path()),
            (std::vector<std::pair<std::string, std::string>>{{"a.eml", "A"}, {"b.eml", "B"}}));
  EXPECT_EQ(Read(folder.File("a.eml")),
            (std::vector<std::pair<std::string, std::string>>{{"a.eml", "A"}}));
}

TEST(ReadMailbox, AMissingPathIsAClearError) {
  try {
    Read("/nonexistent/quillo-bounces");
    FAIL() << "no error";
  } catch (const MailboxError& e) {
    EXPECT_STREQ(e.what(), "'/nonexistent/quillo-bounces' does not exist");
  }
}

}  // namespace
}  // namespace quillo::delivery
