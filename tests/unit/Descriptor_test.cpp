#include "base/Descriptor.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

TEST(GateDescriptor, MovesAStandardDescriptorUpAndRefusesWhatSelectCannotHold) {
  const int saved = fcntl(STDERR_FILENO, F_DUPFD, 10);
  close(STDERR_FILENO);
  const int opened = open("/dev/null", O_RDONLY), gated = GateDescriptor(opened), left = fcntl(opened, F_GETFD);
  dup2(saved, STDERR_FILENO);
  EXPECT_EQ(STDERR_FILENO, opened);
  EXPECT_EQ(-1, left) << "closed";
  EXPECT_GT(gated, STDERR_FILENO);
  EXPECT_EQ(saved, GateDescriptor(saved)) << "others stay where they are";
  for (const int descriptor : {gated, saved}) EXPECT_EQ(FD_CLOEXEC, fcntl(descriptor, F_GETFD));
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
