#include "base/Descriptor.h"

#include <sys/resource.h>

#include "tests/unit/SystemCalls.h"

TEST(GateDescriptor, LetsNoneBeAStandardStreamNorBeInherited) {
  int saved[3] = {}, ends[2] = {};
  for (int stream = 0; stream < 3; ++stream) saved[stream] = fcntl(stream, F_DUPFD, 10);
  for (int stream = 0; stream < 3; ++stream) close(stream);
  const bool isOpen = OpenPipe(ends);
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO}) dup2(saved[stream], stream);
  const int opened = open("/dev/null", O_RDONLY), gated = GateDescriptor(opened), left = fcntl(opened, F_GETFD);
  const int again = open("/dev/null", O_RDONLY);
  failingCalls.left = 1;
  const int refused = GateDescriptor(again), cause = errno, kept = fcntl(again, F_GETFD);
  dup2(saved[STDERR_FILENO], STDERR_FILENO);
  EXPECT_TRUE(isOpen);
  EXPECT_EQ(std::pair(STDERR_FILENO, -1), std::pair(opened, left)) << "closed";
  EXPECT_EQ(std::tuple(-1, EXDEV, -1), std::tuple(refused, cause, kept)) << "closed";
  EXPECT_EQ(saved[0], GateDescriptor(saved[0])) << "others stay where they are";
  for (const int descriptor : {ends[0], ends[1], gated, saved[0]}) {
    EXPECT_GT(descriptor, STDERR_FILENO);
    EXPECT_EQ(FD_CLOEXEC, fcntl(descriptor, F_GETFD));
  }
  EXPECT_EQ(-1, GateDescriptor(999));
  EXPECT_EQ(EBADF, errno);
  failingCalls.left = 1;
  EXPECT_EQ(-1, GateDescriptor(gated));
  EXPECT_EQ(-1, fcntl(gated, F_GETFD)) << "closed";
  failingCalls.left = 1;
  EXPECT_FALSE(OpenPipe(ends));
  errno = EXDEV;
  CloseKeepingErrno(999);
  EXPECT_EQ(EXDEV, errno);
}

TEST(GateDescriptor, RefusesWhatSelectCannotHold) {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_max <= FD_SETSIZE) GTEST_SKIP() << "this machine opens no descriptor so high";
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(FD_SETSIZE - 1, GateDescriptor(fcntl(STDERR_FILENO, F_DUPFD, FD_SETSIZE - 1)));
  EXPECT_EQ(-1, GateDescriptor(fcntl(STDERR_FILENO, F_DUPFD, FD_SETSIZE)));
  EXPECT_EQ(EMFILE, errno);
  EXPECT_EQ(-1, fcntl(FD_SETSIZE, F_GETFD)) << "closed";
  close(FD_SETSIZE - 1);
  while (dup(STDERR_FILENO) < FD_SETSIZE - 2) continue;
  int ends[2] = {};
  EXPECT_FALSE(OpenPipe(ends)) << "of which one end is too high";
  EXPECT_EQ(EMFILE, errno);
  for (const int end : {FD_SETSIZE - 1, FD_SETSIZE}) EXPECT_EQ(-1, fcntl(end, F_GETFD)) << "closed";
}
