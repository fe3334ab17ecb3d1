#pragma once

#include <string>

#include "util/_Time.h"

// Console print: the one diagnostic print of the utility library. It never writes to the standard output. Its lines go
// into the terminal pipe, and are dropped as long as nobody has opened that pipe. No locks; one line is one write().

/// The `line` of messages that carry the time and, having no `file`, no place.
inline constexpr int PR_TIME_ONLY = 1;

/// Takes a finished text, without a line end of its own; the result is handed on.
using ul_Pr_Handler = int (*)(const char* text);

/// Formats one line like printf(), "[14:03:07 123.46ms]   file.c:137\t" before it: local wall-clock time, then the
/// place in the source. `line` -1 together with no `file` (null) gives neither; a negative `line` or no `file` alone
/// leaves the place out. A line is cut at 1023 bytes.
/// Returns what the write into the terminal pipe does (which blocks while the pipe is full); with no pipe open the
/// length of the message without its prefix and before any cut.
int ul_PrStdOut(const char* file, int line, const char* format, ...) __attribute__((format(printf, 3, 4)));

/// Prints `text` with the number and the text of errno: "text error code = 2 (No such file or directory)\n". With a
/// `file` and a `line` of 0 or more, the time since the first print and the place stand before it. That time is a
/// million times too long, microseconds shown as seconds: kept for compatibility.
void ul_PrSystemError(const char* file, int line, const char* text);

/// Prints a line that says so, then counts the time of ul_PrSystemError() from now.
void ul_Configure_Pr_SetFirstPrintTimeToActualTime();

/// Stores `handler`, null for none. ul_PrStdOut() does not call it.
void ul_Configure_Pr_AddHandler(ul_Pr_Handler handler);

/// Wall-clock time of the last print that carried a time; cleared before the first one.
AbsTime_US ul_Pr_GetLastPrintTime();

/// Opens the terminal pipe and returns its read end, also when it is open already; -1 with errno if it cannot be
/// opened, where a descriptor of 1024 or more counts as EMFILE. The pipe stays this module's. Its read end is
/// close-on-exec; its write end blocks, and is inherited by commands.
int ul_InitTerminalPipe();
/// Closes the terminal pipe if it is open. Returns 1.
int ul_FinalTerminalPipe();

/// Hands one line about this process (ids, priorities, scheduling policy, clock tick), `suffix` behind it, to
/// `handler`, or to ul_PrStdOut() if that is null, and returns its result.
int ul_PrintApplicationProperties(ul_Pr_Handler handler, const char* suffix);

/// `seconds` as "1d 2h 3min 4s 5ms 6us 7ns", each number truncated: from the first unit that is not zero on, so empty
/// for zero and for what is negative, infinite or no number. The units below a second only where they are asked for.
std::string ul_FormatDuration(double seconds, bool milliseconds, bool microseconds, bool nanoseconds);
