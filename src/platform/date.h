// Automation dates: a day count from 1899-12-30 00:00 (the zero date) with the
// time of day as the fraction, and the calendar functions over them.
//
// Negative values follow the automation encoding: the integer part counts days
// back from the zero date and the fraction is the time of day added forward,
// so -1.25 is 1899-12-29 06:00. Weekdays are 1 = Sunday .. 7 = Saturday.
// The representable range is 100-01-01 00:00:00 .. 9999-12-31 23:59:59; a
// result outside it raises error 6 (Overflow).
//
// Calendar arithmetic uses the proleptic Gregorian calendar of <chrono>; no
// function reads the C library's locale. All functions here are pure and
// thread-safe; the current date and time come from clock.h.
//
//   Date d = DateFromParts(2005, 3, 1, 14, 5, 9);
//   Weekday(d);                          // 3 (Tuesday)
//   DateAdd("m", 1, DateSerial(2005, 1, 31));  // 2005-02-28
#ifndef QUILLO_PLATFORM_DATE_H_
#define QUILLO_PLATFORM_DATE_H_

#include <compare>
#include <string_view>

namespace quillo {

// An automation date value. The zero date (value 0) stands for "no date".
struct Date {
  double value = 0.0;  // Days since 1899-12-30 00:00; time of day as the fraction.

  constexpr Date() = default;
  constexpr explicit Date(double v) : value(v) {}
  friend constexpr auto operator<=>(Date, Date) = default;
};

// The zero date, 1899-12-30 00:00:00 (value 0), which stands for "no date".
inline constexpr Date kZeroDate{};

// Adds the two values as Basic does with dates (a date plus a time of day,
// e.g. DateSerial(2005, 3, 1) + TimeSerial(14, 5, 9)). The values are simply
// summed, which is right for dates on or after the zero date; use
// DateFromParts or DateAdd for earlier dates.
constexpr Date operator+(Date a, Date b) { return Date(a.value + b.value); }

// The date for `year`, `month`, `day`. Years 0..29 mean 2000..2029 and 30..99
// mean 1930..1999. Months outside 1..12 roll into the years around (month 0 is
// December of the year before, 13 is January of the next), then days outside
// the month roll over (day 0 is the last day of the month before, negative
// days go further back). Raises error 6 when the result is outside 100..9999.
Date DateSerial(int year, int month, int day);

// The time of day `hour`:`minute`:`second` as a date value (a fraction of a
// day). Out-of-range parts roll over; a total past 24 hours gives a value past
// one day (TimeSerial(25, 0, 0) is 1899-12-31 01:00, value 1.041666...) and a
// negative total lands before the zero date (TimeSerial(-1, 0, 0) is
// 1899-12-29 23:00). Raises error 6 when the result is out of range.
Date TimeSerial(int hour, int minute, int second);

// DateSerial(y, m, d) at the time TimeSerial(hh, nn, ss), with the time
// counted forward from the date even when the date is before the zero date.
// Raises error 6 when the result is out of range.
Date DateFromParts(int y, int m, int d, int hh, int nn, int ss);

// True when `v` is a date value within 100-01-01 .. 9999-12-31 23:59:59
// (NaN and infinities are not).
bool IsValidDateValue(double v);

// The position of `d` on a continuous day line: whole days since the zero date
// plus the time of day, so -1.25 (1899-12-29 06:00) gives -0.75.
double ToLinearDays(Date d);

// The date value at `days` on the continuous day line (inverse of
// ToLinearDays): -0.75 gives -1.25.
Date FromLinearDays(double days);

// The calendar parts of `d`. The time is first rounded to the nearest second,
// so 23:59:59.6 belongs to the next day. REQUIRES: IsValidDateValue(d.value)
// (otherwise error 6 is raised).
int Year(Date d);
int Month(Date d);   // 1..12
int Day(Date d);     // 1..31
int Hour(Date d);    // 0..23
int Minute(Date d);  // 0..59
int Second(Date d);  // 0..59

// The day of the week of `d`: 1 for `first_day_of_week` (1 = Sunday ..
// 7 = Saturday; 0 means the default, Sunday). Any other first day raises
// error 5.
int Weekday(Date d, int first_day_of_week = 1);

// The day of the year of `d`, 1..366.
int DayOfYear(Date d);

// The week of the year of `d` (1..54). `first_day_of_week` as for Weekday;
// `first_week_of_year` is 1 (or 0) for the week holding 1 January, 2 for the
// first week with at least four days in the year, 3 for the first full week.
// Days before week 1 belong to the last week of the year before. Other
// arguments raise error 5.
int WeekOfYear(Date d, int first_day_of_week = 1, int first_week_of_year = 1);

// `d` moved by `number` intervals (case-insensitive): "yyyy" years, "q"
// quarters, "m" months, "y"/"d"/"w" days, "ww" weeks, "h" hours, "n" minutes,
// "s" seconds. Only whole intervals are added: a fraction in `number` is
// dropped. Adding years, quarters or months keeps the day, clamped to the end
// of the target month (31 January + 1 month is 28 or 29 February). The time
// of day is kept. An unknown interval raises error 5; a result out of range
// raises error 6.
Date DateAdd(std::string_view interval, double number, Date d);

// The number of interval boundaries between `d1` and `d2`, negative when `d2`
// is earlier: "d"/"y" calendar days (midnights crossed), "m" months, "q"
// quarters, "yyyy" years, "ww" calendar weeks (Sundays crossed), "w" whole
// weeks of seven days, "h" hours, "n" minutes, "s" seconds. An unknown
// interval raises error 5.
long long DateDiff(std::string_view interval, Date d1, Date d2);

// The date part of `d` (its time set to 00:00:00): -1.25 gives -1.
Date DateOnly(Date d);

// The time-of-day part of `d` as a fraction of a day: -1.25 gives 0.25.
Date TimeOnly(Date d);

// Parses a date and/or time as Basic's CDate accepts it, in the en-US order
// and independent of any locale: "2005-03-01", "2005-03-01 14:05:09",
// "3/1/2005", "3-1-05", "03/01/2005 2:05:09 PM", "March 1, 2005",
// "Tuesday, March 1, 2005", "1 Mar 2005", "01-Mar-05", "14:05", "2:05 PM",
// "14:05:09". Spaces around the text are ignored. Two-digit years follow the
// DateSerial window. Returns false (leaving *out alone) when the text is not a
// valid date or time; otherwise stores the date in *out.
bool TryParseDate(std::string_view text, Date* out);

}  // namespace quillo

#endif  // QUILLO_PLATFORM_DATE_H_
