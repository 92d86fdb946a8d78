// Connections, recordsets, the engines' SQL rewrite and type mapping, the
// schema, and failures of the database layer.
#include "platform/database.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "platform/date.h"
#include "platform/db/backend.h"
#include "platform/db/sql_text.h"
#include "platform/schema.h"
#include "support/error_matchers.h"
#include "support/test_databases.h"

namespace quillo {
namespace {

using db::Dialect;
using testing_support::Engine;
using testing_support::TestDatabase;

// ---------------------------------------------------------------------------
// The ODBC escape rewrite and column-name quoting.

TEST(SqlRewrite, EscapeLiteralsBecomeEachEnginesLiteral) {
  const std::string sql =
      "SELECT * FROM t WHERE a <= {d '2005-03-01'} AND b = {ts '2005-03-01 14:05:09'} AND c = "
      "{t '09:05:03'}";
  EXPECT_EQ(db::RewriteSql(sql, Dialect::kSqlite),
            "SELECT * FROM t WHERE a <= '2005-03-01 00:00:00' AND b = '2005-03-01 14:05:09' AND "
            "c = '1899-12-30 09:05:03'");
  EXPECT_EQ(db::RewriteSql(sql, Dialect::kPostgres),
            "SELECT * FROM t WHERE a <= TIMESTAMP '2005-03-01 00:00:00' AND b = TIMESTAMP "
            "'2005-03-01 14:05:09' AND c = TIMESTAMP '1899-12-30 09:05:03'");
}

TEST(SqlRewrite, EscapesAreReadWithBlanksAndAnyLetterCase) {
  EXPECT_EQ(db::RewriteSql("x = { D  '2005-03-01' }", Dialect::kSqlite),
            "x = '2005-03-01 00:00:00'");
  EXPECT_EQ(db::RewriteSql("x = {TS '0999-01-02 03:04:05'}", Dialect::kSqlite),
            "x = '0999-01-02 03:04:05'");
}

TEST(SqlRewrite, QuotedTextAndCommentsAreLeftAlone) {
  const std::string sql =
      "SELECT '{d ''2005-03-01''}', \"{d '1'}\" FROM t -- {d 'x'}\n/* {ts 'y'} */";
  EXPECT_EQ(db::RewriteSql(sql, Dialect::kSqlite), sql);
  EXPECT_EQ(db::RewriteSql(sql, Dialect::kPostgres), sql);
}

TEST(SqlRewrite, OtherBracesAreLeftAlone) {
  EXPECT_EQ(db::RewriteSql("SELECT '{' || '}' , {fn x}", Dialect::kSqlite),
            "SELECT '{' || '}' , {fn x}");
}

TEST(SqlRewrite, BrokenEscapesRaiseTheLayersError) {
  for (const char* sql : {"x = {d 2005-03-01}", "x = {d '2005-03-01'", "x = {d '2005-3-1'}",
                          "x = {d '2005-02-29'}", "x = {t '24:00:00'}", "x = {ts '2005-03-01'}",
                          "x = {d '2005-03-01", "x = {ts '2005-03-01 1:02:03'}"}) {
    EXPECT_RUNTIME_ERROR(db::RewriteSql(sql, Dialect::kSqlite), err::kDbBadArguments) << sql;
  }
  EXPECT_EQ(db::RewriteSql("x = {d '2004-02-29'}", Dialect::kSqlite), "x = '2004-02-29 00:00:00'");
}

TEST(SqlRewrite, DefaultIsQuotedWhereItIsAColumnName) {
  EXPECT_EQ(db::RewriteSql("INSERT INTO s (RecID, Default) VALUES ('a', 1)", Dialect::kSqlite),
            "INSERT INTO s (RecID, \"Default\") VALUES ('a', 1)");
  EXPECT_EQ(db::RewriteSql("UPDATE s SET Default = 1 WHERE x = 'Default'", Dialect::kPostgres),
            "UPDATE s SET \"default\" = 1 WHERE x = 'Default'");
  EXPECT_EQ(db::RewriteSql("INSERT INTO s DEFAULT VALUES", Dialect::kPostgres),
            "INSERT INTO s DEFAULT VALUES");
  EXPECT_EQ(db::RewriteSql("CREATE TABLE s (a INTEGER DEFAULT 0)", Dialect::kPostgres),
            "CREATE TABLE s (a INTEGER DEFAULT 0)");
  EXPECT_EQ(db::RewriteSql("SELECT Defaults, IsDefault FROM s", Dialect::kSqlite),
            "SELECT Defaults, IsDefault FROM s");
}

// ---------------------------------------------------------------------------
// Statement shapes.

TEST(SqlShape, TextLiteralsAndComparedNumbersBecomeParameters) {
  db::Shape shape;
  ASSERT_TRUE(
      db::ExtractShape("SELECT a FROM t WHERE k = 'O''Brien' AND n >= -12 AND r < 2.5 "
                       "ORDER BY 1 LIMIT 5",
                       Dialect::kPostgres, &shape));
  EXPECT_EQ(shape.text, "SELECT a FROM t WHERE k = $1 AND n >= $2 AND r < $3 ORDER BY 1 LIMIT 5");
  ASSERT_EQ(shape.params.size(), 3u);
  EXPECT_EQ(shape.params[0].text, "O'Brien");
  EXPECT_EQ(shape.params[1].integer, -12);
  EXPECT_EQ(shape.params[2].kind, db::ShapeParam::Kind::kReal);
  ASSERT_TRUE(db::ExtractShape("INSERT INTO t (a, b) VALUES ('x', 3)", Dialect::kSqlite, &shape));
  EXPECT_EQ(shape.text, "INSERT INTO t (a, b) VALUES (?, 3)");
}

TEST(SqlShape, QueryLiteralsOutsideComparisonsStayInTheText) {
  db::Shape shape;
  ASSERT_TRUE(db::ExtractShape("SELECT 'x', a || 'y' FROM t WHERE a = 'z' AND b LIKE 'q%'",
                               Dialect::kSqlite, &shape));
  EXPECT_EQ(shape.text, "SELECT 'x', a || 'y' FROM t WHERE a = ? AND b LIKE ?");
  EXPECT_EQ(shape.params.size(), 2u);
}

TEST(SqlShape, QueryLiteralsListedAfterInBecomeParameters) {
  // So a lookup of many keys at once has one shape per list length.
  db::Shape shape;
  ASSERT_TRUE(db::ExtractShape(
      "SELECT 'x', (a) FROM t WHERE k IN ('a', 'b''c') AND m NOT IN ('d') AND n = f('e', 'g')",
      Dialect::kPostgres, &shape));
  EXPECT_EQ(shape.text,
            "SELECT 'x', (a) FROM t WHERE k IN ($1, $2) AND m NOT IN ($3) AND n = f('e', 'g')");
  ASSERT_EQ(shape.params.size(), 3u);
  EXPECT_EQ(shape.params[1].text, "b'c");
  EXPECT_EQ(shape.params[2].text, "d");
}

TEST(SqlShape, TypedAndPrefixedLiteralsStayInTheText) {
  db::Shape shape;
  ASSERT_TRUE(
      db::ExtractShape("SELECT * FROM t WHERE d <= TIMESTAMP '2005-03-01 00:00:00' AND "
                       "b = X'00' AND c = t1.c2",
                       Dialect::kPostgres, &shape));
  EXPECT_EQ(shape.text,
            "SELECT * FROM t WHERE d <= TIMESTAMP '2005-03-01 00:00:00' AND b = X'00' AND c = "
            "t1.c2");
  EXPECT_TRUE(shape.params.empty());
}

TEST(SqlShape, StatementsAParameterCouldChangeAreLeftToThePlainPath) {
  db::Shape shape;
  EXPECT_FALSE(db::ExtractShape("CREATE TABLE t (a TEXT)", Dialect::kSqlite, &shape));
  EXPECT_FALSE(db::ExtractShape("SELECT 1; SELECT 2", Dialect::kSqlite, &shape));
  EXPECT_FALSE(db::ExtractShape("SELECT * FROM t WHERE a = ?", Dialect::kSqlite, &shape));
  EXPECT_FALSE(db::ExtractShape("SELECT * FROM t WHERE a = $1", Dialect::kPostgres, &shape));
  EXPECT_FALSE(db::ExtractShape("SELECT 1 -- note", Dialect::kSqlite, &shape));
  EXPECT_TRUE(db::ExtractShape("SELECT * FROM t;  ", Dialect::kSqlite, &shape));
}

TEST(PgErrorNumbers, KeepTheSqlStateReadable) {
  EXPECT_EQ(db::PgErrorNumber("23505"), -23505);
  EXPECT_EQ(db::PgErrorNumber("08006"), -8006);
  EXPECT_EQ(db::PgSqlStateFromNumber(-8006), "08006");
  for (const char* state : {"42P01", "57P01", "XX000", "HV000", "01000", "23505"}) {
    EXPECT_EQ(db::PgSqlStateFromNumber(db::PgErrorNumber(state)), state);
    EXPECT_LT(db::PgErrorNumber(state), 0);
  }
  EXPECT_LT(db::PgErrorNumber("42P01"), -100000);
  EXPECT_EQ(db::PgSqlStateFromNumber(19), "");
}

// ---------------------------------------------------------------------------
// Closed and unopened objects.

TEST(ConnectionState, UnopenedConnectionFailsEveryOperation) {
  Connection c;
  EXPECT_EQ(c.State(), kAdStateClosed);
  EXPECT_RUNTIME_ERROR(c.Execute("SELECT 1"), err::kDbObjectClosed);
  EXPECT_RUNTIME_ERROR(c.Close(), err::kDbObjectClosed);
  auto shared = std::make_shared<Connection>();
  Recordset rs;
  EXPECT_RUNTIME_ERROR(rs.Open("SELECT 1", shared, kAdOpenStatic), err::kDbConnectionClosed);
  EXPECT_RUNTIME_ERROR(rs.Open("SELECT 1", nullptr), err::kDbConnectionClosed);
  EXPECT_EQ(rs.State(), kAdStateClosed);
}

TEST(ConnectionState, ClosedConnectionFailsAndCanBeReopened) {
  auto c = std::make_shared<Connection>();
  c->Open("sqlite::memory:");
  EXPECT_EQ(c->State(), kAdStateOpen);
  EXPECT_RUNTIME_ERROR(c->Open("sqlite::memory:"), err::kDbObjectOpen);
  c->Close();
  EXPECT_EQ(c->State(), kAdStateClosed);
  EXPECT_RUNTIME_ERROR(c->Execute("SELECT 1"), err::kDbObjectClosed);
  Recordset rs;
  EXPECT_RUNTIME_ERROR(rs.Open("SELECT 1", c), err::kDbConnectionClosed);
  c->Open("sqlite::memory:");
  EXPECT_EQ(c->Execute("CREATE TABLE t (a INTEGER)"), 0);
}

TEST(ConnectionState, TextNamingNoEngineIsRefused) {
  Connection c;
  EXPECT_RUNTIME_ERROR(c.Open("mysql:whatever"), err::kDbBadArguments);
  EXPECT_EQ(c.State(), kAdStateClosed);
}

TEST(ConnectionState, UnreachablePostgresReportsConnectionFailure) {
  Connection c;
  // A port nobody listens on, on loopback; libpq fails at once.
  EXPECT_RUNTIME_ERROR(c.Open("postgresql://nobody@127.0.0.1:1/none?connect_timeout=2"),
                       db::PgErrorNumber("08001"));
}

TEST(ConnectionState, SqliteFileInAMissingFolderCannotOpen) {
  Connection c;
  EXPECT_RUNTIME_ERROR(c.Open("sqlite:/nonexistent-folder-quillo/x.db"), 14);  // SQLITE_CANTOPEN
}

TEST(RecordsetState, ClosedRecordsetFailsEveryOperation) {
  Recordset rs;
  EXPECT_RUNTIME_ERROR(rs.Eof(), err::kDbObjectClosed);
  EXPECT_RUNTIME_ERROR(rs.MoveNext(), err::kDbObjectClosed);
  EXPECT_RUNTIME_ERROR(rs.RecordCount(), err::kDbObjectClosed);
  EXPECT_RUNTIME_ERROR(rs.Fields("a"), err::kDbObjectClosed);
  EXPECT_RUNTIME_ERROR(rs.Close(), err::kDbObjectClosed);
}

TEST(ByName, ConnectionAndRecordsetWorkThroughInvoke) {
  ObjectPtr conn = CreateObject("Connection");
  conn->Invoke("Open", CallKind::kMethod, {Variant("sqlite::memory:")});
  EXPECT_EQ(conn->Invoke("State", CallKind::kGet), Variant(std::int32_t{1}));
  conn->Invoke("Execute", CallKind::kMethod, {Variant("CREATE TABLE t (Name TEXT)")});
  conn->Invoke("execute", CallKind::kMethod, {Variant("INSERT INTO t VALUES ('x')")});
  ObjectPtr rs = CreateObject("Recordset");
  rs->Invoke("Open", CallKind::kMethod,
             {Variant("SELECT * FROM t"), Variant(conn), Variant(std::int32_t{3}),
              Variant(std::int32_t{3}), Variant(std::int32_t{1})});
  EXPECT_EQ(rs->Invoke("RecordCount", CallKind::kGet), Variant(std::int32_t{1}));
  EXPECT_EQ(rs->Invoke("EOF", CallKind::kGet), Variant(false));
  Variant field = rs->Invoke("Fields", CallKind::kGet, {Variant("NAME")});
  EXPECT_EQ(CallByName(field.ToObject(), "Value", CallKind::kGet), Variant("x"));
  rs->Invoke("MoveNext", CallKind::kMethod);
  EXPECT_EQ(rs->Invoke("EOF", CallKind::kGet), Variant(true));
  rs->Invoke("Close", CallKind::kMethod);
  EXPECT_EQ(rs->Invoke("State", CallKind::kGet), Variant(std::int32_t{0}));
}

// ---------------------------------------------------------------------------
// On every engine.

class DatabaseEngineTest : public ::testing::TestWithParam<Engine> {
 protected:
  void SetUp() override {
    db_ = TestDatabase::Make(GetParam());
    conn_ = db_->Open();
  }
  std::unique_ptr<TestDatabase> db_;
  std::shared_ptr<Connection> conn_;
};

TEST_P(DatabaseEngineTest, SchemaCreatesFourteenTablesIdempotently) {
  schema::Create(*conn_);
  schema::Create(*conn_);
  ASSERT_EQ(schema::TableNames().size(), 14u);
  for (const std::string& table : schema::TableNames()) {
    Recordset rs;
    rs.Open("SELECT * FROM " + table, conn_, kAdOpenStatic);
    EXPECT_EQ(rs.RecordCount(), 0) << table;
  }
  Recordset ix;
  if (GetParam() == Engine::kSqlite) {
    ix.Open("SELECT name FROM sqlite_master WHERE type = 'index' AND name LIKE 'ix_%'", conn_,
            kAdOpenStatic);
  } else {
    ix.Open(
        "SELECT indexname FROM pg_indexes WHERE indexname LIKE 'ix_%' AND schemaname = "
        "current_schema()",
        conn_, kAdOpenStatic);
  }
  EXPECT_EQ(ix.RecordCount(), 9);
}

TEST_P(DatabaseEngineTest, KeyColumnsAreUnique) {
  schema::Create(*conn_);
  conn_->Execute("INSERT INTO dmclients (Account, EMail) VALUES ('a', 'x@y')");
  EXPECT_THROW(conn_->Execute("INSERT INTO dmclients (Account) VALUES ('a')"), RuntimeError);
  conn_->Execute("INSERT INTO dmmrktcmp (RecID) VALUES ('r')");
  EXPECT_THROW(conn_->Execute("INSERT INTO dmmrktcmp (RecID) VALUES ('r')"), RuntimeError);
}

TEST_P(DatabaseEngineTest, ColumnTypesMapToVariants) {
  schema::Create(*conn_);
  conn_->Execute(
      "INSERT INTO dmclients (Account, EMailList, CalledDate, City) VALUES ('a', 3, "
      "{ts '2005-03-01 14:05:09'}, 'Paris')");
  conn_->Execute(
      "INSERT INTO dmclientscustom (RecID, BoolValue, NumericValue, DateValue) VALUES ('r', 7, "
      "2.5, {d '1850-01-02'})");
  Recordset rs;
  rs.Open("SELECT * FROM dmclients", conn_, kAdOpenForwardOnly);
  EXPECT_EQ(rs.FieldValue("EMailList").Type(), VarType::kInteger);
  EXPECT_EQ(rs.FieldValue("EMailList"), Variant(std::int16_t{3}));
  EXPECT_EQ(rs.FieldValue("CalledDate"), Variant(DateFromParts(2005, 3, 1, 14, 5, 9)));
  EXPECT_EQ(rs.FieldValue("city"), Variant("Paris"));
  EXPECT_TRUE(rs.FieldValue("ContactDate").IsNull());
  EXPECT_TRUE(rs.FieldValue("HotSheetList").IsNull());
  rs.Close();
  rs.Open("SELECT * FROM dmclientscustom", conn_, kAdOpenKeyset);
  EXPECT_EQ(rs.FieldValue("BoolValue").Type(), VarType::kLong);
  EXPECT_EQ(rs.FieldValue("NumericValue"), Variant(2.5f));
  EXPECT_EQ(rs.FieldValue("DateValue"), Variant(DateSerial(1850, 1, 2)));
}

TEST_P(DatabaseEngineTest, CursorTypesAndRecordCount) {
  conn_->Execute("CREATE TABLE t (a INTEGER, b TEXT)");
  long affected = -5;
  conn_->Execute("INSERT INTO t VALUES (1, 'x'), (2, 'y'), (3, NULL)", &affected);
  EXPECT_EQ(affected, 3);
  Recordset rs;
  rs.Open("SELECT a, b FROM t ORDER BY a", conn_, kAdOpenForwardOnly);
  EXPECT_EQ(rs.RecordCount(), -1);
  std::vector<Variant> seen;
  for (; !rs.Eof(); rs.MoveNext()) seen.push_back(rs.Fields("A")->Value());
  EXPECT_EQ(seen.size(), 3u);
  EXPECT_RUNTIME_ERROR(rs.MoveNext(), err::kDbNoCurrentRecord);
  EXPECT_RUNTIME_ERROR(rs.FieldValue("a"), err::kDbNoCurrentRecord);
  rs.Close();
  for (long type : {kAdOpenKeyset, kAdOpenStatic, kAdOpenDynamic}) {
    rs.Open("SELECT a, b FROM t ORDER BY a", conn_, type, kAdLockOptimistic, kAdCmdText);
    EXPECT_EQ(rs.RecordCount(), 3);
    EXPECT_RUNTIME_ERROR(rs.Fields("nope"), err::kDbItemNotFound);
    EXPECT_EQ(rs.Fields("b")->Name(), "b");
    rs.Close();
  }
  rs.Open("SELECT a FROM t WHERE a > 10", conn_, kAdOpenStatic);
  EXPECT_TRUE(rs.Eof());
  EXPECT_EQ(rs.RecordCount(), 0);
  rs.Close();
  rs.Open("SELECT a FROM t WHERE a > 10", conn_, kAdOpenForwardOnly);
  EXPECT_TRUE(rs.Eof());
}

TEST_P(DatabaseEngineTest, KeysetRowsOfEveryTypeReadBackAcrossManyRows) {
  // Enough rows to fill several storage blocks, each with every value kind
  // (and texts of varied length), read back in order and compared with the
  // same rows read forward-only.
  schema::Create(*conn_);
  conn_->Execute(
      "CREATE TABLE mix (n INTEGER, s SMALLINT, r REAL, d DOUBLE PRECISION, t VARCHAR(200), "
      "w TIMESTAMP)");
  conn_->Execute("BEGIN");
  for (int i = 0; i < 6000; ++i) {
    const std::string text =
        i % 7 == 0 ? "NULL" : "'" + std::string(i % 150, 'a' + i % 26) + "''q'";
    conn_->Execute("INSERT INTO mix VALUES (" + std::to_string(i * 1000) + ", " +
                   std::to_string(i % 300) + ", " + std::to_string(i) + ".5, " + std::to_string(i) +
                   ".25, " + text + ", " +
                   (i % 5 == 0 ? std::string("NULL") : "{ts '2026-01-02 03:04:05'}") + ")");
  }
  conn_->Execute("COMMIT");
  Recordset keyset;
  Recordset forward;
  keyset.Open("SELECT * FROM mix ORDER BY n", conn_, kAdOpenKeyset);
  forward.Open("SELECT * FROM mix ORDER BY n", conn_, kAdOpenForwardOnly);
  EXPECT_EQ(keyset.RecordCount(), 6000);
  long rows = 0;
  // Read as copies, and into one Variant that goes through every kind and
  // every text length in turn.
  Variant into_keyset;
  Variant into_forward;
  for (; !keyset.Eof(); keyset.MoveNext(), forward.MoveNext(), ++rows) {
    ASSERT_FALSE(forward.Eof());
    for (const char* column : {"n", "s", "r", "d", "t", "w"}) {
      const Variant a = keyset.FieldValue(column);
      const Variant b = forward.FieldValue(column);
      ASSERT_EQ(a.Type(), b.Type()) << column << " row " << rows;
      ASSERT_EQ(a, b) << column << " row " << rows;
      keyset.FieldValue(column, &into_keyset);
      forward.FieldValue(column, &into_forward);
      ASSERT_EQ(into_keyset.Type(), a.Type()) << column << " row " << rows;
      ASSERT_EQ(into_keyset, a) << column << " row " << rows;
      ASSERT_EQ(into_forward, b) << column << " row " << rows;
    }
  }
  EXPECT_EQ(rows, 6000);
  EXPECT_TRUE(forward.Eof());
  EXPECT_EQ(keyset.RecordCount(), 6000);
}

TEST_P(DatabaseEngineTest, OpenRecordsetCannotBeOpenedAgain) {
  Recordset rs;
  rs.Open("SELECT 1 AS one", conn_, kAdOpenStatic);
  EXPECT_RUNTIME_ERROR(rs.Open("SELECT 1", conn_), err::kDbObjectOpen);
  EXPECT_EQ(rs.FieldValue("ONE"), Variant(std::int32_t{1}));
}

TEST_P(DatabaseEngineTest, ForwardOnlyRecordsetOutlivesItsConnection) {
  conn_->Execute("CREATE TABLE t (a INTEGER)");
  conn_->Execute("INSERT INTO t VALUES (1), (2)");
  Recordset rs;
  rs.Open("SELECT a FROM t ORDER BY a", conn_, kAdOpenForwardOnly);
  conn_->Close();
  rs.MoveNext();
  EXPECT_FALSE(rs.Eof());
  EXPECT_EQ(rs.FieldValue("a"), Variant(std::int32_t{2}));
}

TEST_P(DatabaseEngineTest, ErrorsCarryTheEnginesNumberAndTextAndTheConnectionStaysUsable) {
  try {
    conn_->Execute("SELECT * FROM no_such_table");
    FAIL() << "no error";
  } catch (const RuntimeError& e) {
    if (GetParam() == Engine::kSqlite) {
      EXPECT_EQ(e.number, 1);  // SQLITE_ERROR
      EXPECT_NE(e.description.find("no such table"), std::string::npos) << e.description;
    } else {
      EXPECT_EQ(e.number, db::PgErrorNumber("42P01"));
      EXPECT_NE(e.description.find("[SQLSTATE 42P01]"), std::string::npos) << e.description;
    }
  }
  EXPECT_EQ(conn_->Execute("CREATE TABLE ok (a INTEGER)"), 0);
}

TEST_P(DatabaseEngineTest, ShapesReusedAcrossValuesAndTypesGiveTheEnginesOwnAnswers) {
  conn_->Execute("CREATE TABLE t (a INTEGER, b TEXT)");
  conn_->Execute("INSERT INTO t VALUES (1, 'x')");
  for (int i = 0; i < 3; ++i) {
    Recordset rs;
    rs.Open("SELECT b FROM t WHERE a = 1", conn_, kAdOpenStatic);
    EXPECT_EQ(rs.RecordCount(), 1);
  }
  // The table changes under a prepared shape: the next run still sees it.
  conn_->Execute("DROP TABLE t");
  conn_->Execute("CREATE TABLE t (b TEXT, a INTEGER, c TEXT)");
  conn_->Execute("INSERT INTO t VALUES ('z', 1, 'q')");
  Recordset rs;
  rs.Open("SELECT * FROM t WHERE a = 1", conn_, kAdOpenStatic);
  EXPECT_EQ(rs.FieldValue("c"), Variant("q"));
  rs.Close();
  // A value the column cannot take fails as the plain text would.
  if (GetParam() == Engine::kPostgres) {
    EXPECT_RUNTIME_ERROR(conn_->Execute("SELECT * FROM t WHERE a = 'abc'"),
                         db::PgErrorNumber("22P02"));
    EXPECT_RUNTIME_ERROR(conn_->Execute("SELECT * FROM t WHERE b = 5"), db::PgErrorNumber("42883"));
  }
  rs.Open("SELECT * FROM t WHERE a = 1", conn_, kAdOpenStatic);
  EXPECT_EQ(rs.RecordCount(), 1);
}

TEST_P(DatabaseEngineTest, TwoForwardOnlyRecordsetsOfOneShapeWalkTogether) {
  conn_->Execute("CREATE TABLE t (a INTEGER, b TEXT)");
  conn_->Execute("INSERT INTO t VALUES (1, 'x'), (1, 'y'), (2, 'z')");
  Recordset r1, r2;
  r1.Open("SELECT b FROM t WHERE a = 1 ORDER BY b", conn_, kAdOpenForwardOnly);
  r2.Open("SELECT b FROM t WHERE a = 2 ORDER BY b", conn_, kAdOpenForwardOnly);
  EXPECT_EQ(r1.FieldValue("b"), Variant("x"));
  EXPECT_EQ(r2.FieldValue("b"), Variant("z"));
  r1.MoveNext();
  EXPECT_EQ(r1.FieldValue("b"), Variant("y"));
  r2.MoveNext();
  EXPECT_TRUE(r2.Eof());
}

TEST_P(DatabaseEngineTest, ForwardOnlyRecordsetAtItsLastRowNoLongerHoldsTheTable) {
  conn_->Execute("CREATE TABLE t (a INTEGER)");
  conn_->Execute("INSERT INTO t VALUES (1), (2)");
  Recordset rs;
  rs.Open("SELECT a FROM t ORDER BY a", conn_, kAdOpenForwardOnly);
  rs.MoveNext();  // The last row is current: the engine's statement is done.
  EXPECT_EQ(rs.FieldValue("a"), Variant(std::int32_t{2}));
  conn_->Execute("DROP TABLE t");
  EXPECT_EQ(rs.FieldValue("a"), Variant(std::int32_t{2}));
  rs.MoveNext();
  EXPECT_TRUE(rs.Eof());
}

TEST_P(DatabaseEngineTest, SelectedLiteralsKeepTheirColumnNames) {
  Recordset rs;
  rs.Open("SELECT 'x', 'y' AS named", conn_, kAdOpenForwardOnly);
  EXPECT_EQ(rs.FieldName(0), GetParam() == Engine::kSqlite ? "'x'" : "?column?");
  EXPECT_EQ(rs.FieldValue("named"), Variant("y"));
}

TEST_P(DatabaseEngineTest, BoundStatementsTakeTheirValuesAsTheyAreAndGiveBackRows) {
  conn_->Execute("CREATE TABLE t (k VARCHAR(10) PRIMARY KEY, v VARCHAR(40), n VARCHAR(5))");
  db::Backend& engine = conn_->Backend();
  // Quotes, a question mark and braces in a value are data, not SQL.
  const std::string odd = "it's {d '2020-01-01'} ?";
  const db::BoundValue values[] = {"a", odd, db::BoundValue(), "b", "two", "x"};
  db::TextRows rows;
  EXPECT_EQ(engine.Run("INSERT INTO t (k, v, n) VALUES (?, ?, ?), (?, ?, ?) RETURNING k, v, n",
                       values, &rows),
            2);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0], (std::vector<std::string>{"a", odd, ""}));
  EXPECT_EQ(rows[1], (std::vector<std::string>{"b", "two", "x"}));
  // The NULL went in as NULL, the text as it was.
  Recordset rs;
  rs.Open("SELECT v, n FROM t WHERE k = 'a'", conn_, kAdOpenStatic);
  EXPECT_EQ(rs.FieldValue("v"), Variant(odd));
  EXPECT_TRUE(rs.FieldValue("n").IsNull());
  rs.Close();
  // The same text runs again with other values (prepared once), and a
  // conflict that changes nothing gives no rows.
  const db::BoundValue again[] = {"a", "y", "z", "c", "three", db::BoundValue()};
  rows.clear();
  EXPECT_EQ(engine.Run("INSERT INTO t (k, v, n) VALUES (?, ?, ?), (?, ?, ?) ON CONFLICT DO "
                       "NOTHING RETURNING k, v, n",
                       again, &rows),
            1);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0][0], "c");
  const db::BoundValue key[] = {"a"};
  EXPECT_EQ(engine.Run("UPDATE t SET n = 'u' WHERE k = ?", key), 1);
  EXPECT_EQ(engine.Run("UPDATE t SET n = 'u' WHERE k = ?", key), 1);
}

