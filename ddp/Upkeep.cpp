#include "ddp/Upkeep.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <malloc.h>
#include <net/if.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "base/Descriptor.h"
#include "ddp/DeviceService.h"
#include "ddp/TarnDDPServer.h"
#include "util/EthernetCfg.h"
#include "util/_Time.h"

namespace {

AbsTime_US networkDeadline = 0;
#ifdef __GLIBC__
const char* const heapAtStart = static_cast<char*>(sbrk(0));
#endif
unsigned joinedIndex = 0;  // where the groups were joined last; 0 for nowhere

/// Where the C library would keep what was freed in small pieces.
void TrimHeap() {
#ifdef __GLIBC__
  malloc_trim(0);
#endif
}

/// The text of a file of /proc; empty where it cannot be read.
std::string ReadProc(const char* path) {
  std::string text;
  const int descriptor = GateDescriptor(open(path, O_RDONLY | O_CLOEXEC));
  if (descriptor < 0) return text;
  char piece[4096];
  for (ssize_t count = 0; (count = read(descriptor, piece, sizeof piece)) > 0;) {
    text.append(piece, static_cast<std::size_t>(count));
  }
  close(descriptor);
  return text;
}

/// Whether the interface of that index has both groups; true where the system does not tell.
bool HasGroups(unsigned index) {
  const std::string groupsIPV4 = ReadProc("/proc/net/igmp");
  const std::string groupsIPV6 = ReadProc("/proc/net/igmp6");
  return (groupsIPV4.empty() || Upkeep_ListsGroupIPV4(groupsIPV4, index, address_IPV4)) &&
         (groupsIPV6.empty() || Upkeep_ListsGroupIPV6(groupsIPV6, index, address_IPV6));
}

/// What the system still knows of a join on an interface that is gone, or that lost its groups, stands in the way of
/// the next one: a socket may have some twenty, and one of each kind.
void JoinAnew(unsigned index) {
  char name[IF_NAMESIZE];
  if (joinedIndex != 0 && if_indextoname(joinedIndex, name) == nullptr) Server.LeaveGroups(joinedIndex);
  if (index == joinedIndex) Server.LeaveGroups(index);
  Server.JoinGroups(index);
  joinedIndex = index;
}

}  // namespace

// A line for each interface, "2 eth0 : 2 V3", then an indented one for each of its groups, "800500E0 1 0:00000000 0",
// the address as the machine's own number.
bool Upkeep_ListsGroupIPV4(const std::string& list, unsigned index, const char* group) {
  in_addr address = {};
  inet_pton(AF_INET, group, &address);
  char wanted[16];
  std::snprintf(wanted, sizeof wanted, "%08X", address.s_addr);
  std::istringstream lines(list);
  bool isHere = false;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string first;
    words >> first;
    if (line.empty() || line[0] != '\t') {
      isHere = first == std::to_string(index);
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
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", byte);
    wanted += digits;
  }
  std::istringstream lines(list);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string number, name, found;
    words >> number >> name >> found;
    if (number == std::to_string(index) && found == wanted) return true;
  }
  return false;
}

void Upkeep_ServiceConnection() {
  if (!IsConnected()) return;
  if (XmlRpcTransport.HasInput() || XmlRpcTransport.IsItsOwnPeer()) XmlRpcTransport.Disconnect();
}

void Upkeep_Memory() {
#ifdef __GLIBC__
  constexpr std::ptrdiff_t Grown = 1 << 20;  // below it, trimming costs each request more than it gives back
  if (static_cast<char*>(sbrk(0)) - heapAtStart > Grown) TrimHeap();
#endif
}

void Upkeep_Network(const char* interface) {
  constexpr std::uint64_t Interval_US = 5000000;
  if (!ul_MathAbsTime_NowIsHigherParam(&networkDeadline)) return;
  ul_MathAbsTime_NowAddParam_US(Interval_US, &networkDeadline);
  TrimHeap();  // where a limit to memory made it grow elsewhere, Upkeep_Memory() does not see it

  const unsigned index = if_nametoindex(interface);
  if (index == 0) return;
  if (index != joinedIndex || !HasGroups(index)) JoinAnew(index);
  EthernetCfg_AddMulticastRoute(interface);  // costs less than to find out whether the route is there
}

void Upkeep_ExpectNetworkChange() { ul_MathAbsTime_Clear(&networkDeadline); }
