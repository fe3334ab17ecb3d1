#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

#include "tool/Output.h"
#include "tool/System.h"

namespace tarnddp {
namespace {

IPv4 Number(const sockaddr* address) {
  sockaddr_in internet = {};
  std::memcpy(&internet, address, sizeof internet);
  return ntohl(internet.sin_addr.s_addr);
}

void TakeAddress(Interface& interface, const ifaddrs& entry) {
  if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != AF_INET || entry.ifa_netmask == nullptr) return;
  interface.subnets.push_back({Number(entry.ifa_addr), PrefixOfMask(Number(entry.ifa_netmask)).value_or(32)});
}

/// The first of each interface that serves: one that is still being checked for a double cannot be bound to.
std::map<unsigned, std::string> ReadLinkLocals() {
  constexpr unsigned linkScope = 0x20;
  std::map<unsigned, std::string> byIndex;
  std::ifstream table("/proc/net/if_inet6");
  std::string digits, name;
  unsigned index = 0, prefix = 0, scope = 0, flags = 0;
  while (table >> digits >> std::hex >> index >> prefix >> scope >> flags >> name) {
    if (scope != linkScope || (flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) != 0 || digits.size() != 32) continue;
    for (std::size_t at = 28; at > 0; at -= 4) digits.insert(at, ":");
    in6_addr address = {};
    char text[INET6_ADDRSTRLEN] = "";
    if (inet_pton(AF_INET6, digits.c_str(), &address) != 1) continue;
    byIndex.emplace(index, inet_ntop(AF_INET6, &address, text, sizeof text));
  }
  return byIndex;
}

int ReadNumber(const std::string& path) {
  int number = 0;
  std::ifstream(path) >> number;
  return number;
}

/// The interface number in the kernel's answer to a question for a route; 0 if it has none of `type`.
unsigned OutputInterface(const char* message, std::size_t length, unsigned char type) {
  nlmsghdr header = {};
  rtmsg route = {};
  if (length < NLMSG_SPACE(sizeof route)) return 0;
  std::memcpy(&header, message, sizeof header);
  std::memcpy(&route, message + NLMSG_HDRLEN, sizeof route);
  if (header.nlmsg_type != RTM_NEWROUTE || route.rtm_type != type) return 0;
  length = std::min<std::size_t>(length, header.nlmsg_len);
  for (std::size_t at = NLMSG_SPACE(sizeof route); at + sizeof(rtattr) <= length;) {
    rtattr attribute = {};
    unsigned index = 0;
    std::memcpy(&attribute, message + at, sizeof attribute);
    if (attribute.rta_len < sizeof attribute || at + attribute.rta_len > length) return 0;
    if (attribute.rta_type == RTA_OIF && attribute.rta_len == RTA_LENGTH(sizeof index)) {
      std::memcpy(&index, message + at + RTA_LENGTH(0), sizeof index);
      return index;
    }
    at += RTA_ALIGN(attribute.rta_len);
  }
  return 0;
}

/// The interface number of the route of `type` to `address`, 0 without one; `flags` are RTM_F_...
unsigned RouteIndex(IPv4 address, unsigned char type, unsigned flags) {
  struct {
    nlmsghdr header;
    rtmsg route;
    rtattr attribute;
    std::uint32_t destination;
  } question = {};
  question.header.nlmsg_len = sizeof question;
  question.header.nlmsg_type = RTM_GETROUTE;
  question.header.nlmsg_flags = NLM_F_REQUEST;
  question.route.rtm_family = AF_INET;
  question.route.rtm_dst_len = 32;
  question.route.rtm_flags = flags;
  question.attribute.rta_type = RTA_DST;
  question.attribute.rta_len = RTA_LENGTH(sizeof question.destination);
  question.destination = htonl(address);
  const int socketNumber = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (socketNumber < 0) return 0;
  std::array<char, 4096> answer = {};
  ssize_t length = send(socketNumber, &question, sizeof question, 0);
  if (length > 0) length = recv(socketNumber, answer.data(), answer.size(), 0);
  close(socketNumber);
  return length > 0 ? OutputInterface(answer.data(), static_cast<std::size_t>(length), type) : 0;
}

/// The number of the interface that an address is on. Its label is mostly the interface's name, or that with a colon
/// and more ("eth0:1"), but can be any text: then the local route to the address tells it.
unsigned IndexOf(const ifaddrs& entry) {
  const std::string label = entry.ifa_name;
  const unsigned index = if_nametoindex(label.substr(0, label.find(':')).c_str());
  if (index != 0 || entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != AF_INET) return index;
  return RouteIndex(Number(entry.ifa_addr), RTN_LOCAL, RTM_F_FIB_MATCH);
}

bool IsBridgePort(const std::string& interface) {
  return access(("/sys/class/net/" + interface + "/brport").c_str(), F_OK) == 0;
}

std::optional<TerminalSize> TerminalOf(int descriptor) {
  const char* kind = std::getenv("TERM");
  if (isatty(descriptor) == 0 || (kind != nullptr && std::strcmp(kind, "dumb") == 0)) return std::nullopt;
  winsize size = {};
  if (ioctl(descriptor, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) return TerminalSize();
  return TerminalSize{size.ws_col, size.ws_row};
}

std::int64_t Milliseconds() {
  std::timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

volatile std::sig_atomic_t interrupts = 0;
volatile std::sig_atomic_t keepers = 0;
std::int64_t firstInterrupt = 0;  // OnInterrupt()'s alone, which no signal interrupts

/// A terminal that is closed tells so twice: its shell passes on what the system sends as well.
void OnInterrupt(int /*signal*/) {
  constexpr int together = 500;
  if (interrupts == 0) firstInterrupt = Milliseconds();
  interrupts = 1;
  if (keepers > 0 && Milliseconds() < firstInterrupt + together) return;
  if (isatty(STDERR_FILENO) != 0 && write(STDERR_FILENO, "\n", 1) < 0) _exit(StatusInterrupted);
  _exit(StatusInterrupted);
}

std::string Local(const char* format, const std::timespec& now) {
  std::tm parts = {};
  char text[64] = "";
  localtime_r(&now.tv_sec, &parts);
  static_cast<void>(std::strftime(text, sizeof text, format, &parts));
  return text;
}

std::timespec Now() {
  std::timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return now;
}

}  // namespace

std::vector<Interface> ListInterfaces() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return {};
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, freeifaddrs);
  std::map<unsigned, Interface> byIndex;
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    const unsigned index = IndexOf(*entry);
    char name[IF_NAMESIZE] = "";
    if (index == 0 || if_indextoname(index, name) == nullptr) continue;
    Interface& interface = byIndex[index];
    interface.name = name;
    interface.index = index;
    interface.isUp = (entry->ifa_flags & IFF_UP) != 0;
    interface.hasLink = (entry->ifa_flags & IFF_RUNNING) != 0;
    interface.isLoopback = (entry->ifa_flags & IFF_LOOPBACK) != 0;
    interface.canMulticast = (entry->ifa_flags & IFF_MULTICAST) != 0;
    interface.isPort = IsBridgePort(interface.name);
    TakeAddress(interface, *entry);
  }
  for (auto& [index, address] : ReadLinkLocals()) {
    const auto found = byIndex.find(index);
    if (found != byIndex.end()) found->second.linkLocal = address;
  }
  std::vector<Interface> interfaces;
  interfaces.reserve(byIndex.size());
  for (auto& [index, interface] : byIndex) interfaces.push_back(std::move(interface));
  return interfaces;
}

