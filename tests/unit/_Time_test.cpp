#include "util/_Time.h"

#include <cmath>
#include <ctime>

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

using Pair = std::pair<std::int32_t, std::int32_t>;

AbsTime_NS DrawNS() {
  const std::uint64_t edges[] = {0, 1, 999999999, Draw() % 1000000000};
  return {static_cast<std::int32_t>(Draw()), static_cast<std::int32_t>(edges[generator() % 4])};
}

Pair Text(AbsTime_NS time) { return {time.seconds, time.nanoseconds}; }

// The model: whole nanoseconds, and seconds of which 32 bits are left.
std::int64_t Total(AbsTime_NS time) { return time.seconds * std::int64_t{1000000000} + time.nanoseconds; }
Pair Split(std::int64_t total) {
  const std::int64_t rest = (total % 1000000000 + 1000000000) % 1000000000;
  return {static_cast<std::int32_t>((total - rest) / 1000000000), static_cast<std::int32_t>(rest)};
}
AbsTime_US Microseconds(AbsTime_NS time) {
  return static_cast<AbsTime_US>(time.seconds * std::int64_t{1000000} + time.nanoseconds / 1000);
}

std::int32_t Held(std::int64_t value) {
  return static_cast<std::int32_t>(value > INT32_MAX ? INT32_MAX : value < INT32_MIN ? INT32_MIN : value);
}

}  // namespace

TEST(Time, ArithmeticIsThatOfWholeUnitsAndNowIsTheMonotonicClock) {
  const ReplacedCalls calls;
  AbsTime_NS monotonic = {}, realtime = {};
  on_clock_gettime = [&](clockid_t clock, timespec* time) {
    const AbsTime_NS now = clock == CLOCK_MONOTONIC ? monotonic : realtime;
    *time = {static_cast<std::time_t>(now.seconds + (std::int64_t{1} << 32)), now.nanoseconds};
    return 0;
  };
  for (int round = 0; round < 20000 && !testing::Test::HasFailure(); ++round) {
    const AbsTime_NS a = monotonic = DrawNS(), b = realtime = round % 9 == 0 ? a : DrawNS();
    const AbsTime_US x = Microseconds(a), y = round % 2 == 0 ? Draw() : x + Draw() % 5 - 2;
    const auto difference = static_cast<std::int64_t>(x - y);
    const auto seconds = static_cast<double>(static_cast<long double>(difference) / 1e6L);
    AbsTime_US sum = x, later = 0, cleared = y;
    AbsTime_NS sumNS = a, laterNS = {};
    ul_MathAbsTime_Add_US(&sum, y);
    ul_MathAbsTime_NowAddParam_US(y, &later);
    ul_MathAbsTime_Clear(&cleared);
    EXPECT_EQ(std::tuple(x + y, x + y, 0U, y == 0, true, x > y, x <= y, x > y, x <= y),
              std::tuple(sum, later, cleared, ul_MathAbsTime_IsCleared(y), ul_MathAbsTime_IsCleared(cleared),
                         ul_MathAbsTime_IsHigher(&x, &y), ul_MathAbsTime_IsLowerEqual(x, y),
                         ul_MathAbsTime_NowIsHigherParam(&y), ul_MathAbsTime_NowIsLowerEqualParam(&y)));
    EXPECT_EQ(std::tuple(Held(difference), Held(difference), static_cast<double>(difference),
                         static_cast<double>(difference), seconds, seconds),
              std::tuple(ul_MathAbsTime_Sub_US(x, y), ul_MathAbsTime_NowSubParam_US(&y),
                         ul_MathAbsTime_SubFloat_US(x, y), ul_MathAbsTime_NowSubParamFloat_US(&y),
                         ul_MathAbsTime_SubFloat(x, y), ul_MathAbsTime_NowSubParamFloat(&y)));
    ul_MathAbsTime_Add_NS(&sumNS, b.seconds, b.nanoseconds);
    ul_MathAbsTime_NowAddParam_NS(b.seconds, b.nanoseconds, &laterNS);
    const Pair both = Split(Total(a) + Total(b)), between = Split(std::max<std::int64_t>(0, Total(a) - Total(b)));
    const bool isHigher = Total(a) > Total(b);
    EXPECT_EQ(std::tuple(both, both, between, between, isHigher, !isHigher, isHigher, !isHigher),
              std::tuple(Text(sumNS), Text(laterNS), Text(ul_MathAbsTime_Sub_NS(a, b)),
                         Text(ul_MathAbsTime_NowSubParam_NS(b)), ul_MathAbsTime_IsHigher_NS(a, b),
                         ul_MathAbsTime_IsLowerEqual_NS(a, b), ul_MathAbsTime_NowIsHigherParam_NS(b),
                         ul_MathAbsTime_NowIsLowerEqualParam_NS(b)));
    EXPECT_EQ(std::tuple(Text(a), Text(b), x, Microseconds(b), x,
                         Pair(static_cast<std::int32_t>(y / 1000000), static_cast<std::int32_t>(y % 1000000 * 1000))),
              std::tuple(Text(ul_GetAbsTime_NS(false)), Text(ul_GetAbsTime_NS(true)), ul_GetAbsTime_US(false),
                         ul_GetAbsTime_US(true), ul_GetTime_USFromNS(a), Text(ul_GetTime_NSFromUS(y))));
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
    EXPECT_EQ(std::tuple(start + change, start + change, start + change), std::tuple(time, microseconds, now))
        << seconds;
  }
}

TEST(Time, SleepIsOneCallWhoseResultIsReturned) {
  const ReplacedCalls calls;
  const std::tuple<std::uint64_t, int, std::int64_t, long> cases[] = {
      {0, 0, 0, 0},
      {1500001, -1, 1, 500001000},
      {UINT64_MAX, 0, sizeof(std::time_t) > 4 ? 18446744073709 : INT32_MAX, 551615000}};
  for (const auto& [microseconds, result, seconds, nanoseconds] : cases) {
    timespec slept = {};
    on_nanosleep = [&slept, &result = result](const timespec* wanted, timespec*) { return slept = *wanted, result; };
    EXPECT_EQ(result, ul_Sleep_US(7, microseconds));
    EXPECT_EQ(std::tuple(seconds, nanoseconds), std::tuple(std::int64_t{slept.tv_sec}, slept.tv_nsec));
  }
}
