#pragma once

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

/// The most that a pipe takes in one piece once `poll` calls it writable (PIPE_BUF of Linux).
inline constexpr std::size_t ConsoleLineLimit = 4096;

/// Writes `line`, which brings its own line end, to `descriptor` (standard output or error) in one write, and only if
/// it fits without waiting; else it is dropped. A longer line is cut to ConsoleLineLimit bytes. errno is left as it
/// was. So a supervisor that stopped reading blocks nobody; one that went away costs the line (SIGPIPE is the caller's
/// to catch).
inline void ConsoleLine(int descriptor, std::string_view line) {
  const int cause = errno;
  pollfd stream = {descriptor, POLLOUT, 0};
  if (poll(&stream, 1, 0) == 1 && stream.revents == POLLOUT) {  // and no error: the reader is there
    line = line.substr(0, ConsoleLineLimit);
    const ssize_t written = write(descriptor, line.data(), line.size());
    static_cast<void>(written);
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
