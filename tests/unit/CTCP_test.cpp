#include "net/CTCP.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>

#include <tuple>
#include <vector>

#include "tests/unit/LoopbackPeer.h"
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

int OptionOf(int descriptor, int level, int option) {
  int value = -1;
  socklen_t size = sizeof value;
  return getsockopt(descriptor, level, option, &value, &size) == 0 ? value : -1;
}

std::string StateOf(const CTCP& tcp) {
  sockaddr_in address = {};
  return std::string(tcp.GetSocket() == -1 ? "" : " connected") +
         (tcp.GetListenSocketAddr(&address) ? " listening" : "");
}

}  // namespace

TEST(CTCP, EveryFailureKeepsItsReasonLosesNoDescriptorAndPrintsOnlyWhereItShould) {
  Listener server(999);  // nobody takes the connections away
  char text[INET_ADDRSTRLEN] = "before";
  unsigned long address = 0;
  unsigned short port = 0, serverPort = PortOf(server);
  std::string ip = "before", localPort = "before";
  int descriptor = 0;
  const std::function<bool(CTCP&)> nothing = [](CTCP&) { return true; };
  const auto called = [&](CTCP& tcp) { return tcp.Call(LOOPBACK, serverPort); };
  const auto calledWithin = [&](CTCP& tcp) { return tcp.Call(LOOPBACK, serverPort, 2000); };
  const auto awaited = [&](CTCP& tcp) {
    return tcp.OpenPort(INADDR_LOOPBACK, 0, 2) && CTCP().Call(LOOPBACK, PortOf(tcp));
  };
  const std::string why = ": Invalid cross-device link\n", keepalive = "CTCP::ActivateKeepalive(): setsockopt ";
  const std::tuple<const char*, std::function<bool(CTCP&)>, std::function<int(CTCP&)>, std::string> cases[] = {
      {"Call", nothing, called, "socket: 0\nconnect: 0 connected\n"},
      {"Call within", nothing, calledWithin,
       "socket: 0\nfcntl: 0 connected\nfcntl: 0 connected\n"
       "connect: 0 connected\nselect: 1 connected\ngetsockopt: 0 connected\n"},
      {"OpenPort", nothing, [](CTCP& tcp) { return tcp.OpenPort(0, 0, 5); },
       "socket: 0\nNetOpenServerPort socket" + why + "setsockopt: 0\nbind: 0\nsetsockopt: 0\nlisten: 0\n"},
      {"Accept", awaited, [](CTCP& tcp) { return tcp.Accept(); },
       "accept4: 0 listening\nCTCP::Accept(): accept" + why +
           "setsockopt: 0 listening\nCTCP::Accept(): setsockopt TCP_NODELAY" + why},
      {"Accept within", awaited, [&](CTCP& tcp) { return tcp.Accept(descriptor, 2000) * 10 + descriptor; },
       "select: -1 listening\naccept4: -1 listening\nCTCP::Accept(): accept" + why +
           "setsockopt: -1 listening\nCTCP::Accept(): setsockopt TCP_NODELAY" + why},
      {"Send", called, [](CTCP& tcp) { return tcp.Send("x", 1); }, "send: 0 connected\nCTCP::Send()" + why},
      {"Receive", calledWithin, [&](CTCP& tcp) { return tcp.Receive(text, 1); },
       "recv: 0 connected\nCTCP::Receive()" + why},
      {"ActivateKeepalive", called, [](CTCP& tcp) { return tcp.ActivateKeepalive(); },
       "setsockopt: 0\n" + keepalive + "SO_KEEPALIVE" + why + "setsockopt: 0\n" + keepalive + "TCP_KEEPIDLE" + why +
           "setsockopt: 0\n" + keepalive + "TCP_KEEPINTVL" + why + "setsockopt: 0\n" + keepalive + "TCP_KEEPCNT" + why},
      {"SetSendBufferSize", called, [](CTCP& tcp) { return tcp.SetSendBufferSize(9); }, "setsockopt: 0\n"},
      {"GetDeviceIP", nothing, [&](CTCP&) { return CTCP::GetDeviceIP("lo", address); },
       "socket: 0\nGetDeviceIP socket" + why + "ioctl: 0, descriptors: 1\n"},
      {"GetPort", called, [&](CTCP& tcp) { return tcp.GetPort(port) + port; }, "getsockname: -1 connected\n"},
      {"GetPeerIP", called, [&](CTCP& tcp) { return tcp.GetPeerIP(text) ? 1 : *text; }, "getpeername: 0 connected\n"},
      {"GetLocal", called,
       [&](CTCP& tcp) {
         return tcp.GetLocalConnectedIPAndPort(ip, localPort) ? 1 : static_cast<int>((ip + localPort).size());
       },
       "getsockname: 0 connected\n"}};
  for (const auto& [name, prepare, action, expected] : cases) {
    const auto attempt = [&prepare = prepare, &action = action] {
      CTCP tcp;
      EXPECT_TRUE(Undisturbed([&] { return prepare(tcp); }));
      const int result = action(tcp);
      return std::to_string(result) + Undisturbed([&] { return StateOf(tcp); });
    };
    EXPECT_EQ(expected, WithEachCallFailing(attempt)) << name;
  }
}

