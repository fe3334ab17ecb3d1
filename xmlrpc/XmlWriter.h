#pragma once

// The value writer. Internal to the library: programs use XmlRpcValue::toXml().

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

#include "xmlrpc/XmlRpcValue.h"

namespace TarnXmlRpc {

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
  void scalar(Value::Type type, std::string_view text);
  template <typename Number>
  void integer(Value::Type type, Number number);

  void content(bool value);
  void content(std::int32_t value);
  void content(long long value);
  void content(double value);
  void content(const std::string& value);
  void content(const std::tm& value);
  void content(const Value::Binary& data);
  void content(const Value::Array& elements);
  void content(const Value::Struct& members);

  static constexpr std::string_view VALUE = Value::XML_TAG_VALUE[set];
  static constexpr std::string_view VALUE_END = Value::XML_ENDTAG_VALUE[set];

  std::string& _out;
  std::size_t _used;
};

extern template class XmlWriter<0>;
extern template class XmlWriter<1>;

}  // namespace TarnXmlRpc