TEST_P(DatabaseEngineTest, BoundStatementsReportTheEnginesErrorsAndWrongValueCounts) {
  conn_->Execute("CREATE TABLE t (k VARCHAR(10) PRIMARY KEY)");
  db::Backend& engine = conn_->Backend();
  const db::BoundValue one[] = {"a"};
  EXPECT_EQ(engine.Run("INSERT INTO t (k) VALUES (?)", one), 1);
  try {
    engine.Run("INSERT INTO t (k) VALUES (?)", one);
    FAIL() << "no error";
  } catch (const RuntimeError& e) {
    if (GetParam() == Engine::kSqlite) {
      EXPECT_EQ(e.number, 19);  // SQLITE_CONSTRAINT
      EXPECT_NE(e.description.find("UNIQUE"), std::string::npos) << e.description;
    } else {
      EXPECT_EQ(e.number, db::PgErrorNumber("23505"));
    }
  }
  const db::BoundValue two[] = {"b", "c"};
  EXPECT_RUNTIME_ERROR(engine.Run("INSERT INTO t (k) VALUES (?)", two), err::kDbBadArguments);
  EXPECT_RUNTIME_ERROR(engine.Run("INSERT INTO no_such_table (k) VALUES (?)", one),
                       GetParam() == Engine::kSqlite ? 1 : db::PgErrorNumber("42P01"));
  // The statement that failed runs again once its values fit.
  const db::BoundValue fresh[] = {"d"};
  EXPECT_EQ(engine.Run("INSERT INTO t (k) VALUES (?)", fresh), 1);
  Recordset rs;
  rs.Open("SELECT k FROM t ORDER BY k", conn_, kAdOpenStatic);
  EXPECT_EQ(rs.RecordCount(), 2);
}

