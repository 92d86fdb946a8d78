#include "campaign/constants.h"

namespace quillo {

std::string_view ScheduleCodeDescription(std::int32_t code) {
  auto find = [code](const auto& table) -> std::string_view {
    for (const ScheduleCodeText& entry : table) {
      if (entry.code == code) return entry.description;
    }
    return {};
  };
  for (std::string_view text :
       {find(kWeeklyScheduleTexts), find(kDayOfMonthScheduleTexts),
        find(kWeekdayOfMonthScheduleTexts), find(kEveryNDaysScheduleTexts)}) {
    if (!text.empty()) return text;
  }
  return {};
}

}  // namespace quillo
