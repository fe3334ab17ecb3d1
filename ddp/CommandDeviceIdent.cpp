#include "ddp/CommandDeviceIdent.h"

#include <boost/format.hpp>
#include <cstddef>
#include <new>
#include <string_view>
#include <utility>

#include "ddp/DeviceService.h"
#include "ddp/TarnDDPServer.h"
#include "rpc/RPCConf.h"
#include "rpc/RPCMeas.h"
#include "util/EthernetCfg.h"

namespace {

using TarnXmlRpc::XmlRpcValue;
using Infos = RPCMeas::GetGlobalSysInfos;
using Network = RPCConf::GetNetwork;

/// What differs from record to record.
struct Record {
  std::string deviceType, deviceName, modelCode, serialNumber, isDHCPActive, ip, mask, gateway, mac, firmware;
};

std::string RecordText(const Record& record) {
  using namespace std::string_view_literals;
  const std::pair<std::string_view, const std::string&> fields[] = {{"SID:0\tOAN:"sv, record.deviceType},
                                                                    {"\tOVN:Orvalle Labs\tSAN:"sv, record.deviceType},
                                                                    {"\tSVN:Orvalle Labs\tLOC:"sv, record.deviceName},
                                                                    {"\tMKC:"sv, record.modelCode},
                                                                    {"\tSNR:"sv, record.serialNumber},
                                                                    {"\tASK:"sv, record.isDHCPActive},
                                                                    {"\tIPA:"sv, record.ip},
                                                                    {"\tSNM:"sv, record.mask},
                                                                    {"\tGWA:"sv, record.gateway},
                                                                    {"\tMAA:"sv, record.mac},
                                                                    {"\tEXTSID:0\tEXTAPPVER:"sv, record.firmware}};
  constexpr std::string_view END = "\r\n";
  std::size_t size = END.size();
  for (const auto& [key, value] : fields) size += key.size() + value.size();
  std::string text;
  text.reserve(size);
  for (const auto& [key, value] : fields) text.append(key).append(value);
  return text.append(END);
}

/// Like RPCItem::GetText(): a member of another type spoils its own field only, and an absent one reads as 0.
int NumberOf(XmlRpcValue& results, const std::string& name) {
  try {
    return results[name].getInt();
  } catch (const TarnXmlRpc::XmlRpcException&) {
    return 0;
  }
}

/// Remembers the last one, as the modules of a running device hardly ever change and the formatting takes a tenth of
/// the time that we need for a record.
const std::string& ModelCode(int mainType, int subType) {
  static int lastMain = 0, lastSub = 0;
  static std::string last;
  if (last.empty() || mainType != lastMain || subType != lastSub) {
    last = boost::str(boost::format("XT%d%03d#") % mainType % subType);
    lastMain = mainType;
    lastSub = subType;
  }
  return last;
}

Record ServiceRecord(XmlRpcValue& infos, XmlRpcValue& network) {
  Record record;
  record.deviceType = RPCItem::GetText(infos, Infos::CResults::ItemName_DeviceType());
  record.deviceName = RPCItem::GetText(infos, Infos::CResults::ItemName_DeviceName());
  record.modelCode = ModelCode(NumberOf(infos, Infos::CResults::ItemName_MainModuleType()),
                               NumberOf(infos, Infos::CResults::ItemName_SubModuleType()));
  record.serialNumber = RPCItem::GetText(infos, Infos::CResults::ItemName_SerialNumber());
  record.isDHCPActive = NumberOf(network, Network::CResults::ItemName_DHCPActive()) != 0 ? "true" : "false";
  record.ip = RPCItem::GetText(network, Network::CResults::ItemName_IPAddress());
  record.mask = RPCItem::GetText(network, Network::CResults::ItemName_SubnetMask());
  record.gateway = RPCItem::GetText(network, Network::CResults::ItemName_GatewayAddress());
  record.mac = RPCItem::GetText(network, Network::CResults::ItemName_MACAddress());
  record.firmware = RPCItem::GetText(infos, Infos::CResults::ItemName_Firmware());
  return record;
}

/// False as soon as one call fails: a record never mixes the service's facts with the interface's.
bool AskDeviceService(Record& record) {
  XmlRpcValue infos, network;  // no CResults: a call would empty it before its defaults were of any use
  static const Infos::CParams infosParams;
  static const Network::CParams networkParams;
  if (!CallDeviceService(Infos::MethodName, infosParams, infos)) return false;
  if (!CallDeviceService(Network::MethodName, networkParams, network, AfterTimeout::Keep)) return false;
  record = ServiceRecord(infos, network);
  return true;
}

Record InterfaceRecord() {
  char ip[128] = "0.0.0.0";
  char mask[128] = "0.0.0.0";
  char broadcast[128] = "0.0.0.0";
  char gateway[128] = "0.0.0.0";
  char nameserver[128] = "0.0.0.0";
  char mac[128] = "00:00:00:00:00:00";
  bool isDHCPActive = false;
  if (EthernetCfg_Init(sInterfaceName.c_str())) {
    EthernetCfg_GetActSettings(ip, mask, broadcast, gateway, nameserver, mac, &isDHCPActive);
    EthernetCfg_Final();
  }
  // Always "false" for DHCP: the flag only says that the settings could be read.
  return {"Tessel ???", "APPTERM", "XT175???#", "000000", "false", ip, mask, gateway, mac, "???"};
}

std::string Publish(const Record& record) {
  std::string text = RecordText(record);
  Server.SetOwnMACAddress(record.mac);
  return text;
}

}  // namespace

std::string Command_DeviceIdent() {
  try {
    Record record;
    if (IsConnected() && AskDeviceService(record)) return Publish(record);
  } catch (const std::bad_alloc&) {  // the service's texts are too long for a record
  }
  return Publish(InterfaceRecord());
}
