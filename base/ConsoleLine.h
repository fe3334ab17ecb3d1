#pragma once

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "base/Descriptor.h"

/// The most that a pipe takes in one piece once `poll` calls it writable (PIPE_BUF of Linux).
inline constexpr std::size_t ConsoleLineLimit = 4096;

/// Writes what fits of `line` to the terminal `descriptor` without waiting, which `poll` cannot promise for one. Goes
/// through a file description of its own: O_NONBLOCK on the terminal's would be everybody's who has it open.
inline void WriteToTerminal(int descriptor, std::string_view line) {
  char path[32];
  std::snprintf(path, sizeof path, "/proc/self/fd/%d", descriptor);
  const int own = GateDescriptor(open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  const ssize_t written = write(own < 0 ? descriptor : own, line.data(), line.size());
  static_cast<void>(written);
  if (own >= 0) close(own);
}

/// Writes `line`, which brings its own line end, to `descriptor` (standard output or error) in one write, and only if
/// it fits without waiting; else it is dropped, or cut on a terminal. A longer line is cut to ConsoleLineLimit bytes.
/// errno is left as it was. So a supervisor that stopped reading blocks nobody, and one that went away costs the line.
/// Only one that goes away just then raises SIGPIPE, which is the caller's to catch.
inline void ConsoleLine(int descriptor, std::string_view line) {
  const int cause = errno;
  pollfd stream = {descriptor, POLLOUT, 0};
  if (poll(&stream, 1, 0) == 1 && stream.revents == POLLOUT) {  // and no error: the reader is there
    line = line.substr(0, ConsoleLineLimit);
    if (isatty(descriptor) != 0) {
      WriteToTerminal(descriptor, line);
    } else {
      const ssize_t written = write(descriptor, line.data(), line.size());
      static_cast<void>(written);
    }
  }
  errno = cause;
}

/// What perror(`text`) writes, by the rules of ConsoleLine(): `text`, ": ", the text of errno and a line end on
/// standard error. errno is left as it was.
inline void ConsoleError(std::string_view text) {
  const int cause = errno;
  std::string line(text);
  line.append(": ").append(std::strerror(cause)).append("\n");
  errno = cause;
  ConsoleLine(STDERR_FILENO, line);
}
