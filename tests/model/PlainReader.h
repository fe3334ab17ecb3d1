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
  const std::string tag = xml.substr(start, std::min(xml.find('>', start), xml.size() - 1) - start + 1);
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
  using Value = TarnXmlRpc::XmlRpcValue;

  explicit PlainReader(const std::string& text, int values = 20000) : _xml(text), _budget(values) {}

  bool tooLong = false;  // the budget is used up: no verdict

  bool read(PlainValue& v, std::size_t& at) {
    const std::size_t start = at;
    if (at <= _xml.size() && value(v, at, 1) && !_tooDeep) return true;
    at = start;
    v = PlainValue();
    return false;
  }

 private:
  const char* rest(std::size_t at) const { return _xml.c_str() + std::min(at, _xml.size()); }

  bool value(PlainValue& v, std::size_t& at, int depth) {
    v = PlainValue();
    tooLong = tooLong || --_budget < 0;
    const std::size_t start = at;
    if (!PlainNextTagIs("<value>", _xml, at)) {
      if (!PlainNextTagIs("<va>", _xml, at)) return false;
      v.set = 1;
    }
    _tooDeep = _tooDeep || depth > Value::MaximumDepth;
    if (!_tooDeep && !tooLong && content(v, at, depth)) {
      PlainFindTag(v.set == 1 ? "</va>" : "</value>", _xml, at);
      return true;
    }
    at = start;
    return false;
  }

  bool content(PlainValue& v, std::size_t& at, int depth) {
    const std::size_t afterTag = at;
    const std::string tag = PlainNextTag(_xml, at);
    const auto is = [&](const char* tag0, const char* tag1) { return tag == (v.set == 1 ? tag1 : tag0); };
    if (is("<boolean>", "<bo>")) return number(v, at, Value::TypeBoolean) && (v.number == 0 || v.number == 1);
    if (is("<i4>", "<i4>") || is("<int>", "<int>")) return number(v, at, Value::TypeInt);
    if (is("<i8>", "<i8>")) return number(v, at, Value::TypeInt64);
    if (is("<double>", "<do>")) return real(v, at);
    if (tag.empty() || is("<string>", "<str>")) return text(v, at, Value::TypeString);
    if (is("<dateTime.iso8601>", "<dtime>")) return text(v, at, Value::TypeDateTime);
    if (is("<base64>", "<b64>")) return text(v, at, Value::TypeBase64);
    if (is("<array>", "<ar>")) return array(v, at, depth);
    if (is("<struct>", "<st>")) return structure(v, at, depth);
    if (!is("</value>", "</va>")) return false;
    at = afterTag;
    return text(v, at, Value::TypeString);
  }

  bool number(PlainValue& v, std::size_t& at, int type) {
    char* end = nullptr;
    v.number = std::strtoll(rest(at), &end, 10);
    if (end == rest(at)) return false;
    if (type == Value::TypeInt) v.number = static_cast<int>(static_cast<unsigned>(v.number & 0xffffffffLL));
    at += static_cast<std::size_t>(end - rest(at));
    v.type = type;
    return true;
  }

  bool real(PlainValue& v, std::size_t& at) {
    v.type = Value::TypeDouble;
    if (strcasecmp("nan", rest(at)) < 0) {
      v.real = std::strtod("nan", nullptr);
      at += 3;
      return true;
    }
    char* end = nullptr;
    v.real = std::strtod(rest(at), &end);
    if (end == rest(at)) return false;
    at += static_cast<std::size_t>(end - rest(at));
    return true;
  }

  /// A string, a time or binary data, which end before the next "<".
  bool text(PlainValue& v, std::size_t& at, int type) {
    const std::size_t less = _xml.find('<', at);
    if (less == std::string::npos) return false;
    const std::string raw = _xml.substr(at, less - at);
    std::tm& t = v.time;
    if (type == Value::TypeDateTime && std::sscanf(raw.c_str(), "%4d%2d%2dT%2d:%2d:%2d", &t.tm_year, &t.tm_mon,
                                                   &t.tm_mday, &t.tm_hour, &t.tm_min, &t.tm_sec) != 6) {
      return false;
    }
    t.tm_isdst = type == Value::TypeDateTime ? -1 : 0;
    if (type == Value::TypeString) v.text = PlainDecode(raw);
    if (type == Value::TypeBase64) v.text = PlainFromBase64(raw.c_str());
    v.type = type;
    at += type == Value::TypeString ? v.text.size() : raw.size();
    return true;
  }

  bool array(PlainValue& v, std::size_t& at, int depth) {
    const std::string data = v.set == 1 ? "da>" : "data>";
    v.type = Value::TypeArray;
    if (PlainEmptyTagIs("<" + data, _xml, at)) return true;
    if (!PlainNextTagIs("<" + data, _xml, at)) return false;
    PlainValue element;
    while (value(element, at, depth + 1)) v.elements.push_back(element);
    PlainNextTagIs("</" + data, _xml, at);
    return !_tooDeep && !tooLong;
  }

  bool structure(PlainValue& v, std::size_t& at, int depth) {
    const std::string member = v.set == 1 ? "me>" : "member>";
    v.type = Value::TypeStruct;
    while (PlainNextTagIs("<" + member, _xml, at)) {
      const std::string name = PlainParseTag(v.set == 1 ? "<na>" : "<name>", _xml, at);
      PlainValue element;
      if (!value(element, at, depth + 1)) return false;
      v.members.emplace(name, element);
      PlainNextTagIs("</" + member, _xml, at);
    }
    return true;
  }

  const std::string& _xml;
  int _budget;
  bool _tooDeep = false;  // the document is refused whole
};
