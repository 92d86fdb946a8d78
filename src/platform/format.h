// Basic-style formatting of dates: Format(value, pattern) with the pattern
// letters and the named formats.
//
// Pattern letters (case-insensitive): d dd (day), ddd dddd (weekday name),
// ddddd (short date), dddddd (long date), w (weekday number), ww (week of the
// year), m mm (month; minutes when right after h or hh), mmm mmmm (month
// name), q (quarter), y (day of the year), yy yyyy (year), h hh (hour), n nn
// (minute), s ss (second), ttttt (long time), c (general date), AM/PM am/pm
// A/P a/p AMPM (12-hour clock with that marker; AMPM prints "AM"/"PM"). "/"
// and ":" print the Regional() separators, "..." and \x are literal text, and
// any other character stands for itself.
//
// Named formats (the whole pattern, case-insensitive): "General Date", "Long
// Date", "Medium Date", "Short Date", "Long Time", "Medium Time", "Short
// Time", taken from Regional(). An empty pattern is "General Date".
// Names are in English; nothing reads the C library's locale. Thread-safe as
// long as Regional() is not being changed.
//
//   FormatDate(DateFromParts(2005, 3, 1, 14, 5, 9), "yyyy-mm-dd hh:nn:ss");
//   // "2005-03-01 14:05:09"
#ifndef QUILLO_PLATFORM_FORMAT_H_
#define QUILLO_PLATFORM_FORMAT_H_

#include <string>
#include <string_view>

#include "platform/date.h"

namespace quillo {

// `value` formatted with `pattern` (see above). `first_day_of_week` and
// `first_week_of_year` are as for WeekOfYear and drive w and ww. Raises
// error 6 when `value` is not a valid date.
std::string FormatDate(Date value, std::string_view pattern, int first_day_of_week = 1,
                       int first_week_of_year = 1);

// The English name of `month` (1..12), or its three-letter abbreviation.
// Other months raise error 5.
std::string MonthName(int month, bool abbreviate = false);

// The English name of the day `weekday` counted from `first_day_of_week`
// (1 = Sunday by default), or its three-letter abbreviation. Raises error 5
// for a weekday outside 1..7 or a first day outside 0..7.
std::string WeekdayName(int weekday, bool abbreviate = false, int first_day_of_week = 1);

}  // namespace quillo

#endif  // QUILLO_PLATFORM_FORMAT_H_
