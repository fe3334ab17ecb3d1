#include "ddp/CommandNetwork.h"

#include <new>

#include "ddp/DeviceService.h"
#include "ddp/Notify.h"
#include "ddp/Reply.h"
#include "ddp/Upkeep.h"
#include "rpc/RPCConf.h"
#include "util/DHCPClient.h"
#include "util/EthernetCfg.h"

namespace {

using TarnXmlRpc::XmlRpcValue;
using GetNetwork = RPCConf::GetNetwork;
using SetNetwork = RPCConf::SetNetwork;

struct Settings {
  std::string ip, mask, gateway, dns;
};

std::string Reply(bool done) { return done ? REPLY_ACK : REPLY_NACK; }

bool SetThroughService(const Settings& settings, bool dhcpOn) {
  SetNetwork::CParams params;
  params.Set_IPAddress(settings.ip);
  params.Set_SubnetMask(settings.mask);
  params.Set_GatewayAddress(settings.gateway);
  params.SetSize_DNSAddresses(1);
  params[SetNetwork::CParams::ItemName_DNSAddresses()][0] = settings.dns;
  params[SetNetwork::CParams::ItemName_DHCPActive()] = dhcpOn;
  params[SetNetwork::CParams::ItemName_Save()] = true;
  params[SetNetwork::CParams::ItemName_Activate()] = true;
  SetNetwork::CResults results;
  return CallDeviceService(SetNetwork::MethodName, params, results);
}

/// The first name server; empty if the service names none, or not as an array that begins with a text.
std::string FirstDNSAddress(GetNetwork::CResults& results) {
  const std::string& name = GetNetwork::CResults::ItemName_DNSAddresses();
  if (results.getMemberType(name) != XmlRpcValue::TypeArray || results[name].size() == 0) return {};
  const XmlRpcValue& first = results[name][0];
  return first.getType() == XmlRpcValue::TypeString ? first.getString() : std::string();
}

bool GetFromService(Settings& settings) {
  GetNetwork::CResults results;
  if (!CallDeviceService(GetNetwork::MethodName, GetNetwork::CParams(), results)) return false;
  settings = {results.Get_IPAddress(), results.Get_SubnetMask(), results.Get_GatewayAddress(),
              FirstDNSAddress(results)};
  return true;
}

bool SetOnInterface(const Settings& settings) {
  const NotifyLongStep step;
  if (!EthernetCfg_Init(sInterfaceName.c_str())) return false;
  const bool done = EthernetCfg_SetActSettings(settings.ip.c_str(), settings.mask.c_str(), "0.0.0.0",
                                               settings.gateway.c_str(), settings.dns.c_str());
  EthernetCfg_Final();
  Upkeep_ExpectNetworkChange();
  return done;
}

/// The client can only turn DHCP on, and so a request to turn it off leases an address too.
bool LeaseOnInterface() {
  constexpr int ATTEMPTS = 1;
  const NotifyLongStep step;
  unsigned leaseSeconds = 0;
  // The client's broadcasts leave by the multicast route, and whoever just changed the address has taken it away.
  EthernetCfg_AddMulticastRoute(sInterfaceName.c_str());
  const bool done = ul_ConfigureNetworkWithDHCP(sInterfaceName.c_str(), ATTEMPTS, &leaseSeconds);
  Upkeep_ExpectNetworkChange();
  return done;
}

}  // namespace

// Where there is no memory for a call to the service, it is not asked, and the interface not set behind its back.

std::string Command_SetIPAddress(const std::string& ipAddress, const std::string& subnetMask,
                                 const std::string& gatewayAddress, const std::string& dnsAddress) try {
  const Settings settings = {ipAddress, subnetMask, gatewayAddress, dnsAddress};
  if (IsConnected() && SetThroughService(settings, false)) return Reply(true);
  return Reply(SetOnInterface(settings));
} catch (const std::bad_alloc&) {
  return Reply(false);
}

std::string Command_SetDHCP(bool dhcpOn) try {
  Settings settings;
  if (IsConnected() && GetFromService(settings) && SetThroughService(settings, dhcpOn)) return Reply(true);
  return Reply(LeaseOnInterface());
} catch (const std::bad_alloc&) {
  return Reply(false);
}
