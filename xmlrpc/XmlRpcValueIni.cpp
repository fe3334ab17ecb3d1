#include <algorithm>
#include <cstdio>

#include "xmlrpc/XmlRpcValue.h"
#include "xmlrpc/XmlScan.h"

namespace TarnXmlRpc {

namespace {

constexpr std::size_t numberSize = 19;  // longer numbers are cut to 18 characters

/// The block of `section`: the first one in which its text occurs anywhere, in a line too, so that members of an inner
/// section may join an outer one's block; a new one where there is none.
std::string& BlockOf(std::vector<std::string>& blocks, const std::string& section) {
  const auto found = std::find_if(blocks.begin(), blocks.end(),
                                  [&](const std::string& block) { return block.find(section) != std::string::npos; });
  if (found != blocks.end()) return *found;
  blocks.push_back("[" + section + "]\n");
  return blocks.back();
}

}  // namespace

/// The text of a scalar in an INI line; false for a value that is none.
bool XmlRpcValue::iniText(std::string& text) const {
  char number[numberSize] = "";
  switch (_type) {
    case TypeBoolean:
      text = _value.asBool ? "1" : "0";
      return true;
    case TypeInt:
      text = std::to_string(_value.asInt);
      return true;
    case TypeInt64:
      text = std::to_string(_value.asInt64).substr(0, numberSize - 1);
      return true;
    case TypeDouble:
      FormatDouble(_value.asDouble, m_DoubleFormat, number, sizeof number);
      text = number;
      return true;
    case TypeString:
      text = *_value.asString;
      return true;
    case TypeDateTime: {
      char time[TimeTextSize];
      FormatStandardTime(*_value.asTime, time);
      text = std::string(time) + " (DD.MM.YYYY HH:MM:SS)";
      return true;
    }
    default:
      return false;
  }
}

bool XmlRpcValue::toINIFormat(std::vector<std::string>& blocks, const char* section, const char* key) const {
  const std::string sectionText = section == nullptr ? "" : section;
  const std::string keyText = key == nullptr ? "" : key;
  const std::string effectiveKey = keyText.empty() ? "Value" : keyText;
  bool rendered = _type != TypeBase64;
  std::string text;
  if (iniText(text)) {
    BlockOf(blocks, sectionText).append(effectiveKey).append("=").append(text).append("\n");
  } else if (_type == TypeArray) {
    for (std::size_t i = 0; i < _value.asArray->size(); ++i) {
      const std::string elementKey = effectiveKey + "|" + std::to_string(i) + "|";
      rendered = (*_value.asArray)[i].toINIFormat(blocks, sectionText.c_str(), elementKey.c_str()) && rendered;
    }
  } else if (_type == TypeStruct) {
    const std::string memberSection = keyText.empty() ? sectionText : sectionText + "." + keyText;
    for (const auto& member : *_value.asStruct) {
      rendered = member.second.toINIFormat(blocks, memberSection.c_str(), member.first.c_str()) && rendered;
    }
  }
  return rendered;
}

bool XmlRpcValue::toINIFormat(std::string& out, const char* section, const char* key) {
  out.clear();
  iniLines = std::make_unique<std::vector<std::string>>();
  if (_type == TypeInvalid) return false;
  const bool rendered = toINIFormat(*iniLines, section, key);
  for (const std::string& block : *iniLines) out += block;
  return rendered;
}

bool XmlRpcValue::fromINIFormat(const std::string&) { return false; }

}  // namespace TarnXmlRpc
