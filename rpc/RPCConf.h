#pragma once

#include <string>

#include "rpc/Item.h"

/// The device service's methods for the device's configuration. Each class is one method: `CParams` is the struct that
/// is its single parameter, `CResults` the struct it returns; both are values that start with every member the method
/// has, at its default. To call it, fill a CParams and hand it and a CResults to XmlRpcClient::execute() under
/// `MethodName`. A call empties the CResults first: after it, the struct holds what the server sent, or is invalid.
/// Get_ accessors then read whatever is missing, or is no string, as an empty text.
namespace RPCConf {

/// Reads the settings of one network interface.
class GetNetwork {
 public:
  static constexpr char MethodName[] = "RPCConf.GetNetwork";

  class CParams : public TarnXmlRpc::XmlRpcValue {
   public:
    CParams();
    RPC_ITEM_NAME(DeviceName)
  };

  class CResults : public TarnXmlRpc::XmlRpcValue {
   public:
    CResults();
    RPC_ITEM_NAME(IPAddress)
    RPC_ITEM_NAME(SubnetMask)
    RPC_ITEM_NAME(GatewayAddress)
    RPC_ITEM_NAME(DHCPActive)  // an int here, a bool in SetNetwork
    RPC_ITEM_NAME(MACAddress)
    RPC_ITEM_NAME(DNSAddresses)  // an array of strings that only the server creates
    RPC_ITEM_NAME(iRet)

    std::string Get_IPAddress() const { return RPCItem::GetText(*this, ItemName_IPAddress()); }
    std::string Get_SubnetMask() const { return RPCItem::GetText(*this, ItemName_SubnetMask()); }
    std::string Get_GatewayAddress() const { return RPCItem::GetText(*this, ItemName_GatewayAddress()); }
    std::string Get_MACAddress() const { return RPCItem::GetText(*this, ItemName_MACAddress()); }
  };
};

/// Changes the settings of one network interface.
class SetNetwork {
 public:
  static constexpr char MethodName[] = "RPCConf.SetNetwork";

  class CParams : public TarnXmlRpc::XmlRpcValue {
   public:
    CParams();
    RPC_ITEM_NAME(DeviceName)
    RPC_ITEM_NAME(IPAddress)
    RPC_ITEM_NAME(SubnetMask)
    RPC_ITEM_NAME(GatewayAddress)
    RPC_ITEM_NAME(DHCPActive)  // a bool here, an int in GetNetwork
    RPC_ITEM_NAME(Activate)
    RPC_ITEM_NAME(Save)
    RPC_ITEM_NAME(DNSAddresses)  // an array of strings, there only after SetSize_DNSAddresses()

    // These throw XmlRpcException -4306 if something else than a struct was assigned to the object.

    void Set_IPAddress(const std::string& text) { (*this)[ItemName_IPAddress()] = text; }
    void Set_SubnetMask(const std::string& text) { (*this)[ItemName_SubnetMask()] = text; }
    void Set_GatewayAddress(const std::string& text) { (*this)[ItemName_GatewayAddress()] = text; }
    /// Makes the array at least `count` long, with empty texts behind those that are there; it never shrinks. 0 or less
    /// adds nothing. Throws -4304 too, if the member is no array.
    void SetSize_DNSAddresses(int count);
  };

  class CResults : public TarnXmlRpc::XmlRpcValue {
   public:
    CResults();
    RPC_ITEM_NAME(iRet)
  };
};

}  // namespace RPCConf
