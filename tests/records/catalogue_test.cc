// The record protocol's exact statements, key handling and failure reporting,
// pinned on dmcatalogitem, dmclients, dmclientscustom and dmsmtpaccounts, on
// every engine.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/database.h"
#include "platform/object.h"
#include "records/dmcatalogitem.h"
#include "records/dmclients.h"
#include "records/dmclientscustom.h"
#include "records/dmsmtpaccounts.h"
#include "records/record_test_util.h"

namespace quillo {
namespace {

using records_test::CountRows;
using records_test::Exec;
using records_test::FirstValue;
using records_test::FixedIdGenerator;
using records_test::OpenRecordset;
using records_test::PropertyBag;
using Texts = std::vector<std::string>;

constexpr const char* kKey = "0123456789ABCDEF0123456789ABCDEF";
constexpr const char* kZeroStamp = "{ts '1899-12-30 00:00:00'}";
// 2005-03-01 14:05:09.
const Date kMarchFirst(38412.0 + (14 * 3600 + 5 * 60 + 9) / 86400.0);

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}
bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

class Catalogue : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    connection_ = records_test::OpenDatabase(GetParam());
    ASSERT_NE(connection_, nullptr);
    generator_ = std::make_shared<FixedIdGenerator>(std::deque<std::string>{kKey});
  }
  template <class R>
  std::shared_ptr<R> Make() {
    auto record = std::make_shared<R>();
    record->Connection(connection_);
    record->IDGenerator(generator_);
    return record;
  }
  std::shared_ptr<dmcatalogitem> SavedItem() {
    auto item = Make<dmcatalogitem>();
    item->BaseFileName("b");
    item->Category("Newsletters");
    item->Description("O'Brien's");
    item->FileName("a.txt");
    EXPECT_TRUE(item->SaveData()) << item->ErrorMessage();
    return item;
  }

  std::shared_ptr<Connection> connection_;
  std::shared_ptr<FixedIdGenerator> generator_;
};

// --- Exact statement texts ----------------------------------------------------

TEST_P(Catalogue, CatalogItemInsertIsOneProbeThenAnInsertKeyFirst) {
  auto item = SavedItem();
  EXPECT_EQ(item->SQLExecuted(),
            (Texts{"SELECT RecID FROM dmcatalogitem WHERE RecID = '';",
                   "INSERT INTO dmcatalogitem (RecID, BaseFileName, Category, Description, "
                   "FileName) VALUES ('0123456789ABCDEF0123456789ABCDEF', 'b', 'Newsletters', "
                   "'O''Brien''s', 'a.txt');"}));
  EXPECT_EQ(item->RecID(), kKey);
  EXPECT_EQ(generator_->calls(), 1);
}

TEST_P(Catalogue, CatalogItemUpdateSetsEveryColumnButTheKey) {
  auto item = SavedItem();
  item->FileName("b.txt");
  ASSERT_TRUE(item->SaveData()) << item->ErrorMessage();
  EXPECT_EQ(item->SQLExecuted(),
            (Texts{"SELECT RecID FROM dmcatalogitem WHERE RecID = "
                   "'0123456789ABCDEF0123456789ABCDEF';",
                   "UPDATE dmcatalogitem SET BaseFileName = 'b', Category = 'Newsletters', "
                   "Description = 'O''Brien''s', FileName = 'b.txt' WHERE RecID = "
                   "'0123456789ABCDEF0123456789ABCDEF';"}));
  EXPECT_EQ(item->LastSQLExecuted(), item->SQLExecuted().back());
  EXPECT_EQ(generator_->calls(), 1);
  EXPECT_EQ(FirstValue(connection_, "SELECT FileName FROM dmcatalogitem", "FileName").ToString(),
            "b.txt");
}

