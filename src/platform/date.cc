// Automation dates over <chrono> civil dates.
//
// Internally a date value is split into a day index (days from the zero date,
// negative before it) and the seconds into that day. The automation encoding
// stores a date before the zero date as -(days back) - (time of day), so the
// integer part is always the day index and the absolute fraction the time.
#include "platform/date.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <string>

#include "platform/error.h"

namespace quillo {
namespace {

namespace chr = std::chrono;

constexpr long long kSecondsPerDay = 86400;
// Days from 1899-12-30 (the zero date) to 1970-01-01 (the sys_days epoch).
constexpr long long kZeroDateToUnixEpoch = 25569;
// Day indexes of 100-01-01 and 9999-12-31.
constexpr long long kFirstDay = -657434;
constexpr long long kLastDay = 2958465;

// ---------------------------------------------------------------------------
// Day index <-> civil date

chr::year_month_day CivilFromDay(long long day) {
  return chr::year_month_day{chr::sys_days{chr::days{day - kZeroDateToUnixEpoch}}};
}

// The day index of y-m-d; `month` must be 1..12 and `year` within chrono's range,
// `day` may be any count from the first of the month.
long long DayFromCivil(long long year, int month, long long day) {
  chr::sys_days first{chr::year{static_cast<int>(year)} / chr::month{static_cast<unsigned>(month)} /
                      chr::day{1}};
  return first.time_since_epoch().count() + kZeroDateToUnixEpoch + (day - 1);
}

int DaysInMonth(int year, int month) {
  chr::year_month_day_last last{chr::year{year} / chr::month{static_cast<unsigned>(month)} /
                                chr::last};
  return static_cast<int>(static_cast<unsigned>(last.day()));
}

long long FloorDiv(long long a, long long b) {
  long long q = a / b;
  if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
  return q;
}

bool DayInRange(long long day) { return day >= kFirstDay && day <= kLastDay; }

// The date value for `day` at `seconds` (0 <= seconds < 86400) into that day.
Date Compose(long long day, double seconds) {
  double fraction = seconds / static_cast<double>(kSecondsPerDay);
  double d = static_cast<double>(day);
  return Date(day >= 0 ? d + fraction : d - fraction);
}

// A moment given as seconds on the continuous line from the zero date.
Date ComposeSeconds(double total_seconds) {
  if (!std::isfinite(total_seconds)) Raise(err::kOverflow);
  double day = std::floor(total_seconds / kSecondsPerDay);
  if (day < kFirstDay || day > kLastDay) Raise(err::kOverflow);
  double seconds = total_seconds - day * kSecondsPerDay;
  // The division may round across a day boundary for fractional seconds.
  if (seconds >= kSecondsPerDay) {
    day += 1;
    seconds -= kSecondsPerDay;
  } else if (seconds < 0) {
    day -= 1;
    seconds += kSecondsPerDay;
  }
  if (day < kFirstDay || day > kLastDay) Raise(err::kOverflow);
  return Compose(static_cast<long long>(day), seconds);
}

// A date split into its day index and the seconds into that day, unrounded.
struct Exact {
  long long day;
  double seconds;
};

Exact SplitExact(Date d) {
  if (!IsValidDateValue(d.value)) Raise(err::kOverflow);
  double whole = std::trunc(d.value);
  return Exact{static_cast<long long>(whole), std::fabs(d.value - whole) * kSecondsPerDay};
}

// A date split into its day index and whole seconds into that day (rounded to
// the nearest second, carrying into the next day).
struct Parts {
  long long day;
  long long second;  // 0..86399
  long long TotalSeconds() const { return day * kSecondsPerDay + second; }
};

Parts Split(Date d) {
  Exact exact = SplitExact(d);
  Parts parts{exact.day, std::llround(exact.seconds)};
  if (parts.second >= kSecondsPerDay) {
    parts.second -= kSecondsPerDay;
    parts.day += 1;
  }
  return parts;
}

std::string Lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

// The day index for a year/month/day where month and day may roll over; raises
// error 6 when the result is outside the representable range.
long long RolledDay(long long year, long long month, long long day) {
  long long months = year * 12 + (month - 1);
  long long y = FloorDiv(months, 12);
  int m = static_cast<int>(months - y * 12) + 1;
  // Keep well inside chrono's year range; anything this far out overflows anyway.
  if (y < -20000 || y > 20000) Raise(err::kOverflow);
  long long result = DayFromCivil(y, m, day);
  if (!DayInRange(result)) Raise(err::kOverflow);
  return result;
}

int WeekdayOfDay(long long day, int first_day_of_week) {
  if (first_day_of_week < 0 || first_day_of_week > 7) Raise(err::kInvalidProcedureCall);
  if (first_day_of_week == 0) first_day_of_week = 1;
  // Days since the last Sunday; the zero date was a Saturday.
  long long since_sunday = ((day + 6) % 7 + 7) % 7;
  return static_cast<int>((since_sunday - (first_day_of_week - 1) + 7) % 7) + 1;
}

}  // namespace

// ---------------------------------------------------------------------------
// Construction and range

Date DateSerial(int year, int month, int day) {
  long long y = year;
  if (y >= 0 && y <= 29) {
    y += 2000;
  } else if (y >= 30 && y <= 99) {
    y += 1900;
  }
  return Date(static_cast<double>(RolledDay(y, month, day)));
}

Date TimeSerial(int hour, int minute, int second) {
  long long total = static_cast<long long>(hour) * 3600 + static_cast<long long>(minute) * 60 +
                    static_cast<long long>(second);
  return ComposeSeconds(static_cast<double>(total));
}

Date DateFromParts(int y, int m, int d, int hh, int nn, int ss) {
  long long day = static_cast<long long>(DateSerial(y, m, d).value);
  long long total = day * kSecondsPerDay + static_cast<long long>(hh) * 3600 +
                    static_cast<long long>(nn) * 60 + static_cast<long long>(ss);
  return ComposeSeconds(static_cast<double>(total));
}

bool IsValidDateValue(double v) {
  // Before the zero date the integer part is the day, so -657434.99 is still
  // 100-01-01 (late in the day).
  return v > static_cast<double>(kFirstDay - 1) && v < static_cast<double>(kLastDay + 1);
}

double ToLinearDays(Date d) {
  double whole = std::trunc(d.value);
  return whole + std::fabs(d.value - whole);
}

Date FromLinearDays(double days) {
  double day = std::floor(days);
  double fraction = days - day;
  return Date(day >= 0 ? day + fraction : day - fraction);
}

// ---------------------------------------------------------------------------
// Parts

int Year(Date d) { return static_cast<int>(CivilFromDay(Split(d).day).year()); }

int Month(Date d) {
  return static_cast<int>(static_cast<unsigned>(CivilFromDay(Split(d).day).month()));
}

int Day(Date d) {
  return static_cast<int>(static_cast<unsigned>(CivilFromDay(Split(d).day).day()));
}

int Hour(Date d) { return static_cast<int>(Split(d).second / 3600); }

int Minute(Date d) { return static_cast<int>(Split(d).second / 60 % 60); }

int Second(Date d) { return static_cast<int>(Split(d).second % 60); }

int Weekday(Date d, int first_day_of_week) { return WeekdayOfDay(Split(d).day, first_day_of_week); }

int DayOfYear(Date d) {
  long long day = Split(d).day;
  int year = static_cast<int>(CivilFromDay(day).year());
  return static_cast<int>(day - DayFromCivil(year, 1, 1)) + 1;
}

int WeekOfYear(Date d, int first_day_of_week, int first_week_of_year) {
  if (first_week_of_year < 0 || first_week_of_year > 3) Raise(err::kInvalidProcedureCall);
  if (first_week_of_year == 0) first_week_of_year = 1;
  long long day = Split(d).day;
  int year = static_cast<int>(CivilFromDay(day).year());
  // The first day of week 1 of `y`.
  auto week_one = [&](int y) {
    long long jan1 = DayFromCivil(y, 1, 1);
    long long offset = WeekdayOfDay(jan1, first_day_of_week) - 1;  // days since week start
    long long start = jan1 - offset;
    if (first_week_of_year == 2 && offset > 3) start += 7;
    if (first_week_of_year == 3 && offset > 0) start += 7;
    return start;
  };
  long long start = week_one(year);
  if (day < start) start = week_one(year - 1);
  return static_cast<int>((day - start) / 7) + 1;
}

// ---------------------------------------------------------------------------
// Arithmetic

Date DateAdd(std::string_view interval, double number, Date d) {
  enum class Kind { kMonths, kDays, kSeconds };
  struct Unit {
    const char* name;
    Kind kind;
    long long scale;  // Months, days or seconds in one interval.
  };
  static constexpr Unit kUnits[] = {
      {"yyyy", Kind::kMonths, 12}, {"q", Kind::kMonths, 3},     {"m", Kind::kMonths, 1},
      {"y", Kind::kDays, 1},       {"d", Kind::kDays, 1},       {"w", Kind::kDays, 1},
      {"ww", Kind::kDays, 7},      {"h", Kind::kSeconds, 3600}, {"n", Kind::kSeconds, 60},
      {"s", Kind::kSeconds, 1},
  };
  std::string name = Lower(interval);
  const Unit* unit = nullptr;
  for (const Unit& candidate : kUnits) {
    if (name == candidate.name) unit = &candidate;
  }
  if (unit == nullptr) Raise(err::kInvalidProcedureCall);
  const long long scale = unit->scale;
  // Only whole intervals count. Anything beyond this bound leaves the date range.
  double whole = std::trunc(number);
  if (!(std::fabs(whole) < 1e12)) Raise(err::kOverflow);
  long long count = static_cast<long long>(whole) * scale;

  Exact exact = SplitExact(d);
  switch (unit->kind) {
    case Kind::kMonths: {
      chr::year_month_day ymd = CivilFromDay(exact.day);
      long long months = static_cast<long long>(static_cast<int>(ymd.year())) * 12 +
                         (static_cast<unsigned>(ymd.month()) - 1) + count;
      long long y = FloorDiv(months, 12);
      int m = static_cast<int>(months - y * 12) + 1;
      if (y < 100 || y > 9999) Raise(err::kOverflow);
      int day = std::min(static_cast<int>(static_cast<unsigned>(ymd.day())),
                         DaysInMonth(static_cast<int>(y), m));
      return Compose(DayFromCivil(y, m, day), exact.seconds);
    }
    case Kind::kDays: {
      long long day = exact.day + count;
      if (!DayInRange(day)) Raise(err::kOverflow);
      return Compose(day, exact.seconds);
    }
    case Kind::kSeconds:
      return ComposeSeconds(static_cast<double>(exact.day * kSecondsPerDay) + exact.seconds +
                            static_cast<double>(count));
  }
  Raise(err::kInvalidProcedureCall);
}

long long DateDiff(std::string_view interval, Date d1, Date d2) {
  std::string unit = Lower(interval);
  Parts a = Split(d1);
  Parts b = Split(d2);
  auto months = [](long long day) {
    chr::year_month_day ymd = CivilFromDay(day);
    return static_cast<long long>(static_cast<int>(ymd.year())) * 12 +
           (static_cast<unsigned>(ymd.month()) - 1);
  };
  if (unit == "d" || unit == "y") return b.day - a.day;
  if (unit == "m") return months(b.day) - months(a.day);
  if (unit == "q") return FloorDiv(months(b.day), 3) - FloorDiv(months(a.day), 3);
  if (unit == "yyyy") return FloorDiv(months(b.day), 12) - FloorDiv(months(a.day), 12);
  if (unit == "w") return (b.day - a.day) / 7;
  if (unit == "ww") {
    // Weeks start on Sunday; the zero date was a Saturday, so day 1 is a Sunday.
    return FloorDiv(b.day - 1, 7) - FloorDiv(a.day - 1, 7);
  }
  if (unit == "h") return FloorDiv(b.TotalSeconds(), 3600) - FloorDiv(a.TotalSeconds(), 3600);
  if (unit == "n") return FloorDiv(b.TotalSeconds(), 60) - FloorDiv(a.TotalSeconds(), 60);
  if (unit == "s") return b.TotalSeconds() - a.TotalSeconds();
  Raise(err::kInvalidProcedureCall);
}

Date DateOnly(Date d) { return Date(static_cast<double>(Split(d).day)); }

Date TimeOnly(Date d) { return Compose(0, static_cast<double>(Split(d).second)); }

// ---------------------------------------------------------------------------
// Parsing text

namespace {

constexpr const char* kMonthNames[] = {"january",   "february", "march",    "april",
                                       "may",       "june",     "july",     "august",
                                       "september", "october",  "november", "december"};
constexpr const char* kWeekdayNames[] = {"sunday",   "monday", "tuesday", "wednesday",
                                         "thursday", "friday", "saturday"};

// A read position over the text being parsed.
class Cursor {
 public:
  explicit Cursor(std::string_view text) : text_(text) {}

