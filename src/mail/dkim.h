// DKIM signatures (RFC 6376) for the messages our composer makes: rsa-sha256
// or ed25519-sha256 (RFC 8463), relaxed/relaxed canonicalisation.
//
//   quillo::mail::DkimKey key = quillo::mail::LoadDkimKey("/etc/quillo/dkim.pem",
//                                                         "example.com", "mail2026");
//   std::string header = quillo::mail::DkimSignature(key, composed.data, std::time(nullptr));
//   composed.data = header + composed.data;
//
// The signature covers From (twice, so that no second From can be added
// without breaking it), To, Subject, Date, Message-ID, MIME-Version,
// Content-Type and Content-Transfer-Encoding, those of them the message has,
// and the whole body. GenerateDkimKey makes a key pair and gives the DNS TXT
// record that publishes its public half.
//
// Thread-safety: the functions keep no state; a DkimKey is immutable.
#ifndef QUILLO_MAIL_DKIM_H_
#define QUILLO_MAIL_DKIM_H_

#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace quillo::mail {

enum class DkimAlgorithm { kRsaSha256, kEd25519Sha256 };

// A key that cannot be read or used, or a message that cannot be signed;
// what() says why (never with key material).
class DkimError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A signing key and where its public half is published
// (`selector`._domainkey.`domain`).
struct DkimKey {
  std::string domain;
  std::string selector;
  DkimAlgorithm algorithm = DkimAlgorithm::kRsaSha256;
  std::shared_ptr<void> key;  // The OpenSSL EVP_PKEY.
};

// Reads a PEM private key (RSA of 1024 bits or more, or Ed25519) from
// `path`, which must be readable by its owner only. Throws DkimError.
DkimKey LoadDkimKey(const std::string& path, const std::string& domain,
                    const std::string& selector);

// The "DKIM-Signature:" header field, folded, ending in CRLF, to put before
// `message` (CRLF lines, header block, blank line, body; not dot-stuffed),
// signed at `now`.
std::string DkimSignature(const DkimKey& key, std::string_view message, std::time_t now);

// Makes a new key pair (RSA 2048 or Ed25519), writes the private key as PEM
// to `private_key_path`, readable by its owner only, and returns the TXT
// record text ("v=DKIM1; k=...; p=..."). Throws DkimError.
std::string GenerateDkimKey(DkimAlgorithm algorithm, const std::string& private_key_path);

// The two canonical forms, exposed for tests.
std::string RelaxedHeader(std::string_view name, std::string_view value);
std::string RelaxedBody(std::string_view body);

}  // namespace quillo::mail

#endif  // QUILLO_MAIL_DKIM_H_
