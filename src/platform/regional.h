// The regional settings that the named date formats are built from.
//
// One process-wide object, default en-US. The host may change it (for
// instance a different short date pattern or date separator) before it starts
// formatting; FormatDate reads it on every call. Thread-safety: set it during
// start-up, before other threads format dates; reading is then safe.
//
//   Regional().short_date = "dd/mm/yyyy";
//   FormatDate(d, "Short Date");  // "01/03/2005"
#ifndef QUILLO_PLATFORM_REGIONAL_H_
#define QUILLO_PLATFORM_REGIONAL_H_

#include <string>

namespace quillo {

// Patterns of the named formats and the separators, in FormatDate's letters.
struct RegionalSettings {
  std::string short_date = "m/d/yyyy";           // "Short Date" and ddddd.
  std::string long_date = "dddd, mmmm d, yyyy";  // "Long Date" and dddddd.
  std::string medium_date = "dd-mmm-yy";         // "Medium Date".
  std::string short_time = "hh:nn";              // "Short Time" (24-hour).
  std::string medium_time = "hh:nn AMPM";        // "Medium Time".
  std::string long_time = "h:nn:ss AM/PM";       // "Long Time" and ttttt.
  std::string date_separator = "/";              // What "/" prints in a pattern.
  std::string time_separator = ":";              // What ":" prints in a pattern.
};

// The one process-wide settings object (en-US until the host changes it).
RegionalSettings& Regional();

}  // namespace quillo

#endif  // QUILLO_PLATFORM_REGIONAL_H_
