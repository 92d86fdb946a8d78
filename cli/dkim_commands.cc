// quillo dkim: signing keys, made with keygen and kept per sending domain or
// account in quillo_dkim_keys.
#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include "commands.h"
#include "delivery/ledger.h"
#include "mail/address.h"

namespace quillo::cli {

namespace {

std::shared_ptr<Connection> KeyTable(const Store& store) {
  auto connection = store.database();
  delivery::CreateTableOnce(
      *connection,
      "CREATE TABLE IF NOT EXISTS quillo_dkim_keys (Sender VARCHAR(255) NOT NULL PRIMARY KEY, "
      "Domain VARCHAR(255) NOT NULL, Selector VARCHAR(63) NOT NULL, KeyFile TEXT NOT NULL, "
      "Added VARCHAR(19))");
  return connection;
}

// A domain in lower-case ASCII (A-labels); as given when it cannot be converted.
std::string AsciiDomain(std::string_view domain) {
  try {
    return LCase(mail::DomainToAscii("x@" + std::string(domain)).substr(2));
  } catch (const std::invalid_argument&) {
    return LCase(domain);
  }
}

// A domain or an address as the table keeps it.
std::string SenderKey(const std::string& sender) {
  if (sender.find('@') != std::string::npos) return mail::MailboxKey(sender);
  return AsciiDomain(sender);
}

mail::DkimKey Load(const std::string& file, const std::string& domain,
                   const std::string& selector) {
  try {
    return mail::LoadDkimKey(file, domain, selector);
  } catch (const mail::DkimError& e) {
    throw CommandError(e.what());
  }
}

}  // namespace

void CmdDkimKeygen(const DkimKeygen& k) {
  mail::DkimAlgorithm algorithm = k.algorithm == "ed25519" ? mail::DkimAlgorithm::kEd25519Sha256
                                                           : mail::DkimAlgorithm::kRsaSha256;
  try {
    std::string record = mail::GenerateDkimKey(algorithm, k.key);
    std::printf("private key: %s\npublish this TXT record:\n%s._domainkey.%s. IN TXT \"%s\"\n",
                k.key.c_str(), k.selector.c_str(), k.domain.c_str(), record.c_str());
    std::printf(
        "then sign all mail from %s with it:\n  quillo dkim add --sender %s --selector "
        "%s --key %s\n",
        k.domain.c_str(), k.domain.c_str(), k.selector.c_str(), k.key.c_str());
  } catch (const mail::DkimError& e) {
    throw CommandError(e.what());
  }
}

void CmdDkimAdd(const GlobalOptions& g, const DkimKeyEntry& e) {
  Store store(g.db);
  const bool account = e.sender.find('@') != std::string::npos;
  if (account) CheckAddress(e.sender);
  const std::string sender = SenderKey(e.sender);
  const std::string domain =
      e.domain.empty() ? std::string(account ? mail::DomainOf(sender) : sender) : e.domain;
  if (sender.empty() || domain.empty()) throw CommandError("--sender wants a domain or an address");
  std::error_code ec;
  const std::string file = std::filesystem::absolute(e.key, ec).string();
  Load(file, domain, e.selector);  // Readable, a usable key, owner-only.
  auto connection = KeyTable(store);
  connection->Execute("BEGIN");
  try {
    connection->Execute("DELETE FROM quillo_dkim_keys WHERE Sender = " +
                        delivery::SqlLiteral(sender));
    connection->Execute(
        "INSERT INTO quillo_dkim_keys (Sender, Domain, Selector, KeyFile, Added) VALUES (" +
        delivery::SqlLiteral(sender) + ", " + delivery::SqlLiteral(domain) + ", " +
        delivery::SqlLiteral(e.selector) + ", " + delivery::SqlLiteral(file) + ", " +
        delivery::SqlLiteral(delivery::LedgerTime()) + ")");
    connection->Execute("COMMIT");
  } catch (...) {
    connection->Execute("ROLLBACK");
    throw;
  }
  std::printf("mail from %s is signed d=%s s=%s with %s\n", sender.c_str(), domain.c_str(),
              e.selector.c_str(), file.c_str());
}

void CmdDkimRemove(const GlobalOptions& g, const std::string& sender) {
  Store store(g.db);
  auto connection = KeyTable(store);
  long removed = 0;
  connection->Execute(
      "DELETE FROM quillo_dkim_keys WHERE Sender = " + delivery::SqlLiteral(SenderKey(sender)),
      &removed);
  if (removed == 0) throw CommandError("no DKIM key is kept for '" + sender + "'");
  std::printf("mail from %s is no longer signed\n", SenderKey(sender).c_str());
}

void CmdDkimList(const GlobalOptions& g) {
  Store store(g.db);
  KeyTable(store);
  std::vector<std::vector<std::string>> rows;
  store.Query("SELECT * FROM quillo_dkim_keys ORDER BY Sender;", [&](const Row& r) {
    rows.push_back({r.Text("Sender"), r.Text("Domain"), r.Text("Selector"), r.Text("KeyFile")});
  });
  PrintTable({"SENDER", "DOMAIN", "SELECTOR", "KEY FILE"}, rows);
}

std::optional<mail::DkimKey> StoredDkimKey(const Store& store, const std::string& sender_address) {
  KeyTable(store);
  const std::string address = mail::MailboxKey(sender_address);
  std::optional<mail::DkimKey> key;
  for (const std::string& sender : {address, AsciiDomain(mail::DomainOf(address))}) {
    store.Query("SELECT Domain, Selector, KeyFile FROM quillo_dkim_keys WHERE Sender = " +
                    delivery::SqlLiteral(sender) + ";",
                [&](const Row& r) {
                  if (!key) key = Load(r.Text("KeyFile"), r.Text("Domain"), r.Text("Selector"));
                });
    if (key) break;
  }
  return key;
}

}  // namespace quillo::cli
