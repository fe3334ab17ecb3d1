#include "util/_Time.h"

#include <algorithm>
#include <ctime>
#include <limits>

namespace {

constexpr std::uint64_t MICROSECONDS_PER_SECOND = 1000000;
constexpr std::uint32_t NANOSECONDS_PER_SECOND = 1000000000;
constexpr float MICROSECONDS_PER_SECOND_FLOAT = 1000000.0F;

/// `value` without its fraction, as the bits that are to be added to a time: a negative one subtracts by wrapping.
std::uint64_t Truncated(long double value) {
  constexpr long double limit = 9223372036854775808.0L;  // 2^63
  if (value >= limit) return static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (value < -limit) return static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::min());
  if (value != value) return 0;
  return static_cast<std::uint64_t>(static_cast<std::int64_t>(value));
}

std::int64_t Difference(AbsTime_US a, AbsTime_US b) { return static_cast<std::int64_t>(a - b); }

/// The low 32 bits: seconds wrap around.
std::int32_t Low32(std::int64_t value) { return static_cast<std::int32_t>(value); }

}  // namespace

AbsTime_US ul_GetAbsTime_US(bool realtime) { return ul_GetTime_USFromNS(ul_GetAbsTime_NS(realtime)); }

AbsTime_NS ul_GetAbsTime_NS(bool realtime) {
  std::timespec now = {};  // stands as the reading if the clock cannot be read
  clock_gettime(realtime ? CLOCK_REALTIME : CLOCK_MONOTONIC, &now);
  return {Low32(now.tv_sec), static_cast<std::int32_t>(now.tv_nsec)};
}

AbsTime_NS ul_GetTime_NSFromUS(AbsTime_US time) {
  return {static_cast<std::int32_t>(time / MICROSECONDS_PER_SECOND),
          static_cast<std::int32_t>(time % MICROSECONDS_PER_SECOND * 1000)};
}

AbsTime_US ul_GetTime_USFromNS(AbsTime_NS time) {
  return static_cast<AbsTime_US>(time.seconds) * MICROSECONDS_PER_SECOND +
         static_cast<AbsTime_US>(time.nanoseconds / 1000);
}

int ul_Sleep_US(int, std::uint64_t microseconds) {
  constexpr auto longest = static_cast<std::uint64_t>(std::numeric_limits<std::time_t>::max());
  std::timespec duration = {};
  duration.tv_sec = static_cast<std::time_t>(std::min(microseconds / MICROSECONDS_PER_SECOND, longest));
  duration.tv_nsec = static_cast<long>(microseconds % MICROSECONDS_PER_SECOND * 1000);
  return nanosleep(&duration, nullptr);
}

void ul_MathAbsTime_Clear(AbsTime_US* time) { *time = 0; }

bool ul_MathAbsTime_IsCleared(AbsTime_US time) { return time == 0; }

void ul_MathAbsTime_Add_US(AbsTime_US* time, std::uint64_t microseconds) { *time += microseconds; }

void ul_MathAbsTime_AddFloat_US(AbsTime_US* time, long double microseconds) { *time += Truncated(microseconds); }

void ul_MathAbsTime_AddFloat(AbsTime_US* time, long double seconds) {
  *time += Truncated(seconds * MICROSECONDS_PER_SECOND_FLOAT);
}

std::int32_t ul_MathAbsTime_Sub_US(AbsTime_US a, AbsTime_US b) {
  using Limits = std::numeric_limits<std::int32_t>;
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(Difference(a, b), Limits::min(), Limits::max()));
}

double ul_MathAbsTime_SubFloat_US(AbsTime_US a, AbsTime_US b) { return static_cast<double>(Difference(a, b)); }

double ul_MathAbsTime_SubFloat(AbsTime_US a, AbsTime_US b) {
  return static_cast<double>(static_cast<long double>(Difference(a, b)) / MICROSECONDS_PER_SECOND_FLOAT);
}

bool ul_MathAbsTime_IsHigher(const AbsTime_US* a, const AbsTime_US* b) { return *a > *b; }

