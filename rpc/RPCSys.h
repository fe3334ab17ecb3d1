#pragma once

#include "rpc/Item.h"

/// The device service's system methods. See RPCConf.h for what the classes are and how one is called.
namespace RPCSys {

/// Has the device service run a system command.
class SendSysCmd {
 public:
  static constexpr char MethodName[] = "RPCSys.SendSysCmd";

  class CParams : public TarnXmlRpc::XmlRpcValue {
   public:
    CParams();
    RPC_ITEM_NAME(Msg)  // the command's text
  };

  class CResults : public TarnXmlRpc::XmlRpcValue {
   public:
    CResults();
  };
};

}  // namespace RPCSys
