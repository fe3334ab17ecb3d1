#include "net/CTCP.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/time.h>

#include <csignal>
#include <vector>

#include "tests/unit/LoopbackPeer.h"

namespace {

constexpr char LOOPBACK[] = "127.0.0.1";

/// A listening socket that nobody accepts from.
struct Listener : CTCP {
  explicit Listener(int connections) {
    EXPECT_TRUE(OpenPort(INADDR_LOOPBACK, 0, connections));
    EXPECT_EQ(GetPort(port), port);
  }
  unsigned short port = 0;
};

int OptionOf(int descriptor, int level, int option) {
  int value = -1;
  socklen_t size = sizeof value;
  getsockopt(descriptor, level, option, &value, &size);
  return value;
}

TEST(CTCP, SaysWhyItFailedAndPrintsOnlyWhereItShould) {
  char text[16] = "";
  const struct {
    std::function<bool(CTCP&)> operation;
    const char* line;
  } cases[] = {
      {[&](CTCP& tcp) { return tcp.Send(text, 1); }, "CTCP::Send()"},
      {[&](CTCP& tcp) { return tcp.Receive(text, 1); }, "CTCP::Receive()"},
      {[](CTCP& tcp) { return tcp.Accept(); }, "CTCP::Accept(): accept"},
      {[](CTCP& tcp) { return tcp.ActivateKeepalive(); }, "CTCP::ActivateKeepalive(): setsockopt SO_KEEPALIVE"},
      {[](CTCP& tcp) { return tcp.SetSendBufferSize(1); }, ""},
      {[&](CTCP& tcp) { return tcp.GetPeerIP(text); }, ""}};
  for (const auto& c : cases) {
    CTCP tcp;
    errno = 0;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(c.operation(tcp)) << c.line;
    EXPECT_EQ(errno, EBADF) << c.line;
    const std::string line = *c.line == '\0' ? "" : c.line + std::string(": Bad file descriptor\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), line);
  }
}

TEST(CTCP, ItsFailureLineWaitsForNobody) {
  int pipes[2];
  ASSERT_EQ(pipe2(pipes, O_NONBLOCK), 0);
  while (write(pipes[1], "full", 4) > 0) {
  }
  fcntl(pipes[1], F_SETFL, 0);
  const int saved = dup(STDERR_FILENO);
  dup2(pipes[1], STDERR_FILENO);
  CTCP().Send("x", 1);  // blocks for good if it waits
  dup2(saved, STDERR_FILENO);
  for (const int descriptor : {saved, pipes[0], pipes[1]}) close(descriptor);
}

TEST(CTCP, TimedReceiveTellsItsOutcomesApart) {
  char text[8] = "";
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  CTCP tcp;
  EXPECT_EQ(tcp.Receive(text, 8, 0), -3538);
  tcp.SetSocket(pair[0]);
  EXPECT_EQ(tcp.Receive(text, 8, 0), -3560);
  Write(pair[1], "abc");
  EXPECT_EQ(tcp.Receive(text, 8, 1000), 0);
  EXPECT_EQ(std::string(text, tcp.received), "abc");
  EXPECT_TRUE(tcp.Receive(text, 0)) << "needs no data";
  EXPECT_EQ(tcp.received, 0U);

  struct sigaction interrupt = {}, before = {};
  interrupt.sa_handler = [](int) {};
  sigaction(SIGALRM, &interrupt, &before);
  const itimerval often = {{0, 50000}, {0, 50000}}, never = {};
  setitimer(ITIMER_REAL, &often, nullptr);
  EXPECT_EQ(tcp.Receive(text, 8, 5000), EINTR - 3500);
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &before, nullptr);

  close(pair[1]);
  EXPECT_EQ(tcp.Receive(text, 8, 1000), -6915);
  EXPECT_EQ(errno, -3415);
}

TEST(CTCP, NeverHandsSelectADescriptorPastItsLimit) {
  for (const int descriptor : {-7, FD_SETSIZE, FD_SETSIZE + 5000}) {
    CTCP tcp;
    tcp.SetSocket(descriptor);
    char byte = 0;
    EXPECT_EQ(tcp.Receive(&byte, 1, 0), EBADF - 3500) << descriptor;
    tcp.SetSocket(-1);
  }
}

TEST(CTCP, TimedCallIsNonBlockingSoThatSendTakesWhatTheSystemTakes) {
  const std::vector<char> much(64 << 20);
  for (const unsigned long timeout : {0UL, 1000UL}) {
    Listener listener(5);
    CTCP tcp;
    ASSERT_TRUE(tcp.Call(LOOPBACK, listener.port, timeout));
    EXPECT_NE(fcntl(tcp.GetSocket(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_TRUE(tcp.Send(much.data(), much.size()));
    EXPECT_GT(tcp.sent, 0U);
    EXPECT_LT(tcp.sent, much.size());
  }
}

TEST(CTCP, FailedCallKeepsTheReasonAndItsSocket) {
  Listener full(0);
  CTCP waiting[2];
  for (CTCP& tcp : waiting) tcp.Call(LOOPBACK, full.port, 50);
  const struct {
    const char* ip;
    unsigned short port;
    int cause;
  } cases[] = {{LOOPBACK, 1, ECONNREFUSED}, {LOOPBACK, full.port, ETIMEDOUT}, {"no address", 1, ENETUNREACH}};
  for (const auto& c : cases) {
    CTCP tcp;
    EXPECT_FALSE(tcp.Call(c.ip, c.port, 100));
    EXPECT_EQ(errno, c.cause) << c.ip;
    EXPECT_EQ(tcp.Hangup(), 0) << "was open";
    EXPECT_EQ(tcp.Hangup(), -1);
  }
}

TEST(CTCP, OneShotServerServesOneConnection) {
  CTCP server;
  int descriptor = -2;
  EXPECT_FALSE(server.Accept(descriptor, 0));
  EXPECT_EQ(errno, -3538);
  EXPECT_EQ(descriptor, -1);
  ASSERT_TRUE(server.OpenPort(INADDR_LOOPBACK, 0, 1));
  EXPECT_FALSE(server.Accept(20UL));
  EXPECT_EQ(errno, -3535);
  unsigned short port = 0;
  ASSERT_GT(server.GetPort(port), 0);
  CTCP second;
  EXPECT_FALSE(second.OpenPort(INADDR_LOOPBACK, port, 1));
  EXPECT_EQ(errno, EADDRINUSE);
  EXPECT_EQ(second.ClosePort(), -1) << "closed already";

  ASSERT_TRUE(second.Call(LOOPBACK, port));
  ASSERT_TRUE(server.Accept(descriptor, 1000));
  EXPECT_EQ(server.GetPort(port), -1) << "connection handed over, listening socket closed";
  EXPECT_NE(OptionOf(descriptor, IPPROTO_TCP, TCP_NODELAY), 0);
  server.SetSocket(descriptor);

  char ip[16] = "";
  EXPECT_TRUE(second.GetPeerIP(ip));
  EXPECT_STREQ(ip, LOOPBACK);
  std::string localIP, localPort;
  EXPECT_TRUE(server.GetLocalConnectedIPAndPort(localIP, localPort));
  EXPECT_EQ(localIP, LOOPBACK);
  EXPECT_EQ(localPort, std::to_string(server.GetPort(port)));
  EXPECT_TRUE(server.SetSendBufferSize(8192));
  EXPECT_EQ(OptionOf(descriptor, SOL_SOCKET, SO_SNDBUF), 8192) << "asked for 4096, which the kernel doubles";
  EXPECT_TRUE(server.ActivateKeepalive());
  EXPECT_EQ(OptionOf(descriptor, IPPROTO_TCP, TCP_KEEPIDLE), 60);
}

TEST(CTCP, ClosesWhatItOwnsAndOnlyTheInterfaceProbeStaysOpen) {
  const int before = CountDescriptors();
  for (int i = 0; i < 3; ++i) {
    Listener both(5);
    ASSERT_TRUE(both.Call(LOOPBACK, both.port));
  }
  EXPECT_EQ(CountDescriptors(), before);
  unsigned long address = 0;
  EXPECT_TRUE(CTCP::GetDeviceIP("lo", address));
  EXPECT_EQ(address, htonl(INADDR_LOOPBACK));
  EXPECT_FALSE(CTCP::GetDeviceIP("a name far longer than any interface", address));
  EXPECT_EQ(CountDescriptors(), before + 2);
}

}  // namespace
