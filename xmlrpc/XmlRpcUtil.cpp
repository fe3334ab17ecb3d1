#include "xmlrpc/XmlRpcUtil.h"

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <string_view>
#include <utility>

#include "xmlrpc/XmlRpcLogHandler.h"
#include "xmlrpc/XmlRpcValue.h"
#include "xmlrpc/XmlText.h"

namespace TarnXmlRpc {

namespace {

/// The offset as a position inside `xml` or at its end; false where it is neither.
bool Position(const std::string& xml, const int* offset, std::size_t& at) {
  if (*offset < 0 || static_cast<std::size_t>(*offset) > xml.size()) return false;
  at = static_cast<std::size_t>(*offset);
  return true;
}

/// Moves the offset to `at`, if an int can hold it.
bool MoveTo(std::size_t at, int* offset) {
  if (at > static_cast<std::size_t>(INT_MAX)) return false;
  *offset = static_cast<int>(at);
  return true;
}

constexpr std::size_t MESSAGE_SIZE = 1024;

/// Formats into `message`. One byte less than it holds is used, and the last is NUL, so 1022 characters are kept at
/// most.
void Format(char (&message)[MESSAGE_SIZE], const char* fmt, va_list arguments) {
  message[0] = '\0';
  std::vsnprintf(message, MESSAGE_SIZE - 1, fmt, arguments);
  message[MESSAGE_SIZE - 1] = '\0';
}

}  // namespace

bool XmlRpcUtil::nextTagIs(const char* tag, const std::string& xml, int* offset) {
  return nextTagIs(tag, xml, offset, false);
}

bool XmlRpcUtil::nextTagIs(const char* tag, const std::string& xml, int* offset, bool emptyElement) {
  std::size_t at = 0;
  if (!Position(xml, offset, at)) return false;
  if (SkipBlanks(xml, at) == xml.size()) return false;
  return (emptyElement ? SkipEmptyTag(xml, at, tag) : SkipTag(xml, at, tag)) && MoveTo(at, offset);
}

bool XmlRpcUtil::findTag(const char* tag, const std::string& xml, int* offset) {
  std::size_t at = 0;
  if (!Position(xml, offset, at)) return false;
  const std::size_t found = xml.find(tag, at);
  return found != std::string::npos && MoveTo(found + std::string_view(tag).size(), offset);
}

std::string XmlRpcUtil::parseTag(const char* tag, const std::string& xml, int* offset) {
  const std::string_view start(tag);
  std::size_t at = 0;
  if (start.empty() || !Position(xml, offset, at)) return {};
  const std::size_t found = xml.find(start, at);
  if (found == std::string::npos) return {};
  const std::size_t text = found + start.size();
  const std::string endTag = "</" + std::string(start.substr(1));
  const std::size_t end = xml.find(endTag, text);
  if (end == std::string::npos || !MoveTo(end + endTag.size(), offset)) return {};
  return xml.substr(text, end - text);
}

std::string XmlRpcUtil::getNextTag(const std::string& xml, int* offset) {
  std::size_t at = 0;
  if (!Position(xml, offset, at)) return {};
  const std::size_t start = SkipBlanks(xml, at);
  if (start == xml.size() || xml[start] != '<') return {};
  const std::size_t end = xml.find('>', start);
  const std::size_t length = (end == std::string::npos ? xml.size() : end + 1) - start;
  return MoveTo(start + length, offset) ? xml.substr(start, length) : std::string();
}

std::string XmlRpcUtil::xmlEncode(const std::string& text) {
  if (text.find_first_of("<>&'\"") == std::string::npos) return text;
  std::string out;
  out.reserve(2 * text.size());
  char entity[LONGEST_ENTITY + ENCODING_STEP];
  for (const char& c : text) out.append(entity, Encode({&c, 1}, entity));
  return out;
}

std::string XmlRpcUtil::xmlDecode(const std::string& text) {
  std::string out;
  return Decode(text, out) ? out : text;
}

void XmlRpcUtil::generateResponse(std::string& out, const std::string& resultXml) {
  std::string document = XML_TAG_VERSION;
  document.append(XML_TAG_RESPONSE).append(resultXml).append(XML_ENDTAG_RESPONSE);
  out = std::move(document);
}

void XmlRpcUtil::generateFaultResponse(std::string& out, const std::string& message, int code) {
  XmlRpcValue fault;
  fault[FAULTCODE] = code;
  fault[FAULTSTRING] = message;
  std::string document = XML_TAG_VERSION;
  document.append(XML_TAG_FAULTRESPONSE).append(fault.toXml(0)).append(XML_ENDTAG_FAULTRESPONSE);
  out = std::move(document);
}

void XmlRpcUtil::log(int level, const char* fmt, ...) {
  if (level > XmlRpcLogHandler::m_Verbosity || XmlRpcLogHandler::m_pLogHandler == nullptr) return;
  char message[MESSAGE_SIZE];
  va_list arguments;
  va_start(arguments, fmt);
  Format(message, fmt, arguments);
  va_end(arguments);
  XmlRpcLogHandler::m_pLogHandler->log(level, message);
}

void XmlRpcUtil::error(const char* fmt, ...) {
  if (XmlRpcErrorHandler::m_pErrorHandler == nullptr) return;
  char message[MESSAGE_SIZE];
  va_list arguments;
  va_start(arguments, fmt);
  Format(message, fmt, arguments);
  va_end(arguments);
  XmlRpcErrorHandler::m_pErrorHandler->error(message);
}

}  // namespace TarnXmlRpc
