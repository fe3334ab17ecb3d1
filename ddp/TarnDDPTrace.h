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

/// Starts the thread, which prints its failures to standard output. True even if it could not be started.
bool Init_TarnDDPTrace();
/// Does nothing: the thread ends with the process. True.
bool Final_TarnDDPTrace();

/// The pipe as the thread holds it.
struct TracePipe {
  /// What of making or opening it failed.
  struct Failures {
    bool noDirectory, noDirectoryModes, noPipe, noPipeModes;
    int openError;  // errno, 0 if it is open
  };

  int descriptor = -1;
  int watch = -1;               // inotify(7) on the directory; -1 where it is refused
  AbsTime_US lookDeadline = 0;  // when to look whether the path still leads to the open pipe
  bool isLookDue = false;       // soon, after a change: until then the watch has nothing more to tell
  Failures told = {};           // those that were printed last
};

/// Makes the directory and the pipe where they are missing, gives those that an earlier start left half-made their
/// modes, and opens the pipe, instead of the one that is open. Prints the failures if they are others than the last
/// time; false if there is now no pipe that everyone may write to, while a failed open alone is left to
/// TarnDDPTrace_Step().
bool TarnDDPTrace_OpenPipe(TracePipe& pipe);

/// One round of the thread: waits for text or for a change in the directory, sends what came, looks after the pipe at a
/// change and once in 5 s. Takes 5 s at most.
void TarnDDPTrace_Step(TracePipe& pipe);
