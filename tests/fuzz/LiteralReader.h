#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "xmlrpc/XmlRpcUtil.h"
#include "xmlrpc/XmlRpcValue.h"

/// The reading rules of values, written down as plainly as they can be: step by step, with the public tag helpers, no
/// memory and no cleverness. Slow, in the worst case exponentially so: `values` bounds those it tries.
class LiteralReader {
 public:
  using Value = TarnXmlRpc::XmlRpcValue;
  using Util = TarnXmlRpc::XmlRpcUtil;

  struct Node {
    int type = Value::TypeInvalid;
    int set = 0;
    long long number = 0;
    double real = 0;
    std::string text;
    std::tm time = {};
    std::vector<char> bytes;
    std::vector<Node> elements;
    std::map<std::string, Node> members;
  };

  explicit LiteralReader(const std::string& text, int values = 20000) : xml(text), budget(values) {}

  bool tooDeep = false;  // the document is refused whole
  bool tooLong = false;  // the budget is used up: no verdict

  bool read(Node& node, int* offset) {
    const int start = *offset;
    if (value(node, offset, 1) && !tooDeep) return true;
    *offset = start;
    node = Node();
    return false;
  }

  /// Whether `value` holds what `node` says, all the way down.
  static bool same(const Node& node, const Value& value) {
    if (node.type != value.getType() || node.set != value.getTagSet()) return false;
    switch (node.type) {
      case Value::TypeBoolean:
        return value.getBool() == (node.number != 0);
      case Value::TypeInt:
        return value.getInt() == static_cast<int>(node.number);
      case Value::TypeInt64:
        return value.getInt64() == node.number;
      case Value::TypeDouble:
        return sameDouble(value.getDouble(), node.real);
      case Value::TypeString:
        return value.getString() == node.text;
      case Value::TypeDateTime:
        return sameTime(value.getDateTime(), node.time);
      case Value::TypeBase64:
        return value.getBinaryData() == node.bytes;
      case Value::TypeArray:
        return sameElements(node, value);
      case Value::TypeStruct:
        return sameMembers(node, value);
      default:
        return true;
    }
  }

  static std::vector<char> decodeBase64(const std::string& text) {
    static const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::vector<char> bytes;
    if (text.size() % 4 != 0) return bytes;
    for (std::size_t i = 0; i < text.size(); i += 4) {
      if (text[i] == '=' || text[i + 1] == '=') continue;
      std::size_t c[4] = {};
      std::vector<char> group;
      for (std::size_t k = 0; k < 4; ++k) {
        if (k >= 2 && text[i + k] == '=') break;
        c[k] = alphabet.find(text[i + k]);
        if (c[k] == std::string::npos) return bytes;
        if (k == 1) group.push_back(static_cast<char>((c[0] << 2) | (c[1] >> 4)));
        if (k == 2) group.push_back(static_cast<char>((c[1] << 4) | (c[2] >> 2)));
        if (k == 3) group.push_back(static_cast<char>((c[2] << 6) | c[3]));
      }
      bytes.insert(bytes.end(), group.begin(), group.end());
    }
    return bytes;
  }

 private:
  const std::string& xml;
  int budget;

  const char* rest(int offset) const { return xml.c_str() + offset; }

  bool value(Node& node, int* offset, int depth) {
    if (tooDeep || tooLong) return false;
    if (--budget < 0) tooLong = true;
    const int start = *offset;
    node = Node();
    if (!Util::nextTagIs("<value>", xml, offset)) {
      if (!Util::nextTagIs("<va>", xml, offset)) return false;
      node.set = 1;
    }
    if (depth > Value::MaximumDepth) tooDeep = true;
    const int afterTag = *offset;
    const std::string tag = Util::getNextTag(xml, offset);
    if (!tooDeep && !tooLong && content(node, tag, afterTag, offset, depth)) {
      Util::findTag(Value::XML_ENDTAG_VALUE[node.set], xml, offset);
      return true;
    }
    *offset = start;
    node = Node();
    return false;
  }

  bool content(Node& node, const std::string& tag, int afterTag, int* offset, int depth) {
    const int set = node.set;
    if (tag == Value::XML_TAG_BOOLEAN[set]) return boolean(node, offset);
    if (tag == Value::XML_TAG_I4[set]) return integer(node, Value::TypeInt, offset);
    if (tag == Value::XML_TAG_INT[set]) return integer(node, Value::TypeInt, offset);
    if (tag == Value::XML_TAG_I8[set]) return integer(node, Value::TypeInt64, offset);
    if (tag == Value::XML_TAG_DOUBLE[set]) return real(node, offset);
    if (tag.empty()) return string(node, offset);
    if (tag == Value::XML_TAG_STRING[set]) return string(node, offset);
    if (tag == Value::XML_TAG_DATETIME[set]) return time(node, offset);
    if (tag == Value::XML_TAG_BASE64[set]) return binary(node, offset);
    if (tag == Value::XML_TAG_ARRAY[set]) return array(node, offset, depth);
    if (tag == Value::XML_TAG_STRUCT[set]) return structure(node, offset, depth);
    if (tag == Value::XML_ENDTAG_VALUE[set]) {
      *offset = afterTag;
      return string(node, offset);
    }
    return false;
  }

