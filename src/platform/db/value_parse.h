// Reading the engines' text forms of date-times back into dates.
// Thread-safety: pure functions.
#ifndef QUILLO_PLATFORM_DB_VALUE_PARSE_H_
#define QUILLO_PLATFORM_DB_VALUE_PARSE_H_

#include <string_view>

#include "platform/date.h"

namespace quillo::db {

// Reads "yyyy-mm-dd", "yyyy-mm-dd hh:nn:ss[.fff...]" (also with "T") or
// "hh:nn:ss" into *out; false when the text is not such a date-time or falls
// outside the date range.
bool ParseStoredDateTime(std::string_view text, Date* out);

}  // namespace quillo::db

#endif  // QUILLO_PLATFORM_DB_VALUE_PARSE_H_
