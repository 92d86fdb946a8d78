// quillo suppress: the addresses nothing is sent to (quillo_suppressions).
#include <cstdio>
#include <memory>

#include "commands.h"
#include "delivery/bounces.h"
#include "delivery/ledger.h"
#include "mail/address.h"
#include "mail/returned_mail.h"

namespace quillo::cli {

namespace {

std::shared_ptr<Connection> SuppressionTable(const Store& store) {
  auto connection = store.database();
  delivery::CreateSuppressionSchema(*connection);
  return connection;
}

}  // namespace

SuppressionSet::SuppressionSet(const Store& store) {
  SuppressionTable(store);
  store.Query("SELECT Email, Reason FROM quillo_suppressions;",
              [&](const Row& r) { reasons_[r.Text("Email")] = r.Text("Reason"); });
}

std::optional<std::string> SuppressionSet::Reason(const std::string& email) const {
  auto it = reasons_.find(mail::MailboxKey(email));
  if (it == reasons_.end()) return std::nullopt;
  return it->second;
}

void CmdSuppressAdd(const GlobalOptions& g, const SuppressAdd& a) {
  Store store(g.db);
  CheckAddress(a.email);
  static const char* const kReasons[] = {"unsubscribed", "bounced", "complained", "manual"};
  bool known = false;
  for (const char* r : kReasons) known = known || a.reason == r;
  if (!known) {
    throw CommandError("--reason must be unsubscribed, bounced, complained or manual, not '" +
                       a.reason + "'");
  }
  std::string campaign = a.campaign.empty() ? std::string() : store.FindCampaign(a.campaign);
  auto connection = SuppressionTable(store);
  const std::string key = mail::MailboxKey(a.email);
  connection->Execute("BEGIN");
  try {
    connection->Execute("DELETE FROM quillo_suppressions WHERE Email = '" + SqlQuote(key) + "'");
    connection->Execute(
        "INSERT INTO quillo_suppressions (Email, Reason, Detail, CampaignRecID, Added) VALUES "
        "('" +
        SqlQuote(key) + "', '" + a.reason + "', '" + SqlQuote(a.note) + "', '" +
        SqlQuote(campaign) + "', '" + delivery::LedgerTime() + "')");
    connection->Execute("COMMIT");
  } catch (...) {
    connection->Execute("ROLLBACK");
    throw;
  }
  std::printf("suppressed %s (%s)\n", key.c_str(), a.reason.c_str());
}

void CmdSuppressRemove(const GlobalOptions& g, const std::string& email) {
  Store store(g.db);
  auto connection = SuppressionTable(store);
  const std::string key = mail::MailboxKey(email);
  long removed = 0;
  connection->Execute("DELETE FROM quillo_suppressions WHERE Email = '" + SqlQuote(key) + "'",
                      &removed);
  if (removed == 0) throw CommandError("'" + email + "' is not suppressed");
  std::printf("%s is no longer suppressed\n", key.c_str());
}

void CmdSuppressList(const GlobalOptions& g) {
  Store store(g.db);
  SuppressionTable(store);
  std::vector<std::vector<std::string>> rows;
  store.Query("SELECT * FROM quillo_suppressions ORDER BY Email;", [&](const Row& r) {
    rows.push_back({r.Text("Email"), r.Text("Reason"), r.Text("Added"), r.Text("Detail")});
  });
  PrintTable({"EMAIL", "REASON", "ADDED (UTC)", "NOTE"}, rows);
}

void CmdBouncesImport(const GlobalOptions& g, const std::string& path) {
  Store store(g.db);
  delivery::BounceImporter importer(store.database());
  try {
    delivery::ReadMailbox(path, [&](const std::string& name, std::string_view bytes) {
      importer.Import(name, bytes);
    });
  } catch (const delivery::MailboxError& e) {
    throw CommandError(e.what());
  }
  const delivery::BounceSummary& s = importer.summary();
  std::printf("read %ld messages from %s (%ld imported before)\n", s.messages, path.c_str(),
              s.already_imported);
  std::printf(
      "hard bounces %ld, soft bounces %ld, delay warnings %ld, delivered %ld, "
      "complaints %ld\n",
      s.hard, s.soft, s.delayed, s.delivered, s.complaints);
  std::printf("suppressed %ld addresses\n", s.suppressed);
  if (!s.not_understood.empty()) {
    std::printf("not understood %zu (nothing done; handle them yourself):\n",
                s.not_understood.size());
    for (const auto& [name, why] : s.not_understood)
      std::printf("  %s: %s\n", name.c_str(), why.c_str());
  }
}

void CmdBouncesShow(const std::string& path) {
  try {
    delivery::ReadMailbox(path, [&](const std::string& name, std::string_view bytes) {
      mail::ReturnedMail r = mail::ParseReturnedMail(bytes);
      const char* format = r.format == mail::ReturnFormat::kDeliveryStatus   ? "delivery status"
                           : r.format == mail::ReturnFormat::kFeedbackReport ? "feedback report"
                                                                             : "not understood";
      std::printf("%s: %s%s%s\n", name.c_str(), format, r.problem.empty() ? "" : ": ",
                  r.problem.c_str());
      for (const mail::ReturnedRecipient& who : r.recipients) {
        std::printf("  %s %s %s\n", who.address.c_str(), mail::ReturnKindName(who.kind),
                    who.status.empty() ? "-" : who.status.c_str());
      }
    });
  } catch (const delivery::MailboxError& e) {
    throw CommandError(e.what());
  }
}

}  // namespace quillo::cli
