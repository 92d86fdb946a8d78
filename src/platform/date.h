// Automation dates: a day count from 1899-12-30 00:00 (the zero date) with the
// time of day as the fraction, and the calendar functions over them.
//
// Negative values follow the automation encoding: the integer part counts days
// back from the zero date and the fraction is the time of day added forward,
// so -1.25 is 1899-12-29 06:00. Weekdays are 1 = Sunday .. 7 = Saturday.
// All functions are pure and thread-safe except Now()/Today(), which read the
// replaceable clock (see clock.h).
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

// Placeholder declarations until the calendar functions land.
bool IsValidDateValue(double v);
bool TryParseDate(std::string_view text, Date* out);

}  // namespace quillo

#endif  // QUILLO_PLATFORM_DATE_H_