unsigned InterfaceIndex(const std::string& name) {
  // The kernel takes "eth0:anything" for eth0.
  return name.find(':') == std::string::npos ? if_nametoindex(name.c_str()) : 0;
}

ReversePath ReversePathOf(const std::string& interface) {
  const std::string folder = "/proc/sys/net/ipv4/conf/";
  // The larger number counts, as ip-sysctl has it, although 2 is less strict than 1.
  switch (std::max(ReadNumber(folder + "all/rp_filter"), ReadNumber(folder + interface + "/rp_filter"))) {
    case 1:
      return ReversePath::NeedsRouteHere;
    case 2:
      return ReversePath::NeedsAnyRoute;
    default:
      return ReversePath::Accepts;
  }
}

std::string RouteInterface(IPv4 address) {
  char name[IF_NAMESIZE] = "";
  const unsigned index = RouteIndex(address, RTN_UNICAST, 0);
  return index != 0 && if_indextoname(index, name) != nullptr ? name : "";
}

std::map<IPv4, std::string> Neighbours() {
  constexpr unsigned complete = 2;
  std::map<IPv4, std::string> neighbours;
  std::ifstream table("/proc/net/arp");
  std::string line;
  std::getline(table, line);  // the headings
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string text, kind, macText;
    unsigned flags = 0;
    fields >> text >> kind >> std::hex >> flags >> macText;
    const auto address = ParseIPv4(text);
    const auto mac = ParseMac(macText);
    if ((flags & complete) != 0 && address && mac) neighbours.emplace(*address, *mac);
  }
  return neighbours;
}

