// DraftFromTemplate: a message template, read as the system's dmMessage reads
// it, made into a Draft for the composer.
//
// The header block is split and parsed by dmMessage itself (Replace, Attach,
// Inline and the other lines, names without regard to case), after LF line
// endings are made CR LF, so a template from any editor reads the same. The
// body is personalised with the template's Replace variables exactly as
// dmMessage does it; the subject with every known tag, so that an item's
// description "Hello <!--FIRST-->" works without a Replace line. Lines that
// steer sending become settings, never header fields:
//
//   MAILACCOUNT                 the sending account (TemplateDraft::mail_account)
//   SUBJECT                     the subject (personalised like the other)
//   SENDER, FRIENDLY            the From address and display name
//   CONTENT-TYPE                text/plain or text/html
//   TIMEOUT, DATATIMEOUT, TDL-CATALOG-*, CONTENT-ENCODING, MIME-VERSION,
//   X-MAILER, X-MIMEOLE         dropped: the session and the composer decide
//
// Every other line (REPLY-TO, X-PRIORITY, IMPORTANCE, your own X-...) becomes
// a header field. A relative Attach or Inline path is looked up beside the
// template first, then from the current folder.
//
// A header block that cannot be read as intended is a TemplateError naming
// the file and line: "[HEADER]" without "[/HEADER]", a line with an empty
// name (": x"), an Inline line without a content id (or with more than one
// comma), a Replace line naming no known variable.
//
// Thread-safety: the functions are thread-safe.
#ifndef QUILLO_MAIL_TEMPLATE_DRAFT_H_
#define QUILLO_MAIL_TEMPLATE_DRAFT_H_

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "mail/draft.h"

namespace quillo {

class dmclients;

namespace mail {

// A template that cannot be used; what() is "<file>:<line>: <reason>".
class TemplateError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct TemplateDraft {
  Draft draft;
  std::string mail_account;  // The first MAILACCOUNT line's value, "" when none.
};

// Template files read once each: a sender that composes many messages from
// one template reads its file (and an HTML template's text twin) once, not
// once per message. A file changed afterwards is not read again.
// Thread-safety: none; one per sending connection.
class TemplateFiles {
 public:
  // The bytes of the file at `path`. Throws TemplateError when it cannot be
  // read (and tries again at the next call).
  const std::string& Text(const std::string& path);
  // The bytes of the text twin of the HTML template at `path` (welcome.txt
  // beside welcome.html), or null when there is none.
  const std::string* Twin(const std::string& path);

 private:
  std::map<std::string, std::string> texts_;
  std::map<std::string, std::optional<std::string>> twins_;
};

// The draft of the template at `path` for `client`. `from` is the sending
// account's mailbox. Throws TemplateError (also for a file that cannot be
// read). With `files`, the template's files are read through it.
TemplateDraft DraftFromTemplate(const std::string& path, const dmclients& client,
                                const std::string& subject, const Mailbox& from,
                                TemplateFiles* files = nullptr);

// The same for template text in memory; `name` stands for the file in errors
// and decides text/html (".htm", ".html") and where relative files are found.
TemplateDraft DraftFromText(std::string_view text, std::string_view name, const dmclients& client,
                            const std::string& subject, const Mailbox& from);

}  // namespace mail
}  // namespace quillo

#endif  // QUILLO_MAIL_TEMPLATE_DRAFT_H_
