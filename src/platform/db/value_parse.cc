// Reading the engines' text forms of date-times back into dates.
#include "platform/db/value_parse.h"

#include "platform/error.h"

namespace quillo::db {
namespace {

bool Num(std::string_view s, size_t pos, size_t count, int* value) {
  if (pos + count > s.size()) return false;
  int v = 0;
  for (size_t k = pos; k < pos + count; ++k) {
    if (s[k] < '0' || s[k] > '9') return false;
    v = v * 10 + (s[k] - '0');
  }
  *value = v;
  return true;
}

}  // namespace

bool ParseStoredDateTime(std::string_view text, Date* out) {
  int y = 1899, m = 12, d = 30, hh = 0, nn = 0, ss = 0;
  size_t time_at;
  if (text.size() >= 8 && text[2] == ':') {
    time_at = 0;
  } else {
    if (text.size() < 10 || text[4] != '-' || text[7] != '-' || !Num(text, 0, 4, &y) ||
        !Num(text, 5, 2, &m) || !Num(text, 8, 2, &d)) {
      return false;
    }
    if (text.size() == 10) {
      time_at = std::string_view::npos;
    } else if (text[10] == ' ' || text[10] == 'T') {
      time_at = 11;
    } else {
      return false;
    }
  }
  double fraction = 0;
  if (time_at != std::string_view::npos) {
    if (text.size() < time_at + 8 || text[time_at + 2] != ':' || text[time_at + 5] != ':' ||
        !Num(text, time_at, 2, &hh) || !Num(text, time_at + 3, 2, &nn) ||
        !Num(text, time_at + 6, 2, &ss)) {
      return false;
    }
    size_t k = time_at + 8;
    if (k < text.size() && text[k] == '.') {
      double scale = 0.1;
      for (++k; k < text.size() && text[k] >= '0' && text[k] <= '9'; ++k) {
        fraction += (text[k] - '0') * scale;
        scale /= 10;
      }
    }
    if (k != text.size() && text[k] != '+' && text[k] != '-' && text[k] != 'Z') return false;
  }
  if (m < 1 || m > 12 || d < 1 || d > 31 || hh > 23 || nn > 59 || ss > 59) return false;
  try {
    Date value = DateFromParts(y, m, d, hh, nn, ss);
    if (fraction > 0) {
      value = FromLinearDays(ToLinearDays(value) + fraction / 86400.0);
    }
    *out = value;
    return true;
  } catch (const RuntimeError&) {
    return false;
  }
}

}  // namespace quillo::db
