// SQL text handling shared by the engines.
#include "platform/db/sql_text.h"

#include <cctype>
#include <charconv>
#include <cstdlib>

#include "platform/database.h"
#include "platform/error.h"
#include "platform/text.h"

namespace quillo::db {
namespace {

bool IsIdentChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' ||
         static_cast<unsigned char>(c) >= 0x80;
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Copies a quoted run starting at sql[i] (the opening quote) to *out; returns
// the index after the closing quote (or the end of the text).
size_t CopyQuoted(std::string_view sql, size_t i, std::string* out) {
  const char q = sql[i];
  size_t j = i + 1;
  while (j < sql.size()) {
    if (sql[j] == q) {
      if (j + 1 < sql.size() && sql[j + 1] == q) {
        j += 2;
        continue;
      }
      ++j;
      break;
    }
    ++j;
  }
  if (out) out->append(sql.substr(i, j - i));
  return j;
}

// Copies a comment starting at sql[i]; returns the index after it.
size_t CopyComment(std::string_view sql, size_t i, std::string* out) {
  size_t j;
  if (sql[i] == '-') {
    j = sql.find('\n', i);
    j = j == std::string_view::npos ? sql.size() : j + 1;
  } else {
    j = sql.find("*/", i + 2);
    j = j == std::string_view::npos ? sql.size() : j + 2;
  }
  if (out) out->append(sql.substr(i, j - i));
  return j;
}

bool StartsComment(std::string_view sql, size_t i) {
  return i + 1 < sql.size() &&
         ((sql[i] == '-' && sql[i + 1] == '-') || (sql[i] == '/' && sql[i + 1] == '*'));
}

std::string FirstWord(std::string_view sql) {
  size_t i = 0;
  while (i < sql.size() && IsBlank(sql[i])) ++i;
  size_t j = i;
  while (j < sql.size() && IsIdentChar(sql[j])) ++j;
  return UCase(sql.substr(i, j - i));
}

bool Digits(std::string_view s, size_t pos, size_t count, int* value) {
  if (pos + count > s.size()) return false;
  int v = 0;
  for (size_t k = pos; k < pos + count; ++k) {
    if (s[k] < '0' || s[k] > '9') return false;
    v = v * 10 + (s[k] - '0');
  }
  *value = v;
  return true;
}

int DaysInMonth(int y, int m) {
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (m == 2 && ((y % 4 == 0 && y % 100 != 0) || y % 400 == 0)) return 29;
  return kDays[m - 1];
}

bool ValidDatePart(std::string_view s) {
  int y, m, d;
  if (s.size() != 10 || s[4] != '-' || s[7] != '-') return false;
  if (!Digits(s, 0, 4, &y) || !Digits(s, 5, 2, &m) || !Digits(s, 8, 2, &d)) return false;
  return y >= 1 && m >= 1 && m <= 12 && d >= 1 && d <= DaysInMonth(y, m);
}

bool ValidTimePart(std::string_view s) {
  int h, n, sec;
  if (s.size() != 8 || s[2] != ':' || s[5] != ':') return false;
  if (!Digits(s, 0, 2, &h) || !Digits(s, 3, 2, &n) || !Digits(s, 6, 2, &sec)) return false;
  return h <= 23 && n <= 59 && sec <= 59;
}

[[noreturn]] void BrokenEscape(std::string_view text) {
  Raise(err::kDbBadArguments, "Broken ODBC escape literal: " + std::string(text));
}

// Tries to read an escape literal at sql[i] == '{'. Returns the index after it
// and stores the canonical "yyyy-mm-dd hh:nn:ss" in *stamp, or returns i when
// the braces hold no date, time or timestamp escape.
size_t ReadEscape(std::string_view sql, size_t i, std::string* stamp) {
  size_t j = i + 1;
  while (j < sql.size() && IsBlank(sql[j])) ++j;
  size_t w = j;
  while (w < sql.size() && IsIdentChar(sql[w])) ++w;
  const std::string word = LCase(sql.substr(j, w - j));
  if (word != "d" && word != "t" && word != "ts") return i;
  size_t end = sql.find('}', w);
  std::string_view whole =
      sql.substr(i, end == std::string_view::npos ? sql.size() - i : end - i + 1);
  j = w;
  while (j < sql.size() && IsBlank(sql[j])) ++j;
  if (j >= sql.size() || sql[j] != '\'') BrokenEscape(whole);
  size_t close = sql.find('\'', j + 1);
  if (close == std::string_view::npos) BrokenEscape(whole);
  std::string_view value = sql.substr(j + 1, close - j - 1);
  size_t k = close + 1;
  while (k < sql.size() && IsBlank(sql[k])) ++k;
  if (k >= sql.size() || sql[k] != '}') BrokenEscape(whole);
  whole = sql.substr(i, k - i + 1);
  if (word == "d") {
    if (!ValidDatePart(value)) BrokenEscape(whole);
    stamp->assign(value);
    stamp->append(" 00:00:00");
  } else if (word == "t") {
    if (!ValidTimePart(value)) BrokenEscape(whole);
    stamp->assign("1899-12-30 ");
    stamp->append(value);
  } else {
    if (value.size() != 19 || value[10] != ' ' || !ValidDatePart(value.substr(0, 10)) ||
        !ValidTimePart(value.substr(11))) {
      BrokenEscape(whole);
    }
    *stamp = std::string(value);
  }
  return k + 1;
}

// The next word after position i (skipping blanks), upper case.
std::string NextWord(std::string_view sql, size_t i) { return FirstWord(sql.substr(i)); }

}  // namespace

std::string RewriteSql(std::string_view sql, Dialect dialect) {
  // Fast path: nothing to rewrite.
  bool maybe = sql.find('{') != std::string_view::npos;
  if (!maybe) {
    for (size_t p = 0; p + 7 <= sql.size(); ++p) {
      if ((sql[p] == 'd' || sql[p] == 'D') && EqualsIgnoreCase(sql.substr(p, 7), "default")) {
        maybe = true;
        break;
      }
    }
  }
  if (!maybe) return std::string(sql);

  const std::string first = FirstWord(sql);
  const bool ddl = first == "CREATE" || first == "ALTER" || first == "DROP";
  std::string out;
  out.reserve(sql.size() + 16);
  size_t i = 0;
  while (i < sql.size()) {
    const char c = sql[i];
    if (c == '\'' || c == '"') {
      i = CopyQuoted(sql, i, &out);
    } else if (StartsComment(sql, i)) {
      i = CopyComment(sql, i, &out);
    } else if (c == '{') {
      std::string stamp;
      size_t next = ReadEscape(sql, i, &stamp);
      if (next == i) {
        out.push_back(c);
        ++i;
      } else {
        if (dialect == Dialect::kPostgres) out += "TIMESTAMP ";
        out.push_back('\'');
        out.append(stamp);
        out.push_back('\'');
        i = next;
      }
    } else if (IsIdentChar(c)) {
      size_t j = i;
      while (j < sql.size() && IsIdentChar(sql[j])) ++j;
      std::string_view word = sql.substr(i, j - i);
      if (!ddl && EqualsIgnoreCase(word, "default") && NextWord(sql, j) != "VALUES" &&
          (i == 0 || sql[i - 1] != '.')) {
        out += dialect == Dialect::kPostgres ? "\"default\"" : "\"Default\"";
      } else {
        out.append(word);
      }
      i = j;
    } else {
      out.push_back(c);
      ++i;
    }
  }
  return out;
}

bool ExtractShape(std::string_view sql, Dialect dialect, Shape* shape) {
  const std::string first = FirstWord(sql);
  if (first != "SELECT" && first != "INSERT" && first != "UPDATE" && first != "DELETE") {
    return false;
  }
  const bool writes = first == "INSERT" || first == "UPDATE";
  shape->text.clear();
  shape->params.clear();
  shape->text.reserve(sql.size());
  auto placeholder = [&] {
    if (dialect == Dialect::kSqlite) {
      shape->text.push_back('?');
    } else {
      shape->text.push_back('$');
      shape->text.append(std::to_string(shape->params.size()));
    }
  };
  auto last_significant = [&]() -> char {
    for (size_t k = shape->text.size(); k > 0; --k) {
      if (!IsBlank(shape->text[k - 1])) return shape->text[k - 1];
    }
    return '\0';
  };
  auto last_word = [&]() -> std::string {
    size_t k = shape->text.size();
    while (k > 0 && IsBlank(shape->text[k - 1])) --k;
    size_t e = k;
    while (k > 0 && IsIdentChar(shape->text[k - 1])) --k;
    return UCase(std::string_view(shape->text).substr(k, e - k));
  };
  // The parenthesis depth, and the depth inside an "IN (" list (-1 when
  // outside one): a literal listed there is compared too.
  int depth = 0;
  int list_depth = -1;
  size_t i = 0;
  while (i < sql.size()) {
    const char c = sql[i];
    if (c == '\'') {
      const bool glued = i > 0 && IsIdentChar(sql[i - 1]);
      const std::string word = last_word();
      // In a query a literal outside a comparison may name a result column
      // (SQLite names "SELECT 'x'" after its text), so only compared ones go.
      const char prev = last_significant();
      const bool listed = depth == list_depth && (prev == '(' || prev == ',');
      const bool compared = prev == '=' || prev == '<' || prev == '>' || word == "LIKE" || listed;
      if (glued || word == "TIMESTAMP" || word == "DATE" || word == "TIME" || word == "INTERVAL" ||
          (!writes && !compared)) {
        i = CopyQuoted(sql, i, &shape->text);
        continue;
      }
      size_t end = CopyQuoted(sql, i, nullptr);
      if (end > sql.size() || sql[end - 1] != '\'' || end - i < 2) return false;
      ShapeParam p;
      p.kind = ShapeParam::Kind::kText;
      p.text = Replace(sql.substr(i + 1, end - i - 2), "''", "'");
      shape->params.push_back(std::move(p));
      placeholder();
      i = end;
    } else if (c == '"') {
      i = CopyQuoted(sql, i, &shape->text);
    } else if (StartsComment(sql, i)) {
      return false;
    } else if (c == '?' || c == '$' || c == '@' || (c == ':' && dialect == Dialect::kSqlite)) {
      return false;
    } else if (c == ';') {
      for (size_t k = i + 1; k < sql.size(); ++k) {
        if (!IsBlank(sql[k])) return false;
      }
      shape->text.push_back(c);
      ++i;
    } else if (IsIdentChar(c) && !(c >= '0' && c <= '9')) {
      size_t j = i;
      while (j < sql.size() && IsIdentChar(sql[j])) ++j;
      shape->text.append(sql.substr(i, j - i));
      i = j;
    } else if ((c >= '0' && c <= '9') || c == '-' || c == '+' || c == '.') {
      const char prev = last_significant();
      const bool after_comparison = prev == '=' || prev == '<' || prev == '>';
      size_t j = i;
      if (c == '-' || c == '+') ++j;
      const size_t digits_start = j;
      while (j < sql.size() && sql[j] >= '0' && sql[j] <= '9') ++j;
      bool real = false;
      if (j < sql.size() && sql[j] == '.') {
        real = true;
        ++j;
        while (j < sql.size() && sql[j] >= '0' && sql[j] <= '9') ++j;
      }
      if (j == digits_start || (j == digits_start + 1 && sql[digits_start] == '.') ||
          !after_comparison || (j < sql.size() && (IsIdentChar(sql[j]) || sql[j] == '.'))) {
        // Not a plain number after a comparison: keep the text as it is.
        if (j == i) j = i + 1;
        shape->text.append(sql.substr(i, j - i));
        i = j;
        continue;
      }
      std::string number(sql.substr(i, j - i));
      ShapeParam p;
      p.text = number;
      if (real) {
        p.kind = ShapeParam::Kind::kReal;
        p.real = std::strtod(number.c_str(), nullptr);
      } else {
        p.kind = ShapeParam::Kind::kInteger;
        const char* b = number.data() + (number[0] == '+' ? 1 : 0);
        auto [ptr, ec] = std::from_chars(b, number.data() + number.size(), p.integer);
        if (ec != std::errc() || ptr != number.data() + number.size()) return false;
      }
      shape->params.push_back(std::move(p));
      placeholder();
      i = j;
    } else {
      if (c == '(') {
        if (list_depth < 0 && last_word() == "IN") list_depth = depth + 1;
        ++depth;
      } else if (c == ')') {
        if (depth == list_depth) list_depth = -1;
        --depth;
      }
      shape->text.push_back(c);
      ++i;
    }
  }
  return true;
}

}  // namespace quillo::db
