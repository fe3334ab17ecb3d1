#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdio>
#include <string_view>

#include "xmlrpc/CBase64.h"
#include "xmlrpc/XmlReader.h"
#include "xmlrpc/XmlRpcUtil.h"
#include "xmlrpc/XmlRpcValue.h"
#include "xmlrpc/XmlScan.h"

namespace TarnXmlRpc {

namespace {

int SetOf(int format) { return format == 1 ? 1 : 0; }

/// `size` as what a writer reserves.
int Hint(std::size_t size) { return static_cast<int>(std::min<std::size_t>(size, INT_MAX)); }

/// What writing costs around the content, by tag set.
struct Overhead {
  std::size_t size[2];
};
constexpr Overhead booleanSize = {{40, 24}};
constexpr Overhead intSize = {{41, 35}};
constexpr Overhead int64Size = {{51, 45}};
constexpr Overhead doubleSize = {{293, 279}};
constexpr Overhead stringSize = {{18, 12}};
constexpr Overhead timeSize = {{77, 49}};
constexpr Overhead binarySize = {{37, 25}};
constexpr Overhead arraySize = {{50, 34}};
constexpr Overhead structSize = {{37, 23}};
constexpr Overhead memberSize = {{35, 23}};
constexpr std::size_t otherSize = 256;

}  // namespace

/// Appends the XML of values to one text.
class XmlWriter {
 public:
  XmlWriter(std::string& out, int set) : _out(out), _set(set) {}

  void write(const XmlRpcValue& value);

  /// What write() is expected to append, in bytes, the names of struct members left out.
  static std::size_t expected(const XmlRpcValue& value, int set);

 private:
  using Value = XmlRpcValue;

  std::string& add(const char* const (&tag)[2]) { return _out.append(tag[_set]); }
  void scalar(const char* const (&tag)[2], std::string_view text, const char* const (&endTag)[2]);
  void time(const std::tm& time);
  void array(const Value::Array& elements);
  void structure(const Value::Struct& members);

