#include "xmlrpc/XmlSize.h"

#include <string_view>

#include "xmlrpc/CBase64.h"
#include "xmlrpc/ValueTypes.h"
#include "xmlrpc/XmlNumbers.h"
#include "xmlrpc/XmlText.h"

namespace TarnXmlRpc {

namespace {

using Value = XmlRpcValue;

constexpr std::size_t LengthOf(const char* tag) { return std::string_view(tag).size(); }

/// All tags around the content of a value.
constexpr std::size_t TagsOf(Value::Type type, int set) {
  const std::size_t outer = LengthOf(Value::XML_TAG_VALUE[set]) + LengthOf(Value::XML_ENDTAG_VALUE[set]);
  if (type == Value::TypeString) return outer;
  const std::size_t own = outer + LengthOf(RowOf(type).tag[set]) + LengthOf(RowOf(type).endTag[set]);
  if (type != Value::TypeArray) return own;
  return own + LengthOf(Value::XML_TAG_DATA[set]) + LengthOf(Value::XML_ENDTAG_DATA[set]);
}

struct Tags {
  std::size_t ofType[std::size(VALUE_TYPES)];
  std::size_t ofMember;
};
constexpr Tags MakeTags(int set) {
  Tags tags{};
  for (const ValueType& row : VALUE_TYPES) tags.ofType[row.type - 1] = TagsOf(row.type, set);
  tags.ofMember = LengthOf(Value::XML_TAG_MEMBER[set]) + LengthOf(Value::XML_TAG_NAME[set]) +
                  LengthOf(Value::XML_ENDTAG_NAME[set]) + LengthOf(Value::XML_ENDTAG_MEMBER[set]);
  return tags;
}
constexpr Tags TAGS[2] = {MakeTags(0), MakeTags(1)};

/// At most one more than it takes.
std::size_t IntegerSize(long long number) {
  const bool negative = number < 0;
  const auto bits = static_cast<unsigned long long>(negative ? ~number : number);
  const auto count = static_cast<std::size_t>(64 - __builtin_clzll(bits | 1));
  constexpr std::size_t log2 = 1233;  // of 10, times 4096
  return count * log2 / 4096 + 1 + (negative ? 1 : 0);
}

std::size_t DoubleSize(double number) {
  char text[255];
  return FormatDouble(number, Value::m_DoubleFormat, text, sizeof text);
}

std::size_t TimeSize(const std::tm& time) {
  char text[TIME_TEXT_SIZE];
  return FormatTime(time, text);
}

constexpr std::size_t MANY = 4096;
constexpr double MARGIN = 1.03;

bool IsNumber(Value::Type type) {
  return type == Value::TypeInt || type == Value::TypeDouble || type == Value::TypeInt64 || type == Value::TypeBoolean;
}

}  // namespace

std::size_t SampledSize::expected() const {
  if (_skipped == 0) return _becomes;
  const double each = static_cast<double>(_becomes + 1) / static_cast<double>(_measured + 1);
  return _becomes + static_cast<std::size_t>(static_cast<double>(_skipped) * each * MARGIN);
}

std::size_t XmlSize::expected() const { return _size + _doubles.expected() + _times.expected() + _texts.expected(); }

void XmlSize::addText(std::string_view text) {
  constexpr std::size_t longText = 256;
  if (text.size() >= longText) {
    _size += EncodedLength(text);
  } else {
    _texts.add(text.size(), [=] { return EncodedLength(text); });
  }
}

/// False, with nothing added, if that is not how they look. Reading all of them would fetch as much memory as writing
/// their text.
bool XmlSize::addNumbers(const std::vector<Value>& elements) {
  constexpr std::size_t block = 64;
  XmlSize some(_set, Complete);
  Chance chance;
  std::size_t count = 0;
  for (std::size_t at = 0; at + block <= elements.size(); at += chance.upTo(16) * block, count += block) {
    for (std::size_t i = at; i < at + block; ++i) {
      if (!IsNumber(elements[i]._type)) return false;
      some.add(elements[i]);
    }
  }
  const double each = static_cast<double>(some.expected()) / static_cast<double>(count);
  _size += static_cast<std::size_t>(static_cast<double>(elements.size()) * each * MARGIN);
  return true;
}

void XmlSize::add(const Value& value) {
  if (!HasRow(value._type)) return;
  _size += TAGS[_set].ofType[value._type - 1];
  switch (value._type) {
    case Value::TypeBoolean:
      ++_size;
      return;
    case Value::TypeInt:
      _size += IntegerSize(value._value.asInt);
      return;
    case Value::TypeInt64:
      _size += IntegerSize(value._value.asInt64);
      return;
    case Value::TypeDouble:
      _doubles.add(1, [&] { return DoubleSize(value._value.asDouble); });
      return;
    case Value::TypeString:
      addText(*value._value.asString);
      return;
    case Value::TypeDateTime:
      _times.add(1, [&] { return TimeSize(*value._value.asTime); });
      return;
    case Value::TypeBase64:
      _size += CBase64::EncodedLength(value._value.asBinary->size());
      return;
    case Value::TypeArray:
      if (_care == Sampled && value._value.asArray->size() >= MANY && addNumbers(*value._value.asArray)) return;
      for (const Value& element : *value._value.asArray) {
        if (element._type == Value::TypeInt) {  // without a call
          _size += TAGS[_set].ofType[Value::TypeInt - 1] + IntegerSize(element._value.asInt);
        } else {
          add(element);
        }
      }
      return;
    case Value::TypeStruct:
      for (const auto& member : *value._value.asStruct) {
        _size += TAGS[_set].ofMember;
        addText(member.first);
        add(member.second);
      }
      return;
    default:
      return;
  }
}

}  // namespace TarnXmlRpc
