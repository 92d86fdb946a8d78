#include "delivery/bounces.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "codec/md5.h"
#include "delivery/ledger.h"
#include "delivery/unsubscribe.h"
#include "mail/address.h"
#include "mail/returned_mail.h"
#include "platform/database.h"
#include "platform/error.h"
#include "platform/text.h"

namespace quillo::delivery {

namespace {

namespace fs = std::filesystem;

// Soft bounces: this many within this window suppress the address.
constexpr long kSoftLimit = 3;
constexpr long kSoftWindowSeconds = 30L * 86400;

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw MailboxError("cannot read '" + path.string() + "'");
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

std::vector<fs::path> FilesIn(const fs::path& folder) {
  std::vector<fs::path> files;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(folder, ec)) {
    if (entry.is_regular_file() && entry.path().filename().string()[0] != '.')
      files.push_back(entry.path());
  }
  if (ec) throw MailboxError("cannot list '" + folder.string() + "': " + ec.message());
  std::sort(files.begin(), files.end());
  return files;
}

// Splits an mbox at its "From " lines; ">From " (any number of ">") loses one ">".
void SplitMbox(const std::string& path, const std::string& text,
               const std::function<void(const std::string&, std::string_view)>& each) {
  std::string message;
  long number = 0;
  long first_line = 0;
  long line_number = 0;
  auto flush = [&] {
    if (number == 0) return;
    // The line break before the next "From " line belongs to the separator.
    if (message.size() >= 2 && message.compare(message.size() - 2, 2, "\n\n") == 0)
      message.pop_back();
    each(path + " message " + std::to_string(number) + " (line " + std::to_string(first_line) + ")",
         message);
  };
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    size_t next = end == std::string::npos ? text.size() : end + 1;
    std::string_view line(text.data() + pos, next - pos);
    ++line_number;
    if (line.substr(0, 5) == "From ") {
      flush();
      ++number;
      first_line = line_number;
      message.clear();
    } else if (number > 0) {
      size_t arrows = line.find_first_not_of('>');
      if (arrows != std::string_view::npos && arrows > 0 && line.substr(arrows, 5) == "From ")
        line.remove_prefix(1);
      message += line;
    }
    pos = next;
  }
  flush();
}

// The most soft bounces of `email` that fall within one window of
// kSoftWindowSeconds, in the order they arrived (reports may be read in any
// order).
long MostSoftBouncesInWindow(Connection& db, const std::string& email) {
  std::vector<std::string> arrived;
  Recordset rs;
  rs.Open("SELECT Arrived FROM quillo_bounces WHERE Kind = 'soft' AND Email = " + SqlLiteral(email),
          std::shared_ptr<Connection>(&db, [](Connection*) {}), kAdOpenForwardOnly, kAdLockReadOnly,
          kAdCmdText);
  for (; !rs.Eof(); rs.MoveNext()) arrived.push_back(FieldText(rs, "Arrived"));
  rs.Close();
  std::vector<std::time_t> times;
  for (const std::string& a : arrived) {
    std::tm tm{};
    if (strptime(a.c_str(), "%Y-%m-%d %H:%M:%S", &tm)) times.push_back(timegm(&tm));
  }
  std::sort(times.begin(), times.end());
  long most = 0;
  size_t first = 0;
  for (size_t last = 0; last < times.size(); ++last) {
    while (times[last] - times[first] >= kSoftWindowSeconds) ++first;
    most = std::max(most, static_cast<long>(last - first + 1));
  }
  return most;
}

}  // namespace

void ReadMailbox(const std::string& path,
                 const std::function<void(const std::string& name, std::string_view bytes)>& each) {
  std::error_code ec;
  fs::file_status status = fs::status(path, ec);
  if (ec || !fs::exists(status)) throw MailboxError("'" + path + "' does not exist");
  if (fs::is_directory(status)) {
    const fs::path folder(path);
    const bool maildir = fs::is_directory(folder / "cur") || fs::is_directory(folder / "new");
    std::vector<fs::path> files;
    if (maildir) {
      for (const char* sub : {"new", "cur"}) {
        if (!fs::is_directory(folder / sub)) continue;
        for (fs::path& f : FilesIn(folder / sub)) files.push_back(std::move(f));
      }
    } else {
      files = FilesIn(folder);
    }
    for (const fs::path& f : files) each(f.string(), ReadFile(f));
    return;
  }
  std::string text = ReadFile(path);
  if (text.compare(0, 5, "From ") == 0) {
    SplitMbox(path, text, each);
  } else {
    each(path, text);
  }
}

void CreateBounceSchema(Connection& connection) {
  CreateTableOnce(connection,
                  "CREATE TABLE IF NOT EXISTS quillo_bounces (MessageKey VARCHAR(32) NOT NULL, "
                  "Email VARCHAR(255) NOT NULL, Kind VARCHAR(16) NOT NULL, Status VARCHAR(16), "
                  "Detail TEXT, CampaignRecID VARCHAR(32), Arrived VARCHAR(19), "
                  "Imported VARCHAR(19), PRIMARY KEY (MessageKey, Email))");
}

BounceImporter::BounceImporter(std::shared_ptr<Connection> connection)
    : connection_(std::move(connection)) {
  CreateBounceSchema(*connection_);
  CreateSuppressionSchema(*connection_);
  key_ = UnsubscribeKey(*connection_);
  Recordset rs;
  rs.Open("SELECT RecID FROM dmmrktcmp", connection_, kAdOpenForwardOnly, kAdLockReadOnly,
          kAdCmdText);
  for (; !rs.Eof(); rs.MoveNext()) {
    std::string id = FieldText(rs, "RecID");
    campaigns_[LCase(id)] = id;
  }
  rs.Close();
}

