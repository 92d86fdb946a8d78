#include "mail/returned_mail.h"

#include <cctype>
#include <cstdlib>

#include "codec/base64.h"
#include "platform/text.h"

namespace quillo::mail {

namespace {

// Nested multiparts are followed this deep, no deeper.
constexpr int kMaxDepth = 8;
// A diagnostic is kept to this many characters.
constexpr size_t kMaxDiagnostic = 500;

struct Field {
  std::string name;  // Lower case.
  std::string value;
};

// The value of the first field called `name` (lower case), or "".
std::string GetField(const std::vector<Field>& fields, std::string_view name) {
  for (const Field& f : fields)
    if (f.name == name) return f.value;
  return {};
}

// One entity: its header fields and its body (LF lines).
struct Entity {
  std::vector<Field> fields;
  std::string_view body;

  std::string Get(std::string_view name) const { return GetField(fields, name); }
};

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// `text` without leading and trailing blanks and line breaks.
std::string Strip(std::string_view text) {
  size_t b = text.find_first_not_of(" \t\r\n");
  if (b == std::string_view::npos) return {};
  size_t e = text.find_last_not_of(" \t\r\n");
  return std::string(text.substr(b, e - b + 1));
}

// Header fields of `block` (LF lines), folded lines unfolded. Lines that are
// not fields (an mbox "From " line, junk) are passed over.
std::vector<Field> ParseFields(std::string_view block) {
  std::vector<Field> fields;
  bool last_was_field = false;
  size_t pos = 0;
  while (pos < block.size()) {
    size_t end = block.find('\n', pos);
    if (end == std::string_view::npos) end = block.size();
    std::string_view line = block.substr(pos, end - pos);
    pos = end + 1;
    if (!line.empty() && IsBlank(line[0])) {
      if (last_was_field) fields.back().value += std::string(line);
      continue;
    }
    size_t colon = line.find(':');
    last_was_field = false;
    if (colon == std::string_view::npos || colon == 0) continue;
    std::string_view name = line.substr(0, colon);
    bool good = true;
    for (char c : name) good = good && c > ' ' && c < 127;
    if (!good) continue;
    fields.push_back({LCase(name), std::string(line.substr(colon + 1))});
    last_was_field = true;
  }
  for (Field& f : fields) f.value = Strip(f.value);
  return fields;
}

// Splits `text` (LF lines) at its first empty line.
Entity ParseEntity(std::string_view text) {
  Entity e;
  size_t split = text.find("\n\n");
  if (!text.empty() && text[0] == '\n') {
    e.body = text.substr(1);
  } else if (split == std::string_view::npos) {
    e.fields = ParseFields(text);
  } else {
    e.fields = ParseFields(text.substr(0, split + 1));
    e.body = text.substr(split + 2);
  }
  return e;
}

// `text` without RFC 5322 comments (parenthesised, nested, outside quotes).
std::string WithoutComments(std::string_view text) {
  std::string out;
  int depth = 0;
  bool quoted = false;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '\\' && i + 1 < text.size() && (quoted || depth > 0)) {
      if (depth == 0) out += text.substr(i, 2);
      ++i;
    } else if (quoted) {
      out += c;
      if (c == '"') quoted = false;
    } else if (c == '(') {
      ++depth;
    } else if (c == ')' && depth > 0) {
      --depth;
    } else if (depth == 0) {
      out += c;
      if (c == '"') quoted = true;
    }
  }
  return out;
}

struct ContentType {
  std::string type;  // "multipart/report", lower case; "text/plain" when absent.
  std::string boundary;
  std::string report_type;  // Lower case.
};

ContentType ParseContentType(std::string_view value) {
  ContentType ct;
  std::string text = WithoutComments(value);
  std::vector<std::string> pieces;
  std::string piece;
  bool quoted = false;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (quoted && c == '\\' && i + 1 < text.size()) {
      piece += text[++i];
      continue;
    }
    if (c == '"') {
      quoted = !quoted;
      continue;
    }
    if (c == ';' && !quoted) {
      pieces.push_back(Strip(piece));
      piece.clear();
      continue;
    }
    piece += c;
  }
  pieces.push_back(Strip(piece));
  ct.type = LCase(pieces[0]);
  std::string compact;
  for (char c : ct.type)
    if (!isspace(static_cast<unsigned char>(c))) compact += c;
  ct.type = compact.empty() ? "text/plain" : compact;
  for (size_t i = 1; i < pieces.size(); ++i) {
    size_t eq = pieces[i].find('=');
    if (eq == std::string::npos) continue;
    std::string name = LCase(Strip(pieces[i].substr(0, eq)));
    std::string v = Strip(pieces[i].substr(eq + 1));
    if (name == "boundary") ct.boundary = v;
    if (name == "report-type") ct.report_type = LCase(v);
  }
  return ct;
}

