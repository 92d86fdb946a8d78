// Record persistence on SQLite: 100,000 dmclients SaveData inserts and
// 100,000 LoadData reads, each beside the raw SQLite loop that does the same
// work with one prepared statement (the anchor), in the same run, with the
// ratio printed at the end. Two more runs split a SaveData into its parts:
// the key probe (a SELECT through a Recordset) and an INSERT text run through
// Connection::Execute.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/database.h"
#include "platform/object.h"
#include "platform/schema.h"
#include "records/dmclients.h"
#include "records/idgen.h"

namespace {

// Rows per run: 100,000, or QUILLO_RECORDS_BENCH_ROWS for a quick look.
int Rows() {
  const char* text = std::getenv("QUILLO_RECORDS_BENCH_ROWS");
  return text != nullptr && std::atoi(text) > 0 ? std::atoi(text) : 100000;
}

// A host generator called by name like idgen but counting, so that a bulk
// insert draws no duplicate keys: idgen's seeds (the second plus a number
// from 1 to 1000) repeat within a second after a few dozen draws.
class CountingGenerator : public quillo::Object {
 public:
  const quillo::MemberTable& Members() const override {
    static const quillo::MemberTable table =
        quillo::MemberTable::Builder<CountingGenerator>("CountingGenerator")
            .Method("GetNextRecordID", [](CountingGenerator& g) { return g.Next(); })
            .Build();
    return table;
  }
  std::string Next() {
    std::string n = std::to_string(++count_);
    return std::string(32 - n.size(), '0') + n;
  }

