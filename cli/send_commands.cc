// quillo send / preview: composing queued messages from their templates,
// personalising them for their clients, and delivering them.
//
// By default messages go through our own delivery path (delivery::Mailer):
// standard messages, STARTTLS, dot-stuffing, one reused connection, and a
// structured outcome per message. --compat sends through the library's
// documented classes (dmMessage and ardESMTP) exactly as they behave, which
// is meant for trusted content only: they neither dot-stuff nor encode
// header fields.
#include <spdlog/spdlog.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <regex>
#include <set>
#include <thread>
#include <tuple>

#include "commands.h"
#include "delivery/ledger.h"
#include "delivery/mailer.h"
#include "delivery/report.h"
#include "delivery/unsubscribe.h"
#include "mail/address.h"
#include "mail/dkim.h"
#include "mail/template_draft.h"
#include "manage.h"
#include "platform/event_loop.h"
#include "platform/socket.h"
#include "platform/tcp_socket.h"
#include "platform/tls_socket.h"
#include "progress.h"
#include "records/record.h"
#include "send_engine.h"

namespace quillo::cli {

namespace {

// Where and how to send.
struct SmtpSettings {
  std::string server;
  std::int32_t port = 25;
  bool tls = false;
  bool auth = false;
  std::string user;
  std::string password;
  std::string sender;
  std::string friendly;
  std::string ca_file;
  std::int32_t timeout = 60;
  std::string domain;  // The account's Domain: the name our session gives in EHLO.
};

// How one delivery ended, read from the client's transcript.
enum class Outcome { kAccepted, kRefused, kFailed };

std::string PromptPassword(const std::string& what) {
  if (const char* env = std::getenv("QUILLO_SMTP_PASSWORD")) return env;
  if (!isatty(STDIN_FILENO)) {
    throw CommandError("no password for " + what + ": set QUILLO_SMTP_PASSWORD");
  }
  std::fprintf(stderr, "password for %s: ", what.c_str());
  termios old{};
  tcgetattr(STDIN_FILENO, &old);
  termios quiet = old;
  quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
  std::string password;
  int c;
  while ((c = std::getchar()) != EOF && c != '\n') password += static_cast<char>(c);
  tcsetattr(STDIN_FILENO, TCSANOW, &old);
  std::fprintf(stderr, "\n");
  return password;
}

// smtp://[user@]host[:port] or smtps://...
SmtpSettings ParseSmtpUrl(const std::string& url) {
  static const std::regex kUrl(R"((smtps?)://(?:([^@/]+)@)?([^:/]+)(?::(\d+))?/?)");
  std::smatch m;
  if (!std::regex_match(url, m, kUrl)) {
    throw CommandError("bad --smtp '" + url + "': expected smtp://[user@]host[:port]");
  }
  SmtpSettings s;
  s.tls = m[1] == "smtps";
  s.server = m[3];
  s.port = m[4].matched ? std::stoi(m[4]) : (s.tls ? 465 : 25);
  if (m[2].matched) {
    s.auth = true;
    s.user = m[2];
    s.password = PromptPassword(s.user + "@" + s.server);
  }
  return s;
}

// The enabled dmsmtpaccounts rows with `email` (every row when it is empty),
// each with whether it is the default. CommandError when the account named
// by `email` is disabled.
std::vector<std::pair<SmtpSettings, bool>> ReadAccounts(const Store& store,
                                                        const std::string& email) {
  std::string where = email.empty() ? "" : " WHERE Email = '" + SqlQuote(email) + "'";
  std::vector<std::pair<SmtpSettings, bool>> found;
  const DisabledSet disabled(store);
  store.Query("SELECT * FROM dmsmtpaccounts" + where + ";", [&](const Row& r) {
    if (disabled.AccountDisabled(r.Text("Email"))) {
      if (!email.empty()) {
        throw CommandError("SMTP account '" + email +
                           "' is disabled: `quillo account enable` it, or pick another");
      }
      return;  // A disabled account is never the default or the only one.
    }
    SmtpSettings s;
    s.server = r.Text("MailServer");
    s.port = r.Value("Port").ToLong();
    if (s.port == 0) s.port = 25;
    s.auth = r.Value("UseAuthentication").ToLong() != 0;
    s.user = r.Text("AccountName");
    s.password = r.Text("AccountPassword");
    s.sender = r.Text("Email");
    s.friendly = r.Text("EmailFriendly");
    s.domain = Trim(r.Text("Domain"));
    found.emplace_back(s, r.Value("Default").ToLong() != 0);
  });
  return found;
}

// `account` with its password read from its reference (an environment
// variable or a file) when it authenticates and has one.
SmtpSettings WithPassword(const Store& store, SmtpSettings account) {
  if (account.auth) {
    if (auto password = ReferencedPassword(store, account.sender)) account.password = *password;
  }
  return account;
}

// The account whose address is `email`, or nullopt.
std::optional<SmtpSettings> FindAccount(const Store& store, const std::string& email) {
  auto found = ReadAccounts(store, email);
  if (found.empty()) return std::nullopt;
  return WithPassword(store, found.front().first);
}

// The settings of a dmsmtpaccounts row: the one with `email`, else the
// default one, else the only one.
SmtpSettings AccountSettings(const Store& store, const std::string& email) {
  auto found = ReadAccounts(store, email);
  if (!email.empty() && found.empty()) throw CommandError("no SMTP account '" + email + "'");
  for (const auto& [settings, is_default] : found) {
    if (is_default) return WithPassword(store, settings);
  }
  if (found.size() == 1) return WithPassword(store, found[0].first);
  if (found.empty()) {
    throw CommandError("no SMTP account: add one with `quillo account add` or pass --smtp");
  }
  throw CommandError("several SMTP accounts and none is the default: pass --account");
}

// A fresh client and socket for one message (a client that saw a transport
// failure stays failed, and custom headers stay on a client between sends).
Dispatch NewClient(const SmtpSettings& s) {
  std::shared_ptr<SocketControl> socket;
  if (s.tls) {
    auto tls = std::make_shared<TlsSocketControl>();
    if (!s.ca_file.empty()) tls->CAFile(s.ca_file);
    socket = tls;
  } else {
    socket = std::make_shared<TcpSocketControl>();
  }
  Dispatch client = Dispatch::Create("ardESMTP");
  client.Put("WS", ObjectPtr(socket));
  ForwardEvents(socket, client.object());
  client.Put("MailServer", s.server);
  client.Put("Port", s.port);
  client.Put("UseAuthentication", s.auth);
  client.Put("AccountName", s.user);
  client.Put("AccountPassword", s.password);
  client.Put("Sender", s.sender);
  client.Put("SenderFriendly", s.friendly);
  client.Put("CommandTimeout", s.timeout);
  client.Put("CommandDataTimeout", s.timeout);
  return client;
}

// Reads the outcome from the transcript: the reply to RCPT TO and the reply
// after the message data.
Outcome ReadOutcome(const std::string& transcript, std::string* detail) {
  std::vector<std::string> lines = Split(transcript, "\n");
  std::string rcpt_reply, data_reply;
  for (size_t i = 0; i < lines.size(); ++i) {
    auto next_reply = [&](size_t from) {
      std::string last;
      for (size_t j = from + 1; j < lines.size() && lines[j].rfind("C: ", 0) != 0; ++j) {
        if (lines[j].rfind("S: ", 0) == 0) last = lines[j].substr(3);
      }
      return last;
    };
    if (lines[i].rfind("C: RCPT TO:", 0) == 0) rcpt_reply = next_reply(i);
    if (lines[i].rfind("C: [message of", 0) == 0) data_reply = next_reply(i);
  }
  if (!rcpt_reply.empty() && (rcpt_reply[0] == '4' || rcpt_reply[0] == '5')) {
    *detail = rcpt_reply;
    return Outcome::kRefused;
  }
  if (!data_reply.empty() && data_reply[0] == '2') {
    *detail = data_reply;
    return Outcome::kAccepted;
  }
  if (!data_reply.empty() && (data_reply[0] == '4' || data_reply[0] == '5')) {
    *detail = data_reply;
    return Outcome::kRefused;
  }
  *detail = lines.empty() ? "no dialogue" : Trim(lines.back());
  return Outcome::kFailed;
}

std::string ResolveTemplate(const std::string& name, const std::string& folder) {
  std::filesystem::path p(NativePath(name));
  if (p.is_absolute() || folder.empty()) return p.string();
  return (std::filesystem::path(folder) / p).string();
}

// The (campaign, item, client) keys of `messages` that the sent-item log
// holds already, read in a few statements.
std::set<std::tuple<std::string, std::string, std::string>> AlreadySent(
    const Store& store, const std::vector<const QueuedMessage*>& messages) {
  constexpr size_t kPerStatement = 500;
  std::set<std::tuple<std::string, std::string, std::string>> sent;
  for (size_t from = 0; from < messages.size(); from += kPerStatement) {
    std::string sql =
        "SELECT CampaignRecID, CampaignItemRecID, Account FROM dmsentitems WHERE Account IN (";
    for (size_t i = from; i < std::min(messages.size(), from + kPerStatement); ++i) {
      if (i > from) sql += ", ";
      sql += '\'';
      sql += SqlQuote(messages[i]->account);
      sql += '\'';
    }
    sql += ");";
    store.Query(sql, [&](const Row& r) {
      sent.emplace(Trim(r.Text("CampaignRecID")), Trim(r.Text("CampaignItemRecID")),
                   Trim(r.Text("Account")));
    });
  }
  return sent;
}

std::string SubjectFor(const Store& store, const QueuedMessage& m) {
  Variant d = store.Scalar(
      "SELECT Description FROM dmmrktcmpitems WHERE RecID = '" + SqlQuote(m.item_id) + "';",
      "Description");
  std::string subject = d.IsEmpty() || d.IsNull() ? std::string() : d.ToString();
  return Trim(subject).empty() ? m.campaign_name : subject;
}

// A socket that never connects: the client builds the message, then stops
// at the connection, which is all a preview needs.
class OfflineSocket : public SocketControl {
 public:
  void Connect(const std::string&, int32_t) override {
    state_ = kError;
    RaiseError(kErrConnectionRefused, "preview: not sent", SocketScode(kErrConnectionRefused),
               "quillo preview");
  }
  int16_t State() const override { return state_; }
  void SendData(std::string_view) override {}
  void GetData(std::string& data, int32_t, int32_t) override { data.clear(); }
  void Close() override { state_ = kClosed; }
  long BytesReceived() const override { return 0; }
  int PollDescriptor() const override { return -1; }
  short PollInterest() const override { return 0; }
  bool HasPendingEvent() const override { return false; }
  void Dispatch(short) override {}

