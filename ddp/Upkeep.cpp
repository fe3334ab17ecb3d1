#include "ddp/Upkeep.h"

#include <net/if.h>

#include <cerrno>

#include "ddp/DeviceService.h"
#include "ddp/TarnDDPServer.h"
#include "util/EthernetCfg.h"
#include "util/_Time.h"

namespace {

AbsTime_US networkDeadline = 0;
unsigned joinedIndex = 0;  // where the groups were joined last; 0 for nowhere

}  // namespace

void Upkeep_ServiceConnection() {
  if (IsConnected() && XmlRpcTransport.HasInput()) XmlRpcTransport.Disconnect();
}

void Upkeep_Network(const char* interface) {
  constexpr std::uint64_t Interval_US = 5000000;
  if (!ul_MathAbsTime_NowIsHigherParam(&networkDeadline)) return;
  ul_MathAbsTime_NowAddParam_US(Interval_US, &networkDeadline);

  const unsigned index = if_nametoindex(interface);
  if (index == 0 && errno != ENODEV) return;  // not absent: nothing could be learnt
  if (index != joinedIndex && joinedIndex != 0) Server.LeaveGroups(joinedIndex);
  joinedIndex = index;
  if (index == 0) return;
  // Every time, not only when it changed: it costs less than to find out whether the joins and the route are there, and
  // the system leaves those that are as they are.
  Server.JoinGroups(index);
  EthernetCfg_AddMulticastRoute(interface);
}

void Upkeep_ExpectNetworkChange() { ul_MathAbsTime_Clear(&networkDeadline); }
