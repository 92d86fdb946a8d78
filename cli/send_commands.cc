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

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <regex>

#include "commands.h"
#include "delivery/mailer.h"
#include "mail/template_draft.h"
#include "platform/event_loop.h"
#include "platform/socket.h"
#include "platform/tcp_socket.h"
#include "platform/tls_socket.h"
#include "progress.h"

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

// The dmsmtpaccounts rows with `email` (every row when it is empty), each
// with whether it is the default.
std::vector<std::pair<SmtpSettings, bool>> ReadAccounts(const Store& store,
                                                        const std::string& email) {
  std::string where = email.empty() ? "" : " WHERE Email = '" + SqlQuote(email) + "'";
  std::vector<std::pair<SmtpSettings, bool>> found;
  store.Query("SELECT * FROM dmsmtpaccounts" + where + ";", [&](const Row& r) {
    SmtpSettings s;
    s.server = r.Text("MailServer");
    s.port = r.Value("Port").ToLong();
    if (s.port == 0) s.port = 25;
    s.auth = r.Value("UseAuthentication").ToLong() != 0;
    s.user = r.Text("AccountName");
    s.password = r.Text("AccountPassword");
    s.sender = r.Text("Email");
    s.friendly = r.Text("EmailFriendly");
    found.emplace_back(s, r.Value("Default").ToLong() != 0);
  });
  return found;
}

// The account whose address is `email`, or nullopt.
std::optional<SmtpSettings> FindAccount(const Store& store, const std::string& email) {
  auto found = ReadAccounts(store, email);
  if (found.empty()) return std::nullopt;
  return found.front().first;
}

