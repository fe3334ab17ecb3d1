#include "util/RouteSocket.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include "tests/unit/SystemCalls.h"

namespace {

/// A message that comes from the kernel: a route by 10.9.9.9, the default one or (o) another, the end (e), an error
/// (x).
struct Message {
  explicit Message(char what) : destination(inet_addr(what == 'o' ? "10.128.0.0" : "0.0.0.0")) {
    header.nlmsg_type = what == 'e' ? NLMSG_DONE : what == 'x' ? NLMSG_ERROR : RTM_NEWROUTE;
  }
  nlmsghdr header = {sizeof(Message), 0, NLM_F_MULTI, 0, 0};
  rtmsg kind = {AF_INET, 0, 0, 0, RT_TABLE_MAIN, 0, 0, 0, 0};
  rtattr first = {8, RTA_DST};
  in_addr_t destination;
  rtattr second = {8, RTA_GATEWAY};
  in_addr_t gateway = inet_addr("10.9.9.9");
};

}  // namespace

TEST(RouteSocket, AsksTheKernelOnceAndForASecond) {
  const std::string found = "1 10.9.9.9 ", failed = "Read From Socket Failed...\n",
                    late = "-1 SOCK READ: : Connection timed out\n" + failed,
                    malformed = "-1 Error in recieved packet: Bad message\n" + failed;
  // Datagrams, a letter for each message; behind @ another's; instead of one ? and ! for recvfrom() that fails, # for
  // poll().
  const std::pair<std::deque<std::string>, std::string> cases[] = {
      {{"ore"}, found},
      {{"o", "r", "e"}, found},
      {{"oer"}, "0 "},
      {{std::string(180, 'o'), "re"}, found},
      {{"@r", "@e", "oe"}, "0 "},
      {{"?", "re"}, found},
      {{"!"}, "-1 SOCK READ: : Input/output error\n" + failed},
      {{"?", "#"}, "-1 SOCK READ: : Cannot allocate memory\n" + failed},
      {{"x"}, malformed},
      {{std::string(186, 'o'), "re"}, malformed},  // too large
      {{"o"}, late},
      {std::deque<std::string>(30, "@r"), late}};
  const ReplacedCalls calls;
  long milliseconds = 0;
  on_clock_gettime = [&milliseconds](clockid_t, timespec* time) { return *time = {9, milliseconds * 1000000}, 0; };
  for (const auto& [script, expected] : cases) {
    std::deque<std::string> datagrams = script;
    milliseconds = 0;
    int interrupted = 0;
    on_poll = [&](pollfd* waiting, nfds_t count, int timeout) {
      if (waiting->events == POLLOUT) return real_poll(waiting, count, timeout);  // of standard error
      EXPECT_EQ(std::tuple(POLLIN, 1, 1001 - milliseconds),
                std::tuple(int{waiting->events}, static_cast<int>(count), long{timeout}));
      milliseconds += datagrams.empty() ? timeout : 50;
      if (!datagrams.empty() && datagrams.front() == "#") return errno = ENOMEM, -1;
      if (interrupted++ == 0) return errno = EINTR, -1;
      return datagrams.empty() ? 0 : 1;
    };
    on_recvfrom = [&](int, void* data, size_t size, int flags, sockaddr* from, socklen_t* fromSize) -> ssize_t {
      EXPECT_EQ(std::pair(int{MSG_DONTWAIT}, socklen_t{sizeof(sockaddr_nl)}), std::pair(flags, *fromSize));
      const std::string next = datagrams.empty() ? "?" : datagrams.front();
      if (!datagrams.empty()) datagrams.pop_front();
      if (next == "?" || next == "!") return errno = next == "?" ? EAGAIN : EIO, -1;
      reinterpret_cast<sockaddr_nl*>(from)->nl_pid = next[0] == '@' ? 7 : 0;
      std::vector<Message> messages;
      for (const char what : next.substr(next[0] == '@' ? 1 : 0)) messages.emplace_back(what);
      size = std::min(size, messages.size() * sizeof(Message));
      std::memcpy(data, messages.data(), size);
      return static_cast<ssize_t>(size);
    };
    in_addr gateway = {};
    testing::internal::CaptureStderr();
    const std::string result = std::to_string(RouteSocket_FindDefaultGateway(&gateway)) + " ";
    const std::string address = gateway.s_addr == 0 ? "" : inet_ntoa(gateway) + std::string(" ");
    EXPECT_EQ(expected, result + address + testing::internal::GetCapturedStderr());
  }
}