 private:
  long count_ = 0;
};

// A fresh SQLite file with the library's schema; returns its path. The files
// go to memory-backed /dev/shm when there is one, so that the figures show
// the cost of the code rather than of the disk's flushes (which, on this
// machine's disk, are about 6 ms per committed row on both sides alike).
std::string FreshDatabase(const std::string& name) {
  std::filesystem::path folder = std::filesystem::exists("/dev/shm")
                                     ? std::filesystem::path("/dev/shm")
                                     : std::filesystem::temp_directory_path();
  std::string path = (folder / name).string();
  for (const char* suffix : {"", "-wal", "-shm"}) std::remove((path + suffix).c_str());
  auto connection = std::make_shared<quillo::Connection>();
  connection->Open("sqlite:" + path);
  quillo::schema::Create(*connection);
  connection->Close();
  return path;
}

// The pragma settings of a library connection, to give the raw loops the same.
std::string Pragma(const std::shared_ptr<quillo::Connection>& connection, const std::string& name) {
  auto rs = std::make_shared<quillo::Recordset>();
  rs->Open("PRAGMA " + name, connection);
  std::string value = rs->Eof() ? "" : rs->FieldValue(rs->FieldName(0)).ToString();
  rs->Close();
  return value;
}

struct Shared {
  std::string record_path, raw_path;
  std::vector<std::string> record_keys, raw_keys;
  std::string journal_mode, synchronous, busy_timeout;
} shared;

void FillClient(quillo::dmclients& c, int i) {
  c.Address(std::to_string(i) + " Main St");
  c.CalledDate(quillo::Date(38412.5 + i % 1000));
  c.city("Springfield");
  c.Company("O'Brien & Sons");
  c.Email("client" + std::to_string(i) + "@example.com");
  c.EMailList(1);
  c.First("First" + std::to_string(i));
  c.Last("Last");
  c.MailingList(-1);
  c.Notes("notes for a client of the benchmark");
  c.state("IL");
  c.zip("62701");
}

// --- The library -------------------------------------------------------------

void BM_RecordSaveDataInsert(benchmark::State& state) {
  shared.record_path = FreshDatabase("quillo_records_bench_record.db");
  auto connection = std::make_shared<quillo::Connection>();
  connection->Open("sqlite:" + shared.record_path);
  shared.journal_mode = Pragma(connection, "journal_mode");
  shared.synchronous = Pragma(connection, "synchronous");
  shared.busy_timeout = Pragma(connection, "busy_timeout");
  auto generator = std::make_shared<CountingGenerator>();
  shared.record_keys.clear();
  int i = 0;
  for (auto _ : state) {
    quillo::dmclients client;
    client.Connection(connection);
    client.IDGenerator(generator);
    FillClient(client, i++);
    if (!client.SaveData()) {
      state.SkipWithError(client.ErrorMessage().c_str());
      break;
    }
    shared.record_keys.push_back(client.Account());
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_RecordLoadData(benchmark::State& state) {
  auto connection = std::make_shared<quillo::Connection>();
  connection->Open("sqlite:" + shared.record_path);
  size_t i = 0;
  for (auto _ : state) {
    quillo::dmclients client;
    client.Connection(connection);
    client.Account(shared.record_keys[i++ % shared.record_keys.size()]);
    client.LoadData();
    if (client.Error() || client.Email().empty()) {
      state.SkipWithError("load failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}

// The key probe of SaveData alone: open, test EOF, close.
void BM_RecordsetProbe(benchmark::State& state) {
  auto connection = std::make_shared<quillo::Connection>();
  connection->Open("sqlite:" + shared.record_path);
  size_t i = 0;
  for (auto _ : state) {
    auto rs = std::make_shared<quillo::Recordset>();
    rs->Open("SELECT Account FROM dmclients WHERE Account = '" +
                 shared.record_keys[i++ % shared.record_keys.size()] + "';",
             connection, quillo::kAdOpenForwardOnly, quillo::kAdLockOptimistic, quillo::kAdCmdText);
    benchmark::DoNotOptimize(rs->Eof());
  }
  state.SetItemsProcessed(state.iterations());
}

// An INSERT text of the same shape run through Connection::Execute alone.
void BM_ConnectionExecuteInsert(benchmark::State& state) {
  std::string path = FreshDatabase("quillo_records_bench_execute.db");
  auto connection = std::make_shared<quillo::Connection>();
  connection->Open("sqlite:" + path);
  quillo::dmclients client;
  FillClient(client, 7);
  client.Connection(connection);
  client.IDGenerator(std::make_shared<CountingGenerator>());
  client.SaveData();  // Captures the INSERT text once.
  std::string text = client.LastSQLExecuted();
  const std::string key = client.Account();
  long n = 0;
  for (auto _ : state) {
    std::string sql = text;
    std::string fresh = std::to_string(1000000000L + ++n);
    fresh.insert(0, key.size() - fresh.size(), '0');
    sql.replace(sql.find(key), key.size(), fresh);
    try {
      connection->Execute(sql);
    } catch (const quillo::RuntimeError& e) {
      state.SkipWithError(e.description.c_str());
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}

// --- The raw anchors ---------------------------------------------------------

const char* const kInsertSql =
    "INSERT INTO dmclients (Account, Address, AgentID, CalledDate, CellPhone, City, Company, "
    "ContactDate, Country, EMail, EMailList, FaxPhone, First, HomePhone, HotSheetList, Last, "
    "LastMinuteList, LoginID, LoginPassword, MailingList, Middle, ModifiedRemote, Notes, PO, "
    "RecordAddedBy, RecordAddedDate, RecordEditedBy, RecordEditedDate, SiteID, State, Title, "
    "WorkPhone, Zip) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15, "
    "?16, ?17, ?18, ?19, ?20, ?21, ?22, ?23, ?24, ?25, ?26, ?27, ?28, ?29, ?30, ?31, ?32, ?33)";

sqlite3* OpenRaw(const std::string& path) {
  sqlite3* db = nullptr;
  sqlite3_open(path.c_str(), &db);
  std::string pragmas = "PRAGMA journal_mode=" + shared.journal_mode +
                        "; PRAGMA synchronous=" + shared.synchronous +
                        "; PRAGMA busy_timeout=" + shared.busy_timeout + ";";
  sqlite3_exec(db, pragmas.c_str(), nullptr, nullptr, nullptr);
  return db;
}

void BindText(sqlite3_stmt* st, int i, const std::string& s) {
  sqlite3_bind_text(st, i, s.data(), static_cast<int>(s.size()), SQLITE_TRANSIENT);
}

void BM_RawPreparedInsert(benchmark::State& state) {
  shared.raw_path = FreshDatabase("quillo_records_bench_raw.db");
  sqlite3* db = OpenRaw(shared.raw_path);
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v2(db, kInsertSql, -1, &st, nullptr);
  CountingGenerator generator;
  shared.raw_keys.clear();
  int i = 0;
  const std::string zero_date = "1899-12-30 00:00:00", empty;
  for (auto _ : state) {
    // The same values a SaveData writes, in the same column order.
    std::string key = generator.Next();
    int n = i++;
    BindText(st, 1, key);
    BindText(st, 2, std::to_string(n) + " Main St");
    BindText(st, 3, empty);
    BindText(st, 4, "2005-03-01 12:00:00");
    BindText(st, 5, empty);
    BindText(st, 6, "Springfield");
    BindText(st, 7, "O'Brien & Sons");
    BindText(st, 8, zero_date);
    BindText(st, 9, empty);
    BindText(st, 10, "client" + std::to_string(n) + "@example.com");
    sqlite3_bind_int(st, 11, 1);
    BindText(st, 12, empty);
    BindText(st, 13, "First" + std::to_string(n));
    BindText(st, 14, empty);
    sqlite3_bind_int(st, 15, 0);
    BindText(st, 16, "Last");
    sqlite3_bind_int(st, 17, 0);
    BindText(st, 18, empty);
    BindText(st, 19, empty);
    sqlite3_bind_int(st, 20, -1);
    BindText(st, 21, empty);
    sqlite3_bind_int(st, 22, 0);
    BindText(st, 23, "notes for a client of the benchmark");
    BindText(st, 24, empty);
    BindText(st, 25, empty);
    BindText(st, 26, zero_date);
    BindText(st, 27, empty);
    BindText(st, 28, zero_date);
    BindText(st, 29, empty);
    BindText(st, 30, "IL");
    BindText(st, 31, empty);
    BindText(st, 32, empty);
    BindText(st, 33, "62701");
    if (sqlite3_step(st) != SQLITE_DONE) {
      state.SkipWithError(sqlite3_errmsg(db));
      break;
    }
    sqlite3_reset(st);
    shared.raw_keys.push_back(key);
  }
  sqlite3_finalize(st);
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations());
}

void BM_RawPreparedSelect(benchmark::State& state) {
  sqlite3* db = OpenRaw(shared.raw_path);
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v2(db, "SELECT * FROM dmclients WHERE Account = ?1", -1, &st, nullptr);
  size_t i = 0;
  for (auto _ : state) {
    BindText(st, 1, shared.raw_keys[i++ % shared.raw_keys.size()]);
    if (sqlite3_step(st) != SQLITE_ROW) {
      state.SkipWithError("no row");
      break;
    }
    // Read every column into typed values, as LoadData does.
    int columns = sqlite3_column_count(st);
    for (int c = 0; c < columns; ++c) {
      if (sqlite3_column_type(st, c) == SQLITE_INTEGER) {
        benchmark::DoNotOptimize(sqlite3_column_int(st, c));
      } else {
        const unsigned char* text = sqlite3_column_text(st, c);
        std::string value = text ? reinterpret_cast<const char*>(text) : "";
        benchmark::DoNotOptimize(value);
      }
    }
    sqlite3_reset(st);
  }
  sqlite3_finalize(st);
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations());
}

// Prints each run as usual and remembers its time per item for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      double n = static_cast<double>(run.iterations);
      seconds_[run.benchmark_name()] = {run.real_accumulated_time / n,
                                        run.cpu_accumulated_time / n};
    }
  }
  void PrintRatio(const std::string& name, const std::string& anchor, int rows) const {
    const std::string suffix = "/iterations:" + std::to_string(rows);
    auto a = seconds_.find(name + suffix), b = seconds_.find(anchor + suffix);
    if (a == seconds_.end() || b == seconds_.end() || b->second.first <= 0) return;
    // CPU time as well as wall time: on a shared machine the wall time also
    // holds the waits for the other jobs.
    std::printf("%-28s vs %-22s wall %7.2f / %7.2f us = %.2f   cpu %7.2f / %7.2f us = %.2f\n",
                name.c_str(), anchor.c_str(), a->second.first * 1e6, b->second.first * 1e6,
                a->second.first / b->second.first, a->second.second * 1e6, b->second.second * 1e6,
                a->second.second / b->second.second);
  }

 private:
  std::map<std::string, std::pair<double, double>> seconds_;  // Name -> wall, CPU per item.
};

}  // namespace

int main(int argc, char** argv) {
  const int rows = Rows();
  for (auto [name, fn] : std::vector<std::pair<const char*, void (*)(benchmark::State&)>>{
           {"BM_RecordSaveDataInsert", BM_RecordSaveDataInsert},
           {"BM_RawPreparedInsert", BM_RawPreparedInsert},
           {"BM_RecordLoadData", BM_RecordLoadData},
           {"BM_RawPreparedSelect", BM_RawPreparedSelect},
           {"BM_RecordsetProbe", BM_RecordsetProbe},
           {"BM_ConnectionExecuteInsert", BM_ConnectionExecuteInsert}}) {
    benchmark::RegisterBenchmark(name, fn)->Iterations(rows)->Unit(benchmark::kMicrosecond);
  }
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\n");
  reporter.PrintRatio("BM_RecordSaveDataInsert", "BM_RawPreparedInsert", rows);
  reporter.PrintRatio("BM_RecordLoadData", "BM_RawPreparedSelect", rows);
  reporter.PrintRatio("BM_RecordsetProbe", "BM_RawPreparedSelect", rows);
  reporter.PrintRatio("BM_ConnectionExecuteInsert", "BM_RawPreparedInsert", rows);
  benchmark::Shutdown();
  return 0;
}