 private:
  int16_t state_ = kClosed;
};

// Wall time of the sending loop split by stage: the database lookups before a
// message (already sent? the client, the subject), composing and delivering it
// (template, personalisation, the SMTP session) and logging the accepted ones.
enum class Stage { kNone, kLookup, kDeliver, kLog, kCount };

class StageClock {
 public:
  void Enter(Stage next) {
    auto now = std::chrono::steady_clock::now();
    if (current_ != Stage::kNone) spent_[static_cast<int>(current_)] += now - since_;
    current_ = next;
    since_ = now;
  }
  void Stop() { Enter(Stage::kNone); }
  void Print() const {
    static const char* const kNames[] = {"", "lookups", "compose and deliver", "log sent items"};
    std::chrono::duration<double> total{};
    for (const auto& d : spent_) total += d;
    for (int i = 1; i < static_cast<int>(Stage::kCount); ++i) {
      double seconds = std::chrono::duration<double>(spent_[i]).count();
      std::printf("  %-20s %9.3f s  %5.1f %%\n", kNames[i], seconds,
                  total.count() > 0 ? 100.0 * seconds / total.count() : 0.0);
    }
  }

 private:
  Stage current_ = Stage::kNone;
  std::chrono::steady_clock::time_point since_;
  std::chrono::steady_clock::duration spent_[static_cast<int>(Stage::kCount)]{};
};

// What a send did, message by message.
using Tally = SendTally;

// The sent-item log's row for an accepted message, which is what keeps the
// campaign engine and a second send from repeating it.
Dispatch SentItem(const Store& store, const QueuedMessage& m) {
  Dispatch log = store.NewRecord("dmsentitems");
  log.Put("Account", m.account);
  log.Put("CampaignItemRecID", m.item_id);
  log.Put("CampaignRecID", m.campaign_id);
  log.Put("HistoryRecID", m.history_id);
  log.Put("SentDate", Now());
  return log;
}

[[noreturn]] void Unreachable(const SmtpSettings& s, const std::string& why) {
  throw CommandError("cannot reach SMTP server " + s.server + ":" + std::to_string(s.port) + ": " +
                     why);
}

// The library's documented classes: a fresh dmMessage and ardESMTP per
// message, the outcome read from the client's transcript.
DeliverFunction CompatDeliverer(const Store& store, SmtpSettings settings, const SendOptions& o) {
  if (settings.timeout <= 0) settings.timeout = 60;
  return [&store, settings, &o](const SendJob& job, const SendJob* /*next*/) {
    const QueuedMessage& m = *job.message;
    const Dispatch& client = job.client;
    const std::string& subject = job.subject;
    Attempt a;
    Dispatch smtp = NewClient(settings);
    Dispatch message = Dispatch::Create("dmMessage");
    message.Put("Connection", store.connection_object());
    message.Put("esmtp", smtp.object());
    message.Put("Client", client.object());
    message.Put("Subject", subject);
    message.Put("MessageFileName", ResolveTemplate(m.message_file, o.templates));
    if (message.Get("Error").ToBool()) {
      a.reason = "cannot read template '" + m.message_file + "'";
      return a;
    }
    try {
      message.Call("Send");
    } catch (const RuntimeError& e) {
      a.reason = "error " + std::to_string(e.number) + ": " + e.description;
      return a;
    }
    if (smtp.Get("rc").ToLong() == 999) {
      a.unreachable = true;
      a.reason = smtp.Text("WinsockErrorDescription");
      return a;
    }
    const std::string transcript = smtp.Text("Transcript");
    if (spdlog::should_log(spdlog::level::debug)) {
      for (const auto& line : Split(transcript, "\n"))
        if (!line.empty()) spdlog::debug("smtp {}", line);
    }
    Outcome outcome = ReadOutcome(transcript, &a.reason);
    a.kind = outcome == Outcome::kAccepted  ? smtp::OutcomeKind::kAccepted
             : outcome == Outcome::kRefused ? smtp::OutcomeKind::kRefused
                                            : smtp::OutcomeKind::kFailed;
    a.server_refused = outcome == Outcome::kRefused && a.reason.rfind('5', 0) == 0;
    return a;
  };
}

smtp::TlsMode TlsModeFor(const SmtpSettings& s, const std::string& option) {
  if (s.tls) return smtp::TlsMode::kImplicit;
  if (option == "required") return smtp::TlsMode::kRequired;
  if (option == "opportunistic") return smtp::TlsMode::kOpportunistic;
  if (option == "none") return smtp::TlsMode::kNone;
  throw CommandError("bad --tls '" + option + "': expected required, opportunistic or none");
}

delivery::Account ModernAccount(const Store& store, const SmtpSettings& s, const SendOptions& o) {
  delivery::Account a;
  a.session.host = s.server;
  a.session.port = s.port;
  a.session.tls = TlsModeFor(s, o.tls);
  a.session.ca_file = o.ca_file;
  a.session.helo_name = o.helo.empty() ? s.domain : o.helo;
  if (s.auth) {
    a.session.user = s.user;
    a.session.password = s.password;
  }
  a.session.allow_plaintext_auth = o.allow_plaintext_auth;
  a.session.max_messages_per_connection =
      o.per_connection > 0 ? static_cast<std::size_t>(o.per_connection) : 0;
  if (o.timeout > 0) smtp::OverrideTimeouts(a.session.timeouts, std::chrono::seconds(o.timeout));
  a.from.address = s.sender;
  a.from.name = s.friendly;
  if (!o.dkim_key.empty()) {
    if (o.dkim_selector.empty()) throw CommandError("--dkim-key needs --dkim-selector");
    std::string domain =
        o.dkim_domain.empty() ? std::string(mail::DomainOf(s.sender)) : o.dkim_domain;
    try {
      a.dkim = mail::LoadDkimKey(o.dkim_key, domain, o.dkim_selector);
    } catch (const mail::DkimError& e) {
      throw CommandError(e.what());
    }
  } else {
    a.dkim = StoredDkimKey(store, s.sender);  // The account's own key, else its domain's.
  }
  // -v shows the dialogue; the session masks credentials itself.
  if (spdlog::should_log(spdlog::level::debug))
    a.session.trace = [](std::string_view line) { spdlog::debug("smtp {}", line); };
  return a;
}

// What every connection of our own delivery path shares, worked out once:
// the account (its DKIM key read once), the account lookup for a template's
// MAILACCOUNT line, the token key and the list fields' parts.
struct ModernSetup {
  delivery::Account account;
  delivery::AccountLookup lookup;
  std::string key;     // The database's token key, when links or VERP need it.
  std::string base;    // --unsubscribe-url without a trailing "/".
  std::string domain;  // The sender's domain, for List-Id.
};

// The lookups of the connections share `lookup_lock`: one database connection.
ModernSetup MakeModernSetup(const Store& store, const SmtpSettings& settings, const SendOptions& o,
                            std::shared_ptr<std::mutex> lookup_lock) {
  ModernSetup setup;
  setup.lookup = [&store, &o,
                  lookup_lock](const std::string& email) -> std::optional<delivery::Account> {
    std::lock_guard<std::mutex> lock(*lookup_lock);
    std::optional<SmtpSettings> found = FindAccount(store, email);
    if (!found) return std::nullopt;
    return ModernAccount(store, *found, o);
  };
  setup.account = ModernAccount(store, settings, o);
  if (!o.unsubscribe_url.empty() || !o.verp.empty())
    setup.key = delivery::UnsubscribeKey(*store.database());
  setup.base = o.unsubscribe_url;
  while (!setup.base.empty() && setup.base.back() == '/') setup.base.pop_back();
  setup.domain = std::string(mail::DomainOf(settings.sender));
  return setup;
}

// Our own delivery path on one connection: a Mailer, its sessions reused
// between messages. The connections share `delivered_any`.
DeliverFunction ModernDeliverer(const ModernSetup& setup, const SendOptions& o,
                                std::shared_ptr<delivery::Mailer>& keep,
                                std::shared_ptr<std::atomic<bool>> delivered_any) {
  keep = std::make_shared<delivery::Mailer>(setup.account, setup.lookup);
  auto mailer = keep;
  const std::string key = setup.key, base = setup.base, domain = setup.domain;
  auto prepare = [mailer, &o, key, base, domain](const SendJob& job) {
    const QueuedMessage& m = *job.message;
    auto* record = dynamic_cast<dmclients*>(job.client.object().get());
    delivery::ListHeaders list;
    list.list_id = "\"" + m.campaign_name + "\" <" + LCase(m.campaign_id) + "." +
                   (domain.empty() ? std::string("quillo.invalid") : domain) + ">";
    if (!base.empty()) {
      list.unsubscribe_url = base + delivery::UnsubscribePath(key, m.account, m.campaign_id);
      list.unsubscribe_mailto = o.unsubscribe_mailto;
    }
    if (!o.verp.empty())
      list.return_path = delivery::VerpAddress(key, o.verp, m.account, m.campaign_id);
    return mailer->Prepare(ResolveTemplate(m.message_file, o.templates), *record, job.subject,
                           list);
  };
  // The next message, composed while this one went, so that its commands
  // could go with the end of this one's data.
  struct Ahead {
    const SendJob* job = nullptr;
    delivery::Letter letter;
  };
  auto ahead = std::make_shared<Ahead>();
  return [mailer, delivered_any, prepare, ahead](const SendJob& job, const SendJob* next) {
    delivery::Letter letter =
        ahead->job == &job && ahead->letter.ready ? std::move(ahead->letter) : prepare(job);
    ahead->job = nullptr;
    const delivery::Letter* following = nullptr;
    if (next) {
      ahead->letter = prepare(*next);
      ahead->job = next;
      following = &ahead->letter;
    }
    delivery::Delivery d = mailer->Deliver(letter, following);
    Attempt a;
    a.kind = d.outcome.kind;
    a.reason = d.outcome.reason;
    a.server_refused = d.outcome.kind == smtp::OutcomeKind::kRefused && d.outcome.code >= 500;
    a.transport = d.transport_failed;
    // Before anything got through, a transport failure is the server's, not
    // this message's: stop rather than fail every message the same way.
    a.unreachable = d.transport_failed && !*delivered_any;
    if (!d.transport_failed) *delivered_any = true;
    return a;
  };
}

delivery::LedgerState LedgerStateOf(smtp::OutcomeKind kind) {
  switch (kind) {
    case smtp::OutcomeKind::kAccepted:
      return delivery::LedgerState::kAccepted;
    case smtp::OutcomeKind::kDeferred:
      return delivery::LedgerState::kDeferred;
    case smtp::OutcomeKind::kRefused:
      return delivery::LedgerState::kRefused;
    case smtp::OutcomeKind::kFailed:
      break;
  }
  return delivery::LedgerState::kFailed;
}

// Messages are claimed, sent and recorded in groups of this many per
// connection: a sender killed mid-group leaves at most this many messages
// per connection in doubt.
constexpr size_t kGroupSize = 32;

// The campaign date a queued message was made for, "yyyy-mm-dd", or "" when
// its SendDate field is not a date.
std::string RunDateOf(const QueuedMessage& m) {
  Date d;
  if (!TryParseDate(m.send_date, &d)) return "";
  return FormatDate(d, "yyyy-mm-dd");
}

delivery::MessageKey KeyOf(const QueuedMessage& m) {
  return {m.campaign_id, m.item_id, m.account, m.email, RunDateOf(m)};
}

// A message deferred in this run, waiting for its next attempt.
struct Retry {
  size_t index;  // In the chunk being sent, or (once its chunk is done) in the waiting ones.
  int attempts;  // Made so far in this run.
  std::chrono::steady_clock::time_point due;
};

// Messages read from the queue at a time.
constexpr size_t kChunk = 8192;

// Sends the queue: each connection sends groups of messages, each group
// claimed in the delivery ledger before it is sent; its outcomes are
// written, with the sent-item log of the accepted ones and the claims of the
// connection's next group, in one transaction after it. So two senders on
// one database never send the same message, and a crash leaves at most one
// group per connection in doubt. A message deferred (4xx) or cut off by a
// failing connection is tried again after RetryDelay, within --retry-for of
// the start; a refusal (5xx) is final.
class QueueSender {
 public:
  QueueSender(const Store& store, QueueReader& reader, const SendOptions& o,
              const SmtpSettings& settings, ConnectionPool& pool,
              std::shared_ptr<std::mutex> lookup_lock, Progress& progress, StageClock& clock)
      : store_(store),
        reader_(reader),
        o_(o),
        settings_(settings),
        pool_(pool),
        progress_(progress),
        clock_(clock),
        connection_(store.database()),
        disabled_(store),
        suppressions_(store),
        lookup_lock_(std::move(lookup_lock)) {
    delivery::CreateLedgerSchema(*connection_);
    ledger_ = std::make_unique<delivery::Ledger>(connection_, delivery::Ledger::ThisWorker());
    deadline_ = std::chrono::steady_clock::now() +
                std::chrono::seconds(ParseDuration(o.retry_for, "--retry-for"));
  }

