// The subcommands of the `quillo` command, one function each.
#ifndef QUILLO_CLI_COMMANDS_H_
#define QUILLO_CLI_COMMANDS_H_

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "mail/dkim.h"
#include "store.h"

namespace quillo::cli {

// Options every subcommand shares.
struct GlobalOptions {
  std::string db = "sqlite:quillo.db";  // Connection text.
  bool verbose = false;                 // Log each step through spdlog.
};

// A date given on the command line as YYYY-MM-DD; CommandError otherwise.
Date ParseDateOption(const std::string& text);

// The date given as YYYY-MM-DD, or today when `text` is empty.
Date DateOrToday(const std::string& text);

// CommandError when `value` holds what a queue file cannot carry in a field
// (a double quote or a line break): such a field would not read back intact.
void CheckQueueField(const char* what, const std::string& value);

// CommandError unless `address` is a mailbox mail can be sent to.
void CheckAddress(const std::string& address);

// CommandError unless `type` is a campaign kind or a schedule code; warns on
// 105, which has no run dates.
void CheckCampaignType(std::int32_t type);

// The absolute path of template `file` after checking that it exists and
// can make a message (with `subject`); CommandError otherwise. Stored
// absolute, a template resolves the same from any folder.
std::string CheckedTemplatePath(const std::string& file, const std::string& subject);

// Prints rows under a header, in columns; "(none)" when there are none.
void PrintTable(const std::vector<std::string>& header,
                const std::vector<std::vector<std::string>>& rows);

// Text form of a date for listings ("yyyy-mm-dd", or "-" for the zero date).
std::string DateText(Date d);

struct CampaignAdd {
  std::string name;
  std::int32_t type = 0;
  std::int32_t interval = 0;
  std::string effective;  // YYYY-MM-DD; default today.
  std::string description;
};
struct ItemAdd {
  std::string campaign;
  std::string file;
  std::int32_t interval = 0;
  std::string description;
};
struct ClientAdd {
  std::string email, first, last, middle, company, address, po, city, state, zip, country;
};
struct EnrolAdd {
  std::string campaign;
  std::string client;
  std::string date;  // YYYY-MM-DD; default today.
};
struct AccountAdd {
  std::string email, server, name, friendly, domain;
  std::string password_env;   // A variable's name: the password is read at send time.
  std::string password_file;  // A file's path: the password is read at send time.
  std::int32_t port = 25;
  bool auth = false;
  bool make_default = false;
};
struct RunOptions {
  std::string campaign;
  std::string date;
  std::string queue;  // Empty: the messages are listed, not queued.
  bool quiet = false;
};
struct SuppressAdd {
  std::string email;
  std::string reason = "manual";  // unsubscribed, bounced, complained or manual.
  std::string campaign;           // The campaign it came from, if any.
  std::string note;
};
struct ReportOptions {
  std::string campaign;
  std::string date;  // The last day, YYYY-MM-DD; default today.
  int days = 30;
  std::string html;  // Also write the HTML report here when not empty.
};
struct TickOptions {
  std::string date;  // YYYY-MM-DD; default today.
  bool dry_run = false;
  int catch_up = 7;  // Days back that missed due dates are run.
};
struct SendOptions {
  std::string queue;
  std::string campaign;  // With date: run first, then send what the run queued.
  std::string date;
  std::string smtp;          // smtp://[user@]host[:port] or smtps://...
  std::string account;       // The dmsmtpaccounts e-mail to send from.
  std::string templates;     // Folder that relative template names are read from.
  std::string ca_file;       // Extra CA certificate trusted for TLS.
  std::int32_t timeout = 0;  // Seconds per reply; 0: the standard SMTP timeouts (60 with --compat).
  std::string tls = "opportunistic";  // required, opportunistic or none (smtps:// is implicit TLS).
  std::string helo;                   // EHLO name; default the host's name or address literal.
  std::string from;                   // Sender address for --smtp servers.
  std::string from_name;              // Its display name.
  bool allow_plaintext_auth = false;  // Allow AUTH without TLS.
  bool resend_in_doubt = false;       // Send again what a stopped sender may have sent.
  bool compat = false;  // Send through the library's documented classes (trusted content only).
  bool quiet = false;
  bool timings = false;            // Print where the time of the sending loop went.
  std::string dkim_key;            // PEM private key: sign every message (DKIM).
  std::string dkim_selector;       // Where its public key is published.
  std::string dkim_domain;         // d=; default the sender address's domain.
  std::string unsubscribe_url;     // Base of the one-click links (where `quillo serve` answers).
  std::string unsubscribe_mailto;  // An address for mailto unsubscribes.
  std::string verp;                // Return path made per message: local+TOKEN@domain.
  int connections = 4;             // SMTP connections at once (1 with --compat).
  std::string rate = "0";          // Messages per second for the account: "50/s", "0": no limit.
  std::string domain_rate = "0";   // The same per recipient domain.
  long per_connection = 0;         // Messages per connection before a new one; 0: no cap.
  std::string retry_for = "4h";    // How long deferred messages are tried again in this run.
  bool worker = false;             // Send the queues tick keeps, until none has work left.
  long wait = 0;                   // --worker: seconds to wait for a first queue.
  // Called with the queue file once the run made it, before anything is sent.
  std::function<void(const std::string& queue_file)> on_queued;
};
struct ServeOptions {
  std::string listen = "127.0.0.1:8080";
  int seconds = 0;  // Stop after this many seconds; 0: run until stopped.
};
// Serves the unsubscribe links and a health check.
void CmdServe(const GlobalOptions& g, const ServeOptions& o);
struct DkimKeygen {
  std::string algorithm = "rsa";  // rsa or ed25519.
  std::string key;                // Where to write the private key (must not exist).
  std::string selector, domain;
};
// Makes a DKIM key pair and prints the DNS record to publish.
void CmdDkimKeygen(const DkimKeygen& k);
struct DkimKeyEntry {
  std::string sender;    // A sending domain, or one account's address.
  std::string domain;    // d=; default the sender's domain.
  std::string selector;  // s=.
  std::string key;       // The PEM private key file.
};
// The signing keys kept in the database (quillo_dkim_keys): send and tick
// sign each account's mail with the key of its address, else of its domain.
void CmdDkimAdd(const GlobalOptions& g, const DkimKeyEntry& e);
void CmdDkimRemove(const GlobalOptions& g, const std::string& sender);
void CmdDkimList(const GlobalOptions& g);
// The key kept for `sender_address` (its own, else its domain's), or nullopt.
std::optional<mail::DkimKey> StoredDkimKey(const Store& store, const std::string& sender_address);

// Exit status of a command that ran to the end but left part of its work
// undone (messages not delivered, rows rejected).
inline constexpr int kExitNotAllDelivered = 3;

// Thrown after the summary is printed when the command ran to the end but
// left part of the work undone (rows rejected by an import); exit status 3.
class PartlyDone : public CommandError {
 public:
  using CommandError::CommandError;
};

// Thrown (after the summary is printed) when some messages were not accepted.
class NotAllDelivered : public PartlyDone {
 public:
  using PartlyDone::PartlyDone;
};

// The version of the tables `init` makes: the library's tables with the
// command's own (secrets, disabled rows, the delivery ledger, the unique
// address index). 1 is a database from before the version was recorded.
inline constexpr int kSchemaVersion = 2;

void CmdInit(const GlobalOptions& g);
// The schema version recorded in the database (quillo_meta), 1 when none is.
int DatabaseSchemaVersion(const Store& store);
// Prints the command's version, the schema it makes and the database's.
void CmdVersion(const GlobalOptions& g);
void CmdCampaignAdd(const GlobalOptions& g, const CampaignAdd& a);
void CmdCampaignList(const GlobalOptions& g);
void CmdItemAdd(const GlobalOptions& g, const ItemAdd& a);
void CmdItemList(const GlobalOptions& g, const std::string& campaign);
void CmdClientAdd(const GlobalOptions& g, const ClientAdd& a);
void CmdClientList(const GlobalOptions& g);
void CmdClientImport(const GlobalOptions& g, const std::string& csv_file);
void CmdEnrolAdd(const GlobalOptions& g, const EnrolAdd& a);
void CmdEnrolList(const GlobalOptions& g, const std::string& campaign);
void CmdEnrolImport(const GlobalOptions& g, const std::string& campaign, const std::string& csv);
void CmdAccountAdd(const GlobalOptions& g, const AccountAdd& a);
void CmdAccountList(const GlobalOptions& g);
// Creates quillo_account_secrets, where an account's password reference
// (an environment variable's name or a file's path) is kept, when missing.
void CreatePasswordReferenceTable(const Store& store);

// The password of account `email` read from its reference, or nullopt when
// it has none. CommandError when the variable is unset or the file unreadable.
std::optional<std::string> ReferencedPassword(const Store& store, const std::string& email);

// Makes the account `email` the only default one.
void CmdAccountDefault(const GlobalOptions& g, const std::string& email);
void CmdRun(const GlobalOptions& g, const RunOptions& r);
// The suppression list (quillo_suppressions), read once.
class SuppressionSet {
 public:
  explicit SuppressionSet(const Store& store);
  // Why `email` gets nothing ("unsubscribed", ...), or nullopt.
  std::optional<std::string> Reason(const std::string& email) const;

