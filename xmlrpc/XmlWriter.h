#pragma once

// The value writer. Internal to the library: programs use XmlRpcValue::toXml().

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string>
#include <string_view>

#include "xmlrpc/XmlRpcValue.h"

namespace TarnXmlRpc {

/// Writes the XML of one value, in one pass. A short text is written in here and copied once; a longer one is written
/// straight into the string that is given out, whose storage is reserved when it is known that it is needed.
template <int set>
class XmlWriter {
 public:
  // cppcheck-suppress uninitMemberVar ; _short is read as far as it is written
  explicit XmlWriter(const XmlRpcValue& root) : _root(root), _start(_short), _next(_short), _end(std::end(_short)) {}
  XmlWriter(const XmlWriter&) = delete;
  XmlWriter& operator=(const XmlWriter&) = delete;

  /// Empty for a value without a type. To be called once.
  std::string text();

 private:
  using Value = XmlRpcValue;

  void write(const XmlRpcValue& value);

  /// Where the next `size` bytes go.
  char* room(std::size_t size) {
    if (static_cast<std::size_t>(_end - _next) < size) grow(size);
    return _next;
  }
  void grow(std::size_t size);
  void reserve(std::size_t capacity);
  static char* put(char* to, std::string_view text) { return std::copy_n(text.data(), text.size(), to); }

  template <typename... Texts>
  void add(Texts... texts) {
    char* to = room((texts.size() + ...));
    ((to = put(to, texts)), ...);
    _next = to;
  }
  void addEncoded(std::string_view text);
  void scalar(Value::Type type, std::string_view text);
  template <typename Number>
  void number(Value::Type type, Number value);

  void content(bool value);
  void content(std::int32_t value);
  void content(long long value);
  void content(double value);
  void content(const std::string& value);
  void content(const std::tm& value);
  void content(const Value::Binary& data);
  void content(const Value::Array& elements);
  void content(const Value::Struct& members);

  static constexpr std::string_view VALUE = Value::XML_TAG_VALUE[set], VALUE_END = Value::XML_ENDTAG_VALUE[set];
  static constexpr std::string_view BASE64 = Value::XML_TAG_BASE64[set], BASE64_END = Value::XML_ENDTAG_BASE64[set];
  static constexpr std::string_view ARRAY = Value::XML_TAG_ARRAY[set], ARRAY_END = Value::XML_ENDTAG_ARRAY[set];
  static constexpr std::string_view DATA = Value::XML_TAG_DATA[set], DATA_END = Value::XML_ENDTAG_DATA[set];
  static constexpr std::string_view STRUCT = Value::XML_TAG_STRUCT[set], STRUCT_END = Value::XML_ENDTAG_STRUCT[set];
  static constexpr std::string_view MEMBER = Value::XML_TAG_MEMBER[set], MEMBER_END = Value::XML_ENDTAG_MEMBER[set];
  static constexpr std::string_view NAME = Value::XML_TAG_NAME[set], NAME_END = Value::XML_ENDTAG_NAME[set];

  const XmlRpcValue& _root;
  std::string _out;  // unused while the text is short
  char* _start;      // of what is written so far; and where it goes on, and where the room ends
  char* _next;
  char* _end;
  char _short[8192];
};

extern template class XmlWriter<0>;
extern template class XmlWriter<1>;

}  // namespace TarnXmlRpc
