#include "mail/template_draft.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <vector>

#include "mail/html_text.h"
#include "message/dm_message.h"
#include "message/personalisation.h"
#include "platform/clock.h"
#include "platform/date.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/text.h"
#include "records/dmclients.h"

namespace quillo::mail {

namespace {

ClientFields FieldsOf(const dmclients& c) {
  return ClientFields{c.First(), c.Last(),    c.Middle(), c.Address(), c.PO(),   c.city(),
                      c.state(), c.Country(), c.zip(),    c.Company(), c.Email()};
}

// Every variable, for the subject.
constexpr std::array<ReplacementVariable, 21> kAllVariables = {
    ReplacementVariable::kFirst,
    ReplacementVariable::kLast,
    ReplacementVariable::kMiddle,
    ReplacementVariable::kAddress1,
    ReplacementVariable::kAddress2,
    ReplacementVariable::kCity,
    ReplacementVariable::kState,
    ReplacementVariable::kCountry,
    ReplacementVariable::kPostal,
    ReplacementVariable::kCompany,
    ReplacementVariable::kEmail,
    ReplacementVariable::kFullName,
    ReplacementVariable::kCsz,
    ReplacementVariable::kCsz1,
    ReplacementVariable::kFullNameAddrBr,
    ReplacementVariable::kFullNameAddrCrLf,
    ReplacementVariable::kShortDate,
    ReplacementVariable::kLongDate,
    ReplacementVariable::kShortTime,
    ReplacementVariable::kLongTime,
    ReplacementVariable::kDateTime};

// The text with every line ending made CR LF, and a UTF-8 byte-order mark
// dropped.
std::string CrLfText(std::string_view text) {
  if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
  std::string out;
  out.reserve(text.size() + text.size() / 32);
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) out += '\r';
    out += text[i];
  }
  return out;
}

size_t FindIgnoringCase(std::string_view text, std::string_view what) {
  if (what.size() > text.size()) return std::string_view::npos;
  for (size_t i = 0; i + what.size() <= text.size(); ++i) {
    if (EqualsIgnoreCase(text.substr(i, what.size()), what)) return i;
  }
  return std::string_view::npos;
}

size_t LineOf(std::string_view text, size_t pos) {
  size_t line = 1;
  for (size_t i = 0; i < pos && i < text.size(); ++i) line += text[i] == '\n';
  return line;
}

std::string Trimmed(std::string_view text) { return Trim(text); }

struct Checker {
  std::string_view name;
  [[noreturn]] void Fail(size_t line, const std::string& why) const {
    throw TemplateError(std::string(name) + ":" + std::to_string(line) + ": " + why);
  }
};

// Checks the header block's lines, with their line numbers in `text`.
void CheckHeaderBlock(std::string_view text, const Checker& check) {
  size_t close = FindIgnoringCase(text, "[/HEADER]");
  size_t open = FindIgnoringCase(text, "[HEADER]");
  if (close == std::string_view::npos) {
    if (open != std::string_view::npos) {
      check.Fail(LineOf(text, open), "\"[HEADER]\" has no closing \"[/HEADER]\"");
    }
    return;
  }
  size_t start = open != std::string_view::npos && open < close ? open + 8 : 0;
  std::string_view block = text.substr(start, close - start);
  size_t line = LineOf(text, start);
  size_t from = 0;
  while (from <= block.size()) {
    size_t end = block.find("\r\n", from);
    std::string_view current = block.substr(from, end == std::string_view::npos ? end : end - from);
    size_t colon = current.find(':');
    if (colon != std::string_view::npos) {
      std::string key = Trimmed(current.substr(0, colon));
      std::string value = Trimmed(current.substr(colon + 1));
      if (key.empty()) check.Fail(line, "a header line has no name before its colon");
      if (EqualsIgnoreCase(key, "Inline")) {
        size_t commas = 0;
        for (char c : value) commas += c == ',';
        if (commas != 1)
          check.Fail(line,
                     "an Inline line needs a file and a content id: \"Inline: logo.gif, logo01\"");
      }
      if (EqualsIgnoreCase(key, "Replace") && !FindReplacementVariable(value)) {
        check.Fail(line, "Replace names no known variable: '" + value + "'");
      }
      if (EqualsIgnoreCase(key, "Attach") && value.empty()) {
        check.Fail(line, "an Attach line names no file");
      }
    }
    if (end == std::string_view::npos) break;
    from = end + 2;
    ++line;
  }
}

