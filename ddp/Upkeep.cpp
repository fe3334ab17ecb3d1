#include "ddp/Upkeep.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <malloc.h>
#include <net/if.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <string_view>

#include "base/Blank.h"
#include "base/Descriptor.h"
#include "base/ErrorText.h"
#include "ddp/DeviceService.h"
#include "ddp/Print.h"
#include "ddp/TarnDDPServer.h"
#include "util/EthernetCfg.h"
#include "util/_Time.h"

namespace {

constexpr std::uint64_t INTERVAL_US = 5000000;

AbsTime_US retryDeadline = 0;
AbsTime_US networkDeadline = 0;
bool isClosureTold[TarnDDPServer::ENDPOINTS] = {};

#ifdef __GLIBC__
const char* const heapAtStart = static_cast<char*>(sbrk(0));
#endif

struct Group {
  int family;
  const char* address;
  const char* list;
  bool (*isListed)(const std::string& list, unsigned index, const char* group);
  unsigned joinedIndex;  // where it was joined last; 0 for nowhere
};
Group groups[] = {{AF_INET, address_IPV4, "/proc/net/igmp", Upkeep_ListsGroupIPV4, 0},
                  {AF_INET6, address_IPV6, "/proc/net/igmp6", Upkeep_ListsGroupIPV6, 0}};

/// The sockets are new ones.
void ForgetJoins() {
  for (Group& group : groups) group.joinedIndex = 0;
}

/// Where the C library would keep what was freed in small pieces.
void TrimHeap() {
#ifdef __GLIBC__
  malloc_trim(0);
#endif
}

struct OpenFile {
  int descriptor;
  ~OpenFile() {
    if (descriptor >= 0) close(descriptor);
  }
};

/// The text of a file of /proc; empty where it cannot be read.
std::string ReadProc(const char* path) {
  std::string text;
  const OpenFile file{GateCloexec(open(path, O_RDONLY | O_CLOEXEC))};
  char piece[4096];
  for (ssize_t count = 0; (count = read(file.descriptor, piece, sizeof piece)) > 0;) {
    text.append(piece, static_cast<std::size_t>(count));
  }
  return text;
}

/// True where the system does not tell.
bool IsJoined(const Group& group, unsigned index) {
  const std::string list = ReadProc(group.list);
  return list.empty() || group.isListed(list, index, group.address);
}

/// What the system still knows of a join on an interface that is gone, or that lost its groups, stands in the way of
/// the next one: a socket may have some twenty, and one of each kind.
void JoinAnew(Group& group, unsigned index) {
  char name[IF_NAMESIZE];
  const bool isGone = group.joinedIndex != 0 && if_indextoname(group.joinedIndex, name) == nullptr;
  if (isGone || index == group.joinedIndex) Server.LeaveGroup(group.family, group.joinedIndex);
  group.joinedIndex = Server.JoinGroup(group.family, index) ? index : 0;
}

void TellClosedEndpoints() {
  const auto endpoints = Server.GetEndpoints();
  for (std::size_t which = 0; which < endpoints.size(); ++which) {
    const bool isClosed = endpoints[which].error != 0;
    if (isClosed && !isClosureTold[which]) {
      char line[160];
      std::snprintf(line, sizeof line, "tarnddpd: UDP port %s could not be opened: %s; tried again every 5 s\n",
                    endpoints[which].port, ErrorText(endpoints[which].error));
      ConsoleLine(STDERR_FILENO, line);
    }
    isClosureTold[which] = isClosed;
  }
}

/// Takes the text up to the next `end`, which goes too, or all of it, from the front of `rest`.
std::string_view TakeUntil(char end, std::string_view& rest) {
  const std::string_view taken = rest.substr(0, rest.find(end));
  rest.remove_prefix(std::min(rest.size(), taken.size() + 1));
  return taken;
}

/// Takes the next word, empty if there is none, from the front of `rest`.
std::string_view TakeWord(std::string_view& rest) {
  while (!rest.empty() && IsBlank(rest.front())) rest.remove_prefix(1);
  std::size_t size = 0;
  while (size < rest.size() && !IsBlank(rest[size])) ++size;
  const std::string_view word = rest.substr(0, size);
  rest.remove_prefix(size);
  return word;
}

void OpenEndpoints() {
  const bool isOpen = Server.InitConnections();
  Print(isOpen ? "Successfully opened server conenctions" : "Failed to open server connections");
  ForgetJoins();
  Upkeep_ExpectNetworkChange();
}

}  // namespace

