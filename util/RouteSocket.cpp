#include "util/RouteSocket.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>

#include "base/ConsoleLine.h"
#include "base/Descriptor.h"
#include "util/RouteMessage.h"
#include "util/_Time.h"

namespace {

constexpr AbsTime_US LONGEST_DUMP_US = 1000000;

using RouteBuffer = std::array<std::uint8_t, 8192>;

bool SendDumpRequest(int descriptor) {
  struct {
    nlmsghdr header;
    rtmsg route;  // stays zero: any family
  } request = {};
  request.header.nlmsg_len = sizeof(request);
  request.header.nlmsg_type = RTM_GETROUTE;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_pid = static_cast<std::uint32_t>(getpid());
  if (send(descriptor, &request, sizeof(request), 0) >= 0) return true;
  ConsoleLine(STDERR_FILENO, "Write To Socket Failed...\n");
  return false;
}

/// Receives one datagram of the kernel's into `buffer` from `size` on, waiting until `deadline` for it; those of others
/// are dropped. Returns its length, or -1 with errno. The kernel has a dump's next piece ready as a rule: a wait is the
/// exception.
ssize_t ReceiveFromKernel(int descriptor, RouteBuffer& buffer, std::size_t size, AbsTime_US deadline) {
  for (;;) {
    sockaddr_nl sender = {};
    socklen_t senderSize = sizeof(sender);
    const ssize_t received = recvfrom(descriptor, buffer.data() + size, buffer.size() - size, MSG_DONTWAIT,
                                      reinterpret_cast<sockaddr*>(&sender), &senderSize);
    if (received >= 0 && sender.nl_pid == 0) return received;
    if (received < 0 && errno != EAGAIN) return -1;

    const double left = ul_MathAbsTime_SubFloat_US(deadline, ul_GetAbsTime_US(false));
    pollfd waiting = {descriptor, POLLIN, 0};
    const int ready = left > 0 ? poll(&waiting, 1, static_cast<int>(left / 1000) + 1) : 0;
    if (ready == 0) {
      errno = ETIMEDOUT;
      return -1;
    }
    if (ready < 0 && errno != EINTR) return -1;
  }
}

/// Receives the whole dump into `buffer`, one datagram behind the other; `size` becomes the bytes that hold routes. A
/// table that does not fit ends as malformed. Nothing matches the replies to the request: the socket is new, and of the
/// kernel alone they are taken.
bool ReceiveDump(int descriptor, RouteBuffer& buffer, std::size_t* size) {
  const AbsTime_US deadline = ul_GetAbsTime_US(false) + LONGEST_DUMP_US;
  RouteDump state = RouteDump::Continues;
  *size = 0;
  while (state == RouteDump::Continues) {
    const ssize_t received = ReceiveFromKernel(descriptor, buffer, *size, deadline);
    if (received < 0) {
      ConsoleError("SOCK READ: ");
      break;
    }
    std::size_t routes = 0;
    state = RouteMessage_ScanDatagram(buffer.data() + *size, static_cast<std::size_t>(received), &routes);
    if (state == RouteDump::Malformed) {
      errno = EBADMSG;
      ConsoleError("Error in recieved packet");
    }
    *size += routes;
  }
  if (state == RouteDump::Ended) return true;
  ConsoleLine(STDERR_FILENO, "Read From Socket Failed...\n");
  return false;
}

int FindDefaultGateway(int descriptor, in_addr* gateway) {
  RouteBuffer buffer;
  std::size_t size = 0;
  if (!SendDumpRequest(descriptor) || !ReceiveDump(descriptor, buffer, &size)) return -1;
  // Nobody asks for the names of the interfaces, which would be three system calls for each route.
  const auto noName = [](unsigned, char*) -> char* { return nullptr; };
  return RouteMessage_FindDefaultGateway(buffer.data(), size, noName, gateway) ? 1 : 0;
}

}  // namespace

int RouteSocket_FindDefaultGateway(in_addr* gateway) {
  const int descriptor = GateCloexec(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (descriptor < 0) {
    ConsoleError("Socket Creation: ");
    return -1;
  }
  const int result = FindDefaultGateway(descriptor, gateway);
  close(descriptor);
  return result;
}