INSTANTIATE_TEST_SUITE_P(Engines, DatabaseEngineTest, testing_support::TestEngines(),
                         testing_support::EngineName);

// ---------------------------------------------------------------------------
// SQLite files that are locked or read-only.

TEST(SqliteFaults, LockedFileReportsBusyAndRecovers) {
  auto db = TestDatabase::Make(Engine::kSqlite);
  auto holder = db->Open();
  holder->Execute("CREATE TABLE t (a INTEGER)");
  auto writer = std::make_shared<Connection>();
  writer->Open(db->ConnectionText() + ";busy_timeout=50");
  holder->Execute("BEGIN EXCLUSIVE");
  holder->Execute("INSERT INTO t VALUES (1)");
  EXPECT_RUNTIME_ERROR(writer->Execute("INSERT INTO t VALUES (2)"), 5);  // SQLITE_BUSY
  holder->Execute("COMMIT");
  EXPECT_EQ(writer->Execute("INSERT INTO t VALUES (2)"), 1);
}

TEST(SqliteFaults, ReadOnlyFileRefusesWritesAndStillReads) {
  auto db = TestDatabase::Make(Engine::kSqlite);
  {
    auto setup = db->Open();
    setup->Execute("CREATE TABLE t (a INTEGER)");
    setup->Execute("INSERT INTO t VALUES (1)");
    setup->Execute("PRAGMA journal_mode = DELETE");
  }
  auto ro = std::make_shared<Connection>();
  ro->Open(db->ConnectionText() + ";mode=ro");
  EXPECT_RUNTIME_ERROR(ro->Execute("INSERT INTO t VALUES (2)"), 8);  // SQLITE_READONLY
  Recordset rs;
  rs.Open("SELECT a FROM t", ro, kAdOpenStatic);
  EXPECT_EQ(rs.RecordCount(), 1);
  if (geteuid() != 0) {
    // Without root's privileges the file's own permissions are enough.
    std::filesystem::permissions(
        db->Path(), std::filesystem::perms::owner_read | std::filesystem::perms::group_read);
    auto plain = std::make_shared<Connection>();
    plain->Open(db->ConnectionText());
    EXPECT_RUNTIME_ERROR(plain->Execute("INSERT INTO t VALUES (2)"), 8);
  }
}