  bool AtEnd() const { return pos_ >= text_.size(); }
  char Peek() const { return AtEnd() ? '\0' : text_[pos_]; }
  size_t Position() const { return pos_; }
  void Reset(size_t pos) { pos_ = pos; }

  // Consumes `c` when it is next.
  bool Take(char c) {
    if (Peek() != c) return false;
    ++pos_;
    return true;
  }

  // Consumes spaces; returns how many.
  int SkipSpaces() {
    int count = 0;
    while (Take(' ')) ++count;
    return count;
  }

  // Reads a run of 1..`max_digits` digits (a longer run fails).
  bool Number(int max_digits, long long* value, int* digits) {
    size_t start = pos_;
    while (!AtEnd() && std::isdigit(static_cast<unsigned char>(text_[pos_]))) ++pos_;
    int count = static_cast<int>(pos_ - start);
    if (count == 0 || count > max_digits) {
      pos_ = start;
      return false;
    }
    *value = std::stoll(std::string(text_.substr(start, count)));
    if (digits != nullptr) *digits = count;
    return true;
  }

  // Reads a run of letters, lower-cased.
  std::string Word() {
    size_t start = pos_;
    while (!AtEnd() && std::isalpha(static_cast<unsigned char>(text_[pos_]))) ++pos_;
    return Lower(text_.substr(start, pos_ - start));
  }