TEST_P(Catalogue, LoadAndDeleteTexts) {
  auto item = SavedItem();
  item->LoadData();
  EXPECT_EQ(item->SQLExecuted(),
            Texts{"SELECT * FROM dmcatalogitem WHERE RecID = '0123456789ABCDEF0123456789ABCDEF';"});
  item->Delete();
  EXPECT_EQ(item->SQLExecuted(),
            Texts{"DELETE FROM dmcatalogitem WHERE RecID = '0123456789ABCDEF0123456789ABCDEF';"});
}

TEST_P(Catalogue, ClientInsertNamesTheSqlColumnsInOrder) {
  auto client = Make<dmclients>();
  client->Account("A-100");
  client->city("Springfield");
  client->Email("a@b.c");
  client->EMailList(1);
  client->CalledDate(kMarchFirst);
  client->state("IL");
  client->zip("62701");
  ASSERT_TRUE(client->SaveData()) << client->ErrorMessage();
  const std::string z = kZeroStamp;
  EXPECT_EQ(
      client->SQLExecuted(),
      (Texts{"SELECT Account FROM dmclients WHERE Account = 'A-100';",
             "INSERT INTO dmclients (Account, Address, AgentID, CalledDate, CellPhone, City, "
             "Company, ContactDate, Country, EMail, EMailList, FaxPhone, First, HomePhone, "
             "HotSheetList, Last, LastMinuteList, LoginID, LoginPassword, MailingList, "
             "Middle, ModifiedRemote, Notes, PO, RecordAddedBy, RecordAddedDate, "
             "RecordEditedBy, RecordEditedDate, SiteID, State, Title, WorkPhone, Zip) "
             "VALUES ('0123456789ABCDEF0123456789ABCDEF', '', '', "
             "{ts '2005-03-01 14:05:09'}, '', 'Springfield', '', " +
                 z + ", '', 'a@b.c', 1, '', '', '', 0, '', 0, '', '', 0, '', 0, '', '', '', " + z +
                 ", '', " + z + ", '', 'IL', '', '', '62701');"}));
}

TEST_P(Catalogue, ClientUpdateIsKeyedByAccount) {
  auto client = Make<dmclients>();
  ASSERT_TRUE(client->SaveData());
  client->Notes("n");
  ASSERT_TRUE(client->SaveData());
  const std::string z = kZeroStamp;
  EXPECT_EQ(client->SQLExecuted(),
            (Texts{"SELECT Account FROM dmclients WHERE Account = "
                   "'0123456789ABCDEF0123456789ABCDEF';",
                   "UPDATE dmclients SET Address = '', AgentID = '', CalledDate = " + z +
                       ", CellPhone = '', City = '', Company = '', ContactDate = " + z +
                       ", Country = '', EMail = '', EMailList = 0, FaxPhone = '', First = '', "
                       "HomePhone = '', HotSheetList = 0, Last = '', LastMinuteList = 0, "
                       "LoginID = '', LoginPassword = '', MailingList = 0, Middle = '', "
                       "ModifiedRemote = 0, Notes = 'n', PO = '', RecordAddedBy = '', "
                       "RecordAddedDate = " +
                       z + ", RecordEditedBy = '', RecordEditedDate = " + z +
                       ", SiteID = '', State = '', Title = '', WorkPhone = '', Zip = '' "
                       "WHERE Account = '0123456789ABCDEF0123456789ABCDEF';"}));
  client->LoadData();
  EXPECT_EQ(client->LastSQLExecuted(),
            "SELECT * FROM dmclients WHERE Account = '0123456789ABCDEF0123456789ABCDEF';");
  client->Delete();
  EXPECT_EQ(client->LastSQLExecuted(),
            "DELETE FROM dmclients WHERE Account = '0123456789ABCDEF0123456789ABCDEF';");
}

