#include "platform/text.h"

#include <algorithm>

namespace quillo {

char LowerAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

namespace {

char UpperAscii(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

bool CharsEqual(char a, char b, Compare compare) {
  return compare == Compare::kBinary ? a == b : LowerAscii(a) == LowerAscii(b);
}

// 0-based position of `find` in `text` from `from`, or npos.
size_t FindFrom(std::string_view text, std::string_view find, size_t from, Compare compare) {
  if (compare == Compare::kBinary) return text.find(find, from);
  if (find.empty()) return from <= text.size() ? from : std::string_view::npos;
  if (find.size() > text.size()) return std::string_view::npos;
  const char first_lower = LowerAscii(find[0]);
  const char first_upper = UpperAscii(find[0]);
  for (size_t i = from; i + find.size() <= text.size(); ++i) {
    if (text[i] != first_lower && text[i] != first_upper) continue;
    size_t j = 1;
    while (j < find.size() && CharsEqual(text[i + j], find[j], compare)) ++j;
    if (j == find.size()) return i;
  }
  return std::string_view::npos;
}

}  // namespace

size_t InStr(size_t start, std::string_view text, std::string_view find, Compare compare) {
  if (start == 0) start = 1;
  if (start > text.size() + 1) return 0;
  size_t pos = FindFrom(text, find, start - 1, compare);
  return pos == std::string_view::npos ? 0 : pos + 1;
}

size_t InStrRev(std::string_view text, std::string_view find, Compare compare) {
  if (find.size() > text.size()) return 0;
  for (size_t i = text.size() - find.size() + 1; i-- > 0;) {
    size_t j = 0;
    while (j < find.size() && CharsEqual(text[i + j], find[j], compare)) ++j;
    if (j == find.size()) return i + 1;
  }
  return 0;
}

std::string Mid(std::string_view text, size_t start, size_t length) {
  if (start == 0) start = 1;
  if (start > text.size()) return {};
  return std::string(text.substr(start - 1, length));
}

std::string Left(std::string_view text, size_t length) {
  return std::string(text.substr(0, std::min(length, text.size())));
}

std::string Right(std::string_view text, size_t length) {
  if (length >= text.size()) return std::string(text);
  return std::string(text.substr(text.size() - length));
}

std::string LTrim(std::string_view text) {
  size_t b = text.find_first_not_of(' ');
  return b == std::string_view::npos ? std::string() : std::string(text.substr(b));
}

std::string RTrim(std::string_view text) {
  size_t e = text.find_last_not_of(' ');
  return e == std::string_view::npos ? std::string() : std::string(text.substr(0, e + 1));
}

std::string Trim(std::string_view text) {
  size_t b = text.find_first_not_of(' ');
  if (b == std::string_view::npos) return {};
  size_t e = text.find_last_not_of(' ');
  return std::string(text.substr(b, e - b + 1));
}

std::string UCase(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = UpperAscii(c);
  return out;
}

std::string LCase(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = LowerAscii(c);
  return out;
}

bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (LowerAscii(a[i]) != LowerAscii(b[i])) return false;
  }
  return true;
}

bool StartsWithIgnoreCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && EqualsIgnoreCase(text.substr(0, prefix.size()), prefix);
}

std::vector<std::string> Split(std::string_view text, std::string_view delimiter) {
  std::vector<std::string> pieces;
  if (delimiter.empty()) {
    pieces.emplace_back(text);
    return pieces;
  }
  size_t from = 0;
  while (true) {
    size_t pos = text.find(delimiter, from);
    if (pos == std::string_view::npos) {
      pieces.emplace_back(text.substr(from));
      return pieces;
    }
    pieces.emplace_back(text.substr(from, pos - from));
    from = pos + delimiter.size();
  }
}

std::string Replace(std::string_view text, std::string_view find, std::string_view with,
                    Compare compare) {
  if (find.empty()) return std::string(text);
  std::string out;
  out.reserve(text.size());
  size_t from = 0;
  while (true) {
    size_t pos = FindFrom(text, find, from, compare);
    if (pos == std::string_view::npos) break;
    out.append(text.substr(from, pos - from));
    out.append(with);
    from = pos + find.size();
  }
  out.append(text.substr(from));
  return out;
}

std::string Join(const std::vector<std::string>& pieces, std::string_view separator) {
  std::string out;
  for (size_t i = 0; i < pieces.size(); ++i) {
    if (i > 0) out.append(separator);
    out.append(pieces[i]);
  }
  return out;
}

std::string PadLeft(std::string_view text, char pad, size_t width) {
  if (text.size() >= width) return std::string(text);
  return std::string(width - text.size(), pad) + std::string(text);
}

}  // namespace quillo