  Tally Send() {
    t_.abandoned = ledger_->MarkAbandonedClaims();
    // The queue is read a chunk at a time, so memory does not grow with it.
    size_t moved = 0;
    for (;;) {
      messages_.clear();
      QueuedMessage m;
      while (messages_.size() < kChunk && reader_.Next(&m)) messages_.push_back(std::move(m));
      if (messages_.empty()) break;
      // In key order, a group's rows sit together in the ledger's and the
      // sent-item log's indexes: its commit writes a few pages of each
      // instead of one page per message.
      std::stable_sort(messages_.begin(), messages_.end(),
                       [](const QueuedMessage& a, const QueuedMessage& b) {
                         return std::tie(a.campaign_id, a.item_id, a.account) <
                                std::tie(b.campaign_id, b.item_id, b.account);
                       });
      std::vector<size_t> all(messages_.size());
      for (size_t i = 0; i < all.size(); ++i) all[i] = i;
      // Senders of one queue each start at a group of their own in the
      // chunk, so that they seldom try to claim the same group: the one that
      // finds a group taken has looked its clients up for nothing.
      const size_t groups = (all.size() + kGroupSize - 1) / kGroupSize;
      std::rotate(all.begin(), all.begin() + (first_group_ % groups) * kGroupSize, all.end());
      SendAll(all, {});
      // What waits for another try keeps its message; the chunk goes. The
      // retries from `moved` on are this chunk's.
      for (size_t i = moved; i < retries_.size(); ++i) {
        waiting_.push_back(messages_[retries_[i].index]);
        retries_[i].index = waiting_.size() - 1;
      }
      moved = retries_.size();
    }
    messages_ = std::move(waiting_);
    while (!retries_.empty()) {
      auto due =
          std::min_element(retries_.begin(), retries_.end(), [](const Retry& a, const Retry& b) {
            return a.due < b.due;
          })->due;
      std::this_thread::sleep_until(due);
      std::vector<size_t> now;
      std::map<size_t, int> attempts;
      std::vector<Retry> later;
      for (const Retry& r : retries_) {
        if (r.due <= std::chrono::steady_clock::now()) {
          now.push_back(r.index);
          attempts[r.index] = r.attempts;
        } else {
          later.push_back(r);
        }
      }
      retries_ = std::move(later);
      SendAll(now, attempts);
    }
    return t_;
  }

