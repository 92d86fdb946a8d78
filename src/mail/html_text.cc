#include "mail/html_text.h"

#include <cstdint>
#include <cstdlib>

namespace quillo::mail {

namespace {

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool StartsWithNoCase(std::string_view text, size_t at, std::string_view prefix) {
  if (text.size() - at < prefix.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i) {
    if (Lower(text[at + i]) != prefix[i]) return false;
  }
  return true;
}

void AppendUtf8(std::string& out, uint32_t cp) {
  if (cp == 0 || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = 0xFFFD;
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// Decodes the entity at text[at] ('&'); appends it and returns its length,
// or 0 when it is not one (the '&' is then text).
size_t Entity(std::string_view text, size_t at, std::string& out) {
  size_t end = text.find(';', at);
  if (end == std::string_view::npos || end - at > 10) return 0;
  std::string_view name = text.substr(at + 1, end - at - 1);
  static const std::pair<std::string_view, uint32_t> kNamed[] = {
      {"amp", '&'},       {"lt", '<'},       {"gt", '>'},       {"quot", '"'},
      {"apos", '\''},     {"nbsp", ' '},     {"copy", 0xA9},    {"reg", 0xAE},
      {"hellip", 0x2026}, {"mdash", 0x2014}, {"ndash", 0x2013}, {"euro", 0x20AC}};
  for (const auto& [n, cp] : kNamed) {
    if (name == n) {
      AppendUtf8(out, cp);
      return end - at + 1;
    }
  }
  if (name.size() >= 2 && name[0] == '#') {
    bool hex = name[1] == 'x' || name[1] == 'X';
    std::string digits(name.substr(hex ? 2 : 1));
    if (digits.empty()) return 0;
    char* stop = nullptr;
    unsigned long cp = std::strtoul(digits.c_str(), &stop, hex ? 16 : 10);
    if (*stop != '\0') return 0;
    AppendUtf8(out, static_cast<uint32_t>(cp > 0x10FFFF ? 0xFFFD : cp));
    return end - at + 1;
  }
  return 0;
}

// The value of attribute `name` in the tag text `tag` ("a href=..."), or "".
std::string Attribute(std::string_view tag, std::string_view name) {
  for (size_t at = 0; (at = tag.find(name, at)) != std::string_view::npos; ++at) {
    if (at == 0 || (tag[at - 1] != ' ' && tag[at - 1] != '\t' && tag[at - 1] != '\n')) continue;
    size_t p = at + name.size();
    while (p < tag.size() && tag[p] == ' ') ++p;
    if (p >= tag.size() || tag[p] != '=') continue;
    ++p;
    while (p < tag.size() && tag[p] == ' ') ++p;
    if (p >= tag.size()) return "";
    std::string raw;
    if (tag[p] == '"' || tag[p] == '\'') {
      size_t close = tag.find(tag[p], p + 1);
      raw = std::string(tag.substr(
          p + 1, close == std::string_view::npos ? std::string_view::npos : close - p - 1));
    } else {
      size_t close = tag.find_first_of(" \t\n>", p);
      raw = std::string(
          tag.substr(p, close == std::string_view::npos ? std::string_view::npos : close - p));
    }
    std::string value;
    for (size_t i = 0; i < raw.size(); ++i) {
      size_t n = raw[i] == '&' ? Entity(raw, i, value) : 0;
      if (n == 0) {
        value += raw[i];
      } else {
        i += n - 1;
      }
    }
    return value;
  }
  return "";
}

bool IsBlock(std::string_view name) {
  static const std::string_view kBlocks[] = {
      "p",  "div",   "br", "h1", "h2",         "h3", "h4",      "h5",     "h6",    "li",
      "tr", "table", "ul", "ol", "blockquote", "hr", "section", "header", "footer"};
  for (std::string_view b : kBlocks) {
    if (name == b) return true;
  }
  return false;
}

// Blanks squeezed, lines trimmed, at most one empty line in a row.
std::string Tidy(std::string_view raw) {
  std::string out, line;
  int empty = 0;
  auto flush = [&](bool last) {
    while (!line.empty() && line.back() == ' ') line.pop_back();
    if (line.empty()) {
      ++empty;
      if (empty == 1 && !out.empty() && !last) out += "\n";
    } else {
      empty = 0;
      out += line;
      out += "\n";
    }
    line.clear();
  };
  for (char c : raw) {
    if (c == '\n') {
      flush(false);
    } else if (c == ' ' || c == '\t' || c == '\r') {
      if (!line.empty() && line.back() != ' ') line += ' ';
    } else {
      line += c;
    }
  }
  flush(true);
  while (out.size() >= 2 && out[out.size() - 1] == '\n' && out[out.size() - 2] == '\n') {
    out.pop_back();
  }
  return out;
}

}  // namespace

std::string HtmlToText(std::string_view html) {
  std::string raw;
  std::string href, label_start_text;
  size_t label_start = std::string::npos;
  for (size_t i = 0; i < html.size();) {
    char c = html[i];
    if (c == '<') {
      if (html.compare(i, 4, "<!--") == 0) {
        size_t end = html.find("-->", i + 4);
        i = end == std::string_view::npos ? html.size() : end + 3;
        continue;
      }
      size_t end = html.find('>', i);
      if (end == std::string_view::npos) {
        raw += html.substr(i);  // Not a tag: text.
        break;
      }
      std::string_view tag = html.substr(i + 1, end - i - 1);
      bool closing = !tag.empty() && tag[0] == '/';
      if (closing) tag.remove_prefix(1);
      size_t name_end = tag.find_first_of(" \t\n/");
      std::string name;
      for (char t : tag.substr(0, name_end)) name += Lower(t);
      i = end + 1;
      if (!closing && (name == "script" || name == "style")) {
        std::string close = "</" + name;
        size_t at = i;
        while (at < html.size() && !StartsWithNoCase(html, at, close)) ++at;
        size_t stop = html.find('>', at);
        i = stop == std::string_view::npos ? html.size() : stop + 1;
        continue;
      }
      if (name == "a" && !closing) {
        href = Attribute(tag, "href");
        label_start = raw.size();
      } else if (name == "a" && closing && label_start != std::string::npos) {
        std::string label = raw.substr(label_start);
        if (!href.empty() && href != label && "mailto:" + label != href) {
          raw += " (" + href + ")";
        }
        label_start = std::string::npos;
        href.clear();
      } else if (name == "img" && !closing) {
        std::string alt = Attribute(tag, "alt");
        if (!alt.empty()) raw += "[" + alt + "]";
      } else if (name == "li") {
        if (!closing) raw += "\n- ";
      } else if (IsBlock(name)) {
        raw += '\n';
        if ((name == "p" || name[0] == 'h') && closing) raw += '\n';
      }
      continue;
    }
    if (c == '&') {
      size_t n = Entity(html, i, raw);
      if (n > 0) {
        i += n;
        continue;
      }
    }
    raw += (c == '\r' || c == '\n') ? ' ' : c;
    ++i;
  }
  return Tidy(raw);
}

std::string HtmlEscape(std::string_view text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

}  // namespace quillo::mail
