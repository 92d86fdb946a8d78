// Compose: a Draft made into a standard Internet message (RFC 5322 with MIME,
// RFC 2045-2049, 2047, 2231, 6532), ready for the SMTP session.
//
// The message has Date (with zone), a Message-ID unique per message
// ("<random@sender-domain>"), From and To with display names, Subject,
// MIME-Version and "X-Mailer: quillo <version>", then the draft's own header
// fields. Non-ASCII header text becomes RFC 2047 encoded words; raw UTF-8
// goes only in a message that needs SMTPUTF8 anyway (an address with a
// non-ASCII local part, which the server must then offer). Every header line
// is folded at 78 characters
// and never exceeds 998. Text parts say charset=utf-8 and go out 7bit when
// that is exact, 8bit only when the server offers 8BITMIME, and
// quoted-printable otherwise; files go out in base64 with RFC 2231 names.
// Inline parts sit in multipart/related; attachments in multipart/mixed.
// Boundaries are random per message and checked against the content.
//
// Data never changes the structure: a CR or LF (or another control
// character) in a header value, name or address is a ComposeError for that
// message. So is a body that is not UTF-8 (it could not honestly be labelled
// charset=utf-8) and an attachment that cannot be read.
//
//   quillo::mail::Draft draft;
//   draft.from = {"Shop News", "news@shop.example"};
//   draft.to = {"Ada Lovelace", "ada@example.test"};
//   draft.subject = "Hello Ada";
//   draft.body = "Dear Ada,\n...";
//   quillo::mail::ComposedMessage m = quillo::mail::Compose(draft, {});
//
// Thread-safety: Compose is thread-safe.
#ifndef QUILLO_MAIL_COMPOSER_H_
#define QUILLO_MAIL_COMPOSER_H_

#include <ctime>
#include <optional>
#include <stdexcept>
#include <string>

#include "mail/draft.h"

namespace quillo::mail {

// What the receiving server offers, which decides the encodings.
struct WireFeatures {
  bool eight_bit_mime = false;  // 8BITMIME: 8bit text parts may go as they are.
  bool smtputf8 = false;        // SMTPUTF8: header fields may hold raw UTF-8.
};

struct ComposeOptions {
  std::optional<std::time_t> date;  // The Date field's time; now when unset.
  std::string mailer;               // X-Mailer; "quillo <version>" when empty.
};

struct ComposedMessage {
  std::string data;             // CRLF lines, ends with CRLF, not dot-stuffed.
  std::string message_id;       // "<random@domain>".
  bool needs_8bitmime = false;  // A part is 8bit: MAIL FROM must say BODY=8BITMIME.
  bool needs_smtputf8 = false;  // Raw UTF-8 in header fields: MAIL FROM must say SMTPUTF8.
};

// A message that cannot be made safe and standard; what() says why.
// `bytes` random bytes from the system's generator, as lower-case hex.
// Throws ComposeError when the generator fails.
std::string RandomHex(std::size_t bytes);

class ComposeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The message of `draft` for a server that offers `features`. Throws
// ComposeError.
ComposedMessage Compose(const Draft& draft, const WireFeatures& features,
                        const ComposeOptions& options = {});

// quillo's version, as X-Mailer gives it.
const char* Version();

// `text` as RFC 2047 encoded words (UTF-8, base64), each at most 75
// characters, joined by CRLF SP; `first_line_used` characters of the first
// line are taken already. Exposed for tests.
std::string EncodeWords(std::string_view text, size_t first_line_used);

// `bytes` in quoted-printable (RFC 2045) with CRLF line ends and soft breaks
// keeping lines at most 76 characters. Line ends of `bytes` (CRLF) stay
// line ends. Exposed for tests.
std::string QuotedPrintable(std::string_view bytes);

}  // namespace quillo::mail

#endif  // QUILLO_MAIL_COMPOSER_H_