// Our messages' List-Id is "\"Name\" <campaign.domain>".
std::string BounceImporter::CampaignOfListId(const std::string& list_id) {
  size_t lt = list_id.rfind('<');
  if (lt == std::string::npos) return {};
  size_t dot = list_id.find('.', lt);
  if (dot == std::string::npos) return {};
  auto it = campaigns_.find(LCase(list_id.substr(lt + 1, dot - lt - 1)));
  return it == campaigns_.end() ? std::string() : it->second;
}

void BounceImporter::Import(const std::string& name, std::string_view bytes) {
  ++summary_.messages;
  const std::string message_key = Md5Hex(bytes);
  Connection& db = *connection_;
  if (!QueryText(
           db,
           "SELECT MessageKey FROM quillo_bounces WHERE MessageKey = " + SqlLiteral(message_key),
           "MessageKey")
           .empty()) {
    ++summary_.already_imported;
    return;
  }
  mail::ReturnedMail report = mail::ParseReturnedMail(bytes);
  if (report.format == mail::ReturnFormat::kUnknown) {
    summary_.not_understood.emplace_back(name, report.problem);
    return;
  }

  // Who: the VERP client when the report came back to a good token.
  std::string campaign = CampaignOfListId(report.returned_list_id);
  std::string verp_email;
  for (const std::string& to : report.addressed_to) {
    if (auto target = CheckVerpAddress(key_, to)) {
      verp_email = QueryText(
          db, "SELECT EMail FROM dmclients WHERE Account = " + SqlLiteral(target->client), "EMail");
      if (!verp_email.empty()) {
        campaign = target->campaign;
        break;
      }
    }
  }
  std::vector<mail::ReturnedRecipient> recipients = report.recipients;
  if (!verp_email.empty()) {
    // A VERP message had one recipient; what happened to it is the worst of the blocks.
    auto rank = [](mail::ReturnKind k) {
      switch (k) {
        case mail::ReturnKind::kComplaint:
          return 4;
        case mail::ReturnKind::kHard:
          return 3;
        case mail::ReturnKind::kSoft:
          return 2;
        case mail::ReturnKind::kDelayed:
          return 1;
        case mail::ReturnKind::kDelivered:
          return 0;
      }
      return 0;
    };
    if (!recipients.empty()) {
      auto worst = std::max_element(
          recipients.begin(), recipients.end(),
          [&](const auto& a, const auto& b) { return rank(a.kind) < rank(b.kind); });
      mail::ReturnedRecipient one = *worst;
      one.address = verp_email;
      recipients = {one};
    }
  }

  const std::string arrived = LedgerTimeAt(report.date ? *report.date : std::time(nullptr));
  const std::string imported = LedgerTime();
  db.Execute(db.EngineName() == "sqlite" ? "BEGIN IMMEDIATE" : "BEGIN");
  try {
    BounceSummary counts;
    if (recipients.empty()) {
      // A known report that names no one: remembered, so it is not read again.
      db.Execute(
          "INSERT INTO quillo_bounces (MessageKey, Email, Kind, Status, Detail, "
          "CampaignRecID, Arrived, Imported) VALUES (" +
          SqlLiteral(message_key) + ", '', 'none', '', " + SqlLiteral(report.problem) + ", " +
          SqlLiteral(campaign) + ", " + SqlLiteral(arrived) + ", " + SqlLiteral(imported) + ")");
      summary_.not_understood.emplace_back(name, report.problem);
    }
    for (const mail::ReturnedRecipient& who : recipients) {
      const std::string email = mail::MailboxKey(who.address);
      std::string detail = who.status.empty() ? who.diagnostic : who.status + " " + who.diagnostic;
      long added = 0;
      db.Execute(
          "INSERT INTO quillo_bounces (MessageKey, Email, Kind, Status, Detail, "
          "CampaignRecID, Arrived, Imported) VALUES (" +
              SqlLiteral(message_key) + ", " + SqlLiteral(email) + ", " +
              SqlLiteral(mail::ReturnKindName(who.kind)) + ", " + SqlLiteral(who.status) + ", " +
              SqlLiteral(detail) + ", " + SqlLiteral(campaign) + ", " + SqlLiteral(arrived) + ", " +
              SqlLiteral(imported) + ") ON CONFLICT (MessageKey, Email) DO NOTHING",
          &added);
      if (added == 0) continue;  // The same address twice in one report.
      switch (who.kind) {
        case mail::ReturnKind::kHard:
          ++counts.hard;
          counts.suppressed += SuppressAddress(db, email, "bounced", detail, campaign);
          break;
        case mail::ReturnKind::kComplaint:
          ++counts.complaints;
          counts.suppressed +=
              SuppressAddress(db, email, "complained", "complaint: " + who.diagnostic, campaign);
          break;
        case mail::ReturnKind::kSoft: {
          ++counts.soft;
          const long recent = MostSoftBouncesInWindow(db, email);
          if (recent >= kSoftLimit) {
            counts.suppressed += SuppressAddress(
                db, email, "bounced",
                std::to_string(recent) + " soft bounces within 30 days, the last " + detail,
                campaign);
          }
          break;
        }
        case mail::ReturnKind::kDelayed:
          ++counts.delayed;
          break;
        case mail::ReturnKind::kDelivered:
          ++counts.delivered;
          break;
      }
    }
    db.Execute("COMMIT");
    summary_.hard += counts.hard;
    summary_.soft += counts.soft;
    summary_.delayed += counts.delayed;
    summary_.delivered += counts.delivered;
    summary_.complaints += counts.complaints;
    summary_.suppressed += counts.suppressed;
  } catch (...) {
    try {
      db.Execute("ROLLBACK");
    } catch (const RuntimeError&) {
      // The transaction is gone already.
    }
    throw;
  }
}

}  // namespace quillo::delivery