 private:
  // One group of messages on its way.
  struct Group {
    std::vector<size_t> indexes;  // In the queue: the ones not skipped before claiming.
    std::vector<delivery::MessageKey> keys;
    std::vector<SendJob> jobs;  // One per index, client and subject looked up.
    std::vector<bool> claimed;
    std::vector<SendJob*> to_send;
  };

  // Sends the messages at `indexes`, in groups; `attempts` holds the tries
  // made so far in this run of those deferred before. Each connection sends
  // a group of its own. When one ends (a quarter of them, with many), its
  // outcomes are written and its next group claimed in one transaction (with
  // those of every other connection that ended meanwhile), while the others
  // go on sending: so a crash leaves at most one group per connection in
  // doubt. Between transactions this thread looks up the groups to come
  // (clients, subjects).
  void SendAll(const std::vector<size_t>& indexes, const std::map<size_t, int>& attempts) {
    const size_t connections = pool_.size();
    std::vector<Group> sending(connections);  // Each connection's group.
    std::deque<Group> ready;                  // Looked up, not yet claimed.
    size_t start = 0;
    auto look_up = [&] {
      while (ready.size() < connections && start < indexes.size()) {
        const size_t to = std::min(indexes.size(), start + kGroupSize);
        ready.push_back(Prepare(indexes, start, to, attempts));
        start = to;
      }
    };
    // A commit waits until a quarter of the connections (at least one) have
    // ended their groups. With eight, two groups share each commit's fixed
    // cost (its flush, and the pages every commit rewrites) while six go on
    // sending; with four or fewer, waiting would idle too many of them.
    const size_t commit_after = std::max<size_t>(1, connections / 4);
    std::vector<bool> running(connections, false);
    auto any_running = [&] {
      return std::find(running.begin(), running.end(), true) != running.end();
    };
    std::vector<size_t> idle(connections);
    for (size_t c = 0; c < connections; ++c) idle[c] = c;
    look_up();
    try {
      for (;;) {
        clock_.Enter(Stage::kLog);
        RecordAndClaim(sending, idle, ready, attempts);
        for (size_t c : idle) {
          if (sending[c].indexes.empty()) continue;
          pool_.Start(c, sending[c].to_send);
          running[c] = true;
        }
        if (!any_running() && (stop_now_ || (ready.empty() && start >= indexes.size()))) break;
        look_up();
        clock_.Enter(Stage::kDeliver);
        do {
          for (size_t c : pool_.WaitAny()) running[c] = false;
        } while (any_running() && static_cast<size_t>(std::count(running.begin(), running.end(),
                                                                 false)) < commit_after);
        idle.clear();
        for (size_t c = 0; c < connections; ++c) {
          if (!running[c]) idle.push_back(c);
        }
      }
    } catch (...) {
      // The connections still sending use the groups here: let them end
      // first. Their claims stay, and the next sender reports them in doubt.
      while (any_running()) {
        for (size_t c : pool_.WaitAny()) running[c] = false;
      }
      throw;
    }
    if (stop_now_) {
      progress_.Finish();
      Unreachable(settings_, stop_reason_);
    }
  }

