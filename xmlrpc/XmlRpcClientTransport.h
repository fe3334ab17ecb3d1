#pragma once

#include <string>

#include "xmlrpc/XmlRpcValue.h"

namespace TarnXmlRpc {

/// What carries a request text to a server and brings the response text back: the seam between XmlRpcClient and the
/// wire. Every status is 0 for success and negative otherwise. Not copyable; one thread at a time.
class XmlRpcClientTransport {
 public:
  XmlRpcClientTransport() = default;
  XmlRpcClientTransport(const XmlRpcClientTransport&) = delete;
  XmlRpcClientTransport& operator=(const XmlRpcClientTransport&) = delete;
  virtual ~XmlRpcClientTransport() = default;

  // A client calls execute() alone. The rest is for the transport's owner; one without a connection that lasts has
  // nothing to do in it.

  /// Takes the server's address from a struct whose members the implementation names. Does not connect.
  virtual int SetCfg(XmlRpcValue& cfg) = 0;
  virtual int Connect() = 0;
  virtual int Disconnect() = 0;
  /// 0 if connected, as far as that is known without asking the server.
  virtual int TestConnection() { return 0; }

  /// One exchange. After a failure `response` may hold a fault document that tells it to a client.
  virtual int execute(const std::string& request, std::string& response) = 0;
  /// The same within `timeout` ms, by an implementation that can do so; this one waits as the plain form does.
  virtual int execute(const std::string& request, std::string& response, [[maybe_unused]] unsigned long timeout) {
    return execute(request, response);
  }
};

}  // namespace TarnXmlRpc
