// Placeholder until the formatting functions land.
#ifndef QUILLO_PLATFORM_FORMAT_H_
#define QUILLO_PLATFORM_FORMAT_H_
#include <string>
#include <string_view>

#include "platform/date.h"
namespace quillo {
std::string FormatDate(Date value, std::string_view pattern, int first_day_of_week = 1,
                       int first_week_of_year = 1);
}
#endif
