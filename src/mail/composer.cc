#include "mail/composer.h"

#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>
#include <string_view>
#include <vector>

#include "codec/base64.h"
#include "mail/address.h"
#include "platform/error.h"
#include "platform/file.h"

#ifndef QUILLO_VERSION
#define QUILLO_VERSION "0"
#endif

namespace quillo::mail {

namespace {

constexpr size_t kFoldAt = 78;    // Preferred longest header line.
constexpr size_t kLongest = 998;  // Longest line the standard allows.

// --- Text checks ---------------------------------------------------------------

bool IsAscii(std::string_view text) {
  for (unsigned char c : text) {
    if (c >= 0x80) return false;
  }
  return true;
}

bool IsUtf8(std::string_view text) {
  size_t i = 0;
  while (i < text.size()) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    size_t n = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xe ? 3 : (c >> 3) == 0x1e ? 4 : 0;
    if (n == 0 || i + n > text.size()) return false;
    uint32_t cp = n == 1 ? c : n == 2 ? (c & 0x1f) : n == 3 ? (c & 0x0f) : (c & 0x07);
    for (size_t k = 1; k < n; ++k) {
      unsigned char d = static_cast<unsigned char>(text[i + k]);
      if ((d & 0xc0) != 0x80) return false;
      cp = (cp << 6) | (d & 0x3f);
    }
    if ((n == 2 && cp < 0x80) || (n == 3 && cp < 0x800) || (n == 4 && cp < 0x10000) ||
        cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) {
      return false;
    }
    i += n;
  }
  return true;
}

// Refuses what would change the header's structure: CR, LF and the other
// controls (a tab is white space and may stay).
void CheckHeaderText(std::string_view what, std::string_view text) {
  for (unsigned char c : text) {
    if (c == '\r' || c == '\n') {
      throw ComposeError(std::string(what) + " holds a line break");
    }
    if ((c < 0x20 && c != '\t') || c == 0x7f) {
      throw ComposeError(std::string(what) + " holds a control character");
    }
  }
  if (!IsUtf8(text)) throw ComposeError(std::string(what) + " is not UTF-8 text");
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

}  // namespace

std::string RandomHex(size_t bytes) {
  std::vector<unsigned char> random(bytes);
  if (RAND_bytes(random.data(), static_cast<int>(bytes)) != 1) {
    throw ComposeError("the random generator failed");
  }
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  for (unsigned char b : random) {
    out += kHex[b >> 4];
    out += kHex[b & 15];
  }
  return out;
}

namespace {

// --- Header fields ---------------------------------------------------------------

// The length of the last line of `text`.
size_t LastLineLength(std::string_view text) {
  size_t nl = text.rfind('\n');
  return nl == std::string_view::npos ? text.size() : text.size() - nl - 1;
}

// `text` (ASCII, or UTF-8 when it may go raw) folded at its blanks so that
// lines stay within kFoldAt where a blank allows; `used` characters of the
// first line are taken. Empty when some word would pass kLongest.
std::string FoldAtBlanks(std::string_view text, size_t used) {
  std::string out;
  size_t line = used;
  size_t start = 0;
  bool first = true;
  while (start <= text.size()) {
    size_t end = text.find(' ', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view word = text.substr(start, end - start);
    if (word.size() + 2 > kLongest) return {};
    if (!first) {
      if (line + 1 + word.size() > kFoldAt && line > 1) {
        out += "\r\n";
        line = 0;
      }
      out += ' ';
      ++line;
    }
    out += word;
    line += word.size();
    first = false;
    start = end + 1;
  }
  return out;
}

// A whole unstructured value (Subject, the template's own fields).
std::string UnstructuredValue(std::string_view value, size_t used, bool raw_utf8) {
  if (IsAscii(value) || raw_utf8) {
    std::string folded = FoldAtBlanks(value, used);
    if (!folded.empty() || value.empty()) return folded;
  }
  return EncodeWords(value, used);
}

bool IsAtextOrBlank(char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == ' ') {
    return true;
  }
  return std::string_view("!#$%&'*+-/=?^_`{|}~").find(c) != std::string_view::npos;
}

// A display name as a phrase: as it is, quoted, or in encoded words.
std::string Phrase(std::string_view name, size_t used, bool raw_utf8) {
  if (IsAscii(name) || raw_utf8) {
    bool plain = std::all_of(name.begin(), name.end(), [&](char c) {
      return IsAtextOrBlank(c) || (raw_utf8 && static_cast<unsigned char>(c) >= 0x80);
    });
    bool spaced = name.front() == ' ' || name.back() == ' ' || name.find("  ") != name.npos;
    if (plain && !spaced) return FoldAtBlanks(name, used);
    std::string quoted = "\"";
    for (char c : name) {
      if (c == '"' || c == '\\') quoted += '\\';
      quoted += c;
    }
    quoted += '"';
    if (quoted.size() + used <= kLongest) return quoted;
  }
  return EncodeWords(name, used);
}

struct Writer {
  // Raw UTF-8 in header fields: only for a message that must travel with
  // SMTPUTF8 anyway (an address with a non-ASCII local part); encoded words
  // read everywhere otherwise.
  bool utf8;
  bool used_utf8 = false;  // A header field holds raw UTF-8.
  std::string out;