TEST_P(Catalogue, SmtpAccountTextsKeepTheDefaultColumnBare) {
  auto account = Make<dmsmtpaccounts>();
  account->AccountName("main");
  account->AccountPassword("pa'ss");
  account->Default(1);
  account->Domain("example.com");
  account->Email("me@example.com");
  account->EmailFriendly("Me");
  account->MailServer("127.0.0.1");
  account->Port(2525);
  account->UseAuthentication(-1);
  ASSERT_TRUE(account->SaveData()) << account->ErrorMessage();
  EXPECT_EQ(account->LastSQLExecuted(),
            "INSERT INTO dmsmtpaccounts (RecID, AccountName, AccountPassword, Default, Domain, "
            "Email, EmailFriendly, MailServer, Port, UseAuthentication) VALUES "
            "('0123456789ABCDEF0123456789ABCDEF', 'main', 'pa''ss', 1, 'example.com', "
            "'me@example.com', 'Me', '127.0.0.1', 2525, -1);");
  account->Default(0);
  ASSERT_TRUE(account->SaveData()) << account->ErrorMessage();
  EXPECT_EQ(account->LastSQLExecuted(),
            "UPDATE dmsmtpaccounts SET AccountName = 'main', AccountPassword = 'pa''ss', "
            "Default = 0, Domain = 'example.com', Email = 'me@example.com', EmailFriendly = 'Me', "
            "MailServer = '127.0.0.1', Port = 2525, UseAuthentication = -1 WHERE RecID = "
            "'0123456789ABCDEF0123456789ABCDEF';");
  auto loaded = Make<dmsmtpaccounts>();
  loaded->RecID(kKey);
  loaded->LoadData();
  EXPECT_EQ(loaded->Default(), 0);
  EXPECT_EQ(loaded->Port(), 2525);
  EXPECT_EQ(loaded->AccountPassword(), "pa'ss");
}

// --- Keys ---------------------------------------------------------------------

TEST_P(Catalogue, InsertDiscardsTheCallersAccount) {
  auto client = Make<dmclients>();
  client->Account("A-100");
  ASSERT_TRUE(client->SaveData());
  EXPECT_EQ(client->Account(), kKey);
  EXPECT_EQ(CountRows(connection_, "SELECT * FROM dmclients WHERE Account = 'A-100'"), 0);
  EXPECT_EQ(
      CountRows(connection_, std::string("SELECT * FROM dmclients WHERE Account = '") + kKey + "'"),
      1);
}

TEST_P(Catalogue, ClientCityStateZipUseTheirSqlColumns) {
  auto client = Make<dmclients>();
  client->city("Springfield");
  client->state("IL");
  client->zip("62701");
  ASSERT_TRUE(client->SaveData());
  const std::string where = std::string(" FROM dmclients WHERE Account = '") + kKey + "'";
  EXPECT_EQ(FirstValue(connection_, "SELECT City" + where, "City").ToString(), "Springfield");
  EXPECT_EQ(FirstValue(connection_, "SELECT State" + where, "State").ToString(), "IL");
  EXPECT_EQ(FirstValue(connection_, "SELECT Zip" + where, "Zip").ToString(), "62701");
  Exec(connection_, "UPDATE dmclients SET City = 'Peoria'" + where.substr(14));
  auto loaded = Make<dmclients>();
  loaded->Account(kKey);
  loaded->LoadData();
  EXPECT_EQ(loaded->city(), "Peoria");
  EXPECT_EQ(loaded->state(), "IL");
  EXPECT_EQ(loaded->zip(), "62701");
}

TEST_P(Catalogue, SecondSaveUpdatesTheSameRow) {
  auto item = SavedItem();
  EXPECT_FALSE(item->IsNew());
  item->Category("Changed");
  ASSERT_TRUE(item->SaveData());
  EXPECT_EQ(CountRows(connection_, "SELECT * FROM dmcatalogitem"), 1);
  EXPECT_EQ(generator_->calls(), 1);
}

TEST_P(Catalogue, KeyNoRowHasIsInsertedUnderAFreshKey) {
  auto item = Make<dmcatalogitem>();
  item->RecID("given-key");
  ASSERT_TRUE(item->SaveData());
  EXPECT_EQ(item->RecID(), kKey);
  EXPECT_EQ(CountRows(connection_, "SELECT * FROM dmcatalogitem WHERE RecID = 'given-key'"), 0);
}

