// The SQL statement builder: templates, setters, finished text, and running
// statements and recordsets on every engine.
#include "records/sql_statement.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/database.h"
#include "platform/date.h"
#include "platform/schema.h"
#include "support/error_matchers.h"
#include "support/test_databases.h"

namespace quillo {
namespace {

using testing_support::Engine;
using testing_support::TestDatabase;

// ---------------------------------------------------------------------------
// Templates and the finished text.

TEST(SqlStatementText, TrimsTheTemplateAndDecidesTheKind) {
  SQLStatement st;
  st.Sql("   insert into t (?) values (?)  ");
  EXPECT_EQ(st.Kind(), SQLStatement::kInsert);
  st.Sql("UPDATE t SET ? WHERE RecID = 'x'");
  EXPECT_EQ(st.Kind(), SQLStatement::kUpdate);
  st.Sql("update t set ?");
  EXPECT_EQ(st.Kind(), SQLStatement::kUpdate);
  st.Sql("SELECT * FROM t");
  EXPECT_EQ(st.Kind(), SQLStatement::kOther);
  EXPECT_EQ(st.Sql(), "SELECT * FROM t");
}

TEST(SqlStatementText, OnlySixCharactersDecideAnInsert) {
  SQLStatement st;
  st.Sql("INSERTED (?) (?)");
  EXPECT_EQ(st.Kind(), SQLStatement::kInsert);
  st.SetLong("a", Variant(std::int32_t{1}));
  EXPECT_EQ(st.Sql(), "INSERTED (a) (1)");
}

TEST(SqlStatementText, InsertFillsNamesThenValues) {
  SQLStatement st;
  st.Sql("INSERT INTO dmcatalogitem (?) VALUES (?);");
  st.SetString("RecID", "2f0c");
  st.SetString("Category", "Newsletters");
  EXPECT_EQ(st.Sql(),
            "INSERT INTO dmcatalogitem (RecID, Category) VALUES ('2f0c', 'Newsletters');");
  // Reading the text does not change the field list.
  EXPECT_EQ(st.Sql(),
            "INSERT INTO dmcatalogitem (RecID, Category) VALUES ('2f0c', 'Newsletters');");
  EXPECT_EQ(st.FieldList().Count(), 2);
}

TEST(SqlStatementText, UpdateFillsNameValuePairs) {
  SQLStatement st;
  st.Sql("UPDATE dmcatalogitem SET ? WHERE RecID = '2f0c';");
  st.SetString("Category", "Newsletters");
  st.SetString("FileName", "a.txt");
  EXPECT_EQ(st.Sql(),
            "UPDATE dmcatalogitem SET Category = 'Newsletters', FileName = 'a.txt' WHERE RecID = "
            "'2f0c';");
}

TEST(SqlStatementText, UpdateWithoutPlaceholderIsUnchanged) {
  SQLStatement st;
  st.Sql("UPDATE t SET a = 1");
  st.SetLong("b", Variant(std::int32_t{2}));
  EXPECT_EQ(st.Sql(), "UPDATE t SET a = 1");
}

TEST(SqlStatementText, InsertWithoutPlaceholderFailsWhenTheTextIsComputed) {
  SQLStatement st;
  st.Sql("INSERT INTO t VALUES (1)");
  st.SetLong("a", Variant(std::int32_t{1}));
  EXPECT_RUNTIME_ERROR(st.Sql(), err::kInvalidProcedureCall);
  st.Sql("INSERT INTO t (?) VALUES (1)");
  st.SetLong("a", Variant(std::int32_t{1}));
  EXPECT_RUNTIME_ERROR(st.Sql(), err::kInvalidProcedureCall);
}

TEST(SqlStatementText, OtherKindsIgnoreTheFieldList) {
  SQLStatement st;
  st.Sql("DELETE FROM t WHERE a = ?");
  st.SetLong("a", Variant(std::int32_t{1}));
  EXPECT_EQ(st.Sql(), "DELETE FROM t WHERE a = ?");
}

TEST(SqlStatementText, AColumnSetTwiceKeepsItsFirstNameAndPlaceAndLastValue) {
  SQLStatement st;
  st.Sql("INSERT INTO t (?) VALUES (?)");
  st.SetString("recid", "a");
  st.SetLong("n", Variant(std::int32_t{1}));
  st.SetString("RecID", "b");
  EXPECT_EQ(st.Sql(), "INSERT INTO t (recid, n) VALUES ('b', 1)");
}

TEST(SqlStatementText, SettingSqlStartsAFreshStatement) {
  SQLStatement st;
  st.Sql("INSERT INTO t (?) VALUES (?)");
  st.SetString("a", "x");
  st.Sql("INSERT INTO u (?) VALUES (?)");
  st.SetString("b", "y");
  EXPECT_EQ(st.Sql(), "INSERT INTO u (b) VALUES ('y')");
}

// ---------------------------------------------------------------------------
// Setters and their renderings.

std::string Rendered(void (SQLStatement::*setter)(std::string_view, const Variant&),
                     const Variant& value) {
  SQLStatement st;
  st.Sql("UPDATE t SET ?");
  (st.*setter)("c", value);
  return st.FieldList().Item(1)->FieldValue();
}

TEST(SqlStatementSetters, NumbersAreLocaleIndependentAndTrimmed) {
  EXPECT_EQ(Rendered(&SQLStatement::SetLong, Variant(std::int32_t{-2})), "-2");
  EXPECT_EQ(Rendered(&SQLStatement::SetLong, Variant(std::int32_t{42})), "42");
  EXPECT_EQ(Rendered(&SQLStatement::SetDouble, Variant(3.5)), "3.5");
  EXPECT_EQ(Rendered(&SQLStatement::SetDouble, Variant(0.5)), ".5");
  EXPECT_EQ(Rendered(&SQLStatement::SetDouble, Variant(-0.5)), "-.5");
  EXPECT_EQ(Rendered(&SQLStatement::SetSingle, Variant(1.25f)), "1.25");
  EXPECT_EQ(Rendered(&SQLStatement::SetInteger, Variant(std::int16_t{7})), "7");
  EXPECT_EQ(Rendered(&SQLStatement::SetCurrency, Variant(Currency{12345})), "1.2345");
  EXPECT_EQ(Rendered(&SQLStatement::SetDouble, Variant(1e20)), "1E+20");
}

TEST(SqlStatementSetters, NullOrNonNumericNumbersAreZero) {
  EXPECT_EQ(Rendered(&SQLStatement::SetLong, Variant(kNull)), "0");
  EXPECT_EQ(Rendered(&SQLStatement::SetInteger, Variant("abc")), "0");
  EXPECT_EQ(Rendered(&SQLStatement::SetDouble, Variant(kNull)), "0");
  EXPECT_EQ(Rendered(&SQLStatement::SetCurrency, Variant("x1")), "0");
  EXPECT_EQ(Rendered(&SQLStatement::SetSingle, Variant(kNull)), "0");
}

TEST(SqlStatementSetters, IntegerSettersRoundToTheirType) {
  EXPECT_EQ(Rendered(&SQLStatement::SetLong, Variant("12.5")), "12");
  EXPECT_EQ(Rendered(&SQLStatement::SetInteger, Variant(13.5)), "14");
}

TEST(SqlStatementSetters, StringsDoubleTheirQuotes) {
  SQLStatement st;
  st.Sql("UPDATE t SET ?");
  st.SetString("a", "O'Brien");
  st.SetString("b", "");
  st.SetStringNZ("c", "   ");
  st.SetStringNZ("d", " a ");
  st.SetStringNZ("e", "it's");
  EXPECT_EQ(st.Sql(), "UPDATE t SET a = 'O''Brien', b = '', c = NULL, d = ' a ', e = 'it''s'");
}

TEST(SqlStatementSetters, VerifyStringDoublesQuotesOnly) {
  SQLStatement st;
  EXPECT_EQ(st.VerifyString("a'b''c \"d\""), "a''b''''c \"d\"");
  EXPECT_EQ(st.VerifyString(""), "");
}

TEST(SqlStatementSetters, VariantRendersByType) {
  EXPECT_EQ(Rendered(&SQLStatement::SetVariant, Variant("  O'Brien  ")), "'O''Brien'");
  EXPECT_EQ(Rendered(&SQLStatement::SetVariant, Variant("")), "''");
  EXPECT_EQ(Rendered(&SQLStatement::SetVariant, Variant(std::int16_t{5})), "5");
  EXPECT_EQ(Rendered(&SQLStatement::SetVariant, Variant(std::int32_t{-7})), "-7");
  EXPECT_EQ(Rendered(&SQLStatement::SetVariant, Variant(2.25)), "2.25");
  EXPECT_EQ(Rendered(&SQLStatement::SetVariant, Variant(0.5f)), ".5");
  EXPECT_EQ(Rendered(&SQLStatement::SetVariant, Variant(Currency{50000})), "5");
  EXPECT_EQ(Rendered(&SQLStatement::SetVariant, Variant(DateFromParts(2005, 3, 1, 14, 5, 9))),
            "{ts '2005-03-01 14:05:09'}");
}

TEST(SqlStatementSetters, VariantOfOtherKindsRecordsAnEmptyLiteral) {
  EXPECT_EQ(Rendered(&SQLStatement::SetVariant, Variant(kNull)), "");
  EXPECT_EQ(Rendered(&SQLStatement::SetVariant, Variant()), "");
  EXPECT_EQ(Rendered(&SQLStatement::SetVariant, Variant(true)), "");
}

TEST(SqlStatementSetters, DatesTimesAndStamps) {
  EXPECT_EQ(Rendered(&SQLStatement::SetDate, Variant(DateSerial(2005, 3, 1))), "{d '2005-03-01'}");
  EXPECT_EQ(Rendered(&SQLStatement::SetDate, Variant("not a date")), "NULL");
  EXPECT_EQ(Rendered(&SQLStatement::SetTime, Variant(TimeSerial(9, 5, 3))), "{t '09:05:03'}");
  EXPECT_EQ(Rendered(&SQLStatement::SetTime, Variant(kNull)), "NULL");
  EXPECT_EQ(Rendered(&SQLStatement::SetTimeStamp, Variant(DateFromParts(999, 1, 2, 3, 4, 5))),
            "{ts '0999-01-02 03:04:05'}");
  EXPECT_EQ(Rendered(&SQLStatement::SetTimeStamp, Variant()), "NULL");
  EXPECT_EQ(Rendered(&SQLStatement::SetDate, Variant("2005-03-01")), "{d '2005-03-01'}");
}

TEST(SqlStatementSetters, ClearFieldsEmptiesTheList) {
  SQLStatement st;
  st.Sql("UPDATE t SET ?");
  st.SetLong("a", Variant(std::int32_t{1}));
  st.ClearFields();
  EXPECT_EQ(st.FieldList().Count(), 0);
  EXPECT_EQ(st.Sql(), "UPDATE t SET ");
}

TEST(SqlStatementState, ClassNameAndErrorSourceAreAlwaysEmpty) {
  SQLStatement st;
  EXPECT_EQ(st.ClassName(), "");
  EXPECT_EQ(st.ErrorSource(), "");
  st.Sql("SELECT nonsense FROM nowhere");
  st.Execute();
  EXPECT_TRUE(st.Error());
  EXPECT_EQ(st.ClassName(), "");
  EXPECT_EQ(st.ErrorSource(), "");
}

TEST(SqlStatementState, WithoutAConnectionOperationsFailWithTheLayersError) {
  SQLStatement st;
  st.Sql("SELECT 1");
  st.Execute();
  EXPECT_TRUE(st.Error());
  EXPECT_EQ(st.ErrorCode(), err::kDbObjectClosed);
  EXPECT_EQ(st.ErrorMessage(), "SELECT 1.....(SysCode: 3704). ");
  EXPECT_EQ(st.Connection()->State(), kAdStateClosed);
  auto rs = std::make_shared<Recordset>();
  EXPECT_FALSE(st.GetRecordsetFO(rs));
  EXPECT_EQ(st.ErrorCode(), err::kDbConnectionClosed);
}

TEST(SqlStatementState, InsertWithoutPlaceholderIsReportedByExecute) {
  SQLStatement st;
  st.Sql("INSERT INTO t VALUES (1)");
  st.SetLong("a", Variant(std::int32_t{1}));
  st.Execute();
  EXPECT_TRUE(st.Error());
  EXPECT_EQ(st.ErrorCode(), err::kInvalidProcedureCall);
  EXPECT_EQ(st.ErrorMessage(), ".....(SysCode: 5). ");
  EXPECT_EQ(st.FieldList().Count(), 1);
}

TEST(SqlStatementByName, IsPrivateAndPublishesItsMembers) {
  EXPECT_RUNTIME_ERROR(CreateObject("SQLStatement"), err::kCantCreateObject);
  ObjectPtr st = testing::CreatePrivateObject("SQLStatement");
  st->Invoke("Sql", CallKind::kPut, {Variant("INSERT INTO t (?) VALUES (?)")});
  st->Invoke("SetString", CallKind::kMethod, {Variant("a"), Variant("O'Brien")});
  st->Invoke("SetLong", CallKind::kMethod, {Variant("b"), Variant(kNull)});
  EXPECT_EQ(st->Invoke("Sql", CallKind::kGet),
            Variant("INSERT INTO t (a, b) VALUES ('O''Brien', 0)"));
  EXPECT_EQ(st->Invoke("ClassName", CallKind::kGet), Variant(""));
  ObjectPtr pair = testing::CreatePrivateObject("SQLFieldNameValues");
  pair->Invoke("FieldName", CallKind::kPut, {Variant("x")});
  EXPECT_EQ(pair->Invoke("FieldName", CallKind::kGet), Variant("x"));
}

// ---------------------------------------------------------------------------
// The same suite on every engine.

class SqlStatementEngineTest : public ::testing::TestWithParam<Engine> {
 protected:
  void SetUp() override {
    db_ = TestDatabase::Make(GetParam());
    conn_ = db_->Open();
    schema::Create(*conn_);
    st_.Connection(conn_);
  }

