// Point selects through the statement builder and a forward-only recordset,
// against the engine's own C API with one prepared statement re-bound in a
// loop (the anchor), on SQLite (file, WAL) and on PostgreSQL over loopback.
//
// The table has 1,000,000 rows keyed by a text RecID; every benchmark issues
// 200,000 selects of one row by key, keys drawn from the same pseudo-random
// sequence, and reads the row's three columns. "Ours" builds each statement
// as SQL text with the literal key (SQLStatement), opens the recordset with
// GetRecordsetFO and reads the fields by name. "Fresh text" is the C API
// preparing every text anew (what a backend without the shape cache costs).
//
// PostgreSQL runs when QUILLO_TEST_PG holds a connection URI, e.g.
//   tests/support/pg_server.sh run build/release/bench/database_bench
// At the end the program prints each figure's throughput ratio to its anchor.
#include <benchmark/benchmark.h>
#include <libpq-fe.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "platform/database.h"
#include "records/sql_statement.h"

namespace {

constexpr int kRows = 1000000;
constexpr int kSelects = 200000;

std::string Key(unsigned n) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "k%07u", n % kRows);
  return buf;
}

// The same key sequence for every benchmark.
struct Keys {
  unsigned state = 12345;
  std::string Next() {
    state = state * 1103515245u + 12345u;
    return Key((state >> 8) % kRows);
  }
};

const char* kSelect = "SELECT RecID, Name, Seq FROM bench_points WHERE RecID = ";

// ---------------------------------------------------------------------------
// SQLite

