// Bounce import: returned mail (delivery status notifications and
// complaints) read from a Maildir, an mbox or a folder of messages, and
// turned into suppressions.
//
//   quillo::delivery::BounceImporter importer(connection);
//   quillo::delivery::ReadMailbox("/var/mail/bounces",
//       [&](const std::string& name, std::string_view bytes) { importer.Import(name, bytes); });
//   const quillo::delivery::BounceSummary& s = importer.summary();
//
// The rules:
//   - a hard bounce (failed, 5.x.x) or a complaint suppresses the address at
//     once ("bounced", "complained");
//   - a soft bounce (failed, 4.x.x) is counted; the third within 30 days
//     (by the reports' Date) suppresses the address;
//   - delay warnings and reports of delivery are counted, nothing more;
//   - a message in neither standard format is reported, never guessed at.
// The recipient is the client of the VERP return path the report came back
// to, when its token is good (see VerpAddress), else the address the report
// names. The campaign is the token's, else the one in the List-Id of the
// returned message. Each message is imported once, known by the MD5 of its
// bytes (kept in quillo_bounces), so reading a mailbox again changes nothing;
// each message is recorded in a transaction of its own.
//
// Thread-safety: none; an importer uses its connection from one thread.
#ifndef QUILLO_DELIVERY_BOUNCES_H_
#define QUILLO_DELIVERY_BOUNCES_H_

#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace quillo {

class Connection;

namespace delivery {

// A mailbox that cannot be read; what() names the path and the reason.
class MailboxError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Calls `each` with a name and the bytes of every message at `path`:
//   - a Maildir (a folder with cur/ or new/): the files of new/ and cur/;
//   - any other folder: each regular file in it, one message per file;
//   - a file that starts with "From ": an mbox, split at its "From " lines
//     (">From " lines lose one ">");
//   - any other file: one message.
// In name order. Throws MailboxError.
void ReadMailbox(const std::string& path,
                 const std::function<void(const std::string& name, std::string_view bytes)>& each);

// Creates quillo_bounces when missing.
void CreateBounceSchema(Connection& connection);

struct BounceSummary {
  long messages = 0;          // Messages read.
  long already_imported = 0;  // Seen by an earlier import; nothing done.
  long hard = 0, soft = 0, delayed = 0, delivered = 0, complaints = 0;  // Recipients.
  long suppressed = 0;  // Addresses put on the suppression list now.
  // Messages in neither format, or known reports that name no one: their
  // names and why.
  std::vector<std::pair<std::string, std::string>> not_understood;
};

class BounceImporter {
 public:
  explicit BounceImporter(std::shared_ptr<Connection> connection);

  // Reads one message, records it and applies the rules.
  void Import(const std::string& name, std::string_view bytes);

  const BounceSummary& summary() const { return summary_; }

 private:
  std::string CampaignOfListId(const std::string& list_id);

  std::shared_ptr<Connection> connection_;
  std::string key_;                               // The database's token key, for VERP addresses.
  std::map<std::string, std::string> campaigns_;  // Lower-case RecID -> RecID.
  BounceSummary summary_;
};

}  // namespace delivery
}  // namespace quillo

#endif  // QUILLO_DELIVERY_BOUNCES_H_
