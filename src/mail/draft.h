// Draft: what a message is made of before it is composed, the input of
// mail::Compose.
//
// Thread-safety: plain data.
#ifndef QUILLO_MAIL_DRAFT_H_
#define QUILLO_MAIL_DRAFT_H_

#include <string>
#include <utility>
#include <vector>

namespace quillo::mail {

// A mailbox: an address with an optional display name (UTF-8).
struct Mailbox {
  std::string name;     // May be empty.
  std::string address;  // local@domain.
};

// A file to attach; inline (for cid: references) when it has a content id.
struct FilePart {
  std::string path;        // "\" is accepted as a separator.
  std::string content_id;  // Empty: an ordinary attachment.
};

struct Draft {
  Mailbox from;
  Mailbox to;
  std::string subject;                                       // Already personalised.
  std::vector<std::pair<std::string, std::string>> headers;  // Extra fields, in order.
  std::string body;                                          // Personalised; CRLF or LF line ends.
  std::string content_type = "text/plain";                   // Or "text/html".
  // For an HTML body, its plain-text form; the body then goes out as
  // multipart/alternative. Empty: the body alone.
  std::string text_alternative;
  std::vector<FilePart> attachments;  // In template order.
};

}  // namespace quillo::mail

#endif  // QUILLO_MAIL_DRAFT_H_