  void Field(std::string_view name, std::string_view value_text) {
    out += name;
    out += ": ";
    out += value_text;
    out += "\r\n";
    if (!IsAscii(value_text)) used_utf8 = true;
  }

  // An address as it may be written: validated, its domain in A-labels
  // unless raw UTF-8 may go.
  std::string Address(std::string_view what, const std::string& address) {
    CheckHeaderText(what, address);
    if (auto problem = MailboxProblem(address, utf8)) {
      throw ComposeError(std::string(what) + " '" + address +
                         "' is not a valid address: " + *problem);
    }
    return utf8 ? address : DomainToAscii(address);
  }

  void MailboxField(std::string_view name, std::string_view what, const Mailbox& box) {
    std::string address = Address(what, box.address);
    CheckHeaderText(std::string(what) + "'s name", box.name);
    std::string value;
    if (!box.name.empty()) {
      value = Phrase(box.name, name.size() + 2, utf8);
      value += LastLineLength(value) + name.size() + address.size() + 5 > kFoldAt ? "\r\n <" : " <";
      value += address + ">";
    } else {
      value = address;
    }
    Field(name, value);
  }
};

std::string DateField(std::time_t t) {
  std::tm tm{};
  localtime_r(&t, &tm);
  static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  long offset = tm.tm_gmtoff / 60;
  char sign = offset < 0 ? '-' : '+';
  if (offset < 0) offset = -offset;
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%s, %d %s %d %02d:%02d:%02d %c%02ld%02ld",
                kDays[tm.tm_wday], tm.tm_mday, kMonths[tm.tm_mon], tm.tm_year + 1900, tm.tm_hour,
                tm.tm_min, tm.tm_sec, sign, offset / 60, offset % 60);
  return buffer;
}

// --- Bodies ---------------------------------------------------------------------

// `text` with every line ending as CR LF (a lone CR or LF becomes CR LF),
// ending with one.
std::string CanonicalLines(std::string_view text) {
  std::string out;
  out.reserve(text.size() + text.size() / 32 + 2);
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '\r') {
      out += "\r\n";
      if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
    } else if (c == '\n') {
      out += "\r\n";
    } else {
      out += c;
    }
  }
  if (out.size() < 2 || out.compare(out.size() - 2, 2, "\r\n") != 0) out += "\r\n";
  return out;
}

size_t LongestLine(std::string_view crlf_text) {
  size_t longest = 0, start = 0;
  while (start < crlf_text.size()) {
    size_t end = crlf_text.find("\r\n", start);
    if (end == std::string_view::npos) end = crlf_text.size();
    longest = std::max(longest, end - start);
    start = end + 2;
  }
  return longest;
}

std::string Base64Lines(std::string_view bytes) {
  std::string encoded = Base64Encode(bytes);
  std::string out;
  out.reserve(encoded.size() + encoded.size() / 38 + 2);
  for (size_t i = 0; i < encoded.size(); i += 76) {
    out.append(encoded, i, 76);
    out += "\r\n";
  }
  return out;
}

// One MIME part: its header lines (CRLF-ended) and its encoded content.
struct Part {
  std::string headers;
  std::string content;
};

// A quoted parameter value, or "" when `value` cannot be one as it is.
std::string QuotedParameter(std::string_view value) {
  if (!IsAscii(value)) return {};
  std::string out = "\"";
  for (char c : value) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

// RFC 2231 parameter `name*` (continued as name*0*, name*1*... when long).
std::string ExtendedParameter(std::string_view name, std::string_view value) {
  static const char kHex[] = "0123456789ABCDEF";
  std::vector<std::string> pieces{"utf-8''"};
  for (unsigned char c : value) {
    std::string piece;
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
        std::string_view("!#$&+-.^_`|~").find(static_cast<char>(c)) != std::string_view::npos) {
      piece = static_cast<char>(c);
    } else {
      piece = {'%', kHex[c >> 4], kHex[c & 15]};
    }
    if (pieces.back().size() + piece.size() > 60) pieces.emplace_back();
    pieces.back() += piece;
  }
  if (pieces.size() == 1) return std::string(name) + "*=" + pieces[0];
  std::string out;
  for (size_t i = 0; i < pieces.size(); ++i) {
    if (i > 0) out += ";\r\n ";
    out += std::string(name) + "*" + std::to_string(i) + "*=" + pieces[i];
  }
  return out;
}

