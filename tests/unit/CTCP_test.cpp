#include "net/CTCP.h"

#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include "base/ConsoleLine.h"
#include "tests/unit/LoopbackPeer.h"

namespace {

int plainBirths = 0;  // sockets that another thread's fork() could take along, until the gate has closed that

}  // namespace

extern "C" int socket(int domain, int type, int protocol) noexcept {
  if ((type & SOCK_CLOEXEC) == 0) ++plainBirths;
  return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

extern "C" int accept(int listening, sockaddr* address, socklen_t* size) {
  ++plainBirths;
  return accept4(listening, address, size, 0);
}

namespace {

constexpr char LOOPBACK[] = "127.0.0.1";

/// A listening socket that nobody accepts from.
struct Listener : CTCP {
  explicit Listener(int connections) { EXPECT_TRUE(OpenPort(INADDR_LOOPBACK, 0, connections) && GetPort(port) > 0); }
  unsigned short port = 0;
};

int OptionOf(int descriptor, int level, int option) {
  int value = -1;
  socklen_t size = sizeof value;
  return getsockopt(descriptor, level, option, &value, &size) == 0 ? value : -1;
}

TEST(GateDescriptor, MovesAStandardDescriptorUpAndRefusesWhatSelectCannotHold) {
  const int saved = dup(STDIN_FILENO);
  close(STDIN_FILENO);
  const int opened = open("/dev/null", O_RDONLY), gated = GateDescriptor(opened);
  const bool moved = opened == STDIN_FILENO && gated > STDERR_FILENO && fcntl(opened, F_GETFD) == -1;
  dup2(saved, STDIN_FILENO);
  EXPECT_TRUE(moved) << gated;
  EXPECT_EQ(GateDescriptor(saved), saved) << "others stay where they are";
  EXPECT_TRUE(fcntl(gated, F_GETFD) == FD_CLOEXEC && fcntl(saved, F_GETFD) == FD_CLOEXEC);
  for (const int descriptor : {gated, saved}) close(descriptor);
  errno = ENFILE;
  EXPECT_TRUE(GateDescriptor(-1) == -1 && errno == ENFILE) << errno;
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_max <= FD_SETSIZE) GTEST_SKIP() << "this machine opens no descriptor so high";
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  const int high = fcntl(STDERR_FILENO, F_DUPFD, FD_SETSIZE);
  EXPECT_TRUE(GateDescriptor(high) == -1 && errno == EMFILE && fcntl(high, F_GETFD) == -1) << errno;
}

TEST(ConsoleLine, NeverWaitsForAReaderThatStopped) {
  int ends[2] = {}, terminal[2] = {};
  ASSERT_TRUE(pipe(ends) == 0 && openpty(&terminal[0], &terminal[1], nullptr, nullptr, nullptr) == 0);
  const int saved = dup(STDERR_FILENO);
  alarm(20);  // a write that waits would wait for ever
  for (const int console : {ends[1], terminal[1]}) {
    for (int i = 0; i < 3000; ++i) ConsoleLine(console, "a line of a daemon that nobody reads\n");
    dup2(console, STDERR_FILENO);
    CTCP().Send("x", 1);  // nor does what says why it failed
    dup2(saved, STDERR_FILENO);
  }
  alarm(0);
  EXPECT_EQ(0, fcntl(terminal[1], F_GETFL) & O_NONBLOCK) << "the terminal is everybody's";
  close(ends[0]);
  ConsoleLine(ends[1], "nor one whose reader went away\n");  // raises no SIGPIPE
  for (const int descriptor : {ends[1], terminal[0], terminal[1], saved}) close(descriptor);
}

TEST(CTCP, SaysWhyItFailedAndPrintsOnlyWhereItShould) {
  char text[16] = "";
  CTCP tcp;
  errno = 0;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(tcp.SetSendBufferSize(1) || tcp.GetPeerIP(text));
  EXPECT_EQ(errno, EBADF);
  EXPECT_FALSE(tcp.Send(text, 1) || tcp.Receive(text, 1) || tcp.Accept() || tcp.ActivateKeepalive());
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "CTCP::Send(): Bad file descriptor\nCTCP::Receive(): Bad file descriptor\nCTCP::Accept(): accept: Bad file "
            "descriptor\nCTCP::ActivateKeepalive(): setsockopt SO_KEEPALIVE: Bad file descriptor\n");
  const int before = CountDescriptors();
  unsigned long address = 0;
  EXPECT_TRUE(CTCP::GetDeviceIP("lo", address) && address == htonl(INADDR_LOOPBACK)) << address;
  EXPECT_FALSE(CTCP::GetDeviceIP("a name far longer than any interface", address));
  EXPECT_EQ(CountDescriptors(), before + 2) << "the probe's sockets stay open";
}

