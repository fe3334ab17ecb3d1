#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <string_view>
#include <type_traits>

#include "xmlrpc/CBase64.h"
#include "xmlrpc/XmlReader.h"
#include "xmlrpc/XmlRpcUtil.h"
#include "xmlrpc/XmlRpcValue.h"
#include "xmlrpc/XmlScan.h"

namespace TarnXmlRpc {

namespace {

int SetOf(int format) { return format == 1 ? 1 : 0; }

/// `size` as what a writer reserves.
int Hint(std::uint64_t size) { return static_cast<int>(std::min<std::uint64_t>(size, INT_MAX)); }

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

/// Appends the XML of values to one text, whose storage it writes straight into: the text has its full room while this
/// object exists and is cut to what was written by finish().
template <int set>
class XmlWriter {
 public:
  explicit XmlWriter(std::string& out) : _out(out), _used(out.size()) {}

  void write(const XmlRpcValue& value);
  void finish() { _out.resize(_used); }

 private:
  using Value = XmlRpcValue;

  /// Where the next `size` bytes go.
  char* room(std::size_t size) {
    if (_out.size() - _used < size) grow(size);
    return _out.data() + _used;
  }
  void grow(std::size_t size);
  void advanceTo(const char* end) { _used = static_cast<std::size_t>(end - _out.data()); }
  static char* put(char* to, std::string_view text) { return std::copy_n(text.data(), text.size(), to); }

  void add(std::string_view text) { advanceTo(put(room(text.size()), text)); }
  void addEncoded(std::string_view text);
  template <typename Number>
  void integer(std::string_view tag, Number number, std::string_view endTag);
  void scalar(std::string_view tag, std::string_view text, std::string_view endTag);
  void time(const std::tm& time);
  void binary(const Value::Binary& data);
  void array(const Value::Array& elements);
  void structure(const Value::Struct& members);

  static constexpr std::string_view V = Value::XML_TAG_VALUE[set];
  static constexpr std::string_view VEnd = Value::XML_ENDTAG_VALUE[set];

