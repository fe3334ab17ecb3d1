#include "net/CTCP.h"

#include <netinet/tcp.h>
#include <sys/ioctl.h>

#include "tests/unit/SystemCalls.h"

namespace {

constexpr const char* LOOPBACK = "127.0.0.1";

unsigned short PortOf(const CTCP& tcp) {
  unsigned short port = 0;
  tcp.GetPort(port);
  return port;
}

/// Listens on a free port of the loopback interface.
struct Listener : CTCP {
  explicit Listener(int connections) { EXPECT_TRUE(OpenPort(INADDR_LOOPBACK, 0, connections)); }
};

std::string StateOf(const CTCP& tcp) {
  sockaddr_in address = {};
  const bool isListening = tcp.GetListenSocketAddr(&address) && address.sin_addr.s_addr == htonl(INADDR_LOOPBACK);
  return std::string(tcp.GetSocket() == -1 ? "" : " connected") + (isListening ? " listening" : "");
}

using Action = std::function<int(CTCP&)>;

}  // namespace

TEST(CTCP, EveryFailureKeepsItsReasonLosesNoDescriptorAndPrintsOnlyWhereItShould) {
  Listener server(999);  // nobody takes the connections away
  char text[INET_ADDRSTRLEN] = "before";
  unsigned long address = 0;
  unsigned short port = 0, serverPort = PortOf(server);
  std::string ip = "before", localPort = "before";
  int descriptor = 0;
  const Action nothing = [](CTCP&) { return 1; };
  const Action called = [&](CTCP& tcp) { return tcp.Call(LOOPBACK, serverPort); };
  const Action calledWithin = [&](CTCP& tcp) { return tcp.Call(LOOPBACK, serverPort, 2000); };
  const auto awaitedBy = [](int connections) -> Action {
    return
        [=](CTCP& tcp) { return tcp.OpenPort(INADDR_LOOPBACK, 0, connections) && CTCP().Call(LOOPBACK, PortOf(tcp)); };
  };
  const Action awaited = awaitedBy(2);
  const std::string why = ": Invalid cross-device link\n", keepalive = "CTCP::ActivateKeepalive(): setsockopt ",
                    accept = "CTCP::Accept(): accept" + why, noDelay = "CTCP::Accept(): setsockopt TCP_NODELAY" + why;
  const std::tuple<Action, Action, std::string> cases[] = {
      {nothing, called, "socket: 0\nconnect: 0 connected\n"},
      {nothing, calledWithin,
       "socket: 0\nfcntl: 0 connected\nfcntl: 0 connected\n"
       "connect: 0 connected\nselect: 1 connected\ngetsockopt: 0 connected\n"},
      {nothing, [](CTCP& tcp) { return tcp.OpenPort(INADDR_LOOPBACK, 0, 5); },
       "socket: 0\nNetOpenServerPort socket" + why + "setsockopt: 0\nbind: 0\nsetsockopt: 0\nlisten: 0\n"},
      {awaited, [](CTCP& tcp) { return tcp.Accept(); },
       "accept4: 0 listening\n" + accept + "setsockopt: 0 listening\n" + noDelay},
      {awaitedBy(1), [](CTCP& tcp) { return tcp.Accept(); },  // which ends the listening
       "accept4: 0\n" + accept + "setsockopt: 0\n" + noDelay},
      {awaited, [&](CTCP& tcp) { return tcp.Accept(descriptor, 2000) * 10 + descriptor; },
       "select: -1 listening\naccept4: -1 listening\n" + accept + "setsockopt: -1 listening\n" + noDelay},
      {called, [](CTCP& tcp) { return tcp.Send("x", 1); }, "send: 0 connected\nCTCP::Send()" + why},
      {calledWithin, [&](CTCP& tcp) { return tcp.Receive(text, 1); }, "recv: 0 connected\nCTCP::Receive()" + why},
      {called, [](CTCP& tcp) { return tcp.ActivateKeepalive(); },
       "setsockopt: 0\n" + keepalive + "SO_KEEPALIVE" + why + "setsockopt: 0\n" + keepalive + "TCP_KEEPIDLE" + why +
           "setsockopt: 0\n" + keepalive + "TCP_KEEPINTVL" + why + "setsockopt: 0\n" + keepalive + "TCP_KEEPCNT" + why},
      {called, [](CTCP& tcp) { return tcp.SetSendBufferSize(9); }, "setsockopt: 0\n"},
      {nothing, [&](CTCP&) { return CTCP::GetDeviceIP("lo", address); },
       "socket: 0\nGetDeviceIP socket" + why + "ioctl: 0, descriptors: 1\n"},
      {called,
       [&](CTCP& tcp) {  // a bit for each that failed and told nothing
         const bool hasNoPort = tcp.GetPort(port) == -1 && port == 0, hasNoPeer = !tcp.GetPeerIP(text) && *text == '\0';
         return hasNoPort + 2 * hasNoPeer +
                4 * (!tcp.GetLocalConnectedIPAndPort(ip, localPort) && (ip + localPort).empty());
       },
       "getsockname: 1 connected\ngetpeername: 2 connected\ngetsockname: 4 connected\n"}};
  for (const auto& [prepare, action, expected] : cases) {
    const auto attempt = [&prepare = prepare, &action = action] {
      CTCP tcp;
      EXPECT_TRUE(Undisturbed([&] { return prepare(tcp); }));
      const int result = action(tcp);
      return std::to_string(result) + Undisturbed([&] { return StateOf(tcp); });
    };
    EXPECT_EQ(expected, WithEachCallFailing(attempt));
  }
}