  bool number(long long* result, int* offset) {
    char* end = nullptr;
    *result = std::strtoll(rest(*offset), &end, 10);
    if (end == rest(*offset)) return false;
    *offset = static_cast<int>(end - xml.c_str());
    return true;
  }

  bool boolean(Node& node, int* offset) {
    if (!number(&node.number, offset) || (node.number != 0 && node.number != 1)) return false;
    node.type = Value::TypeBoolean;
    return true;
  }

  bool integer(Node& node, Value::Type type, int* offset) {
    if (!number(&node.number, offset)) return false;
    if (type == Value::TypeInt) node.number = static_cast<int>(static_cast<unsigned>(node.number & 0xffffffffLL));
    node.type = type;
    return true;
  }

  bool real(Node& node, int* offset) {
    if (strcasecmp("nan", rest(*offset)) < 0) {
      node.real = std::strtod("nan", nullptr);
      *offset += 3;
    } else {
      char* end = nullptr;
      node.real = std::strtod(rest(*offset), &end);
      if (end == rest(*offset)) return false;
      *offset = static_cast<int>(end - xml.c_str());
    }
    node.type = Value::TypeDouble;
    return true;
  }

  /// The text up to the next "<".
  bool upToLess(std::string* text, int offset) const {
    const std::size_t less = xml.find('<', static_cast<std::size_t>(offset));
    if (less == std::string::npos) return false;
    *text = xml.substr(static_cast<std::size_t>(offset), less - static_cast<std::size_t>(offset));
    return true;
  }

  bool string(Node& node, int* offset) {
    std::string text;
    if (!upToLess(&text, *offset)) return false;
    node.text = Util::xmlDecode(text);
    *offset += static_cast<int>(node.text.size());
    node.type = Value::TypeString;
    return true;
  }

  bool time(Node& node, int* offset) {
    std::string text;
    if (!upToLess(&text, *offset)) return false;
    std::tm& t = node.time;
    if (std::sscanf(text.c_str(), "%4d%2d%2dT%2d:%2d:%2d", &t.tm_year, &t.tm_mon, &t.tm_mday, &t.tm_hour, &t.tm_min,
                    &t.tm_sec) != 6) {
      return false;
    }
    t.tm_isdst = -1;
    *offset += static_cast<int>(text.size());
    node.type = Value::TypeDateTime;
    return true;
  }

  bool binary(Node& node, int* offset) {
    std::string text;
    if (!upToLess(&text, *offset)) return false;
    node.bytes = decodeBase64(text.c_str());
    *offset += static_cast<int>(text.size());
    node.type = Value::TypeBase64;
    return true;
  }

  bool array(Node& node, int* offset, int depth) {
    const char* data = Value::XML_TAG_DATA[node.set];
    if (!Util::nextTagIs(data, xml, offset, true)) {
      if (!Util::nextTagIs(data, xml, offset)) return false;
      Node element;
      while (value(element, offset, depth + 1)) node.elements.push_back(element);
      Util::nextTagIs(Value::XML_ENDTAG_DATA[node.set], xml, offset);
    }
    node.type = Value::TypeArray;
    return true;
  }

  bool structure(Node& node, int* offset, int depth) {
    while (Util::nextTagIs(Value::XML_TAG_MEMBER[node.set], xml, offset)) {
      const std::string name = Util::parseTag(Value::XML_TAG_NAME[node.set], xml, offset);
      Node member;
      if (!value(member, offset, depth + 1)) return false;
      node.members.emplace(name, member);
      Util::nextTagIs(Value::XML_ENDTAG_MEMBER[node.set], xml, offset);
    }
    node.type = Value::TypeStruct;
    return true;
  }

  static bool sameDouble(double a, double b) { return (a != a && b != b) || std::memcmp(&a, &b, sizeof a) == 0; }

  static bool sameTime(const std::tm& a, const std::tm& b) {
    return a.tm_year == b.tm_year && a.tm_mon == b.tm_mon && a.tm_mday == b.tm_mday && a.tm_hour == b.tm_hour &&
           a.tm_min == b.tm_min && a.tm_sec == b.tm_sec && a.tm_isdst == b.tm_isdst && a.tm_wday == 0 && a.tm_yday == 0;
  }

  static bool sameElements(const Node& node, const Value& value) {
    if (value.size() != static_cast<int>(node.elements.size())) return false;
    for (int i = 0; i < value.size(); ++i) {
      if (!same(node.elements[static_cast<std::size_t>(i)], value[i])) return false;
    }
    return true;
  }

  static bool sameMembers(const Node& node, const Value& value) {
    if (value.size() != static_cast<int>(node.members.size())) return false;
    for (const auto& member : node.members) {
      Value found;
      if (!value.getMember(member.first, found) || !same(member.second, found)) return false;
    }
    return true;
  }
};