std::string& SqlitePath() {
  static std::string path = [] {
    std::string dir = (std::filesystem::temp_directory_path() / "quillo-bench.XXXXXX").string();
    if (!mkdtemp(dir.data())) std::abort();
    std::string file = dir + "/points.db";
    sqlite3* db = nullptr;
    sqlite3_open(file.c_str(), &db);
    sqlite3_exec(db,
                 "PRAGMA journal_mode = WAL; CREATE TABLE bench_points (RecID TEXT NOT NULL "
                 "PRIMARY KEY, Name TEXT, Seq INTEGER); BEGIN",
                 nullptr, nullptr, nullptr);
    sqlite3_stmt* ins = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO bench_points VALUES (?, ?, ?)", -1, &ins, nullptr);
    for (int i = 0; i < kRows; ++i) {
      const std::string k = Key(static_cast<unsigned>(i));
      const std::string name = "name" + std::to_string(i);
      sqlite3_bind_text(ins, 1, k.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_text(ins, 2, name.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_int(ins, 3, i);
      sqlite3_step(ins);
      sqlite3_reset(ins);
    }
    sqlite3_finalize(ins);
    sqlite3_exec(db, "COMMIT; ANALYZE", nullptr, nullptr, nullptr);
    sqlite3_close(db);
    std::atexit([] { std::filesystem::remove_all(std::filesystem::path(SqlitePath()).parent_path()); });
    return file;
  }();
  return path;
}

void BM_SqliteAnchorPrepared(benchmark::State& state) {
  sqlite3* db = nullptr;
  sqlite3_open(SqlitePath().c_str(), &db);
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v2(db, (std::string(kSelect) + "?").c_str(), -1, &st, nullptr);
  Keys keys;
  for (auto _ : state) {
    const std::string k = keys.Next();
    sqlite3_bind_text(st, 1, k.data(), static_cast<int>(k.size()), SQLITE_TRANSIENT);
    if (sqlite3_step(st) == SQLITE_ROW) {
      std::string id(reinterpret_cast<const char*>(sqlite3_column_text(st, 0)));
      std::string name(reinterpret_cast<const char*>(sqlite3_column_text(st, 1)));
      int seq = sqlite3_column_int(st, 2);
      benchmark::DoNotOptimize(id);
      benchmark::DoNotOptimize(name);
      benchmark::DoNotOptimize(seq);
    }
    sqlite3_reset(st);
  }
  sqlite3_finalize(st);
  sqlite3_close(db);
}

void BM_SqliteFreshText(benchmark::State& state) {
  sqlite3* db = nullptr;
  sqlite3_open(SqlitePath().c_str(), &db);
  Keys keys;
  for (auto _ : state) {
    const std::string sql = std::string(kSelect) + "'" + keys.Next() + "'";
    sqlite3_stmt* st = nullptr;
    sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &st, nullptr);
    if (sqlite3_step(st) == SQLITE_ROW) {
      std::string id(reinterpret_cast<const char*>(sqlite3_column_text(st, 0)));
      std::string name(reinterpret_cast<const char*>(sqlite3_column_text(st, 1)));
      int seq = sqlite3_column_int(st, 2);
      benchmark::DoNotOptimize(id);
      benchmark::DoNotOptimize(name);
      benchmark::DoNotOptimize(seq);
    }
    sqlite3_finalize(st);
  }
  sqlite3_close(db);
}

void RunOurs(benchmark::State& state, const std::string& connection_text) {
  auto conn = std::make_shared<quillo::Connection>();
  conn->Open(connection_text);
  quillo::SQLStatement st;
  st.Connection(conn);
  auto rs = std::make_shared<quillo::Recordset>();
  Keys keys;
  long missing = 0;
  for (auto _ : state) {
    st.Sql(std::string(kSelect) + "'" + keys.Next() + "'");
    if (!st.GetRecordsetFO(rs) || rs->Eof()) {
      ++missing;
      continue;
    }
    quillo::Variant id = rs->FieldValue("RecID");
    quillo::Variant name = rs->FieldValue("Name");
    quillo::Variant seq = rs->FieldValue("Seq");
    benchmark::DoNotOptimize(id);
    benchmark::DoNotOptimize(name);
    benchmark::DoNotOptimize(seq);
  }
  if (missing) state.SkipWithError("a select found no row");
}

void BM_SqliteOurs(benchmark::State& state) { RunOurs(state, "sqlite:" + SqlitePath()); }

// ---------------------------------------------------------------------------
// PostgreSQL

const char* PgText() { return std::getenv("QUILLO_TEST_PG"); }

const std::string& PgBenchText() {
  static std::string text = [] {
    PGconn* c = PQconnectdb(PgText());
    PGresult* r = PQexec(
        c,
        "DROP SCHEMA IF EXISTS quillo_bench CASCADE; CREATE SCHEMA quillo_bench; "
        "CREATE TABLE quillo_bench.bench_points (RecID TEXT NOT NULL PRIMARY KEY, Name TEXT, "
        "Seq INTEGER); INSERT INTO quillo_bench.bench_points SELECT 'k' || lpad(g::text, 7, "
        "'0'), 'name' || g, g FROM generate_series(0, 999999) g; ANALYZE "
        "quillo_bench.bench_points");
    if (PQresultStatus(r) != PGRES_COMMAND_OK) {
      std::fprintf(stderr, "setup failed: %s\n", PQerrorMessage(c));
      std::abort();
    }
    PQclear(r);
    PQfinish(c);
    std::atexit([] {
      PGconn* c2 = PQconnectdb(PgText());
      PQclear(PQexec(c2, "DROP SCHEMA IF EXISTS quillo_bench CASCADE"));
      PQfinish(c2);
    });
    std::string base = PgText();
    return base + (base.find('?') == std::string::npos ? "?" : "&") +
           "options=-csearch_path%3Dquillo_bench";
  }();
  return text;
}

void BM_PgAnchorPrepared(benchmark::State& state) {
  PGconn* c = PQconnectdb(PgBenchText().c_str());
  PQclear(PQprepare(c, "anchor", (std::string(kSelect) + "$1").c_str(), 1, nullptr));
  Keys keys;
  for (auto _ : state) {
    const std::string k = keys.Next();
    const char* values[] = {k.c_str()};
    PGresult* r = PQexecPrepared(c, "anchor", 1, values, nullptr, nullptr, 0);
    if (PQntuples(r) == 1) {
      std::string id(PQgetvalue(r, 0, 0));
      std::string name(PQgetvalue(r, 0, 1));
      int seq = std::atoi(PQgetvalue(r, 0, 2));
      benchmark::DoNotOptimize(id);
      benchmark::DoNotOptimize(name);
      benchmark::DoNotOptimize(seq);
    }
    PQclear(r);
  }
  PQfinish(c);
}

void BM_PgFreshText(benchmark::State& state) {
  PGconn* c = PQconnectdb(PgBenchText().c_str());
  Keys keys;
  for (auto _ : state) {
    const std::string sql = std::string(kSelect) + "'" + keys.Next() + "'";
    PGresult* r = PQexec(c, sql.c_str());
    if (PQntuples(r) == 1) {
      std::string id(PQgetvalue(r, 0, 0));
      std::string name(PQgetvalue(r, 0, 1));
      int seq = std::atoi(PQgetvalue(r, 0, 2));
      benchmark::DoNotOptimize(id);
      benchmark::DoNotOptimize(name);
      benchmark::DoNotOptimize(seq);
    }
    PQclear(r);
  }
  PQfinish(c);
}

void BM_PgOurs(benchmark::State& state) { RunOurs(state, PgBenchText()); }

// Prints the ratio of each figure's throughput to its engine's anchor.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
      times_[run.run_name.function_name] = run.GetAdjustedRealTime();
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\nThroughput ratio to the anchor (above 1 is faster):\n");
    for (const char* engine : {"Sqlite", "Pg"}) {
      const std::string anchor = std::string("BM_") + engine + "AnchorPrepared";
      if (!times_.count(anchor)) continue;
      for (const char* figure : {"Ours", "FreshText"}) {
        const std::string name = std::string("BM_") + engine + figure;
        if (times_.count(name)) {
          std::printf("  %-20s %.3f\n", name.c_str(), times_[anchor] / times_[name]);
        }
      }
    }
  }

 private:
  std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RegisterBenchmark("BM_SqliteAnchorPrepared", BM_SqliteAnchorPrepared)
      ->Iterations(kSelects)->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("BM_SqliteOurs", BM_SqliteOurs)
      ->Iterations(kSelects)->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("BM_SqliteFreshText", BM_SqliteFreshText)
      ->Iterations(kSelects)->Unit(benchmark::kMicrosecond);
  if (PgText()) {
    benchmark::RegisterBenchmark("BM_PgAnchorPrepared", BM_PgAnchorPrepared)
        ->Iterations(kSelects)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("BM_PgOurs", BM_PgOurs)
        ->Iterations(kSelects)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("BM_PgFreshText", BM_PgFreshText)
        ->Iterations(kSelects)->Unit(benchmark::kMicrosecond);
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