  // Inserts one catalogue row through the builder.
  void InsertItem(const std::string& id, const std::string& category) {
    st_.Sql("INSERT INTO dmcatalogitem (?) VALUES (?);");
    st_.SetString("RecID", id);
    st_.SetString("Category", category);
    st_.SetStringNZ("Description", "");
    st_.Execute();
    ASSERT_FALSE(st_.Error()) << st_.ErrorMessage();
  }

  std::unique_ptr<TestDatabase> db_;
  std::shared_ptr<Connection> conn_;
  SQLStatement st_;
};

TEST_P(SqlStatementEngineTest, ExecuteRunsTheFinishedTextAndEmptiesTheFields) {
  InsertItem("a1", "Newsletters");
  EXPECT_EQ(st_.LastSQLExecuted(),
            "INSERT INTO dmcatalogitem (RecID, Category, Description) VALUES ('a1', "
            "'Newsletters', NULL);");
  EXPECT_EQ(st_.FieldList().Count(), 0);
  EXPECT_FALSE(st_.Error());
  EXPECT_EQ(st_.ErrorCode(), 0);
  EXPECT_EQ(st_.ErrorMessage(), "");
}

TEST_P(SqlStatementEngineTest, UpdateThenReadBackThroughEveryCursor) {
  InsertItem("a1", "x");
  InsertItem("a2", "y");
  st_.Sql("UPDATE dmcatalogitem SET ? WHERE RecID = 'a1'");
  st_.SetString("Category", "O'Brien's");
  st_.SetString("FileName", "a.txt");
  st_.Execute();
  ASSERT_FALSE(st_.Error()) << st_.ErrorMessage();

  auto rs = std::make_shared<Recordset>();
  st_.Sql("SELECT * FROM dmcatalogitem ORDER BY RecID");
  ASSERT_TRUE(st_.GetRecordset(rs));
  EXPECT_EQ(rs->CursorType(), kAdOpenKeyset);
  EXPECT_EQ(rs->RecordCount(), 2);
  EXPECT_EQ(rs->FieldValue("category"), Variant("O'Brien's"));
  EXPECT_EQ(rs->Fields("FILENAME")->Value(), Variant("a.txt"));
  EXPECT_TRUE(rs->FieldValue("Description").IsNull());

  ASSERT_TRUE(st_.GetRecordsetRO(rs));  // Closes and reopens.
  EXPECT_EQ(rs->CursorType(), kAdOpenStatic);
  EXPECT_EQ(rs->RecordCount(), 2);

  ASSERT_TRUE(st_.GetRecordsetFO(rs));
  EXPECT_EQ(rs->CursorType(), kAdOpenForwardOnly);
  EXPECT_EQ(rs->RecordCount(), -1);
  int rows = 0;
  for (; !rs->Eof(); rs->MoveNext()) ++rows;
  EXPECT_EQ(rows, 2);
  EXPECT_EQ(st_.LastSQLExecuted(), "SELECT * FROM dmcatalogitem ORDER BY RecID");
}

TEST_P(SqlStatementEngineTest, FailingExecuteSetsTheErrorStateAndKeepsTheFields) {
  InsertItem("dup", "x");
  st_.Sql("INSERT INTO dmcatalogitem (?) VALUES (?);");
  st_.SetString("RecID", "dup");
  st_.Execute();
  ASSERT_TRUE(st_.Error());
  EXPECT_NE(st_.ErrorCode(), 0);
  EXPECT_EQ(st_.ErrorMessage(),
            st_.LastSQLExecuted() + ".....(SysCode: " + std::to_string(st_.ErrorCode()) + "). ");
  EXPECT_EQ(st_.FieldList().Count(), 1);
  if (GetParam() == Engine::kPostgres) {
    EXPECT_EQ(st_.ErrorCode(), -23505);  // unique_violation
  } else {
    EXPECT_EQ(st_.ErrorCode(), 19);  // SQLITE_CONSTRAINT
  }
  // The next Execute clears the state; the connection is still usable.
  InsertItem("fresh", "y");
  EXPECT_FALSE(st_.Error());
}

TEST_P(SqlStatementEngineTest, MalformedSqlIsReportedNotRaised) {
  st_.Sql("SELEC * FROM dmcatalogitem");
  st_.Execute();
  EXPECT_TRUE(st_.Error());
  EXPECT_EQ(st_.ErrorMessage(),
            "SELEC * FROM dmcatalogitem.....(SysCode: " + std::to_string(st_.ErrorCode()) + "). ");
  auto rs = std::make_shared<Recordset>();
  st_.Sql("SELECT * FROM no_such_table");
  EXPECT_FALSE(st_.GetRecordsetRO(rs));
  EXPECT_EQ(rs->State(), kAdStateClosed);
  InsertItem("ok", "z");
}

TEST_P(SqlStatementEngineTest, RecordsetOperationsDoNotClearAnEarlierError) {
  st_.Sql("SELEC 1");
  st_.Execute();
  ASSERT_TRUE(st_.Error());
  const long code = st_.ErrorCode();
  auto rs = std::make_shared<Recordset>();
  st_.Sql("SELECT * FROM dmcatalogitem");
  EXPECT_TRUE(st_.GetRecordset(rs));
  EXPECT_TRUE(st_.Error());
  EXPECT_EQ(st_.ErrorCode(), code);
}

TEST_P(SqlStatementEngineTest, BrokenEscapeLiteralIsReported) {
  st_.Sql("SELECT * FROM dmmrktcmphistory WHERE EffectiveDate <= {d '2005-02-30'}");
  auto rs = std::make_shared<Recordset>();
  EXPECT_FALSE(st_.GetRecordsetFO(rs));
  EXPECT_EQ(st_.ErrorCode(), err::kDbBadArguments);
  st_.Sql("SELECT * FROM dmmrktcmphistory WHERE EffectiveDate <= {d 2005-02-01}");
  st_.Execute();
  EXPECT_TRUE(st_.Error());
  EXPECT_EQ(st_.ErrorCode(), err::kDbBadArguments);
  InsertItem("after", "x");
}

TEST_P(SqlStatementEngineTest, ValuesRoundTripThroughTheEngine) {
  const std::string big(1 << 20, 'q');
  const std::string quoted = "it's \"quoted\" -- not a comment; {d '2005-01-01'} ? $1";
  st_.Sql("INSERT INTO dmclientscustom (?) VALUES (?);");
  st_.SetString("RecID", "r1");
  st_.SetString("TextValue", big);
  st_.SetString("Account", quoted);
  st_.SetLong("BoolValue", Variant(std::int32_t{-2147483647}));
  st_.SetSingle("NumericValue", Variant(1.5f));
  st_.SetTimeStamp("DateValue", Variant(DateFromParts(1850, 2, 3, 4, 5, 6)));
  st_.Execute();
  ASSERT_FALSE(st_.Error()) << st_.ErrorMessage().substr(0, 300);

  st_.Sql("INSERT INTO dmclientscustom (?) VALUES (?);");
  st_.SetString("RecID", "r2");
  st_.SetStringNZ("TextValue", " ");
  st_.SetTimeStamp("DateValue", Variant(DateFromParts(2150, 12, 31, 23, 59, 59)));
  st_.Execute();
  ASSERT_FALSE(st_.Error()) << st_.ErrorMessage();

  auto rs = std::make_shared<Recordset>();
  st_.Sql("SELECT * FROM dmclientscustom WHERE RecID = 'r1'");
  ASSERT_TRUE(st_.GetRecordsetFO(rs));
  ASSERT_FALSE(rs->Eof());
  EXPECT_EQ(rs->FieldValue("TextValue"), Variant(big));
  EXPECT_EQ(rs->FieldValue("Account"), Variant(quoted));
  EXPECT_EQ(rs->FieldValue("BoolValue"), Variant(std::int32_t{-2147483647}));
  EXPECT_EQ(rs->FieldValue("NumericValue"), Variant(1.5f));
  EXPECT_EQ(rs->FieldValue("DateValue"), Variant(DateFromParts(1850, 2, 3, 4, 5, 6)));
  EXPECT_TRUE(rs->FieldValue("CustomRecID").IsNull());

  st_.Sql("SELECT * FROM dmclientscustom WHERE RecID = 'r2'");
  ASSERT_TRUE(st_.GetRecordsetRO(rs));
  ASSERT_EQ(rs->RecordCount(), 1);
  EXPECT_TRUE(rs->FieldValue("TextValue").IsNull());
  EXPECT_EQ(rs->FieldValue("DateValue"), Variant(DateFromParts(2150, 12, 31, 23, 59, 59)));
}

TEST_P(SqlStatementEngineTest, EnrolmentAtMidnightIsOnOrBeforeItsDateLiteral) {
  st_.Sql("INSERT INTO dmclientsmrktcmp (?) VALUES (?);");
  st_.SetString("RecID", "e1");
  st_.SetString("CampaignRecID", "c");
  st_.SetString("Account", "a");
  st_.SetTimeStamp("EffectiveDate", Variant(DateSerial(2005, 3, 1)));
  st_.Execute();
  st_.Sql("INSERT INTO dmclientsmrktcmp (?) VALUES (?);");
  st_.SetString("RecID", "e2");
  st_.SetString("CampaignRecID", "c");
  st_.SetString("Account", "b");
  st_.SetTimeStamp("EffectiveDate", Variant(DateFromParts(2005, 3, 1, 0, 0, 1)));
  st_.Execute();
  ASSERT_FALSE(st_.Error()) << st_.ErrorMessage();

  auto rs = std::make_shared<Recordset>();
  st_.Sql(
      "SELECT Account FROM dmclientsmrktcmp WHERE CampaignRecID = 'c' AND EffectiveDate <= "
      "{d '2005-03-01'} ORDER BY Account");
  ASSERT_TRUE(st_.GetRecordset(rs));
  ASSERT_EQ(rs->RecordCount(), 1);
  EXPECT_EQ(rs->FieldValue("Account"), Variant("a"));
  st_.Sql(
      "SELECT Account FROM dmclientsmrktcmp WHERE EffectiveDate < {ts '2005-03-01 00:00:01'}"
      " OR EffectiveDate > {d '2005-03-01'}");
  ASSERT_TRUE(st_.GetRecordset(rs));
  EXPECT_EQ(rs->RecordCount(), 2);
}

TEST_P(SqlStatementEngineTest, ReservedDefaultColumnWorksBare) {
  st_.Sql("INSERT INTO dmsmtpaccounts (?) VALUES (?);");
  st_.SetString("RecID", "s1");
  st_.SetLong("Default", Variant(std::int32_t{1}));
  st_.SetString("Email", "a@b.c");
  st_.Execute();
  ASSERT_FALSE(st_.Error()) << st_.ErrorMessage();
  st_.Sql("UPDATE dmsmtpaccounts SET ? WHERE RecID = 's1'");
  st_.SetLong("Default", Variant(std::int32_t{2}));
  st_.Execute();
  ASSERT_FALSE(st_.Error()) << st_.ErrorMessage();
  auto rs = std::make_shared<Recordset>();
  st_.Sql("SELECT * FROM dmsmtpaccounts WHERE Default = 2");
  ASSERT_TRUE(st_.GetRecordsetFO(rs)) << st_.ErrorMessage();
  ASSERT_FALSE(rs->Eof());
  EXPECT_EQ(rs->FieldValue("Default"), Variant(std::int32_t{2}));
}

TEST_P(SqlStatementEngineTest, SameShapeWithDifferentValuesGivesEachItsOwnRows) {
  auto text = [](const char* prefix, int n) {
    return std::string(prefix).append(std::to_string(n));
  };
  for (int i = 0; i < 20; ++i) InsertItem(text("k", i), text("c", i % 3));
  auto rs = std::make_shared<Recordset>();
  for (int i = 0; i < 20; ++i) {
    st_.Sql("SELECT Category FROM dmcatalogitem WHERE RecID = 'k" + std::to_string(i) + "'");
    ASSERT_TRUE(st_.GetRecordsetFO(rs));
    ASSERT_FALSE(rs->Eof());
    EXPECT_EQ(rs->FieldValue("Category"), Variant(text("c", i % 3)));
    rs->MoveNext();
    EXPECT_TRUE(rs->Eof());
  }
  st_.Sql("SELECT * FROM dmcatalogitem WHERE Category = 'c1'");
  ASSERT_TRUE(st_.GetRecordsetRO(rs));
  EXPECT_EQ(rs->RecordCount(), 7);
}

INSTANTIATE_TEST_SUITE_P(Engines, SqlStatementEngineTest, testing_support::TestEngines(),
                         testing_support::EngineName);

}  // namespace
}  // namespace quillo