bool ul_MathAbsTime_IsLowerEqual(AbsTime_US a, AbsTime_US b) { return a <= b; }

void ul_MathAbsTime_Add_NS(AbsTime_NS* time, std::int32_t seconds, std::int32_t nanoseconds) {
  std::uint32_t sum = static_cast<std::uint32_t>(time->nanoseconds) + static_cast<std::uint32_t>(nanoseconds);
  const int carry = sum >= NANOSECONDS_PER_SECOND ? 1 : 0;
  if (carry != 0) sum -= NANOSECONDS_PER_SECOND;
  time->seconds = Low32(std::int64_t{time->seconds} + carry + seconds);
  time->nanoseconds = static_cast<std::int32_t>(sum);
}

AbsTime_NS ul_MathAbsTime_Sub_NS(AbsTime_NS a, AbsTime_NS b) {
  if (!ul_MathAbsTime_IsHigher_NS(a, b)) return {0, 0};
  std::int64_t seconds = std::int64_t{a.seconds} - b.seconds;
  std::int64_t nanoseconds = std::int64_t{a.nanoseconds} - b.nanoseconds;
  if (nanoseconds < 0) {
    seconds -= 1;
    nanoseconds += NANOSECONDS_PER_SECOND;
  }
  return {Low32(seconds), Low32(nanoseconds)};
}

bool ul_MathAbsTime_IsHigher_NS(AbsTime_NS a, AbsTime_NS b) {
  return a.seconds != b.seconds ? a.seconds > b.seconds : a.nanoseconds > b.nanoseconds;
}

bool ul_MathAbsTime_IsLowerEqual_NS(AbsTime_NS a, AbsTime_NS b) { return !ul_MathAbsTime_IsHigher_NS(a, b); }

void ul_MathAbsTime_NowAddParam_US(std::uint64_t microseconds, AbsTime_US* result) {
  *result = ul_GetAbsTime_US(false) + microseconds;
}

void ul_MathAbsTime_NowAddParamFloat(double seconds, AbsTime_US* result) {
  AbsTime_US sum = ul_GetAbsTime_US(false);
  ul_MathAbsTime_AddFloat(&sum, seconds);
  *result = sum;
}

std::int32_t ul_MathAbsTime_NowSubParam_US(const AbsTime_US* time) {
  return ul_MathAbsTime_Sub_US(ul_GetAbsTime_US(false), *time);
}

double ul_MathAbsTime_NowSubParamFloat_US(const AbsTime_US* time) {
  return ul_MathAbsTime_SubFloat_US(ul_GetAbsTime_US(false), *time);
}

double ul_MathAbsTime_NowSubParamFloat(const AbsTime_US* time) {
  return ul_MathAbsTime_SubFloat(ul_GetAbsTime_US(false), *time);
}

bool ul_MathAbsTime_NowIsHigherParam(const AbsTime_US* time) { return ul_GetAbsTime_US(false) > *time; }

bool ul_MathAbsTime_NowIsLowerEqualParam(const AbsTime_US* time) { return ul_GetAbsTime_US(false) <= *time; }

void ul_MathAbsTime_NowAddParam_NS(std::int32_t seconds, std::int32_t nanoseconds, AbsTime_NS* result) {
  AbsTime_NS sum = ul_GetAbsTime_NS(false);
  ul_MathAbsTime_Add_NS(&sum, seconds, nanoseconds);
  *result = sum;
}

AbsTime_NS ul_MathAbsTime_NowSubParam_NS(AbsTime_NS time) {
  return ul_MathAbsTime_Sub_NS(ul_GetAbsTime_NS(false), time);
}

bool ul_MathAbsTime_NowIsHigherParam_NS(AbsTime_NS time) {
  return ul_MathAbsTime_IsHigher_NS(ul_GetAbsTime_NS(false), time);
}

bool ul_MathAbsTime_NowIsLowerEqualParam_NS(AbsTime_NS time) {
  return ul_MathAbsTime_IsLowerEqual_NS(ul_GetAbsTime_NS(false), time);
}
