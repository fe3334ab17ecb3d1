#include "util/_Time.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <limits>

namespace {

constexpr AbsTime_US START = 5000000000;  // more than 32 bits hold
constexpr std::int32_t LOWEST = std::numeric_limits<std::int32_t>::min();

void ExpectTime(AbsTime_NS expected, AbsTime_NS actual) {
  EXPECT_EQ(expected.seconds, actual.seconds);
  EXPECT_EQ(expected.nanoseconds, actual.nanoseconds);
}

}  // namespace

TEST(Time, ReadingsAndConversionsCutOffWhatIsFinerAndKeepTheSign) {
  for (const bool realtime : {false, true}) {
    std::timespec now = {};
    clock_gettime(realtime ? CLOCK_REALTIME : CLOCK_MONOTONIC, &now);
    EXPECT_NEAR(static_cast<double>(now.tv_sec), static_cast<double>(ul_GetAbsTime_US(realtime)) / 1e6, 2);
    EXPECT_NEAR(static_cast<double>(now.tv_sec), static_cast<double>(ul_GetAbsTime_NS(realtime).seconds), 2);
  }
  ExpectTime({1, 500000000}, ul_GetTime_NSFromUS(1500000));
  ExpectTime({-1, 999999000}, ul_GetTime_NSFromUS(4294967295999999));  // the seconds' low 32 bits
  EXPECT_EQ(1000000u, ul_GetTime_USFromNS({1, 999}));
  EXPECT_EQ(static_cast<AbsTime_US>(-1500000), ul_GetTime_USFromNS({-2, 500000000}));
}

TEST(Time, FloatsAreTruncatedTowardZeroAndNeverOverflow) {
  constexpr auto largest = static_cast<AbsTime_US>(std::numeric_limits<std::int64_t>::max());
  const struct {
    long double seconds;
    AbsTime_US change;
  } cases[] = {{1.9999999L, 1999999}, {-0.0000015L, static_cast<AbsTime_US>(-1)},
               {1e13L, largest},      {-1e13L, largest + 1},
               {-0.0000009L, 0},      {std::numeric_limits<long double>::quiet_NaN(), 0}};
  for (const auto& c : cases) {
    AbsTime_US time = START;
    ul_MathAbsTime_AddFloat(&time, c.seconds);
    EXPECT_EQ(START + c.change, time) << c.seconds;
    ul_MathAbsTime_AddFloat_US(&time, -c.seconds * 1000000);
    EXPECT_NEAR(0, ul_MathAbsTime_SubFloat_US(time, START), 1) << c.seconds;
  }
}

TEST(Time, DifferencesAreSignedAndTheIntegerOneIsHeldIn32Bits) {
  const struct {
    AbsTime_US a, b;
    std::int32_t integer;
    double microseconds;
  } cases[] = {{START + 7, START, 7, 7},
               {START, START + 7, -7, -7},
               {START + 3000000000, START, 2147483647, 3e9},
               {START, START + 3000000000, LOWEST, -3e9},
               {3, static_cast<AbsTime_US>(-2), 5, 5}};
  for (const auto& c : cases) {
    EXPECT_EQ(c.integer, ul_MathAbsTime_Sub_US(c.a, c.b)) << c.a << '-' << c.b;
    EXPECT_EQ(c.microseconds, ul_MathAbsTime_SubFloat_US(c.a, c.b)) << c.a << '-' << c.b;
    EXPECT_DOUBLE_EQ(c.microseconds / 1e6, ul_MathAbsTime_SubFloat(c.a, c.b)) << c.a << '-' << c.b;
  }
}

TEST(Time, NanosecondSumsCarryOnceAndDifferencesStopAtZero) {
  const struct {
    AbsTime_NS time;
    std::int32_t seconds, nanoseconds;
    AbsTime_NS sum;
  } sums[] = {{{5, 999999999}, 0, 1, {6, 0}},
              {{5, 999999998}, -2, 1, {3, 999999999}},
              {{2147483647, 999999999}, 0, 1, {LOWEST, 0}}};
  for (const auto& c : sums) {
    AbsTime_NS time = c.time;
    ul_MathAbsTime_Add_NS(&time, c.seconds, c.nanoseconds);
    ExpectTime(c.sum, time);
  }
  const struct {
    AbsTime_NS a, b, difference;
    bool higher;
  } differences[] = {{{5, 100}, {5, 100}, {0, 0}, false},    {{5, 100}, {6, 0}, {0, 0}, false},
                     {{6, 0}, {5, 1}, {0, 999999999}, true}, {{5, 101}, {5, 100}, {0, 1}, true},
                     {{7, 5}, {5, 5}, {2, 0}, true},         {{2147483647, 0}, {-2, 1}, {LOWEST, 999999999}, true}};
  for (const auto& c : differences) {
    ExpectTime(c.difference, ul_MathAbsTime_Sub_NS(c.a, c.b));
    EXPECT_EQ(c.higher, ul_MathAbsTime_IsHigher_NS(c.a, c.b));
    EXPECT_EQ(!c.higher, ul_MathAbsTime_IsLowerEqual_NS(c.a, c.b));
  }
}

TEST(Time, DeadlinesAreFormedAndTestedOnTheMonotonicClock) {
  AbsTime_US deadline = 0;
  EXPECT_TRUE(ul_MathAbsTime_NowIsHigherParam(&deadline));  // cleared
  ul_MathAbsTime_NowAddParamFloat(-60.0, &deadline);
  EXPECT_NEAR(60, ul_MathAbsTime_NowSubParamFloat(&deadline), 1);
  ul_MathAbsTime_NowAddParam_US(60000000, &deadline);
  EXPECT_FALSE(ul_MathAbsTime_NowIsHigherParam(&deadline));
  EXPECT_TRUE(ul_MathAbsTime_NowIsLowerEqualParam(&deadline));
  EXPECT_NEAR(-60e6, ul_MathAbsTime_NowSubParam_US(&deadline), 1e6);
  AbsTime_NS later = {};
  ul_MathAbsTime_NowAddParam_NS(60, 0, &later);
  EXPECT_FALSE(ul_MathAbsTime_NowIsHigherParam_NS(later));
  ExpectTime({0, 0}, ul_MathAbsTime_NowSubParam_NS(later));
  EXPECT_EQ(0, ul_Sleep_US(-1, 20000));
  EXPECT_GE(ul_MathAbsTime_NowSubParam_US(&deadline), -59980000);
}
