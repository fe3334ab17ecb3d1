#pragma once

#include <pthread.h>

#include <atomic>

#include "util/_Time.h"

// The trace channel: what the device's programs write into a named pipe goes, while tracing is on, to the tool that
// spoke last. A thread of its own reads the pipe and makes it where it is missing.

/// Whether trace text is sent. Text that is read while it is not is discarded.
extern std::atomic<bool> Enabled;
extern pthread_t FIFO_THREAD;

void EnableTrace(bool on);

/// Starts the thread, which tells its failures on standard output. True even if it could not be started.
bool Init_TarnDDPTrace();
/// Does nothing: the thread ends with the process. True.
bool Final_TarnDDPTrace();

/// The pipe as the thread holds it.
struct TracePipe {
  int descriptor = -1;
  AbsTime_US lookDeadline = 0;  // when to look whether the path still leads to the open pipe
};

/// Makes the directory and the pipe where they are missing and opens the pipe, instead of the one that is open. Tells
/// every failure; false if there is now no pipe that everyone may write to, while a failed open alone is left to
/// TarnDDPTrace_Step().
bool TarnDDPTrace_OpenPipe(TracePipe& pipe);

/// One round of the thread: waits for text until the next look is due, sends what came, looks after the pipe once in
/// 5 s. Takes 5 s at most.
void TarnDDPTrace_Step(TracePipe& pipe);
