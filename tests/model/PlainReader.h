#pragma once

#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/model/PlainValue.h"

// The scanning of tags, step by step. `at` is moved only by success; past the end nothing is found.

inline void PlainSkipBlanks(const std::string& xml, std::size_t& at) {
  while (at < xml.size() && std::string(" \t\n\v\f\r").find(xml[at]) != std::string::npos) ++at;
}

inline bool PlainNextTagIs(const std::string& tag, const std::string& xml, std::size_t& at) {
  std::size_t start = at;
  PlainSkipBlanks(xml, start);
  if (start >= xml.size() || xml.compare(start, tag.size(), tag) != 0) return false;
  at = start + tag.size();
  return true;
}

/// The same for "<tag/>", with blanks before the slash or without.
inline bool PlainEmptyTagIs(const std::string& tag, const std::string& xml, std::size_t& at) {
  std::size_t end = at;
  if (tag.empty() || !PlainNextTagIs(tag.substr(0, tag.size() - 1), xml, end)) return false;
  PlainSkipBlanks(xml, end);
  if (xml.compare(end, 2, "/" + tag.substr(tag.size() - 1)) != 0) return false;
  at = end + 2;
  return true;
}

inline bool PlainFindTag(const std::string& tag, const std::string& xml, std::size_t& at) {
  const std::size_t found = at > xml.size() ? std::string::npos : xml.find(tag, at);
  if (found == std::string::npos) return false;
  at = found + tag.size();
  return true;
}

inline std::string PlainParseTag(const std::string& tag, const std::string& xml, std::size_t& at) {
  std::size_t start = at;
  if (tag.empty() || !PlainFindTag(tag, xml, start)) return "";
  std::size_t end = start;
  if (!PlainFindTag("</" + tag.substr(1), xml, end)) return "";
  at = end;
  return xml.substr(start, end - tag.size() - 1 - start);
}

inline std::string PlainNextTag(const std::string& xml, std::size_t& at) {
  std::size_t start = at;
  PlainSkipBlanks(xml, start);
  if (start >= xml.size() || xml[start] != '<') return "";
  std::string tag = xml.substr(start, std::min(xml.find('>', start), xml.size() - 1) - start + 1);
  at = start + tag.size();
  return tag;
}

/// Each "&" that begins one of the five entities, in turn.
inline std::string PlainDecode(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    for (const auto& [character, entity] : PLAIN_ENTITIES) {
      if (text.compare(i, entity.size(), entity) != 0) continue;
      c = character;
      i += entity.size() - 1;
      break;
    }
    out += c;
  }
  return out;
}

/// The reading of values as it would be written without a care for time: in the worst case that grows exponentially, so
/// `values` bounds those that are tried.
class PlainReader {
 public:
  explicit PlainReader(const std::string& text, int values) : _xml(text), _budget(values) {}

  bool tooLong = false;  // the budget is used up: no verdict

  /// What Shown() says of the value at `at`, which is moved behind it; empty, and nothing moved, if there is none.
  std::string read(std::size_t& at) {
    std::size_t end = at;
    std::string shown = at <= _xml.size() ? value(end, 1) : "";
    if (_tooDeep || shown.empty()) return "";
    at = end;
    return shown;
  }

 private:
  const char* rest(std::size_t at) const { return _xml.c_str() + std::min(at, _xml.size()); }

  std::string value(std::size_t& at, int depth) {
    tooLong = tooLong || --_budget < 0;
    std::size_t end = at;
    const int set = PlainNextTagIs("<va>", _xml, end) ? 1 : 0;
    if (set == 0 && !PlainNextTagIs("<value>", _xml, end)) return "";
    _tooDeep = _tooDeep || depth > XmlRpcValue::MaximumDepth;
    const int type = _tooDeep || tooLong ? XmlRpcValue::TypeInvalid : typeAt(set, end);
    std::string content;
    if (type == XmlRpcValue::TypeInvalid || !read(type, set, content, end, depth)) return "";
    PlainFindTag(set == 1 ? "</va>" : "</value>", _xml, end);
    at = end;
    return Shown(type, set, content);
  }

