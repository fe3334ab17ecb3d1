#include <cstdlib>
#include <iostream>

#include "xmlrpc/XmlRpcClient.h"
#include "xmlrpc/XmlRpcClientTransportHTTP.h"

using namespace TarnXmlRpc;

// usage: call ADDRESS PORT: asks the server's method "describe" for the channel 7.
int main(int argc, char** argv) {
  if (argc != 3) return 2;
  XmlRpcValue config;
  config["IP"] = argv[1];
  config["Port"] = std::atoi(argv[2]);

  XmlRpcClientTransportHTTP transport;
  if (transport.SetCfg(config) != 0 || transport.Connect(2000) != 0) {
    std::cerr << "call: no server at " << argv[1] << ":" << argv[2] << "\n";
    return 1;
  }
  XmlRpcClient client(&transport);
  XmlRpcValue params, result;
  params["channel"] = 7;
  const int status = client.execute("describe", params, result);
  if (status != 0) {
    std::cerr << "call: status " << status << " " << result.GetFaultString() << "\n";
    return 1;
  }
  result.Print("result", "");
  return 0;
}