std::string_view MediaTypeOf(std::string_view file_name) {
  static constexpr std::array<std::pair<std::string_view, std::string_view>, 24> kTypes{{
      {"txt", "text/plain"},
      {"htm", "text/html"},
      {"html", "text/html"},
      {"csv", "text/csv"},
      {"css", "text/css"},
      {"xml", "text/xml"},
      {"ics", "text/calendar"},
      {"pdf", "application/pdf"},
      {"zip", "application/zip"},
      {"json", "application/json"},
      {"doc", "application/msword"},
      {"rtf", "application/rtf"},
      {"xls", "application/vnd.ms-excel"},
      {"docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
      {"xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
      {"gif", "image/gif"},
      {"jpg", "image/jpeg"},
      {"jpeg", "image/jpeg"},
      {"png", "image/png"},
      {"svg", "image/svg+xml"},
      {"webp", "image/webp"},
      {"bmp", "image/bmp"},
      {"mp3", "audio/mpeg"},
      {"mp4", "video/mp4"},
  }};
  size_t dot = file_name.rfind('.');
  if (dot == std::string_view::npos) return "application/octet-stream";
  std::string ext(file_name.substr(dot + 1));
  for (char& c : ext) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  for (const auto& [e, type] : kTypes) {
    if (e == ext) return type;
  }
  return "application/octet-stream";
}

Part TextPart(std::string_view body, const std::string& content_type, const WireFeatures& features,
              bool* eight_bit) {
  if (!IsUtf8(body)) {
    throw ComposeError("the body is not UTF-8 text (save the template as UTF-8)");
  }
  std::string text = CanonicalLines(body);
  bool has_nul = text.find('\0') != std::string::npos;
  size_t longest = LongestLine(text);
  Part part;
  part.headers = "Content-Type: " + content_type + "; charset=utf-8\r\n";
  if (!has_nul && longest <= kLongest && IsAscii(text)) {
    part.headers += "Content-Transfer-Encoding: 7bit\r\n";
    part.content = std::move(text);
  } else if (!has_nul && longest <= kLongest && features.eight_bit_mime) {
    part.headers += "Content-Transfer-Encoding: 8bit\r\n";
    part.content = std::move(text);
    *eight_bit = true;
  } else {
    part.headers += "Content-Transfer-Encoding: quoted-printable\r\n";
    part.content = QuotedPrintable(text);
  }
  return part;
}

Part FilePartOf(const FilePart& file) {
  std::string path = NativePath(file.path);
  std::string bytes;
  try {
    bytes = ReadFileBytes(path);
  } catch (const RuntimeError& e) {
    throw ComposeError("cannot read attachment '" + file.path + "': " + e.description);
  }
  std::string name = path.substr(path.rfind('/') + 1);
  CheckHeaderText("the attachment's file name", name);
  std::string_view type = MediaTypeOf(name);
  Part part;
  part.headers = "Content-Type: " + std::string(type);
  if (type.substr(0, 5) == "text/" && IsUtf8(bytes)) part.headers += "; charset=utf-8";
  std::string quoted = QuotedParameter(name);
  if (!quoted.empty() && quoted.size() < 200) {
    part.headers += ";\r\n name=" + quoted;
  } else {
    // Old readers understand encoded words here, though the standard does not.
    part.headers += ";\r\n name=\"" + EncodeWords(name, 7) + "\"";
  }
  part.headers += "\r\nContent-Transfer-Encoding: base64\r\n";
  part.headers +=
      file.content_id.empty() ? "Content-Disposition: attachment" : "Content-Disposition: inline";
  if (!quoted.empty() && quoted.size() < 200) {
    part.headers += ";\r\n filename=" + quoted + "\r\n";
  } else {
    part.headers += ";\r\n " + ExtendedParameter("filename", name) + "\r\n";
  }
  if (!file.content_id.empty()) {
    CheckHeaderText("the inline part's content id", file.content_id);
    std::string id = file.content_id;
    if (id.size() >= 2 && id.front() == '<' && id.back() == '>') id = id.substr(1, id.size() - 2);
    if (id.empty() || id.find_first_of(" <>\"") != std::string::npos || !IsAscii(id)) {
      throw ComposeError("the inline part's content id '" + file.content_id + "' is not valid");
    }
    part.headers += "Content-ID: <" + id + ">\r\n";
  }
  part.content = Base64Lines(bytes);
  return part;
}

bool Contains(const Part& part, std::string_view text) {
  return part.content.find(text) != std::string::npos;
}

// A multipart of `parts` with a boundary that none of them contains.
Part Multipart(std::string_view subtype, std::string_view extra_parameters,
               const std::vector<Part>& parts) {
  std::string boundary;
  for (int attempt = 0;; ++attempt) {
    boundary = "=_quillo_" + RandomHex(12);
    std::string delimiter = "--" + boundary;
    bool clash = std::any_of(parts.begin(), parts.end(),
                             [&](const Part& p) { return Contains(p, delimiter); });
    if (!clash) break;
    if (attempt > 16) throw ComposeError("no boundary could be found that the content lacks");
  }
  Part out;
  out.headers = "Content-Type: multipart/" + std::string(subtype) + ";" +
                std::string(extra_parameters) + "\r\n boundary=\"" + boundary + "\"\r\n";
  out.content = "This is a message in MIME format.\r\n";
  for (const Part& p : parts) {
    out.content += "\r\n--" + boundary + "\r\n";
    out.content += p.headers;
    out.content += "\r\n";
    // Every content ends with CR LF; the CR LF before the next delimiter
    // belongs to the delimiter, so the part keeps its own.
    out.content += p.content;
  }
  out.content += "\r\n--" + boundary + "--\r\n";
  return out;
}

// Header fields the composer writes itself; a template may not set them.
constexpr std::string_view kOwnFields[] = {"Date",
                                           "From",
                                           "To",
                                           "Subject",
                                           "Message-ID",
                                           "MIME-Version",
                                           "X-Mailer",
                                           "Content-Type",
                                           "Content-Transfer-Encoding",
                                           "Content-Disposition",
                                           "Cc",
                                           "Bcc",
                                           "Sender",
                                           "Return-Path"};

void CheckFieldName(std::string_view name) {
  if (name.empty()) throw ComposeError("a header field has an empty name");
  for (unsigned char c : name) {
    if (c < 33 || c > 126 || c == ':') {
      throw ComposeError("the header field name '" + std::string(name) + "' is not valid");
    }
  }
  if (name.size() > 76)
    throw ComposeError("the header field name '" + std::string(name) + "' is too long");
  for (std::string_view own : kOwnFields) {
    if (EqualsIgnoringCase(name, own)) {
      throw ComposeError("the template sets the header field '" + std::string(name) +
                         "', which quillo writes itself");
    }
  }
}

}  // namespace

const char* Version() { return QUILLO_VERSION; }

std::string EncodeWords(std::string_view text, size_t first_line_used) {
  std::string out;
  size_t line = first_line_used;
  size_t i = 0;
  bool first = true;
  while (i < text.size() || first) {
    // Room for "=?utf-8?B?" + base64 + "?=" on this line, at most 75 in all.
    size_t room = kFoldAt > line + 1 ? kFoldAt - line - (first ? 0 : 1) : 0;
    room = std::min<size_t>(room, 75);
    if (room < 16) {
      out += "\r\n ";
      line = 1;
      first = false;
      continue;
    }
    size_t bytes = (room - 12) / 4 * 3;
    size_t end = std::min(text.size(), i + bytes);
    // Never split a UTF-8 sequence between two words, and end every word but
    // the last on a multiple of three bytes: some readers join adjacent words
    // before decoding, and padding in the middle would cut the text there.
    auto boundary = [&](size_t at) {
      return at >= text.size() || (static_cast<unsigned char>(text[at]) & 0xc0) != 0x80;
    };
    if (end < text.size()) {
      size_t even = end;
      while (even > i && ((even - i) % 3 != 0 || !boundary(even))) --even;
      if (even > i) {
        end = even;
      } else {
        while (end > i && !boundary(end)) --end;
      }
    }
    if (!first) {
      out += ' ';
      ++line;
    }
    std::string word = "=?utf-8?B?" + Base64Encode(text.substr(i, end - i)) + "?=";
    out += word;
    line += word.size();
    i = end;
    first = false;
    if (i < text.size()) {
      out += "\r\n";
      line = 0;
    }
  }
  return out;
}

std::string QuotedPrintable(std::string_view bytes) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(bytes.size() + bytes.size() / 8);
  size_t start = 0;
  while (start < bytes.size()) {
    size_t end = bytes.find("\r\n", start);
    bool has_end = end != std::string_view::npos;
    if (!has_end) end = bytes.size();
    size_t column = 0;
    for (size_t i = start; i < end; ++i) {
      unsigned char c = static_cast<unsigned char>(bytes[i]);
      bool last = i + 1 == end;
      std::string piece;
      if ((c >= 33 && c <= 126 && c != '=') || ((c == ' ' || c == '\t') && !last)) {
        piece = static_cast<char>(c);
      } else {
        piece = {'=', kHex[c >> 4], kHex[c & 15]};
      }
      if (column + piece.size() > 75) {
        out += "=\r\n";
        column = 0;
      }
      out += piece;
      column += piece.size();
    }
    if (has_end) out += "\r\n";
    start = has_end ? end + 2 : end;
  }
  return out;
}

