// Session: our modern SMTP client (RFC 5321) for delivering finished
// messages, beside the library's documented ardESMTP.
//
// It speaks EHLO with this host's fully qualified name or an address literal
// ("[127.0.0.1]"), falls back to HELO with the same name, upgrades with
// STARTTLS (RFC 3207) when offered or required, verifies the server's
// certificate and name, authenticates (AUTH PLAIN or LOGIN, RFC 4954) only
// inside TLS unless told otherwise, pipelines MAIL, RCPT and DATA when the
// server offers PIPELINING (RFC 2920), gives SIZE (RFC 1870), BODY=8BITMIME
// (RFC 6152) and SMTPUTF8 (RFC 6531) when offered and needed, converts
// non-ASCII domains to A-labels (IDNA) when SMTPUTF8 is not offered,
// dot-stuffs the data, and keeps the connection for the next message (RSET
// before it only when the last transaction did not end; a new connection
// after a 421, a close, or the per-connection cap). A closed connection is
// noticed as soon as a read returns nothing, and every wait has a deadline
// (RFC 5321 section 4.5.3.2, overridable).
//
// Every Send ends in an Outcome: accepted (2xx), deferred (4xx), refused
// (5xx, or refused here before anything was sent) or failed (the transport
// broke), with the reply, its enhanced status code (RFC 3463) and a reason
// that is never empty. No data can add a command: an address with a line
// break or another control character is refused before it is sent.
//
//   quillo::smtp::SessionOptions options;
//   options.host = "mail.example.test";
//   options.port = 587;
//   options.tls = quillo::smtp::TlsMode::kRequired;
//   quillo::smtp::Session session(options);
//   quillo::smtp::Outcome o = session.Send({"news@example.test", {"ada@example.test"}}, message);
//
// Thread-safety: a Session belongs to one thread.
#ifndef QUILLO_SMTP_SESSION_H_
#define QUILLO_SMTP_SESSION_H_

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "smtp/reply.h"

namespace quillo::smtp {

// How the connection is protected.
enum class TlsMode {
  kNone,           // Never TLS, even when STARTTLS is offered.
  kOpportunistic,  // STARTTLS when offered, plain otherwise.
  kRequired,       // STARTTLS or no session.
  kImplicit,       // TLS from the first byte (smtps, port 465).
};

// How long to wait, per RFC 5321 section 4.5.3.2 (and a connect timeout).
struct Timeouts {
  std::chrono::seconds connect{30};
  std::chrono::seconds greeting{300};  // Also EHLO, STARTTLS, AUTH, RSET, QUIT.
  std::chrono::seconds mail{300};
  std::chrono::seconds rcpt{300};
  std::chrono::seconds data_initiation{120};
  std::chrono::seconds data_block{180};
  std::chrono::seconds data_termination{600};
};

// Sets every timeout of `timeouts` to `each`.
void OverrideTimeouts(Timeouts& timeouts, std::chrono::seconds each);

struct SessionOptions {
  std::string host;
  int port = 25;
  TlsMode tls = TlsMode::kOpportunistic;
  bool verify_certificate = true;  // Chain and host name.
  std::string ca_file;             // An extra trusted CA (PEM), besides the system's.
  std::string helo_name;           // Empty: this host's name, or an address literal.
  std::string user;                // AUTH when not empty.
  std::string password;
  bool allow_plaintext_auth = false;  // AUTH without TLS.
  Timeouts timeouts;
  std::size_t max_messages_per_connection = 0;  // 0: no cap.
  // Called with each line of the dialogue, "C: " for a command and "S: " for
  // a reply, credentials masked. Empty: no trace.
  std::function<void(std::string_view)> trace;
};

// What the server offered in its EHLO reply.
struct Capabilities {
  bool esmtp = false;  // EHLO worked (false after a HELO fallback).
  bool size = false;   // SIZE: MAIL FROM may carry the message size.
  bool starttls = false;
  bool pipelining = false;
  bool eight_bit_mime = false;
  bool smtputf8 = false;
  bool enhanced_status_codes = false;
  bool tls_active = false;        // The connection is protected now.
  std::size_t max_size = 0;       // SIZE limit, 0 when none was given.
  std::vector<std::string> auth;  // AUTH mechanisms, upper case.
};

enum class OutcomeKind { kAccepted, kDeferred, kRefused, kFailed };

// "accepted", "deferred", "refused" or "failed".
const char* OutcomeName(OutcomeKind kind);

// How one session step or one message ended.
struct Outcome {
  OutcomeKind kind = OutcomeKind::kFailed;
  int code = 0;          // The reply code; 0 when no reply decided it.
  std::string enhanced;  // "5.1.1" when the server gave one.
  std::string reply;     // The deciding reply as the server sent it.
  std::string reason;    // Never empty: what happened, in words.
};

// One message's envelope.
struct Envelope {
  std::string from;             // Reverse path; may be empty (null sender).
  std::vector<std::string> to;  // Forward paths.
  bool body_8bitmime = false;   // The data holds 8-bit text: BODY=8BITMIME.
  bool smtputf8 = false;        // Addresses or headers hold raw UTF-8: SMTPUTF8.
};

class Session {
 public:
  explicit Session(SessionOptions options);
  ~Session();  // Ends the session politely (QUIT) when one is open.
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Connects, reads the greeting, says EHLO (HELO when EHLO is refused),
  // upgrades to TLS and authenticates as the options say. Accepted when the
  // session is ready for a message; otherwise the connection is closed.
  Outcome Open();
  // Whether a session is open now.
  bool IsOpen() const;
  // What the server offered; valid after a successful Open.
  const Capabilities& capabilities() const { return capabilities_; }