  // The lookups for indexes [from, to) of `indexes`: the ones sent before or
  // disabled are counted and left out; clients and subjects are read.
  Group Prepare(const std::vector<size_t>& indexes, size_t from, size_t to,
                const std::map<size_t, int>& attempts) {
    clock_.Enter(Stage::kLookup);
    // A template's MAILACCOUNT lookup on a connection uses the database too.
    std::lock_guard<std::mutex> lock(*lookup_lock_);
    Group group;
    std::vector<const QueuedMessage*> fresh;
    for (size_t i = from; i < to; ++i) {
      if (attempts.count(indexes[i]) == 0) fresh.push_back(&messages_[indexes[i]]);
    }
    const auto sent = AlreadySent(store_, fresh);
    for (size_t i = from; i < to; ++i) {
      const QueuedMessage& m = messages_[indexes[i]];
      const bool retry = attempts.count(indexes[i]) > 0;
      if (!retry && sent.count({Trim(m.campaign_id), Trim(m.item_id), Trim(m.account)}) > 0) {
        ++t_.skipped;
        Progressed(m);
        continue;
      }
      if (!retry && disabled_.Reason(m)) {
        ++t_.disabled;
        Progressed(m);
        continue;
      }
      group.indexes.push_back(indexes[i]);
      group.keys.push_back(KeyOf(m));
    }
    std::vector<std::string> accounts;
    for (size_t index : group.indexes) {
      if (!suppressions_.Reason(messages_[index].email))
        accounts.push_back(messages_[index].account);
    }
    auto clients = store_.LoadRecords("dmclients", accounts);
    group.jobs.resize(group.indexes.size());
    for (size_t g = 0; g < group.indexes.size(); ++g) {
      const QueuedMessage& m = messages_[group.indexes[g]];
      SendJob& job = group.jobs[g];
      job.message = &m;
      if (suppressions_.Reason(m.email)) continue;
      auto client = clients.find(Trim(m.account));
      if (client == clients.end()) {
        job.attempt.reason = "no dmclients row with key '" + m.account + "'";
        continue;
      }
      job.client = client->second;
      job.subject = Subject(m);
    }
    return group;
  }

  // The item's subject, read once per item.
  const std::string& Subject(const QueuedMessage& m) {
    auto it = subjects_.find(m.item_id);
    if (it == subjects_.end()) it = subjects_.emplace(m.item_id, SubjectFor(store_, m)).first;
    return it->second;
  }

  void Progressed(const QueuedMessage& m) { progress_.Update(++done_, reader_.count(), m.email); }

  // Takes the group's claims and picks what to send.
  void ApplyClaims(Group& group, const std::vector<delivery::ClaimResult>& claims,
                   const std::map<size_t, int>& attempts) {
    group.claimed.assign(group.indexes.size(), false);
    for (size_t g = 0; g < group.indexes.size(); ++g) {
      const QueuedMessage& m = messages_[group.indexes[g]];
      const bool retry = attempts.count(group.indexes[g]) > 0;
      SendJob& job = group.jobs[g];
      switch (claims[g]) {
        case delivery::ClaimResult::kAccepted:
          if (!retry) ++t_.skipped;
          if (!retry) Progressed(m);
          continue;
        case delivery::ClaimResult::kBusy:
          ++t_.busy;
          if (!retry) Progressed(m);
          continue;
        case delivery::ClaimResult::kInDoubt:
          ++t_.in_doubt;
          std::fprintf(stderr, "quillo: %s in doubt: claimed by a sender that stopped\n",
                       m.email.c_str());
          if (!retry) Progressed(m);
          continue;
        case delivery::ClaimResult::kRefused:
          ++t_.refused_before;
          if (!retry) Progressed(m);
          continue;
        case delivery::ClaimResult::kClaimed:
          break;
      }
      group.claimed[g] = true;
      if (auto why = suppressions_.Reason(m.email)) {
        job.attempt.suppressed = true;
        job.attempt.reason = "suppressed: " + *why;
      } else if (stop_) {
        job.attempt.reason = "not attempted: " + stop_reason_;
      } else if (job.attempt.reason.empty()) {
        group.to_send.push_back(&job);
      }
    }
  }

