#include "campaign/dmdatecomputation.h"

#include <cmath>
#include <functional>

#include "platform/error.h"

namespace quillo {

namespace {

// Years are 16-bit numbers in the month stepping; a year outside raises 6.
int CheckYear(int year) {
  if (year < -32768 || year > 32767) Raise(err::kOverflow);
  return year;
}

// Dates are shifted by raw day counts, keeping the time of day, as date
// arithmetic on the host's date type does.
Date AddDays(Date d, double days) { return Date(d.value + days); }

}  // namespace

// --- Properties -------------------------------------------------------------

void dmdatecomputation::ReferenceDate(Date value) {
  reference_ = value;
  BuildMonthCalendar(1);
  BuildMonthCalendar(2);
  BuildMonthCalendar(3);
  BuildWeekdayTables();
}

void dmdatecomputation::Campaign(std::shared_ptr<dmmrktcmp> campaign) {
  campaign_ = std::move(campaign);
  code_ = CampaignRecord().CampaignType();
}

const dmmrktcmp& dmdatecomputation::CampaignRecord() const {
  if (!campaign_) Raise(err::kObjectNotSet);
  return *campaign_;
}

// --- Tables -----------------------------------------------------------------

int dmdatecomputation::DaysInMonth(int month) {
  switch (month) {
    case 1:
    case 3:
    case 5:
    case 7:
    case 8:
    case 10:
    case 12:
      return 31;
    case 4:
    case 6:
    case 9:
    case 11:
      return 30;
    case 2:
      return 28;  // Every year: leap days are deliberately not scheduled.
    default:
      return 0;
  }
}

void dmdatecomputation::BuildMonthCalendar(int k) {
  int m = Month(reference_);
  int y = Year(reference_);
  Calendar& cal = calendars_[static_cast<size_t>(k - 1)];
  // Only the counts are cleared: rows 1..5 keep what an earlier build left in
  // cells this month does not reach (the fifth occurrence of a weekday).
  for (auto& count : cal[0]) count = Date(0);
  if (k == 1) {
    if (--m < 1) {
      m = 12;
      y = CheckYear(y - 1);
    }
  } else if (k == 3) {
    if (++m > 12) {
      m = 1;
      y = CheckYear(y + 1);
    }
  }
  for (int d = 1; d <= DaysInMonth(m); ++d) {
    Date date = DateSerial(y, m, d);
    size_t w = static_cast<size_t>(Weekday(date) - 1);
    int count = static_cast<int>(cal[0][w]->value) + 1;
    cal[0][w] = Date(count);
    cal[static_cast<size_t>(count)][w] = date;
  }
}

void dmdatecomputation::BuildWeekdayTables() {
  for (int i = 1; i <= 7; ++i) {
    Date d = AddDays(reference_, -i);
    previous_table_[static_cast<size_t>(Weekday(d) - 1)] = d;
  }
  for (int i = 1; i <= 7; ++i) {
    Date d = AddDays(reference_, i - 1);
    next_table_[static_cast<size_t>(Weekday(d) - 1)] = d;
  }
}

std::optional<Date> dmdatecomputation::CalendarCell(int k, int row, int weekday) const {
  if (k < 1 || k > 3 || row < 0 || row > 5 || weekday < 1 || weekday > 7) {
    Raise(err::kSubscriptOutOfRange);
  }
  return calendars_[static_cast<size_t>(k - 1)][static_cast<size_t>(row)]
                   [static_cast<size_t>(weekday - 1)];
}

Date dmdatecomputation::CalendarDate(int k, int row, int weekday) const {
  // A cell never written reads as the zero date, as an empty value does.
  return CalendarCell(k, row, weekday).value_or(kZeroDate);
}

Date dmdatecomputation::NextOccurrence(int weekday) const {
  if (weekday < 1 || weekday > 7) Raise(err::kSubscriptOutOfRange);
  return next_table_[static_cast<size_t>(weekday - 1)];
}

Date dmdatecomputation::PreviousOccurrence(int weekday) const {
  if (weekday < 1 || weekday > 7) Raise(err::kSubscriptOutOfRange);
  return previous_table_[static_cast<size_t>(weekday - 1)];
}

// --- Queries ----------------------------------------------------------------

Date dmdatecomputation::getNextRunDate() { return Dispatch(Direction::kNext); }

Date dmdatecomputation::getPreviousRunDate() { return Dispatch(Direction::kPrevious); }

Date dmdatecomputation::Dispatch(Direction direction) {
  const bool next = direction == Direction::kNext;
  Date result = reference_;
  if (code_ >= 100 && code_ <= 106) {
    result = next ? WeeklyNext() : WeeklyPrevious();
  } else if (code_ >= 200 && code_ <= 249) {
    result = next ? DayOfMonthNext() : DayOfMonthPrevious();
  } else if (code_ >= 300 && code_ <= 349) {
    result = WeekdayOfMonth(direction);
  } else if (code_ >= 400 && code_ <= 449) {
    result = next ? EveryNDaysNext() : EveryNDaysPrevious();
  }
  if (result < kZeroDate) result = kZeroDate;
  return result;
}

// Weekly: the weekday of the code, Saturday (105) deliberately left at 0.
namespace {
int WeekdayOfWeeklyCode(std::int32_t code) {
  switch (code) {
    case 100:
      return 2;
    case 101:
      return 3;
    case 102:
      return 4;
    case 103:
      return 5;
    case 104:
      return 6;
    case 106:
      return 1;
    default:
      return 0;
  }
}
}  // namespace

Date dmdatecomputation::WeeklyNext() const { return NextOccurrence(WeekdayOfWeeklyCode(code_)); }

Date dmdatecomputation::WeeklyPrevious() const {
  return PreviousOccurrence(WeekdayOfWeeklyCode(code_));
}

// Day of month: the target day of the code (0 for 204-249).
namespace {
std::int32_t TargetDay(std::int32_t code, const std::function<std::int32_t()>& interval) {
  switch (code) {
    case 200:
      return 1;
    case 201:
      return 15;
    case 202:
      return 30;
    case 203: {
      std::int32_t t = interval();
      return t == 0 ? 1 : t;
    }
    default:
      return 0;
  }
}
}  // namespace

Date dmdatecomputation::DayOfMonthNext() const {
  std::int32_t t = TargetDay(code_, [this] { return CampaignRecord().Interval(); });
  int d = Day(reference_);
  int m = Month(reference_);
  int y = Year(reference_);
  if (d > t) {
    if (++m > 12) {
      m = 1;
      y = CheckYear(y + 1);
    }
  }
  if (t > DaysInMonth(m)) t = DaysInMonth(m);
  return DateSerial(y, m, t);
}

Date dmdatecomputation::DayOfMonthPrevious() const {
  std::int32_t t = TargetDay(code_, [this] { return CampaignRecord().Interval(); });
  int d = Day(reference_);
  int m = Month(reference_);
  int y = Year(reference_);
  if (d <= t) {
    if (--m < 1) {
      m = 12;
      y = CheckYear(y - 1);
    }
  }
  if (t > DaysInMonth(m)) t = DaysInMonth(m);
  return DateSerial(y, m, t);
}

// Weekday of month.
int dmdatecomputation::GetWeekdayOfCode(std::int32_t code) {
  if (code < 300 || code > 334) return 0;
  int i = (code - 300) % 7;  // 0 Monday .. 5 Saturday, 6 Sunday.
  return i == 6 ? 1 : i + 2;
}

int dmdatecomputation::GetWeekOfMonth(std::int32_t code, int k) const {
  if (code >= 300 && code <= 327) return (code - 300) / 7 + 1;
  if (code >= 328 && code <= 334) {
    // "Last": the number of times the weekday occurs in calendar k's month.
    return static_cast<int>(CalendarDate(k, 0, GetWeekdayOfCode(code)).value);
  }
  return 0;
}

Date dmdatecomputation::WeekdayOfMonth(Direction direction) const {
  CampaignRecord();  // The rule needs a campaign, as the other campaign-based rules do.
  int w = GetWeekdayOfCode(code_);
  Date c1 = CalendarDate(1, GetWeekOfMonth(code_, 1), w);
  Date c2 = CalendarDate(2, GetWeekOfMonth(code_, 2), w);
  Date c3 = CalendarDate(3, GetWeekOfMonth(code_, 3), w);
  if (direction == Direction::kNext) {
    if (c2 >= reference_) return c2;
    if (c3 <= reference_) return reference_;
    return c3;
  }
  if (c2 < reference_) return c2;
  if (c1 >= reference_) return reference_;
  return c1;
}

// Every N days.
float dmdatecomputation::EveryNDaysN() const {
  switch (code_) {
    case 400:
      return 1;
    case 401:
      return 2;
    case 402:
      return 3;
    case 403:
      return 7;
    case 404:
      return 10;
    case 405:
      return 14;
    case 406: {
      // The Interval passes through a 16-bit number: 32768 days or more overflow.
      std::int16_t n = RoundToInteger(CampaignRecord().Interval());
      return n == 0 ? 1.0f : static_cast<float>(n);
    }
    default:
      return 0;  // 407-449: no day count; the remainder then divides by zero.
  }
}

namespace {
// The cycle position of `d` days in cycles of `n`: the remainder with the
// sign of d, narrowed to 16 bits (error 11 when n is 0, 6 when it does not fit).
std::int16_t CycleRemainder(float d, float n) {
  std::int32_t dl = RoundToLong(d);
  std::int32_t nl = RoundToLong(n);
  if (nl == 0) Raise(err::kDivisionByZero);
  if (nl == -1) return 0;
  return RoundToInteger(static_cast<double>(dl % nl));
}
}  // namespace

Date dmdatecomputation::EveryNDaysNext() const {
  float n = EveryNDaysN();
  Date effective = CampaignRecord().CampaignEffectiveDate();
  float d = static_cast<float>(DateDiff("d", effective, reference_));
  std::int16_t r = CycleRemainder(d, n);
  if (r == 0) return reference_;
  float steps = std::floor(d / n) + 1.0f;
  return AddDays(effective, static_cast<double>(steps * n));
}

Date dmdatecomputation::EveryNDaysPrevious() const {
  float n = EveryNDaysN();
  Date effective = CampaignRecord().CampaignEffectiveDate();
  float d = static_cast<float>(DateDiff("d", effective, reference_));
  std::int16_t r = CycleRemainder(d, n);
  if (r == 0) return AddDays(reference_, -static_cast<double>(n));
  // Deliberately counted from the zero date, not from CampaignEffectiveDate.
  return AddDays(kZeroDate, static_cast<double>(std::floor(d / n) * n));
}

// --- Weekday names ----------------------------------------------------------

Variant dmdatecomputation::GetDayOfWeekInWords(std::int16_t& n) {
  static constexpr const char* kNames[] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                           "Thursday", "Friday", "Saturday"};
  if (n >= 1 && n <= 7) return Variant(std::string(kNames[n - 1]));
  return Variant(std::string());
}

const MemberTable& dmdatecomputation::Members() const {
  static const MemberTable table =
      MemberTable::Builder<dmdatecomputation>("dmdatecomputation")
          .Put("ReferenceDate", [](dmdatecomputation& c, Date d) { c.ReferenceDate(d); })
          .Put("Campaign",
               [](dmdatecomputation& c, std::shared_ptr<dmmrktcmp> campaign) {
                 c.Campaign(std::move(campaign));
               })
          .Method("getNextRunDate", [](dmdatecomputation& c) { return c.getNextRunDate(); })
          .Method("getPreviousRunDate", [](dmdatecomputation& c) { return c.getPreviousRunDate(); })
          .Method("GetDayOfWeekInWords",
                  [](dmdatecomputation& c, std::int16_t n) { return c.GetDayOfWeekInWords(n); })
          .Build();
  return table;
}

QUILLO_REGISTER_CLASS(dmdatecomputation, Creatable::kPublic);

}  // namespace quillo
