// FormatDate: a pattern is first cut into tokens (so that the 12-hour clock can
// be chosen for the whole pattern when any AM/PM marker appears), then each
// token is rendered from the date's parts.
#include "platform/format.h"

#include <cctype>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/regional.h"

namespace quillo {
namespace {

constexpr const char* kMonthNames[] = {"January",   "February", "March",    "April",
                                       "May",       "June",     "July",     "August",
                                       "September", "October",  "November", "December"};
constexpr const char* kWeekdayNames[] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                         "Thursday", "Friday", "Saturday"};

// Nesting limit for patterns that expand to regional patterns (ddddd, c, ...),
// so a regional pattern that refers to itself cannot loop.
constexpr int kMaxDepth = 3;

std::string Lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

// True when `text` at `pos` starts with `word`, ignoring case.
bool StartsWithAt(std::string_view text, size_t pos, std::string_view word) {
  if (text.size() - pos < word.size()) return false;
  return Lower(text.substr(pos, word.size())) == word;
}

std::string Padded(int value) {
  std::string digits = std::to_string(value);
  return digits.size() < 2 ? "0" + digits : digits;
}

enum class Kind {
  kLiteral,
  kDay,        // d (width 1) / dd (2)
  kDayName,    // ddd (3) / dddd (4)
  kShortDate,  // ddddd
  kLongDate,   // dddddd
  kWeekday,    // w
  kWeek,       // ww
  kMonth,      // m / mm
  kMonthName,  // mmm / mmmm
  kMinute,     // n / nn, and m / mm right after an hour
  kQuarter,    // q
  kDayOfYear,  // y
  kYear,       // yy (2) / yyyy (4)
  kHour,       // h / hh
  kSecond,     // s / ss
  kLongTime,   // ttttt
  kGeneral,    // c
  kAmPm,       // AM/PM, am/pm, A/P, a/p, AMPM
  kDateSeparator,
  kTimeSeparator,
};

struct Token {
  Kind kind;
  int width = 1;     // How many letters (1 = unpadded number, 2 = two digits, ...).
  std::string text;  // Literal text, or the AM and PM markers separated by '/'.
};

// Cuts `pattern` into tokens.
std::vector<Token> Tokenize(std::string_view pattern) {
  std::vector<Token> tokens;
  bool after_hour = false;  // The last date/time token was h or hh.
  auto literal = [&tokens](std::string_view text) {
    if (!tokens.empty() && tokens.back().kind == Kind::kLiteral) {
      tokens.back().text += text;
    } else {
      tokens.push_back(Token{Kind::kLiteral, 1, std::string(text)});
    }
  };
  auto add = [&](Kind kind, int width) {
    tokens.push_back(Token{kind, width, {}});
    after_hour = kind == Kind::kHour;
  };

  size_t i = 0;
  while (i < pattern.size()) {
    char c = pattern[i];
    char lc = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (c == '"') {
      size_t close = pattern.find('"', i + 1);
      if (close == std::string_view::npos) close = pattern.size();
      literal(pattern.substr(i + 1, close - i - 1));
      i = close + 1;
      continue;
    }
    if (c == '\\') {
      if (i + 1 < pattern.size()) literal(pattern.substr(i + 1, 1));
      i += 2;
      continue;
    }
    if (c == '/') {
      tokens.push_back(Token{Kind::kDateSeparator, 1, {}});
      ++i;
      continue;
    }
    if (c == ':') {
      tokens.push_back(Token{Kind::kTimeSeparator, 1, {}});
      ++i;
      continue;
    }
    if (lc == 'a') {
      bool upper = c == 'A';
      if (StartsWithAt(pattern, i, "am/pm")) {
        tokens.push_back(Token{Kind::kAmPm, 1, upper ? "AM/PM" : "am/pm"});
        i += 5;
        continue;
      }
      if (StartsWithAt(pattern, i, "ampm")) {
        tokens.push_back(Token{Kind::kAmPm, 1, "AM/PM"});
        i += 4;
        continue;
      }
      if (StartsWithAt(pattern, i, "a/p")) {
        tokens.push_back(Token{Kind::kAmPm, 1, upper ? "A/P" : "a/p"});
        i += 3;
        continue;
      }
    }
    size_t run = 1;
    while (i + run < pattern.size() &&
           std::tolower(static_cast<unsigned char>(pattern[i + run])) == lc) {
      ++run;
    }
    int n = static_cast<int>(run);
    int used = 1;
    switch (lc) {
      case 'd':
        used = n >= 6 ? 6 : n;
        add(used == 6   ? Kind::kLongDate
            : used == 5 ? Kind::kShortDate
            : used >= 3 ? Kind::kDayName
                        : Kind::kDay,
            used);
        break;
      case 'm':
        used = n >= 4 ? 4 : n;
        if (used >= 3) {
          add(Kind::kMonthName, used);
        } else {
          add(after_hour ? Kind::kMinute : Kind::kMonth, used);
        }
        break;
      case 'y':
        used = n >= 4 ? 4 : n >= 2 ? 2 : 1;
        add(used == 1 ? Kind::kDayOfYear : Kind::kYear, used);
        break;
      case 'h':
      case 'n':
      case 's':
      case 'w':
        used = n >= 2 ? 2 : 1;
        if (lc == 'w') {
          add(used == 2 ? Kind::kWeek : Kind::kWeekday, used);
        } else {
          add(lc == 'h' ? Kind::kHour : lc == 'n' ? Kind::kMinute : Kind::kSecond, used);
        }
        break;
      case 'q':
        add(Kind::kQuarter, 1);
        break;
      case 'c':
        add(Kind::kGeneral, 1);
        break;
      case 't':
        if (n >= 5) {
          used = 5;
          add(Kind::kLongTime, 5);
        } else {
          used = n;
          literal(pattern.substr(i, used));
        }
        break;
      default:
        literal(pattern.substr(i, 1));
        break;
    }
    i += static_cast<size_t>(used);
  }
  return tokens;
}

// The parts of one date, computed once per FormatDate call.
struct DateParts {
  Date value;
  int year, month, day, hour, minute, second;
};

std::string Render(const DateParts& parts, std::string_view pattern, int first_day_of_week,
                   int first_week_of_year, int depth);

std::string GeneralDate(const DateParts& parts, int first_day_of_week, int first_week_of_year,
                        int depth) {
  const RegionalSettings& regional = Regional();
  bool has_date = DateOnly(parts.value).value != 0.0;
  bool has_time = parts.hour != 0 || parts.minute != 0 || parts.second != 0;
  std::string out;
  if (has_date) {
    out = Render(parts, regional.short_date, first_day_of_week, first_week_of_year, depth);
  }
  if (has_time || !has_date) {
    if (!out.empty()) out += ' ';
    out += Render(parts, regional.long_time, first_day_of_week, first_week_of_year, depth);
  }
  return out;
}

std::string Render(const DateParts& parts, std::string_view pattern, int first_day_of_week,
                   int first_week_of_year, int depth) {
  if (depth > kMaxDepth) return {};
  const RegionalSettings& regional = Regional();
  std::vector<Token> tokens = Tokenize(pattern);
  bool twelve_hour = false;
  for (const Token& token : tokens) twelve_hour = twelve_hour || token.kind == Kind::kAmPm;

  auto number = [](int value, int width) {
    return width >= 2 ? Padded(value) : std::to_string(value);
  };
  std::string out;
  for (const Token& token : tokens) {
    switch (token.kind) {
      case Kind::kLiteral:
        out += token.text;
        break;
      case Kind::kDay:
        out += number(parts.day, token.width);
        break;
      case Kind::kDayName:
        out += WeekdayName(Weekday(parts.value), token.width == 3);
        break;
      case Kind::kShortDate:
        out += Render(parts, regional.short_date, first_day_of_week, first_week_of_year, depth + 1);
        break;
      case Kind::kLongDate:
        out += Render(parts, regional.long_date, first_day_of_week, first_week_of_year, depth + 1);
        break;
      case Kind::kWeekday:
        out += std::to_string(Weekday(parts.value, first_day_of_week));
        break;
      case Kind::kWeek:
        out += std::to_string(WeekOfYear(parts.value, first_day_of_week, first_week_of_year));
        break;
      case Kind::kMonth:
        out += number(parts.month, token.width);
        break;
      case Kind::kMonthName:
        out += MonthName(parts.month, token.width == 3);
        break;
      case Kind::kMinute:
        out += number(parts.minute, token.width);
        break;
      case Kind::kQuarter:
        out += std::to_string((parts.month - 1) / 3 + 1);
        break;
      case Kind::kDayOfYear:
        out += std::to_string(DayOfYear(parts.value));
        break;
      case Kind::kYear:
        out += token.width == 2 ? Padded(parts.year % 100) : std::to_string(parts.year);
        break;
      case Kind::kHour: {
        int hour = parts.hour;
        if (twelve_hour) {
          hour %= 12;
          if (hour == 0) hour = 12;
        }
        out += number(hour, token.width);
        break;
      }
      case Kind::kSecond:
        out += number(parts.second, token.width);
        break;
      case Kind::kLongTime:
        out += Render(parts, regional.long_time, first_day_of_week, first_week_of_year, depth + 1);
        break;
      case Kind::kGeneral:
        out += GeneralDate(parts, first_day_of_week, first_week_of_year, depth + 1);
        break;
      case Kind::kAmPm: {
        size_t slash = token.text.find('/');
        out += parts.hour < 12 ? token.text.substr(0, slash) : token.text.substr(slash + 1);
        break;
      }
      case Kind::kDateSeparator:
        out += regional.date_separator;
        break;
      case Kind::kTimeSeparator:
        out += regional.time_separator;
        break;
    }
  }
  return out;
}

}  // namespace