  // Delivers one message (CRLF lines, not dot-stuffed) to the envelope's
  // recipients. Opens the session when needed, says RSET first when the
  // last transaction on the connection did not end, and opens a new
  // connection once when the server answered 421 or had closed the
  // connection before the message began.
  Outcome Send(const Envelope& envelope, std::string_view message);

  // The same, and when the server pipelines, the MAIL, RCPT and DATA of the
  // message that comes next (`next`, `next_message`) go in the same write as
  // the end of this one's data (RFC 2920 lets the data begin a group), so a
  // run of messages on one connection costs one round trip each. The caller
  // promises that its next Send on this session is for that message; if it
  // is not (or Close comes first), the connection is closed without QUIT,
  // which leaves the announced transaction unended, so nothing is delivered
  // for it.
  Outcome Send(const Envelope& envelope, std::string_view message, const Envelope* next,
               std::string_view next_message);

  // Ends the session (QUIT) and closes the connection.
  void Close();

  // The commands sent so far on this session's connections, one per line,
  // with AUTH credentials masked; for tests and -v logs. Only the most
  // recent are kept: at least kTranscriptLines, fewer than twice as many.
  static constexpr std::size_t kTranscriptLines = 1000;
  const std::vector<std::string>& Transcript() const { return transcript_; }

 private:
  class Transport;

  Outcome OpenOnce();
  Outcome Greet();
  Outcome Hello(bool after_tls);
  Outcome StartTls();
  Outcome Authenticate();
  // A message's MAIL and RCPT commands for this server (DATA too when it
  // pipelines) and its dot-stuffed data; or why it cannot go to this server
  // (then nothing is sent).
  std::optional<Outcome> Build(const Envelope& envelope, std::string_view message,
                               std::vector<std::string>* commands, std::string* data);
  Outcome SendOnce(const Envelope& envelope, std::string_view message, const Envelope* next,
                   std::string_view next_message, bool* retry);
  // Records a command line in the transcript and the trace.
  void Sent(std::string_view line);
  // Sends `line` (CRLF added) and reads the reply within `timeout`.
  bool Command(std::string_view line, std::chrono::seconds timeout, Reply* reply, Outcome* failure,
               bool secret = false);
  bool Write(std::string_view bytes, std::chrono::seconds timeout, Outcome* failure);
  bool ReadReply(std::chrono::seconds timeout, Reply* reply, Outcome* failure);
  void Drop();
  std::string HeloName() const;

  SessionOptions options_;
  Capabilities capabilities_;
  std::unique_ptr<Transport> transport_;
  ReplyParser parser_;
  std::size_t messages_on_connection_ = 0;
  // A MAIL was sent and its transaction has not ended (by the reply to the
  // end of the data, or an RSET): the next message starts with RSET.
  bool transaction_open_ = false;
  // The message whose MAIL, RCPT and DATA went with the end of the last
  // message's data: their replies are still to be read.
  struct Announced {
    Envelope envelope;
    std::size_t size = 0;  // Of the message, as MAIL FROM's SIZE gave it.
  };
  std::optional<Announced> announced_;
  std::vector<std::string> transcript_;
  std::string data_;       // The dot-stuffed data of the message being sent, reused.
  std::string next_data_;  // The same for the next message, when it is announced.
};

}  // namespace quillo::smtp

#endif  // QUILLO_SMTP_SESSION_H_
