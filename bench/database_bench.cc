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
#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>

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
    std::atexit(
        [] { std::filesystem::remove_all(std::filesystem::path(SqlitePath()).parent_path()); });
    return file;
  }();
  return path;
}

template <class T>
void Consume(const T& value) {
  benchmark::DoNotOptimize(value);
}

// One select after another with a prepared statement re-bound each time.
class SqliteAnchor {
 public:
  SqliteAnchor() {
    sqlite3_open(SqlitePath().c_str(), &db_);
    sqlite3_prepare_v2(db_, (std::string(kSelect) + "?").c_str(), -1, &st_, nullptr);
  }
  ~SqliteAnchor() {
    sqlite3_finalize(st_);
    sqlite3_close(db_);
  }
  bool Step() {
    const std::string k = keys_.Next();
    sqlite3_bind_text(st_, 1, k.data(), static_cast<int>(k.size()), SQLITE_TRANSIENT);
    const bool found = sqlite3_step(st_) == SQLITE_ROW;
    if (found) {
      std::string id(reinterpret_cast<const char*>(sqlite3_column_text(st_, 0)));
      std::string name(reinterpret_cast<const char*>(sqlite3_column_text(st_, 1)));
      Consume(id);
      Consume(name);
      Consume(sqlite3_column_int(st_, 2));
    }
    sqlite3_reset(st_);
    return found;
  }

 private:
  sqlite3* db_ = nullptr;
  sqlite3_stmt* st_ = nullptr;
  Keys keys_;
};

// Every text prepared anew.
class SqliteFresh {
 public:
  SqliteFresh() { sqlite3_open(SqlitePath().c_str(), &db_); }
  ~SqliteFresh() { sqlite3_close(db_); }
  bool Step() {
    const std::string sql = std::string(kSelect) + "'" + keys_.Next() + "'";
    sqlite3_stmt* st = nullptr;
    sqlite3_prepare_v2(db_, sql.c_str(), static_cast<int>(sql.size()), &st, nullptr);
    const bool found = sqlite3_step(st) == SQLITE_ROW;
    if (found) {
      std::string id(reinterpret_cast<const char*>(sqlite3_column_text(st, 0)));
      std::string name(reinterpret_cast<const char*>(sqlite3_column_text(st, 1)));
      Consume(id);
      Consume(name);
      Consume(sqlite3_column_int(st, 2));
    }
    sqlite3_finalize(st);
    return found;
  }

 private:
  sqlite3* db_ = nullptr;
  Keys keys_;
};

// The library: SQL text with the literal key, a forward-only recordset,
// fields read by name.
class Ours {
 public:
  explicit Ours(const std::string& connection_text)
      : conn_(std::make_shared<quillo::Connection>()) {
    conn_->Open(connection_text);
    st_.Connection(conn_);
  }
  bool Step() {
    st_.Sql(std::string(kSelect) + "'" + keys_.Next() + "'");
    if (!st_.GetRecordsetFO(rs_) || rs_->Eof()) return false;
    Consume(rs_->FieldValue("RecID"));
    Consume(rs_->FieldValue("Name"));
    Consume(rs_->FieldValue("Seq"));
    return true;
  }

 private:
  std::shared_ptr<quillo::Connection> conn_;
  quillo::SQLStatement st_;
  std::shared_ptr<quillo::Recordset> rs_ = std::make_shared<quillo::Recordset>();
  Keys keys_;
};

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

// Reads the row of a point select (if any) the way the library's callers do,
// then frees the result; true when the key was found.
bool ConsumeRow(PGresult* r) {
  const bool found = PQntuples(r) == 1;
  if (found) {
    std::string id(PQgetvalue(r, 0, 0));
    std::string name(PQgetvalue(r, 0, 1));
    Consume(id);
    Consume(name);
    Consume(std::atoi(PQgetvalue(r, 0, 2)));
  }
  PQclear(r);
  return found;
}

class PgAnchor {
 public:
  PgAnchor() : c_(PQconnectdb(PgBenchText().c_str())) {
    PQclear(PQprepare(c_, "anchor", (std::string(kSelect) + "$1").c_str(), 1, nullptr));
  }
  ~PgAnchor() { PQfinish(c_); }
  bool Step() {
    const std::string k = keys_.Next();
    const char* values[] = {k.c_str()};
    PGresult* r = PQexecPrepared(c_, "anchor", 1, values, nullptr, nullptr, 0);
    return ConsumeRow(r);
  }

