#include "base/Descriptor.h"

#include <gtest/gtest.h>
#include <pty.h>
#include <sys/resource.h>

#include "base/ConsoleLine.h"

namespace {

TEST(GateDescriptor, MovesAStandardDescriptorUpAndClosesItsOldNumber) {
  const int saved = dup(STDIN_FILENO);
  close(STDIN_FILENO);
  const int opened = open("/dev/null", O_RDONLY);
  const int gated = GateDescriptor(opened);
  const bool oldIsOpen = fcntl(opened, F_GETFD) != -1;
  dup2(saved, STDIN_FILENO);
  EXPECT_EQ(opened, STDIN_FILENO);
  EXPECT_GT(gated, STDERR_FILENO);
  EXPECT_EQ(fcntl(gated, F_GETFD), FD_CLOEXEC);
  EXPECT_FALSE(oldIsOpen);
  close(gated);
  EXPECT_EQ(GateDescriptor(saved), saved) << "others stay where they are";
  EXPECT_EQ(fcntl(saved, F_GETFD), FD_CLOEXEC);
  close(saved);
}

TEST(GateDescriptor, RefusesWhatSelectCannotHoldAndPassesAFailureOn) {
  errno = ENFILE;
  EXPECT_EQ(GateDescriptor(-1), -1);
  EXPECT_EQ(errno, ENFILE);
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_max <= FD_SETSIZE) GTEST_SKIP() << "this machine opens no descriptor so high";
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  const int high = fcntl(STDERR_FILENO, F_DUPFD, FD_SETSIZE);
  EXPECT_EQ(GateDescriptor(high), -1);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_EQ(fcntl(high, F_GETFD), -1) << "closed";
}

TEST(ConsoleLine, NeverWaitsForAReaderThatStopped) {
  int pipeEnds[2] = {};
  int terminalEnds[2] = {};
  ASSERT_EQ(0, pipe(pipeEnds));
  ASSERT_EQ(0, openpty(&terminalEnds[0], &terminalEnds[1], nullptr, nullptr, nullptr));
  alarm(20);  // a write that waits would wait for ever
  for (int i = 0; i < 3000; ++i) {
    ConsoleLine(pipeEnds[1], "a line of a daemon that nobody reads\n");
    ConsoleLine(terminalEnds[1], "a line of a daemon that nobody reads\n");
  }
  alarm(0);
  EXPECT_EQ(0, fcntl(terminalEnds[1], F_GETFL) & O_NONBLOCK) << "the terminal is everybody's";
  close(pipeEnds[0]);
  ConsoleLine(pipeEnds[1], "nor one whose reader went away\n");  // raises no SIGPIPE
  for (const int descriptor : {pipeEnds[1], terminalEnds[0], terminalEnds[1]}) close(descriptor);
}

}  // namespace