TEST(CTCP, SocketsAreCloseOnExecFromBirthAndHaveTheirOptions) {
  int births = 0, descriptor = -2;
  on_socket = [&births](int domain, int type, int protocol) {
    births += type == (SOCK_STREAM | SOCK_CLOEXEC) && domain == AF_INET && protocol == IPPROTO_TCP ? 1 : 100;
    return real_socket(domain, type, protocol);
  };
  on_accept4 = [&births](int own, sockaddr* address, socklen_t* size, int flags) {
    births += flags == SOCK_CLOEXEC ? 10 : 100;
    return real_accept4(own, address, size, flags);
  };
  Listener server(1);
  CTCP clients[2];
  sockaddr_in address = {};
  EXPECT_TRUE(server.GetListenSocketAddr(&address));
  EXPECT_EQ(htonl(INADDR_LOOPBACK), address.sin_addr.s_addr);
  EXPECT_TRUE(clients[0].Call(LOOPBACK, PortOf(server)));
  EXPECT_TRUE(clients[1].Call(LOOPBACK, PortOf(server), 1000));
  EXPECT_EQ("", StateOf(server).substr(10)) << "listens";
  EXPECT_TRUE(server.Accept(descriptor, 1000));
  EXPECT_EQ("", StateOf(server)) << "one connection, which is handed over";
  server.SetSocket(descriptor);
  on_socket = nullptr;
  on_accept4 = nullptr;
  EXPECT_EQ(13, births);
  const auto optionsOf = [](int socket) {
    std::string text = (fcntl(socket, F_GETFL) & O_NONBLOCK) != 0 ? "nonblocking" : "blocking";
    const std::pair<int, int> options[] = {{SOL_SOCKET, SO_REUSEADDR},   {IPPROTO_TCP, TCP_NODELAY},
                                           {SOL_SOCKET, SO_KEEPALIVE},   {IPPROTO_TCP, TCP_KEEPIDLE},
                                           {IPPROTO_TCP, TCP_KEEPINTVL}, {IPPROTO_TCP, TCP_KEEPCNT}};
    for (const auto& [level, option] : options) {
      text += " " + std::to_string(OptionOf(socket, level, option));
    }
    return text;
  };
  EXPECT_EQ("blocking 0 0 0 7200 75 9", optionsOf(clients[0].GetSocket()));
  EXPECT_EQ("nonblocking 0 0 0 7200 75 9", optionsOf(clients[1].GetSocket()));
  EXPECT_EQ("blocking 1 1 0 7200 75 9", optionsOf(descriptor)) << "the listening socket's own";
  EXPECT_TRUE(server.ActivateKeepalive());
  EXPECT_TRUE(server.SetSendBufferSize(8192));
  EXPECT_EQ("blocking 1 1 1 60 5 5", optionsOf(descriptor));
  EXPECT_EQ(8192, OptionOf(descriptor, SOL_SOCKET, SO_SNDBUF)) << "asked for 4096, which the kernel doubles";
  char peer[INET_ADDRSTRLEN] = "";
  std::string ip, port;
  EXPECT_TRUE(clients[0].GetPeerIP(peer));
  EXPECT_STREQ(LOOPBACK, peer);
  EXPECT_TRUE(server.GetLocalConnectedIPAndPort(ip, port));
  EXPECT_EQ(LOOPBACK + (":" + std::to_string(PortOf(server))), ip + ":" + port);
  unsigned long found = 0;
  EXPECT_TRUE(CTCP::GetDeviceIP("lo", found));
  EXPECT_EQ(htonl(INADDR_LOOPBACK), found);
  EXPECT_EQ(0, server.Hangup());
  EXPECT_EQ(-1, server.GetSocket());
  EXPECT_EQ(-1, fcntl(descriptor, F_GETFD));
  ASSERT_TRUE(server.OpenPort(INADDR_LOOPBACK, 0, 2));
  ASSERT_TRUE(CTCP().Call(LOOPBACK, PortOf(server)));
  EXPECT_TRUE(server.Accept(descriptor));
  EXPECT_EQ(" listening", StateOf(server));
  EXPECT_EQ(0, close(descriptor));
}