 private:
  std::string_view text_;
  size_t pos_ = 0;
};

// The month (1..12) named by `word` in full or by its first three letters, or 0.
int MonthFromWord(const std::string& word) {
  for (int i = 0; i < 12; ++i) {
    std::string_view name = kMonthNames[i];
    if (word == name || word == name.substr(0, 3) || (i == 8 && word == "sept")) return i + 1;
  }
  return 0;
}

bool IsWeekdayWord(const std::string& word) {
  for (std::string_view name : kWeekdayNames) {
    if (word == name || word == name.substr(0, 3)) return true;
  }
  return false;
}

// A parsed calendar date, checked and turned into a day index.
bool DayFromText(long long year, int year_digits, long long month, long long day, long long* out) {
  if (year_digits <= 2) year += year < 30 ? 2000 : 1900;
  if (year < 100 || year > 9999 || month < 1 || month > 12) return false;
  if (day < 1 || day > DaysInMonth(static_cast<int>(year), static_cast<int>(month))) return false;
  *out = DayFromCivil(year, static_cast<int>(month), day);
  return true;
}

// m/d/y or y-m-d with "/" or "-" (the same both times).
bool NumericDate(Cursor& c, long long* day_index) {
  long long a, b, y;
  int a_digits, y_digits;
  if (!c.Number(4, &a, &a_digits)) return false;
  char sep = c.Peek();
  if ((sep != '/' && sep != '-') || !c.Take(sep)) return false;
  if (!c.Number(2, &b, nullptr) || !c.Take(sep)) return false;
  if (a_digits >= 3) {  // year first
    long long d;
    return c.Number(2, &d, nullptr) && DayFromText(a, a_digits, b, d, day_index);
  }
  if (a_digits > 2 || !c.Number(4, &y, &y_digits)) return false;
  return DayFromText(y, y_digits, a, b, day_index);
}

// "March 1, 2005", "Mar 1 2005".
bool MonthNameFirst(Cursor& c, long long* day_index) {
  int month = MonthFromWord(c.Word());
  if (month == 0) return false;
  c.SkipSpaces();
  long long d, y;
  int y_digits;
  if (!c.Number(2, &d, nullptr)) return false;
  bool comma = c.Take(',');
  if (c.SkipSpaces() == 0 && !comma) return false;
  return c.Number(4, &y, &y_digits) && DayFromText(y, y_digits, month, d, day_index);
}

// "1 Mar 2005", "01-Mar-05".
bool DayFirst(Cursor& c, long long* day_index) {
  long long d, y;
  int y_digits;
  if (!c.Number(2, &d, nullptr)) return false;
  bool dashed = c.Take('-');
  if (!dashed && c.SkipSpaces() == 0) return false;
  int month = MonthFromWord(c.Word());
  if (month == 0) return false;
  if (dashed ? !c.Take('-') : c.SkipSpaces() == 0) return false;
  return c.Number(4, &y, &y_digits) && DayFromText(y, y_digits, month, d, day_index);
}

// Any of the date forms, optionally after a weekday name ("Tuesday, ...").
bool DatePart(Cursor& c, long long* day_index) {
  size_t start = c.Position();
  if (std::isalpha(static_cast<unsigned char>(c.Peek()))) {
    std::string word = c.Word();
    if (IsWeekdayWord(word)) {
      bool comma = c.Take(',');
      if (c.SkipSpaces() == 0 && !comma) return false;
    } else {
      c.Reset(start);
    }
  }
  size_t after_weekday = c.Position();
  for (auto form : {NumericDate, MonthNameFirst, DayFirst}) {
    c.Reset(after_weekday);
    if (form(c, day_index)) return true;
  }
  c.Reset(start);
  return false;
}

// "14:05", "14:05:09", "2:05 PM", "2 PM", "2:05:09pm": seconds into the day.
bool TimePart(Cursor& c, long long* seconds) {
  long long h, m = 0, s = 0;
  if (!c.Number(2, &h, nullptr)) return false;
  bool has_colon = c.Take(':');
  if (has_colon) {
    if (!c.Number(2, &m, nullptr)) return false;
    if (c.Take(':') && !c.Number(2, &s, nullptr)) return false;
  }
  size_t before_marker = c.Position();
  c.SkipSpaces();
  std::string marker = c.Word();
  if (marker.empty()) c.Reset(before_marker);
  bool am = marker == "am" || marker == "a";
  bool pm = marker == "pm" || marker == "p";
  if (!marker.empty() && !am && !pm) return false;
  if (!has_colon && marker.empty()) return false;
  if (m > 59 || s > 59) return false;
  if (am || pm) {
    if (h > 12) return false;
    if (h == 12) h = 0;
    if (pm) h += 12;
  } else if (h > 23) {
    return false;
  }
  *seconds = h * 3600 + m * 60 + s;
  return true;
}

}  // namespace

bool TryParseDate(std::string_view text, Date* out) {
  size_t first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) return false;
  text = text.substr(first, text.find_last_not_of(' ') - first + 1);

  Cursor c(text);
  long long day = 0;
  long long seconds = 0;
  if (DatePart(c, &day)) {
    if (!c.AtEnd()) {
      if (!c.Take('T') && c.SkipSpaces() == 0) return false;
      if (!TimePart(c, &seconds)) return false;
    }
  } else if (!TimePart(c, &seconds)) {
    return false;
  }
  if (!c.AtEnd()) return false;
  *out = ComposeSeconds(static_cast<double>(day * kSecondsPerDay + seconds));
  return true;
}

}  // namespace quillo
