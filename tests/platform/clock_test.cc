// Tests for the replaceable clock: freezing, stepping and restoring it, and
// Today() without a time part.
#include "platform/clock.h"

#include <gtest/gtest.h>

#include <cmath>

#include "platform/date.h"

namespace quillo {
namespace {

// Puts the system clock back after each test.
class ClockTest : public ::testing::Test {
 protected:
  void TearDown() override { SetClock(nullptr); }
};

TEST_F(ClockTest, SetClockFreezesNow) {
  const Date frozen = DateFromParts(2005, 3, 1, 14, 5, 9);
  SetClock([frozen] { return frozen; });
  EXPECT_EQ(Now(), frozen);
  EXPECT_EQ(Now(), frozen);
}

TEST_F(ClockTest, TodayIsTheInstalledDateWithoutTime) {
  SetClock([] { return DateFromParts(2005, 3, 1, 14, 5, 9); });
  EXPECT_EQ(Today(), DateSerial(2005, 3, 1));
}

TEST_F(ClockTest, TodayBeforeTheZeroDateDropsTheTime) {
  SetClock([] { return Date(-1.25); });
  EXPECT_EQ(Today().value, -1.0);
}

TEST_F(ClockTest, ClockCanBeStepped) {
  int calls = 0;
  SetClock([&calls] { return DateAdd("s", calls++, DateSerial(2005, 3, 1)); });
  EXPECT_EQ(Now(), DateSerial(2005, 3, 1));
  EXPECT_EQ(Now(), DateFromParts(2005, 3, 1, 0, 0, 1));
  EXPECT_EQ(calls, 2);
}

TEST_F(ClockTest, SetClockReturnsThePreviousClock) {
  EXPECT_FALSE(SetClock([] { return DateSerial(2005, 3, 1); }));  // the system clock
  ClockFunction previous = SetClock([] { return DateSerial(2006, 1, 1); });
  ASSERT_TRUE(previous);
  EXPECT_EQ(previous(), DateSerial(2005, 3, 1));
  SetClock(previous);
  EXPECT_EQ(Now(), DateSerial(2005, 3, 1));
}

TEST_F(ClockTest, EmptyClockRestoresTheSystemClock) {
  SetClock([] { return DateSerial(2005, 3, 1); });
  SetClock(nullptr);
  EXPECT_GT(Year(Now()), 2020);
  // Now() and SystemNow() read the same clock; allow a minute for a slow machine.
  EXPECT_LT(std::fabs(ToLinearDays(Now()) - ToLinearDays(SystemNow())), 1.0 / 1440.0);
}

TEST_F(ClockTest, SystemNowIgnoresTheInstalledClock) {
  SetClock([] { return DateSerial(2005, 3, 1); });
  EXPECT_GT(Year(SystemNow()), 2020);
}

TEST_F(ClockTest, SystemNowIsAValidDateInWholeSeconds) {
  Date now = SystemNow();
  EXPECT_TRUE(IsValidDateValue(now.value));
  EXPECT_EQ(now,
            DateFromParts(Year(now), Month(now), Day(now), Hour(now), Minute(now), Second(now)));
}

TEST_F(ClockTest, TodayHasNoTimePartOnTheSystemClock) {
  Date today = Today();
  EXPECT_EQ(TimeOnly(today).value, 0.0);
  EXPECT_EQ(today.value, std::floor(today.value));
  EXPECT_LE(DateDiff("d", today, SystemNow()), 1);
  EXPECT_GE(DateDiff("d", today, SystemNow()), 0);
}

}  // namespace
}  // namespace quillo
