#include "base/ConsoleLine.h"

#include <pty.h>

#include "tests/unit/SystemCalls.h"

namespace {

/// What has come. Behind a terminal it comes a little later, as the kernel passes it on in a thread of its own.
std::string Read(int descriptor) {
  std::string text;
  char piece[4096];
  fcntl(descriptor, F_SETFL, O_NONBLOCK);
  for (pollfd stream = {descriptor, POLLIN, 0}; poll(&stream, 1, isatty(descriptor) != 0 ? 200 : 0) == 1;) {
    const ssize_t size = read(descriptor, piece, sizeof piece);
    if (size <= 0) break;
    text.append(piece, static_cast<std::size_t>(size));
  }
  return text;
}

}  // namespace

TEST(ConsoleLine, IsWrittenWholeOrNotAtAllAndNeverWaited) {
  const std::string line(3000, 'x'), longest(5000, 'y');
  int ends[2] = {}, terminal[2] = {};
  ASSERT_EQ(0, pipe(ends));
  ASSERT_EQ(0, openpty(&terminal[0], &terminal[1], nullptr, nullptr, nullptr));
  const int before = CountDescriptors();
  alarm(20);  // a write that waits would wait for ever
  errno = EXDEV;
  ConsoleLine(ends[1], longest);
  EXPECT_EQ(EXDEV, errno);
  EXPECT_EQ(longest.substr(0, 4096), Read(ends[0]));
  fcntl(ends[1], F_SETPIPE_SZ, 4096);
  ConsoleLine(ends[1], "");
  EXPECT_EQ(0U, ConsoleLinesDropped);
  for (int i = 0; i < 2; ++i) ConsoleLine(ends[1], line);
  EXPECT_EQ(1U, ConsoleLinesDropped);
  EXPECT_EQ(line, Read(ends[0]));
  const int unwritable = open("/dev/zero", O_RDONLY);
  ConsoleLine(unwritable, line);
  EXPECT_EQ(2U, ConsoleLinesDropped);
  close(unwritable);
  int looks = 0;
  const ReplacedCalls calls;
  on_poll = [&looks](pollfd* streams, nfds_t count, int timeout) {
    return ++looks, real_poll(streams, count, timeout);
  };
  ConsoleLine(terminal[1], "told\n");
  EXPECT_EQ(1, looks) << "not one for each byte";
  EXPECT_EQ("told\r\n", Read(terminal[0]));
  for (int i = 0; i < 100; ++i) ConsoleLine(terminal[1], line);
  Read(terminal[0]);
  for (int i = 0; i < 100; ++i) {
    failingCalls.left = 1;  // the terminal cannot be opened anew
    ConsoleLine(terminal[1], i == 0 ? "told all the same\n" : std::string(701, 'x') + "\n");
  }
  failingCalls.left = 0;
  EXPECT_EQ("told all the same\r\n", Read(terminal[0]).substr(0, 19));
  EXPECT_EQ(0, fcntl(terminal[1], F_GETFL) & O_NONBLOCK) << "which would hold for everybody who has the terminal";
  const int saved = dup(STDERR_FILENO), null = open("/dev/null", O_WRONLY);
  const std::string why = line + ": Invalid cross-device link\n";
  const std::tuple<int, int, std::string> streams[] = {
      {ends[1], ends[0], why}, {terminal[1], terminal[0], why.substr(0, 3020)}, {null, null, ""}};
  for (const bool isSettled : {false, true}) {  // what was looked at beforehand makes no difference
    for (const auto& [stream, other, told] : streams) {
      Read(terminal[0]);
      dup2(stream, STDERR_FILENO);
      if (isSettled) ConsoleSettle();
      errno = EXDEV;
      for (int i = 0; i < 100; ++i) ConsoleError(line);
      EXPECT_EQ(EXDEV, errno);
      dup2(saved, STDERR_FILENO);
      EXPECT_EQ(told, Read(other).substr(0, stream == terminal[1] ? 3020 : 9999));
    }
  }
  alarm(0);
  ConsoleSettle();
  for (const int descriptor : {null, saved}) close(descriptor);
  EXPECT_EQ(before, CountDescriptors());
  close(ends[0]);
  ConsoleLine(ends[1], "nobody reads\n");  // raises no SIGPIPE
  for (const int descriptor : {ends[1], terminal[0], terminal[1]}) close(descriptor);
}

TEST(ConsoleLine, LooksOnceAtWhatTheStandardStreamsAre) {
  int ends[2] = {}, terminal[2] = {};
  ASSERT_EQ(0, pipe(ends));
  ASSERT_EQ(0, openpty(&terminal[0], &terminal[1], nullptr, nullptr, nullptr));
  const std::pair<int, ConsoleKind> rows[] = {{open("/dev/null", O_WRONLY), ConsoleKind::Nowhere},
                                              {open("/dev/zero", O_WRONLY), ConsoleKind::Other},
                                              {ends[1], ConsoleKind::Other},
                                              {terminal[1], ConsoleKind::Terminal}};
  for (const auto& [descriptor, kind] : rows) {
    EXPECT_EQ(kind == ConsoleKind::Nowhere ? ConsoleKind::Other : kind, ConsoleKindOf(descriptor)) << "asked each time";
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
      const int saved = dup(stream);
      dup2(descriptor, stream);
      ConsoleSettle();
      dup2(saved, stream);
      close(saved);
      EXPECT_EQ(kind, ConsoleKindOf(stream)) << stream << " is asked no more";
    }
    close(descriptor);
  }
  for (const int descriptor : {ends[0], terminal[0]}) close(descriptor);
}
