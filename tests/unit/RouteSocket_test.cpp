#include "util/RouteSocket.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>

#include <ctime>

#include "tests/unit/SystemCalls.h"

namespace {

/// A message that comes from the kernel: a route to `destination` by 10.9.9.9, or of another type.
struct Message {
  nlmsghdr header;
  rtmsg kind;
  rtattr first;
  in_addr_t destination;
  rtattr second;
  in_addr_t gateway;
};

Message Route(const char* destination, std::uint16_t type = RTM_NEWROUTE) {
  return {{sizeof(Message), type, NLM_F_MULTI, 0, 0},
          {AF_INET, 0, 0, 0, RT_TABLE_MAIN, 0, 0, 0, 0},
          {8, RTA_DST},
          inet_addr(destination),
          {8, RTA_GATEWAY},
          inet_addr("10.9.9.9")};
}

struct Datagram {
  std::vector<Message> messages;
  unsigned sender = 0;
  int error = 0;  // instead
};

}  // namespace

TEST(RouteSocket, AsksTheKernelOnceAndForASecond) {
  const Message other = Route("1.2.3.4"), route = Route("0.0.0.0"), end = Route("0.0.0.0", NLMSG_DONE),
                error = Route("0.0.0.0", NLMSG_ERROR);
  const std::string failed = "Read From Socket Failed...\n", late = "SOCK READ: : Connection timed out\n" + failed;
  const std::tuple<std::vector<Datagram>, std::string> cases[] = {
      {{{{other, route, end}}}, "1 10.9.9.9 "},
      {{{{other}}, {{route}}, {{end}}}, "1 10.9.9.9 "},
      {{{{other, end, route}}}, "0 "},
      {{{std::vector<Message>(180, other)}, {{route, end}}}, "1 10.9.9.9 "},
      {{{{route}, 7}, {{end}, 7}, {{other, end}}}, "0 "},  // of others
      {{{{}, 0, EAGAIN}, {{route, end}}}, "1 10.9.9.9 "},
      {{{{}, 0, EIO}}, "-1 SOCK READ: : Input/output error\n" + failed},
      {{{{}, 0, ENOMEM}}, "-1 SOCK READ: : Cannot allocate memory\n" + failed},
      {{{{error}}}, "-1 Error in recieved packet: Bad message\n" + failed},
      {{{std::vector<Message>(186, other)}, {{route, end}}},
       "-1 Error in recieved packet: Bad message\n" + failed},  // too large
      {{{{other}}}, "-1 " + late},
      {std::vector<Datagram>(30, {{route}, 7}), "-1 " + late}};
  const ReplacedCalls calls;
  long milliseconds = 0;
  on_clock_gettime = [&milliseconds](clockid_t, timespec* time) { return *time = {9, milliseconds * 1000000}, 0; };
  for (const auto& [script, expected] : cases) {
    std::deque<Datagram> datagrams(script.begin(), script.end());
    milliseconds = 0;
    int interrupted = 0;
    on_poll = [&](pollfd* waiting, nfds_t count, int timeout) {
      if (waiting->events == POLLOUT) return real_poll(waiting, count, timeout);  // of standard error
      EXPECT_EQ(std::tuple(POLLIN, 1, 1001 - milliseconds),
                std::tuple(int{waiting->events}, static_cast<int>(count), long{timeout}));
      milliseconds += datagrams.empty() ? timeout : 50;
      if (interrupted++ == 0) return errno = EINTR, -1;
      const bool fails = !datagrams.empty() && datagrams.front().error == ENOMEM;
      if (fails) errno = ENOMEM;
      return fails ? -1 : datagrams.empty() ? 0 : 1;
    };
    on_recvfrom = [&datagrams](int, void* data, size_t size, int flags, sockaddr* from,
                               socklen_t* fromSize) -> ssize_t {
      EXPECT_EQ(std::pair(int{MSG_DONTWAIT}, socklen_t{sizeof(sockaddr_nl)}), std::pair(flags, *fromSize));
      const Datagram next = datagrams.empty() ? Datagram{{}, 0, EAGAIN} : datagrams.front();
      if (!datagrams.empty()) datagrams.pop_front();
      reinterpret_cast<sockaddr_nl*>(from)->nl_pid = next.sender;
      size = std::min(size, next.messages.size() * sizeof(Message));
      if (size > 0) std::memcpy(data, next.messages.data(), size);
      if (next.error != 0) return errno = next.error, -1;
      return static_cast<ssize_t>(size);
    };
    in_addr gateway = {};
    testing::internal::CaptureStderr();
    const int result = RouteSocket_FindDefaultGateway(&gateway);
    const std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(expected, std::to_string(result) + " " +
                            (gateway.s_addr == 0 ? "" : std::string(inet_ntoa(gateway)) + " ") + printed);
  }
}

TEST(RouteSocket, FailureIsToldAndLosesNoDescriptor) {
  in_addr gateway = {};
  const std::string socket = "-1\nSocket Creation: : Invalid cross-device link\n";
  const std::string expected = "socket: " + socket + "send: -1\nWrite To Socket Failed...\n";
  const auto ask = [&gateway] { return std::to_string(RouteSocket_FindDefaultGateway(&gateway)); };
  EXPECT_EQ(expected, WithEachCallFailing(ask).substr(0, expected.size()));
}
