#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

#include "base/Descriptor.h"
#include "base/ErrorText.h"

/// The most that a pipe takes in one piece once poll() calls it writable (PIPE_BUF of Linux).
inline constexpr std::size_t ConsoleLineLimit = 4096;

/// How many lines ConsoleLine() has dropped in this process, but for what a terminal took in part or not.
inline std::atomic<unsigned> ConsoleLinesDropped{0};

/// What standard output and error are, for ConsoleLine() to know; while unknown it asks at each line. Nowhere is
/// /dev/null, to which nothing needs to be written.
enum class ConsoleKind { Unknown, Nowhere, Terminal, Other };
inline ConsoleKind ConsoleKinds[STDERR_FILENO + 1] = {};

/// Looks once at what standard output and error are. For a program that never replaces them afterwards, or calls this
/// again when it did, and while it has one thread.
inline void ConsoleSettle() {
  for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
    struct stat opened = {};
    const bool isNull = fstat(stream, &opened) == 0 && S_ISCHR(opened.st_mode) && opened.st_rdev == makedev(1, 3);
    ConsoleKinds[stream] = isNull                ? ConsoleKind::Nowhere
                           : isatty(stream) != 0 ? ConsoleKind::Terminal
                                                 : ConsoleKind::Other;
  }
}

inline ConsoleKind ConsoleKindOf(int descriptor) {
  const auto stream = static_cast<unsigned>(descriptor);  // a negative one is far above
  if (stream > STDERR_FILENO || ConsoleKinds[stream] == ConsoleKind::Unknown) {
    return isatty(descriptor) != 0 ? ConsoleKind::Terminal : ConsoleKind::Other;
  }
  return ConsoleKinds[stream];
}

/// Whether `descriptor` takes at least a byte without waiting; no error beside it: the reader is there.
inline bool IsWritable(int descriptor) {
  pollfd stream = {descriptor, POLLOUT, 0};
  return poll(&stream, 1, 0) == 1 && stream.revents == POLLOUT;
}

/// The slow way to write what fits without waiting, where a terminal cannot be opened anew: it is another user's, there
/// is no /proc, or no descriptor is left.
inline void WriteByteByByte(int descriptor, std::string_view line) {
  for (const char byte : line) {
    if (!IsWritable(descriptor) || write(descriptor, &byte, 1) != 1) return;
  }
}

/// Writes what fits of `line` to the terminal `descriptor` without waiting: a terminal that poll() calls writable may
/// still have too little room. Opens it anew for that, as O_NONBLOCK on `descriptor` itself would also hold for every
/// other process that has the terminal from the same place.
inline void WriteToTerminal(int descriptor, std::string_view line) {
  char path[32];
  std::snprintf(path, sizeof path, "/proc/self/fd/%d", descriptor);
  const int own = GateCloexec(open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (own < 0) {
    WriteByteByByte(descriptor, line);
    return;
  }
  const ssize_t written = write(own, line.data(), line.size());
  static_cast<void>(written);
  close(own);
}

/// Writes `line`, which brings its own line end, to `descriptor` (standard output or error) in one write, and only if
/// it fits without waiting; else it is dropped, or cut on a terminal. So a reader that stopped blocks nobody. A longer
/// line is cut to ConsoleLineLimit bytes. errno is left as it was. A pipe whose reader is gone costs the line; only
/// if it goes between the look and the write, SIGPIPE is raised, which the program ignores or not.
inline void ConsoleLine(int descriptor, std::string_view line) {
  const int cause = errno;
  const ConsoleKind kind = ConsoleKindOf(descriptor);
  if (kind == ConsoleKind::Nowhere) return;
  if (IsWritable(descriptor)) {
    line = line.substr(0, ConsoleLineLimit);
    if (kind == ConsoleKind::Terminal) {
      WriteToTerminal(descriptor, line);
    } else {
      if (write(descriptor, line.data(), line.size()) < 0) ++ConsoleLinesDropped;
    }
  } else {
    ++ConsoleLinesDropped;
  }
  errno = cause;
}

/// What perror(`text`) writes, by the rules of ConsoleLine(): `text`, ": ", the text of errno and a line end on
/// standard error. errno is left as it was.
inline void ConsoleError(std::string_view text) {
  const int cause = errno;
  std::string line(text);
  line.append(": ").append(ErrorText(cause)).append("\n");
  errno = cause;
  ConsoleLine(STDERR_FILENO, line);
}
