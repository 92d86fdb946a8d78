// Mailbox addresses: the checks of RFC 5321 ("local@domain") that every
// entry point and the composer apply, and IDNA for non-ASCII domains.
//
//   if (auto problem = quillo::mail::MailboxProblem("a b@c")) report(*problem);
//
// Thread-safety: the functions are thread-safe.
#ifndef QUILLO_MAIL_ADDRESS_H_
#define QUILLO_MAIL_ADDRESS_H_

#include <optional>
#include <string>
#include <string_view>

namespace quillo::mail {

// Why `address` is not an acceptable mailbox, in words, or nullopt when it
// is. Refuses control characters (CR, LF, NUL...), blanks outside a quoted
// local part, a missing or empty local part or domain, dots at either end or
// doubled, parts longer than 64 / 255 characters or an address longer than
// 254, and a domain that is neither a host name (IDNA for non-ASCII labels)
// nor an address literal "[...]". A non-ASCII local part is accepted only
// when `allow_utf8_local`.
std::optional<std::string> MailboxProblem(std::string_view address, bool allow_utf8_local = true);

// The address with a non-ASCII domain written in A-labels (IDNA 2008);
// unchanged when the domain is ASCII. Throws std::invalid_argument when the
// domain cannot be converted.
std::string DomainToAscii(std::string_view address);

// The domain of `address` (after the last "@"), or "" when there is none.
std::string_view DomainOf(std::string_view address);

// A key that is equal for two spellings of one mailbox that differ only in
// ASCII case.
std::string MailboxKey(std::string_view address);

}  // namespace quillo::mail

#endif  // QUILLO_MAIL_ADDRESS_H_