std::string FormatDate(Date value, std::string_view pattern, int first_day_of_week,
                       int first_week_of_year) {
  if (!IsValidDateValue(value.value)) Raise(err::kOverflow);
  DateParts parts{value,       Year(value),   Month(value), Day(value),
                  Hour(value), Minute(value), Second(value)};
  const RegionalSettings& regional = Regional();
  std::string name = Lower(pattern);
  std::string_view named;
  if (name.empty() || name == "general date") {
    return GeneralDate(parts, first_day_of_week, first_week_of_year, 0);
  } else if (name == "long date") {
    named = regional.long_date;
  } else if (name == "medium date") {
    named = regional.medium_date;
  } else if (name == "short date") {
    named = regional.short_date;
  } else if (name == "long time") {
    named = regional.long_time;
  } else if (name == "medium time") {
    named = regional.medium_time;
  } else if (name == "short time") {
    named = regional.short_time;
  } else {
    named = pattern;
  }
  return Render(parts, named, first_day_of_week, first_week_of_year, 0);
}

std::string MonthName(int month, bool abbreviate) {
  if (month < 1 || month > 12) Raise(err::kInvalidProcedureCall);
  std::string name = kMonthNames[month - 1];
  return abbreviate ? name.substr(0, 3) : name;
}

std::string WeekdayName(int weekday, bool abbreviate, int first_day_of_week) {
  if (weekday < 1 || weekday > 7 || first_day_of_week < 0 || first_day_of_week > 7) {
    Raise(err::kInvalidProcedureCall);
  }
  if (first_day_of_week == 0) first_day_of_week = 1;
  std::string name = kWeekdayNames[(weekday - 1 + first_day_of_week - 1) % 7];
  return abbreviate ? name.substr(0, 3) : name;
}

}  // namespace quillo