ContentType TypeOf(const Entity& e) { return ParseContentType(e.Get("content-type")); }

// The body parts of a multipart body, split at `boundary` lines.
std::vector<std::string_view> SplitParts(std::string_view body, std::string_view boundary) {
  std::vector<std::string_view> parts;
  if (boundary.empty()) return parts;
  const std::string delimiter = "--" + std::string(boundary);
  size_t pos = 0;
  size_t part_start = std::string_view::npos;
  while (pos <= body.size()) {
    size_t end = body.find('\n', pos);
    if (end == std::string_view::npos) end = body.size();
    std::string_view line = body.substr(pos, end - pos);
    if (line.substr(0, delimiter.size()) == delimiter) {
      std::string_view rest = line.substr(delimiter.size());
      bool closing = rest.substr(0, 2) == "--";
      if (closing) rest.remove_prefix(2);
      bool only_blanks = true;
      for (char c : rest) only_blanks = only_blanks && IsBlank(c);
      if (only_blanks) {
        if (part_start != std::string_view::npos) {
          // The line break before the delimiter belongs to the delimiter.
          size_t stop = pos > part_start ? pos - 1 : part_start;
          parts.push_back(body.substr(part_start, stop - part_start));
        }
        if (closing) return parts;
        part_start = end + 1 <= body.size() ? end + 1 : body.size();
      }
    }
    if (end == body.size()) break;
    pos = end + 1;
  }
  if (part_start != std::string_view::npos && part_start < body.size())
    parts.push_back(body.substr(part_start));  // No closing delimiter: the rest.
  return parts;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

std::string DecodeQuotedPrintable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c != '=') {
      out += c;
      continue;
    }
    if (i + 1 < text.size() && text[i + 1] == '\n') {
      ++i;  // Soft line break.
    } else if (i + 2 < text.size() && HexValue(text[i + 1]) >= 0 && HexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2]));
      i += 2;
    } else {
      out += c;
    }
  }
  return out;
}

// The body of `e` with its transfer encoding undone, LF lines.
std::string DecodedBody(const Entity& e) {
  std::string encoding = LCase(Strip(WithoutComments(e.Get("content-transfer-encoding"))));
  std::string out;
  if (encoding == "base64") {
    out = Base64Decode(e.body);
  } else if (encoding == "quoted-printable") {
    out = DecodeQuotedPrintable(e.body);
  } else {
    return std::string(e.body);
  }
  std::string lf;
  lf.reserve(out.size());
  for (size_t i = 0; i < out.size(); ++i)
    if (!(out[i] == '\r' && i + 1 < out.size() && out[i + 1] == '\n')) lf += out[i];
  return lf;
}

// The first multipart/report at or below `e`, its parts kept in `parts`.
bool FindReport(const Entity& e, int depth, ContentType* type, std::vector<Entity>* parts) {
  ContentType ct = TypeOf(e);
  if (ct.type.rfind("multipart/", 0) != 0 || depth > kMaxDepth) return false;
  std::vector<Entity> children;
  for (std::string_view p : SplitParts(e.body, ct.boundary)) children.push_back(ParseEntity(p));
  if (ct.type == "multipart/report") {
    *type = ct;
    *parts = std::move(children);
    return true;
  }
  for (const Entity& child : children)
    if (FindReport(child, depth + 1, type, parts)) return true;
  return false;
}