TEST_P(Catalogue, GeneratorIsCalledByName) {
  // A host object with nothing but a GetNextRecordID member.
  auto item = Make<dmcatalogitem>();
  item->IDGenerator(std::make_shared<FixedIdGenerator>(std::deque<std::string>{"HOSTKEY"}));
  ASSERT_TRUE(item->SaveData());
  EXPECT_EQ(item->RecID(), "HOSTKEY");
}

// --- Nulls --------------------------------------------------------------------

TEST_P(Catalogue, NullNumberAndDateLoadAsZeroAndWriteBackAsTheZeroStamp) {
  Exec(connection_, "INSERT INTO dmclientscustom (RecID, Account) VALUES ('C1', 'A')");
  auto custom = Make<dmclientscustom>();
  custom->NumericValue(9.5f);
  custom->DateValue(kMarchFirst);
  custom->TextValue("x");
  custom->RecID("C1");
  custom->LoadData();
  EXPECT_FALSE(custom->Error()) << custom->ErrorMessage();
  EXPECT_EQ(custom->NumericValue(), 0.0f);
  EXPECT_EQ(custom->DateValue(), Date());
  EXPECT_EQ(custom->TextValue(), "");
  EXPECT_EQ(custom->BoolValue(), 0);
  EXPECT_EQ(custom->Account(), "A");
  ASSERT_TRUE(custom->SaveData()) << custom->ErrorMessage();
  EXPECT_EQ(custom->LastSQLExecuted(),
            "UPDATE dmclientscustom SET Account = 'A', BoolValue = 0, CustomRecID = '', "
            "DateValue = {ts '1899-12-30 00:00:00'}, NumericValue = 0, TextValue = '' "
            "WHERE RecID = 'C1';");
}

TEST_P(Catalogue, SinglesAndDatesSurviveTheDatabase) {
  auto custom = Make<dmclientscustom>();
  custom->NumericValue(-0.5f);
  custom->DateValue(kMarchFirst);
  ASSERT_TRUE(custom->SaveData());
  EXPECT_NE(custom->LastSQLExecuted().find("DateValue = {ts '2005-03-01 14:05:09'}"),
            std::string::npos);
  EXPECT_NE(custom->LastSQLExecuted().find(", -.5, "), std::string::npos);
  auto loaded = Make<dmclientscustom>();
  loaded->RecID(custom->RecID());
  loaded->LoadData();
  EXPECT_EQ(loaded->NumericValue(), -0.5f);
  EXPECT_NEAR(loaded->DateValue().value, kMarchFirst.value, 0.5 / 86400.0);
}

// --- Failures -----------------------------------------------------------------

TEST_P(Catalogue, KeyWithAQuoteBreaksSaveAndChangesNoRow) {
  auto saved = SavedItem();
  auto item = Make<dmcatalogitem>();
  item->Copy(saved);
  item->RecID("O'Brien");
  item->Category("must not land");
  EXPECT_FALSE(item->SaveData());
  EXPECT_TRUE(item->Error());
  EXPECT_TRUE(StartsWith(item->ErrorMessage(),
                         "SELECT RecID FROM dmcatalogitem WHERE RecID = 'O'Brien';.....(SysCode: "))
      << item->ErrorMessage();
  EXPECT_TRUE(EndsWith(item->ErrorMessage(), "). ")) << item->ErrorMessage();
  EXPECT_EQ(CountRows(connection_, "SELECT * FROM dmcatalogitem"), 1);
  EXPECT_EQ(CountRows(connection_, "SELECT * FROM dmcatalogitem WHERE Category = 'Newsletters'"),
            1);
}