// A file named by the template: beside the template when it is there.
std::string Resolve(const std::string& file, std::string_view template_name) {
  std::filesystem::path p(NativePath(file));
  if (p.is_absolute()) return p.string();
  std::filesystem::path beside = std::filesystem::path(NativePath(template_name)).parent_path() / p;
  std::error_code ignored;
  if (!beside.parent_path().empty() && std::filesystem::exists(beside, ignored)) {
    return beside.string();
  }
  return p.string();
}

bool IsOneOf(std::string_view name, std::initializer_list<std::string_view> names) {
  for (std::string_view n : names) {
    if (EqualsIgnoreCase(name, n)) return true;
  }
  return false;
}

// A control byte that occurs in none of `texts`. TemplateError when each
// occurs somewhere (no template needs them all).
char UnusedByte(std::initializer_list<std::string_view> texts, const Checker& check) {
  bool used[32] = {};
  for (std::string_view t : texts) {
    for (char c : t) {
      if (static_cast<unsigned char>(c) < 32) used[static_cast<unsigned char>(c)] = true;
    }
  }
  for (int c = 1; c < 32; ++c) {
    if (c != '\t' && c != '\n' && c != '\r' && !used[c]) return static_cast<char>(c);
  }
  check.Fail(0, "the template and the client's fields hold every control character");
}

}  // namespace

TemplateDraft DraftFromText(std::string_view raw, std::string_view name, const dmclients& client,
                            const std::string& subject, const Mailbox& from) {
  const Checker check{name};
  std::string text = CrLfText(raw);
  CheckHeaderBlock(text, check);

  dmMessage parsed;
  parsed.Message(text);
  TemplateDraft result;
  Draft& d = result.draft;
  d.from = from;
  d.to = {Trim(NameLine(FieldsOf(client))), client.Email()};

  ClientFields fields = FieldsOf(client);
  Date now = Now();
  // A value is data, never template: while the variables are replaced one
  // after another, the "<" of each value stands hidden as a byte found
  // nowhere in the template, the subject or the client's fields, so that no
  // later variable reads a tag in it (and tags in data cannot multiply the
  // message without bound). Each "<" comes back once all are replaced.
  const char hide = UnusedByte(
      {text, subject, fields.First, fields.Last, fields.Middle, fields.Address, fields.PO,
       fields.city, fields.state, fields.Country, fields.zip, fields.Company, fields.Email},
      check);
  // The body's type decides how values go into it: HTML-escaped in HTML, so
  // that a client named "<script>" stays text.
  std::string extension = UCase(dmMessage::GetFileExtension(name));
  d.content_type = extension == "HTML" || extension == "HTM" ? "text/html" : "text/plain";
  for (const auto& p : *parsed.MessageParameters()) {
    if (!EqualsIgnoreCase(p->Name(), "CONTENT-TYPE")) continue;
    std::string type = LCase(Trimmed(p->Value().substr(0, p->Value().find(';'))));
    if (type == "text/plain" || type == "text/html") d.content_type = type;
  }
  bool escape = d.content_type == "text/html";
  auto value = [&](ReplacementVariable v, std::string& out) {
    size_t mark = out.size();
    try {
      if (IsDateVariable(v)) {
        AppendDateValue(v, now, out);
      } else {
        AppendClientValue(v, fields, out);
      }
    } catch (const std::exception&) {
      out.resize(mark);  // A value that cannot be computed is empty, as in dmMessage.
    }
    if (escape) {
      std::string escaped = HtmlEscape(std::string_view(out).substr(mark));
      out.resize(mark);
      out += escaped;
    }
    std::replace(out.begin() + static_cast<std::ptrdiff_t>(mark), out.end(), '<', hide);
  };
  auto shown = [hide](std::string replaced) {
    std::replace(replaced.begin(), replaced.end(), hide, '<');
    return replaced;
  };
  TagReplacer replacer;
  std::vector<ReplacementVariable> listed;
  for (const auto& entry : *parsed.ReplacementVariables()) {
    if (auto v = FindReplacementVariable(entry->Value())) listed.push_back(*v);
  }
  d.body = listed.empty() ? parsed.MessageBody()
                          : shown(replacer.Replace(parsed.MessageBody(), listed, value));
  std::string subject_text = subject;

  escape = false;  // The subject is text.

  for (const auto& p : *parsed.MessageParameters()) {
    const std::string& key = p->Name();
    const std::string& v = p->Value();
    if (EqualsIgnoreCase(key, "MAILACCOUNT")) {
      if (result.mail_account.empty()) result.mail_account = v;
    } else if (EqualsIgnoreCase(key, "SUBJECT")) {
      subject_text = v;
    } else if (EqualsIgnoreCase(key, "SENDER")) {
      d.from.address = v;
    } else if (EqualsIgnoreCase(key, "FRIENDLY")) {
      d.from.name = v;
    } else if (EqualsIgnoreCase(key, "CONTENT-TYPE")) {
      std::string type = LCase(Trimmed(v.substr(0, v.find(';'))));
      if (type != "text/plain" && type != "text/html") {
        check.Fail(1, "CONTENT-TYPE must be text/plain or text/html, not '" + v + "'");
      }
      d.content_type = type;
    } else if (IsOneOf(key,
                       {"TIMEOUT", "DATATIMEOUT", "TDL-CATALOG-CATEGORY", "TDL-CATALOG-DESCRIPTION",
                        "CONTENT-ENCODING", "MIME-VERSION", "X-MAILER", "X-MIMEOLE"})) {
      // Steers the documented classes; our session and composer decide these.
    } else {
      d.headers.emplace_back(key, v);
    }
  }
  d.subject = shown(replacer.Replace(subject_text, kAllVariables, value));
  if (d.content_type == "text/html") d.text_alternative = HtmlToText(d.body);

  for (const auto& a : *parsed.Attachments()) {
    d.attachments.push_back({Resolve(a->Value(), name), ""});
  }
  for (const auto& a : *parsed.InlineAttachments()) {
    const std::string& v = a->Value();
    size_t comma = v.find(',');
    d.attachments.push_back(
        {Resolve(Trimmed(v.substr(0, comma)), name), Trimmed(v.substr(comma + 1))});
  }
  return result;
}

