#include "mail/dkim.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <utility>
#include <vector>

#include "codec/base64.h"

namespace quillo::mail {

namespace {

bool IsWsp(char c) { return c == ' ' || c == '\t'; }

std::string Lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

EVP_PKEY* Pkey(const DkimKey& key) { return static_cast<EVP_PKEY*>(key.key.get()); }

std::string Sha256(std::string_view data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
    throw DkimError("SHA-256 failed");
  }
  return std::string(reinterpret_cast<char*>(digest), length);
}

// The header fields of `message` as (name, value) with the value unfolded
// from its raw lines (CRLFs kept for the canonical form to remove).
std::vector<std::pair<std::string, std::string>> HeaderFields(std::string_view message,
                                                              std::string_view* body) {
  std::vector<std::pair<std::string, std::string>> fields;
  size_t pos = 0;
  while (pos < message.size()) {
    size_t end = message.find("\r\n", pos);
    if (end == std::string_view::npos) throw DkimError("the message has no end of header");
    if (end == pos) {
      *body = message.substr(end + 2);
      return fields;
    }
    std::string_view line = message.substr(pos, end - pos);
    if (IsWsp(line[0])) {
      if (fields.empty()) throw DkimError("the message starts with a continuation line");
      fields.back().second += "\r\n";
      fields.back().second += line;
    } else {
      size_t colon = line.find(':');
      if (colon == std::string_view::npos) throw DkimError("a header line has no colon");
      fields.emplace_back(std::string(line.substr(0, colon)), std::string(line.substr(colon + 1)));
    }
    pos = end + 2;
  }
  throw DkimError("the message has no body separator");
}

std::string Sign(const DkimKey& key, std::string_view data) {
  std::string input = key.algorithm == DkimAlgorithm::kEd25519Sha256
                          ? Sha256(data)  // RFC 8463: Ed25519 signs the SHA-256 hash.
                          : std::string(data);
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  const EVP_MD* md = key.algorithm == DkimAlgorithm::kRsaSha256 ? EVP_sha256() : nullptr;
  if (!ctx || EVP_DigestSignInit(ctx.get(), nullptr, md, nullptr, Pkey(key)) != 1) {
    throw DkimError("cannot start the signature");
  }
  size_t length = 0;
  const auto* bytes = reinterpret_cast<const unsigned char*>(input.data());
  if (EVP_DigestSign(ctx.get(), nullptr, &length, bytes, input.size()) != 1) {
    throw DkimError("cannot sign");
  }
  std::string signature(length, '\0');
  if (EVP_DigestSign(ctx.get(), reinterpret_cast<unsigned char*>(signature.data()), &length, bytes,
                     input.size()) != 1) {
    throw DkimError("cannot sign");
  }
  signature.resize(length);
  return signature;
}

// `value` folded at 76 columns for a header field that starts
// "DKIM-Signature:": tags on one line where they fit, and the b= value
// broken anywhere (whitespace in it is ignored by verifiers).
std::string Fold(const std::vector<std::string>& tags) {
  std::string out = "DKIM-Signature:";
  size_t column = out.size();
  for (size_t i = 0; i < tags.size(); ++i) {
    std::string tag = tags[i] + (i + 1 < tags.size() ? ";" : "");
    if (column + 1 + tag.size() > 76) {
      out += "\r\n\t";
      column = 1;
    } else {
      out += ' ';
      ++column;
    }
    // Only b= may be broken inside its value: FWS is allowed anywhere in
    // Base64, but not inside a header name of h=.
    const bool breakable = tag.rfind("b=", 0) == 0;
    while (breakable && column + tag.size() > 76) {
      size_t take = 76 - column;
      out += tag.substr(0, take);
      out += "\r\n\t";
      column = 1;
      tag.erase(0, take);
    }
    out += tag;
    column += tag.size();
  }
  return out;
}

}  // namespace

std::string RelaxedHeader(std::string_view name, std::string_view value) {
  std::string out = Lower(name);
  while (!out.empty() && IsWsp(out.back())) out.pop_back();
  out += ':';
  std::string v;
  bool space = false;
  for (char c : value) {
    if (c == '\r' || c == '\n') continue;  // Unfold.
    if (IsWsp(c)) {
      space = true;
      continue;
    }
    if (space && !v.empty()) v += ' ';
    space = false;
    v += c;
  }
  return out + v;
}

std::string RelaxedBody(std::string_view body) {
  std::string out;
  size_t pos = 0;
  while (pos < body.size()) {
    size_t end = body.find("\r\n", pos);
    std::string_view line =
        body.substr(pos, end == std::string_view::npos ? std::string_view::npos : end - pos);
    std::string l;
    bool space = false;
    for (char c : line) {
      if (IsWsp(c)) {
        space = true;
        continue;
      }
      if (space) l += ' ';
      space = false;
      l += c;
    }
    out += l;
    out += "\r\n";
    if (end == std::string_view::npos) break;
    pos = end + 2;
  }
  // Empty lines at the end are ignored; an empty body stays empty.
  while (out.size() >= 4 && out.compare(out.size() - 4, 4, "\r\n\r\n") == 0) {
    out.resize(out.size() - 2);
  }
  if (out == "\r\n") out.clear();
  return out;
}