TEST(CTCP, SocketsAreCloseOnExecHaveTheirOptionsAndTellWhoTheyAre) {
  const auto optionsOf = [](int socket) {
    std::string text = std::to_string(fcntl(socket, F_GETFD)) + ((fcntl(socket, F_GETFL) & O_NONBLOCK) != 0 ? "+" : "");
    const std::pair<int, int> options[] = {{SOL_SOCKET, SO_REUSEADDR},   {IPPROTO_TCP, TCP_NODELAY},
                                           {SOL_SOCKET, SO_KEEPALIVE},   {IPPROTO_TCP, TCP_KEEPIDLE},
                                           {IPPROTO_TCP, TCP_KEEPINTVL}, {IPPROTO_TCP, TCP_KEEPCNT},
                                           {SOL_SOCKET, SO_SNDBUF}};
    for (const auto& [level, option] : options) {
      int value = -1;
      socklen_t size = sizeof value;
      getsockopt(socket, level, option, &value, &size);
      text += " " + (option == SO_SNDBUF && value > 8192 ? "much" : std::to_string(value));
    }
    return text;
  };
  Listener server(1);
  CTCP clients[2];
  int descriptor = -2;
  EXPECT_TRUE(clients[0].Call(LOOPBACK, PortOf(server)));
  EXPECT_TRUE(clients[1].Call(LOOPBACK, PortOf(server), 1000));
  EXPECT_EQ(" listening", StateOf(server));
  EXPECT_TRUE(server.Accept(descriptor, 1000));
  EXPECT_EQ("", StateOf(server)) << "one connection, which is handed over";
  server.SetSocket(descriptor);
  EXPECT_EQ("1 0 0 0 7200 75 9 much", optionsOf(clients[0].GetSocket()));
  EXPECT_EQ("1+ 0 0 0 7200 75 9 much", optionsOf(clients[1].GetSocket()));
  EXPECT_EQ("1 1 1 0 7200 75 9 much", optionsOf(descriptor)) << "the listening socket's own";
  EXPECT_TRUE(server.ActivateKeepalive());
  EXPECT_TRUE(server.SetSendBufferSize(8192));
  EXPECT_EQ("1 1 1 1 60 5 5 8192", optionsOf(descriptor)) << "asked for 4096, which the kernel doubles";
  char peer[INET_ADDRSTRLEN] = "";
  std::string ip, port;
  unsigned long found = 0;
  EXPECT_TRUE(clients[0].GetPeerIP(peer));
  EXPECT_TRUE(server.GetLocalConnectedIPAndPort(ip, port));
  EXPECT_TRUE(CTCP::GetDeviceIP("lo", found));
  EXPECT_EQ(std::tuple(LOOPBACK, LOOPBACK, std::to_string(PortOf(server)), htonl(INADDR_LOOPBACK)),
            std::tuple(std::string(peer), ip, port, found));
  EXPECT_EQ(0, server.Hangup());
  EXPECT_EQ("-1+", optionsOf(descriptor).substr(0, 3)) << "closed";
  ASSERT_TRUE(server.OpenPort(INADDR_LOOPBACK, 0, 2));
  ASSERT_TRUE(CTCP().Call(LOOPBACK, PortOf(server)));
  EXPECT_TRUE(server.Accept(descriptor));
  EXPECT_EQ(" listening", StateOf(server));
  EXPECT_EQ(0, close(descriptor));
  server.SetSocket(dup(clients[1].GetSocket()));
  EXPECT_EQ(PortOf(clients[1]), PortOf(server)) << "its own end of the connection";
}