namespace {

std::string ReadTemplate(const std::string& path, const char* what) {
  try {
    return ReadFileBytes(NativePath(path));
  } catch (const RuntimeError& e) {
    throw TemplateError(path + ": cannot read the " + what + ": " + e.description);
  }
}

// The text twin's path of the HTML template at `path`, or "" when it has no
// extension.
std::string TwinPath(const std::string& path) {
  if (path.rfind('.') == std::string::npos) return {};
  return path.substr(0, path.rfind('.')) + ".txt";
}

}  // namespace

const std::string& TemplateFiles::Text(const std::string& path) {
  auto it = texts_.find(path);
  if (it == texts_.end()) it = texts_.emplace(path, ReadTemplate(path, "template")).first;
  return it->second;
}

const std::string* TemplateFiles::Twin(const std::string& path) {
  auto it = twins_.find(path);
  if (it == twins_.end()) {
    std::optional<std::string> twin;
    const std::string twin_path = TwinPath(path);
    if (!twin_path.empty() && FileExists(NativePath(twin_path)))
      twin = ReadTemplate(twin_path, "text template");
    it = twins_.emplace(path, std::move(twin)).first;
  }
  return it->second ? &*it->second : nullptr;
}

TemplateDraft DraftFromTemplate(const std::string& path, const dmclients& client,
                                const std::string& subject, const Mailbox& from,
                                TemplateFiles* files) {
  std::string read;
  const std::string& text = files ? files->Text(path) : (read = ReadTemplate(path, "template"));
  TemplateDraft result = DraftFromText(text, path, client, subject, from);
  // An HTML template may have a text twin beside it (welcome.html and
  // welcome.txt): its body, personalised the same way, is the text part.
  if (result.draft.content_type == "text/html") {
    const std::string twin_path = TwinPath(path);
    const std::string* twin = nullptr;
    std::string twin_read;
    if (files) {
      twin = files->Twin(path);
    } else if (!twin_path.empty() && FileExists(NativePath(twin_path))) {
      twin_read = ReadTemplate(twin_path, "text template");
      twin = &twin_read;
    }
    if (twin) {
      result.draft.text_alternative =
          DraftFromText(*twin, twin_path, client, subject, from).draft.body;
    }
  }
  return result;
}

}  // namespace quillo::mail