DkimKey LoadDkimKey(const std::string& path, const std::string& domain,
                    const std::string& selector) {
  if (domain.empty() || selector.empty()) throw DkimError("DKIM needs a domain and a selector");
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (!file) throw DkimError("cannot read the DKIM key '" + path + "'");
  struct stat info {};
  if (fstat(fileno(file), &info) == 0 && (info.st_mode & 077) != 0) {
    std::fclose(file);
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(info.st_mode & 07777));
    throw DkimError("the DKIM key '" + path + "' can be read by others (mode " + mode +
                    "): make it readable by its owner only (chmod 600)");
  }
  EVP_PKEY* pkey = PEM_read_PrivateKey(file, nullptr, nullptr, nullptr);
  std::fclose(file);
  if (!pkey) throw DkimError("'" + path + "' holds no PEM private key");
  DkimKey key{domain, selector, DkimAlgorithm::kRsaSha256, std::shared_ptr<void>(pkey, [](void* p) {
                EVP_PKEY_free(static_cast<EVP_PKEY*>(p));
              })};
  int id = EVP_PKEY_get_base_id(pkey);
  if (id == EVP_PKEY_ED25519) {
    key.algorithm = DkimAlgorithm::kEd25519Sha256;
  } else if (id != EVP_PKEY_RSA || EVP_PKEY_get_bits(pkey) < 1024) {
    throw DkimError("the DKIM key '" + path + "' is neither RSA of 1024 bits or more nor Ed25519");
  }
  return key;
}

std::string DkimSignature(const DkimKey& key, std::string_view message, std::time_t now) {
  std::string_view body;
  auto fields = HeaderFields(message, &body);
  static const char* const kSigned[] = {"from",
                                        "to",
                                        "subject",
                                        "date",
                                        "message-id",
                                        "mime-version",
                                        "content-type",
                                        "content-transfer-encoding",
                                        "list-unsubscribe",
                                        "list-unsubscribe-post",
                                        "list-id"};
  // Fields are signed bottom up when a name repeats; ours do not repeat.
  std::string names, canonical;
  for (const char* wanted : kSigned) {
    for (const auto& [name, value] : fields) {
      if (Lower(name) != wanted) continue;
      names += names.empty() ? "" : ":";
      names += wanted;
      canonical += RelaxedHeader(name, value) + "\r\n";
      break;
    }
  }
  if (names.rfind("from", 0) != 0) throw DkimError("the message has no From to sign");
  names += ":from";  // Signed as absent too: a second From breaks the signature.

  const std::string body_hash = Base64Encode(Sha256(RelaxedBody(body)));
  std::vector<std::string> tags = {
      "v=1",
      std::string("a=") +
          (key.algorithm == DkimAlgorithm::kRsaSha256 ? "rsa-sha256" : "ed25519-sha256"),
      "c=relaxed/relaxed",
      "d=" + key.domain,
      "s=" + key.selector,
      "t=" + std::to_string(static_cast<long long>(now)),
      "h=" + names,
      "bh=" + body_hash,
      "b="};
  std::string unsigned_field = Fold(tags);
  canonical += RelaxedHeader("DKIM-Signature", unsigned_field.substr(15));
  tags.back() += Base64Encode(Sign(key, canonical));
  return Fold(tags) + "\r\n";
}

std::string GenerateDkimKey(DkimAlgorithm algorithm, const std::string& private_key_path) {
  EVP_PKEY* raw = algorithm == DkimAlgorithm::kRsaSha256
                      ? EVP_RSA_gen(2048)
                      : EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
  if (!raw) throw DkimError("cannot make a key pair");
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> pkey(raw, EVP_PKEY_free);
  int fd = ::open(private_key_path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
  if (fd < 0) {
    throw DkimError("cannot create '" + private_key_path + "' (it must not exist yet)");
  }
  std::FILE* file = fdopen(fd, "wb");
  bool written =
      file && PEM_write_PrivateKey(file, pkey.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1;
  if (file) std::fclose(file);
  if (!written) throw DkimError("cannot write '" + private_key_path + "'");

  std::string public_key;
  if (algorithm == DkimAlgorithm::kRsaSha256) {
    int length = i2d_PUBKEY(pkey.get(), nullptr);
    public_key.resize(static_cast<size_t>(length));
    auto* p = reinterpret_cast<unsigned char*>(public_key.data());
    i2d_PUBKEY(pkey.get(), &p);
  } else {
    size_t length = 32;
    public_key.resize(length);
    EVP_PKEY_get_raw_public_key(pkey.get(), reinterpret_cast<unsigned char*>(public_key.data()),
                                &length);
    public_key.resize(length);
  }
  return std::string("v=DKIM1; k=") + (algorithm == DkimAlgorithm::kRsaSha256 ? "rsa" : "ed25519") +
         "; p=" + Base64Encode(public_key);
}

}  // namespace quillo::mail
