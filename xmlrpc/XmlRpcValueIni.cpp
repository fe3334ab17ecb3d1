#include <algorithm>

#include "xmlrpc/ValueTypes.h"
#include "xmlrpc/XmlNumbers.h"

namespace TarnXmlRpc {

namespace {

constexpr std::size_t NUMBER_SIZE = 19;  // longer numbers are cut to 18 characters

/// The block of `section`: the first one in which its text occurs anywhere, in a line too, so that members of an inner
/// section may join an outer one's block; a new one where there is none.
std::string& BlockOf(std::vector<std::string>& blocks, const std::string& section) {
  const auto found = std::find_if(blocks.begin(), blocks.end(),
                                  [&](const std::string& block) { return block.find(section) != std::string::npos; });
  if (found != blocks.end()) return *found;
  blocks.push_back("[" + section + "]\n");
  return blocks.back();
}

/// Renders one value into its section: scalars as a line, arrays and structs part by part. False if anything in it has
/// no INI form.
struct IniRenderer {
  std::vector<std::string>& blocks;
  const std::string& section;
  const std::string& key;  // as given; "Value" stands for an empty one

  bool line(const std::string& text) const {
    BlockOf(blocks, section).append(effectiveKey()).append("=").append(text).append("\n");
    return true;
  }
  std::string effectiveKey() const { return key.empty() ? "Value" : key; }

  bool render(bool value) const { return line(value ? "1" : "0"); }
  bool render(std::int32_t value) const { return line(std::to_string(value)); }
  bool render(long long value) const { return line(std::to_string(value).substr(0, NUMBER_SIZE - 1)); }
  bool render(double value) const {
    char number[NUMBER_SIZE];
    FormatDouble(value, XmlRpcValue::m_DoubleFormat, number, sizeof number);
    return line(number);
  }
  bool render(const std::string& value) const { return line(value); }
  bool render(const std::tm& value) const {
    char time[TIME_TEXT_SIZE];
    FormatStandardTime(value, time);
    return line(std::string(time) + " (DD.MM.YYYY HH:MM:SS)");
  }
  bool render(const std::vector<char>&) const { return false; }
  bool render(const std::vector<XmlRpcValue>& elements) const {
    bool rendered = true;
    for (std::size_t i = 0; i < elements.size(); ++i) {
      const std::string elementKey = effectiveKey() + "|" + std::to_string(i) + "|";
      rendered = elements[i].toINIFormat(blocks, section.c_str(), elementKey.c_str()) && rendered;
    }
    return rendered;
  }
  bool render(const std::map<std::string, XmlRpcValue>& members) const {
    const std::string memberSection = key.empty() ? section : section + "." + key;
    bool rendered = true;
    for (const auto& member : members) {
      rendered = member.second.toINIFormat(blocks, memberSection.c_str(), member.first.c_str()) && rendered;
    }
    return rendered;
  }
};

}  // namespace

bool XmlRpcValue::toINIFormat(std::vector<std::string>& blocks, const char* section, const char* key) const {
  const std::string sectionText = section == nullptr ? "" : section;
  const std::string keyText = key == nullptr ? "" : key;
  bool rendered = true;
  visit([&](const auto& stored) { rendered = IniRenderer{blocks, sectionText, keyText}.render(stored); });
  return rendered;
}

bool XmlRpcValue::toINIFormat(std::string& out, const char* section, const char* key) {
  out.clear();
  _iniLines = std::make_unique<std::vector<std::string>>();
  if (_type == TypeInvalid) return false;
  const bool rendered = toINIFormat(*_iniLines, section, key);
  for (const std::string& block : *_iniLines) out += block;
  return rendered;
}

bool XmlRpcValue::fromINIFormat(const std::string&) { return false; }

}  // namespace TarnXmlRpc
