#include "xmlrpc/XmlRpcClient.h"

#include <string_view>
#include <utility>

#include "xmlrpc/Buffers.h"
#include "xmlrpc/XmlRpcUtil.h"

namespace TarnXmlRpc {

namespace {

/// `paramXml` is null for a call without a parameter.
std::string RequestDocument(const char* methodName, const std::string_view* paramXml) {
  constexpr std::size_t MOST_AROUND = 256;  // the tags and all but a very long name
  std::string text;
  text.reserve(MOST_AROUND + (paramXml == nullptr ? 0 : paramXml->size()));
  text.append(XML_TAG_VERSION);
  text.append(XML_TAG_METHODCALL).append(XML_TAG_METHODNAME).append(methodName).append(XML_ENDTAG_METHODNAME);
  if (paramXml != nullptr) {
    text.append(XML_TAG_PARAMS).append(XML_TAG_PARAM);
    text.append(*paramXml).append(XML_ENDTAG_PARAM).append(XML_ENDTAG_PARAMS);
  }
  return text.append(XML_ENDTAG_METHODCALL);
}

int StatusOfParsing(bool parsed) { return parsed ? 0 : STATUS_BAD_RESPONSE; }

}  // namespace

bool XmlRpcClient::generateRequest(const char* methodName, const XmlRpcValue& params) {
  const std::string xml = params.toXml(params.getTagSet());
  const std::string_view paramXml = xml;
  request = RequestDocument(methodName, params.valid() ? &paramXml : nullptr);
  return true;
}

bool XmlRpcClient::generateRequest(const char* methodName, const char* paramsXml) {
  const std::string_view paramXml = paramsXml == nullptr ? "" : paramsXml;
  request = RequestDocument(methodName, paramsXml == nullptr ? nullptr : &paramXml);
  return true;
}

bool XmlRpcClient::parseResponse(XmlRpcValue& result) {
  int offset = 0;
  if (!XmlRpcUtil::findTag(XML_TAG_METHODRESPONSE, response, &offset)) {
    XmlRpcUtil::error("XmlRpcClient::parseResponse(): Invalid response - no methodResponse. Response:\n%s",
                      response.c_str());
    return false;
  }
  // One after the other: a fault that stands inside <params> is found too.
  const bool isResult = XmlRpcUtil::nextTagIs(XML_TAG_PARAMS, response, &offset) &&
                        XmlRpcUtil::nextTagIs(XML_TAG_PARAM, response, &offset);
  if (!isResult && !XmlRpcUtil::nextTagIs(XML_TAG_FAULT, response, &offset)) {
    XmlRpcUtil::error("XmlRpcClient::parseResponse(): Invalid response - no param or fault tag. Response:\n%s",
                      response.c_str());
    response.clear();
    return false;
  }
  if (!isResult) isFault = true;
  if (!result.fromXml(response, &offset)) {
    XmlRpcUtil::error("XmlRpcClient::parseResponse(): Invalid response value. Response:\n%s", response.c_str());
    response.clear();
    return false;
  }
  return result.valid();
}

/// The steps that all calls share. `statusOf` gives the status of an exchange that the transport made, by whether its
/// response could be parsed into `result`.
template <typename Params, typename Status>
int XmlRpcClient::exchange(const char* method, const Params& params, XmlRpcValue& result, const unsigned long* timeout,
                           const Status& statusOf) {
  const BuffersOfOneCall documents{request, response};
  {
    const XmlRpcValue former = std::move(result);  // which is invalid now, while what is sent may be a part of `former`
    if (transport == nullptr) return STATUS_NO_TRANSPORT;
    if (!generateRequest(method, params)) return STATUS_NO_REQUEST;
  }
  const int status =
      timeout == nullptr ? transport->execute(request, response) : transport->execute(request, response, *timeout);
  return status != 0 ? status : statusOf(parseResponse(result));
}

int XmlRpcClient::execute(const char* method, const char* paramsXml, XmlRpcValue& result, unsigned long timeout) {
  return exchange(method, paramsXml, result, &timeout, StatusOfParsing);
}

int XmlRpcClient::execute(const char* method, const char* paramsXml, XmlRpcValue& result) {
  return exchange(method, paramsXml, result, nullptr, StatusOfParsing);
}

int XmlRpcClient::execute(const char* method, const XmlRpcValue& params, XmlRpcValue& result, unsigned long timeout) {
  // The outcome of parsing is not asked for: callers of this form look at `result`.
  return exchange(method, params, result, &timeout, [&result](bool) { return result.GetFaultCode(); });
}

int XmlRpcClient::execute(const char* method, const XmlRpcValue& params, XmlRpcValue& result) {
  return exchange(method, params, result, nullptr,
                  [&result](bool parsed) { return parsed ? result.GetFaultCode() : STATUS_BAD_RESPONSE; });
}

}  // namespace TarnXmlRpc