  // In one transaction (one commit): writes the outcomes of the groups the
  // `idle` connections ended, and claims the next group of `ready` for each
  // of them (none once the server is found unreachable). A connection whose
  // new group has nothing to send gets the next one too, so a run of
  // messages sent before costs no extra commits.
  void RecordAndClaim(std::vector<Group>& sending, const std::vector<size_t>& idle,
                      std::deque<Group>& ready, const std::map<size_t, int>& attempts) {
    // A template's MAILACCOUNT lookup on a connection uses the database too.
    std::lock_guard<std::mutex> lock(*lookup_lock_);
    outcomes_.clear();
    sent_items_.clear();
    std::vector<std::vector<delivery::ClaimResult>> claims(sending.size());
    std::vector<std::pair<Group, std::vector<delivery::ClaimResult>>> nothing_to_send;
    ledger_->Begin();
    try {
      for (size_t c : idle) {
        Group& group = sending[c];
        for (size_t g = 0; g < group.claimed.size(); ++g) {
          if (!group.claimed[g]) continue;
          Record(group.indexes[g], group.keys[g], group.jobs[g].attempt, attempts, &stop_now_);
        }
        group = Group();
      }
      ledger_->RecordAll(outcomes_);
      std::vector<quillo::Record*> items;
      for (const Dispatch& item : sent_items_)
        items.push_back(dynamic_cast<quillo::Record*>(item.object().get()));
      quillo::Record::InsertNew(items);
      for (size_t c : idle) {
        while (!stop_now_ && !ready.empty()) {
          Group group = std::move(ready.front());
          ready.pop_front();
          auto results = ledger_->ClaimInTransaction(group.keys, o_.resend_in_doubt);
          if (std::find(results.begin(), results.end(), delivery::ClaimResult::kClaimed) !=
              results.end()) {
            sending[c] = std::move(group);
            claims[c] = std::move(results);
            break;
          }
          nothing_to_send.emplace_back(std::move(group), std::move(results));
        }
      }
      ledger_->Commit();
    } catch (...) {
      ledger_->Rollback();
      throw;
    }
    recorded_ += outcomes_.size();
    RefreshStatistics();
    for (auto& [group, results] : nothing_to_send) ApplyClaims(group, results, attempts);
    for (size_t c : idle) {
      if (!sending[c].indexes.empty()) ApplyClaims(sending[c], claims[c], attempts);
    }
  }

  // PostgreSQL plans a prepared statement once, for its tables as they were
  // then: a ledger and sent-item log that were small then are read whole by
  // every lookup while a send fills them (100,000 messages went at 1,600 a
  // second instead of 16,000). So as this send's outcomes pass 512, 2,048,
  // 8,192 and on (four times as many each time), it brings the statistics
  // of those tables up to date, which also makes every session plan those
  // statements again for the tables as they are now.
  void RefreshStatistics() {
    if (recorded_ < refresh_at_ || connection_->EngineName() != "postgresql") return;
    refresh_at_ = std::max(refresh_at_, recorded_) * 4;
    for (const char* table : {"quillo_deliveries", "dmsentitems"}) {
      try {
        connection_->Execute(std::string("ANALYZE ") + table);
      } catch (const RuntimeError& e) {
        // The send goes on without it, only slower.
        spdlog::debug("ANALYZE {}: {}", table, e.description);
      }
    }
  }

  // Writes one claimed message's outcome (inside the group's transaction).
  void Record(size_t index, const delivery::MessageKey& key, const Attempt& a,
              const std::map<size_t, int>& attempts, bool* stop_now) {
    const QueuedMessage& m = messages_[index];
    const bool retry = attempts.count(index) > 0;
    if (!retry) Progressed(m);
    if (a.suppressed) {
      outcomes_.push_back({key, delivery::LedgerState::kSuppressed, a.reason, {}});
      ++t_.suppressed;
      return;
    }
    if (a.unreachable) {
      // Nothing got through yet: the server is down, not this message.
      stop_ = *stop_now = true;
      if (stop_reason_.empty()) stop_reason_ = a.reason;
    }
    if (a.unreachable || a.reason.rfind("not attempted: ", 0) == 0) {
      outcomes_.push_back({key, delivery::LedgerState::kFailed, a.reason, {}});
      return;
    }
    const bool again = a.kind == smtp::OutcomeKind::kDeferred ||
                       (a.kind == smtp::OutcomeKind::kFailed && a.transport);
    if (again) {
      const int made = (retry ? attempts.at(index) : 0) + 1;
      const auto delay = RetryDelay(made);
      const auto due = std::chrono::steady_clock::now() + delay;
      if (due <= deadline_) {
        const long seconds = static_cast<long>((delay.count() + 999) / 1000);
        outcomes_.push_back(
            {key, delivery::LedgerState::kDeferred, a.reason, delivery::LedgerTime(seconds)});
        retries_.push_back(
            {index, made, std::chrono::steady_clock::now() + std::chrono::seconds(seconds)});
        spdlog::debug("{}: {} {}; again in {} s", m.email, smtp::OutcomeName(a.kind), a.reason,
                      seconds);
        return;
      }
    }
    // Only the server's own refusal is final; ours (bad data) is tried again
    // by the next send, once the data is fixed.
    outcomes_.push_back({key,
                         a.kind == smtp::OutcomeKind::kRefused && !a.server_refused
                             ? delivery::LedgerState::kFailed
                             : LedgerStateOf(a.kind),
                         a.reason,
                         {}});
    switch (a.kind) {
      case smtp::OutcomeKind::kAccepted:
        sent_items_.push_back(SentItem(store_, m));
        ++t_.sent;
        break;
      case smtp::OutcomeKind::kDeferred:
        ++t_.deferred;
        std::fprintf(stderr, "quillo: %s deferred: %s\n", m.email.c_str(), a.reason.c_str());
        break;
      case smtp::OutcomeKind::kRefused:
        ++t_.refused;
        std::fprintf(stderr, "quillo: %s refused: %s\n", m.email.c_str(), a.reason.c_str());
        break;
      case smtp::OutcomeKind::kFailed:
        ++t_.failed;
        std::fprintf(stderr, "quillo: %s failed: %s\n", m.email.c_str(), a.reason.c_str());
        break;
    }
    spdlog::debug("{}: {} {}", m.email, smtp::OutcomeName(a.kind), a.reason);
  }

