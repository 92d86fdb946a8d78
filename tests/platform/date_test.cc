// Tests for automation dates: DateSerial/TimeSerial roll-overs, the negative
// encoding, the part functions, Weekday, DateAdd, DateDiff and text parsing.
#include "platform/date.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/error.h"
#include "support/error_matchers.h"

namespace quillo {
namespace {

// Checks the calendar parts of `d` against y-m-d hh:nn:ss.
::testing::AssertionResult HasParts(Date d, int y, int m, int day, int hh = 0, int nn = 0,
                                    int ss = 0) {
  if (Year(d) == y && Month(d) == m && Day(d) == day && Hour(d) == hh && Minute(d) == nn &&
      Second(d) == ss) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure()
         << "value " << d.value << " is " << Year(d) << "-" << Month(d) << "-" << Day(d) << " "
         << Hour(d) << ":" << Minute(d) << ":" << Second(d);
}

// --- DateSerial -----------------------------------------------------------

TEST(DateSerial, CountsDaysFromTheZeroDate) {
  EXPECT_EQ(DateSerial(1899, 12, 30).value, 0.0);
  EXPECT_EQ(DateSerial(1900, 1, 1).value, 2.0);
  EXPECT_EQ(DateSerial(2005, 3, 1).value, 38412.0);
  EXPECT_EQ(DateSerial(2004, 2, 29).value, 38046.0);
}

TEST(DateSerial, ZeroDateConstantIsTheZeroValue) {
  EXPECT_EQ(kZeroDate.value, 0.0);
  EXPECT_EQ(kZeroDate, Date());
  EXPECT_TRUE(HasParts(kZeroDate, 1899, 12, 30));
}

TEST(DateSerial, DayZeroIsTheLastDayOfThePreviousMonth) {
  EXPECT_TRUE(HasParts(DateSerial(2005, 3, 0), 2005, 2, 28));
  EXPECT_TRUE(HasParts(DateSerial(2004, 3, 0), 2004, 2, 29));
  EXPECT_TRUE(HasParts(DateSerial(2005, 1, 0), 2004, 12, 31));
}

TEST(DateSerial, NegativeDaysGoFurtherBack) {
  EXPECT_TRUE(HasParts(DateSerial(2005, 3, -1), 2005, 2, 27));
  EXPECT_TRUE(HasParts(DateSerial(2005, 1, -31), 2004, 11, 30));
}

TEST(DateSerial, DaysPastTheMonthEndRollIntoTheNextMonth) {
  EXPECT_TRUE(HasParts(DateSerial(2005, 2, 30), 2005, 3, 2));
  EXPECT_TRUE(HasParts(DateSerial(2005, 12, 32), 2006, 1, 1));
  EXPECT_TRUE(HasParts(DateSerial(2005, 1, 366), 2006, 1, 1));
}

TEST(DateSerial, MonthZeroIsDecemberOfThePreviousYear) {
  EXPECT_TRUE(HasParts(DateSerial(2005, 0, 15), 2004, 12, 15));
  EXPECT_TRUE(HasParts(DateSerial(2005, -1, 1), 2004, 11, 1));
  EXPECT_TRUE(HasParts(DateSerial(2005, -12, 1), 2003, 12, 1));
}

TEST(DateSerial, MonthThirteenIsJanuaryOfTheNextYear) {
  EXPECT_TRUE(HasParts(DateSerial(2005, 13, 1), 2006, 1, 1));
  EXPECT_TRUE(HasParts(DateSerial(2005, 25, 1), 2007, 1, 1));
}

TEST(DateSerial, MonthRollsOverBeforeTheDay) {
  // February 2006 has 28 days: month 14 of 2005 is February 2006, day 29 is 1 March.
  EXPECT_TRUE(HasParts(DateSerial(2005, 14, 29), 2006, 3, 1));
}

TEST(DateSerial, TwoDigitYearsUseTheClassicWindow) {
  EXPECT_TRUE(HasParts(DateSerial(5, 3, 1), 2005, 3, 1));
  EXPECT_TRUE(HasParts(DateSerial(0, 1, 1), 2000, 1, 1));
  EXPECT_TRUE(HasParts(DateSerial(29, 12, 31), 2029, 12, 31));
  EXPECT_TRUE(HasParts(DateSerial(30, 1, 1), 1930, 1, 1));
  EXPECT_TRUE(HasParts(DateSerial(99, 12, 31), 1999, 12, 31));
}

TEST(DateSerial, AllZeroPartsGiveThe30thOfNovember1999) {
  EXPECT_EQ(DateSerial(0, 0, 0), DateSerial(1999, 11, 30));
  EXPECT_EQ(DateSerial(0, 0, 0).value, 36494.0);
}

TEST(DateSerial, YearsFrom100AreTakenLiterally) {
  EXPECT_EQ(DateSerial(100, 1, 1).value, -657434.0);
  EXPECT_EQ(DateSerial(9999, 12, 31).value, 2958465.0);
}

TEST(DateSerial, OutOfRangeResultRaisesOverflow) {
  EXPECT_RUNTIME_ERROR(DateSerial(10000, 1, 1), err::kOverflow);
  EXPECT_RUNTIME_ERROR(DateSerial(9999, 12, 32), err::kOverflow);
  EXPECT_RUNTIME_ERROR(DateSerial(100, 1, 0), err::kOverflow);
  EXPECT_RUNTIME_ERROR(DateSerial(-5, 1, 1), err::kOverflow);
  EXPECT_RUNTIME_ERROR(DateSerial(2005, 2000000000, 1), err::kOverflow);
  EXPECT_RUNTIME_ERROR(DateSerial(2005, 1, 2000000000), err::kOverflow);
}

// --- TimeSerial and DateFromParts -----------------------------------------

TEST(TimeSerial, GivesTheFractionOfADay) {
  EXPECT_EQ(TimeSerial(12, 0, 0).value, 0.5);
  EXPECT_EQ(TimeSerial(6, 0, 0).value, 0.25);
  EXPECT_DOUBLE_EQ(TimeSerial(14, 5, 9).value, 50709.0 / 86400.0);
  EXPECT_TRUE(HasParts(TimeSerial(14, 5, 9), 1899, 12, 30, 14, 5, 9));
}

TEST(TimeSerial, PartsRollOver) {
  EXPECT_TRUE(HasParts(TimeSerial(0, 90, 0), 1899, 12, 30, 1, 30, 0));
  EXPECT_TRUE(HasParts(TimeSerial(12, -15, 0), 1899, 12, 30, 11, 45, 0));
  EXPECT_TRUE(HasParts(TimeSerial(0, 0, 3661), 1899, 12, 30, 1, 1, 1));
}

TEST(TimeSerial, MoreThanADayGoesPastTheZeroDate) {
  EXPECT_DOUBLE_EQ(TimeSerial(25, 0, 0).value, 1.0416666666666667);
  EXPECT_TRUE(HasParts(TimeSerial(25, 0, 0), 1899, 12, 31, 1, 0, 0));
}

TEST(TimeSerial, NegativeTotalLandsBeforeTheZeroDate) {
  Date t = TimeSerial(-1, 0, 0);
  EXPECT_TRUE(HasParts(t, 1899, 12, 29, 23, 0, 0));
  EXPECT_DOUBLE_EQ(t.value, -1.0 - 23.0 / 24.0);
}

TEST(DateFromParts, CombinesDateAndTime) {
  Date d = DateFromParts(2005, 3, 1, 14, 5, 9);
  EXPECT_TRUE(HasParts(d, 2005, 3, 1, 14, 5, 9));
  EXPECT_EQ(d, DateSerial(2005, 3, 1) + TimeSerial(14, 5, 9));
}

TEST(DateFromParts, CountsTheTimeForwardOnNegativeDates) {
  EXPECT_EQ(DateFromParts(1899, 12, 29, 6, 0, 0).value, -1.25);
  EXPECT_EQ(DateFromParts(1899, 12, 29, 18, 0, 0).value, -1.75);
  EXPECT_TRUE(HasParts(DateFromParts(1800, 1, 1, 12, 30, 15), 1800, 1, 1, 12, 30, 15));
  EXPECT_LT(DateFromParts(1800, 1, 1, 12, 30, 15).value, -36522.0);
}

TEST(DateFromParts, TimePartsRollIntoTheDate) {
  EXPECT_TRUE(HasParts(DateFromParts(2005, 3, 1, 24, 0, 0), 2005, 3, 2, 0, 0, 0));
  EXPECT_TRUE(HasParts(DateFromParts(2005, 3, 1, -1, 0, 0), 2005, 2, 28, 23, 0, 0));
  EXPECT_TRUE(HasParts(DateFromParts(1899, 12, 30, -6, 0, 0), 1899, 12, 29, 18, 0, 0));
}

TEST(DateFromParts, OutOfRangeRaisesOverflow) {
  EXPECT_RUNTIME_ERROR(DateFromParts(9999, 12, 31, 24, 0, 0), err::kOverflow);
  EXPECT_RUNTIME_ERROR(DateFromParts(100, 1, 1, -1, 0, 0), err::kOverflow);
}

// --- Negative encoding, range and splitting -------------------------------

TEST(NegativeDates, IntegerPartCountsDaysBackAndFractionIsTimeForward) {
  EXPECT_TRUE(HasParts(Date(-1.25), 1899, 12, 29, 6, 0, 0));
  EXPECT_TRUE(HasParts(Date(-1.75), 1899, 12, 29, 18, 0, 0));
  EXPECT_TRUE(HasParts(Date(-0.5), 1899, 12, 30, 12, 0, 0));
  EXPECT_TRUE(HasParts(Date(-36522.5), 1800, 1, 1, 12, 0, 0));
}

TEST(NegativeDates, LinearDaysRunContinuously) {
  EXPECT_EQ(ToLinearDays(Date(-1.25)), -0.75);
  EXPECT_EQ(ToLinearDays(Date(2.5)), 2.5);
  EXPECT_EQ(FromLinearDays(-0.75).value, -1.25);
  EXPECT_EQ(FromLinearDays(-0.25).value, -1.75);
  EXPECT_EQ(FromLinearDays(-2.0).value, -2.0);
  EXPECT_EQ(FromLinearDays(38412.5).value, 38412.5);
}

TEST(IsValidDateValue, AcceptsTheYears100To9999) {
  EXPECT_TRUE(IsValidDateValue(0.0));
  EXPECT_TRUE(IsValidDateValue(-657434.0));
  EXPECT_TRUE(IsValidDateValue(-657434.99));
  EXPECT_TRUE(IsValidDateValue(2958465.0));
  EXPECT_TRUE(IsValidDateValue(2958465.99998));
}

TEST(IsValidDateValue, RejectsValuesOutsideTheRange) {
  EXPECT_FALSE(IsValidDateValue(-657435.0));
  EXPECT_FALSE(IsValidDateValue(2958466.0));
  EXPECT_FALSE(IsValidDateValue(1e300));
  EXPECT_FALSE(IsValidDateValue(std::numeric_limits<double>::quiet_NaN()));
  EXPECT_FALSE(IsValidDateValue(std::numeric_limits<double>::infinity()));
}

TEST(DateParts, RoundTheTimeToTheNearestSecond) {
  EXPECT_EQ(Second(Date(38412.0 + 9.4 / 86400.0)), 9);
  EXPECT_EQ(Second(Date(38412.0 + 9.6 / 86400.0)), 10);
  EXPECT_TRUE(HasParts(Date(38412.0 + 86399.6 / 86400.0), 2005, 3, 2, 0, 0, 0));
}

TEST(DateParts, OutOfRangeValueRaisesOverflow) {
  EXPECT_RUNTIME_ERROR(Year(Date(1e10)), err::kOverflow);
  EXPECT_RUNTIME_ERROR(Hour(Date(std::numeric_limits<double>::quiet_NaN())), err::kOverflow);
}

TEST(DateOnly, DropsTheTimeRespectingTheNegativeEncoding) {
  EXPECT_EQ(DateOnly(Date(-1.25)).value, -1.0);
  EXPECT_EQ(DateOnly(Date(38412.5)).value, 38412.0);
  EXPECT_EQ(DateOnly(Date(-0.5)).value, 0.0);
}

TEST(TimeOnly, KeepsTheTimeOfDayAsAFraction) {
  EXPECT_EQ(TimeOnly(Date(-1.25)).value, 0.25);
  EXPECT_EQ(TimeOnly(Date(38412.5)).value, 0.5);
  EXPECT_EQ(TimeOnly(DateFromParts(2005, 3, 1, 14, 5, 9)), TimeSerial(14, 5, 9));
}

// --- Weekday, DayOfYear, WeekOfYear ----------------------------------------

TEST(Weekday, SundayIsOneByDefault) {
  EXPECT_EQ(Weekday(DateSerial(2005, 3, 6)), 1);  // Sunday
  EXPECT_EQ(Weekday(DateSerial(2005, 3, 1)), 3);  // Tuesday
  EXPECT_EQ(Weekday(DateSerial(2005, 3, 5)), 7);  // Saturday
  EXPECT_EQ(Weekday(kZeroDate), 7);               // 1899-12-30 was a Saturday
  EXPECT_EQ(Weekday(Date(-1.25)), 6);             // Friday
  EXPECT_EQ(Weekday(DateSerial(100, 1, 1)), 6);   // Friday
}

TEST(Weekday, CountsFromTheGivenFirstDay) {
  Date tuesday = DateSerial(2005, 3, 1);
  EXPECT_EQ(Weekday(tuesday, 0), 3);
  EXPECT_EQ(Weekday(tuesday, 2), 2);  // Monday first
  EXPECT_EQ(Weekday(tuesday, 3), 1);  // Tuesday first
  EXPECT_EQ(Weekday(tuesday, 7), 4);  // Saturday first
}

TEST(Weekday, InvalidFirstDayRaisesInvalidProcedureCall) {
  EXPECT_RUNTIME_ERROR(Weekday(kZeroDate, 8), err::kInvalidProcedureCall);
  EXPECT_RUNTIME_ERROR(Weekday(kZeroDate, -1), err::kInvalidProcedureCall);
}

TEST(DayOfYear, CountsFromFirstJanuary) {
  EXPECT_EQ(DayOfYear(DateSerial(2005, 1, 1)), 1);
  EXPECT_EQ(DayOfYear(DateSerial(2005, 3, 1)), 60);
  EXPECT_EQ(DayOfYear(DateSerial(2004, 12, 31)), 366);
}

TEST(WeekOfYear, FirstWeekHoldsFirstJanuaryByDefault) {
  // 1 January 2005 was a Saturday: it is week 1 alone, Sunday 2 January starts week 2.
  EXPECT_EQ(WeekOfYear(DateSerial(2005, 1, 1)), 1);
  EXPECT_EQ(WeekOfYear(DateSerial(2005, 1, 2)), 2);
  EXPECT_EQ(WeekOfYear(DateSerial(2005, 3, 1)), 10);
  EXPECT_EQ(WeekOfYear(DateSerial(2005, 12, 31)), 53);
}

TEST(WeekOfYear, FirstFourDayWeekStartingMonday) {
  // ISO-style: 1 January 2005 (Saturday) belongs to the last week of 2004 (week 53).
  EXPECT_EQ(WeekOfYear(DateSerial(2005, 1, 1), 2, 2), 53);
  EXPECT_EQ(WeekOfYear(DateSerial(2005, 1, 3), 2, 2), 1);
  EXPECT_EQ(WeekOfYear(DateSerial(2005, 3, 1), 2, 2), 9);
}

TEST(WeekOfYear, FirstFullWeek) {
  // The first full Sunday-to-Saturday week of 2005 starts on 2 January.
  EXPECT_EQ(WeekOfYear(DateSerial(2005, 1, 2), 1, 3), 1);
  EXPECT_EQ(WeekOfYear(DateSerial(2005, 1, 1), 1, 3), 52);
}

TEST(WeekOfYear, InvalidRuleRaisesInvalidProcedureCall) {
  EXPECT_RUNTIME_ERROR(WeekOfYear(kZeroDate, 1, 4), err::kInvalidProcedureCall);
  EXPECT_RUNTIME_ERROR(WeekOfYear(kZeroDate, 9, 1), err::kInvalidProcedureCall);
}

// --- DateAdd ---------------------------------------------------------------

TEST(DateAdd, MonthsClampTheDayToTheMonthEnd) {
  EXPECT_EQ(DateAdd("m", 1, DateSerial(2005, 1, 31)), DateSerial(2005, 2, 28));
  EXPECT_EQ(DateAdd("m", 1, DateSerial(2004, 1, 31)), DateSerial(2004, 2, 29));
  EXPECT_EQ(DateAdd("m", -1, DateSerial(2005, 3, 31)), DateSerial(2005, 2, 28));
  EXPECT_EQ(DateAdd("m", 12, DateSerial(2005, 3, 1)), DateSerial(2006, 3, 1));
  EXPECT_EQ(DateAdd("m", -3, DateSerial(2005, 2, 15)), DateSerial(2004, 11, 15));
}

TEST(DateAdd, YearsAndQuarters) {
  EXPECT_EQ(DateAdd("yyyy", 1, DateSerial(2004, 2, 29)), DateSerial(2005, 2, 28));
  EXPECT_EQ(DateAdd("yyyy", -5, DateSerial(2005, 3, 1)), DateSerial(2000, 3, 1));
  EXPECT_EQ(DateAdd("q", 1, DateSerial(2005, 3, 1)), DateSerial(2005, 6, 1));
  EXPECT_EQ(DateAdd("q", -1, DateSerial(2005, 3, 1)), DateSerial(2004, 12, 1));
}

TEST(DateAdd, DaysAndWeeksKeepTheTime) {
  Date d = DateFromParts(2005, 3, 1, 14, 5, 9);
  EXPECT_EQ(DateAdd("d", 1, d), DateFromParts(2005, 3, 2, 14, 5, 9));
  EXPECT_EQ(DateAdd("y", 1, d), DateFromParts(2005, 3, 2, 14, 5, 9));
  EXPECT_EQ(DateAdd("w", 1, d), DateFromParts(2005, 3, 2, 14, 5, 9));
  EXPECT_EQ(DateAdd("ww", 2, d), DateFromParts(2005, 3, 15, 14, 5, 9));
  EXPECT_EQ(DateAdd("d", -1, d), DateFromParts(2005, 2, 28, 14, 5, 9));
  EXPECT_EQ(DateAdd("m", 1, d), DateFromParts(2005, 4, 1, 14, 5, 9));
}

TEST(DateAdd, HoursMinutesAndSeconds) {
  Date d = DateFromParts(2005, 3, 1, 14, 5, 9);
  EXPECT_TRUE(HasParts(DateAdd("h", 10, d), 2005, 3, 2, 0, 5, 9));
  EXPECT_TRUE(HasParts(DateAdd("n", -6, d), 2005, 3, 1, 13, 59, 9));
  EXPECT_TRUE(HasParts(DateAdd("s", 51, d), 2005, 3, 1, 14, 6, 0));
  EXPECT_EQ(DateAdd("h", 1, DateSerial(2005, 3, 1)), DateFromParts(2005, 3, 1, 1, 0, 0));
}

TEST(DateAdd, DropsTheFractionOfTheNumber) {
  Date d = DateSerial(2005, 3, 1);
  EXPECT_EQ(DateAdd("d", 1.9, d), DateSerial(2005, 3, 2));
  EXPECT_EQ(DateAdd("d", -1.9, d), DateSerial(2005, 2, 28));
}

TEST(DateAdd, WorksAcrossTheZeroDate) {
  EXPECT_EQ(DateAdd("d", 1, Date(-1.25)).value, 0.25);
  EXPECT_EQ(DateAdd("h", 18, Date(-1.25)).value, 0.0);
  EXPECT_EQ(DateAdd("d", -1, Date(0.25)).value, -1.25);
}

TEST(DateAdd, IntervalIsCaseInsensitive) {
  EXPECT_EQ(DateAdd("YYYY", 1, DateSerial(2005, 3, 1)), DateSerial(2006, 3, 1));
  EXPECT_EQ(DateAdd("D", 1, DateSerial(2005, 3, 1)), DateSerial(2005, 3, 2));
}

TEST(DateAdd, UnknownIntervalRaisesInvalidProcedureCall) {
  EXPECT_RUNTIME_ERROR(DateAdd("x", 1, kZeroDate), err::kInvalidProcedureCall);
  EXPECT_RUNTIME_ERROR(DateAdd("", 1, kZeroDate), err::kInvalidProcedureCall);
  EXPECT_RUNTIME_ERROR(DateAdd("dd", 1, kZeroDate), err::kInvalidProcedureCall);
}

TEST(DateAdd, ResultOutOfRangeRaisesOverflow) {
  Date d = DateSerial(2005, 3, 1);
  EXPECT_RUNTIME_ERROR(DateAdd("yyyy", 8000, d), err::kOverflow);
  EXPECT_RUNTIME_ERROR(DateAdd("m", -30000, d), err::kOverflow);
  EXPECT_RUNTIME_ERROR(DateAdd("d", 1e20, d), err::kOverflow);
  EXPECT_RUNTIME_ERROR(DateAdd("s", 1e15, d), err::kOverflow);
  EXPECT_RUNTIME_ERROR(DateAdd("d", std::numeric_limits<double>::quiet_NaN(), d), err::kOverflow);
}

// --- DateDiff --------------------------------------------------------------

TEST(DateDiff, DaysCountCalendarDaysCrossed) {
  EXPECT_EQ(DateDiff("d", DateFromParts(2005, 3, 1, 23, 0, 0), DateFromParts(2005, 3, 2, 1, 0, 0)),
            1);
  EXPECT_EQ(DateDiff("d", DateFromParts(2005, 3, 1, 1, 0, 0), DateFromParts(2005, 3, 1, 23, 0, 0)),
            0);
  EXPECT_EQ(DateDiff("d", DateSerial(2005, 3, 1), DateSerial(2005, 2, 1)), -28);
  EXPECT_EQ(DateDiff("y", DateSerial(2004, 1, 1), DateSerial(2005, 1, 1)), 366);
}

TEST(DateDiff, DaysAcrossTheZeroDate) {
  EXPECT_EQ(DateDiff("d", Date(-1.25), Date(0.75)), 1);
  EXPECT_EQ(DateDiff("d", Date(-1.75), Date(-1.25)), 0);
  EXPECT_EQ(DateDiff("d", DateSerial(1800, 1, 1), DateSerial(1900, 1, 1)), 36524);
}

TEST(DateDiff, MonthsQuartersAndYearsCountBoundaries) {
  EXPECT_EQ(DateDiff("m", DateSerial(2005, 1, 31), DateSerial(2005, 2, 1)), 1);
  EXPECT_EQ(DateDiff("m", DateSerial(2005, 3, 1), DateSerial(2004, 3, 31)), -12);
  EXPECT_EQ(DateDiff("q", DateSerial(2005, 3, 31), DateSerial(2005, 4, 1)), 1);
  EXPECT_EQ(DateDiff("q", DateSerial(2005, 1, 1), DateSerial(2005, 3, 31)), 0);
  EXPECT_EQ(DateDiff("yyyy", DateSerial(2004, 12, 31), DateSerial(2005, 1, 1)), 1);
  EXPECT_EQ(DateDiff("yyyy", DateSerial(2005, 1, 1), DateSerial(2005, 12, 31)), 0);
}

TEST(DateDiff, CalendarWeeksCountSundays) {
  Date tuesday = DateSerial(2005, 3, 1);
  EXPECT_EQ(DateDiff("ww", tuesday, DateSerial(2005, 3, 5)), 0);
  EXPECT_EQ(DateDiff("ww", tuesday, DateSerial(2005, 3, 6)), 1);
  EXPECT_EQ(DateDiff("ww", DateSerial(2005, 3, 6), DateSerial(2005, 3, 13)), 1);
  EXPECT_EQ(DateDiff("ww", DateSerial(2005, 3, 13), tuesday), -2);
}

TEST(DateDiff, WeeksCountWholeSevenDayPeriods) {
  Date tuesday = DateSerial(2005, 3, 1);
  EXPECT_EQ(DateDiff("w", tuesday, DateSerial(2005, 3, 7)), 0);
  EXPECT_EQ(DateDiff("w", tuesday, DateSerial(2005, 3, 8)), 1);
  EXPECT_EQ(DateDiff("w", tuesday, DateSerial(2005, 3, 15)), 2);
  EXPECT_EQ(DateDiff("w", tuesday, DateSerial(2005, 2, 21)), -1);
}

TEST(DateDiff, HoursMinutesAndSecondsCountBoundaries) {
  EXPECT_EQ(
      DateDiff("h", DateFromParts(2005, 3, 1, 10, 59, 0), DateFromParts(2005, 3, 1, 11, 0, 0)), 1);
  EXPECT_EQ(DateDiff("h", DateSerial(2005, 3, 1), DateSerial(2005, 3, 2)), 24);
  EXPECT_EQ(
      DateDiff("n", DateFromParts(2005, 3, 1, 14, 5, 59), DateFromParts(2005, 3, 1, 14, 6, 0)), 1);
  EXPECT_EQ(DateDiff("s", DateSerial(2005, 3, 1), DateFromParts(2005, 3, 1, 0, 1, 0)), 60);
  EXPECT_EQ(DateDiff("s", DateFromParts(2005, 3, 1, 0, 1, 0), DateSerial(2005, 3, 1)), -60);
  EXPECT_EQ(DateDiff("h", Date(-1.25), Date(0.25)), 24);
}

TEST(DateDiff, UnknownIntervalRaisesInvalidProcedureCall) {
  EXPECT_RUNTIME_ERROR(DateDiff("days", kZeroDate, kZeroDate), err::kInvalidProcedureCall);
}

// --- TryParseDate ------------------------------------------------------------

// Parses `text`, failing the test when it is rejected.
Date Parsed(const char* text) {
  Date d(-9999.0);
  EXPECT_TRUE(TryParseDate(text, &d)) << "rejected: \"" << text << "\"";
  return d;
}

TEST(TryParseDate, AcceptsIsoDates) {
  EXPECT_EQ(Parsed("2005-03-01"), DateSerial(2005, 3, 1));
  EXPECT_EQ(Parsed("2005-03-01 14:05:09"), DateFromParts(2005, 3, 1, 14, 5, 9));
  EXPECT_EQ(Parsed("2005-03-01T14:05:09"), DateFromParts(2005, 3, 1, 14, 5, 9));
  EXPECT_EQ(Parsed("2005/3/1"), DateSerial(2005, 3, 1));
}

TEST(TryParseDate, AcceptsMonthDayYearWithSlashesOrDashes) {
  EXPECT_EQ(Parsed("3/1/2005"), DateSerial(2005, 3, 1));
  EXPECT_EQ(Parsed("03/01/2005"), DateSerial(2005, 3, 1));
  EXPECT_EQ(Parsed("3-1-2005"), DateSerial(2005, 3, 1));
  EXPECT_EQ(Parsed("3/1/05"), DateSerial(2005, 3, 1));
  EXPECT_EQ(Parsed("12/31/99"), DateSerial(1999, 12, 31));
  EXPECT_EQ(Parsed("2/29/2004"), DateSerial(2004, 2, 29));
}

TEST(TryParseDate, AcceptsDateWithTwelveHourTime) {
  EXPECT_EQ(Parsed("03/01/2005 2:05:09 PM"), DateFromParts(2005, 3, 1, 14, 5, 9));
  EXPECT_EQ(Parsed("3/1/2005 12:00:00 AM"), DateSerial(2005, 3, 1));
  EXPECT_EQ(Parsed("3/1/2005 12:30 pm"), DateFromParts(2005, 3, 1, 12, 30, 0));
  EXPECT_EQ(Parsed("3/1/2005 2:05PM"), DateFromParts(2005, 3, 1, 14, 5, 0));
}

TEST(TryParseDate, AcceptsMonthNames) {
  EXPECT_EQ(Parsed("March 1, 2005"), DateSerial(2005, 3, 1));
  EXPECT_EQ(Parsed("Mar 1 2005"), DateSerial(2005, 3, 1));
  EXPECT_EQ(Parsed("1 Mar 2005"), DateSerial(2005, 3, 1));
  EXPECT_EQ(Parsed("1 march 2005"), DateSerial(2005, 3, 1));
  EXPECT_EQ(Parsed("01-Mar-05"), DateSerial(2005, 3, 1));
  EXPECT_EQ(Parsed("Tuesday, March 1, 2005"), DateSerial(2005, 3, 1));
  EXPECT_EQ(Parsed("March 1, 2005 14:05"), DateFromParts(2005, 3, 1, 14, 5, 0));
}

TEST(TryParseDate, AcceptsTimesAlone) {
  EXPECT_EQ(Parsed("14:05"), TimeSerial(14, 5, 0));
  EXPECT_EQ(Parsed("2:05 PM"), TimeSerial(14, 5, 0));
  EXPECT_EQ(Parsed("14:05:09"), TimeSerial(14, 5, 9));
  EXPECT_EQ(Parsed("12:05 AM"), TimeSerial(0, 5, 0));
  EXPECT_EQ(Parsed("2 PM"), TimeSerial(14, 0, 0));
  EXPECT_EQ(Parsed("0:00"), kZeroDate);
}

TEST(TryParseDate, IgnoresSurroundingSpaces) {
  EXPECT_EQ(Parsed("  3/1/2005  "), DateSerial(2005, 3, 1));
  EXPECT_EQ(Parsed(" 14:05 "), TimeSerial(14, 5, 0));
}

TEST(TryParseDate, RejectsTextThatIsNotADate) {
  for (const char* text : {"",
                           "   ",
                           "abc",
                           "12.5",
                           "12",
                           "13/45/2005",
                           "2/30/2005",
                           "0/1/2005",
                           "3/1",
                           "25:00",
                           "14:60",
                           "13:00 PM",
                           "3/1/2005 25:00",
                           "2005-03-01 abc",
                           "March 32, 2005",
                           "Smarch 1, 2005",
                           "3/1/2005/7",
                           "1/1/10000",
                           "3//2005",
                           "3/1-2005",
                           "- 3/1/2005",
                           "3/1/2005 14:05 extra"}) {
    Date d(-9999.0);
    EXPECT_FALSE(TryParseDate(text, &d)) << "accepted: \"" << text << "\"";
    EXPECT_EQ(d.value, -9999.0) << "changed the output for \"" << text << "\"";
  }
}

}  // namespace
}  // namespace quillo