// Blocks of fields separated by empty (or blank-only) lines, as in a
// delivery-status body.
std::vector<std::vector<Field>> FieldGroups(std::string_view body) {
  std::vector<std::vector<Field>> groups;
  std::string current;
  size_t pos = 0;
  while (pos <= body.size()) {
    size_t eol = body.find('\n', pos);
    if (eol == std::string_view::npos) eol = body.size();
    std::string_view line = body.substr(pos, eol - pos);
    bool empty = true;
    for (char c : line) empty = empty && IsBlank(c);
    if (empty) {
      if (!current.empty()) groups.push_back(ParseFields(current));
      current.clear();
    } else {
      current += line;
      current += '\n';
    }
    if (eol == body.size()) break;
    pos = eol + 1;
  }
  if (!current.empty()) groups.push_back(ParseFields(current));
  return groups;
}

// An address fit to record: an "@", no blank, bracket or control character.
bool IsPlainAddress(std::string_view address) {
  if (address.find('@') == std::string_view::npos) return false;
  for (char c : address)
    if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f || c == '<' || c == '>' || c == '"')
      return false;
  return true;
}

// The address of a "type; address" field when its type is rfc822 or utf-8.
std::string TypedAddress(std::string_view value) {
  size_t semi = value.find(';');
  if (semi == std::string_view::npos) return {};
  std::string type = LCase(Strip(value.substr(0, semi)));
  if (type != "rfc822" && type != "utf-8") return {};
  std::string address = Strip(WithoutComments(value.substr(semi + 1)));
  if (address.size() >= 2 && address.front() == '<' && address.back() == '>')
    address = Strip(address.substr(1, address.size() - 2));
  return IsPlainAddress(address) ? address : std::string();
}

// The addr-specs of an address-list header value ("Ada <ada@x>, bob@y").
std::vector<std::string> AddressesIn(std::string_view value) {
  std::vector<std::string> out;
  std::string text = WithoutComments(value);
  std::string piece;
  bool quoted = false;
  auto flush = [&] {
    std::string p = Strip(piece);
    piece.clear();
    size_t lt = p.rfind('<');
    if (lt != std::string::npos) {
      size_t gt = p.find('>', lt);
      p = gt == std::string::npos ? std::string() : Strip(p.substr(lt + 1, gt - lt - 1));
    }
    size_t colon = p.find(':');  // A group "name: a@b;" keeps its members.
    if (colon != std::string::npos && p.find('@') > colon) p = Strip(p.substr(colon + 1));
    while (!p.empty() && p.back() == ';') p.pop_back();
    if (IsPlainAddress(p)) out.push_back(p);
  };
  for (char c : text) {
    if (c == '"') quoted = !quoted;
    if (c == ',' && !quoted) {
      flush();
      continue;
    }
    piece += c;
  }
  flush();
  return out;
}

std::string OneLine(std::string_view text) {
  std::string out;
  bool space = false;
  for (char c : text) {
    if (c == '\r' || c == '\n' || c == '\t' || c == ' ') {
      space = !out.empty();
      continue;
    }
    if (space) out += ' ';
    space = false;
    out += c;
  }
  if (out.size() > kMaxDiagnostic) out.resize(kMaxDiagnostic);
  return out;
}

// "5.1.1" out of "5.1.1 (bad destination mailbox address)"; "" when not a status.
std::string StatusCode(std::string_view value) {
  std::string code = Strip(WithoutComments(value));
  size_t blank = code.find_first_of(" \t");
  if (blank != std::string::npos) code.resize(blank);
  int dots = 0;
  for (char c : code) {
    if (c == '.')
      ++dots;
    else if (!isdigit(static_cast<unsigned char>(c)))
      return {};
  }
  if (dots != 2 || code.size() < 5 || (code[0] != '2' && code[0] != '4' && code[0] != '5'))
    return {};
  return code;
}

// `text` fit to print in a problem: control characters become "?", at most 80 characters.
std::string Printable(std::string_view text) {
  std::string out;
  for (char c : text.substr(0, 80))
    out += (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) ? '?' : c;
  return out;
}

bool IsReturnedMessage(const std::string& type) {
  return type == "message/rfc822" || type == "message/global" || type == "text/rfc822-headers" ||
         type == "message/rfc822-headers" || type == "message/global-headers";
}