TEST(CTCP, ReceiveTellsItsOutcomesApart) {
  int pair[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
  constexpr unsigned long unlimited = 12345;  // the form without a time-out
  const std::tuple<int, const char*, unsigned long, unsigned long, std::string> rows[] = {
      {-1, "", 0, unlimited, "1 "},
      {-1, "", 1, 0, "-3538 "},
      {-7, "", 1, 0, "-3491 "},
      {FD_SETSIZE, "", 1, 0, "-3491 "},
      {pair[0], "abc", 8, 1000, "0 abc"},
      {pair[0], "defg", 2, 1000, "0 de"},
      {pair[0], "", 8, 0, "0 fg"},
      {pair[0], "", 8, 0, "-3560 "},
      {pair[0], "x", 0, unlimited, "1 "},
      {pair[0], "", 1, unlimited, "1 x"},
      {pair[0], nullptr, 8, 1000, "-6915 "}};
  CTCP tcp;
  for (const auto& [descriptor, sent, length, timeout, expected] : rows) {
    char text[8] = "";
    tcp.SetSocket(descriptor);
    if (sent == nullptr) close(pair[1]);
    if (sent != nullptr) Write(pair[1], sent);
    const int result = timeout == unlimited ? tcp.Receive(text, length) : tcp.Receive(text, length, timeout);
    EXPECT_EQ(expected, std::to_string(result) + " " + std::string(text, tcp.received)) << descriptor << sent;
  }
  EXPECT_EQ(-3415, errno);
  EXPECT_EQ(0, tcp.Hangup());
  unsigned short port = 1;
  for (const int result : {tcp.Hangup(), tcp.ClosePort(), tcp.GetPort(port)}) EXPECT_EQ(-1, result);
}

TEST(CTCP, WaitsLastAsLongAsTheyShouldAndTellHowTheyEnded) {
  Listener server(5);
  const unsigned short port = PortOf(server);
  char byte = 0;
  int descriptor = 0;
  const std::tuple<Action, int, std::string> cases[] = {
      {[&](CTCP& tcp) { return tcp.Call(LOOPBACK, port, 0); }, 0, "2 sets, no limit: 0 Connection timed out"},
      {[&](CTCP& tcp) { return tcp.Call(LOOPBACK, port, 1500); }, 0, "2 sets, 1 s 500000: 0 Connection timed out"},
      {[&](CTCP& tcp) { return tcp.Call(LOOPBACK, port, 9); }, -1,  // the first send() or recv() will tell
       "2 sets, 0 s 9000: 1 Interrupted system call"},
      {[&](CTCP& tcp) { return tcp.Call(LOOPBACK, port, 1); }, 1,  // neither set has it
       "2 sets, 0 s 1000: 0 Operation now in progress"},
      {[&](CTCP& tcp) { return tcp.Receive(&byte, 1, 0); }, 0, "1 sets, 0 s 0: -3560 Success"},
      {[&](CTCP& tcp) { return tcp.Receive(&byte, 1, 1500); }, -1, "1 sets, 1 s 500000: -3496 Interrupted system call"},
      {[&](CTCP&) { return server.Accept(0); }, 0, "1 sets, 0 s 0: 0 Unknown error -3535"},
      {[&](CTCP& tcp) { return tcp.Accept(descriptor, 9) * 10 + descriptor; }, 0, ": -1 Unknown error -3538"},
      {[&](CTCP&) { return server.Accept(1500); }, -1, "1 sets, 1 s 500000: 0 Interrupted system call"}};
  for (const auto& [operation, answer, expected] : cases) {
    CTCP tcp;
    std::string wait;
    tcp.SetSocket(dup(STDIN_FILENO));
    if (expected[0] == '2') tcp.clear();
    errno = 0;
    on_select = [&wait, &answer = answer](int, fd_set* readers, fd_set* writers, fd_set*, timeval* limit) {
      wait = (writers == nullptr ? "1 sets, " : "2 sets, ") +
             (limit == nullptr ? "no limit" : std::to_string(limit->tv_sec) + " s " + std::to_string(limit->tv_usec));
      FD_ZERO(readers);
      if (writers != nullptr) FD_ZERO(writers);
      if (answer < 0) errno = EINTR;
      return answer;
    };
    const int result = operation(tcp);
    on_select = nullptr;
    EXPECT_EQ(expected, wait + ": " + std::to_string(result) + " " + ErrorText(errno));
  }
}

TEST(CTCP, SendTakesWhatTheSystemTakesAndCallFailsForItsReason) {
  Listener server(5);
  CTCP client;
  int descriptor = -1;
  const std::string much(64 << 20, 'x');
  ASSERT_TRUE(client.Call(LOOPBACK, PortOf(server), 1000));
  EXPECT_TRUE(client.Send(much.data(), much.size()));
  EXPECT_GT(client.sent, 0U);
  EXPECT_LT(client.sent, much.size()) << "what the system took";
  ASSERT_TRUE(server.Accept(descriptor));
  close(descriptor);  // with that unread
  testing::internal::CaptureStderr();
  for (int times = 0; times < 2; ++times) EXPECT_FALSE(client.Send("x", 1)) << "and no SIGPIPE";
  EXPECT_EQ(0U, client.sent);
  EXPECT_EQ("CTCP::Send(): Connection reset by peer\nCTCP::Send(): Broken pipe\n",
            testing::internal::GetCapturedStderr());
  for (const auto& [ip, cause] : {std::pair(LOOPBACK, ECONNREFUSED), std::pair("no address", ENETUNREACH)}) {
    CTCP tcp;
    EXPECT_FALSE(tcp.Call(ip, 1, 1000));
    EXPECT_EQ(cause, errno) << ip;
    EXPECT_EQ(0, tcp.Hangup()) << "was open";
  }
}