TEST(CTCP, ReceiveTellsItsOutcomesApart) {
  int pair[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
  constexpr unsigned long unlimited = 12345;  // the form without a time-out
  const struct {
    int descriptor;
    const char* sent;  // before the look; null for an end
    unsigned long length, timeout;
    std::string expected;
  } rows[] = {{-1, "", 0, unlimited, "1 "},  // nothing is wanted
              {-1, "", 1, 0, "-3538 "},           {-7, "", 1, 0, "-3491 "},
              {FD_SETSIZE, "", 1, 0, "-3491 "},   {FD_SETSIZE + 5000, "", 1, 0, "-3491 "},
              {pair[0], "abc", 8, 1000, "0 abc"}, {pair[0], "defg", 2, 1000, "0 de"},
              {pair[0], "", 1, 1000, "0 f"},      {pair[0], "", 8, 0, "0 g"},
              {pair[0], "", 8, 0, "-3560 "},      {pair[0], "x", 0, unlimited, "1 "},
              {pair[0], "", 1, unlimited, "1 x"}, {pair[0], nullptr, 8, 1000, "-6915 "}};
  CTCP tcp;
  for (const auto& row : rows) {
    char text[8] = "";
    tcp.SetSocket(row.descriptor);
    if (row.sent == nullptr) {
      close(pair[1]);
    } else {
      Write(pair[1], row.sent);
    }
    const int result =
        row.timeout == unlimited ? tcp.Receive(text, row.length) : tcp.Receive(text, row.length, row.timeout);
    EXPECT_EQ(row.expected, std::to_string(result) + " " + std::string(text, tcp.received)) << &row - rows;
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
  const auto call = [&](unsigned long timeout) {
    return [&, timeout](CTCP& tcp) { return tcp.Call(LOOPBACK, port, timeout); };
  };
  const auto receive = [&](unsigned long timeout) {
    return [&, timeout](CTCP& tcp) { return tcp.Receive(&byte, 1, timeout); };
  };
  const auto accept = [&](unsigned long timeout) { return [&, timeout](CTCP&) { return server.Accept(timeout); }; };
  const std::tuple<std::function<int(CTCP&)>, int, std::string> cases[] = {
      {call(0), 0, "2 sets, no limit: 0 Connection timed out"},
      {call(1500), 0, "2 sets, 1 s 500000: 0 Connection timed out"},
      {call(999), -1, "2 sets, 0 s 999000: 1 Interrupted system call"},  // the first send() or recv() will tell
      {call(1), 1, "2 sets, 0 s 1000: 0 Operation now in progress"},     // neither set has it
      {receive(0), 0, "1 sets, 0 s 0: -3560 Success"},
      {receive(1500), -1, "1 sets, 1 s 500000: -3496 Interrupted system call"},
      {accept(0), 0, "1 sets, 0 s 0: 0 Unknown error -3535"},
      {[&](CTCP& tcp) { return tcp.Accept(descriptor, 9) * 10 + descriptor; }, 0, ": -1 Unknown error -3538"},
      {accept(1500), -1, "1 sets, 1 s 500000: 0 Interrupted system call"}};
  for (const auto& [operation, answer, expected] : cases) {
    CTCP tcp;
    std::string wait;
    tcp.SetSocket(dup(STDIN_FILENO));
    if (expected[0] == '2') tcp.clear();
    errno = 0;
    on_select = [&wait, &answer = answer](int, fd_set* readers, fd_set* writers, fd_set*, timeval* limit) {
      wait = std::string(writers == nullptr ? "1 sets, " : "2 sets, ") +
             (limit == nullptr ? "no limit" : std::to_string(limit->tv_sec) + " s " + std::to_string(limit->tv_usec));
      for (fd_set* const set : {readers, writers}) {
        if (set != nullptr) FD_ZERO(set);
      }
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
