#include "delivery/ledger.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <ctime>
#include <initializer_list>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include "mail/address.h"
#include "platform/database.h"
#include "platform/db/backend.h"
#include "platform/error.h"

namespace quillo::delivery {

namespace {

constexpr const char* kStateNames[kLedgerStateCount] = {
    "claimed", "accepted", "deferred", "refused", "failed", "in-doubt", "suppressed"};

std::string Quote(std::string_view text) { return SqlLiteral(text); }

// Rows written by one statement at most. A write of n rows goes as
// statements of 64, 32, ..., 1 rows (n's binary digits), so each kind of
// write has only seven statement texts, each prepared once per connection.
constexpr size_t kRowsPerStatement = 64;

// A statement written for many rows: `head`, then `row` (one row's
// placeholders, "(?, ?, ...)") once per row, then `tail`. The placeholders
// of the head and the tail take `head_values` and `tail_values`.
struct ManyRows {
  std::string_view head;
  std::string_view row;
  std::string_view tail;
  std::span<const db::BoundValue> head_values = {};
  std::span<const db::BoundValue> tail_values = {};
};

// Runs `statement` for rows 0 .. count-1: `add(i, values)` appends row i's
// values, and `run(sql, values)` runs each statement.
template <class AddFn, class RunFn>
void RunInStatements(size_t count, const ManyRows& statement, AddFn add, RunFn run) {
  std::vector<db::BoundValue> values;
  std::string sql;
  for (size_t from = 0; from < count;) {
    size_t n = kRowsPerStatement;
    while (n > count - from) n /= 2;
    sql.assign(statement.head);
    values.assign(statement.head_values.begin(), statement.head_values.end());
    for (size_t i = from; i < from + n; ++i) {
      if (i > from) sql += ", ";
      sql += statement.row;
      add(i, values);
    }
    sql += statement.tail;
    values.insert(values.end(), statement.tail_values.begin(), statement.tail_values.end());
    run(sql, values);
    from += n;
  }
}

// A text value, or NULL when it is empty.
db::BoundValue TextOrNull(std::string_view text) {
  return text.empty() ? db::BoundValue() : db::BoundValue(text);
}

// Whether the worker "host:pid" is a process of this host that has ended.
bool EndedOnThisHost(const std::string& worker) {
  size_t colon = worker.rfind(':');
  if (colon == std::string::npos) return false;
  char host[256] = {};
  if (gethostname(host, sizeof host - 1) != 0 || worker.substr(0, colon) != host) return false;
  long pid = 0;
  const char* first = worker.data() + colon + 1;
  const char* last = worker.data() + worker.size();
  if (std::from_chars(first, last, pid).ptr != last || pid <= 0) return false;
  return kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

}  // namespace

std::string FieldText(const Recordset& rs, std::string_view field) {
  Variant v = rs.FieldValue(field);
  return v.IsNull() || v.IsEmpty() ? std::string() : v.ToString();
}

std::string QueryText(Connection& connection, const std::string& sql, std::string_view field) {
  Recordset rs;
  rs.Open(sql, std::shared_ptr<Connection>(&connection, [](Connection*) {}), kAdOpenForwardOnly,
          kAdLockReadOnly, kAdCmdText);
  std::string value = rs.Eof() ? std::string() : FieldText(rs, field);
  rs.Close();
  return value;
}

std::string SqlLiteral(std::string_view text) {
  std::string out = "'";
  for (char c : text) {
    out += c;
    if (c == '\'') out += '\'';
  }
  out += '\'';
  return out;
}

const char* LedgerStateName(LedgerState state) { return kStateNames[static_cast<int>(state)]; }

std::optional<LedgerState> ParseLedgerState(std::string_view name) {
  for (int i = 0; i < kLedgerStateCount; ++i) {
    if (name == kStateNames[i]) return static_cast<LedgerState>(i);
  }
  return std::nullopt;
}

std::string LedgerTime(long seconds_from_now) {
  return LedgerTimeAt(std::time(nullptr) + seconds_from_now);
}

std::string LedgerTimeAt(std::time_t t) {
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buffer[32];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &tm);
  return buffer;
}

void CreateLedgerSchema(Connection& connection) {
  connection.Execute(
      "CREATE TABLE IF NOT EXISTS quillo_deliveries ("
      "CampaignRecID VARCHAR(32) NOT NULL, CampaignItemRecID VARCHAR(32) NOT NULL, "
      "Account VARCHAR(32) NOT NULL, Email VARCHAR(255), State VARCHAR(16) NOT NULL, "
      "Attempts INTEGER NOT NULL DEFAULT 0, NextAttempt VARCHAR(19), LastReply VARCHAR(1000), "
      "Worker VARCHAR(300), Updated VARCHAR(19), RunDate VARCHAR(10), "
      "PRIMARY KEY (CampaignRecID, CampaignItemRecID, Account))");
  connection.Execute(
      "CREATE INDEX IF NOT EXISTS quillo_deliveries_state ON quillo_deliveries (State, "
      "CampaignRecID)");
  // RunDate came later; a ledger made before it gets the column.
  try {
    Recordset probe;
    probe.Open("SELECT RunDate FROM quillo_deliveries WHERE 1 = 0",
               std::shared_ptr<Connection>(&connection, [](Connection*) {}), kAdOpenForwardOnly,
               kAdLockReadOnly, kAdCmdText);
    probe.Close();
  } catch (const RuntimeError&) {
    connection.Execute("ALTER TABLE quillo_deliveries ADD COLUMN RunDate VARCHAR(10)");
  }
}

void CreateTableOnce(Connection& connection, const std::string& sql) {
  try {
    connection.Execute(sql);
  } catch (const RuntimeError&) {
    connection.Execute(sql);  // Made at the same moment by another session (PostgreSQL).
  }
}

void CreateSuppressionSchema(Connection& connection) {
  CreateTableOnce(
      connection,
      "CREATE TABLE IF NOT EXISTS quillo_suppressions (Email VARCHAR(255) NOT NULL PRIMARY KEY, "
      "Reason VARCHAR(16) NOT NULL, Detail TEXT, CampaignRecID VARCHAR(32), Added VARCHAR(19))");
}

bool SuppressAddress(Connection& connection, std::string_view email, std::string_view reason,
                     std::string_view detail, std::string_view campaign) {
  CreateSuppressionSchema(connection);
  long added = 0;
  connection.Execute(
      "INSERT INTO quillo_suppressions (Email, Reason, Detail, CampaignRecID, Added) VALUES (" +
          SqlLiteral(mail::MailboxKey(email)) + ", " + SqlLiteral(reason) + ", " +
          SqlLiteral(detail) + ", " + SqlLiteral(campaign) + ", " + SqlLiteral(LedgerTime()) +
          ") ON CONFLICT (Email) DO NOTHING",
      &added);
  return added > 0;
}

Ledger::Ledger(std::shared_ptr<Connection> connection, std::string worker)
    : connection_(std::move(connection)), worker_(std::move(worker)) {
  sqlite_ = connection_->EngineName() == "sqlite";
}

std::string Ledger::ThisWorker() {
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  return std::string(host) + ":" + std::to_string(getpid());
}

long Ledger::MarkAbandonedClaims(long lease_seconds) {
  std::vector<std::string> workers;
  {
    Recordset rs;
    rs.Open("SELECT DISTINCT Worker FROM quillo_deliveries WHERE State = 'claimed'", connection_,
            kAdOpenForwardOnly, kAdLockReadOnly, kAdCmdText);
    for (; !rs.Eof(); rs.MoveNext()) workers.push_back(FieldText(rs, "Worker"));
    rs.Close();
  }
  long changed = 0;
  for (const std::string& worker : workers) {
    if (worker == worker_) continue;
    std::string sql =
        "UPDATE quillo_deliveries SET State = 'in-doubt', Updated = " + Quote(LedgerTime()) +
        " WHERE State = 'claimed' AND Worker = " + Quote(worker);
    if (!EndedOnThisHost(worker)) sql += " AND Updated < " + Quote(LedgerTime(-lease_seconds));
    long affected = 0;
    connection_->Execute(sql, &affected);
    changed += affected;
  }
  return changed;
}

std::vector<ClaimResult> Ledger::Claim(std::span<const MessageKey> keys, bool resend_in_doubt) {
  if (keys.empty()) return {};
  Begin();
  try {
    std::vector<ClaimResult> results = ClaimInTransaction(keys, resend_in_doubt);
    Commit();
    return results;
  } catch (...) {
    Rollback();
    throw;
  }
}

std::vector<ClaimResult> Ledger::ClaimInTransaction(std::span<const MessageKey> keys,
                                                    bool resend_in_doubt) {
  std::vector<ClaimResult> results(keys.size(), ClaimResult::kBusy);
  if (keys.empty()) return results;
  const std::string now = LedgerTime();
  using Key = std::tuple<std::string, std::string, std::string>;
  auto key_of = [](const MessageKey& k) { return Key(k.campaign_id, k.item_id, k.client); };
  // Runs a statement whose rows begin with a key, into `found` (the keys) or
  // `states` (key to its fourth column).
  auto collect = [this](std::set<Key>* found, std::map<Key, std::string>* states) {
    return [this, found, states](const std::string& sql, std::span<const db::BoundValue> values) {
      db::TextRows rows;
      connection_->Backend().Run(sql, values, &rows);
      for (auto& row : rows) {
        Key key(std::move(row[0]), std::move(row[1]), std::move(row[2]));
        if (states) (*states)[key] = row[3];
        if (found) found->insert(std::move(key));
      }
    };
  };
  // New messages first, many rows to a statement: the rows it made come
  // back (RETURNING), and those keys are claimed. A key given twice is
  // made once.
  std::set<Key> made;
  RunInStatements(
      keys.size(),
      {"INSERT INTO quillo_deliveries (CampaignRecID, CampaignItemRecID, Account, Email, State, "
       "Attempts, Worker, Updated, RunDate) VALUES ",
       "(?, ?, ?, ?, 'claimed', 0, ?, ?, ?)",
       " ON CONFLICT DO NOTHING RETURNING CampaignRecID, CampaignItemRecID, Account"},
      [&](size_t i, std::vector<db::BoundValue>& values) {
        const MessageKey& key = keys[i];
        values.insert(values.end(), {key.campaign_id, key.item_id, key.client, key.email, worker_,
                                     now, TextOrNull(key.run_date)});
      },
      collect(&made, nullptr));
  // The rest were there already: the free ones (due again) are claimed in
  // bulk, and the others say why not, many keys to a statement.
  // Marks the keys at `which` that `found` holds claimed, each once (a key
  // given twice is claimed once), and returns the others.
  auto claim_found = [&](std::set<Key>& found, const std::vector<size_t>& which) {
    std::vector<size_t> others;
    for (size_t i : which) {
      if (found.erase(key_of(keys[i])) > 0) {
        results[i] = ClaimResult::kClaimed;
      } else {
        others.push_back(i);
      }
    }
    return others;
  };
  std::vector<size_t> all(keys.size());
  for (size_t i = 0; i < all.size(); ++i) all[i] = i;
  const std::vector<size_t> rest = claim_found(made, all);
  if (rest.empty()) return results;
  // The keys as a table (VALUES, columns column1 to column3) joined to the
  // ledger, so that each is found through the primary key.
  constexpr std::string_view kKeyRow = "(?, ?, ?)";
  auto add_key = [&keys](const std::vector<size_t>& which) {
    return [&keys, &which](size_t i, std::vector<db::BoundValue>& values) {
      const MessageKey& key = keys[which[i]];
      values.insert(values.end(), {key.campaign_id, key.item_id, key.client});
    };
  };
  constexpr std::string_view kSameKey =
      "q.CampaignRecID = k.column1 AND q.CampaignItemRecID = k.column2 AND q.Account = k.column3";
  std::string due = ") AS k WHERE " + std::string(kSameKey) +
                    " AND q.State IN ('deferred', 'failed', 'suppressed'";
  if (resend_in_doubt) due += ", 'in-doubt'";
  due +=
      ") AND (q.NextAttempt IS NULL OR q.NextAttempt <= ?) RETURNING CampaignRecID, "
      "CampaignItemRecID, Account";
  const db::BoundValue set_values[] = {worker_, now};
  const db::BoundValue due_values[] = {now};
  std::set<Key> updated;
  RunInStatements(rest.size(),
                  {"UPDATE quillo_deliveries AS q SET State = 'claimed', Worker = ?, Updated = ? "
                   "FROM (VALUES ",
                   kKeyRow, due, set_values, due_values},
                  add_key(rest), collect(&updated, nullptr));
  const std::vector<size_t> taken = claim_found(updated, rest);
  std::map<Key, std::string> states;
  const std::string join = ") AS k JOIN quillo_deliveries AS q ON " + std::string(kSameKey);
  RunInStatements(taken.size(),
                  {"SELECT q.CampaignRecID, q.CampaignItemRecID, q.Account, q.State FROM (VALUES ",
                   kKeyRow, join},
                  add_key(taken), collect(nullptr, &states));
  for (size_t i : taken) {
    const std::string& state = states[key_of(keys[i])];
    if (state == "accepted") results[i] = ClaimResult::kAccepted;
    if (state == "in-doubt") results[i] = ClaimResult::kInDoubt;
    if (state == "refused") results[i] = ClaimResult::kRefused;
  }
  return results;
}

// On SQLite, BEGIN and COMMIT go as statements prepared once: a sender
// runs them for every group it records.
void Ledger::Begin() {
  if (sqlite_) {
    connection_->Backend().Run("BEGIN IMMEDIATE", {});
  } else {
    connection_->Execute("BEGIN");
  }
}

void Ledger::Commit() {
  if (sqlite_) {
    connection_->Backend().Run("COMMIT", {});
  } else {
    connection_->Execute("COMMIT");
  }
}

void Ledger::Rollback() {
  try {
    connection_->Execute("ROLLBACK");
  } catch (const RuntimeError&) {
    // No transaction was open (BEGIN itself failed); nothing to undo.
  }
}

void Ledger::Record(const MessageKey& key, LedgerState state, std::string_view reply,
                    std::string_view next_attempt) {
  const LedgerOutcome outcome{key, state, std::string(reply), std::string(next_attempt)};
  RecordAll({&outcome, 1});
}

void Ledger::RecordAll(std::span<const LedgerOutcome> outcomes) {
  // Many rows to a statement: each row's new state goes onto the row this
  // worker holds (a row another worker holds now is left alone).
  const std::string now = LedgerTime();
  RunInStatements(
      outcomes.size(),
      {"INSERT INTO quillo_deliveries (CampaignRecID, CampaignItemRecID, Account, Email, State, "
       "Attempts, LastReply, NextAttempt, Worker, Updated, RunDate) VALUES ",
       "(?, ?, ?, ?, ?, 1, ?, ?, ?, ?, ?)",
       " ON CONFLICT (CampaignRecID, CampaignItemRecID, Account) DO UPDATE SET State = "
       "excluded.State, Attempts = quillo_deliveries.Attempts + 1, LastReply = "
       "excluded.LastReply, NextAttempt = excluded.NextAttempt, Updated = excluded.Updated "
       "WHERE quillo_deliveries.Worker = excluded.Worker"},
      [&](size_t i, std::vector<db::BoundValue>& values) {
        const LedgerOutcome& o = outcomes[i];
        values.insert(values.end(),
                      {o.key.campaign_id, o.key.item_id, o.key.client, o.key.email,
                       LedgerStateName(o.state), std::string_view(o.reply).substr(0, 1000),
                       TextOrNull(o.next_attempt), worker_, now, TextOrNull(o.key.run_date)});
      },
      [&](const std::string& sql, std::span<const db::BoundValue> values) {
        connection_->Backend().Run(sql, values);
      });
}

std::vector<LedgerRow> Ledger::Rows(LedgerState state, const std::string& campaign_id) const {
  std::string sql =
      "SELECT * FROM quillo_deliveries WHERE State = " + Quote(LedgerStateName(state));
  if (!campaign_id.empty()) sql += " AND CampaignRecID = " + Quote(campaign_id);
  sql += " ORDER BY Updated, Email";
  std::vector<LedgerRow> rows;
  Recordset rs;
  rs.Open(sql, connection_, kAdOpenForwardOnly, kAdLockReadOnly, kAdCmdText);
  for (; !rs.Eof(); rs.MoveNext()) {
    LedgerRow row;
    row.key = {FieldText(rs, "CampaignRecID"), FieldText(rs, "CampaignItemRecID"),
               FieldText(rs, "Account"), FieldText(rs, "Email"), FieldText(rs, "RunDate")};
    row.state = state;
    row.attempts = rs.FieldValue("Attempts").ToLong();
    row.next_attempt = FieldText(rs, "NextAttempt");
    row.last_reply = FieldText(rs, "LastReply");
    row.worker = FieldText(rs, "Worker");
    row.updated = FieldText(rs, "Updated");
    rows.push_back(std::move(row));
  }
  rs.Close();
  return rows;
}

std::vector<long> Ledger::Counts(const std::string& campaign_id) const {
  std::vector<long> counts(kLedgerStateCount, 0);
  std::string sql = "SELECT State, COUNT(*) AS N FROM quillo_deliveries";
  if (!campaign_id.empty()) sql += " WHERE CampaignRecID = " + Quote(campaign_id);
  sql += " GROUP BY State";
  Recordset rs;
  rs.Open(sql, connection_, kAdOpenForwardOnly, kAdLockReadOnly, kAdCmdText);
  for (; !rs.Eof(); rs.MoveNext()) {
    if (auto state = ParseLedgerState(FieldText(rs, "State"))) {
      counts[static_cast<int>(*state)] = rs.FieldValue("N").ToLong();
    }
  }
  rs.Close();
  return counts;
}

}  // namespace quillo::delivery
