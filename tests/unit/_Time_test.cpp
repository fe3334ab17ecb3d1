#include "util/_Time.h"

#include <limits>

#include "tests/unit/SystemCalls.h"

namespace {

std::mt19937_64 generator(20261125);

/// Any number, often one at an edge or beside one drawn before.
std::uint64_t Draw() {
  static std::uint64_t last = 0;
  const std::uint64_t edges[] = {0, 1, 999999, 1000000, 0x7fffffff, 0x80000000, 0xffffffff, UINT64_MAX};
  const std::uint64_t random = generator() >> generator() % 64;
  return last = random % 3 == 0 ? edges[generator() % 8] : random % 3 == 1 ? last + random % 5 - 2 : random;
}

AbsTime_NS DrawNS() {
  const std::uint64_t edges[] = {0, 1, 999999999, Draw() % 1000000000};
  return {static_cast<std::int32_t>(Draw()), static_cast<std::int32_t>(edges[generator() % 4])};
}

// The model: whole nanoseconds, and seconds of which 32 bits are left.
std::int64_t Total(AbsTime_NS time) { return time.seconds * std::int64_t{1000000000} + time.nanoseconds; }
AbsTime_NS Split(std::int64_t total) {
  const std::int64_t rest = (total % 1000000000 + 1000000000) % 1000000000;
  return {static_cast<std::int32_t>((total - rest) / 1000000000), static_cast<std::int32_t>(rest)};
}
AbsTime_US Microseconds(AbsTime_NS time) {
  return static_cast<AbsTime_US>(time.seconds * std::int64_t{1000000} + time.nanoseconds / 1000);
}

}  // namespace

bool operator==(AbsTime_NS a, AbsTime_NS b) { return a.seconds == b.seconds && a.nanoseconds == b.nanoseconds; }