  int typeAt(int set, std::size_t& at) {
    std::size_t end = at;
    const std::string tag = PlainNextTag(_xml, end);
    const bool isEnd = tag == (set == 1 ? "</va>" : "</value>");
    if (!isEnd) at = end;
    if (isEnd || tag.empty()) return XmlRpcValue::TypeString;
    if (tag == "<int>") return XmlRpcValue::TypeInt;
    for (int type = 9; type > 0; --type) {
      if (tag == "<" + std::string(PLAIN_TYPES[type].tag[set]) + ">") return type;
    }
    return XmlRpcValue::TypeInvalid;
  }

  bool read(int type, int set, std::string& content, std::size_t& at, int depth) {
    if (type == XmlRpcValue::TypeArray) return array(set, content, at, depth + 1);
    if (type == XmlRpcValue::TypeStruct) return structure(set, content, at, depth + 1);
    if (type == XmlRpcValue::TypeDouble) return real(content, at);
    const bool isText =
        type == XmlRpcValue::TypeString || type == XmlRpcValue::TypeDateTime || type == XmlRpcValue::TypeBase64;
    return isText ? text(type, content, at) : whole(type, content, at);
  }

  bool whole(int type, std::string& content, std::size_t& at) {
    char* end = nullptr;
    long long number = std::strtoll(rest(at), &end, 10);
    if (end == rest(at)) return false;
    if (type == XmlRpcValue::TypeInt) number = static_cast<int>(static_cast<unsigned>(number & 0xffffffffLL));
    at += static_cast<std::size_t>(end - rest(at));
    content = std::to_string(number);
    return type != XmlRpcValue::TypeBoolean || number == 0 || number == 1;
  }

  bool real(std::string& content, std::size_t& at) {
    const bool isNan = strcasecmp("nan", rest(at)) < 0;
    char* end = nullptr;
    content = isNan ? "nan" : Shown(std::strtod(rest(at), &end));
    if (end == rest(at)) return false;
    at += isNan ? 3 : static_cast<std::size_t>(end - rest(at));
    return true;
  }

  /// A string, a time or binary data, which end before the next "<".
  bool text(int type, std::string& content, std::size_t& at) {
    const std::size_t less = _xml.find('<', at);
    if (less == std::string::npos) return false;
    const std::string raw = _xml.substr(at, less - at);
    content = PlainDecode(raw);
    at += type == XmlRpcValue::TypeString ? content.size() : raw.size();
    if (type == XmlRpcValue::TypeBase64) content = PlainFromBase64(raw.c_str());
    if (type != XmlRpcValue::TypeDateTime) return true;
    std::tm t = {};
    t.tm_isdst = -1;
    // NOLINTNEXTLINE(cert-err34-c): what it does is the rule
    const int fields = std::sscanf(raw.c_str(), "%4d%2d%2dT%2d:%2d:%2d", &t.tm_year, &t.tm_mon, &t.tm_mday, &t.tm_hour,
                                   &t.tm_min, &t.tm_sec);
    content = Shown(t);
    return fields == 6;
  }

  bool array(int set, std::string& content, std::size_t& at, int depth) {
    const std::string data = set == 1 ? "da>" : "data>";
    if (PlainEmptyTagIs("<" + data, _xml, at)) return true;
    if (!PlainNextTagIs("<" + data, _xml, at)) return false;
    for (std::string element; !(element = value(at, depth)).empty();) content += element + ";";
    PlainNextTagIs("</" + data, _xml, at);
    return !_tooDeep && !tooLong;
  }

  bool structure(int set, std::string& content, std::size_t& at, int depth) {
    std::map<std::string, std::string> members;
    const std::string member = set == 1 ? "me>" : "member>";
    while (PlainNextTagIs("<" + member, _xml, at)) {
      const std::string name = PlainParseTag(set == 1 ? "<na>" : "<name>", _xml, at), shown = value(at, depth);
      if (shown.empty()) return false;
      members.emplace(name, shown);  // the first of two of one name stays
      PlainNextTagIs("</" + member, _xml, at);
    }
    for (const auto& [name, shown] : members) content.append(name).append("=").append(shown).append(";");
    return true;
  }

  const std::string& _xml;
  int _budget;
  bool _tooDeep = false;  // the document is refused whole
};