// The settings of a dmsmtpaccounts row: the one with `email`, else the
// default one, else the only one.
SmtpSettings AccountSettings(const Store& store, const std::string& email) {
  auto found = ReadAccounts(store, email);
  if (!email.empty() && found.empty()) throw CommandError("no SMTP account '" + email + "'");
  for (const auto& [settings, is_default] : found) {
    if (is_default) return settings;
  }
  if (found.size() == 1) return found[0].first;
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

bool AlreadySent(const Store& store, const QueuedMessage& m) {
  return !store
              .Scalar("SELECT RecID FROM dmsentitems WHERE CampaignRecID = '" +
                          SqlQuote(m.campaign_id) + "' AND CampaignItemRecID = '" +
                          SqlQuote(m.item_id) + "' AND Account = '" + SqlQuote(m.account) + "';",
                      "RecID")
              .IsEmpty();
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

}  // namespace
// What a send did, message by message.
struct Tally {
  int sent = 0, deferred = 0, refused = 0, failed = 0, skipped = 0;
  bool AllDelivered() const { return deferred == 0 && refused == 0 && failed == 0; }
};

// Records an accepted message in the sent-item log, which is what keeps the
// campaign engine and a second send from repeating it.
void LogSent(const Store& store, const QueuedMessage& m) {
  Dispatch log = store.NewRecord("dmsentitems");
  log.Put("Account", m.account);
  log.Put("CampaignItemRecID", m.item_id);
  log.Put("CampaignRecID", m.campaign_id);
  log.Put("HistoryRecID", m.history_id);
  log.Put("SentDate", Now());
  Store::Save(log, "the sent-item log");
}

[[noreturn]] void Unreachable(const SmtpSettings& s, const std::string& why) {
  throw CommandError("cannot reach SMTP server " + s.server + ":" + std::to_string(s.port) + ": " +
                     why);
}

// The library's documented classes: a fresh dmMessage and ardESMTP per
// message, the outcome read from the client's transcript.
Tally SendCompat(const Store& store, SmtpSettings settings,
                 const std::vector<QueuedMessage>& messages, const SendOptions& o,
                 Progress& progress, StageClock& clock) {
  if (settings.timeout <= 0) settings.timeout = 60;
  Tally t;
  long done = 0;
  for (const QueuedMessage& m : messages) {
    progress.Update(++done, static_cast<long>(messages.size()), m.email);
    clock.Enter(Stage::kLookup);
    if (AlreadySent(store, m)) {
      ++t.skipped;
      continue;
    }
    Dispatch client;
    try {
      client = store.LoadRecord("dmclients", m.account);
    } catch (const CommandError& e) {
      ++t.failed;
      std::fprintf(stderr, "quillo: %s: %s\n", m.email.c_str(), e.what());
      continue;
    }
    std::string subject = SubjectFor(store, m);
    clock.Enter(Stage::kDeliver);
    Dispatch smtp = NewClient(settings);
    Dispatch message = Dispatch::Create("dmMessage");
    message.Put("Connection", store.connection_object());
    message.Put("esmtp", smtp.object());
    message.Put("Client", client.object());
    message.Put("Subject", subject);
    message.Put("MessageFileName", ResolveTemplate(m.message_file, o.templates));
    if (message.Get("Error").ToBool()) {
      ++t.failed;
      std::fprintf(stderr, "quillo: %s: cannot read template '%s'\n", m.email.c_str(),
                   m.message_file.c_str());
      continue;
    }
    try {
      message.Call("Send");
    } catch (const RuntimeError& e) {
      ++t.failed;
      std::fprintf(stderr, "quillo: %s: error %ld: %s\n", m.email.c_str(), e.number,
                   e.description.c_str());
      continue;
    }
    if (smtp.Get("rc").ToLong() == 999) {
      progress.Finish();
      Unreachable(settings, smtp.Text("WinsockErrorDescription"));
    }
    std::string detail;
    Outcome outcome = ReadOutcome(smtp.Text("Transcript"), &detail);
    spdlog::debug("{}: {}", m.email, detail);
    if (outcome == Outcome::kAccepted) {
      clock.Enter(Stage::kLog);
      LogSent(store, m);
      ++t.sent;
    } else if (outcome == Outcome::kRefused) {
      ++t.refused;
      std::fprintf(stderr, "quillo: %s refused: %s\n", m.email.c_str(), detail.c_str());
    } else {
      ++t.failed;
      std::fprintf(stderr, "quillo: %s failed: %s\n", m.email.c_str(), detail.c_str());
    }
  }
  return t;
}

smtp::TlsMode TlsModeFor(const SmtpSettings& s, const std::string& option) {
  if (s.tls) return smtp::TlsMode::kImplicit;
  if (option == "required") return smtp::TlsMode::kRequired;
  if (option == "opportunistic") return smtp::TlsMode::kOpportunistic;
  if (option == "none") return smtp::TlsMode::kNone;
  throw CommandError("bad --tls '" + option + "': expected required, opportunistic or none");
}

delivery::Account ModernAccount(const SmtpSettings& s, const SendOptions& o) {
  delivery::Account a;
  a.session.host = s.server;
  a.session.port = s.port;
  a.session.tls = TlsModeFor(s, o.tls);
  a.session.ca_file = o.ca_file;
  a.session.helo_name = o.helo;
  if (s.auth) {
    a.session.user = s.user;
    a.session.password = s.password;
  }
  a.session.allow_plaintext_auth = o.allow_plaintext_auth;
  if (o.timeout > 0) smtp::OverrideTimeouts(a.session.timeouts, std::chrono::seconds(o.timeout));
  a.from.address = s.sender;
  a.from.name = s.friendly;
  return a;
}

// Our own delivery path: one Mailer, its connections reused between messages.
Tally SendModern(const Store& store, const SmtpSettings& settings,
                 const std::vector<QueuedMessage>& messages, const SendOptions& o,
                 Progress& progress, StageClock& clock) {
  auto lookup = [&store, &o](const std::string& email) -> std::optional<delivery::Account> {
    std::optional<SmtpSettings> found = FindAccount(store, email);
    if (!found) return std::nullopt;
    return ModernAccount(*found, o);
  };
  delivery::Mailer mailer(ModernAccount(settings, o), lookup);
  Tally t;
  long done = 0;
  for (const QueuedMessage& m : messages) {
    progress.Update(++done, static_cast<long>(messages.size()), m.email);
    clock.Enter(Stage::kLookup);
    if (AlreadySent(store, m)) {
      ++t.skipped;
      continue;
    }
    std::shared_ptr<dmclients> client;
    try {
      client =
          std::dynamic_pointer_cast<dmclients>(store.LoadRecord("dmclients", m.account).object());
    } catch (const CommandError& e) {
      ++t.failed;
      std::fprintf(stderr, "quillo: %s failed: %s\n", m.email.c_str(), e.what());
      continue;
    }
    std::string subject = SubjectFor(store, m);
    clock.Enter(Stage::kDeliver);
    delivery::Delivery d =
        mailer.Send(ResolveTemplate(m.message_file, o.templates), *client, subject);
    if (d.transport_failed && t.sent == 0 && t.deferred == 0 && t.refused == 0) {
      // Nothing got through yet: the server itself is the problem, not this
      // message, so stop rather than fail every message the same way.
      progress.Finish();
      Unreachable(settings, d.outcome.reason);
    }
    spdlog::debug("{}: {} {}", m.email, smtp::OutcomeName(d.outcome.kind), d.outcome.reason);
    switch (d.outcome.kind) {
      case smtp::OutcomeKind::kAccepted:
        clock.Enter(Stage::kLog);
        LogSent(store, m);
        ++t.sent;
        break;
      case smtp::OutcomeKind::kDeferred:
        ++t.deferred;
        std::fprintf(stderr, "quillo: %s deferred: %s\n", m.email.c_str(),
                     d.outcome.reason.c_str());
        break;
      case smtp::OutcomeKind::kRefused:
        ++t.refused;
        std::fprintf(stderr, "quillo: %s refused: %s\n", m.email.c_str(), d.outcome.reason.c_str());
        break;
      case smtp::OutcomeKind::kFailed:
        ++t.failed;
        std::fprintf(stderr, "quillo: %s failed: %s\n", m.email.c_str(), d.outcome.reason.c_str());
        break;
    }
  }
  mailer.Close();
  return t;
}

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

void CmdSend(const GlobalOptions& g, const SendOptions& o) {
  Store store(g.db);
  std::string queue_file = o.queue;
  if (!o.campaign.empty()) {
    if (queue_file.empty()) queue_file = "~mqueue.txt";
    Date date = o.date.empty() ? Today() : ParseDateOption(o.date);
    RunSummary run = RunCampaign(store, store.FindCampaign(o.campaign), date, queue_file, false);
    std::printf("run %s: %d clients, %d messages queued\n", run.history_id.c_str(), run.clients,
                run.messages);
  } else if (queue_file.empty()) {
    throw CommandError("send needs --queue FILE or --campaign NAME");
  }
  if (!FileExists(queue_file)) throw CommandError("no queue file '" + queue_file + "'");

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

  std::vector<QueuedMessage> messages = ReadQueue(queue_file);
  Progress progress(!o.quiet && isatty(STDOUT_FILENO));
  StageClock clock;
  Tally t = o.compat ? SendCompat(store, settings, messages, o, progress, clock)
                     : SendModern(store, settings, messages, o, progress, clock);
  clock.Stop();
  progress.Finish();
  std::printf("sent %d, refused %d, failed %d, deferred %d, already sent %d (of %zu queued)\n",
              t.sent, t.refused, t.failed, t.deferred, t.skipped, messages.size());
  if (o.timings) clock.Print();
  if (!t.AllDelivered()) {
    throw NotAllDelivered(std::to_string(t.refused + t.failed + t.deferred) + " of " +
                          std::to_string(messages.size()) + " messages were not delivered");
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
