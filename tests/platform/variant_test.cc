// Tests for Variant: every kind in and out, the classic conversions with their
// rounding and errors, IsNumeric, IsDate, Val and the two text forms of numbers.
#include "platform/variant.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>

#include "platform/collection.h"
#include "platform/date.h"
#include "platform/error.h"
#include "support/error_matchers.h"

namespace quillo {
namespace {

// --- Kinds ---------------------------------------------------------------

TEST(Variant, DefaultIsEmpty) {
  Variant v;
  EXPECT_TRUE(v.IsEmpty());
  EXPECT_EQ(v.Type(), VarType::kEmpty);
  EXPECT_EQ(TypeName(v), "Empty");
}

TEST(Variant, EachConstructorGivesItsKind) {
  EXPECT_EQ(Variant(kNull).Type(), VarType::kNull);
  EXPECT_EQ(Variant(std::int16_t{7}).Type(), VarType::kInteger);
  EXPECT_EQ(Variant(std::int32_t{7}).Type(), VarType::kLong);
  EXPECT_EQ(Variant(1.5f).Type(), VarType::kSingle);
  EXPECT_EQ(Variant(1.5).Type(), VarType::kDouble);
  EXPECT_EQ(Variant(Currency{15000}).Type(), VarType::kCurrency);
  EXPECT_EQ(Variant(Date(38412.0)).Type(), VarType::kDate);
  EXPECT_EQ(Variant("x").Type(), VarType::kString);
  EXPECT_EQ(Variant(std::string("x")).Type(), VarType::kString);
  EXPECT_EQ(Variant(std::string_view("x")).Type(), VarType::kString);
  EXPECT_EQ(Variant(true).Type(), VarType::kBoolean);
  EXPECT_EQ(Variant(ObjectPtr()).Type(), VarType::kObject);
  EXPECT_EQ(Variant(std::make_shared<Collection<std::string>>()).Type(), VarType::kObject);
}

TEST(Variant, TypeNamesAreTheAutomationNames) {
  EXPECT_EQ(TypeName(Variant(kNull)), "Null");
  EXPECT_EQ(TypeName(Variant(std::int16_t{1})), "Integer");
  EXPECT_EQ(TypeName(Variant(1)), "Long");
  EXPECT_EQ(TypeName(Variant(1.0f)), "Single");
  EXPECT_EQ(TypeName(Variant(1.0)), "Double");
  EXPECT_EQ(TypeName(Variant(Currency{1})), "Currency");
  EXPECT_EQ(TypeName(Variant(Date(1.0))), "Date");
  EXPECT_EQ(TypeName(Variant("a")), "String");
  EXPECT_EQ(TypeName(Variant(false)), "Boolean");
  EXPECT_EQ(TypeName(Variant(ObjectPtr())), "Nothing");
  EXPECT_EQ(TypeName(Variant(std::make_shared<Collection<std::string>>())), "Object");
}

TEST(Variant, A64BitIntegerIsLongWhenItFitsElseDouble) {
  EXPECT_EQ(Variant(2147483647L).Type(), VarType::kLong);
  EXPECT_EQ(Variant(-2147483648L).Type(), VarType::kLong);
  EXPECT_EQ(Variant(2147483648L).Type(), VarType::kDouble);
  EXPECT_EQ(Variant(2147483648L).ToDouble(), 2147483648.0);
  EXPECT_EQ(Variant(-3000000000LL).Type(), VarType::kDouble);
}

TEST(Variant, EachKindComesBackUnchanged) {
  EXPECT_EQ(Variant(std::int16_t{-12}).ToInteger(), -12);
  EXPECT_EQ(Variant(std::int32_t{123456}).ToLong(), 123456);
  EXPECT_EQ(Variant(1.25f).ToSingle(), 1.25f);
  EXPECT_EQ(Variant(2.75).ToDouble(), 2.75);
  EXPECT_EQ(Variant(Currency{12345}).ToCurrency(), Currency{12345});
  EXPECT_EQ(Variant(Date(38412.5)).ToDate(), Date(38412.5));
  EXPECT_EQ(Variant("abc").ToString(), "abc");
  EXPECT_TRUE(Variant(true).ToBool());
  EXPECT_FALSE(Variant(false).ToBool());
  auto object = std::make_shared<Collection<std::string>>();
  EXPECT_EQ(Variant(object).ToObject(), object);
}

TEST(Variant, StringsHoldArbitraryBytes) {
  std::string bytes("a\0b\xff\xfe", 5);
  Variant v(bytes);
  EXPECT_EQ(v.ToString(), bytes);
  EXPECT_EQ(v.StringRef().size(), 5u);
}

TEST(Variant, AssignTextMakesAStringWhateverWasHeld) {
  Variant v(std::int32_t{7});
  v.AssignText("a longer text than fits in place");
  EXPECT_EQ(v.Type(), VarType::kString);
  EXPECT_EQ(v.StringRef(), "a longer text than fits in place");
  v.AssignText("short");
  EXPECT_EQ(v, Variant("short"));
  v.AssignText(std::string_view("x\0y", 3));
  EXPECT_EQ(v.StringRef(), std::string("x\0y", 3));
  v.AssignText("");
  EXPECT_EQ(v, Variant(""));
  Variant object(std::make_shared<Collection<std::string>>());
  object.AssignText("text");
  EXPECT_EQ(object, Variant("text"));
}

TEST(Variant, EmptyConvertsToZeroAndEmptyText) {
  Variant v;
  EXPECT_EQ(v.ToInteger(), 0);
  EXPECT_EQ(v.ToLong(), 0);
  EXPECT_EQ(v.ToDouble(), 0.0);
  EXPECT_EQ(v.ToString(), "");
  EXPECT_FALSE(v.ToBool());
  EXPECT_EQ(v.ToDate(), Date(0.0));
  EXPECT_EQ(v.ToObject(), nullptr);
}

TEST(Variant, BooleansConvertToMinusOneAndZero) {
  EXPECT_EQ(Variant(true).ToInteger(), -1);
  EXPECT_EQ(Variant(true).ToLong(), -1);
  EXPECT_EQ(Variant(true).ToDouble(), -1.0);
  EXPECT_EQ(Variant(false).ToLong(), 0);
  EXPECT_EQ(Variant(true).ToString(), "True");
  EXPECT_EQ(Variant(false).ToString(), "False");
}

TEST(Variant, NumbersAndTextConvertToBoolean) {
  EXPECT_TRUE(Variant(std::int32_t{5}).ToBool());
  EXPECT_FALSE(Variant(0.0).ToBool());
  EXPECT_TRUE(Variant("True").ToBool());
  EXPECT_TRUE(Variant(" true ").ToBool());
  EXPECT_FALSE(Variant("FALSE").ToBool());
  EXPECT_TRUE(Variant("-1").ToBool());
  EXPECT_FALSE(Variant("0").ToBool());
  EXPECT_RUNTIME_ERROR(Variant("maybe").ToBool(), err::kTypeMismatch);
}

TEST(Variant, TextConvertsToNumbers) {
  EXPECT_EQ(Variant("42").ToLong(), 42);
  EXPECT_EQ(Variant(" -7 ").ToInteger(), -7);
  EXPECT_EQ(Variant("2.5e1").ToDouble(), 25.0);
  EXPECT_EQ(Variant("&H10").ToLong(), 16);
  EXPECT_EQ(Variant("1.5").ToSingle(), 1.5f);
  EXPECT_EQ(Variant("1.23456").ToCurrency(), Currency{12346});
}

TEST(Variant, TextConvertsToDates) {
  EXPECT_EQ(Variant("2005-03-01").ToDate(), DateSerial(2005, 3, 1));
  EXPECT_EQ(Variant("38412").ToDate(), Date(38412.0));
  EXPECT_RUNTIME_ERROR(Variant("not a date").ToDate(), err::kTypeMismatch);
}

TEST(Variant, NumbersConvertToDates) {
  EXPECT_EQ(Variant(std::int32_t{38412}).ToDate(), Date(38412.0));
  EXPECT_EQ(Variant(-1.25).ToDate(), Date(-1.25));
  EXPECT_RUNTIME_ERROR(Variant(1e9).ToDate(), err::kOverflow);
}

TEST(Variant, DatesConvertToTheirDayCountAndGeneralDateText) {
  EXPECT_EQ(Variant(Date(38412.25)).ToDouble(), 38412.25);
  EXPECT_EQ(Variant(DateSerial(2005, 3, 1)).ToString(), "3/1/2005");
  EXPECT_EQ(Variant(DateFromParts(2005, 3, 1, 14, 5, 9)).ToString(), "3/1/2005 2:05:09 PM");
}

TEST(Variant, CurrencyConvertsBothWays) {
  EXPECT_EQ(Variant(Currency{35000}).ToDouble(), 3.5);
  EXPECT_EQ(Variant(Currency{35000}).ToString(), "3.5");
  EXPECT_EQ(Variant(2.5).ToCurrency(), Currency{25000});
  EXPECT_EQ(Variant(Currency{25000}).ToLong(), 2);
  EXPECT_EQ(Variant(Currency{35000}).ToLong(), 4);
}

// --- Integer rounding and overflow -----------------------------------------

TEST(Variant, IntegerConversionsRoundHalfToEven) {
  EXPECT_EQ(Variant(12.5).ToInteger(), 12);
  EXPECT_EQ(Variant(13.5).ToInteger(), 14);
  EXPECT_EQ(Variant(2.5).ToInteger(), 2);
  EXPECT_EQ(Variant(-2.5).ToInteger(), -2);
  EXPECT_EQ(Variant(-3.5).ToInteger(), -4);
  EXPECT_EQ(Variant(12.5).ToLong(), 12);
  EXPECT_EQ(Variant(13.5).ToLong(), 14);
  EXPECT_EQ(Variant(2.5).ToLong(), 2);
  EXPECT_EQ(Variant(-2.5).ToLong(), -2);
  EXPECT_EQ(Variant(2.5f).ToLong(), 2);
  EXPECT_EQ(Variant("12.5").ToInteger(), 12);
  EXPECT_EQ(Variant("13.5").ToLong(), 14);
  EXPECT_EQ(Variant(12.4).ToLong(), 12);
  EXPECT_EQ(Variant(12.6).ToLong(), 13);
}

TEST(Variant, RoundingHelpersRoundHalfToEven) {
  EXPECT_EQ(RoundToInteger(0.5), 0);
  EXPECT_EQ(RoundToInteger(1.5), 2);
  EXPECT_EQ(RoundToLong(-0.5), 0);
  EXPECT_EQ(RoundToLong(-1.5), -2);
}

TEST(Variant, IntegerOutOfRangeIsOverflow) {
  EXPECT_EQ(Variant(32767.0).ToInteger(), 32767);
  EXPECT_EQ(Variant(-32768.5).ToInteger(), -32768);  // Rounds to the even -32768.
  EXPECT_RUNTIME_ERROR(Variant(32767.5).ToInteger(), err::kOverflow);
  EXPECT_RUNTIME_ERROR(Variant(std::int32_t{32768}).ToInteger(), err::kOverflow);
  EXPECT_RUNTIME_ERROR(Variant(-32769.0).ToInteger(), err::kOverflow);
  EXPECT_RUNTIME_ERROR(Variant("40000").ToInteger(), err::kOverflow);
  EXPECT_EQ(Variant(2147483647.0).ToLong(), 2147483647);
  EXPECT_RUNTIME_ERROR(Variant(2147483647.5).ToLong(), err::kOverflow);
  EXPECT_RUNTIME_ERROR(Variant(-2147483649.0).ToLong(), err::kOverflow);
  EXPECT_RUNTIME_ERROR(Variant(1e300).ToSingle(), err::kOverflow);
  EXPECT_RUNTIME_ERROR(Variant(1e300).ToCurrency(), err::kOverflow);
  EXPECT_RUNTIME_ERROR(Variant("1e400").ToDouble(), err::kOverflow);
}

TEST(Variant, TextThatIsNotANumberIsTypeMismatch) {
  EXPECT_RUNTIME_ERROR(Variant("abc").ToInteger(), err::kTypeMismatch);
  EXPECT_RUNTIME_ERROR(Variant("abc").ToLong(), err::kTypeMismatch);
  EXPECT_RUNTIME_ERROR(Variant("3a").ToDouble(), err::kTypeMismatch);
  EXPECT_RUNTIME_ERROR(Variant("").ToLong(), err::kTypeMismatch);
  EXPECT_RUNTIME_ERROR(Variant("1.5.3").ToSingle(), err::kTypeMismatch);
  EXPECT_RUNTIME_ERROR(Variant("x").ToCurrency(), err::kTypeMismatch);
}

TEST(Variant, ObjectsDoNotConvertToValues) {
  Variant v(std::make_shared<Collection<std::string>>());
  EXPECT_RUNTIME_ERROR(v.ToLong(), err::kTypeMismatch);
  EXPECT_RUNTIME_ERROR(v.ToString(), err::kTypeMismatch);
  EXPECT_RUNTIME_ERROR(Variant("x").ToObject(), err::kTypeMismatch);
  EXPECT_RUNTIME_ERROR(Variant(1).ToObject(), err::kTypeMismatch);
}

TEST(Variant, NullIsInvalidWhereAValueIsNeeded) {
  Variant v(kNull);
  EXPECT_TRUE(v.IsNull());
  EXPECT_RUNTIME_ERROR(v.ToInteger(), err::kInvalidUseOfNull);
  EXPECT_RUNTIME_ERROR(v.ToLong(), err::kInvalidUseOfNull);
  EXPECT_RUNTIME_ERROR(v.ToSingle(), err::kInvalidUseOfNull);
  EXPECT_RUNTIME_ERROR(v.ToDouble(), err::kInvalidUseOfNull);
  EXPECT_RUNTIME_ERROR(v.ToCurrency(), err::kInvalidUseOfNull);
  EXPECT_RUNTIME_ERROR(v.ToDate(), err::kInvalidUseOfNull);
  EXPECT_RUNTIME_ERROR(v.ToString(), err::kInvalidUseOfNull);
  EXPECT_RUNTIME_ERROR(v.ToBool(), err::kInvalidUseOfNull);
}

// --- IsNumeric, IsDate, Val ----------------------------------------------

TEST(IsNumeric, AcceptsNumbersAndNumericText) {
  EXPECT_TRUE(IsNumeric(Variant("12.5")));
  EXPECT_TRUE(IsNumeric(Variant(" 3 ")));
  EXPECT_TRUE(IsNumeric(Variant("1e3")));
  EXPECT_TRUE(IsNumeric(Variant("&H10")));
  EXPECT_TRUE(IsNumeric(Variant("-0.5")));
  EXPECT_TRUE(IsNumeric(Variant(".5")));
  EXPECT_TRUE(IsNumeric(Variant(std::int32_t{3})));
  EXPECT_TRUE(IsNumeric(Variant(2.5)));
  EXPECT_TRUE(IsNumeric(Variant(Currency{1})));
  EXPECT_TRUE(IsNumeric(Variant(true)));
  EXPECT_TRUE(IsNumeric(Variant()));
}

TEST(IsNumeric, RejectsOtherText) {
  EXPECT_FALSE(IsNumeric(Variant("")));
  EXPECT_FALSE(IsNumeric(Variant("abc")));
  EXPECT_FALSE(IsNumeric(Variant("3a")));
  EXPECT_FALSE(IsNumeric(Variant(" ")));
  EXPECT_FALSE(IsNumeric(Variant("-")));
  EXPECT_FALSE(IsNumeric(Variant("&H")));
  EXPECT_FALSE(IsNumeric(Variant("&HFFFFFFFFF")));  // Too large for 32 bits.
}

TEST(IsNumeric, RejectsNullDatesAndObjects) {
  EXPECT_FALSE(IsNumeric(Variant(kNull)));
  EXPECT_FALSE(IsNumeric(Variant(Date(1.0))));
  EXPECT_FALSE(IsNumeric(Variant(ObjectPtr())));
}

TEST(IsDate, AcceptsDatesAndDateText) {
  EXPECT_TRUE(IsDate(Variant(Date(38412.0))));
  EXPECT_TRUE(IsDate(Variant("2005-03-01")));
  EXPECT_TRUE(IsDate(Variant("3/1/2005")));
  EXPECT_FALSE(IsDate(Variant("abc")));
  EXPECT_FALSE(IsDate(Variant(38412.0)));
  EXPECT_FALSE(IsDate(Variant(kNull)));
}

TEST(Val, ReadsTheLeadingNumber) {
  EXPECT_EQ(Val("12abc"), 12.0);
  EXPECT_EQ(Val("abc"), 0.0);
  EXPECT_EQ(Val(" 1 2"), 12.0);
  EXPECT_EQ(Val(""), 0.0);
  EXPECT_EQ(Val("-3.25xyz"), -3.25);
  EXPECT_EQ(Val("1.5.3"), 1.5);
  EXPECT_EQ(Val("1e3x"), 1000.0);
  EXPECT_EQ(Val("\t7\n"), 7.0);
  EXPECT_EQ(Val("&H10"), 16.0);
  EXPECT_EQ(Val("&HFFFF"), -1.0);
  EXPECT_EQ(Val("&H1Fg"), 31.0);
}

TEST(Val, OctalLiteralEndsAtTheFirstNonOctalDigit) {
  EXPECT_EQ(Val("&O17"), 15.0);
  EXPECT_EQ(Val("&O19"), 1.0);
  EXPECT_EQ(Val("&O8"), 0.0);
}

TEST(ParseNumber, ReadsWholeTextOnly) {
  EXPECT_EQ(ParseNumber("12.5"), 12.5);
  EXPECT_EQ(ParseNumber(" 3 "), 3.0);
  EXPECT_EQ(ParseNumber("1e3"), 1000.0);
  EXPECT_EQ(ParseNumber("&H10"), 16.0);
  EXPECT_EQ(ParseNumber("&O17"), 15.0);
  EXPECT_EQ(ParseNumber("12abc"), std::nullopt);
  EXPECT_EQ(ParseNumber(""), std::nullopt);
}

// --- Numbers as text ---------------------------------------------------------

TEST(CStr, WritesNumbersWithoutBlankOrLeadingZeroLoss) {
  EXPECT_EQ(Variant(3.5).ToString(), "3.5");
  EXPECT_EQ(Variant(-2.0).ToString(), "-2");
  EXPECT_EQ(Variant(0.5).ToString(), "0.5");
  EXPECT_EQ(Variant(-0.5).ToString(), "-0.5");
  EXPECT_EQ(Variant(12.0).ToString(), "12");
  EXPECT_EQ(Variant(0.0).ToString(), "0");
  EXPECT_EQ(Variant(std::int16_t{-2}).ToString(), "-2");
  EXPECT_EQ(Variant(std::int32_t{123456}).ToString(), "123456");
}

TEST(CStr, UsesTheExponentFormBeyondTheRange) {
  EXPECT_EQ(Variant(1e20).ToString(), "1E+20");
  EXPECT_EQ(Variant(1.5e-7).ToString(), "1.5E-07");
  EXPECT_EQ(Variant(-2.5e30).ToString(), "-2.5E+30");
  EXPECT_EQ(Variant(1e15).ToString(), "1E+15");
  EXPECT_EQ(Variant(1.25e-100).ToString(), "1.25E-100");
  EXPECT_EQ(CStrNumber(0.00001), "0.00001");
}

TEST(CStr, DoublesKeepFifteenSignificantDigits) {
  EXPECT_EQ(CStrNumber(1.0 / 3.0), "0.333333333333333");
  EXPECT_EQ(CStrNumber(2.0 / 3.0), "0.666666666666667");
  EXPECT_EQ(CStrNumber(0.1 + 0.2), "0.3");
  EXPECT_EQ(CStrNumber(999999999999999.0), "999999999999999");
  EXPECT_EQ(CStrNumber(123456789012345678.0), "1.23456789012346E+17");
  EXPECT_EQ(CStrNumber(1234.5678), "1234.5678");
}

TEST(CStr, SinglesKeepSevenSignificantDigits) {
  EXPECT_EQ(Variant(1.0f / 3.0f).ToString(), "0.3333333");
  EXPECT_EQ(Variant(0.1f).ToString(), "0.1");
  EXPECT_EQ(Variant(3.5f).ToString(), "3.5");
  EXPECT_EQ(Variant(1234567.0f).ToString(), "1234567");
  EXPECT_EQ(Variant(12345678.0f).ToString(), "1.234568E+07");
  EXPECT_EQ(CStrSingle(1.5e-7f), "1.5E-07");
}

TEST(CStr, CurrencyShowsUpToFourDecimals) {
  EXPECT_EQ(CStrCurrency(Currency{35000}), "3.5");
  EXPECT_EQ(CStrCurrency(Currency{-20000}), "-2");
  EXPECT_EQ(CStrCurrency(Currency{1}), "0.0001");
  EXPECT_EQ(CStrCurrency(Currency{-5000}), "-0.5");
  EXPECT_EQ(CStrCurrency(Currency{std::numeric_limits<std::int64_t>::min()}),
            "-922337203685477.5808");
}

TEST(Str, PutsABlankBeforeNonNegativeNumbersAndDropsTheLeadingZero) {
  EXPECT_EQ(Str(Variant(3.5)), " 3.5");
  EXPECT_EQ(Str(Variant(0.5)), " .5");
  EXPECT_EQ(Str(Variant(-0.5)), "-.5");
  EXPECT_EQ(Str(Variant(-2.0)), "-2");
  EXPECT_EQ(Str(Variant(0.0)), " 0");
  EXPECT_EQ(Str(Variant(std::int32_t{12})), " 12");
  EXPECT_EQ(Str(Variant(1e20)), " 1E+20");
  EXPECT_EQ(Str(Variant(Currency{5000})), " .5");
  EXPECT_EQ(Str(Variant(0.25f)), " .25");
}

}  // namespace
}  // namespace quillo
