// Campaign processor throughput: one campaign with three items and N
// enrolments (1,000,000 on SQLite; 100,000 on PostgreSQL when QUILLO_TEST_PG
// names a server), run as kind 1, kind 2 and kind 0 with queueing on.
//
// Each run happens in a child process so that its peak memory (the child's
// maximum resident set) is its own. Beside each run, the anchor: a plain C++
// loop that issues the same enrolment and sent-item queries through prepared
// statements of the engine's own client library and writes the same queue
// bytes with buffered stdio, without building message objects. Printed:
// enrolments/s, messages/s, the ratio to the anchor (goal >= 0.7) and the
// peak memory against its budget (twice the bytes of the listed messages'
// texts plus 64 MB).
//
// Each kind runs `rounds` times, the processor and its anchor one after the
// other in every round; the times printed are the medians, the ratio is the
// median of the rounds' ratios and the peak memory the largest seen. On a
// shared machine a single pair of runs can be off by a third either way.
//
//   processor_bench [enrolments] [postgres enrolments] [rounds]
//                   (defaults 1000000, 100000, 3)
#include <libpq-fe.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "campaign/dm_campaign_processor.h"
#include "campaign/dmmsgqueue.h"
#include "platform/database.h"
#include "platform/date.h"
#include "platform/schema.h"

