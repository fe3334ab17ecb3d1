#pragma once

#include <cstdint>

// Absolute times of the operating system's clocks, arithmetic on them, deadlines and a sleep. No state; every function
// may be called from any thread and none fails. Deadlines are formed and tested on the monotonic clock (all names with
// "Now"); the wall clock is for printing.

/// Microseconds since the epoch of the clock that was read: boot for the monotonic one, 1970-01-01 00:00:00 UTC for the
/// wall clock. 0 means cleared, no time set.
using AbsTime_US = std::uint64_t;

/// The same as seconds and nanoseconds (0 to 999,999,999 when normalised).
struct AbsTime_NS {
  std::int32_t seconds;
  std::int32_t nanoseconds;
};

/// The time of CLOCK_REALTIME if `realtime`, else of CLOCK_MONOTONIC. What is finer than the unit is cut off, never
/// rounded. The seconds are the low 32 bits of the clock's, with their sign: from 2038 on those of the wall clock are
/// negative, in both forms.
AbsTime_US ul_GetAbsTime_US(bool realtime);
AbsTime_NS ul_GetAbsTime_NS(bool realtime);

AbsTime_NS ul_GetTime_NSFromUS(AbsTime_US time);
AbsTime_US ul_GetTime_USFromNS(AbsTime_NS time);

/// One nanosleep() of `microseconds` and its result: -1 with errno (EINTR) when a signal ended it early. The first
/// argument is ignored.
int ul_Sleep_US(int, std::uint64_t microseconds);

void ul_MathAbsTime_Clear(AbsTime_US* time);
bool ul_MathAbsTime_IsCleared(AbsTime_US time);

/// Adds in place, wrapping around at 64 bits. The floating forms take microseconds and seconds and add whole
/// microseconds, truncated toward zero; what no 64-bit integer holds counts as the nearest one that does, NaN as 0.
void ul_MathAbsTime_Add_US(AbsTime_US* time, std::uint64_t microseconds);
void ul_MathAbsTime_AddFloat_US(AbsTime_US* time, long double microseconds);
void ul_MathAbsTime_AddFloat(AbsTime_US* time, long double seconds);

/// a - b in microseconds, held within 32 bits: what is longer than about 2147 s gives the largest or the smallest
/// value.
std::int32_t ul_MathAbsTime_Sub_US(AbsTime_US a, AbsTime_US b);
/// a - b, negative when a is earlier; in microseconds and in seconds.
double ul_MathAbsTime_SubFloat_US(AbsTime_US a, AbsTime_US b);
double ul_MathAbsTime_SubFloat(AbsTime_US a, AbsTime_US b);

bool ul_MathAbsTime_IsHigher(const AbsTime_US* a, const AbsTime_US* b);
bool ul_MathAbsTime_IsLowerEqual(AbsTime_US a, AbsTime_US b);

/// Adds `nanoseconds` (below one second) with at most one carry, and `seconds`.
void ul_MathAbsTime_Add_NS(AbsTime_NS* time, std::int32_t seconds, std::int32_t nanoseconds);
/// a - b, or zero where b is not earlier than a.
AbsTime_NS ul_MathAbsTime_Sub_NS(AbsTime_NS a, AbsTime_NS b);
bool ul_MathAbsTime_IsHigher_NS(AbsTime_NS a, AbsTime_NS b);
bool ul_MathAbsTime_IsLowerEqual_NS(AbsTime_NS a, AbsTime_NS b);

// The same with the monotonic clock as the first operand. A deadline has passed once ..._NowIsHigherParam says true,
// which a cleared one does at once.
void ul_MathAbsTime_NowAddParam_US(std::uint64_t microseconds, AbsTime_US* result);
void ul_MathAbsTime_NowAddParamFloat(double seconds, AbsTime_US* result);
std::int32_t ul_MathAbsTime_NowSubParam_US(const AbsTime_US* time);
double ul_MathAbsTime_NowSubParamFloat_US(const AbsTime_US* time);
double ul_MathAbsTime_NowSubParamFloat(const AbsTime_US* time);
bool ul_MathAbsTime_NowIsHigherParam(const AbsTime_US* time);
bool ul_MathAbsTime_NowIsLowerEqualParam(const AbsTime_US* time);
void ul_MathAbsTime_NowAddParam_NS(std::int32_t seconds, std::int32_t nanoseconds, AbsTime_NS* result);
AbsTime_NS ul_MathAbsTime_NowSubParam_NS(AbsTime_NS time);
bool ul_MathAbsTime_NowIsHigherParam_NS(AbsTime_NS time);
bool ul_MathAbsTime_NowIsLowerEqualParam_NS(AbsTime_NS time);