// A line for each interface, "2 eth0 : 2 V3", then an indented one for each of its groups, "800500E0 1 0:00000000 0",
// the address as the machine's own number.
bool Upkeep_ListsGroupIPV4(const std::string& list, unsigned index, const char* group) {
  in_addr address = {};
  inet_pton(AF_INET, group, &address);
  std::string wanted;
  for (int shift = 28; shift >= 0; shift -= 4) wanted += "0123456789ABCDEF"[address.s_addr >> shift & 15];
  const std::string number = std::to_string(index);
  bool isHere = false;
  for (std::string_view rest = list; !rest.empty();) {
    std::string_view line = TakeUntil('\n', rest);
    const bool isGroup = !line.empty() && line[0] == '\t';
    const std::string_view first = TakeWord(line);
    if (!isGroup) {
      isHere = first == number;
    } else if (isHere && first == wanted) {
      return true;
    }
  }
  return false;
}

// A line for each group, "2 eth0 ff020000000000000000000000000001 1 0000000C 0".
bool Upkeep_ListsGroupIPV6(const std::string& list, unsigned index, const char* group) {
  in6_addr address = {};
  inet_pton(AF_INET6, group, &address);
  std::string wanted;
  for (const unsigned char byte : address.s6_addr) {
    for (const int shift : {4, 0}) wanted += "0123456789abcdef"[byte >> shift & 15];
  }
  const std::string number = std::to_string(index);
  for (std::string_view rest = list; !rest.empty();) {
    std::string_view line = TakeUntil('\n', rest);
    const bool isHere = TakeWord(line) == number;
    TakeWord(line);  // the interface's name
    if (isHere && TakeWord(line) == wanted) return true;
  }
  return false;
}

void Upkeep_Attach(const char* host, int port, const char* interface) {
  const bool isAttached = TarnDDPCommand_Init(host, port, interface);
  Print(isAttached ? "Successfully attached to device API" : "Failed to attach to device API - APPTERM");
  ul_MathAbsTime_NowAddParam_US(INTERVAL_US, &retryDeadline);
}

void Upkeep_Retry(const char* host, int port, const char* interface) {
  if ((IsConnected() && Server.connectionsOpen) || !ul_MathAbsTime_NowIsHigherParam(&retryDeadline)) return;
  ul_MathAbsTime_NowAddParam_US(INTERVAL_US, &retryDeadline);
  if (!IsConnected()) Upkeep_Attach(host, port, interface);
  if (!Server.connectionsOpen) OpenEndpoints();
}

void Upkeep_ServiceConnection() {
  if (!IsConnected()) return;
  if (XmlRpcTransport.HasInput() || XmlRpcTransport.IsItsOwnPeer()) XmlRpcTransport.Disconnect();
}

void Upkeep_Memory() {
#ifdef __GLIBC__
  constexpr std::ptrdiff_t GROWN = 1 << 20;  // below it, trimming costs each request more than it gives back
  if (static_cast<char*>(sbrk(0)) - heapAtStart > GROWN) TrimHeap();
#endif
}

void Upkeep_Network(const char* interface) {
  if (!ul_MathAbsTime_NowIsHigherParam(&networkDeadline)) return;
  ul_MathAbsTime_NowAddParam_US(INTERVAL_US, &networkDeadline);
  TrimHeap();  // where a limit to memory made it grow elsewhere, Upkeep_Memory() does not see it

  if (Server.connectionsOpen && Server.OpenClosedEndpoints()) ForgetJoins();
  TellClosedEndpoints();

  const unsigned index = if_nametoindex(interface);
  if (index == 0) return;
  for (Group& group : groups) {
    if (index != group.joinedIndex || !IsJoined(group, index)) JoinAnew(group, index);
  }
  // Start-up did so by the command, whose words tell what is wrong, but which is not there on every device and does not
  // do it again when the link was down. This costs less than to find out whether the route is there.
  EthernetCfg_AddMulticastRoute(interface);
}

void Upkeep_ExpectNetworkChange() { ul_MathAbsTime_Clear(&networkDeadline); }