// ---------------------------------------------------------------------------
// A PostgreSQL connection dropped by the server.

TEST(PostgresFaults, DroppedConnectionIsReportedAndThenReconnects) {
  if (std::getenv("QUILLO_TEST_PG") == nullptr) {
    GTEST_SKIP() << "QUILLO_TEST_PG is not set";
  }
  auto db = TestDatabase::Make(Engine::kPostgres);
  auto victim = db->Open();
  auto killer = db->Open();
  victim->Execute("CREATE TABLE t (a INTEGER)");
  Recordset pid;
  pid.Open("SELECT pg_backend_pid() AS pid", victim, kAdOpenStatic);
  const std::string victim_pid = pid.FieldValue("pid").ToString();
  pid.Close();
  killer->Execute("SELECT pg_terminate_backend(" + victim_pid + ")");
  bool failed = false;
  try {
    victim->Execute("INSERT INTO t VALUES (1)");
  } catch (const RuntimeError& e) {
    failed = true;
    const std::string state = db::PgSqlStateFromNumber(e.number);
    EXPECT_TRUE(state == "57P01" || state.rfind("08", 0) == 0) << e.number << " " << e.description;
  }
  EXPECT_TRUE(failed);
  EXPECT_EQ(victim->State(), kAdStateOpen);
  EXPECT_EQ(victim->Execute("INSERT INTO t VALUES (2)"), 1);
}

}  // namespace
}  // namespace quillo
