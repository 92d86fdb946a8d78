// Tests for FormatDate: every pattern letter, literals, the named formats and
// the regional settings they are built from.
#include "platform/format.h"

#include <gtest/gtest.h>

#include <limits>

#include "platform/date.h"
#include "platform/error.h"
#include "platform/regional.h"
#include "support/error_matchers.h"

namespace quillo {
namespace {

// Tuesday 1 March 2005, 14:05:09.
const Date kAfternoon = DateFromParts(2005, 3, 1, 14, 5, 9);
// Sunday 4 December 2005, 09:05:03.
const Date kMorning = DateFromParts(2005, 12, 4, 9, 5, 3);

// Restores the process-wide regional settings after each test.
class FormatDateTest : public ::testing::Test {
 protected:
  void SetUp() override { saved_ = Regional(); }
  void TearDown() override { Regional() = saved_; }

 private:
  RegionalSettings saved_;
};

TEST_F(FormatDateTest, CompactTimestamp) {
  EXPECT_EQ(FormatDate(kAfternoon, "yyyymmddhhnnss"), "20050301140509");
}

TEST_F(FormatDateTest, SlashesPrintTheDateSeparator) {
  EXPECT_EQ(FormatDate(kAfternoon, "mm/dd/yyyy"), "03/01/2005");
}

TEST_F(FormatDateTest, DayLetters) {
  EXPECT_EQ(FormatDate(kAfternoon, "d"), "1");
  EXPECT_EQ(FormatDate(kAfternoon, "dd"), "01");
  EXPECT_EQ(FormatDate(kAfternoon, "ddd"), "Tue");
  EXPECT_EQ(FormatDate(kAfternoon, "dddd"), "Tuesday");
  EXPECT_EQ(FormatDate(kMorning, "d dd"), "4 04");
  EXPECT_EQ(FormatDate(DateSerial(2005, 3, 31), "d"), "31");
}

TEST_F(FormatDateTest, FiveAndSixDsAreShortAndLongDate) {
  EXPECT_EQ(FormatDate(kAfternoon, "ddddd"), "3/1/2005");
  EXPECT_EQ(FormatDate(kAfternoon, "dddddd"), "Tuesday, March 1, 2005");
}

TEST_F(FormatDateTest, MonthLetters) {
  EXPECT_EQ(FormatDate(kAfternoon, "m"), "3");
  EXPECT_EQ(FormatDate(kAfternoon, "mm"), "03");
  EXPECT_EQ(FormatDate(kAfternoon, "mmm"), "Mar");
  EXPECT_EQ(FormatDate(kAfternoon, "mmmm"), "March");
  EXPECT_EQ(FormatDate(kMorning, "m mm mmm mmmm"), "12 12 Dec December");
}

TEST_F(FormatDateTest, MAfterAnHourIsMinutes) {
  EXPECT_EQ(FormatDate(kAfternoon, "h:m"), "14:5");
  EXPECT_EQ(FormatDate(kAfternoon, "hh:mm"), "14:05");
  EXPECT_EQ(FormatDate(kAfternoon, "hh mm"), "14 05");
  EXPECT_EQ(FormatDate(kAfternoon, "mm hh"), "03 14");
  EXPECT_EQ(FormatDate(kAfternoon, "hh:mm dd/mm"), "14:05 01/03");
}

TEST_F(FormatDateTest, YearLetters) {
  EXPECT_EQ(FormatDate(kAfternoon, "yy"), "05");
  EXPECT_EQ(FormatDate(kAfternoon, "yyyy"), "2005");
  EXPECT_EQ(FormatDate(DateSerial(1999, 1, 1), "yy"), "99");
  EXPECT_EQ(FormatDate(DateSerial(2000, 1, 1), "yy"), "00");
}

TEST_F(FormatDateTest, SingleYIsTheDayOfTheYear) {
  EXPECT_EQ(FormatDate(kAfternoon, "y"), "60");
  EXPECT_EQ(FormatDate(DateSerial(2004, 12, 31), "y"), "366");
}

TEST_F(FormatDateTest, HourMinuteSecondLetters) {
  EXPECT_EQ(FormatDate(kMorning, "h"), "9");
  EXPECT_EQ(FormatDate(kMorning, "hh"), "09");
  EXPECT_EQ(FormatDate(kMorning, "n"), "5");
  EXPECT_EQ(FormatDate(kMorning, "nn"), "05");
  EXPECT_EQ(FormatDate(kMorning, "s"), "3");
  EXPECT_EQ(FormatDate(kMorning, "ss"), "03");
  EXPECT_EQ(FormatDate(kAfternoon, "h:n:s"), "14:5:9");
}

TEST_F(FormatDateTest, FiveTsAreTheLongTime) {
  EXPECT_EQ(FormatDate(kAfternoon, "ttttt"), "2:05:09 PM");
  EXPECT_EQ(FormatDate(kMorning, "ttttt"), "9:05:03 AM");
}

TEST_F(FormatDateTest, AmPmMarkersKeepTheirCase) {
  EXPECT_EQ(FormatDate(kAfternoon, "h AM/PM"), "2 PM");
  EXPECT_EQ(FormatDate(kAfternoon, "h am/pm"), "2 pm");
  EXPECT_EQ(FormatDate(kAfternoon, "h A/P"), "2 P");
  EXPECT_EQ(FormatDate(kAfternoon, "h a/p"), "2 p");
  EXPECT_EQ(FormatDate(kAfternoon, "h AMPM"), "2 PM");
  EXPECT_EQ(FormatDate(kMorning, "h AM/PM am/pm A/P a/p AMPM"), "9 AM am A a AM");
}

TEST_F(FormatDateTest, TwelveHourClockShowsMidnightAndNoonAsTwelve) {
  EXPECT_EQ(FormatDate(DateSerial(2005, 3, 1), "h:nn AM/PM"), "12:00 AM");
  EXPECT_EQ(FormatDate(DateFromParts(2005, 3, 1, 12, 0, 0), "h:nn AM/PM"), "12:00 PM");
  EXPECT_EQ(FormatDate(DateFromParts(2005, 3, 1, 0, 30, 0), "hh:nn AMPM"), "12:30 AM");
  EXPECT_EQ(FormatDate(DateFromParts(2005, 3, 1, 23, 59, 59), "hh:nn:ss a/p"), "11:59:59 p");
}

TEST_F(FormatDateTest, WeekdayAndWeekOfYear) {
  EXPECT_EQ(FormatDate(kAfternoon, "w"), "3");
  EXPECT_EQ(FormatDate(kMorning, "w"), "1");
  EXPECT_EQ(FormatDate(kAfternoon, "w", 2), "2");
  EXPECT_EQ(FormatDate(kAfternoon, "ww"), "10");
  EXPECT_EQ(FormatDate(kAfternoon, "ww", 2, 2), "9");
  EXPECT_EQ(FormatDate(DateSerial(2005, 1, 1), "ww"), "1");
}

TEST_F(FormatDateTest, Quarter) {
  EXPECT_EQ(FormatDate(kAfternoon, "q"), "1");
  EXPECT_EQ(FormatDate(DateSerial(2005, 4, 1), "q"), "2");
  EXPECT_EQ(FormatDate(kMorning, "\"Q\"q yyyy"), "Q4 2005");
}

TEST_F(FormatDateTest, CIsTheGeneralDate) {
  EXPECT_EQ(FormatDate(kAfternoon, "c"), "3/1/2005 2:05:09 PM");
  EXPECT_EQ(FormatDate(DateSerial(2005, 3, 1), "c"), "3/1/2005");
  EXPECT_EQ(FormatDate(TimeSerial(14, 5, 9), "c"), "2:05:09 PM");
}

TEST_F(FormatDateTest, QuotedAndBackslashedTextIsLiteral) {
  EXPECT_EQ(FormatDate(kAfternoon, "\"Day\" d"), "Day 1");
  EXPECT_EQ(FormatDate(kAfternoon, "\\d d"), "d 1");
  EXPECT_EQ(FormatDate(kAfternoon, "hh\\hnn"), "14h05");
  EXPECT_EQ(FormatDate(kAfternoon, "\"a/b:c\""), "a/b:c");
  EXPECT_EQ(FormatDate(kAfternoon, "\\/\\:"), "/:");
}

TEST_F(FormatDateTest, OtherCharactersStandForThemselves) {
  EXPECT_EQ(FormatDate(kAfternoon, "yyyy-mm-dd"), "2005-03-01");
  EXPECT_EQ(FormatDate(kAfternoon, "yyyy.mm.dd [x] #"), "2005.03.01 [x] #");
  EXPECT_EQ(FormatDate(kAfternoon, "t"), "t");
}

TEST_F(FormatDateTest, PatternLettersAreCaseInsensitive) {
  EXPECT_EQ(FormatDate(kAfternoon, "DD/MM/YYYY"), "01/03/2005");
  EXPECT_EQ(FormatDate(kAfternoon, "HH:NN:SS"), "14:05:09");
  EXPECT_EQ(FormatDate(kAfternoon, "HH:MM"), "14:05");
}

TEST_F(FormatDateTest, NamedFormats) {
  EXPECT_EQ(FormatDate(kAfternoon, "General Date"), "3/1/2005 2:05:09 PM");
  EXPECT_EQ(FormatDate(kAfternoon, "Long Date"), "Tuesday, March 1, 2005");
  EXPECT_EQ(FormatDate(kAfternoon, "Medium Date"), "01-Mar-05");
  EXPECT_EQ(FormatDate(kAfternoon, "Short Date"), "3/1/2005");
  EXPECT_EQ(FormatDate(kAfternoon, "Long Time"), "2:05:09 PM");
  EXPECT_EQ(FormatDate(kAfternoon, "Medium Time"), "02:05 PM");
  EXPECT_EQ(FormatDate(kAfternoon, "Short Time"), "14:05");
}

TEST_F(FormatDateTest, NamedFormatsIgnoreCase) {
  EXPECT_EQ(FormatDate(kAfternoon, "long date"), "Tuesday, March 1, 2005");
  EXPECT_EQ(FormatDate(kAfternoon, "SHORT TIME"), "14:05");
}

TEST_F(FormatDateTest, GeneralDateLeavesOutAZeroPart) {
  EXPECT_EQ(FormatDate(DateSerial(2005, 3, 1), "General Date"), "3/1/2005");
  EXPECT_EQ(FormatDate(TimeSerial(14, 5, 9), "General Date"), "2:05:09 PM");
  EXPECT_EQ(FormatDate(kZeroDate, "General Date"), "12:00:00 AM");
}

TEST_F(FormatDateTest, GeneralDateBeforeTheZeroDate) {
  EXPECT_EQ(FormatDate(Date(-1.25), "General Date"), "12/29/1899 6:00:00 AM");
  EXPECT_EQ(FormatDate(Date(-1.0), "General Date"), "12/29/1899");
}

TEST_F(FormatDateTest, EmptyPatternIsTheGeneralDate) {
  EXPECT_EQ(FormatDate(kAfternoon, ""), "3/1/2005 2:05:09 PM");
}

TEST_F(FormatDateTest, RegionalSeparatorsTakeEffect) {
  Regional().date_separator = ".";
  Regional().time_separator = "h";
  EXPECT_EQ(FormatDate(kAfternoon, "mm/dd/yyyy hh:nn"), "03.01.2005 14h05");
  EXPECT_EQ(FormatDate(kAfternoon, "Short Date"), "3.1.2005");
}

TEST_F(FormatDateTest, RegionalPatternsTakeEffect) {
  Regional().short_date = "dd/mm/yyyy";
  Regional().long_date = "d mmmm yyyy";
  Regional().medium_date = "d-mmm-yyyy";
  Regional().short_time = "h:nn";
  Regional().medium_time = "h:nn";
  Regional().long_time = "hh:nn:ss";
  EXPECT_EQ(FormatDate(kAfternoon, "Short Date"), "01/03/2005");
  EXPECT_EQ(FormatDate(kAfternoon, "ddddd"), "01/03/2005");
  EXPECT_EQ(FormatDate(kAfternoon, "Long Date"), "1 March 2005");
  EXPECT_EQ(FormatDate(kAfternoon, "dddddd"), "1 March 2005");
  EXPECT_EQ(FormatDate(kAfternoon, "Medium Date"), "1-Mar-2005");
  EXPECT_EQ(FormatDate(kMorning, "Short Time"), "9:05");
  EXPECT_EQ(FormatDate(kMorning, "Medium Time"), "9:05");
  EXPECT_EQ(FormatDate(kMorning, "Long Time"), "09:05:03");
  EXPECT_EQ(FormatDate(kMorning, "ttttt"), "09:05:03");
  EXPECT_EQ(FormatDate(kAfternoon, "General Date"), "01/03/2005 14:05:09");
}

TEST_F(FormatDateTest, SelfReferringRegionalPatternDoesNotLoop) {
  Regional().short_date = "ddddd";
  EXPECT_NO_THROW(FormatDate(kAfternoon, "Short Date"));
}

TEST_F(FormatDateTest, InvalidDateRaisesOverflow) {
  EXPECT_RUNTIME_ERROR(FormatDate(Date(1e10), "yyyy"), err::kOverflow);
  EXPECT_RUNTIME_ERROR(FormatDate(Date(std::numeric_limits<double>::quiet_NaN()), "yyyy"),
                       err::kOverflow);
}

TEST(MonthName, FullAndAbbreviated) {
  EXPECT_EQ(MonthName(1), "January");
  EXPECT_EQ(MonthName(9, true), "Sep");
  EXPECT_RUNTIME_ERROR(MonthName(13), err::kInvalidProcedureCall);
}

TEST(WeekdayName, FullAbbreviatedAndFromAnotherFirstDay) {
  EXPECT_EQ(WeekdayName(1), "Sunday");
  EXPECT_EQ(WeekdayName(7, true), "Sat");
  EXPECT_EQ(WeekdayName(1, false, 2), "Monday");
  EXPECT_RUNTIME_ERROR(WeekdayName(0), err::kInvalidProcedureCall);
  EXPECT_RUNTIME_ERROR(WeekdayName(1, false, 8), err::kInvalidProcedureCall);
}

}  // namespace
}  // namespace quillo