TEST(Time, ArithmeticIsThatOfWholeUnitsAndNowIsTheMonotonicClock) {
  const ReplacedCalls calls;
  AbsTime_NS monotonic = {}, realtime = {};
  timespec slept = {};
  on_clock_gettime = [&](clockid_t clock, timespec* time) {
    const AbsTime_NS now = clock == CLOCK_MONOTONIC ? monotonic : realtime;
    *time = {static_cast<std::time_t>(now.seconds + (std::int64_t{1} << 32)), now.nanoseconds};
    return 0;
  };
  on_nanosleep = [&slept](const timespec* wanted, timespec*) { return slept = *wanted, -7; };
  for (int round = 0; round < 20000 && !testing::Test::HasFailure(); ++round) {
    const AbsTime_NS a = monotonic = DrawNS(), b = realtime = round % 9 == 0 ? a : DrawNS();
    const AbsTime_US x = Microseconds(a), y = round % 2 == 0 ? Draw() : x + Draw() % 5 - 2;
    const auto difference = static_cast<std::int64_t>(x - y);
    const auto held = static_cast<std::int32_t>(std::clamp<std::int64_t>(difference, INT32_MIN, INT32_MAX));
    const auto microseconds = static_cast<double>(difference),
               seconds = static_cast<double>(static_cast<long double>(difference) / 1e6L);
    AbsTime_US sum = x, later = 0, cleared = y;
    AbsTime_NS sumNS = a, laterNS = {};
    ul_MathAbsTime_Add_US(&sum, y);
    ul_MathAbsTime_NowAddParam_US(y, &later);
    ul_MathAbsTime_Clear(&cleared);
    EXPECT_EQ(std::tuple(x + y, x + y, 0U, y == 0, true, x > y, x <= y, x > y, x <= y),
              std::tuple(sum, later, cleared, ul_MathAbsTime_IsCleared(y), ul_MathAbsTime_IsCleared(cleared),
                         ul_MathAbsTime_IsHigher(&x, &y), ul_MathAbsTime_IsLowerEqual(x, y),
                         ul_MathAbsTime_NowIsHigherParam(&y), ul_MathAbsTime_NowIsLowerEqualParam(&y)));
    EXPECT_EQ(std::tuple(held, held, microseconds, microseconds, seconds, seconds),
              std::tuple(ul_MathAbsTime_Sub_US(x, y), ul_MathAbsTime_NowSubParam_US(&y),
                         ul_MathAbsTime_SubFloat_US(x, y), ul_MathAbsTime_NowSubParamFloat_US(&y),
                         ul_MathAbsTime_SubFloat(x, y), ul_MathAbsTime_NowSubParamFloat(&y)));
    ul_MathAbsTime_Add_NS(&sumNS, b.seconds, b.nanoseconds);
    ul_MathAbsTime_NowAddParam_NS(b.seconds, b.nanoseconds, &laterNS);
    const AbsTime_NS both = Split(Total(a) + Total(b)), between = Split(std::max<std::int64_t>(0, Total(a) - Total(b))),
                     whole = {static_cast<std::int32_t>(y / 1000000), static_cast<std::int32_t>(y % 1000000 * 1000)};
    const bool isHigher = Total(a) > Total(b);
    EXPECT_TRUE(std::tuple(both, both, between, between, isHigher, !isHigher, isHigher, !isHigher) ==
                std::tuple(sumNS, laterNS, ul_MathAbsTime_Sub_NS(a, b), ul_MathAbsTime_NowSubParam_NS(b),
                           ul_MathAbsTime_IsHigher_NS(a, b), ul_MathAbsTime_IsLowerEqual_NS(a, b),
                           ul_MathAbsTime_NowIsHigherParam_NS(b), ul_MathAbsTime_NowIsLowerEqualParam_NS(b)));
    EXPECT_TRUE(std::tuple(a, b, x, Microseconds(b), x, whole) ==
                std::tuple(ul_GetAbsTime_NS(false), ul_GetAbsTime_NS(true), ul_GetAbsTime_US(false),
                           ul_GetAbsTime_US(true), ul_GetTime_USFromNS(a), ul_GetTime_NSFromUS(y)));
    EXPECT_EQ(-7, ul_Sleep_US(7, y));
    const auto longest = static_cast<std::uint64_t>(std::numeric_limits<std::time_t>::max());
    EXPECT_EQ(std::min(y / 1000000, longest), static_cast<std::uint64_t>(slept.tv_sec));
    EXPECT_EQ(whole.nanoseconds, slept.tv_nsec);
  }
  on_clock_gettime = [](clockid_t, timespec*) { return -1; };
  EXPECT_EQ(0U, ul_GetAbsTime_US(false));
}

TEST(Time, FloatsAreTruncatedTowardZeroAndNeverOverflow) {
  const ReplacedCalls calls;
  on_clock_gettime = [](clockid_t clock, timespec* time) {
    return *time = {clock == CLOCK_MONOTONIC ? 5000 : 7, 0}, 0;
  };
  constexpr AbsTime_US start = 5000000000;  // more than 32 bits hold
  const std::pair<double, AbsTime_US> cases[] = {{1.9999999, 1999999}, {-0.0000015, UINT64_MAX},    {-0.0000009, 0},
                                                 {1e13, INT64_MAX},    {6e12, 6000000000000000000}, {-1e13, 1ULL << 63},
                                                 {std::nan(""), 0},    {3000.5, 3000500000}};
  for (const auto& [seconds, change] : cases) {
    AbsTime_US time = start, microseconds = start, now = 0;
    ul_MathAbsTime_AddFloat(&time, seconds);
    ul_MathAbsTime_AddFloat_US(&microseconds, static_cast<long double>(seconds) * 1000000);
    ul_MathAbsTime_NowAddParamFloat(seconds, &now);
    EXPECT_EQ(std::vector<AbsTime_US>(3, start + change), std::vector({time, microseconds, now})) << seconds;
  }
}
