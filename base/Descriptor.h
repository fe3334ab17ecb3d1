#pragma once

#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>

/// Closes `descriptor` and leaves errno as it was, so that the caller still sees why.
inline void CloseKeepingErrno(int descriptor) {
  const int cause = errno;
  close(descriptor);
  errno = cause;
}

/// GateDescriptor() for one that was opened close-on-exec (O_CLOEXEC, SOCK_CLOEXEC), which needs no system call.
inline int GateCloexec(int descriptor) {
  if (descriptor < 0) return -1;
  if (descriptor <= STDERR_FILENO) {
    const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    CloseKeepingErrno(descriptor);
    if (moved < 0) return -1;
    descriptor = moved;
  }
  if (descriptor >= FD_SETSIZE) {
    close(descriptor);
    errno = EMFILE;
    return -1;
  }
  return descriptor;
}

/// The gate that every new descriptor passes: takes `descriptor` as the system call gave it and returns it as one that
/// is 3 or higher and close-on-exec, so that nobody who closes or reopens a standard stream meets a socket of ours and
/// no command that we run inherits one. -1 is returned as it came, errno included. Where it cannot be done the
/// descriptor is closed and the result is -1 with errno; one that `select` could not hold (FD_SETSIZE or above) counts
/// as EMFILE.
inline int GateDescriptor(int descriptor) {
  if (descriptor > STDERR_FILENO && fcntl(descriptor, F_SETFD, FD_CLOEXEC) < 0) {
    CloseKeepingErrno(descriptor);
    return -1;
  }
  return GateCloexec(descriptor);
}

/// A new pipe, both ends through the gate, the read end first. False with errno, and nothing open, if it cannot be had.
inline bool OpenPipe(int (&ends)[2]) {
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  for (int& end : ends) end = GateCloexec(end);
  if (ends[0] >= 0 && ends[1] >= 0) return true;
  for (const int end : ends) {
    if (end >= 0) CloseKeepingErrno(end);
  }
  return false;
}
