#include "xmlrpc/XmlWriter.h"

#include <charconv>
#include <type_traits>
#include <utility>

#include "xmlrpc/CBase64.h"
#include "xmlrpc/ValueTypes.h"
#include "xmlrpc/XmlNumbers.h"
#include "xmlrpc/XmlSize.h"
#include "xmlrpc/XmlText.h"

namespace TarnXmlRpc {

namespace {

constexpr std::size_t TEXT_PIECE = 96;  // so that the room asked for is never far beyond what is needed

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
  if (_start == _short) {
    XmlSize whole(set);
    whole.add(_root);
    reserve(std::max(whole.expected() + TEXT_PIECE * LONGEST_ENTITY + ENCODING_STEP, used + size));
  } else if (_out.capacity() - used < size) {
    reserve(std::max(used + used / 8, used + size));
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
    const std::string_view part = text.substr(0, TEXT_PIECE);
    _next = Encode(part, room(part.size() * LONGEST_ENTITY + ENCODING_STEP));
  }
}

template <int set>
inline void XmlWriter<set>::scalar(Value::Type type, std::string_view text) {
  const std::string_view tag = RowOf(type).tag[set], endTag = RowOf(type).endTag[set];
  char* to = put(put(room(VALUE.size() + tag.size() + text.size() + endTag.size() + VALUE_END.size()), VALUE), tag);
  _next = put(put(put(to, text), endTag), VALUE_END);
}

template <int set>
template <typename Number>
inline void XmlWriter<set>::integer(Value::Type type, Number number) {
  using Magnitude = std::make_unsigned_t<Number>;
  constexpr std::size_t longest = 20;
  const std::string_view tag = RowOf(type).tag[set], endTag = RowOf(type).endTag[set];
  char* to = put(put(room(VALUE.size() + tag.size() + longest + endTag.size() + VALUE_END.size()), VALUE), tag);
  *to = '-';  // and stepped past only if it is meant: signs come in no order that a branch could follow
  to += number < 0 ? 1 : 0;
  const auto bits = static_cast<Magnitude>(number);
  to = std::to_chars(to, to + longest, number < 0 ? Magnitude{} - bits : bits).ptr;
  _next = put(put(to, endTag), VALUE_END);
}

template <int set>
inline void XmlWriter<set>::content(bool value) {
  scalar(Value::TypeBoolean, value ? "1" : "0");
}

template <int set>
inline void XmlWriter<set>::content(std::int32_t value) {
  integer(Value::TypeInt, value);
}

template <int set>
inline void XmlWriter<set>::content(long long value) {
  integer(Value::TypeInt64, value);
}

template <int set>
inline void XmlWriter<set>::content(double value) {
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
  add(VALUE);
  add(Value::XML_TAG_BASE64[set]);
  constexpr std::size_t piece = 12288;  // of whole groups of three, and its text within one step of room
  for (std::size_t at = 0; at < data.size(); at += piece) {
    const std::size_t length = std::min(piece, data.size() - at);
    const std::size_t encoded = CBase64::EncodedLength(length);
    CBase64::EncodeTo(data.data() + at, length, room(encoded));
    _next += encoded;
  }
  add(Value::XML_ENDTAG_BASE64[set]);
  add(VALUE_END);
}

template <int set>
void XmlWriter<set>::content(const Value::Array& elements) {
  add(VALUE);
  add(Value::XML_TAG_ARRAY[set]);
  add(Value::XML_TAG_DATA[set]);
  for (const Value& element : elements) write(element);
  add(Value::XML_ENDTAG_DATA[set]);
  add(Value::XML_ENDTAG_ARRAY[set]);
  add(VALUE_END);
}

template <int set>
void XmlWriter<set>::content(const Value::Struct& members) {
  add(VALUE);
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
  add(VALUE_END);
}

template class XmlWriter<0>;
template class XmlWriter<1>;

}  // namespace TarnXmlRpc