TEST(CTCP, SocketsAreCloseOnExecFromBirth) {
  plainBirths = 0;
  unsigned long address = 0;
  CTCP::GetDeviceIP("lo", address);
  Listener server(5);
  CTCP clients[2];
  EXPECT_TRUE(clients[0].Call(LOOPBACK, server.port) && server.Accept());
  EXPECT_TRUE(clients[1].Call(LOOPBACK, server.port, 1000));
  EXPECT_EQ(0, plainBirths);
}

TEST(CTCP, TimedReceiveTellsItsOutcomesApart) {
  char text[8] = "";
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  CTCP tcp;
  EXPECT_EQ(tcp.Receive(text, 8, 0), -3538);
  for (const int descriptor : {-7, FD_SETSIZE, FD_SETSIZE + 5000}) {
    tcp.SetSocket(descriptor);
    EXPECT_EQ(tcp.Receive(text, 1, 0), EBADF - 3500) << descriptor;
  }
  tcp.SetSocket(pair[0]);
  EXPECT_EQ(tcp.Receive(text, 8, 0), -3560);
  Write(pair[1], "abc");
  EXPECT_TRUE(tcp.Receive(text, 8, 1000) == 0 && std::string(text, tcp.received) == "abc") << tcp.received;
  EXPECT_TRUE(tcp.Receive(text, 0) && tcp.received == 0) << "needs no data";
  close(pair[1]);
  EXPECT_TRUE(tcp.Receive(text, 8, 1000) == -6915 && errno == -3415) << errno;
}

TEST(CTCP, TimedCallIsNonBlockingAndKeepsTheReasonOfAFailure) {
  const std::string much(64 << 20, 'x');
  const int before = CountDescriptors();
  for (const unsigned long timeout : {0UL, 1000UL}) {
    Listener both(5);
    ASSERT_TRUE(both.Call(LOOPBACK, both.port, timeout) && both.Send(much.data(), much.size()));
    EXPECT_TRUE(both.sent > 0 && both.sent < much.size()) << "what the system took: " << both.sent;
  }
  EXPECT_EQ(CountDescriptors(), before);
  Listener full(0);
  CTCP waiting[2];
  for (CTCP& tcp : waiting) tcp.Call(LOOPBACK, full.port, 50);
  const std::tuple<const char*, unsigned short, int> cases[] = {
      {LOOPBACK, 1, ECONNREFUSED}, {LOOPBACK, full.port, ETIMEDOUT}, {"no address", 1, ENETUNREACH}};
  for (const auto& [ip, port, cause] : cases) {
    CTCP tcp;
    EXPECT_TRUE(!tcp.Call(ip, port, 100) && errno == cause) << ip << errno;
    EXPECT_TRUE(tcp.Hangup() == 0 && tcp.Hangup() == -1) << "was open";
  }
}

TEST(CTCP, OneShotServerServesOneConnection) {
  CTCP server, client;
  int descriptor = -2;
  unsigned short port = 0;
  EXPECT_TRUE(!server.Accept(descriptor, 0) && errno == -3538 && descriptor == -1) << errno;
  ASSERT_TRUE(server.OpenPort(INADDR_LOOPBACK, 0, 1) && server.GetPort(port) > 0);
  EXPECT_TRUE(!server.Accept(20UL) && errno == -3535) << errno;
  EXPECT_TRUE(!client.OpenPort(INADDR_LOOPBACK, port, 1) && errno == EADDRINUSE && client.ClosePort() == -1) << errno;
  ASSERT_TRUE(client.Call(LOOPBACK, port) && server.Accept(descriptor, 1000));
  EXPECT_EQ(server.GetPort(port), -1) << "connection handed over, listening socket closed";
  server.SetSocket(descriptor);
  char ip[16] = "";
  std::string localIP, localPort;
  EXPECT_TRUE(client.GetPeerIP(ip) && server.GetLocalConnectedIPAndPort(localIP, localPort));
  EXPECT_EQ(ip + localIP + localPort, std::string(LOOPBACK) + LOOPBACK + std::to_string(server.GetPort(port)));
  EXPECT_TRUE(server.SetSendBufferSize(8192) && server.ActivateKeepalive());
  EXPECT_EQ(OptionOf(descriptor, SOL_SOCKET, SO_SNDBUF), 8192) << "asked for 4096, which the kernel doubles";
  EXPECT_TRUE(OptionOf(descriptor, IPPROTO_TCP, TCP_KEEPIDLE) == 60 && OptionOf(descriptor, IPPROTO_TCP, TCP_NODELAY));
}

}  // namespace