void ReadDeliveryStatus(const std::string& body, ReturnedMail* r) {
  for (const std::vector<Field>& group : FieldGroups(body)) {
    std::string action = LCase(Strip(WithoutComments(GetField(group, "action"))));
    if (action.empty()) continue;  // The per-message fields.
    std::string address = TypedAddress(GetField(group, "original-recipient"));
    if (address.empty()) address = TypedAddress(GetField(group, "final-recipient"));
    if (address.empty()) continue;
    ReturnedRecipient who;
    who.address = address;
    who.action = action;
    who.status = StatusCode(GetField(group, "status"));
    who.diagnostic = OneLine(GetField(group, "diagnostic-code"));
    if (action == "failed") {
      who.kind = who.status.rfind('4', 0) == 0 ? ReturnKind::kSoft : ReturnKind::kHard;
    } else if (action == "delayed") {
      who.kind = ReturnKind::kDelayed;
    } else if (action == "delivered" || action == "relayed" || action == "expanded") {
      who.kind = ReturnKind::kDelivered;
    } else {
      continue;  // Not an action RFC 3464 defines.
    }
    r->recipients.push_back(std::move(who));
  }
  if (r->recipients.empty()) r->problem = "the delivery status names no recipient with an action";
}

void ReadFeedbackReport(const std::string& body, const Entity* returned, ReturnedMail* r) {
  std::vector<Field> fields = ParseFields(body);
  std::string type = LCase(Strip(WithoutComments(GetField(fields, "feedback-type"))));
  if (type.empty()) {
    r->format = ReturnFormat::kUnknown;
    r->problem = "the feedback report has no Feedback-Type";
    return;
  }
  if (type != "abuse" && type != "fraud" && type != "virus" && type != "other") {
    r->problem = "a feedback report of type '" + Printable(type) + "' is not a complaint";
    return;
  }
  std::vector<std::string> addresses;
  for (const Field& f : fields) {
    if (f.name != "original-rcpt-to") continue;
    for (const std::string& a : AddressesIn(f.value)) addresses.push_back(a);
  }
  if (addresses.empty() && returned) addresses = AddressesIn(returned->Get("to"));
  for (const std::string& a : addresses) {
    ReturnedRecipient who;
    who.address = a;
    who.kind = ReturnKind::kComplaint;
    who.diagnostic = type;
    r->recipients.push_back(std::move(who));
  }
  if (r->recipients.empty())
    r->problem = "the feedback report names no recipient (no Original-Rcpt-To, no returned To)";
}

int MonthOf(std::string_view name) {
  static const char* const kMonths[] = {"jan", "feb", "mar", "apr", "may", "jun",
                                        "jul", "aug", "sep", "oct", "nov", "dec"};
  std::string lower = LCase(name.substr(0, 3));
  for (int i = 0; i < 12; ++i)
    if (name.size() == 3 && lower == kMonths[i]) return i + 1;
  return 0;
}