ComposedMessage Compose(const Draft& draft, const WireFeatures& features,
                        const ComposeOptions& options) {
  ComposedMessage result;
  auto non_ascii_local = [](const std::string& address) {
    std::string_view local = std::string_view(address).substr(0, address.rfind('@'));
    return !IsAscii(local);
  };
  bool utf8 = non_ascii_local(draft.from.address) || non_ascii_local(draft.to.address);
  if (utf8 && !features.smtputf8) {
    throw ComposeError(
        "an address has a non-ASCII local part and the server does not offer "
        "SMTPUTF8");
  }
  Writer w{utf8, false, {}};

  // Header fields first: any that cannot be written ends here, before the
  // files are read.
  std::time_t when = options.date ? *options.date : std::time(nullptr);
  w.Field("Date", DateField(when));
  w.MailboxField("From", "the sender", draft.from);
  w.MailboxField("To", "the recipient", draft.to);
  CheckHeaderText("the subject", draft.subject);
  w.Field("Subject", UnstructuredValue(draft.subject, 9, utf8));
  std::string domain(DomainOf(w.Address("the sender", draft.from.address)));
  result.message_id = "<";
  result.message_id += RandomHex(16);
  result.message_id += "@";
  result.message_id += domain;
  result.message_id += ">";
  w.Field("Message-ID", result.message_id);
  w.Field("MIME-Version", "1.0");
  std::string mailer = options.mailer.empty() ? std::string("quillo ") + Version() : options.mailer;
  CheckHeaderText("X-Mailer", mailer);
  w.Field("X-Mailer", FoldAtBlanks(mailer, 10));
  for (const auto& [name, value] : draft.headers) {
    CheckFieldName(name);
    CheckHeaderText("the header field '" + name + "'", value);
    w.Field(name, UnstructuredValue(value, name.size() + 2, utf8));
  }
  if (draft.content_type != "text/plain" && draft.content_type != "text/html") {
    throw ComposeError("the body's type '" + draft.content_type +
                       "' is neither text/plain nor text/html");
  }

  bool eight_bit = false;
  Part body = TextPart(draft.body, draft.content_type, features, &eight_bit);
  std::string root_type = draft.content_type;
  if (draft.content_type == "text/html" && !draft.text_alternative.empty()) {
    // The plain text first: a reader shows the last part it can.
    std::vector<Part> alternative{
        TextPart(draft.text_alternative, "text/plain", features, &eight_bit), std::move(body)};
    body = Multipart("alternative", "", alternative);
    root_type = "multipart/alternative";
  }
  std::vector<Part> inline_parts, attachments;
  for (const FilePart& file : draft.attachments) {
    (file.content_id.empty() ? attachments : inline_parts).push_back(FilePartOf(file));
  }
  Part top = std::move(body);
  if (!inline_parts.empty()) {
    std::vector<Part> related{std::move(top)};
    for (Part& p : inline_parts) related.push_back(std::move(p));
    top = Multipart("related", " type=\"" + root_type + "\";", related);
  }
  if (!attachments.empty()) {
    std::vector<Part> mixed{std::move(top)};
    for (Part& p : attachments) mixed.push_back(std::move(p));
    top = Multipart("mixed", "", mixed);
  }

  result.data = std::move(w.out);
  result.data += top.headers;
  result.data += "\r\n";
  result.data += top.content;
  result.needs_8bitmime = eight_bit;
  result.needs_smtputf8 = w.used_utf8;
  return result;
}

}  // namespace quillo::mail
