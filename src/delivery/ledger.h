// Ledger: the delivery ledger that makes a message go out once, however
// many senders work on the same database.
//
// One row per (campaign, item, client) in the table quillo_deliveries, with
// its state, attempts, next attempt time, last reply and the worker that
// holds it. A sender claims a group of messages in one transaction before it
// sends them (SQLite: BEGIN IMMEDIATE; PostgreSQL: INSERT ... ON CONFLICT DO
// NOTHING and a conditional UPDATE, which the server serialises per row), so
// two senders never hold the same message. Outcomes of a group are written
// in one transaction too, together with the sent-item log, which keeps the
// log cheap per message. A sender that dies between the two leaves at most
// one group "claimed"; the next sender marks those rows "in doubt": the
// server may or may not have accepted them, so they are reported and, unless
// the operator asks for it, not sent again.
//
//   quillo::delivery::Ledger ledger(connection, quillo::delivery::Ledger::ThisWorker());
//   ledger.MarkAbandonedClaims();
//   auto claims = ledger.Claim(keys, /*resend_in_doubt=*/false);
//   ... send the claimed ones ...
//   ledger.Begin();
//   ledger.Record(key, quillo::delivery::LedgerState::kAccepted, "250 2.0.0 Ok");
//   ledger.Commit();
//
// Thread-safety: none; a Ledger uses its connection from one thread.
#ifndef QUILLO_DELIVERY_LEDGER_H_
#define QUILLO_DELIVERY_LEDGER_H_

#include <ctime>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace quillo {

class Connection;
class Recordset;

namespace delivery {

// Where a message stands.
enum class LedgerState { kClaimed, kAccepted, kDeferred, kRefused, kFailed, kInDoubt, kSuppressed };
inline constexpr int kLedgerStateCount = 7;

// "claimed", "accepted", "deferred", "refused", "failed", "in-doubt", "suppressed" (not sent:
// the address is on the suppression list; tried again at the next send).
const char* LedgerStateName(LedgerState state);
std::optional<LedgerState> ParseLedgerState(std::string_view name);

// `text` as an SQL string literal: in single quotes, quotes doubled.
std::string SqlLiteral(std::string_view text);

// Field `field` of the current row as text; "" for Null.
std::string FieldText(const Recordset& rs, std::string_view field);

// Field `field` of the first row `sql` gives, as text; "" when no row.
std::string QueryText(Connection& connection, const std::string& sql, std::string_view field);

// The key of one message: a campaign item for one client.
struct MessageKey {
  std::string campaign_id;  // dmmrktcmp RecID.
  std::string item_id;      // dmmrktcmpitems RecID.
  std::string client;       // dmclients Account.
  std::string email;        // The address, kept for reports.
  std::string run_date;     // "yyyy-mm-dd": the campaign date it was made for (reports).
};

// What Claim found for one key.
enum class ClaimResult {
  kClaimed,   // This worker holds it now and should send it.
  kAccepted,  // Already accepted by a server.
  kBusy,      // Another worker holds it.
  kInDoubt,   // Claimed by a sender that stopped; not sent again unless asked.
  kRefused,   // Refused by a server (5xx): final, never sent again.
};

// The outcome of one attempt, for Ledger::RecordAll.
struct LedgerOutcome {
  MessageKey key;
  LedgerState state;
  std::string reply;
  std::string next_attempt;  // "yyyy-mm-dd hh:nn:ss" UTC, or empty.
};

// One ledger row, for reports.
struct LedgerRow {
  MessageKey key;
  LedgerState state;
  long attempts = 0;
  std::string next_attempt;  // UTC "yyyy-mm-dd hh:nn:ss", empty when none.
  std::string last_reply;
  std::string worker;
  std::string updated;  // UTC "yyyy-mm-dd hh:nn:ss".
};

// Creates quillo_deliveries and its index when missing (SQLite and PostgreSQL).
void CreateLedgerSchema(Connection& connection);

// Runs `sql`, a CREATE TABLE IF NOT EXISTS, once more when it fails: on
// PostgreSQL two sessions creating the same table at once make one fail.
void CreateTableOnce(Connection& connection, const std::string& sql);

// Creates quillo_suppressions, the addresses nothing is sent to, when
// missing: Email (the key, as MailboxKey folds it), Reason ("unsubscribed",
// "bounced", "complained" or "manual"), Detail, CampaignRecID (the campaign
// it came from, or empty) and Added (UTC "yyyy-mm-dd hh:nn:ss").
void CreateSuppressionSchema(Connection& connection);

// Puts `email` on the suppression list (made when missing) for `reason`
// ("unsubscribed", "bounced", "complained" or "manual"). An address already
// on it keeps its first reason. True when it was added now.
bool SuppressAddress(Connection& connection, std::string_view email, std::string_view reason,
                     std::string_view detail, std::string_view campaign);

class Ledger {
 public:
  // `worker` names this sender in the rows it claims ("host:pid").
  Ledger(std::shared_ptr<Connection> connection, std::string worker);

  // "host:pid" of this process.
  static std::string ThisWorker();

  // Marks rows still "claimed" by a worker that is gone as "in doubt": a
  // worker on this host whose process no longer runs, or any worker whose
  // claim is older than `lease_seconds`. Returns how many rows changed.
  long MarkAbandonedClaims(long lease_seconds = 3600);

  // Claims the messages of `keys` that are free, in one transaction: new
  // ones, and ones whose last attempt was deferred or failed, or that were
  // suppressed (and whose next attempt time has come). A refusal is final. In-doubt ones too when
  // `resend_in_doubt`. Returns one result per key, in order. Throws
  // RuntimeError when the database refuses (locked, read-only): then nothing
  // is claimed.
  std::vector<ClaimResult> Claim(std::span<const MessageKey> keys, bool resend_in_doubt);

  // The same inside the transaction the caller has open (Begin): a sender
  // writes one group's outcomes and claims the next group in one commit.
  std::vector<ClaimResult> ClaimInTransaction(std::span<const MessageKey> keys,
                                              bool resend_in_doubt);

  // Opens the transaction that Record and the caller's own writes (the
  // sent-item log) share; Commit ends it.
  void Begin();
  void Commit();
  // Ends the transaction without keeping its writes.
  void Rollback();

  // Records the outcome of an attempt on a message this worker claimed.
  // `next_attempt` ("yyyy-mm-dd hh:nn:ss" UTC) is when it may be tried again.
  void Record(const MessageKey& key, LedgerState state, std::string_view reply,
              std::string_view next_attempt = {});

  // The same for many messages at once, in a few statements.
  void RecordAll(std::span<const LedgerOutcome> outcomes);

  // Rows of `campaign_id` (every campaign when empty) in `state`, oldest first.
  std::vector<LedgerRow> Rows(LedgerState state, const std::string& campaign_id = {}) const;

  // Counts of every state for `campaign_id` (every campaign when empty), in
  // LedgerState order.
  std::vector<long> Counts(const std::string& campaign_id = {}) const;

 private:
  std::shared_ptr<Connection> connection_;
  std::string worker_;
  bool sqlite_ = true;  // SQLite takes the write lock up front; PostgreSQL locks per row.
};

// The current UTC time, `seconds_from_now` ahead, as "yyyy-mm-dd hh:nn:ss".
std::string LedgerTime(long seconds_from_now = 0);

// `t` in the same form.
std::string LedgerTimeAt(std::time_t t);

}  // namespace delivery
}  // namespace quillo

#endif  // QUILLO_DELIVERY_LEDGER_H_