// Days since 1970-01-01 of a proleptic Gregorian date.
long DaysFromCivil(long y, int m, int d) {
  y -= m <= 2;
  const long era = (y >= 0 ? y : y - 399) / 400;
  const long yoe = y - era * 400;
  const long doy = (153L * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

}  // namespace

const char* ReturnKindName(ReturnKind kind) {
  switch (kind) {
    case ReturnKind::kHard:
      return "hard";
    case ReturnKind::kSoft:
      return "soft";
    case ReturnKind::kDelayed:
      return "delayed";
    case ReturnKind::kDelivered:
      return "delivered";
    case ReturnKind::kComplaint:
      return "complaint";
  }
  return "hard";
}

std::optional<std::time_t> ParseMailDate(std::string_view text) {
  std::string clean = WithoutComments(text);
  for (char& c : clean)
    if (c == ',' || c == '\t') c = ' ';
  std::vector<std::string> words;
  for (const std::string& w : Split(clean, " "))
    if (!w.empty()) words.push_back(w);
  size_t i = 0;
  if (i < words.size() && !isdigit(static_cast<unsigned char>(words[i][0]))) ++i;  // Weekday.
  if (words.size() < i + 4) return std::nullopt;
  char* end = nullptr;
  long day = std::strtol(words[i].c_str(), &end, 10);
  if (*end || day < 1 || day > 31) return std::nullopt;
  int month = MonthOf(words[i + 1]);
  long year = std::strtol(words[i + 2].c_str(), &end, 10);
  if (*end || month == 0) return std::nullopt;
  if (words[i + 2].size() == 2) year += year < 50 ? 2000 : 1900;  // Obsolete two-digit year.
  if (year < 1900 || year > 9999) return std::nullopt;
  std::vector<std::string> hms = Split(words[i + 3], ":");
  if (hms.size() < 2 || hms.size() > 3) return std::nullopt;
  long parts[3] = {0, 0, 0};
  for (size_t k = 0; k < hms.size(); ++k) {
    parts[k] = std::strtol(hms[k].c_str(), &end, 10);
    if (*end || hms[k].empty()) return std::nullopt;
  }
  if (parts[0] > 23 || parts[1] > 59 || parts[2] > 60) return std::nullopt;
  long offset = 0;  // Minutes east of UTC.
  if (words.size() > i + 4) {
    std::string zone = words[i + 4];
    if ((zone[0] == '+' || zone[0] == '-') && zone.size() == 5) {
      long hhmm = std::strtol(zone.c_str() + 1, &end, 10);
      if (*end) return std::nullopt;
      offset = (hhmm / 100) * 60 + hhmm % 100;
      if (zone[0] == '-') offset = -offset;
    } else {
      static const struct {
        const char* name;
        long minutes;
      } kZones[] = {{"UT", 0},     {"GMT", 0},    {"Z", 0},      {"EST", -300},
                    {"EDT", -240}, {"CST", -360}, {"CDT", -300}, {"MST", -420},
                    {"MDT", -360}, {"PST", -480}, {"PDT", -420}};
      for (const auto& z : kZones)
        if (EqualsIgnoreCase(zone, z.name)) offset = z.minutes;
    }
  }
  long days = DaysFromCivil(year, month, static_cast<int>(day));
  long long seconds = days * 86400LL + parts[0] * 3600 + parts[1] * 60 + parts[2] - offset * 60;
  return static_cast<std::time_t>(seconds);
}

ReturnedMail ParseReturnedMail(std::string_view message) {
  // One line ending from here on.
  std::string text;
  text.reserve(message.size());
  for (size_t i = 0; i < message.size(); ++i)
    if (!(message[i] == '\r' && i + 1 < message.size() && message[i + 1] == '\n'))
      text += message[i];
  ReturnedMail r;
  Entity top = ParseEntity(text);
  for (const char* name : {"to", "delivered-to", "x-original-to", "envelope-to"})
    for (const Field& f : top.fields)
      if (f.name == name)
        for (const std::string& a : AddressesIn(f.value)) r.addressed_to.push_back(a);
  r.date = ParseMailDate(top.Get("date"));

  ContentType report;
  std::vector<Entity> parts;
  if (!FindReport(top, 0, &report, &parts)) {
    r.problem = "not a delivery status notification or feedback report (" +
                Printable(TypeOf(top).type) + ")";
    return r;
  }
  const Entity* status = nullptr;
  const Entity* feedback = nullptr;
  const Entity* returned = nullptr;
  for (const Entity& part : parts) {
    std::string type = TypeOf(part).type;
    if (!status && (type == "message/delivery-status" || type == "message/global-delivery-status"))
      status = &part;
    if (!feedback && type == "message/feedback-report") feedback = &part;
    if (!returned && IsReturnedMessage(type)) returned = &part;
  }
  std::optional<Entity> returned_header;
  std::string returned_text;
  if (returned) {
    returned_text = DecodedBody(*returned);
    returned_header = ParseEntity(returned_text);
    r.returned_list_id = returned_header->Get("list-id");
    r.returned_message_id = returned_header->Get("message-id");
  }

  if (report.report_type == "delivery-status" && status) {
    r.format = ReturnFormat::kDeliveryStatus;
    ReadDeliveryStatus(DecodedBody(*status), &r);
  } else if (report.report_type == "feedback-report" && feedback) {
    r.format = ReturnFormat::kFeedbackReport;
    ReadFeedbackReport(DecodedBody(*feedback), returned_header ? &*returned_header : nullptr, &r);
  } else if (report.report_type == "delivery-status" || report.report_type == "feedback-report") {
    r.problem = "a " + report.report_type + " report without its " +
                (report.report_type == "delivery-status" ? "message/delivery-status"
                                                         : "message/feedback-report") +
                " part";
  } else {
    r.problem = "a report of type '" + Printable(report.report_type) +
                "', not a delivery status notification or feedback report";
  }
  return r;
}

}  // namespace quillo::mail