  const Store& store_;
  QueueReader& reader_;
  std::vector<QueuedMessage> messages_;  // The chunk being sent, then the waiting ones.
  std::vector<QueuedMessage> waiting_;   // Deferred messages of sent chunks.
  const SendOptions& o_;
  const SmtpSettings& settings_;
  ConnectionPool& pool_;
  Progress& progress_;
  StageClock& clock_;
  std::shared_ptr<Connection> connection_;
  std::unique_ptr<delivery::Ledger> ledger_;
  const DisabledSet disabled_;
  const SuppressionSet suppressions_;
  std::chrono::steady_clock::time_point deadline_;
  std::vector<Retry> retries_;
  std::shared_ptr<std::mutex> lookup_lock_;
  std::map<std::string, std::string> subjects_;    // By item.
  std::vector<delivery::LedgerOutcome> outcomes_;  // Written together, in one transaction.
  std::vector<Dispatch> sent_items_;               // Their sent-item log rows.
  bool stop_now_ = false;                          // The server was found unreachable.
  size_t recorded_ = 0;                            // Outcomes written so far.
  size_t refresh_at_ = 512;                        // See RefreshStatistics.
  Tally t_;
  // Where this sender starts in each chunk, in groups (see Send).
  const size_t first_group_ = std::hash<std::string>{}(delivery::Ledger::ThisWorker());
  long done_ = 0;
  bool stop_ = false;
  std::string stop_reason_;
};

// The mailbox a preview or a send without an account comes from.
SmtpSettings SenderOrDefault(const Store& store, const SendOptions& o) {
  SmtpSettings account;
  try {
    account = AccountSettings(store, o.account);
  } catch (const CommandError&) {
  }
  if (!o.from.empty()) {
    account.sender = o.from;
    account.friendly = o.from_name;
  } else if (!o.from_name.empty()) {
    account.friendly = o.from_name;
  }
  if (account.sender.empty()) account.sender = "quillo@localhost";
  return account;
}

}  // namespace

namespace {

// The checks of the sending options, made before anything is run or sent.
}  // namespace

void CheckSendOptions(const SendOptions& o) {
  if (o.compat && !o.dkim_key.empty()) {
    throw CommandError("--dkim-key signs on our own delivery path only, not with --compat");
  }
  if (!o.unsubscribe_url.empty() && o.unsubscribe_url.rfind("https://", 0) != 0 &&
      o.unsubscribe_url.rfind("http://", 0) != 0) {
    throw CommandError("--unsubscribe-url must start with https:// (or http://)");
  }
  if (o.compat && !o.unsubscribe_url.empty()) {
    throw CommandError(
        "--unsubscribe-url adds fields on our own delivery path only, not with "
        "--compat");
  }
  if (!o.verp.empty()) CheckAddress(o.verp);
  if (o.connections < 1 || o.connections > 64) {
    throw CommandError("--connections wants 1 to 64, not " + std::to_string(o.connections));
  }
  if (o.per_connection < 0) throw CommandError("--per-connection wants 0 (no cap) or more");
  ParseRate(o.rate, "--rate");
  ParseRate(o.domain_rate, "--domain-rate");
  ParseDuration(o.retry_for, "--retry-for");
}

namespace {

// Sends the queue in `queue_file` on --connections connections.
SendTally SendFile(const Store& store, const std::string& queue_file, const SendOptions& o) {
  SmtpSettings settings;
  if (o.smtp.empty()) {
    settings = AccountSettings(store, o.account);
    if (!o.from.empty()) settings.sender = o.from;
    if (!o.from_name.empty()) settings.friendly = o.from_name;
  } else {
    settings = ParseSmtpUrl(o.smtp);
    SmtpSettings sender = SenderOrDefault(store, o);
    settings.sender = sender.sender;
    settings.friendly = sender.friendly;
  }
  settings.ca_file = o.ca_file;
  settings.timeout = o.timeout;

  QueueReader reader(queue_file);
  Progress progress(!o.quiet && isatty(STDOUT_FILENO));
  StageClock clock;
  // The documented classes share the store's connection: one at a time.
  const int connections = o.compat ? 1 : o.connections;
  std::vector<std::shared_ptr<delivery::Mailer>> mailers(connections);
  std::vector<DeliverFunction> deliverers;
  auto lookup_lock = std::make_shared<std::mutex>();
  auto delivered_any = std::make_shared<std::atomic<bool>>(false);
  std::optional<ModernSetup> setup;
  if (!o.compat) setup = MakeModernSetup(store, settings, o, lookup_lock);
  for (int i = 0; i < connections; ++i) {
    deliverers.push_back(o.compat ? CompatDeliverer(store, settings, o)
                                  : ModernDeliverer(*setup, o, mailers[i], delivered_any));
  }
  SendTally sent;
  {
    ConnectionPool pool(std::move(deliverers), ParseRate(o.rate, "--rate"),
                        ParseRate(o.domain_rate, "--domain-rate"));
    QueueSender sender(store, reader, o, settings, pool, lookup_lock, progress, clock);
    sent = sender.Send();
  }
  for (auto& mailer : mailers)
    if (mailer) mailer->Close();
  clock.Stop();
  progress.Finish();
  if (o.timings) clock.Print();
  sent.queued = static_cast<std::size_t>(reader.count());
  return sent;
}

}  // namespace

SendTally RunAndSend(const GlobalOptions& g, const SendOptions& o) {
  Store store(g.db);
  CheckSendOptions(o);
  SendTally t;
  std::string queue_file = o.queue;
  if (!o.campaign.empty()) {
    if (queue_file.empty()) queue_file = "~mqueue.txt";
    Date date = o.date.empty() ? Today() : ParseDateOption(o.date);
    std::string campaign = store.FindCampaign(o.campaign);
    if (CampaignDisabled(store, campaign)) {
      t.campaign_disabled = true;
      return t;
    }
    RunSummary run = RunCampaign(store, campaign, date, queue_file, false);
    t.run_id = run.history_id;
    t.clients = run.clients;
    t.made = run.messages;
  } else if (queue_file.empty()) {
    throw CommandError("send needs --queue FILE or --campaign NAME");
  }
  if (!FileExists(queue_file)) throw CommandError("no queue file '" + queue_file + "'");
  if (o.on_queued) o.on_queued(queue_file);
  SendTally sent = SendFile(store, queue_file, o);
  sent.run_id = t.run_id;
  sent.clients = t.clients;
  sent.made = t.made;
  return sent;
}

void CmdSend(const GlobalOptions& g, const SendOptions& o) {
  if (o.worker && (!o.queue.empty() || !o.campaign.empty())) {
    throw CommandError("--worker sends the queues tick keeps: not with --queue or --campaign");
  }
  SendTally t = o.worker ? SendKeptQueues(g, o) : RunAndSend(g, o);
  if (t.campaign_disabled) {
    std::printf("campaign %s is disabled: nothing run or sent\n", o.campaign.c_str());
    return;
  }
  if (!t.run_id.empty()) {
    std::printf("run %s: %d clients, %d messages queued\n", t.run_id.c_str(), t.clients, t.made);
  }
  // A message refused by an earlier send stands refused: it counts here too.
  std::printf("sent %d, refused %d, failed %d, deferred %d, already sent %d (of %zu queued)\n",
              t.sent, t.refused + t.refused_before, t.failed, t.deferred, t.skipped, t.queued);
  if (t.disabled > 0) {
    std::printf("skipped %d messages of disabled campaigns, clients, enrolments or items\n",
                t.disabled);
  }
  if (t.suppressed > 0) {
    std::printf("suppressed %d messages to addresses on the suppression list\n", t.suppressed);
  }
  if (t.refused_before > 0) {
    std::printf("refused before %d (a refusal is final: not sent again)\n", t.refused_before);
  }
  if (t.in_doubt > 0 || t.busy > 0 || t.abandoned > 0) {
    std::printf(
        "in doubt %d (not sent again; --resend-in-doubt sends them), held by another "
        "sender %d\n",
        t.in_doubt, t.busy);
  }
  if (!t.AllDelivered()) {
    throw NotAllDelivered(std::to_string(t.NotDelivered()) + " of " + std::to_string(t.queued) +
                          " messages were not delivered");
  }
}

namespace {

// The raw message the library's documented classes build, stopped at the
// connection.
std::string CompatPreview(const Store& store, const std::string& templ, const Dispatch& client,
                          const std::string& subject) {
  SmtpSettings account = SenderOrDefault(store, SendOptions{});
  auto socket = std::make_shared<OfflineSocket>();
  Dispatch smtp = Dispatch::Create("ardESMTP");
  smtp.Put("WS", ObjectPtr(socket));
  ForwardEvents(socket, smtp.object());
  smtp.Put("MailServer", account.server.empty() ? "localhost" : account.server);
  smtp.Put("Sender", account.sender);
  smtp.Put("SenderFriendly", account.friendly);
  Dispatch message = Dispatch::Create("dmMessage");
  message.Put("Connection", store.connection_object());
  message.Put("esmtp", smtp.object());
  message.Put("Client", client.object());
  message.Put("Subject", subject);
  message.Put("OverrideSendingAccount", false);
  message.Put("MessageFileName", templ);
  if (message.Get("Error").ToBool()) throw CommandError("cannot read template '" + templ + "'");
  message.Call("Send");
  return smtp.Text("MessageBuffer");
}

}  // namespace

void CmdPreview(const GlobalOptions& g, const std::string& templ, const std::string& client_key,
                const std::string& subject, bool compat) {
  Store store(g.db);
  Dispatch client = store.LoadRecord("dmclients", store.FindClient(client_key));
  std::string raw;
  if (compat) {
    raw = CompatPreview(store, templ, client, subject);
  } else {
    SmtpSettings account = SenderOrDefault(store, SendOptions{});
    mail::Mailbox from{account.friendly, account.sender};
    try {
      raw = delivery::Mailer::Compose(templ, *std::dynamic_pointer_cast<dmclients>(client.object()),
                                      subject, from)
                .data;
    } catch (const std::exception& e) {
      throw CommandError(e.what());
    }
  }
  std::fwrite(raw.data(), 1, raw.size(), stdout);
}

}  // namespace quillo::cli