void IgnoreRefusals(SocketHandle /*socket*/) {}  // as a socket without a peer does anyway

int SendThrough(SocketHandle handle, const Interface& interface) {
  const int socket = static_cast<int>(handle);
  const std::uint32_t unicast = htonl(interface.index);
  ip_mreqn multicast = {};
  multicast.imr_ifindex = static_cast<int>(interface.index);
  const bool isDone = setsockopt(socket, IPPROTO_IP, IP_UNICAST_IF, &unicast, sizeof unicast) == 0 &&
                      setsockopt(socket, IPPROTO_IP, IP_MULTICAST_IF, &multicast, sizeof multicast) == 0;
  return isDone ? 0 : errno;
}

int BindToGroup(SocketHandle handle, IPv4 group, std::uint16_t port, const Interface& interface) {
  const int socket = static_cast<int>(handle);
  const int others = 0;
  ip_mreqn membership = {};
  membership.imr_multiaddr.s_addr = htonl(group);
  membership.imr_ifindex = static_cast<int>(interface.index);
  // To the group, not to any address: so a daemon on this PC goes on to get what is for it alone.
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr = membership.imr_multiaddr;
  const bool isDone = bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                      setsockopt(socket, IPPROTO_IP, IP_MULTICAST_ALL, &others, sizeof others) == 0 &&
                      setsockopt(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) == 0;
  return isDone ? 0 : errno;
}

std::vector<std::string> ArgumentWords(int argc, char** argv) { return {argv + (argc > 0), argv + argc}; }

std::FILE* OpenToRead(const std::string& name) { return std::fopen(name.c_str(), "rbe"); }

void PrepareProcess() {
  for (int number = STDIN_FILENO; number <= STDERR_FILENO; ++number) {
    if (fcntl(number, F_GETFD) >= 0) continue;
    // The lowest free number is this one. Writing to a closed stream stays an error: the device is opened to be read.
    if (open("/dev/null", O_RDONLY) != number) std::abort();
  }
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
}

std::optional<TerminalSize> OutputTerminal() { return TerminalOf(STDOUT_FILENO); }
std::optional<TerminalSize> ErrorTerminal() { return TerminalOf(STDERR_FILENO); }
bool IsInputTerminal() { return isatty(STDIN_FILENO) != 0; }

bool IsOutputPipe() {
  struct stat output = {};
  return fstat(STDOUT_FILENO, &output) == 0 && S_ISFIFO(output.st_mode);
}

bool IsReaderGone() {
  pollfd output = {STDOUT_FILENO, 0, 0};
  return poll(&output, 1, 0) == 1 && (output.revents & (POLLERR | POLLHUP)) != 0;  // of a pipe, and of a socket
}

bool MeansReaderGone(int error) { return error == EPIPE; }

void HandleInterrupts() {
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action = {};
    sigaction(number, nullptr, &action);
    if (action.sa_handler == SIG_IGN) continue;  // started in the background, or with nohup
    action = {};
    action.sa_handler = OnInterrupt;
    sigfillset(&action.sa_mask);
    sigaction(number, &action, nullptr);
  }
}

int GrantedBuffer(int told) { return told / 2; }

bool WasInterrupted() { return interrupts > 0; }
KeepOnInterrupt::KeepOnInterrupt() { keepers = keepers + 1; }
KeepOnInterrupt::~KeepOnInterrupt() { keepers = keepers - 1; }

std::string DateTimeNow() {
  const std::timespec now = Now();
  std::string offset = Local("%z", now);
  if (offset.size() == 5) offset.insert(3, ":");
  char fraction[8] = "";
  std::snprintf(fraction, sizeof fraction, ".%03d", static_cast<int>(now.tv_nsec / 1000000));
  return Local("%Y-%m-%dT%H:%M:%S", now) + fraction + offset;
}

std::string TimeOfDayNow() { return Local("%H:%M:%S", Now()); }

}  // namespace tarnddp
