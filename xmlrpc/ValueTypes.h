#pragma once

// What the library knows of each type of value. Internal to the library. A type is added by an enumerator, a row of the
// table and a case of withStored(); the compiler then names the rest: each place that does something with what a value
// holds has one function for each type.

#include <cstddef>
#include <iterator>

#include "xmlrpc/XmlRpcValue.h"

namespace TarnXmlRpc {

struct ValueType {
  XmlRpcValue::Type type;
  const char* name;        // in dumps
  const char* const* tag;  // by tag set, as are the next two
  const char* const* endTag;
  std::size_t overhead[2];  // what writing is expected to cost around the content, in bytes
};

/// In the order of their numbers, so that each is found by its own.
inline constexpr ValueType VALUE_TYPES[] = {
    {XmlRpcValue::TypeBoolean, "TypeBoolean", XmlTags::XML_TAG_BOOLEAN, XmlTags::XML_ENDTAG_BOOLEAN, {40, 24}},
    {XmlRpcValue::TypeInt, "TypeInt", XmlTags::XML_TAG_I4, XmlTags::XML_ENDTAG_I4, {41, 35}},
    {XmlRpcValue::TypeDouble, "TypeDouble", XmlTags::XML_TAG_DOUBLE, XmlTags::XML_ENDTAG_DOUBLE, {293, 279}},
    {XmlRpcValue::TypeString, "TypeString", XmlTags::XML_TAG_STRING, XmlTags::XML_ENDTAG_STRING, {18, 12}},
    {XmlRpcValue::TypeDateTime, "TypeDateTime", XmlTags::XML_TAG_DATETIME, XmlTags::XML_ENDTAG_DATETIME, {77, 49}},
    {XmlRpcValue::TypeBase64, "TypeBase64", XmlTags::XML_TAG_BASE64, XmlTags::XML_ENDTAG_BASE64, {37, 25}},
    {XmlRpcValue::TypeArray, "TypeArray", XmlTags::XML_TAG_ARRAY, XmlTags::XML_ENDTAG_ARRAY, {50, 34}},
    {XmlRpcValue::TypeStruct, "TypeStruct", XmlTags::XML_TAG_STRUCT, XmlTags::XML_ENDTAG_STRUCT, {37, 23}},
    {XmlRpcValue::TypeInt64, "TypeInt64", XmlTags::XML_TAG_I8, XmlTags::XML_ENDTAG_I8, {51, 45}}};

/// Not so for TypeInvalid and for numbers that are no type.
constexpr bool HasRow(XmlRpcValue::Type type) {
  return type > XmlRpcValue::TypeInvalid && static_cast<std::size_t>(type) <= std::size(VALUE_TYPES);
}
constexpr const ValueType& RowOf(XmlRpcValue::Type type) { return VALUE_TYPES[type - 1]; }

/// What is kept in place, or what a pointer owns.
template <typename T>
T& Stored(T& inPlace) {
  return inPlace;
}
template <typename T>
T& Stored(T*& owned) {
  return *owned;
}
template <typename T>
const T& Stored(T* const& owned) {
  return *owned;
}

/// Gives `action` the member of Storage in which a value of type `t` keeps what it holds: that itself, or a pointer to
/// what the value owns. Not called where there is none.
template <typename Action>
[[gnu::always_inline]] inline void XmlRpcValue::withStored(Type t, const Action& action) {
  switch (t) {
    case TypeInvalid:
      return;
    case TypeBoolean:
      return action(&Storage::asBool);
    case TypeInt:
      return action(&Storage::asInt);
    case TypeDouble:
      return action(&Storage::asDouble);
    case TypeString:
      return action(&Storage::asString);
    case TypeDateTime:
      return action(&Storage::asTime);
    case TypeBase64:
      return action(&Storage::asBinary);
    case TypeArray:
      return action(&Storage::asArray);
    case TypeStruct:
      return action(&Storage::asStruct);
    case TypeInt64:
      return action(&Storage::asInt64);
  }
}

/// Gives `action` what the value holds.
template <typename Action>
[[gnu::always_inline]] inline void XmlRpcValue::visit(const Action& action) const {
  withStored(_type, [&](auto member) { action(Stored(_value.*member)); });
}

}  // namespace TarnXmlRpc
