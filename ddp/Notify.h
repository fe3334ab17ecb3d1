#pragma once

#include <sys/types.h>

// Tells a supervisor how we are by the datagrams of sd_notify(3), without its library: that we serve, the state in one
// line, and that the loop still turns. Where NOTIFY_SOCKET names no socket, every call does nothing. None waits, fails,
// needs memory or wakes the process by itself: what the supervisor does not take now is said at the next turn. Main
// thread only.

/// Takes NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID out of the environment, which the commands that we run inherit.
/// The watchdog is fed only if WATCHDOG_PID is absent or this process.
void Notify_Prepare();

/// In a parent that ends: `daemon` serves in its place. That child calls it too, with 0, and says who it is with READY.
void Notify_Detached(pid_t daemon);

/// Once a turn of the loop. Says READY at the first; the state whenever the service or an endpoint comes or goes, and
/// for dropped lines once in 5 s; the keep-alive at half of the watchdog's time.
void Notify_Turn();

/// Around what may hold the loop by rule, a command or a lease: meanwhile the watchdog waits an hour at least.
class NotifyLongStep {
 public:
  NotifyLongStep();
  ~NotifyLongStep();
  NotifyLongStep(const NotifyLongStep&) = delete;
  NotifyLongStep& operator=(const NotifyLongStep&) = delete;
};
