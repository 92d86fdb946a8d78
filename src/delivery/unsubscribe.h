// One-click unsubscribe (RFC 8058): per-recipient links that can be checked
// without a lookup and cannot be forged or enumerated.
//
//   std::string key = quillo::delivery::UnsubscribeKey(connection);
//   std::string path = quillo::delivery::UnsubscribePath(key, client, campaign);
//   // "https://example.com/quillo" + path goes in List-Unsubscribe.
//   if (auto who = quillo::delivery::CheckUnsubscribePath(key, path)) ...
//
// A path is "/u/CLIENT/CAMPAIGN/TOKEN": the client's and the campaign's keys
// and an HMAC-SHA256 of both under the database's own key (kept in
// quillo_meta, made the first time one is needed), cut to 128 bits and
// Base64url-encoded. Without the key no token can be made, and a token is
// good for its client and campaign only.
//
// Thread-safety: the functions keep no state.
#ifndef QUILLO_DELIVERY_UNSUBSCRIBE_H_
#define QUILLO_DELIVERY_UNSUBSCRIBE_H_

#include <optional>
#include <string>
#include <string_view>

namespace quillo {

class Connection;

namespace delivery {

// The database's unsubscribe key (64 hex digits), made and stored when
// missing.
std::string UnsubscribeKey(Connection& connection);

// The token of (client, campaign) under `key`.
std::string UnsubscribeToken(std::string_view key, std::string_view client,
                             std::string_view campaign);

// "/u/CLIENT/CAMPAIGN/TOKEN".
std::string UnsubscribePath(std::string_view key, std::string_view client,
                            std::string_view campaign);

struct UnsubscribeTarget {
  std::string client;    // dmclients Account.
  std::string campaign;  // dmmrktcmp RecID.
};

// The client and campaign of a path whose token is right, else nullopt (a
// malformed path, a wrong, truncated or altered token, or another client's).
std::optional<UnsubscribeTarget> CheckUnsubscribePath(std::string_view key, std::string_view path);

// A VERP return path for (client, campaign): "bounce@example.com" becomes
// "bounce+TOKEN@example.com", TOKEN carrying both keys and 64 bits of their
// HMAC under the same key as the unsubscribe links, for this use only.
// Returned mail that comes back to it names its recipient even when the
// report itself does not. `return_path` unchanged when the local part would
// pass 64 characters or a key is not plain letters and digits. Like every
// local part the token is case-sensitive.
std::string VerpAddress(std::string_view key, std::string_view return_path, std::string_view client,
                        std::string_view campaign);

// The client and campaign of a VERP address whose token is right, else nullopt.
std::optional<UnsubscribeTarget> CheckVerpAddress(std::string_view key, std::string_view address);

// Puts the client's address on the suppression list as unsubscribed from
// the campaign (once; a second opt-out changes nothing). False when the
// client no longer exists.
bool RecordUnsubscribe(Connection& connection, const UnsubscribeTarget& target);

}  // namespace delivery
}  // namespace quillo

#endif  // QUILLO_DELIVERY_UNSUBSCRIBE_H_
