#pragma once

#include <string>

#include "rpc/Item.h"

/// The device service's methods for the measurement system. See RPCConf.h for what the classes are and how one is
/// called.
namespace RPCMeas {

/// Reads what the device is and what it holds.
class GetGlobalSysInfos {
 public:
  static constexpr char MethodName[] = "RPCMeas.GetGlobalSysInfos";

  class CParams : public TarnXmlRpc::XmlRpcValue {
   public:
    CParams();
  };

  class CResults : public TarnXmlRpc::XmlRpcValue {
   public:
    CResults();
    RPC_ITEM_NAME(DeviceType)
    RPC_ITEM_NAME(DeviceName)
    RPC_ITEM_NAME(TypeCode)
    RPC_ITEM_NAME(MainModuleType)
    RPC_ITEM_NAME(SubModuleType)
    RPC_ITEM_NAME(FunctionModuleType)
    RPC_ITEM_NAME(CasingModuleType)
    RPC_ITEM_NAME(SerialNumber)
    RPC_ITEM_NAME(Firmware)
    RPC_ITEM_NAME(IsBigEndian)
    RPC_ITEM_NAME(MesurementRate)  // spelled so by the device service
    RPC_ITEM_NAME(InternalProcessingRate)
    RPC_ITEM_NAME(DataBufferCount)
    RPC_ITEM_NAME(DataLoggerCount)
    RPC_ITEM_NAME(VariablesCount)
    RPC_ITEM_NAME(SlaveModuleCount)

    std::string Get_DeviceType() const { return RPCItem::GetText(*this, ItemName_DeviceType()); }
  };
};

}  // namespace RPCMeas
