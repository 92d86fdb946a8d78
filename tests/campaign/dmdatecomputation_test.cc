#include "campaign/dmdatecomputation.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "campaign/dmmrktcmp.h"
#include "platform/date.h"
#include "support/error_matchers.h"

namespace quillo {
namespace {

using std::chrono::days;
using std::chrono::sys_days;
using std::chrono::year_month_day;

// --- An independent calendar for expected values (std::chrono civil dates) --

constexpr sys_days kEpoch = sys_days{std::chrono::year{1899} / 12 / 30};

// Serial day number of y-m-d (day 0 = 1899-12-30); d may be 0 (the day before
// the 1st).
double Serial(int y, int m, int d) {
  sys_days first = sys_days{std::chrono::year{y} / m / 1};
  return static_cast<double>((first - kEpoch).count() + d - 1);
}
Date D(int y, int m, int d) { return Date(Serial(y, m, d)); }
year_month_day Civil(double serial) {
  return year_month_day{kEpoch + days{static_cast<long>(serial)}};
}
// 1 = Sunday .. 7 = Saturday.
int WeekdayOf(double serial) {
  return static_cast<int>(
             std::chrono::weekday{kEpoch + days{static_cast<long>(serial)}}.c_encoding()) +
         1;
}
int NoLeapDays(int m) {
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return kDays[m - 1];
}

std::shared_ptr<dmmrktcmp> MakeCampaign(std::int32_t code, std::int32_t interval = 0,
                                        Date effective = kZeroDate) {
  auto c = std::make_shared<dmmrktcmp>();
  c->CampaignType(code);
  c->Interval(interval);
  c->CampaignEffectiveDate(effective);
  return c;
}

struct Calc {
  dmdatecomputation calc;
  Calc(std::int32_t code, Date reference, std::int32_t interval = 0, Date effective = kZeroDate) {
    calc.Campaign(MakeCampaign(code, interval, effective));
    calc.ReferenceDate(reference);
  }
  Date Next() { return calc.getNextRunDate(); }
  Date Previous() { return calc.getPreviousRunDate(); }
};

// --- Edge cases -------------------------------------------------------------

TEST(DateComputation, CodeZeroAndCodesOutsideTheRangesGiveTheReferenceDate) {
  for (std::int32_t code : {0, 1, 2, 3, 99, 107, 199, 250, 299, 350, 399, 450, 1000, -5}) {
    Calc c(code, D(2026, 3, 18) + Date(0.5));
    EXPECT_EQ(c.Next(), D(2026, 3, 18) + Date(0.5)) << code;
    EXPECT_EQ(c.Previous(), D(2026, 3, 18) + Date(0.5)) << code;
  }
}

TEST(DateComputation, WithoutACampaignTheReferenceDateIsReturned) {
  dmdatecomputation calc;
  calc.ReferenceDate(D(2026, 3, 18));
  EXPECT_EQ(calc.getNextRunDate(), D(2026, 3, 18));
  EXPECT_EQ(calc.getPreviousRunDate(), D(2026, 3, 18));
}

TEST(DateComputation, ANewObjectAnswersTheZeroDate) {
  dmdatecomputation calc;
  EXPECT_EQ(calc.getNextRunDate(), kZeroDate);
  EXPECT_EQ(calc.getPreviousRunDate(), kZeroDate);
}

TEST(DateComputation, Code201OnThe15thIsItsOwnNextRunDate) {
  Calc c(201, D(2026, 3, 15));
  EXPECT_EQ(c.Next(), D(2026, 3, 15));
  EXPECT_EQ(c.Previous(), D(2026, 2, 15));
}

TEST(DateComputation, Code201AfterThe15thRunsNextMonth) {
  Calc c(201, D(2026, 3, 16));
  EXPECT_EQ(c.Next(), D(2026, 4, 15));
  EXPECT_EQ(c.Previous(), D(2026, 3, 15));
}

TEST(DateComputation, Code202InFebruaryIsThe28thEvenInALeapYear) {
  EXPECT_EQ(Calc(202, D(2026, 2, 1)).Next(), D(2026, 2, 28));
  EXPECT_EQ(Calc(202, D(2024, 2, 1)).Next(), D(2024, 2, 28));
  EXPECT_EQ(Calc(202, D(2026, 1, 31)).Next(), D(2026, 2, 28));
  EXPECT_EQ(Calc(202, D(2024, 1, 31)).Next(), D(2024, 2, 28));
}

TEST(DateComputation, Code202OnALeapDayAnswersThe28th) {
  // 29 <= 30 keeps February, and the clamp to 28 days gives a date before it.
  EXPECT_EQ(Calc(202, D(2024, 2, 29)).Next(), D(2024, 2, 28));
}

TEST(DateComputation, Code200OnTheFirstOfJanuaryRanOnTheFirstOfDecember) {
  Calc c(200, D(2026, 1, 1));
  EXPECT_EQ(c.Next(), D(2026, 1, 1));
  EXPECT_EQ(c.Previous(), D(2025, 12, 1));
}

TEST(DateComputation, Code203WithInterval0BehavesAsCode200) {
  for (int day : {1, 2, 15, 31}) {
    Calc a(203, D(2026, 1, day), 0);
    Calc b(200, D(2026, 1, day));
    EXPECT_EQ(a.Next(), b.Next()) << day;
    EXPECT_EQ(a.Previous(), b.Previous()) << day;
  }
}

TEST(DateComputation, Code203UsesTheIntervalAsTheDay) {
  Calc c(203, D(2026, 4, 20), 31);
  EXPECT_EQ(c.Next(), D(2026, 4, 30));
  EXPECT_EQ(c.Previous(), D(2026, 3, 31));
}

TEST(DateComputation, CodesWithoutATargetDayGiveMonthEnds) {
  Calc c(230, D(2026, 3, 18));
  EXPECT_EQ(c.Next(), D(2026, 3, 31));
  EXPECT_EQ(c.Previous(), D(2026, 2, 28));
}

TEST(DateComputation, Code100OnAMondayIsItsOwnNextRunDate) {
  Calc c(100, D(2026, 3, 16));  // A Monday.
  EXPECT_EQ(c.Next(), D(2026, 3, 16));
  EXPECT_EQ(c.Previous(), D(2026, 3, 9));
}

TEST(DateComputation, Code106FindsSundays) {
  Calc c(106, D(2026, 3, 18));  // A Wednesday.
  EXPECT_EQ(c.Next(), D(2026, 3, 22));
  EXPECT_EQ(c.Previous(), D(2026, 3, 15));
}

TEST(DateComputation, Code105FailsInBothQueries) {
  Calc c(105, D(2026, 3, 18));
  EXPECT_RUNTIME_ERROR(c.Next(), err::kSubscriptOutOfRange);
  EXPECT_RUNTIME_ERROR(c.Previous(), err::kSubscriptOutOfRange);
}

TEST(DateComputation, Code300AfterTheFirstMondayRunsOnNextMonthsFirstMonday) {
  Calc c(300, D(2026, 3, 3));  // The first Monday of March 2026 is the 2nd.
  EXPECT_EQ(c.Next(), D(2026, 4, 6));
  EXPECT_EQ(c.Previous(), D(2026, 3, 2));
}

TEST(DateComputation, Code300BeforeTheFirstMondayLooksBackAMonth) {
  Calc c(300, D(2026, 3, 1));
  EXPECT_EQ(c.Next(), D(2026, 3, 2));
  EXPECT_EQ(c.Previous(), D(2026, 2, 2));
}

TEST(DateComputation, Code328InALeapFebruaryEndingOnAMondayFindsThe22nd) {
  // 29 February 2016 was a Monday; the calendar never holds the 29th.
  Calc c(328, D(2016, 2, 23));
  EXPECT_EQ(c.Previous(), D(2016, 2, 22));
  EXPECT_EQ(c.Next(), D(2016, 3, 28));
  EXPECT_EQ(c.calc.CalendarCell(2, 0, 2), Date(4));
  EXPECT_EQ(Calc(328, D(2016, 2, 1)).Next(), D(2016, 2, 22));
}

TEST(DateComputation, Code403OnTheCycleRunsOnTheReferenceDate) {
  Calc c(403, D(2026, 1, 15), 0, D(2026, 1, 1));
  EXPECT_EQ(c.Next(), D(2026, 1, 15));
  EXPECT_EQ(c.Previous(), D(2026, 1, 8));
}

TEST(DateComputation, Code403OffTheCycleCountsThePreviousDateFromTheZeroDate) {
  Calc c(403, D(2026, 1, 16), 0, D(2026, 1, 1));
  EXPECT_EQ(c.Next(), D(2026, 1, 22));
  EXPECT_EQ(c.Previous(), Date(14));  // The zero date + 14 days: 1900-01-13.
}

TEST(DateComputation, Code406WithInterval0BehavesAsCode400) {
  for (int day : {1, 2, 17}) {
    Calc a(406, D(2026, 1, day), 0, D(2025, 12, 25));
    Calc b(400, D(2026, 1, day), 0, D(2025, 12, 25));
    EXPECT_EQ(a.Next(), b.Next());
    EXPECT_EQ(a.Previous(), b.Previous());
  }
}

TEST(DateComputation, Code406UsesTheIntervalAsTheCycle) {
  Calc c(406, D(2026, 1, 21), 30, D(2026, 1, 1));
  EXPECT_EQ(c.Next(), D(2026, 1, 31));
}

TEST(DateComputation, EveryNDaysBeforeTheEffectiveDateCountsBackwards) {
  // d = -5, N = 7: the remainder is -5 and floor(-5/7) = -1.
  Calc c(403, D(2026, 1, 10), 0, D(2026, 1, 15));
  EXPECT_EQ(c.Next(), D(2026, 1, 15));
  EXPECT_EQ(c.Previous(), kZeroDate);  // -7 days from the zero date, floored.
}

TEST(DateComputation, AResultBeforeTheZeroDateIsTheZeroDate) {
  Calc weekly(100, Date(1));  // 1899-12-31; the Monday before is 1899-12-25.
  EXPECT_EQ(weekly.Previous(), kZeroDate);
  Calc none(0, D(1899, 12, 1));
  EXPECT_EQ(none.Next(), kZeroDate);
}

TEST(DateComputation, WeeklyAndEveryNDaysRulesKeepTheTimeOfDay) {
  Date ten = TimeSerial(10, 0, 0);
  Calc weekly(100, D(2026, 3, 16) + ten);
  EXPECT_EQ(weekly.Next(), D(2026, 3, 16) + ten);
  EXPECT_EQ(weekly.Previous(), D(2026, 3, 9) + ten);
  Calc every(403, D(2026, 1, 16), 0, D(2026, 1, 1) + TimeSerial(8, 0, 0));
  EXPECT_EQ(every.Next(), D(2026, 1, 22) + TimeSerial(8, 0, 0));
  Calc on_cycle(403, D(2026, 1, 15) + ten, 0, D(2026, 1, 1));
  EXPECT_EQ(on_cycle.Next(), D(2026, 1, 15) + ten);
  EXPECT_EQ(on_cycle.Previous(), D(2026, 1, 8) + ten);
}

TEST(DateComputation, MonthRulesBuildDatesAtMidnight) {
  Date ten = TimeSerial(10, 0, 0);
  Calc c(300, D(2026, 3, 2) + ten);  // The first Monday of March 2026, at 10:00.
  EXPECT_EQ(c.Next(), D(2026, 4, 6));
  EXPECT_EQ(c.Previous(), D(2026, 3, 2));
  Calc dom(201, D(2026, 3, 15) + ten);
  EXPECT_EQ(dom.Next(), D(2026, 3, 15));
}

TEST(DateComputation, CodesWithoutAWeekdayFailWithSubscriptOutOfRange) {
  for (std::int32_t code = 335; code <= 349; ++code) {
    Calc c(code, D(2026, 3, 18));
    EXPECT_RUNTIME_ERROR(c.Next(), err::kSubscriptOutOfRange) << code;
    EXPECT_RUNTIME_ERROR(c.Previous(), err::kSubscriptOutOfRange) << code;
  }
}

TEST(DateComputation, CodesWithoutADayCountFailWithDivisionByZero) {
  for (std::int32_t code = 407; code <= 449; ++code) {
    Calc c(code, D(2026, 3, 18));
    EXPECT_RUNTIME_ERROR(c.Next(), err::kDivisionByZero) << code;
    EXPECT_RUNTIME_ERROR(c.Previous(), err::kDivisionByZero) << code;
  }
}

TEST(DateComputation, AnIntervalBeyond16BitsOverflowsWithCode406) {
  Calc c(406, D(2026, 3, 18), 32768, D(2026, 1, 1));
  EXPECT_RUNTIME_ERROR(c.Next(), err::kOverflow);
  EXPECT_RUNTIME_ERROR(c.Previous(), err::kOverflow);
  Calc fits(406, D(2026, 3, 18), 32767, D(2026, 1, 1));
  EXPECT_EQ(fits.Next(), D(2026, 1, 1) + Date(32767));
}

TEST(DateComputation, AReferenceDateWhoseNextMonthIsOutOfRangeOverflows) {
  dmdatecomputation calc;
  EXPECT_RUNTIME_ERROR(calc.ReferenceDate(D(9999, 12, 15)), err::kOverflow);
}

TEST(DateComputation, RulesThatReadTheCampaignFailWhenNoneIsAssigned) {
  for (std::int32_t code : {203, 300, 328, 400, 406}) {
    dmdatecomputation calc;
    calc.Campaign(MakeCampaign(code, 5, D(2026, 1, 1)));
    calc.ReferenceDate(D(2026, 3, 18));
    EXPECT_RUNTIME_ERROR(calc.Campaign(nullptr), err::kObjectNotSet);
    EXPECT_RUNTIME_ERROR(calc.getNextRunDate(), err::kObjectNotSet) << code;
    EXPECT_RUNTIME_ERROR(calc.getPreviousRunDate(), err::kObjectNotSet) << code;
  }
}

TEST(DateComputation, RulesThatDoNotReadTheCampaignWorkWithoutOne) {
  dmdatecomputation calc;
  calc.Campaign(MakeCampaign(201));
  calc.ReferenceDate(D(2026, 3, 18));
  EXPECT_RUNTIME_ERROR(calc.Campaign(nullptr), err::kObjectNotSet);
  EXPECT_EQ(calc.getNextRunDate(), D(2026, 4, 15));
}

TEST(DateComputation, TheCodeIsCopiedButIntervalAndEffectiveDateAreReadAfresh) {
  auto campaign = MakeCampaign(203, 10);
  dmdatecomputation calc;
  calc.Campaign(campaign);
  calc.ReferenceDate(D(2026, 3, 18));
  EXPECT_EQ(calc.getNextRunDate(), D(2026, 4, 10));
  campaign->Interval(20);
  EXPECT_EQ(calc.getNextRunDate(), D(2026, 3, 20));
  campaign->CampaignType(0);
  EXPECT_EQ(calc.getNextRunDate(), D(2026, 3, 20));
  calc.Campaign(campaign);
  EXPECT_EQ(calc.getNextRunDate(), D(2026, 3, 18));
}

TEST(DateComputation, ANewCampaignNeedsNoNewReferenceDate) {
  dmdatecomputation calc;
  calc.ReferenceDate(D(2026, 3, 18));
  calc.Campaign(MakeCampaign(100));
  EXPECT_EQ(calc.getNextRunDate(), D(2026, 3, 23));
  calc.Campaign(MakeCampaign(201));
  EXPECT_EQ(calc.getNextRunDate(), D(2026, 4, 15));
}

// --- Calendars and tables ---------------------------------------------------

TEST(DateComputation, CalendarsStartEmpty) {
  dmdatecomputation calc;
  EXPECT_EQ(calc.CalendarCell(1, 0, 1), std::nullopt);
  EXPECT_EQ(calc.CalendarCell(3, 5, 7), std::nullopt);
}

TEST(DateComputation, CalendarsHoldCountsAndOccurrencesOfTheThreeMonths) {
  dmdatecomputation calc;
  calc.ReferenceDate(D(2026, 3, 18));
  // February 2026: four of each weekday; March: Sun, Mon, Tue five times.
  EXPECT_EQ(calc.CalendarCell(1, 0, 1), Date(4));
  EXPECT_EQ(calc.CalendarCell(1, 1, 1), D(2026, 2, 1));
  EXPECT_EQ(calc.CalendarCell(1, 4, 7), D(2026, 2, 28));
  EXPECT_EQ(calc.CalendarCell(2, 0, 2), Date(5));
  EXPECT_EQ(calc.CalendarCell(2, 5, 2), D(2026, 3, 30));
  EXPECT_EQ(calc.CalendarCell(2, 0, 4), Date(4));
  EXPECT_EQ(calc.CalendarCell(3, 1, 4), D(2026, 4, 1));
}

TEST(DateComputation, ARebuildLeavesStaleFifthOccurrences) {
  dmdatecomputation calc;
  calc.ReferenceDate(D(2026, 3, 18));
  EXPECT_EQ(calc.CalendarCell(2, 5, 2), D(2026, 3, 30));
  calc.ReferenceDate(D(2026, 2, 10));  // February has four Mondays.
  EXPECT_EQ(calc.CalendarCell(2, 0, 2), Date(4));
  EXPECT_EQ(calc.CalendarCell(2, 5, 2), D(2026, 3, 30));  // Left from March.
}

TEST(DateComputation, CalendarCellsOutsideTheGridFail) {
  dmdatecomputation calc;
  EXPECT_RUNTIME_ERROR(calc.CalendarCell(2, 6, 1), err::kSubscriptOutOfRange);
  EXPECT_RUNTIME_ERROR(calc.CalendarCell(2, 0, 0), err::kSubscriptOutOfRange);
  EXPECT_RUNTIME_ERROR(calc.CalendarCell(2, 0, 8), err::kSubscriptOutOfRange);
  EXPECT_RUNTIME_ERROR(calc.CalendarCell(4, 0, 1), err::kSubscriptOutOfRange);
}

TEST(DateComputation, WeekdayTablesHoldTheNextAndPreviousSevenDays) {
  dmdatecomputation calc;
  calc.ReferenceDate(D(2026, 3, 18));  // A Wednesday.
  EXPECT_EQ(calc.NextOccurrence(4), D(2026, 3, 18));
  EXPECT_EQ(calc.NextOccurrence(3), D(2026, 3, 24));
  EXPECT_EQ(calc.PreviousOccurrence(4), D(2026, 3, 11));
  EXPECT_EQ(calc.PreviousOccurrence(3), D(2026, 3, 17));
  EXPECT_RUNTIME_ERROR(calc.NextOccurrence(0), err::kSubscriptOutOfRange);
}

TEST(DateComputation, DaysInMonthIgnoresLeapYears) {
  const int expected[] = {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31, 0};
  for (int m = 0; m <= 13; ++m) EXPECT_EQ(dmdatecomputation::DaysInMonth(m), expected[m]) << m;
  EXPECT_EQ(dmdatecomputation::DaysInMonth(-1), 0);
}

// --- Weekday names ----------------------------------------------------------

TEST(DateComputation, GetDayOfWeekInWordsNamesTheWeekdays) {
  dmdatecomputation calc;
  const char* names[] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                         "Thursday", "Friday", "Saturday"};
  for (std::int16_t n = 1; n <= 7; ++n) {
    std::int16_t arg = n;
    Variant v = calc.GetDayOfWeekInWords(arg);
    EXPECT_TRUE(v.IsString());
    EXPECT_EQ(v.ToString(), names[n - 1]);
  }
}

TEST(DateComputation, GetDayOfWeekInWordsGivesEmptyTextForAnythingElse) {
  dmdatecomputation calc;
  for (std::int16_t n : {0, 8, -1, 32767}) {
    std::int16_t arg = n;
    Variant v = calc.GetDayOfWeekInWords(arg);
    EXPECT_TRUE(v.IsString()) << n;
    EXPECT_FALSE(v.IsEmpty()) << n;
    EXPECT_EQ(v.ToString(), "") << n;
  }
}

// --- By name ----------------------------------------------------------------

TEST(DateComputation, DrivenByName) {
  ObjectPtr calc = CreateObject("dmdatecomputation");
  ObjectPtr campaign = CreateObject("dmmrktcmp");
  campaign->Invoke("CampaignType", CallKind::kPut, {Variant(std::int32_t{201})});
  calc->Invoke("Campaign", CallKind::kPut, {Variant(campaign)});
  calc->Invoke("ReferenceDate", CallKind::kPut, {Variant(D(2026, 3, 16))});
  EXPECT_EQ(calc->Invoke("getNextRunDate", CallKind::kMethod).ToDate(), D(2026, 4, 15));
  EXPECT_EQ(calc->Invoke("getPreviousRunDate", CallKind::kMethod).ToDate(), D(2026, 3, 15));
  EXPECT_EQ(
      calc->Invoke("GetDayOfWeekInWords", CallKind::kMethod, {Variant(std::int16_t{2})}).ToString(),
      "Monday");
  EXPECT_RUNTIME_ERROR(calc->Invoke("ReferenceDate", CallKind::kGet), err::kMemberNotFound);
}

TEST(DateComputation, PublishesFiveMembersInInterfaceOrder) {
  dmdatecomputation calc;
  const auto& m = calc.Members().members();
  ASSERT_EQ(m.size(), 5u);
  EXPECT_EQ(m[0].name, "ReferenceDate");
  EXPECT_EQ(m[0].kind, CallKind::kPut);
  EXPECT_EQ(m[1].name, "Campaign");
  EXPECT_EQ(m[1].kind, CallKind::kPut);
  EXPECT_EQ(m[2].name, "getNextRunDate");
  EXPECT_EQ(m[3].name, "getPreviousRunDate");
  EXPECT_EQ(m[4].name, "GetDayOfWeekInWords");
}

// --- Every code on dates of every month of a common and a leap year ---------

// What a query should give: a date, or a run-time error number.
struct Expected {
  double date = 0;
  long error = 0;
};

constexpr int kInterval = 10;
const double kEffective = Serial(2022, 12, 25);

// The weekday of a weekday-of-month code: Monday .. Saturday, then Sunday.
int CodeWeekday(int code) {
  int i = (code - 300) % 7;
  return i == 6 ? 1 : i + 2;
}

// The date of the n-th (1..4) or last (n = 0) `weekday` of y-m, with
// February never longer than 28 days.
double NthWeekday(int y, int m, int weekday, int n) {
  if (m == 0) {
    m = 12;
    --y;
  } else if (m == 13) {
    m = 1;
    ++y;
  }
  std::vector<double> hits;
  for (int d = 1; d <= NoLeapDays(m); ++d) {
    if (WeekdayOf(Serial(y, m, d)) == weekday) hits.push_back(Serial(y, m, d));
  }
  return n == 0 ? hits.back() : hits[static_cast<size_t>(n - 1)];
}

Expected Oracle(int code, double ref, bool next) {
  auto floor0 = [](double v) { return Expected{v < 0 ? 0 : v, 0}; };
  year_month_day ymd = Civil(ref);
  int y = static_cast<int>(ymd.year());
  int m = static_cast<int>(static_cast<unsigned>(ymd.month()));
  int day = static_cast<int>(static_cast<unsigned>(ymd.day()));
  if (code >= 100 && code <= 106) {
    if (code == 105) return {0, err::kSubscriptOutOfRange};
    int w = code == 106 ? 1 : code - 98;
    for (int k = next ? 0 : 1; k <= 7; ++k) {
      double cand = next ? ref + k : ref - k;
      if (WeekdayOf(cand) == w) return floor0(cand);
    }
  }
  if (code >= 200 && code <= 249) {
    int t = code == 200 ? 1 : code == 201 ? 15 : code == 202 ? 30 : code == 203 ? kInterval : 0;
    int mm = m, yy = y;
    if (next && day > t) ++mm;
    if (!next && day <= t) --mm;
    if (mm == 13) mm = 1, ++yy;
    if (mm == 0) mm = 12, --yy;
    if (t > NoLeapDays(mm)) t = NoLeapDays(mm);
    return floor0(Serial(yy, mm, t));
  }
  if (code >= 300 && code <= 349) {
    if (code >= 335) return {0, err::kSubscriptOutOfRange};
    int w = CodeWeekday(code);
    int n = code >= 328 ? 0 : (code - 300) / 7 + 1;
    double c1 = NthWeekday(y, m - 1, w, n);
    double c2 = NthWeekday(y, m, w, n);
    double c3 = NthWeekday(y, m + 1, w, n);
    if (next) return floor0(c2 >= ref ? c2 : c3 <= ref ? ref : c3);
    return floor0(c2 < ref ? c2 : c1 >= ref ? ref : c1);
  }
  if (code >= 400 && code <= 449) {
    if (code > 406) return {0, err::kDivisionByZero};
    const int ns[] = {1, 2, 3, 7, 10, 14, kInterval};
    long n = ns[code - 400];
    long d = static_cast<long>(ref - kEffective);
    long r = d % n;
    long q = d >= 0 ? d / n : -((-d + n - 1) / n);
    if (next) return floor0(r != 0 ? kEffective + static_cast<double>((q + 1) * n) : ref);
    return floor0(r == 0 ? ref - static_cast<double>(n) : static_cast<double>(q * n));
  }
  return floor0(ref);
}

TEST(DateComputation, EveryCodeOnDatesOfEveryMonthOfACommonAndALeapYear) {
  int checked = 0;
  for (int year : {2023, 2024}) {
    for (int month = 1; month <= 12; ++month) {
      int last = static_cast<int>(static_cast<unsigned>(
          year_month_day{std::chrono::year{year} / month / std::chrono::last}.day()));
      for (int day : {1, 7, 15, 28, last}) {
        double ref = Serial(year, month, day);
        for (int code = 0; code <= 450; ++code) {
          dmdatecomputation calc;
          calc.Campaign(MakeCampaign(code, kInterval, Date(kEffective)));
          calc.ReferenceDate(Date(ref));
          for (bool next : {true, false}) {
            Expected want = Oracle(code, ref, next);
            std::string where = std::to_string(year) + "-" + std::to_string(month) + "-" +
                                std::to_string(day) + " code " + std::to_string(code) +
                                (next ? " next" : " previous");
            if (want.error != 0) {
              EXPECT_RUNTIME_ERROR(next ? calc.getNextRunDate() : calc.getPreviousRunDate(),
                                   want.error)
                  << where;
            } else {
              Date got = next ? calc.getNextRunDate() : calc.getPreviousRunDate();
              EXPECT_EQ(got.value, want.date) << where;
            }
            ++checked;
          }
        }
      }
    }
  }
  EXPECT_EQ(checked, 2 * 12 * 5 * 451 * 2);
}

}  // namespace
}  // namespace quillo