  std::string& _out;
  std::size_t _used;
};

/// In steps that stay small beside the text, since each is zeroed before it is written.
template <int set>
void XmlWriter<set>::grow(std::size_t size) {
  constexpr std::size_t step = 32768;
  _out.resize(_used + std::max(size, std::min(_used + 256, step)));
}

template <int set>
void XmlWriter<set>::write(const XmlRpcValue& value) {
  switch (value._type) {
    case Value::TypeBoolean:
      scalar(Value::XML_TAG_BOOLEAN[set], value._value.asBool ? "1" : "0", Value::XML_ENDTAG_BOOLEAN[set]);
      break;
    case Value::TypeInt:
      integer(Value::XML_TAG_I4[set], value._value.asInt, Value::XML_ENDTAG_I4[set]);
      break;
    case Value::TypeInt64:
      integer(Value::XML_TAG_I8[set], value._value.asInt64, Value::XML_ENDTAG_I8[set]);
      break;
    case Value::TypeDouble: {
      char text[255];
      const std::size_t length = FormatDouble(value._value.asDouble, Value::m_DoubleFormat, text, sizeof text);
      scalar(Value::XML_TAG_DOUBLE[set], {text, length}, Value::XML_ENDTAG_DOUBLE[set]);
      break;
    }
    case Value::TypeString:
      add(V);
      addEncoded(*value._value.asString);
      add(VEnd);
      break;
    case Value::TypeDateTime:
      time(*value._value.asTime);
      break;
    case Value::TypeBase64:
      binary(*value._value.asBinary);
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

template <int set>
template <typename Number>
inline void XmlWriter<set>::integer(std::string_view tag, Number number, std::string_view endTag) {
  using Magnitude = std::make_unsigned_t<Number>;
  constexpr std::size_t longest = 20;
  char* to = put(put(room(V.size() + tag.size() + longest + endTag.size() + VEnd.size()), V), tag);
  *to = '-';  // and stepped past only if it is meant: signs come in no order that a branch could follow
  to += number < 0 ? 1 : 0;
  const auto bits = static_cast<Magnitude>(number);
  to = std::to_chars(to, to + longest, number < 0 ? Magnitude{} - bits : bits).ptr;
  advanceTo(put(put(to, endTag), VEnd));
}

template <int set>
inline void XmlWriter<set>::scalar(std::string_view tag, std::string_view text, std::string_view endTag) {
  char* to = put(put(room(V.size() + tag.size() + text.size() + endTag.size() + VEnd.size()), V), tag);
  advanceTo(put(put(put(to, text), endTag), VEnd));
}

template <int set>
void XmlWriter<set>::addEncoded(std::string_view text) {
  constexpr std::size_t piece = 1024;
  for (; !text.empty(); text.remove_prefix(std::min(piece, text.size()))) {
    const std::string_view part = text.substr(0, piece);
    advanceTo(Encode(part, room(part.size() * LongestEntity + EncodingStep)));
  }
}

template <int set>
void XmlWriter<set>::time(const std::tm& time) {
  char text[TimeTextSize];
  const int length = std::snprintf(text, sizeof text, "%04d%02d%02dT%02d:%02d:%02d", time.tm_year, time.tm_mon,
                                   time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec);
  scalar(Value::XML_TAG_DATETIME[set], {text, static_cast<std::size_t>(length)}, Value::XML_ENDTAG_DATETIME[set]);
}

template <int set>
void XmlWriter<set>::binary(const Value::Binary& data) {
  add(V);
  add(Value::XML_TAG_BASE64[set]);
  constexpr std::size_t piece = 12288;  // of whole groups of three, and its text within one step of room
  for (std::size_t at = 0; at < data.size(); at += piece) {
    const std::size_t length = std::min(piece, data.size() - at);
    const std::size_t encoded = CBase64::EncodedLength(length);
    CBase64::EncodeTo(data.data() + at, length, room(encoded));
    _used += encoded;
  }
  add(Value::XML_ENDTAG_BASE64[set]);
  add(VEnd);
}

template <int set>
void XmlWriter<set>::array(const Value::Array& elements) {
  add(V);
  add(Value::XML_TAG_ARRAY[set]);
  add(Value::XML_TAG_DATA[set]);
  for (const Value& element : elements) write(element);
  add(Value::XML_ENDTAG_DATA[set]);
  add(Value::XML_ENDTAG_ARRAY[set]);
  add(VEnd);
}

template <int set>
void XmlWriter<set>::structure(const Value::Struct& members) {
  add(V);
  add(Value::XML_TAG_STRUCT[set]);
  for (const auto& member : members) {
    add(Value::XML_TAG_MEMBER[set]);
    add(Value::XML_TAG_NAME[set]);
    addEncoded(member.first);
    add(Value::XML_ENDTAG_NAME[set]);
    write(member.second);
    add(Value::XML_ENDTAG_MEMBER[set]);
  }
  add(Value::XML_ENDTAG_STRUCT[set]);
  add(VEnd);
}

/// What writing is expected to append, in bytes, the names of struct members left out.
std::uint64_t XmlRpcValue::expectedXml(int set) const {
  switch (_type) {
    case TypeBoolean:
      return booleanSize.size[set];
    case TypeInt:
      return intSize.size[set];
    case TypeInt64:
      return int64Size.size[set];
    case TypeDouble:
      return doubleSize.size[set];
    case TypeString:
      return stringSize.size[set] + 2 * _value.asString->size();
    case TypeDateTime:
      return timeSize.size[set];
    case TypeBase64:
      return binarySize.size[set] + 2 * _value.asBinary->size();
    case TypeArray: {
      std::uint64_t sum = arraySize.size[set];
      for (const XmlRpcValue& element : *_value.asArray) sum += element.expectedXml(set);
      return sum;
    }
    case TypeStruct: {
      std::uint64_t sum = structSize.size[set];
      for (const auto& member : *_value.asStruct) sum += member.second.expectedXml(set) + memberSize.size[set];
      return sum;
    }
    default:
      return otherSize;
  }
}

/// Appends this value's XML to `out`, which is empty.
template <int set>
void XmlRpcValue::appendXml(std::string& out) const {
  out.reserve(static_cast<std::size_t>(Hint(expectedXml(set))));
  XmlWriter<set> writer(out);
  writer.write(*this);
  writer.finish();
}

std::string XmlRpcValue::toXml(int format) const {
  std::string out;
  if (_type == TypeInvalid || _type > TypeInt64) return out;
  if (SetOf(format) == 1) {
    appendXml<1>(out);
  } else {
    appendXml<0>(out);
  }
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

int XmlRpcValue::toXmlSize(int set) const { return Hint(expectedXml(SetOf(set))); }
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
