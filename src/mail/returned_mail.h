// Returned mail: delivery status notifications (RFC 3464) and feedback
// reports (RFC 5965, "ARF" complaints), read from the bytes of one message.
//
//   quillo::mail::ReturnedMail r = quillo::mail::ParseReturnedMail(bytes);
//   if (r.format == quillo::mail::ReturnFormat::kUnknown) report(r.problem);
//   for (const quillo::mail::ReturnedRecipient& who : r.recipients)
//     ... who.address, who.kind, who.status ...
//
// Only the two standard formats are read: a multipart/report (found at the
// top or anywhere inside a multipart) with a message/delivery-status or
// message/feedback-report part. Anything else (an auto-reply, a person's
// answer, a bounce written as free prose) is kUnknown with the reason;
// nothing is guessed from human-readable text.
//
// Thread-safety: the functions keep no state.
#ifndef QUILLO_MAIL_RETURNED_MAIL_H_
#define QUILLO_MAIL_RETURNED_MAIL_H_

#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillo::mail {

// What happened to one recipient.
//   kHard:      Action failed with a 5.x.x (or missing class) status: the address is bad.
//   kSoft:      Action failed with a 4.x.x status: the server gave up on a
//               temporary failure (a full mailbox, a host that never answered).
//   kDelayed:   Action delayed: a warning; the message is still being tried.
//   kDelivered: Action delivered, relayed or expanded.
//   kComplaint: a feedback report (abuse, fraud, virus or other).
enum class ReturnKind { kHard, kSoft, kDelayed, kDelivered, kComplaint };

// "hard", "soft", "delayed", "delivered", "complaint".
const char* ReturnKindName(ReturnKind kind);

struct ReturnedRecipient {
  // The address the sender used: Original-Recipient, else Final-Recipient
  // (a feedback report: Original-Rcpt-To, else the To of the returned
  // message). As written, without angle brackets.
  std::string address;
  ReturnKind kind = ReturnKind::kHard;
  std::string action;      // Lower case ("failed", "delayed", ...); "" for complaints.
  std::string status;      // "5.1.1"; "" for complaints.
  std::string diagnostic;  // Diagnostic-Code on one line, or the Feedback-Type.
};

enum class ReturnFormat { kUnknown, kDeliveryStatus, kFeedbackReport };

struct ReturnedMail {
  ReturnFormat format = ReturnFormat::kUnknown;
  // Why the message is kUnknown, or why a known report names no one (a
  // feedback report of type "not-spam", say). Empty otherwise.
  std::string problem;
  std::vector<ReturnedRecipient> recipients;
  // The addresses the report itself came to (To, Delivered-To,
  // X-Original-To, Envelope-To): the return path, where a VERP token is.
  std::vector<std::string> addressed_to;
  std::optional<std::time_t> date;  // The report's Date, when it has a readable one.
  // From the returned message's header block, when the report includes it.
  std::string returned_list_id;
  std::string returned_message_id;
};

ReturnedMail ParseReturnedMail(std::string_view message);

// An RFC 5322 date ("Tue, 1 Sep 2026 10:15:00 +0200 (CEST)", obsolete zone
// names too) as a UTC time, or nullopt.
std::optional<std::time_t> ParseMailDate(std::string_view text);

}  // namespace quillo::mail

#endif  // QUILLO_MAIL_RETURNED_MAIL_H_
