#include "mail/address.h"

#include <idn2.h>

#include <stdexcept>

namespace quillo::mail {

namespace {

bool IsAscii(std::string_view text) {
  for (unsigned char c : text) {
    if (c >= 0x80) return false;
  }
  return true;
}

// RFC 5322 atext, plus any non-ASCII byte (RFC 6531).
bool IsAtext(unsigned char c) {
  if (c >= 0x80) return true;
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return std::string_view("!#$%&'*+-/=?^_`{|}~").find(static_cast<char>(c)) !=
         std::string_view::npos;
}

std::optional<std::string> LocalPartProblem(std::string_view local) {
  if (local.empty()) return "the part before \"@\" is empty";
  if (local.size() > 64) return "the part before \"@\" is longer than 64 characters";
  if (local.front() == '"') {
    if (local.size() < 2 || local.back() != '"') return "a quoted local part is not closed";
    for (size_t i = 1; i + 1 < local.size(); ++i) {
      unsigned char c = static_cast<unsigned char>(local[i]);
      if (c == '\\') {
        ++i;
        continue;
      }
      if (c == '"') return "a quoted local part holds an unescaped quote";
    }
    return std::nullopt;
  }
  if (local.front() == '.' || local.back() == '.')
    return "the local part starts or ends with a dot";
  if (local.find("..") != std::string_view::npos) return "the local part holds two dots in a row";
  for (unsigned char c : local) {
    if (c != '.' && !IsAtext(c)) return "the local part holds a character that needs quoting";
  }
  return std::nullopt;
}

std::optional<std::string> DomainProblem(std::string_view domain) {
  if (domain.empty()) return "the domain after \"@\" is empty";
  if (domain.front() == '[') {
    if (domain.back() != ']') return "an address literal is not closed";
    return std::nullopt;
  }
  std::string ascii(domain);
  if (!IsAscii(domain)) {
    char* converted = nullptr;
    if (idn2_to_ascii_8z(ascii.c_str(), &converted, IDN2_NONTRANSITIONAL) != IDN2_OK) {
      return "the domain is not a valid internationalised domain name";
    }
    ascii = converted;
    idn2_free(converted);
  }
  if (ascii.size() > 255) return "the domain is longer than 255 characters";
  size_t start = 0;
  while (start <= ascii.size()) {
    size_t end = ascii.find('.', start);
    if (end == std::string::npos) end = ascii.size();
    std::string_view label(ascii.data() + start, end - start);
    if (label.empty()) return "the domain has an empty label (two dots, or a dot at an end)";
    if (label.size() > 63) return "a domain label is longer than 63 characters";
    if (label.front() == '-' || label.back() == '-')
      return "a domain label starts or ends with '-'";
    for (char c : label) {
      bool ok =
          (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
      if (!ok) return "the domain holds a character a host name cannot have";
    }
    start = end + 1;
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> MailboxProblem(std::string_view address, bool allow_utf8_local) {
  for (unsigned char c : address) {
    if (c < 0x20 || c == 0x7f) return std::string("it holds a control character (a line break?)");
  }
  if (address.empty()) return std::string("it is empty");
  if (address.size() > 254) return std::string("it is longer than 254 characters");
  size_t at = address.rfind('@');
  if (at == std::string_view::npos) return std::string("it has no \"@\"");
  std::string_view local = address.substr(0, at);
  if (!allow_utf8_local && !IsAscii(local)) {
    return std::string("the part before \"@\" is not ASCII");
  }
  if (auto problem = LocalPartProblem(local)) return problem;
  return DomainProblem(address.substr(at + 1));
}

std::string DomainToAscii(std::string_view address) {
  size_t at = address.rfind('@');
  if (at == std::string_view::npos || IsAscii(address.substr(at + 1))) return std::string(address);
  std::string domain(address.substr(at + 1));
  char* converted = nullptr;
  if (idn2_to_ascii_8z(domain.c_str(), &converted, IDN2_NONTRANSITIONAL) != IDN2_OK) {
    throw std::invalid_argument("the domain '" + domain + "' cannot be written in ASCII");
  }
  std::string out = std::string(address.substr(0, at + 1)) + converted;
  idn2_free(converted);
  return out;
}

std::string_view DomainOf(std::string_view address) {
  size_t at = address.rfind('@');
  return at == std::string_view::npos ? std::string_view() : address.substr(at + 1);
}

std::string MailboxKey(std::string_view address) {
  std::string key(address);
  for (char& c : key) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return key;
}

}  // namespace quillo::mail
