#include "delivery/unsubscribe.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <memory>

#include "delivery/ledger.h"
#include "mail/address.h"
#include "mail/composer.h"
#include "platform/database.h"
#include "platform/error.h"

namespace quillo::delivery {

namespace {

std::string Base64Url(const unsigned char* bytes, size_t n) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string out;
  unsigned value = 0;
  int bits = 0;
  for (size_t i = 0; i < n; ++i) {
    value = (value << 8) | bytes[i];
    bits += 8;
    while (bits >= 6) {
      bits -= 6;
      out += kAlphabet[(value >> bits) & 63];
    }
  }
  if (bits > 0) out += kAlphabet[(value << (6 - bits)) & 63];
  return out;
}

bool IsKeyText(std::string_view text) {
  if (text.empty() || text.size() > 64) return false;
  for (char c : text) {
    bool ok = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    if (!ok) return false;
  }
  return true;
}

std::string Scalar(Connection& connection, const std::string& sql, std::string_view field) {
  Recordset rs;
  rs.Open(sql, std::shared_ptr<Connection>(&connection, [](Connection*) {}), kAdOpenForwardOnly,
          kAdLockReadOnly, kAdCmdText);
  std::string value = rs.Eof() ? std::string() : FieldText(rs, field);
  rs.Close();
  return value;
}

}  // namespace

std::string UnsubscribeKey(Connection& connection) {
  connection.Execute(
      "CREATE TABLE IF NOT EXISTS quillo_meta (Name VARCHAR(64) NOT NULL PRIMARY KEY, Value "
      "TEXT)");
  const std::string sql = "SELECT Value FROM quillo_meta WHERE Name = 'unsubscribe_key'";
  std::string key = Scalar(connection, sql, "Value");
  if (!key.empty()) return key;
  try {
    connection.Execute("INSERT INTO quillo_meta (Name, Value) VALUES ('unsubscribe_key', '" +
                       mail::RandomHex(32) + "')");
  } catch (const RuntimeError&) {
    // Another process made it first; its key is the one.
  }
  return Scalar(connection, sql, "Value");
}

std::string UnsubscribeToken(std::string_view key, std::string_view client,
                             std::string_view campaign) {
  std::string message(client);
  message += '\0';
  message += campaign;
  unsigned char mac[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(message.data()), message.size(), mac, &length);
  return Base64Url(mac, 16);
}

std::string UnsubscribePath(std::string_view key, std::string_view client,
                            std::string_view campaign) {
  return "/u/" + std::string(client) + "/" + std::string(campaign) + "/" +
         UnsubscribeToken(key, client, campaign);
}

std::optional<UnsubscribeTarget> CheckUnsubscribePath(std::string_view key, std::string_view path) {
  if (path.substr(0, 3) != "/u/") return std::nullopt;
  path.remove_prefix(3);
  size_t a = path.find('/');
  if (a == std::string_view::npos) return std::nullopt;
  size_t b = path.find('/', a + 1);
  if (b == std::string_view::npos) return std::nullopt;
  std::string_view client = path.substr(0, a);
  std::string_view campaign = path.substr(a + 1, b - a - 1);
  std::string_view token = path.substr(b + 1);
  if (!IsKeyText(client) || !IsKeyText(campaign)) return std::nullopt;
  std::string expected = UnsubscribeToken(key, client, campaign);
  if (token.size() != expected.size() ||
      CRYPTO_memcmp(token.data(), expected.data(), expected.size()) != 0) {
    return std::nullopt;
  }
  return UnsubscribeTarget{std::string(client), std::string(campaign)};
}

bool RecordUnsubscribe(Connection& connection, const UnsubscribeTarget& target) {
  std::string email =
      Scalar(connection, "SELECT EMail FROM dmclients WHERE Account = " + SqlLiteral(target.client),
             "EMail");
  if (email.empty()) return false;
  CreateSuppressionSchema(connection);
  const std::string key = mail::MailboxKey(email);
  if (!Scalar(connection, "SELECT Email FROM quillo_suppressions WHERE Email = " + SqlLiteral(key),
              "Email")
           .empty()) {
    return true;
  }
  try {
    connection.Execute(
        "INSERT INTO quillo_suppressions (Email, Reason, Detail, CampaignRecID, Added) VALUES (" +
        SqlLiteral(key) + ", 'unsubscribed', 'one-click unsubscribe', " +
        SqlLiteral(target.campaign) + ", " + SqlLiteral(LedgerTime()) + ")");
  } catch (const RuntimeError&) {
    // Recorded at the same moment by another request.
  }
  return true;
}

}  // namespace quillo::delivery
