#include <cstdlib>
#include <iostream>

#include "xmlrpc/XmlRpcClient.h"
#include "xmlrpc/XmlRpcClientTransportHTTP.h"

using namespace TarnXmlRpc;

namespace {

/// What one may do with a value that is not one's own to change.
void Show(const XmlRpcValue& result) {
  if (result.getType() != XmlRpcValue::TypeStruct) {
    std::cout << result << "\n";
    return;
  }
  for (const auto& [name, member] : result.members()) std::cout << name << " = " << member << "\n";
}

/// Asks the server's method "describe" for the channel 7.
int Call(const char* address, const char* port) {
  XmlRpcValue config;
  config["IP"] = address;
  config["Port"] = std::atoi(port);
  XmlRpcClientTransportHTTP transport;
  if (transport.SetCfg(config) != 0 || transport.Connect(2000) != 0) {
    std::cerr << "call: no server at " << address << ":" << port << "\n";
    return 1;
  }
  XmlRpcClient client(&transport);
  XmlRpcValue params, result;
  params["channel"] = 7;
  const int status = client.execute("describe", params, result);
  if (status != 0 || result.IsFaultResponse()) {
    const std::string reason = result.GetFaultString();
    std::cerr << "call: status " << status << " " << reason << "\n";
    return 1;
  }
  Show(result);
  return 0;
}

}  // namespace

// usage: call ADDRESS PORT
int main(int argc, char** argv) {
  if (argc != 3) return 2;
  try {
    return Call(argv[1], argv[2]);
  } catch (const XmlRpcException& e) {  // a fault whose code is no int, or whose text is no string
    std::cerr << "call: an odd fault: " << e.what() << "\n";
    return 1;
  }
}