 private:
  PGconn* c_;
  Keys keys_;
};

class PgFresh {
 public:
  PgFresh() : c_(PQconnectdb(PgBenchText().c_str())) {}
  ~PgFresh() { PQfinish(c_); }
  bool Step() {
    const std::string sql = std::string(kSelect) + "'" + keys_.Next() + "'";
    PGresult* r = PQexec(c_, sql.c_str());
    return ConsumeRow(r);
  }

 private:
  PGconn* c_;
  Keys keys_;
};

template <class Runner, class... Args>
void RunFigure(benchmark::State& state, Args&&... args) {
  Runner runner(std::forward<Args>(args)...);
  long missing = 0;
  for (auto _ : state) missing += runner.Step() ? 0 : 1;
  if (missing) state.SkipWithError("a select found no row");
}

void BM_SqliteAnchorPrepared(benchmark::State& s) { RunFigure<SqliteAnchor>(s); }
void BM_SqliteOurs(benchmark::State& s) { RunFigure<Ours>(s, "sqlite:" + SqlitePath()); }
void BM_SqliteFreshText(benchmark::State& s) { RunFigure<SqliteFresh>(s); }
void BM_PgAnchorPrepared(benchmark::State& s) { RunFigure<PgAnchor>(s); }
void BM_PgOurs(benchmark::State& s) { RunFigure<Ours>(s, PgBenchText()); }
void BM_PgFreshText(benchmark::State& s) { RunFigure<PgFresh>(s); }

// Runs the anchor and ours in alternating blocks of 2,000 selects, 200,000
// each, so that a change in the machine's load falls on both alike; prints
// the throughput ratio by wall-clock and by this thread's CPU time.
template <class Anchor>
void Interleaved(const char* engine, Anchor& anchor, Ours& ours) {
  using Clock = std::chrono::steady_clock;
  auto cpu_now = [] {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec * 1e-9;
  };
  double wall[2] = {0, 0};
  double cpu[2] = {0, 0};
  constexpr int kBlock = 2000;
  for (int block = 0; block < kSelects / kBlock; ++block) {
    // Which side goes first alternates too, so neither always finds the
    // other's pages freshly read.
    for (int turn = 0; turn < 2; ++turn) {
      const int side = (block + turn) % 2;
      const auto w0 = Clock::now();
      const double c0 = cpu_now();
      for (int i = 0; i < kBlock; ++i) {
        if (side == 0) {
          anchor.Step();
        } else {
          ours.Step();
        }
      }
      cpu[side] += cpu_now() - c0;
      wall[side] += std::chrono::duration<double>(Clock::now() - w0).count();
    }
  }
  std::printf(
      "  %-8s interleaved: anchor %.2f us, ours %.2f us per select (wall); ratio %.3f "
      "wall, %.3f CPU\n",
      engine, wall[0] / kSelects * 1e6, wall[1] / kSelects * 1e6, wall[0] / wall[1],
      cpu[0] / cpu[1]);
}

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
      ->Iterations(kSelects)
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("BM_SqliteOurs", BM_SqliteOurs)
      ->Iterations(kSelects)
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("BM_SqliteFreshText", BM_SqliteFreshText)
      ->Iterations(kSelects)
      ->Unit(benchmark::kMicrosecond);
  if (PgText()) {
    benchmark::RegisterBenchmark("BM_PgAnchorPrepared", BM_PgAnchorPrepared)
        ->Iterations(kSelects)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("BM_PgOurs", BM_PgOurs)
        ->Iterations(kSelects)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("BM_PgFreshText", BM_PgFreshText)
        ->Iterations(kSelects)
        ->Unit(benchmark::kMicrosecond);
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\n");
  {
    SqliteAnchor anchor;
    Ours ours("sqlite:" + SqlitePath());
    Interleaved("SQLite", anchor, ours);
  }
  if (PgText()) {
    PgAnchor anchor;
    Ours ours(PgBenchText());
    Interleaved("Postgres", anchor, ours);
  }
  benchmark::Shutdown();
  return 0;
}
