#include "xmlrpc/XmlWriter.h"

#include <string_view>
#include <utility>

#include "xmlrpc/CBase64.h"
#include "xmlrpc/ValueTypes.h"
#include "xmlrpc/XmlNumbers.h"
#include "xmlrpc/XmlSize.h"
#include "xmlrpc/XmlText.h"

namespace TarnXmlRpc {

namespace {

constexpr std::size_t TEXT_PIECE = 96;  // so that the room asked for is never far beyond what is needed
constexpr std::size_t TEXT_ROOM = TEXT_PIECE * LONGEST_ENTITY + ENCODING_STEP;

}  // namespace

template <int set>
void XmlWriter<set>::reserve(std::size_t capacity) {
  const auto used = static_cast<std::size_t>(_next - _start);
  std::string larger;
  larger.reserve(capacity);
  larger.assign(_start, used);
  _out.swap(larger);
}

/// In steps that stay small beside the text, since each is zeroed before it is written.
template <int set>
void XmlWriter<set>::grow(std::size_t size) {
  constexpr std::size_t step = 32768;
  const auto used = static_cast<std::size_t>(_next - _start);
  if (_start == _short || _out.capacity() - used < size) {
    XmlSize whole(set, _start == _short ? XmlSize::Sampled : XmlSize::Complete);
    whole.add(_root);
    reserve(std::max(whole.expected() + TEXT_ROOM, used + used / 8 + size));
  }
  _out.resize(std::min(_out.capacity(), used + std::max(size, step)));
  _start = _out.data();
  _next = _start + used;
  _end = _start + _out.size();
}

template <int set>
std::string XmlWriter<set>::text() {
  write(_root);
  const auto used = static_cast<std::size_t>(_next - _start);
  if (_start == _short) return std::string(_short, used);
  _out.resize(used);
  return std::move(_out);
}

template <int set>
void XmlWriter<set>::write(const XmlRpcValue& value) {
  value.visit([this](const auto& stored) { this->content(stored); });
}

template <int set>
void XmlWriter<set>::addEncoded(std::string_view text) {
  for (; !text.empty(); text.remove_prefix(std::min(TEXT_PIECE, text.size()))) {
    _next = Encode(text.substr(0, TEXT_PIECE), room(TEXT_ROOM));
  }
}

template <int set>
inline void XmlWriter<set>::scalar(Value::Type type, std::string_view text) {
  const std::string_view tag = RowOf(type).tag[set], endTag = RowOf(type).endTag[set];
  add(VALUE, tag, text, endTag, VALUE_END);
}

template <int set>
template <typename Number>
inline void XmlWriter<set>::number(Value::Type type, Number value) {
  const std::string_view tag = RowOf(type).tag[set], endTag = RowOf(type).endTag[set];
  char* to = put(put(room(VALUE.size() + tag.size() + NUMBER_ROOM + endTag.size() + VALUE_END.size()), VALUE), tag);
  _next = put(put(PutNumber(value, to), endTag), VALUE_END);
}

template <int set>
inline void XmlWriter<set>::content(bool value) {
  scalar(Value::TypeBoolean, value ? "1" : "0");
}

template <int set>
inline void XmlWriter<set>::content(std::int32_t value) {
  number(Value::TypeInt, value);
}

template <int set>
inline void XmlWriter<set>::content(long long value) {
  number(Value::TypeInt64, value);
}

template <int set>
inline void XmlWriter<set>::content(double value) {
  if (Value::m_DoubleFormat == DEFAULT_DOUBLE_FORMAT) return number(Value::TypeDouble, value);
  char text[255];
  const std::size_t length = FormatDouble(value, Value::m_DoubleFormat, text, sizeof text);
  scalar(Value::TypeDouble, {text, length});
}

template <int set>
inline void XmlWriter<set>::content(const std::string& value) {
  add(VALUE);
  addEncoded(value);
  add(VALUE_END);
}

template <int set>
void XmlWriter<set>::content(const std::tm& value) {
  char text[TIME_TEXT_SIZE];
  const std::size_t length = FormatTime(value, text);
  scalar(Value::TypeDateTime, {text, length});
}

template <int set>
void XmlWriter<set>::content(const Value::Binary& data) {
  add(VALUE, BASE64);
  constexpr std::size_t piece = 12288;  // of whole groups of three, and its text within one step of room
  for (std::size_t at = 0; at < data.size(); at += piece) {
    const std::size_t length = std::min(piece, data.size() - at);
    const std::size_t encoded = CBase64::EncodedLength(length);
    CBase64::EncodeTo(data.data() + at, length, room(encoded));
    _next += encoded;
  }
  add(BASE64_END, VALUE_END);
}

template <int set>
void XmlWriter<set>::content(const Value::Array& elements) {
  add(VALUE, ARRAY, DATA);
  constexpr std::size_t ahead = 2048;  // bytes: what was read together lies together, the parts of elements too
  for (const Value& element : elements) {
    __builtin_prefetch(reinterpret_cast<const char*>(&element) + ahead);
    write(element);
  }
  add(DATA_END, ARRAY_END, VALUE_END);
}

template <int set>
void XmlWriter<set>::content(const Value::Struct& members) {
  add(VALUE, STRUCT);
  for (const auto& member : members) {
    add(MEMBER, NAME);
    addEncoded(member.first);
    add(NAME_END);
    write(member.second);
    add(MEMBER_END);
  }
  add(STRUCT_END, VALUE_END);
}

template class XmlWriter<0>;
template class XmlWriter<1>;

}  // namespace TarnXmlRpc