TEST_P(Catalogue, KeyWithAQuoteBreaksDeleteAndLoad) {
  auto item = Make<dmcatalogitem>();
  item->RecID("O'Brien");
  item->Category("kept");
  item->Delete();
  EXPECT_TRUE(item->Error());
  EXPECT_TRUE(StartsWith(item->ErrorMessage(),
                         "DELETE FROM dmcatalogitem WHERE RecID = 'O'Brien';.....(SysCode: "))
      << item->ErrorMessage();
  item->LoadData();
  EXPECT_TRUE(item->Error());
  EXPECT_TRUE(StartsWith(item->ErrorMessage(),
                         "SELECT * FROM dmcatalogitem WHERE RecID = 'O'Brien';.....(SysCode: "))
      << item->ErrorMessage();
  EXPECT_EQ(item->Category(), "kept");
}

TEST_P(Catalogue, MissingGeneratorFailsTheInsertWithTheStatementsEmptyMessage) {
  auto item = Make<dmcatalogitem>();
  item->IDGenerator(nullptr);
  item->RecID("mine");
  EXPECT_FALSE(item->SaveData());
  EXPECT_TRUE(item->Error());
  EXPECT_EQ(item->ErrorMessage(), "");
  EXPECT_EQ(item->RecID(), "mine");
  EXPECT_EQ(CountRows(connection_, "SELECT * FROM dmcatalogitem"), 0);
}

TEST_P(Catalogue, GeneratorWithoutTheMethodFailsTheInsert) {
  auto item = Make<dmcatalogitem>();
  item->IDGenerator(std::make_shared<PropertyBag>(
      std::vector<std::pair<std::string, Variant>>{{"Something", Variant(1)}}));
  EXPECT_FALSE(item->SaveData());
  EXPECT_TRUE(item->Error());
  EXPECT_EQ(CountRows(connection_, "SELECT * FROM dmcatalogitem"), 0);
}

TEST_P(Catalogue, DuplicateGeneratedKeyFailsAndKeepsTheFirstRow) {
  generator_ = std::make_shared<FixedIdGenerator>(std::deque<std::string>{"DUP", "DUP"});
  auto first = SavedItem();
  auto second = Make<dmcatalogitem>();
  second->Category("second");
  EXPECT_FALSE(second->SaveData());
  EXPECT_TRUE(second->Error());
  EXPECT_TRUE(StartsWith(second->ErrorMessage(), "INSERT INTO dmcatalogitem (RecID, "))
      << second->ErrorMessage();
  EXPECT_EQ(CountRows(connection_, "SELECT * FROM dmcatalogitem"), 1);
  EXPECT_EQ(FirstValue(connection_, "SELECT Category FROM dmcatalogitem", "Category").ToString(),
            "Newsletters");
}

TEST_P(Catalogue, NoConnectionFailsEveryDatabaseOperation) {
  auto item = std::make_shared<dmcatalogitem>();
  item->IDGenerator(generator_);
  EXPECT_FALSE(item->ConnectionOpen());
  EXPECT_FALSE(item->SaveData());
  EXPECT_TRUE(item->Error());
  item->Error(false);
  item->LoadData();
  EXPECT_TRUE(item->Error());
  item->Error(false);
  item->RecID("k");
  item->Delete();
  EXPECT_TRUE(item->Error());
  EXPECT_TRUE(StartsWith(item->ErrorMessage(), "DELETE FROM dmcatalogitem WHERE RecID = 'k';"));
  EXPECT_EQ(generator_->calls(), 0);
}

TEST_P(Catalogue, ClosedConnectionFailsAndChangesNoRow) {
  auto item = Make<dmcatalogitem>();
  EXPECT_TRUE(item->ConnectionOpen());
  connection_->Close();
  EXPECT_FALSE(item->ConnectionOpen());
  EXPECT_FALSE(item->SaveData());
  EXPECT_TRUE(item->Error());
  EXPECT_TRUE(StartsWith(item->ErrorMessage(),
                         "SELECT RecID FROM dmcatalogitem WHERE RecID = '';.....(SysCode: "))
      << item->ErrorMessage();
  EXPECT_EQ(generator_->calls(), 0);
}