 private:
  std::map<std::string, std::string> reasons_;  // By MailboxKey.
};

// quillo suppress add|remove|list.
void CmdSuppressAdd(const GlobalOptions& g, const SuppressAdd& a);
void CmdSuppressRemove(const GlobalOptions& g, const std::string& email);
void CmdSuppressList(const GlobalOptions& g);
// Reads returned mail (Maildir, mbox, a folder or one file) into the
// bounce log and the suppression list.
void CmdBouncesImport(const GlobalOptions& g, const std::string& path);
// Prints what each message at `path` reports, recording nothing.
void CmdBouncesShow(const std::string& path);

// What one send did.
struct SendTally {
  std::string run_id;  // The run made first (send --campaign), or "".
  int clients = 0;     // The run's clients and messages.
  int made = 0;
  std::size_t queued = 0;  // Messages in the queue sent.
  int sent = 0, deferred = 0, refused = 0, failed = 0, skipped = 0;
  int in_doubt = 0;                // Claimed by a sender that stopped; not sent again unless asked.
  int busy = 0;                    // Held by another sender working now.
  int refused_before = 0;          // Refused (5xx) by an earlier send: final, not sent again.
  int disabled = 0;                // For a disabled campaign, client, enrolment or item: skipped.
  int suppressed = 0;              // To an address on the suppression list: not sent.
  long abandoned = 0;              // Claims of stopped senders found at the start.
  bool campaign_disabled = false;  // The campaign to run is disabled: nothing was done.
  int NotDelivered() const { return refused + failed + deferred + in_doubt; }
  bool AllDelivered() const { return NotDelivered() == 0; }
};

// Runs the campaign first when `s.campaign` is set, then sends the queue,
// printing nothing (but the progress bar and --timings).
SendTally RunAndSend(const GlobalOptions& g, const SendOptions& s);
// Throws CommandError for sending options that cannot work (a bad rate or
// duration, --compat with DKIM, ...): checked before anything is run, claimed
// or sent.
void CheckSendOptions(const SendOptions& o);
void CmdSend(const GlobalOptions& g, const SendOptions& s);
// send --worker: sends the queues tick keeps in the database
// (quillo_tick_queues) until none has anything left to claim, waiting up to
// `s.wait` seconds for a first one.
SendTally SendKeptQueues(const GlobalOptions& g, const SendOptions& s);
// One thing a tick did or found, about one campaign (and one date).
struct TickEvent {
  enum class Level { kInfo, kWarning, kError };
  Level level = Level::kInfo;
  std::string campaign;            // Its name.
  std::string date;                // "yyyy-mm-dd"; "" when about the campaign as a whole.
  std::string status;              // "done", "not delivered", "failed", "would run", "skipped",
                                   // "nothing due" or "missed".
  std::string detail;              // What happened, in words (the log line after the campaign).
  bool kept_queue = false;         // About a queue an earlier tick kept.
  std::optional<SendTally> tally;  // The send's counts ("done", "not delivered").
  int messages = -1;               // For "would run": the messages the run would make.
};

// What a tick did: its events in order, the campaign dates it ran, how many
// of those were not all delivered, and the problems (missed dates, campaigns
// without run dates).
struct TickResult {
  std::vector<TickEvent> events;
  int runs = 0;
  int not_delivered = 0;
  int problems = 0;
};

// Runs and sends, once per date, every enabled campaign that is due on the
// tick's date or was due since its last run (within the catch-up window),
// sending as `send` says; first it sends again the queues earlier ticks kept.
// Calls `on_event` as each event happens. Prints nothing. CommandError for
// bad options or a database it cannot use.
TickResult Tick(const GlobalOptions& g, const TickOptions& t, const SendOptions& send,
                const std::function<void(const TickEvent&)>& on_event = {});
// The log line of an event: campaign="NAME" [date=D] [(kept queue)] DETAIL.
std::string TickLine(const TickEvent& e);
// Tick, logging one line per event; PartlyDone when messages were not all
// delivered, CommandError when there were problems.
void CmdTick(const GlobalOptions& g, const TickOptions& t, const SendOptions& send);
// Creates, when missing, quillo_tick_claims, where a tick claims a
// campaign's date, and quillo_tick_queues, where it keeps a queue that did
// not go out in full for the next tick.
void CreateTickClaimTable(const Store& store);
// A campaign's messages by day and outcome, and how far its clients got;
// with --html also as one self-contained HTML file with SVG charts.
void CmdReport(const GlobalOptions& g, const ReportOptions& o);
// Counts of the delivery ledger by state, and the messages in doubt.
void CmdStatus(const GlobalOptions& g, const std::string& campaign);
// Whether the campaign keyed `campaign_id` is disabled (its Disabled column).
bool CampaignDisabled(const Store& store, const std::string& campaign_id);

// Lists every campaign kind and schedule code with its text.
void CmdCodes();
void CmdSchedule(const GlobalOptions& g, const std::string& campaign, const std::string& date);
void CmdQueueCount(const std::string& file);
void CmdQueueShow(const std::string& file);
// Prints a row as XML; secret columns (an account's password) are masked
// unless `with_secrets`.
void CmdRecordExport(const GlobalOptions& g, const std::string& table, const std::string& key,
                     bool with_secrets);
void CmdRecordImport(const GlobalOptions& g, const std::string& table, const std::string& file);
void CmdPreview(const GlobalOptions& g, const std::string& templ, const std::string& client,
                const std::string& subject, bool compat);

// What one campaign run produced.
struct RunSummary {
  std::string history_id;     // The run's dmmrktcmphistory key.
  std::int32_t clients = 0;   // Enrolments the run considered.
  std::int32_t messages = 0;  // Messages it produced.
  std::string queue_path;     // Where they were queued (empty when not queued).
};

// Runs campaign `campaign_id` for `date` through dmCampaignProcessor, queueing
// to `queue_path` when it is not empty.
RunSummary RunCampaign(const Store& store, const std::string& campaign_id, Date date,
                       const std::string& queue_path, bool show_progress);

// One record of a queue file.
struct QueuedMessage {
  std::string email, message_file, account, item_id, campaign_name, campaign_id, history_id,
      campaign_type, send_date;
};

// Every message of the queue file at `file`, in order.
std::vector<QueuedMessage> ReadQueue(const std::string& file);
// Reads a queue file one message at a time, after checking every record.
class QueueReader {
 public:
  explicit QueueReader(const std::string& file);  // Throws CommandError.
  ~QueueReader();
  QueueReader(const QueueReader&) = delete;
  QueueReader& operator=(const QueueReader&) = delete;
  long count() const { return count_; }  // Messages in the file.
  bool Next(QueuedMessage* message);     // False at the end.

 private:
  long count_;
  Dispatch queue_;
};

}  // namespace quillo::cli

#endif  // QUILLO_CLI_COMMANDS_H_