  std::string& _out;
  int _set;
};

void XmlWriter::write(const XmlRpcValue& value) {
  char number[256];  // a double's text has at most 254 characters, whatever the format
  switch (value._type) {
    case Value::TypeBoolean:
      scalar(Value::XML_TAG_BOOLEAN, value._value.asBool ? "1" : "0", Value::XML_ENDTAG_BOOLEAN);
      break;
    case Value::TypeInt: {
      const char* end = std::to_chars(number, number + sizeof number, value._value.asInt).ptr;
      scalar(Value::XML_TAG_I4, {number, static_cast<std::size_t>(end - number)}, Value::XML_ENDTAG_I4);
      break;
    }
    case Value::TypeInt64: {
      const char* end = std::to_chars(number, number + sizeof number, value._value.asInt64).ptr;
      scalar(Value::XML_TAG_I8, {number, static_cast<std::size_t>(end - number)}, Value::XML_ENDTAG_I8);
      break;
    }
    case Value::TypeDouble:
      scalar(Value::XML_TAG_DOUBLE, {number, FormatDouble(value._value.asDouble, Value::m_DoubleFormat, number, 255)},
             Value::XML_ENDTAG_DOUBLE);
      break;
    case Value::TypeString:
      add(Value::XML_TAG_VALUE);
      AppendEncoded(*value._value.asString, _out);
      add(Value::XML_ENDTAG_VALUE);
      break;
    case Value::TypeDateTime:
      time(*value._value.asTime);
      break;
    case Value::TypeBase64:
      add(Value::XML_TAG_VALUE);
      add(Value::XML_TAG_BASE64);
      CBase64::AppendEncoded(value._value.asBinary->data(), value._value.asBinary->size(), _out);
      add(Value::XML_ENDTAG_BASE64);
      add(Value::XML_ENDTAG_VALUE);
      break;
    case Value::TypeArray:
      array(*value._value.asArray);
      break;
    case Value::TypeStruct:
      structure(*value._value.asStruct);
      break;
    default:
      break;
  }
}

void XmlWriter::scalar(const char* const (&tag)[2], std::string_view text, const char* const (&endTag)[2]) {
  add(Value::XML_TAG_VALUE);
  add(tag).append(text);
  add(endTag);
  add(Value::XML_ENDTAG_VALUE);
}

void XmlWriter::time(const std::tm& time) {
  char text[TimeTextSize];
  const int length = std::snprintf(text, sizeof text, "%04d%02d%02dT%02d:%02d:%02d", time.tm_year, time.tm_mon,
                                   time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec);
  scalar(Value::XML_TAG_DATETIME, {text, static_cast<std::size_t>(length)}, Value::XML_ENDTAG_DATETIME);
}

void XmlWriter::array(const Value::Array& elements) {
  add(Value::XML_TAG_VALUE);
  add(Value::XML_TAG_ARRAY);
  add(Value::XML_TAG_DATA);
  for (const Value& element : elements) write(element);
  add(Value::XML_ENDTAG_DATA);
  add(Value::XML_ENDTAG_ARRAY);
  add(Value::XML_ENDTAG_VALUE);
}

void XmlWriter::structure(const Value::Struct& members) {
  add(Value::XML_TAG_VALUE);
  add(Value::XML_TAG_STRUCT);
  for (const auto& member : members) {
    add(Value::XML_TAG_MEMBER);
    add(Value::XML_TAG_NAME);
    AppendEncoded(member.first, _out);
    add(Value::XML_ENDTAG_NAME);
    write(member.second);
    add(Value::XML_ENDTAG_MEMBER);
  }
  add(Value::XML_ENDTAG_STRUCT);
  add(Value::XML_ENDTAG_VALUE);
}

std::size_t XmlWriter::expected(const XmlRpcValue& value, int set) {
  switch (value._type) {
    case Value::TypeBoolean:
      return booleanSize.size[set];
    case Value::TypeInt:
      return intSize.size[set];
    case Value::TypeInt64:
      return int64Size.size[set];
    case Value::TypeDouble:
      return doubleSize.size[set];
    case Value::TypeString:
      return stringSize.size[set] + 2 * value._value.asString->size();
    case Value::TypeDateTime:
      return timeSize.size[set];
    case Value::TypeBase64:
      return binarySize.size[set] + 2 * value._value.asBinary->size();
    case Value::TypeArray: {
      std::size_t sum = arraySize.size[set];
      for (const Value& element : *value._value.asArray) sum += expected(element, set);
      return sum;
    }
    case Value::TypeStruct: {
      std::size_t sum = structSize.size[set];
      for (const auto& member : *value._value.asStruct) sum += expected(member.second, set) + memberSize.size[set];
      return sum;
    }
    default:
      return otherSize;
  }
}

std::string XmlRpcValue::toXml(int format) const {
  std::string out;
  if (_type == TypeInvalid || _type > TypeInt64) return out;
  const int set = SetOf(format);
  out.reserve(XmlWriter::expected(*this, set));
  XmlWriter(out, set).write(*this);
  return out;
}

std::string XmlRpcValue::toXmlOfType(Type type, int set) const { return _type == type ? toXml(set) : std::string(); }
std::string XmlRpcValue::boolToXml(int set) const { return toXmlOfType(TypeBoolean, set); }
std::string XmlRpcValue::intToXml(int set) const { return toXmlOfType(TypeInt, set); }
std::string XmlRpcValue::int64ToXml(int set) const { return toXmlOfType(TypeInt64, set); }
std::string XmlRpcValue::doubleToXml(int set) const { return toXmlOfType(TypeDouble, set); }
std::string XmlRpcValue::stringToXml(int set) const { return toXmlOfType(TypeString, set); }
std::string XmlRpcValue::timeToXml(int set) const { return toXmlOfType(TypeDateTime, set); }
std::string XmlRpcValue::arrayToXml(int set) const { return toXmlOfType(TypeArray, set); }
std::string XmlRpcValue::structToXml(int set) const { return toXmlOfType(TypeStruct, set); }

int XmlRpcValue::toXmlSize(int set) const { return Hint(XmlWriter::expected(*this, SetOf(set))); }
int XmlRpcValue::boolToXmlSize(int set) const { return Hint(booleanSize.size[SetOf(set)]); }
int XmlRpcValue::intToXmlSize(int set) const { return Hint(intSize.size[SetOf(set)]); }
int XmlRpcValue::int64ToXmlSize(int set) const { return Hint(int64Size.size[SetOf(set)]); }
int XmlRpcValue::doubleToXmlSize(int set) const { return Hint(doubleSize.size[SetOf(set)]); }
int XmlRpcValue::timeToXmlSize(int set) const { return Hint(timeSize.size[SetOf(set)]); }

// Sizes that depend on the content: of a value of another type, what an empty one would take.

int XmlRpcValue::stringToXmlSize(int set) const {
  return _type == TypeString ? toXmlSize(set) : Hint(stringSize.size[SetOf(set)]);
}
int XmlRpcValue::binaryToXmlSize(int set) const {
  return _type == TypeBase64 ? toXmlSize(set) : Hint(binarySize.size[SetOf(set)]);
}
int XmlRpcValue::arrayToXmlSize(int set) const {
  return _type == TypeArray ? toXmlSize(set) : Hint(arraySize.size[SetOf(set)]);
}
int XmlRpcValue::structToXmlSize(int set) const {
  return _type == TypeStruct ? toXmlSize(set) : Hint(structSize.size[SetOf(set)]);
}

/// Runs `read` over a fresh value, so that `xml` may be a text in here and nothing half-read remains.
template <typename Read>
bool XmlRpcValue::readFresh(const std::string& xml, int* offset, const Read& read) {
  constexpr std::size_t longest = INT_MAX - 3;  // a NaN may move an offset three bytes on
  XmlRpcValue before;
  before.takeStorage(*this);
  if (*offset < 0 || static_cast<std::size_t>(*offset) > xml.size() || xml.size() > longest) return false;
  std::size_t at = static_cast<std::size_t>(*offset);
  XmlRpcValue fresh;
  XmlReader reader(xml);
  if (!read(reader, fresh, at)) return false;
  takeStorage(fresh);
  *offset = static_cast<int>(at);
  return true;
}

bool XmlRpcValue::fromXml(const std::string& xml, int* offset) {
  return readFresh(xml, offset,
                   [](XmlReader& reader, XmlRpcValue& fresh, std::size_t& at) { return reader.readValue(fresh, at); });
}

bool XmlRpcValue::fromXmlOfType(Type type, const std::string& xml, int* offset) {
  const int set = tagSet;
  return readFresh(xml, offset, [=](XmlReader& reader, XmlRpcValue& fresh, std::size_t& at) {
    return reader.readOfType(type, fresh, at, set);
  });
}

bool XmlRpcValue::boolFromXml(const std::string& xml, int* offset) { return fromXmlOfType(TypeBoolean, xml, offset); }
bool XmlRpcValue::intFromXml(const std::string& xml, int* offset) { return fromXmlOfType(TypeInt, xml, offset); }
bool XmlRpcValue::int64FromXml(const std::string& xml, int* offset) { return fromXmlOfType(TypeInt64, xml, offset); }
bool XmlRpcValue::doubleFromXml(const std::string& xml, int* offset) { return fromXmlOfType(TypeDouble, xml, offset); }
bool XmlRpcValue::stringFromXml(const std::string& xml, int* offset) { return fromXmlOfType(TypeString, xml, offset); }
bool XmlRpcValue::timeFromXml(const std::string& xml, int* offset) { return fromXmlOfType(TypeDateTime, xml, offset); }
bool XmlRpcValue::arrayFromXml(const std::string& xml, int* offset) { return fromXmlOfType(TypeArray, xml, offset); }
bool XmlRpcValue::structFromXml(const std::string& xml, int* offset) { return fromXmlOfType(TypeStruct, xml, offset); }

}  // namespace TarnXmlRpc
