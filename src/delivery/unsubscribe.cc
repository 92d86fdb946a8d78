#include "delivery/unsubscribe.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <memory>

#include "codec/base64.h"
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

}  // namespace

std::string UnsubscribeKey(Connection& connection) {
  connection.Execute(
      "CREATE TABLE IF NOT EXISTS quillo_meta (Name VARCHAR(64) NOT NULL PRIMARY KEY, Value "
      "TEXT)");
  const std::string sql = "SELECT Value FROM quillo_meta WHERE Name = 'unsubscribe_key'";
  std::string key = QueryText(connection, sql, "Value");
  if (!key.empty()) return key;
  try {
    connection.Execute("INSERT INTO quillo_meta (Name, Value) VALUES ('unsubscribe_key', '" +
                       mail::RandomHex(32) + "')");
  } catch (const RuntimeError&) {
    // Another process made it first; its key is the one.
  }
  return QueryText(connection, sql, "Value");
}

namespace {

// HMAC-SHA256 of (`purpose`, client, campaign) under `key`, 128 bits in Base64url.
std::string RecipientMac(std::string_view key, std::string_view purpose, std::string_view client,
                         std::string_view campaign) {
  std::string message(purpose);
  message += client;
  message += '\0';
  message += campaign;
  unsigned char mac[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(message.data()), message.size(), mac, &length);
  return Base64Url(mac, 16);
}

bool SameToken(std::string_view token, const std::string& expected) {
  return token.size() == expected.size() &&
         CRYPTO_memcmp(token.data(), expected.data(), expected.size()) == 0;
}

// A VERP local part is the base, "+", then the Base64url of the packed
// client and campaign keys and 8 bytes of their HMAC: two keys of 32 hex
// digits (the generated kind) take 56 characters, so the local part of a
// short base stays within 64.
constexpr size_t kMaxLocalPart = 64;
constexpr size_t kVerpMacBytes = 8;

// A key as bytes: hex of even length packed two digits a byte (flag 0x80 for
// upper case, 0xC0 for lower case, with the byte count), else its length and
// its text.
void PackKey(std::string_view key, std::string* out) {
  bool upper = key.size() % 2 == 0, lower = key.size() % 2 == 0;
  for (char c : key) {
    bool digit = c >= '0' && c <= '9';
    upper = upper && (digit || (c >= 'A' && c <= 'F'));
    lower = lower && (digit || (c >= 'a' && c <= 'f'));
  }
  if (upper || lower) {
    *out += static_cast<char>((upper ? 0x80 : 0xC0) | (key.size() / 2));
    for (size_t i = 0; i < key.size(); i += 2) {
      auto nibble = [](char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; };
      *out += static_cast<char>(nibble(key[i]) * 16 + nibble(key[i + 1]));
    }
  } else {
    *out += static_cast<char>(key.size());
    *out += key;
  }
}

// The key packed at the front of `in`, which loses it; false when malformed.
bool UnpackKey(std::string_view* in, std::string* key) {
  if (in->empty()) return false;
  const unsigned flag = static_cast<unsigned char>((*in)[0]);
  in->remove_prefix(1);
  if (flag & 0x80) {
    const size_t n = flag & 0x3F;
    if (in->size() < n) return false;
    const char* digits = (flag & 0x40) ? "0123456789abcdef" : "0123456789ABCDEF";
    for (size_t i = 0; i < n; ++i) {
      const unsigned char b = static_cast<unsigned char>((*in)[i]);
      *key += digits[b >> 4];
      *key += digits[b & 15];
    }
    in->remove_prefix(n);
  } else {
    if (in->size() < flag) return false;
    *key = std::string(in->substr(0, flag));
    in->remove_prefix(flag);
  }
  return IsKeyText(*key);
}

std::string VerpMac(std::string_view key, std::string_view packed) {
  unsigned char mac[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  const std::string message = "verp" + std::string(1, '\0') + std::string(packed);
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(message.data()), message.size(), mac, &length);
  return std::string(reinterpret_cast<const char*>(mac), kVerpMacBytes);
}

std::string FromBase64Url(std::string_view text) {
  std::string standard(text);
  for (char& c : standard) {
    if (c == '-')
      c = '+';
    else if (c == '_')
      c = '/';
    else if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')))
      return {};
  }
  while (standard.size() % 4) standard += '=';
  return Base64Decode(standard);
}

}  // namespace

std::string UnsubscribeToken(std::string_view key, std::string_view client,
                             std::string_view campaign) {
  return RecipientMac(key, "", client, campaign);
}

std::string VerpAddress(std::string_view key, std::string_view return_path, std::string_view client,
                        std::string_view campaign) {
  size_t at = return_path.rfind('@');
  if (at == std::string_view::npos || !IsKeyText(client) || !IsKeyText(campaign))
    return std::string(return_path);
  std::string packed;
  PackKey(client, &packed);
  PackKey(campaign, &packed);
  packed += VerpMac(key, packed);
  std::string local =
      std::string(return_path.substr(0, at)) + "+" +
      Base64Url(reinterpret_cast<const unsigned char*>(packed.data()), packed.size());
  if (local.size() > kMaxLocalPart) return std::string(return_path);
  return local + std::string(return_path.substr(at));
}

std::optional<UnsubscribeTarget> CheckVerpAddress(std::string_view key, std::string_view address) {
  size_t at = address.rfind('@');
  if (at == std::string_view::npos) return std::nullopt;
  std::string_view local = address.substr(0, at);
  size_t plus = local.rfind('+');
  if (plus == std::string_view::npos) return std::nullopt;
  const std::string_view token = local.substr(plus + 1);
  const std::string packed = FromBase64Url(token);
  // Only the one spelling VerpAddress makes (no stray trailing bits).
  if (packed.size() <= kVerpMacBytes ||
      Base64Url(reinterpret_cast<const unsigned char*>(packed.data()), packed.size()) != token) {
    return std::nullopt;
  }
  std::string_view rest(packed);
  UnsubscribeTarget target;
  if (!UnpackKey(&rest, &target.client) || !UnpackKey(&rest, &target.campaign) ||
      rest.size() != kVerpMacBytes) {
    return std::nullopt;
  }
  const std::string_view signed_part(packed.data(), packed.size() - kVerpMacBytes);
  if (!SameToken(rest, VerpMac(key, signed_part))) return std::nullopt;
  return target;
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
  if (!SameToken(token, UnsubscribeToken(key, client, campaign))) return std::nullopt;
  return UnsubscribeTarget{std::string(client), std::string(campaign)};
}

bool RecordUnsubscribe(Connection& connection, const UnsubscribeTarget& target) {
  std::string email = QueryText(
      connection, "SELECT EMail FROM dmclients WHERE Account = " + SqlLiteral(target.client),
      "EMail");
  if (email.empty()) return false;
  SuppressAddress(connection, email, "unsubscribed", "one-click unsubscribe", target.campaign);
  return true;
}

}  // namespace quillo::delivery
