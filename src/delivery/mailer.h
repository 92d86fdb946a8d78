// Mailer: our own delivery path for one message at a time, from a template
// and a client record to a structured outcome.
//
// A Mailer reads the template the way the system's dmMessage does (header
// block, Replace, Attach, Inline, MAILACCOUNT), personalises it for the
// client, composes a standard message (src/mail) and delivers it through the
// modern SMTP session (src/smtp/session.h). Sessions are kept open between
// messages, one per sending account: the default account, or the account a
// template's MAILACCOUNT line names when the lookup knows it.
//
//   quillo::delivery::Account account;
//   account.session.host = "mail.example.test";
//   account.session.port = 587;
//   account.session.tls = quillo::smtp::TlsMode::kRequired;
//   account.from = {"Example News", "news@example.test"};
//   quillo::delivery::Mailer mailer(account);
//   quillo::delivery::Delivery d = mailer.Send("/srv/templates/welcome.txt", client, "Hello
//   <!--FIRST-->"); if (d.outcome.kind != quillo::smtp::OutcomeKind::kAccepted)
//   report(d.outcome.reason);
//
// Every call ends in an Outcome whose reason is never empty: a template or a
// field that cannot make a standard message is refused before anything is
// sent (code 0, reason naming the problem), so no data can add header lines,
// recipients or SMTP commands.
//
// Thread-safety: none; a Mailer belongs to one thread.
#ifndef QUILLO_DELIVERY_MAILER_H_
#define QUILLO_DELIVERY_MAILER_H_

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "mail/composer.h"
#include "mail/dkim.h"
#include "mail/draft.h"
#include "mail/template_draft.h"
#include "smtp/session.h"

namespace quillo {

class dmclients;

namespace delivery {

// Where and as whom to send.
struct Account {
  smtp::SessionOptions session;       // Server, TLS, credentials, EHLO name, timeouts.
  mail::Mailbox from;                 // The From mailbox and the envelope sender.
  std::optional<mail::DkimKey> dkim;  // Signs every message when set.
};

// The account whose sending address is `email`, or nullopt when none is
// known. Used for a template's MAILACCOUNT line.
using AccountLookup = std::function<std::optional<Account>(const std::string& email)>;

// How one message ended.
struct Delivery {
  smtp::Outcome outcome;   // Accepted, deferred, refused or failed, with the reply.
  std::string message_id;  // The Message-ID given, empty when nothing was composed.
  std::string recipient;   // The address the message was for.
  // The server could not be reached, refused the session, or the connection
  // failed during the message: a failure of the transport, not the message.
  bool transport_failed = false;
};

// What makes a campaign message a list message (RFC 2369, RFC 8058): its
// List-Id and unsubscribe link, which also fill the body's
// <!--UNSUBSCRIBE_URL--> (the URL) and <!--UNSUBSCRIBE--> (a link in HTML,
// "Unsubscribe: URL" in text) tags.
struct ListHeaders {
  std::string list_id;             // A List-Id value, e.g. "\"News\" <id.example.com>".
  std::string unsubscribe_url;     // The one-click URL; empty: no unsubscribe fields.
  std::string unsubscribe_mailto;  // An address for mailto unsubscribes, or empty.
  std::string return_path;         // The envelope sender (a VERP address); empty: From.
};

// A message composed for its client and ready to go (`ready`), or why it
// cannot (`delivery.outcome`; nothing is sent). Valid with the Mailer that
// prepared it.
struct Letter {
  Delivery delivery;
  bool ready = false;
  smtp::Session* session = nullptr;  // The session of the account it goes from.
  smtp::Envelope envelope;
  std::string data;
};

class Mailer {
 public:
  explicit Mailer(Account default_account, AccountLookup lookup = {});
  ~Mailer();
  Mailer(const Mailer&) = delete;
  Mailer& operator=(const Mailer&) = delete;

  // Composes the template at `template_path` for `client`, personalising
  // `subject` too, and delivers it to the client's e-mail address.
  Delivery Send(const std::string& template_path, const dmclients& client,
                const std::string& subject, const ListHeaders& list = {});

  // Send in two steps, so that a run of messages can be pipelined: Prepare
  // composes (opening the account's session to learn what it offers), and
  // Deliver sends. When `next` is a ready letter from the same account, its
  // MAIL, RCPT and DATA go with the end of this one's data (see
  // smtp::Session::Send); the next Deliver must then be `next`.
  Letter Prepare(const std::string& template_path, const dmclients& client,
                 const std::string& subject, const ListHeaders& list = {});
  Delivery Deliver(Letter& letter, const Letter* next = nullptr);

  // The message Send would compose for a server that offers `features`,
  // without connecting. Throws mail::TemplateError or mail::ComposeError.
  static mail::ComposedMessage Compose(const std::string& template_path, const dmclients& client,
                                       const std::string& subject, const mail::Mailbox& from,
                                       const mail::WireFeatures& features = {});

  // Ends every open session politely (QUIT).
  void Close();

 private:
  struct Channel {
    Account account;
    std::unique_ptr<smtp::Session> session;
    bool open = false;  // Open() succeeded, so capabilities() are known.
  };
  // The channel of the account named by a MAILACCOUNT line, or the default.
  Channel& ChannelFor(const std::string& mail_account);

  Account default_account_;
  AccountLookup lookup_;
  std::map<std::string, Channel> channels_;  // By account address; "" is the default.
  mail::TemplateFiles templates_;            // Each template read once per Mailer.
};

}  // namespace delivery
}  // namespace quillo

#endif  // QUILLO_DELIVERY_MAILER_H_
