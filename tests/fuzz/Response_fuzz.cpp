#include <cstdint>
#include <cstdlib>
#include <string>

#include "xmlrpc/XmlRpcClient.h"
#include "xmlrpc/XmlRpcLogHandler.h"
#include "xmlrpc/XmlRpcUtil.h"

using TarnXmlRpc::XmlRpcUtil;
using TarnXmlRpc::XmlRpcValue;

namespace {

struct Client : TarnXmlRpc::XmlRpcClient {
  Client() : XmlRpcClient(nullptr) {}
  bool parse(const std::string& text, XmlRpcValue& result) {
    response = text;
    return parseResponse(result);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  TarnXmlRpc::XmlRpcErrorHandler::m_pErrorHandler = nullptr;
  const std::string text(reinterpret_cast<const char*>(data), size);
  Client client;
  XmlRpcValue result;
  const bool parsed = client.parse(text, result);
  if (parsed != result.valid()) std::abort();
  if (!parsed) return 0;

  // Put into an envelope of our own, what was read is read again.
  std::string envelope;
  XmlRpcUtil::generateResponse(envelope, result.toXml(0));
  XmlRpcValue again;
  if (client.parse(envelope, again) && again.getType() != result.getType()) std::abort();
  return 0;
}