namespace quillo::cli {

void CmdStatus(const GlobalOptions& g, const std::string& campaign) {
  Store store(g.db);
  std::string campaign_id = campaign.empty() ? std::string() : store.FindCampaign(campaign);
  auto connection = store.database();
  delivery::CreateLedgerSchema(*connection);
  delivery::Ledger ledger(connection, delivery::Ledger::ThisWorker());
  std::vector<long> counts = ledger.Counts(campaign_id);
  for (int i = 0; i < static_cast<int>(counts.size()); ++i) {
    std::printf("%-10s %ld\n", delivery::LedgerStateName(static_cast<delivery::LedgerState>(i)),
                counts[static_cast<size_t>(i)]);
  }
  std::vector<delivery::LedgerRow> in_doubt =
      ledger.Rows(delivery::LedgerState::kInDoubt, campaign_id);
  if (!in_doubt.empty()) {
    std::printf(
        "\nin doubt (a sender stopped after claiming them; `send --resend-in-doubt` sends "
        "them again):\n");
    for (const auto& row : in_doubt) {
      std::printf("  %s  item %s  claimed by %s, %s UTC\n", row.key.email.c_str(),
                  row.key.item_id.c_str(), row.worker.c_str(), row.updated.c_str());
    }
  }
}

void CmdReport(const GlobalOptions& g, const ReportOptions& o) {
  Store store(g.db);
  std::string campaign_id = store.FindCampaign(o.campaign);
  if (o.days < 1) throw CommandError("--days wants 1 or more");
  Date last = o.date.empty() ? Today() : ParseDateOption(o.date);
  auto connection = store.database();
  delivery::CampaignReport r = delivery::BuildCampaignReport(
      connection, campaign_id, FormatDate(last, "yyyy-mm-dd"), o.days);
  std::printf("campaign %s: %s to %s (%d days), by the campaign date of each message\n",
              r.campaign_name.c_str(), r.first_day.c_str(), r.last_day.c_str(), o.days);
  const char* names[] = {"QUEUED",   "ACCEPTED",   "DEFERRED",     "REFUSED", "FAILED",
                         "IN-DOUBT", "SUPPRESSED", "UNSUBSCRIBED", "BOUNCED"};
  std::printf("%-10s", "DATE");
  for (const char* n : names) std::printf(" %12s", n);
  std::printf("\n");
  long unsubscribed = 0, bounced = 0;
  for (const auto& d : r.days) {
    long sum = d.unsubscribed + d.bounced;
    for (long c : d.counts) sum += c;
    if (sum == 0) continue;  // Days with nothing are left out.
    std::printf("%-10s", d.day.c_str());
    for (long c : d.counts) std::printf(" %12ld", c);
    std::printf(" %12ld %12ld\n", d.unsubscribed, d.bounced);
    unsubscribed += d.unsubscribed;
    bounced += d.bounced;
  }
  std::printf("%-10s", "total");
  for (long c : r.totals) std::printf(" %12ld", c);
  std::printf(" %12ld %12ld", unsubscribed, bounced);
  std::printf("\n\nenrolled   %ld clients\n", r.enrolled);
  for (const auto& item : r.funnel) {
    std::printf("day %-6ld %ld clients got \"%s\"\n", item.interval, item.clients,
                item.description.c_str());
  }
  if (!o.html.empty()) {
    std::string path = std::filesystem::absolute(o.html).lexically_normal().string();
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << delivery::CampaignReportHtml(r);
    out.close();
    if (!out) throw CommandError("cannot write '" + o.html + "'");
    std::printf("\nHTML report: %s\n", path.c_str());
  }
}

}  // namespace quillo::cli
