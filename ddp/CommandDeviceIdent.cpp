#include "ddp/CommandDeviceIdent.h"

#include <boost/format.hpp>
#include <new>

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
  return "SID:0\tOAN:" + record.deviceType + "\tOVN:Orvalle Labs\tSAN:" + record.deviceType +
         "\tSVN:Orvalle Labs\tLOC:" + record.deviceName + "\tMKC:" + record.modelCode + "\tSNR:" + record.serialNumber +
         "\tASK:" + record.isDHCPActive + "\tIPA:" + record.ip + "\tSNM:" + record.mask + "\tGWA:" + record.gateway +
         "\tMAA:" + record.mac + "\tEXTSID:0\tEXTAPPVER:" + record.firmware + "\r\n";
}

/// Like RPCItem::GetText(): a member of another type spoils its own field only, and an absent one reads as 0.
int NumberOf(XmlRpcValue& results, const std::string& name) {
  try {
    return results[name].getInt();
  } catch (const TarnXmlRpc::XmlRpcException&) {
    return 0;
  }
}

Record ServiceRecord(Infos::CResults& infos, Network::CResults& network) {
  Record record;
  record.deviceType = infos.Get_DeviceType();
  record.deviceName = RPCItem::GetText(infos, Infos::CResults::ItemName_DeviceName());
  record.modelCode =
      boost::str(boost::format("XT%d%03d#") % NumberOf(infos, Infos::CResults::ItemName_MainModuleType()) %
                 NumberOf(infos, Infos::CResults::ItemName_SubModuleType()));
  record.serialNumber = RPCItem::GetText(infos, Infos::CResults::ItemName_SerialNumber());
  record.isDHCPActive = NumberOf(network, Network::CResults::ItemName_DHCPActive()) != 0 ? "true" : "false";
  record.ip = network.Get_IPAddress();
  record.mask = network.Get_SubnetMask();
  record.gateway = network.Get_GatewayAddress();
  record.mac = network.Get_MACAddress();
  record.firmware = RPCItem::GetText(infos, Infos::CResults::ItemName_Firmware());
  return record;
}

/// False as soon as one call fails: a record never mixes the service's facts with the interface's.
bool AskDeviceService(Record& record) {
  Infos::CResults infos;
  Network::CResults network;
  if (!CallDeviceService(Infos::MethodName, Infos::CParams(), infos)) return false;
  if (!CallDeviceService(Network::MethodName, Network::CParams(), network, AfterTimeout::Keep)) return false;
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
