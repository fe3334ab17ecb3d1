#pragma once

#include <string>

#include "xmlrpc/XmlRpcClientTransport.h"
#include "xmlrpc/XmlRpcValue.h"

namespace TarnXmlRpc {

// The client's own statuses; those of its transport pass through it.
inline constexpr int STATUS_NO_TRANSPORT = -9;
inline constexpr int STATUS_NO_REQUEST = -4300;    // generateRequest() refused
inline constexpr int STATUS_BAD_RESPONSE = -4317;  // the response could not be parsed

/// Calls methods of an XML-RPC server (http://xmlrpc.com): makes the request document, has a transport carry it, reads
/// the response document. Does not own the transport, which must outlive it and be connected before a call. Copies
/// share the transport. One thread at a time.
class XmlRpcClient {
 public:
  explicit XmlRpcClient(XmlRpcClientTransport* transportToUse) : transport(transportToUse) {}
  XmlRpcClient(const XmlRpcClient&) = default;
  XmlRpcClient& operator=(const XmlRpcClient&) = default;
  virtual ~XmlRpcClient() = default;

  // The document for one call, left in `request`: at most one parameter, whatever its type (an array is not spread).
  // The method's name goes in as it is, not encoded. True.

  /// A parameter unless `params` is invalid, in the tag set that it was read in.
  virtual bool generateRequest(const char* methodName, const XmlRpcValue& params);
  /// `paramsXml` is the XML text of one value, put in as it is; null for no parameter.
  virtual bool generateRequest(const char* methodName, const char* paramsXml);

  /// Reads the value of a result or fault from `response`. False, with the reason to the library's error handler, if
  /// there is none to read; `result` is invalid after a malformed value, else untouched.
  virtual bool parseResponse(XmlRpcValue& result);

  // Each call makes `result` invalid first; a `params` that is the same object is then invalid too, one that is a part
  // of it goes out as it was. The status is STATUS_NO_TRANSPORT, STATUS_NO_REQUEST or what the transport gave, if that
  // is not 0, with `result` invalid; else what the form says. The forms with a time-out (ms) hand it to the transport.
  // What is thrown on the way passes through.

  /// 0 for a result and for a fault alike, or STATUS_BAD_RESPONSE.
  int execute(const char* method, const char* paramsXml, XmlRpcValue& result, unsigned long timeout);
  int execute(const char* method, const char* paramsXml, XmlRpcValue& result);
  /// The fault's code, of any sign; 0 if it was none, also when the response could not be parsed. A fault whose code is
  /// no int throws XmlRpcException -4303.
  int execute(const char* method, const XmlRpcValue& params, XmlRpcValue& result, unsigned long timeout);
  /// The same, but STATUS_BAD_RESPONSE for a response that could not be parsed.
  int execute(const char* method, const XmlRpcValue& params, XmlRpcValue& result);

  /// Whether any response so far was a fault; not a property of the last one.
  bool IsFault() const { return isFault; }

 protected:
  std::string request;  // both are emptied by the end of each execute()
  std::string response;
  bool isFault = false;
  XmlRpcClientTransport* transport;

 private:
  template <typename Params, typename Status>
  int exchange(const char* method, const Params& params, XmlRpcValue& result, const unsigned long* timeout,
               const Status& statusOf);
};

}  // namespace TarnXmlRpc
