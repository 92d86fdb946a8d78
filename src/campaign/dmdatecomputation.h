// dmdatecomputation: next and previous run dates of a campaign's schedule.
//
// A calculator for the host: given a campaign (a dmmrktcmp, whose
// CampaignType is read as a schedule code) and a reference date, it answers
// on which date the campaign runs next (on or after the reference date) and
// on which date it ran last (strictly before it). Codes: 0 none; 100-106
// weekly (Monday..Friday, Saturday, Sunday); 200-203 day of month (1st, 15th,
// 30th, the campaign's Interval); 300-334 first, second, third, fourth and
// last Monday..Sunday of the month; 400-406 every 1, 2, 3, 7, 10, 14 or
// Interval days counted from CampaignEffectiveDate. See campaign/constants.h
// for the description of each code.
//
//   dmdatecomputation calc;
//   calc.Campaign(campaign);                         // CampaignType 201
//   calc.ReferenceDate(DateSerial(2026, 3, 16));
//   calc.getNextRunDate();                           // 2026-04-15
//   calc.getPreviousRunDate();                       // 2026-03-15
//
// The schedule code is copied when the campaign is assigned; Interval and
// CampaignEffectiveDate are read afresh on every query. Assigning the
// reference date rebuilds three month calendars (the months before, of and
// after it) and two weekday tables; the queries only read them.
//
// Deliberate behaviours that hosts rely on, kept as they are:
//   - leap years are ignored: February always has 28 days here, so 29
//     February is never a run date and never in a calendar;
//   - code 105 (Saturday) has no weekday and fails with error 9, as do codes
//     335-349; codes 407-449 fail with error 11 (no day count);
//   - the previous run date of an every-N-days schedule off its cycle counts
//     from the zero date, not from CampaignEffectiveDate;
//   - any result before the zero date is returned as the zero date.
// Failures are run-time errors: 9 subscript out of range, 11 division by
// zero, 6 overflow (a remainder or Interval beyond 16 bits, a year out of
// range), 91 when a rule reads the campaign and none is assigned. The object
// keeps its state after a failure. Thread-safety: none.
#ifndef QUILLO_CAMPAIGN_DMDATECOMPUTATION_H_
#define QUILLO_CAMPAIGN_DMDATECOMPUTATION_H_

#include <array>
#include <cstdint>
#include <memory>
#include <optional>

#include "campaign/dmmrktcmp.h"
#include "platform/date.h"
#include "platform/object.h"
#include "platform/variant.h"

namespace quillo {

// The run-date calculator.
class dmdatecomputation : public Object {
 public:
  dmdatecomputation() = default;

  const MemberTable& Members() const override;

  // Stores the reference date and rebuilds calendars 1, 2, 3 and then the
  // weekday tables. Raises 6 when a neighbouring month is out of range.
  void ReferenceDate(Date value);

  // Stores the campaign (shared, not copied) and copies its CampaignType as
  // the schedule code. A null campaign is stored, then raises 91 with the
  // code unchanged.
  void Campaign(std::shared_ptr<dmmrktcmp> campaign);

  // The first run date on or after the reference date.
  Date getNextRunDate();

  // The last run date strictly before the reference date.
  Date getPreviousRunDate();

  // "Sunday" for 1 .. "Saturday" for 7; any other n gives a variant holding
  // empty text.
  Variant GetDayOfWeekInWords(std::int16_t& n);

  // --- Inspection (not part of the dispatch interface) ---------------------

  // Days in `month` with February always 28; 0 for a number outside 1..12.
  static int DaysInMonth(int month);

  // The cell of calendar k (1..3) at `row` (0..5) and weekday column
  // `weekday` (1 = Sunday .. 7 = Saturday): row 0 holds the count of that
  // weekday in the month, rows 1..5 its occurrences; nullopt for a cell never
  // written. Raises 9 outside the grid.
  std::optional<Date> CalendarCell(int k, int row, int weekday) const;

  // The entries of the next- and previous-occurrence tables for `weekday`
  // (1..7); raises 9 for any other weekday.
  Date NextOccurrence(int weekday) const;
  Date PreviousOccurrence(int weekday) const;

 private:
  // One calendar: 6 rows (0 = counts, 1..5 = occurrences) by 7 weekdays.
  using Calendar = std::array<std::array<std::optional<Date>, 7>, 6>;

  // Which of the two queries is being answered.
  enum class Direction { kNext, kPrevious };

  // Picks the rule by the code's range and floors the result at the zero date.
  Date Dispatch(Direction direction);
  void BuildMonthCalendar(int k);
  void BuildWeekdayTables();
  // Row of calendar k for the weekday-of-month code (1..4, or the weekday's
  // count for the "last" codes; 0 for codes without a week).
  int GetWeekOfMonth(std::int32_t code, int k) const;
  // Weekday of a weekday-of-month code, 0 for codes without one.
  static int GetWeekdayOfCode(std::int32_t code);
  // The cell (row, weekday) of calendar k as a date; raises 9 outside the grid.
  Date CalendarDate(int k, int row, int weekday) const;
  // The campaign, or error 91 when none is assigned.
  const dmmrktcmp& CampaignRecord() const;

  Date WeeklyNext() const;
  Date WeeklyPrevious() const;
  Date DayOfMonthNext() const;
  Date DayOfMonthPrevious() const;
  Date WeekdayOfMonth(Direction direction) const;
  Date EveryNDaysNext() const;
  Date EveryNDaysPrevious() const;
  // N of the every-N-days code (single precision; 0 for 407-449).
  float EveryNDaysN() const;

  Date reference_;                        // The reference date.
  std::shared_ptr<dmmrktcmp> campaign_;   // Shared with the caller.
  std::int32_t code_ = 0;                 // CampaignType copied at assignment.
  std::array<Calendar, 3> calendars_;     // Months before, of and after the reference.
  std::array<Date, 7> next_table_{};      // By weekday - 1: reference + 0..6 days.
  std::array<Date, 7> previous_table_{};  // By weekday - 1: reference - 1..7 days.
};

}  // namespace quillo

#endif  // QUILLO_CAMPAIGN_DMDATECOMPUTATION_H_