TEST_P(Catalogue, OperationsResetTheErrorProperties) {
  auto item = SavedItem();
  item->Error(true);
  item->LoadData();
  EXPECT_FALSE(item->Error());
  item->Error(true);
  EXPECT_TRUE(item->SaveData());
  EXPECT_FALSE(item->Error());
  item->Error(true);
  item->Delete();
  EXPECT_FALSE(item->Error());
}

TEST_P(Catalogue, DeletingAMissingKeyIsNoError) {
  auto item = Make<dmcatalogitem>();
  item->RecID("nothing");
  item->Delete();
  EXPECT_FALSE(item->Error());
}

// --- LoadDataFromDS and Copy --------------------------------------------------

TEST_P(Catalogue, LoadDataFromDSAtTheEndChangesNothing) {
  auto item = SavedItem();
  auto target = Make<dmcatalogitem>();
  target->Category("kept");
  auto rs = OpenRecordset(connection_, "SELECT * FROM dmcatalogitem WHERE RecID = 'none'");
  target->LoadDataFromDS(rs);
  EXPECT_EQ(target->Category(), "kept");
  EXPECT_EQ(target->RecID(), "");
}

TEST_P(Catalogue, LoadDataFromDSReadsTheCurrentRowWithoutMoving) {
  generator_ = std::make_shared<FixedIdGenerator>(std::deque<std::string>{"A1", "B2"});
  SavedItem();
  auto second = Make<dmcatalogitem>();
  second->Category("second");
  ASSERT_TRUE(second->SaveData());
  auto rs = OpenRecordset(connection_, "SELECT * FROM dmcatalogitem ORDER BY RecID");
  auto target = Make<dmcatalogitem>();
  target->LoadDataFromDS(rs);
  EXPECT_EQ(target->RecID(), "A1");
  EXPECT_EQ(target->Category(), "Newsletters");
  target->LoadDataFromDS(rs);
  EXPECT_EQ(target->RecID(), "A1");
  EXPECT_FALSE(rs->Eof());
}

TEST_P(Catalogue, CopyReadsAHostObjectByName) {
  auto bag = std::make_shared<PropertyBag>(
      std::vector<std::pair<std::string, Variant>>{{"BaseFileName", Variant("b")},
                                                   {"Category", Variant(42)},
                                                   {"Description", Variant("d")},
                                                   {"FileName", Variant("f")},
                                                   {"RecID", Variant("R")}});
  dmcatalogitem item;
  item.Copy(bag);
  EXPECT_EQ(item.BaseFileName(), "b");
  EXPECT_EQ(item.Category(), "42");
  EXPECT_EQ(item.RecID(), "R");
  EXPECT_EQ(item.Connection(), nullptr);
}

TEST_P(Catalogue, CopyFromAnObjectWithoutTheColumnsFails) {
  dmcatalogitem item;
  try {
    item.Copy(std::make_shared<dmclients>());
    ADD_FAILURE() << "expected error 438";
  } catch (const RuntimeError& e) {
    EXPECT_EQ(e.number, err::kMemberNotFound);
  }
  try {
    item.Copy(nullptr);
    ADD_FAILURE() << "expected error 91";
  } catch (const RuntimeError& e) {
    EXPECT_EQ(e.number, err::kObjectNotSet);
  }
}

TEST_P(Catalogue, CopyLeavesHostPropertiesAlone) {
  auto source = SavedItem();
  auto target = std::make_shared<dmcatalogitem>();
  target->Copy(source);
  EXPECT_EQ(target->Connection(), nullptr);
  EXPECT_EQ(target->IDGenerator(), nullptr);
  EXPECT_EQ(target->RecID(), source->RecID());
}

INSTANTIATE_TEST_SUITE_P(Engines, Catalogue, ::testing::ValuesIn(records_test::Engines()),
                         [](const auto& info) { return info.param; });

}  // namespace
}  // namespace quillo
