#include <algorithm>
#include <climits>
#include <cstdint>

#include "xmlrpc/ValueTypes.h"
#include "xmlrpc/XmlReader.h"
#include "xmlrpc/XmlWriter.h"

namespace TarnXmlRpc {

namespace {

int SetOf(int format) { return format == 1 ? 1 : 0; }

/// `size` as the size functions give it.
int Hint(std::uint64_t size) { return static_cast<int>(std::min<std::uint64_t>(size, INT_MAX)); }

constexpr std::size_t MEMBER_OVERHEAD[2] = {35, 23};
constexpr std::size_t OTHER_SIZE = 256;

}  // namespace

/// By the table of overheads, the names of struct members left out.
std::uint64_t XmlRpcValue::expectedXml(int set) const {
  if (!HasRow(_type)) return OTHER_SIZE;
  std::uint64_t size = RowOf(_type).overhead[set];
  switch (_type) {
    case TypeString:
      return size + 2 * _value.asString->size();
    case TypeBase64:
      return size + 2 * _value.asBinary->size();
    case TypeArray:
      for (const XmlRpcValue& element : *_value.asArray) size += element.expectedXml(set);
      return size;
    case TypeStruct:
      for (const auto& member : *_value.asStruct) size += member.second.expectedXml(set) + MEMBER_OVERHEAD[set];
      return size;
    default:
      return size;
  }
}

std::string XmlRpcValue::toXml(int format) const {
  return SetOf(format) == 1 ? XmlWriter<1>(*this).text() : XmlWriter<0>(*this).text();
}

std::string XmlRpcValue::toXmlOfType(Type type, int set) const { return _type == type ? toXml(set) : std::string(); }
std::string XmlRpcValue::boolToXml(int set) const { return toXmlOfType(TypeBoolean, set); }
std::string XmlRpcValue::intToXml(int set) const { return toXmlOfType(TypeInt, set); }
std::string XmlRpcValue::int64ToXml(int set) const { return toXmlOfType(TypeInt64, set); }
std::string XmlRpcValue::doubleToXml(int set) const { return toXmlOfType(TypeDouble, set); }
std::string XmlRpcValue::stringToXml(int set) const { return toXmlOfType(TypeString, set); }
std::string XmlRpcValue::timeToXml(int set) const { return toXmlOfType(TypeDateTime, set); }
std::string XmlRpcValue::binaryToXml(int set) const { return toXmlOfType(TypeBase64, set); }
std::string XmlRpcValue::arrayToXml(int set) const { return toXmlOfType(TypeArray, set); }
std::string XmlRpcValue::structToXml(int set) const { return toXmlOfType(TypeStruct, set); }

// Of a value of another type, what an empty one would take.

int XmlRpcValue::toXmlSize(int set) const { return Hint(expectedXml(SetOf(set))); }
int XmlRpcValue::toXmlSizeOfType(Type type, int set) const {
  return _type == type ? toXmlSize(set) : Hint(RowOf(type).overhead[SetOf(set)]);
}
int XmlRpcValue::boolToXmlSize(int set) const { return toXmlSizeOfType(TypeBoolean, set); }
int XmlRpcValue::intToXmlSize(int set) const { return toXmlSizeOfType(TypeInt, set); }
int XmlRpcValue::int64ToXmlSize(int set) const { return toXmlSizeOfType(TypeInt64, set); }
int XmlRpcValue::doubleToXmlSize(int set) const { return toXmlSizeOfType(TypeDouble, set); }
int XmlRpcValue::stringToXmlSize(int set) const { return toXmlSizeOfType(TypeString, set); }
int XmlRpcValue::timeToXmlSize(int set) const { return toXmlSizeOfType(TypeDateTime, set); }
int XmlRpcValue::binaryToXmlSize(int set) const { return toXmlSizeOfType(TypeBase64, set); }
int XmlRpcValue::arrayToXmlSize(int set) const { return toXmlSizeOfType(TypeArray, set); }
int XmlRpcValue::structToXmlSize(int set) const { return toXmlSizeOfType(TypeStruct, set); }

/// Runs `read` over a fresh value, which takes this one's place, so that `xml` may be a text in here and nothing
/// half-read remains; if `keepsAtFailure`, only where it succeeds.
template <typename Read>
bool XmlRpcValue::readFresh(const std::string& xml, int* offset, bool keepsAtFailure, const Read& read) {
  constexpr std::size_t longest = INT_MAX - 3;  // a NaN may move an offset three bytes on
  XmlRpcValue before, fresh;
  before.takeStorage(*this);
  bool success = false;
  if (*offset >= 0 && xml.size() <= longest) {
    const std::size_t start = std::min(static_cast<std::size_t>(*offset), xml.size());  // there is nothing behind it
    std::size_t at = start;
    XmlReader reader(xml);
    success = read(reader, fresh, at);
    *offset += static_cast<int>(at - start);
  }
  takeStorage(success || !keepsAtFailure ? fresh : before);
  return success;
}

bool XmlRpcValue::fromXml(const std::string& xml, int* offset) {
  return readFresh(xml, offset, false,
                   [](XmlReader& reader, XmlRpcValue& fresh, std::size_t& at) { return reader.readValue(fresh, at); });
}

bool XmlRpcValue::fromXmlOfType(Type type, const std::string& xml, int* offset) {
  const int set = _tagSet;
  return readFresh(xml, offset, type != TypeStruct, [=](XmlReader& reader, XmlRpcValue& fresh, std::size_t& at) {
    return reader.readOfType(type, fresh, at, set);
  });
}

bool XmlRpcValue::boolFromXml(const std::string& xml, int* offset) { return fromXmlOfType(TypeBoolean, xml, offset); }
bool XmlRpcValue::intFromXml(const std::string& xml, int* offset) { return fromXmlOfType(TypeInt, xml, offset); }
bool XmlRpcValue::int64FromXml(const std::string& xml, int* offset) { return fromXmlOfType(TypeInt64, xml, offset); }
bool XmlRpcValue::doubleFromXml(const std::string& xml, int* offset) { return fromXmlOfType(TypeDouble, xml, offset); }
bool XmlRpcValue::stringFromXml(const std::string& xml, int* offset) { return fromXmlOfType(TypeString, xml, offset); }
bool XmlRpcValue::timeFromXml(const std::string& xml, int* offset) { return fromXmlOfType(TypeDateTime, xml, offset); }
bool XmlRpcValue::binaryFromXml(const std::string& xml, int* offset) { return fromXmlOfType(TypeBase64, xml, offset); }
bool XmlRpcValue::arrayFromXml(const std::string& xml, int* offset) { return fromXmlOfType(TypeArray, xml, offset); }
bool XmlRpcValue::structFromXml(const std::string& xml, int* offset) { return fromXmlOfType(TypeStruct, xml, offset); }

}  // namespace TarnXmlRpc