namespace {

using Clock = std::chrono::steady_clock;

// The run date and the enrolment date (30 days earlier: every item is due).
constexpr const char* kRunDay = "2026-03-31";
constexpr const char* kEnrolled = "2026-03-01 00:00:00";
const int kIntervals[3] = {0, 7, 14};

struct Result {
  double seconds = 0;
  long enrolments = 0;
  long messages = 0;
  long long text_bytes = 0;  // Bytes of the nine texts of every listed message.
  long peak_kb = 0;          // Filled in by the parent.
};

// --- Data -------------------------------------------------------------------

void Check(int rc, sqlite3* db, const char* what) {
  if (rc != SQLITE_OK && rc != SQLITE_DONE && rc != SQLITE_ROW) {
    std::fprintf(stderr, "%s: %s\n", what, sqlite3_errmsg(db));
    std::exit(1);
  }
}

std::string AccountOf(long i) {
  char b[32];
  std::snprintf(b, sizeof b, "ACC%08ld", i);
  return b;
}
std::string EmailOf(long i) {
  char b[48];
  std::snprintf(b, sizeof b, "client%08ld@example.com", i);
  return b;
}

void GenerateSqlite(const std::string& path, long n) {
  std::filesystem::remove(path);
  {
    auto conn = std::make_shared<quillo::Connection>();
    conn->Open("sqlite:" + path);
    quillo::schema::Create(*conn);
    conn->Close();
  }
  sqlite3* db = nullptr;
  Check(sqlite3_open(path.c_str(), &db), db, "open");
  Check(sqlite3_exec(db, "PRAGMA synchronous=OFF; BEGIN", nullptr, nullptr, nullptr), db, "begin");
  Check(sqlite3_exec(db,
                     "INSERT INTO dmmrktcmp (RecID, CampaignName, CampaignType, Interval, "
                     "Disabled, Reminder, CampaignDescription, CampaignEffectiveDate) VALUES "
                     "('CAMPAIGN0123456789ABCDEF01234567', 'Spring Drip Campaign', 1, 0, 0, 0, "
                     "'bench', '2026-01-01 00:00:00')",
                     nullptr, nullptr, nullptr),
        db, "campaign");
  for (int i = 0; i < 3; ++i) {
    std::string sql =
        "INSERT INTO dmmrktcmpitems (RecID, CampaignRecID, Description, Interval, "
        "MessageFileName) VALUES ('ITEM" +
        std::to_string(i) +
        "0123456789ABCDEF0123456789A', 'CAMPAIGN0123456789ABCDEF01234567', "
        "'item', " +
        std::to_string(kIntervals[i]) + ", 'templates/item" + std::to_string(i) + ".txt')";
    Check(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), db, "item");
  }
  sqlite3_stmt* client = nullptr;
  sqlite3_stmt* enrol = nullptr;
  Check(sqlite3_prepare_v2(db, "INSERT INTO dmclients (Account, EMail) VALUES (?, ?)", -1, &client,
                           nullptr),
        db, "prepare");
  Check(sqlite3_prepare_v2(db,
                           "INSERT INTO dmclientsmrktcmp (RecID, Account, CampaignRecID, "
                           "EffectiveDate) VALUES (?, ?, 'CAMPAIGN0123456789ABCDEF01234567', ?)",
                           -1, &enrol, nullptr),
        db, "prepare");
  for (long i = 0; i < n; ++i) {
    std::string acc = AccountOf(i), email = EmailOf(i), rec = "ENROL" + AccountOf(i);
    sqlite3_bind_text(client, 1, acc.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(client, 2, email.c_str(), -1, SQLITE_TRANSIENT);
    Check(sqlite3_step(client), db, "client");
    sqlite3_reset(client);
    sqlite3_bind_text(enrol, 1, rec.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(enrol, 2, acc.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(enrol, 3, kEnrolled, -1, SQLITE_STATIC);
    Check(sqlite3_step(enrol), db, "enrol");
    sqlite3_reset(enrol);
  }
  sqlite3_finalize(client);
  sqlite3_finalize(enrol);
  Check(sqlite3_exec(db, "COMMIT; ANALYZE", nullptr, nullptr, nullptr), db, "commit");
  sqlite3_close(db);
}

void GeneratePostgres(const std::string& uri, long n) {
  auto conn = std::make_shared<quillo::Connection>();
  conn->Open(uri);
  for (const char* t : {"dmclients", "dmclientsmrktcmp", "dmmrktcmp", "dmmrktcmpitems",
                        "dmsentitems", "dmmrktcmphistory"}) {
    conn->Execute(std::string("DROP TABLE IF EXISTS ") + t);
  }
  quillo::schema::Create(*conn);
  conn->Execute(
      "INSERT INTO dmmrktcmp (RecID, CampaignName, CampaignType, Interval, Disabled, Reminder, "
      "CampaignDescription, CampaignEffectiveDate) VALUES ('CAMPAIGN0123456789ABCDEF01234567', "
      "'Spring Drip Campaign', 1, 0, 0, 0, 'bench', {ts '2026-01-01 00:00:00'})");
  for (int i = 0; i < 3; ++i) {
    conn->Execute(
        "INSERT INTO dmmrktcmpitems (RecID, CampaignRecID, Description, Interval, "
        "MessageFileName) VALUES ('ITEM" +
        std::to_string(i) +
        "0123456789ABCDEF0123456789A', 'CAMPAIGN0123456789ABCDEF01234567', 'item', " +
        std::to_string(kIntervals[i]) + ", 'templates/item" + std::to_string(i) + ".txt')");
  }
  std::string count = std::to_string(n - 1);
  conn->Execute(
      "INSERT INTO dmclients (Account, EMail) SELECT 'ACC' || lpad(g::text, 8, '0'), "
      "'client' || lpad(g::text, 8, '0') || '@example.com' FROM generate_series(0, " +
      count + ") g");
  conn->Execute(
      "INSERT INTO dmclientsmrktcmp (RecID, Account, CampaignRecID, EffectiveDate) "
      "SELECT 'ENROLACC' || lpad(g::text, 8, '0'), 'ACC' || lpad(g::text, 8, '0'), "
      "'CAMPAIGN0123456789ABCDEF01234567', {ts '" +
      std::string(kEnrolled) + "'} FROM generate_series(0, " + count + ") g");
  conn->Execute("ANALYZE");
  conn->Close();
}

void SetKind(const std::string& connection_text, int kind) {
  auto conn = std::make_shared<quillo::Connection>();
  conn->Open(connection_text);
  conn->Execute("UPDATE dmmrktcmp SET CampaignType = " + std::to_string(kind));
  conn->Execute("DELETE FROM dmmrktcmphistory");
  conn->Close();
}

// --- The processor ------------------------------------------------------------

// A stand-in identifier generator (the history row needs one key).
class BenchIds : public quillo::Object {
 public:
  const quillo::MemberTable& Members() const override {
    static const quillo::MemberTable table =
        quillo::MemberTable::Builder<BenchIds>("BenchIds")
            .Method("GetNextRecordID",
                    [](BenchIds&) { return std::string("HISTORY0123456789ABCDEF012345678"); })
            .Build();
    return table;
  }
};

Result RunProcessor(const std::string& connection_text, const std::string& queue_path) {
  auto conn = std::make_shared<quillo::Connection>();
  conn->Open(connection_text);
  auto queue = std::make_shared<quillo::dmmsgqueue>();
  queue->MessageQueueFileName(queue_path);
  if (!queue->OpenQueueWrite()) std::exit(2);
  quillo::dmCampaignProcessor p;
  p.Connection(conn);
  p.IDGenerator(std::make_shared<BenchIds>());
  p.CampaignRecID("CAMPAIGN0123456789ABCDEF01234567");
  p.CurrentDate(quillo::DateSerial(2026, 3, 31));
  p.UseMessageQueue(true);
  p.MessageQueue(queue);
  long rows = 0;
  p.OnStatusChange([&](std::string&, std::int32_t&, std::int32_t&) { ++rows; });
  auto t0 = Clock::now();
  p.LoadData();
  p.Process();
  queue->CloseQueue();
  Result r;
  r.seconds = std::chrono::duration<double>(Clock::now() - t0).count();
  r.messages = p.Messages()->Count();
  for (const auto& m : *p.Messages()) {
    r.text_bytes += static_cast<long long>(
        m->CampaignType().size() + m->HistoryRecID().size() + m->Email().size() +
        m->Account().size() + m->CampaignRecID().size() + m->CampaignItemRecID().size() +
        m->MessageFileName().size() + m->SendDate().size() + m->CampaignName().size());
  }
  r.enrolments = rows;
  return r;
}

// --- The anchors ----------------------------------------------------------------

struct Item {
  std::string id;
  int interval;
  std::string file;
};

// Writes one queue record.
void WriteRecord(std::FILE* f, const std::string& email, const std::string& account,
                 const Item& item, int kind) {
  std::fprintf(f,
               "\"%s\",\"%s\",\"%s\",\"%s\",\"Spring Drip Campaign\","
               "\"CAMPAIGN0123456789ABCDEF01234567\",\"HISTORY0123456789ABCDEF012345678\","
               "\"%d\",\"%s\"\r\n",
               email.c_str(), item.file.c_str(), account.c_str(), item.id.c_str(), kind, kRunDay);
}

// Days from "yyyy-mm-dd..." to the run date (both in March 2026 here, so a
// plain day difference; the general case would use a civil-date routine).
int DaysToRun(const char* enrolled) { return 31 - std::atoi(enrolled + 8); }

const std::vector<Item>& Items() {
  static const std::vector<Item> items = {
      {"ITEM00123456789ABCDEF0123456789A", 0, "templates/item0.txt"},
      {"ITEM10123456789ABCDEF0123456789A", 7, "templates/item1.txt"},
      {"ITEM20123456789ABCDEF0123456789A", 14, "templates/item2.txt"}};
  return items;
}

// The per-row decision shared by both anchors: `sent(item)` asks the database.
long Decide(int kind, const std::string& email, const std::string& account, int days,
            const std::function<bool(const Item&)>& sent, std::FILE* out) {
  long produced = 0;
  if (email.compare(0, 4, "~tmp") == 0) return 0;
  for (const Item& item : Items()) {
    if (kind == 1) {
      if (sent(item)) continue;
      if (days >= item.interval) WriteRecord(out, email, account, item, kind), ++produced;
    } else if (kind == 2) {
      if (!sent(item)) {
        WriteRecord(out, email, account, item, kind);
        return 1;
      }
    } else {
      WriteRecord(out, email, account, item, kind), ++produced;
    }
  }
  return produced;
}

Result AnchorSqlite(const std::string& path, int kind, const std::string& queue_path) {
  auto t0 = Clock::now();
  sqlite3* db = nullptr;
  sqlite3_open(path.c_str(), &db);
  sqlite3_stmt* rows = nullptr;
  sqlite3_stmt* sent = nullptr;
  sqlite3_prepare_v2(db,
                     "SELECT dmclientsmrktcmp.*, dmclients.email FROM dmclientsmrktcmp INNER JOIN "
                     "dmclients ON dmclientsmrktcmp.Account = dmclients.account WHERE "
                     "dmclientsmrktcmp.CampaignRecID = 'CAMPAIGN0123456789ABCDEF01234567' AND "
                     "dmclientsmrktcmp.EffectiveDate <= '2026-03-31 00:00:00' ORDER BY "
                     "dmclients.email",
                     -1, &rows, nullptr);
  sqlite3_prepare_v2(db,
                     "SELECT RecID FROM dmsentitems WHERE CampaignRecID = ? AND "
                     "CampaignItemRecID = ? AND Account = ?",
                     -1, &sent, nullptr);
  std::FILE* out = std::fopen(queue_path.c_str(), "wb");
  Result r;
  std::string account;
  auto is_sent = [&](const Item& item) {
    sqlite3_bind_text(sent, 1, "CAMPAIGN0123456789ABCDEF01234567", -1, SQLITE_STATIC);
    sqlite3_bind_text(sent, 2, item.id.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(sent, 3, account.c_str(), -1, SQLITE_STATIC);
    bool found = sqlite3_step(sent) == SQLITE_ROW;
    sqlite3_reset(sent);
    return found;
  };
  int account_col = -1, date_col = -1, email_col = -1;
  for (int c = 0; c < sqlite3_column_count(rows); ++c) {
    std::string name = sqlite3_column_name(rows, c);
    if (name == "Account") account_col = c;
    if (name == "EffectiveDate") date_col = c;
    if (name == "EMail" || name == "email") email_col = c;
  }
  while (sqlite3_step(rows) == SQLITE_ROW) {
    ++r.enrolments;
    account = reinterpret_cast<const char*>(sqlite3_column_text(rows, account_col));
    std::string email = reinterpret_cast<const char*>(sqlite3_column_text(rows, email_col));
    int days = DaysToRun(reinterpret_cast<const char*>(sqlite3_column_text(rows, date_col)));
    r.messages += Decide(kind, email, account, days, is_sent, out);
  }
  std::fclose(out);
  sqlite3_finalize(rows);
  sqlite3_finalize(sent);
  sqlite3_close(db);
  r.seconds = std::chrono::duration<double>(Clock::now() - t0).count();
  return r;
}

Result AnchorPostgres(const std::string& uri, int kind, const std::string& queue_path) {
  auto t0 = Clock::now();
  PGconn* pg = PQconnectdb(uri.c_str());
  PQclear(PQprepare(pg, "sent",
                    "SELECT RecID FROM dmsentitems WHERE CampaignRecID = $1 AND "
                    "CampaignItemRecID = $2 AND Account = $3",
                    3, nullptr));
  PGresult* rows = PQexec(pg,
                          "SELECT dmclientsmrktcmp.*, dmclients.email FROM dmclientsmrktcmp "
                          "INNER JOIN dmclients ON dmclientsmrktcmp.Account = dmclients.account "
                          "WHERE dmclientsmrktcmp.CampaignRecID = "
                          "'CAMPAIGN0123456789ABCDEF01234567' AND dmclientsmrktcmp.EffectiveDate "
                          "<= '2026-03-31 00:00:00' ORDER BY dmclients.email");
  std::FILE* out = std::fopen(queue_path.c_str(), "wb");
  Result r;
  std::string account;
  auto is_sent = [&](const Item& item) {
    const char* params[3] = {"CAMPAIGN0123456789ABCDEF01234567", item.id.c_str(), account.c_str()};
    PGresult* res = PQexecPrepared(pg, "sent", 3, params, nullptr, nullptr, 0);
    bool found = PQntuples(res) > 0;
    PQclear(res);
    return found;
  };
  int account_col = PQfnumber(rows, "account");
  int date_col = PQfnumber(rows, "effectivedate");
  int email_col = PQfnumber(rows, "email");
  for (int i = 0; i < PQntuples(rows); ++i) {
    ++r.enrolments;
    account = PQgetvalue(rows, i, account_col);
    std::string email = PQgetvalue(rows, i, email_col);
    int days = DaysToRun(PQgetvalue(rows, i, date_col));
    r.messages += Decide(kind, email, account, days, is_sent, out);
  }
  std::fclose(out);
  PQclear(rows);
  PQfinish(pg);
  r.seconds = std::chrono::duration<double>(Clock::now() - t0).count();
  return r;
}

// --- Child processes ------------------------------------------------------------

// Runs `body` in a child process; returns its result with the child's peak RSS.
Result InChild(const std::function<Result()>& body) {
  int fds[2];
  if (::pipe(fds) != 0) std::exit(3);
  pid_t pid = ::fork();
  if (pid == 0) {
    ::close(fds[0]);
    Result r = body();
    if (::write(fds[1], &r, sizeof r) != static_cast<ssize_t>(sizeof r)) ::_exit(4);
    ::_exit(0);
  }
  ::close(fds[1]);
  Result r;
  if (::read(fds[0], &r, sizeof r) != static_cast<ssize_t>(sizeof r)) {
    std::fprintf(stderr, "child failed\n");
  }
  ::close(fds[0]);
  int status = 0;
  rusage usage{};
  ::wait4(pid, &status, 0, &usage);
  r.peak_kb = usage.ru_maxrss;
  return r;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// Runs the processor and the anchor `rounds` times and reports the medians.
void Measure(const char* engine, int kind, int rounds, const std::function<Result()>& processor,
             const std::function<Result()>& anchor) {
  std::vector<double> p_seconds, a_seconds, ratios;
  Result p, a;
  long p_peak = 0, a_peak = 0;
  for (int round = 0; round < rounds; ++round) {
    p = InChild(processor);
    a = InChild(anchor);
    p_seconds.push_back(p.seconds);
    a_seconds.push_back(a.seconds);
    ratios.push_back(a.seconds / p.seconds);
    p_peak = std::max(p_peak, p.peak_kb);
    a_peak = std::max(a_peak, a.peak_kb);
  }
  p.seconds = Median(p_seconds);
  a.seconds = Median(a_seconds);
  p.peak_kb = p_peak;
  a.peak_kb = a_peak;
  // Kind 0 raises no StatusChange; its enrolment rows are the anchor's (same query).
  if (p.enrolments == 0) p.enrolments = a.enrolments;
  double budget_mb = 2.0 * static_cast<double>(p.text_bytes) / 1e6 + 64.0;
  std::printf(
      "%-10s kind %d  %8ld enrolments %8ld messages | processor %7.2f s %9.0f enrol/s %9.0f "
      "msg/s | anchor %6.2f s %9.0f enrol/s | ratio %.2f | peak %6.0f MB (budget %6.0f MB, "
      "anchor %4.0f MB)\n",
      engine, kind, p.enrolments, p.messages, p.seconds, p.enrolments / p.seconds,
      p.messages / p.seconds, a.seconds, a.enrolments / a.seconds, Median(ratios),
      p.peak_kb / 1024.0, budget_mb, a.peak_kb / 1024.0);
  if (a.messages != p.messages) {
    std::printf("  (anchor produced %ld messages, processor %ld)\n", a.messages, p.messages);
  }
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  long n = argc > 1 ? std::atol(argv[1]) : 1000000;
  const int rounds = argc > 3 ? std::max(1, std::atoi(argv[3])) : 3;
  std::string tmp = std::filesystem::temp_directory_path().string();
  std::string pid = std::to_string(::getpid());
  std::string db_path = tmp + "/quillo-processor-bench-" + pid + ".db";
  std::string queue_path = tmp + "/quillo-processor-bench-" + pid + ".queue";
  std::string anchor_queue = queue_path + ".anchor";

  auto t0 = Clock::now();
  GenerateSqlite(db_path, n);
  std::printf("SQLite: generated %ld enrolments in %.1f s\n", n,
              std::chrono::duration<double>(Clock::now() - t0).count());
  for (int kind : {1, 2, 0}) {
    SetKind("sqlite:" + db_path, kind);
    Measure(
        "SQLite", kind, rounds, [&] { return RunProcessor("sqlite:" + db_path, queue_path); },
        [&] { return AnchorSqlite(db_path, kind, anchor_queue); });
  }
  for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(db_path + suffix);

  const char* pg = std::getenv("QUILLO_TEST_PG");
  if (pg != nullptr && *pg != '\0') {
    long pg_n = argc > 2 ? std::atol(argv[2]) : 100000;
    t0 = Clock::now();
    GeneratePostgres(pg, pg_n);
    std::printf("PostgreSQL: generated %ld enrolments in %.1f s\n", pg_n,
                std::chrono::duration<double>(Clock::now() - t0).count());
    for (int kind : {1, 2, 0}) {
      SetKind(pg, kind);
      Measure(
          "PostgreSQL", kind, rounds, [&] { return RunProcessor(pg, queue_path); },
          [&] { return AnchorPostgres(pg, kind, anchor_queue); });
    }
  } else {
    std::printf("PostgreSQL: skipped (QUILLO_TEST_PG is not set)\n");
  }
  std::filesystem::remove(queue_path);
  std::filesystem::remove(anchor_queue);
  return 0;
}
