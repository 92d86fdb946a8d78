// Null-safe conversions and the ODBC date-time literals.
#include "records/general_utilities.h"

#include <gtest/gtest.h>

#include "platform/date.h"
#include "platform/object.h"
#include "platform/regional.h"
#include "support/error_matchers.h"

namespace quillo {
namespace {

class GeneralUtilitiesTest : public ::testing::Test {
 protected:
  GeneralUtilities g;
};

TEST_F(GeneralUtilitiesTest, NCNKeepsNumbersAndMapsTheRestToIntegerZero) {
  EXPECT_EQ(g.NCN(Variant(2.5)), Variant(2.5));
  EXPECT_EQ(g.NCN(Variant("12")), Variant("12"));
  EXPECT_EQ(g.NCN(Variant(kNull)), Variant(std::int16_t{0}));
  EXPECT_EQ(g.NCN(Variant("abc")), Variant(std::int16_t{0}));
}

TEST_F(GeneralUtilitiesTest, NCLongRoundsHalvesToEven) {
  EXPECT_EQ(g.NCLong(Variant("12.5")), Variant(std::int32_t{12}));
  EXPECT_EQ(g.NCLong(Variant("13.5")), Variant(std::int32_t{14}));
  EXPECT_EQ(g.NCLong(Variant("no number")), Variant(std::int32_t{0}));
  EXPECT_EQ(g.NCLong(Variant(kNull)), Variant(std::int32_t{0}));
}

TEST_F(GeneralUtilitiesTest, NCIntegerSingleDoubleCurrencyUseTheirOwnTypes) {
  EXPECT_EQ(g.NCInteger(Variant("2.5")), Variant(std::int16_t{2}));
  EXPECT_EQ(g.NCInteger(Variant(kNull)), Variant(std::int16_t{0}));
  EXPECT_EQ(g.NCSingle(Variant("1.5")), Variant(1.5f));
  EXPECT_EQ(g.NCSingle(Variant(kNull)), Variant(0.0f));
  EXPECT_EQ(g.NCDouble(Variant("x")), Variant(0.0));
  EXPECT_EQ(g.NCDouble(Variant(std::int32_t{7})), Variant(7.0));
  EXPECT_EQ(g.NCCurrency(Variant("1.23456")).scaled, 12346);
  EXPECT_EQ(g.NCCurrency(Variant(kNull)).scaled, 0);
}

TEST_F(GeneralUtilitiesTest, NumericTextOutsideTheRangeIsTheCallersFailure) {
  EXPECT_RUNTIME_ERROR(g.NCInteger(Variant("40000")), err::kOverflow);
}

TEST_F(GeneralUtilitiesTest, NCStringAndNCSGiveTextForms) {
  EXPECT_EQ(g.NCString(Variant(kNull)), "");
  EXPECT_EQ(g.NCString(Variant(std::int32_t{12})), "12");
  EXPECT_EQ(g.NCS(Variant(kNull)), Variant(""));
  EXPECT_EQ(g.NCS(Variant(0.5)), Variant("0.5"));
  EXPECT_EQ(g.NCString(Variant("O'Brien")), "O'Brien");
}

TEST_F(GeneralUtilitiesTest, NCDateOfTextThatIsNoDateIsTheZeroDate) {
  EXPECT_EQ(g.NCDate(Variant("not a date")), kZeroDate);
  EXPECT_EQ(g.NCDate(Variant(kNull)), kZeroDate);
  EXPECT_EQ(g.NCDate(Variant("2005-03-01")), DateSerial(2005, 3, 1));
  EXPECT_EQ(g.NCDate(Variant(DateSerial(1850, 7, 4))), DateSerial(1850, 7, 4));
}

TEST_F(GeneralUtilitiesTest, NCDFormatsDatesAndGivesEmptyTextOtherwise) {
  EXPECT_EQ(g.NCD(Variant(DateSerial(2005, 3, 1)), "mm/dd/yyyy"), Variant("03/01/2005"));
  EXPECT_EQ(g.NCD(Variant(kNull), "mm/dd/yyyy"), Variant(""));
  EXPECT_EQ(g.NCD(Variant("x"), "yyyy"), Variant(""));
}

TEST_F(GeneralUtilitiesTest, NCDUsesTheRegionalDateSeparator) {
  RegionalSettings saved = Regional();
  Regional().date_separator = ".";
  EXPECT_EQ(g.NCD(Variant(DateSerial(2005, 3, 1)), "mm/dd/yyyy"), Variant("03.01.2005"));
  Regional() = saved;
}

TEST_F(GeneralUtilitiesTest, OdbcLiteralsOfValidDates) {
  const Variant day(DateSerial(2005, 3, 1));
  EXPECT_EQ(g.MakeODBCDate(day), "{d '2005-03-01'}");
  EXPECT_EQ(g.MakeODBCTime(Variant(TimeSerial(9, 5, 3))), "{t '09:05:03'}");
  const Variant stamp(DateFromParts(2005, 3, 1, 14, 5, 9));
  EXPECT_EQ(g.MakeODBCTimeStamp(stamp), "{ts '2005-03-01 14:05:09'}");
  EXPECT_EQ(g.DateTimeToODBC(stamp), "2005-03-01 14:05:09");
}

TEST_F(GeneralUtilitiesTest, OdbcLiteralsOfValuesThatAreNoDate) {
  EXPECT_EQ(g.MakeODBCDate(Variant("nope")), "NULL");
  EXPECT_EQ(g.MakeODBCTime(Variant(kNull)), "NULL");
  EXPECT_EQ(g.MakeODBCTimeStamp(Variant()), "NULL");
  EXPECT_EQ(g.DateTimeToODBC(Variant("nope")), "0000-00-00 00:00:00");
}

TEST_F(GeneralUtilitiesTest, YearsBelowOneThousandAreZeroPadded) {
  EXPECT_EQ(g.MakeODBCDate(Variant(DateSerial(999, 1, 2))), "{d '0999-01-02'}");
}

TEST_F(GeneralUtilitiesTest, ZeroDateHasItsOwnLiteral) {
  EXPECT_EQ(g.MakeODBCTimeStamp(Variant(kZeroDate)), "{ts '1899-12-30 00:00:00'}");
}

TEST_F(GeneralUtilitiesTest, OdbcToDateTimeReadsEveryForm) {
  const Date stamp = DateFromParts(2005, 3, 1, 14, 5, 9);
  EXPECT_EQ(g.ODBCToDateTime("{ts '2005-03-01 14:05:09'}"), stamp);
  EXPECT_EQ(g.ODBCToDateTime("'2005-03-01'"), DateSerial(2005, 3, 1));
  EXPECT_EQ(g.ODBCToDateTime("2005-03-01 14:05:09"), stamp);
  EXPECT_EQ(g.ODBCToDateTime("2005-03-01"), DateSerial(2005, 3, 1));
  EXPECT_EQ(g.ODBCToDateTime("{d '2005-03-01'}"), DateSerial(2005, 3, 1));
}

TEST_F(GeneralUtilitiesTest, OdbcToDateTimeRoundTripsTheWrittenForms) {
  for (Date d : {DateFromParts(1850, 7, 4, 23, 59, 58), DateFromParts(2150, 1, 31, 0, 0, 1),
                 DateFromParts(2005, 3, 1, 14, 5, 9)}) {
    EXPECT_EQ(g.ODBCToDateTime(g.DateTimeToODBC(Variant(d))), d);
    EXPECT_EQ(g.ODBCToDateTime(g.MakeODBCTimeStamp(Variant(d))), d);
    EXPECT_EQ(g.ODBCToDateTime(g.MakeODBCDate(Variant(d))), DateOnly(d));
  }
}

TEST_F(GeneralUtilitiesTest, OdbcToDateTimeOfTheNoDateTextRollsOver) {
  // Year 0, month 0, day 0: the last day of November of the year before 2000.
  EXPECT_EQ(g.ODBCToDateTime("0000-00-00 00:00:00"), DateSerial(0, 0, 0));
  EXPECT_EQ(g.ODBCToDateTime("0000-00-00 00:00:00"), DateSerial(1999, 11, 30));
}

TEST_F(GeneralUtilitiesTest, OdbcToDateTimeRollsOverOutOfRangeParts) {
  EXPECT_EQ(g.ODBCToDateTime("2005-02-30"), DateSerial(2005, 3, 2));
  EXPECT_EQ(g.ODBCToDateTime("2005-13-01"), DateSerial(2006, 1, 1));
}

TEST_F(GeneralUtilitiesTest, OdbcToDateTimeOfGarbageIsTheZeroDateOrTheRolledDate) {
  EXPECT_EQ(g.ODBCToDateTime("abcd"), DateSerial(0, 0, 0));
  // A date past the year 9999 fails inside and gives the zero date.
  EXPECT_EQ(g.ODBCToDateTime("9999-99-01 10:00:00"), kZeroDate);
}

TEST(NullToTextTest, JoinsWithTheEmptyText) {
  EXPECT_EQ(NullToText(Variant(kNull)), Variant(""));
  EXPECT_EQ(NullToText(Variant(std::int32_t{42})), Variant("42"));
  EXPECT_EQ(NullToText(Variant("x")), Variant("x"));
}

TEST(DateToODBCLiteralTest, EqualsMakeODBCDateForValidDates) {
  GeneralUtilities g;
  for (Date d : {DateSerial(2005, 3, 1), DateSerial(1850, 12, 31), DateSerial(2199, 6, 15)}) {
    EXPECT_EQ(DateToODBCLiteral(Variant(d)), Variant(g.MakeODBCDate(Variant(d))));
  }
}

TEST(DateToODBCLiteralTest, WorksWithAnyOneCharacterDateSeparator) {
  RegionalSettings saved = Regional();
  Regional().date_separator = "-";
  EXPECT_EQ(DateToODBCLiteral(Variant(DateSerial(2005, 3, 1))), Variant("{d '2005-03-01'}"));
  Regional() = saved;
}

TEST(DateToODBCLiteralTest, CutsPiecesFromTheTextOfAValueThatIsNoDate) {
  EXPECT_EQ(DateToODBCLiteral(Variant("abcdefghijkl")), Variant("{d 'ghij-ab-de'}"));
  EXPECT_EQ(DateToODBCLiteral(Variant(kNull)), Variant("{d '--'}"));
}

TEST(GeneralUtilitiesByName, IsPrivateAndReachableForTests) {
  EXPECT_RUNTIME_ERROR(CreateObject("GeneralUtilities"), err::kCantCreateObject);
  ObjectPtr g = testing::CreatePrivateObject("GeneralUtilities");
  EXPECT_EQ(g->Invoke("MakeODBCDate", CallKind::kMethod, {Variant(DateSerial(2005, 3, 1))}),
            Variant("{d '2005-03-01'}"));
  EXPECT_EQ(g->Invoke("nclong", CallKind::kMethod, {Variant("13.5")}), Variant(std::int32_t{14}));
}

}  // namespace
}  // namespace quillo
