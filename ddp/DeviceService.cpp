#include "ddp/DeviceService.h"

#include "rpc/Item.h"

TarnXmlRpc::XmlRpcClientTransportHTTP XmlRpcTransport;
TarnXmlRpc::XmlRpcClient XmlRpcClient(&XmlRpcTransport);
std::string sInterfaceName = "eth0";

namespace {

constexpr int LOWEST_FAILURE = -9999;

/// What else a call may return counts as a success: a positive fault code, and what lies below.
bool IsFailure(int status) { return status >= LOWEST_FAILURE && status <= -1; }

/// Whether a response does not name the method called, while one to an earlier request is still to come. A fault names
/// none, so that a late fault cannot be told from the call's own.
bool IsOfAnotherCall(const std::string& method, const TarnXmlRpc::XmlRpcValue& params,
                     const TarnXmlRpc::XmlRpcValue& results) {
  if (results.IsFaultResponse()) return false;
  const std::string name = RPCItem::GetText(results, RPCItem::MethodID);
  return name != method && name != RPCItem::GetText(params, RPCItem::MethodID);
}

}  // namespace

bool TarnDDPCommand_Init(const std::string& host, int port, const std::string& interfaceName) {
  constexpr unsigned CONNECT_TIMEOUT_MS = 500;
  sInterfaceName = interfaceName;

  TarnXmlRpc::XmlRpcValue config;
  config[TarnXmlRpc::XmlRpcClientTransportHTTP::CfgParam_ServerIP] = host;
  config[TarnXmlRpc::XmlRpcClientTransportHTTP::CfgParam_ServerPort] = port;
  XmlRpcTransport.SetCfg(config);

  XmlRpcTransport.timeout = 2000;  // stands until a Connect() succeeds and puts its own in place
  if (XmlRpcTransport.Connect(CONNECT_TIMEOUT_MS) >= 0) return true;
  // No status of Connect() is that low: a success at this attempt is told as a failure, which costs a line on the
  // console and nothing else, because everything that follows asks IsConnected().
  return XmlRpcTransport.Connect(CONNECT_TIMEOUT_MS) < LOWEST_FAILURE;
}

bool IsConnected() { return XmlRpcTransport.connected; }

bool TarnDDPCommand_Final() {
  XmlRpcTransport.Disconnect();
  return true;
}

bool CallDeviceService(const char* method, const TarnXmlRpc::XmlRpcValue& params, TarnXmlRpc::XmlRpcValue& results,
                       AfterTimeout afterTimeout) {
  constexpr int STATUS_OUT_OF_STEP = -3405;  // no call here ends so, but a fault of the service may have it
  const unsigned owed = XmlRpcTransport.OwedResponses();
  try {
    const int status = XmlRpcClient.execute(method, params, results);
    const bool hasResponse = status != TarnXmlRpc::STATUS_SEND_FAILED && XmlRpcTransport.OwedResponses() == owed;
    const bool isLate = owed > 0 && hasResponse && IsOfAnotherCall(method, params, results);
    const bool isTimeout = status == STATUS_RECEIVE_TIMEOUT && afterTimeout == AfterTimeout::Disconnect;
    if (isLate || isTimeout || status == STATUS_OUT_OF_STEP) XmlRpcTransport.Disconnect();
    return !isLate && !IsFailure(status);
  } catch (...) {
    XmlRpcTransport.Disconnect();
    return false;
  }
}
