#pragma once

#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/model/PlainValue.h"
#include "xmlrpc/XmlRpcUtil.h"

/// The reading of values as it would be written without a care for time, on the library's own tag helpers: in the worst
/// case that grows exponentially, so `values` bounds those that are tried.
class PlainReader {
 public:
  explicit PlainReader(const std::string& text, int values) : _xml(text), _budget(values) {}

  bool tooLong = false;  // the budget is used up: no verdict
  int tagSet = 0;        // of the start tag of what was read, or failed to be; a struct that failed has none

  /// The value at `at`, in long tags; `at` is moved behind it. Empty, and nothing moved, if there is none.
  std::string read(int& at) {
    int end = at;
    std::string xml = value(end, 1);
    if (_tooDeep || xml.empty()) return "";
    at = end;
    return xml;
  }

 private:
  using Util = TarnXmlRpc::XmlRpcUtil;

  bool isNext(const char* const (&tag)[2], int set, int& at) { return Util::nextTagIs(tag[set], _xml, &at); }
  const char* rest(int at) const { return _xml.c_str() + std::min(static_cast<std::size_t>(at), _xml.size()); }

  std::string value(int& at, int depth) {
    tooLong = tooLong || --_budget < 0;
    int end = at;
    const int set = isNext(XmlRpcValue::XML_TAG_VALUE, 1, end) ? 1 : 0;
    if (set == 0 && !isNext(XmlRpcValue::XML_TAG_VALUE, 0, end)) return "";
    if (depth == 1) tagSet = set;
    _tooDeep = _tooDeep || depth > XmlRpcValue::MaximumDepth;
    const int type = _tooDeep || tooLong ? XmlRpcValue::TypeInvalid : typeAt(set, end);
    std::string content;
    const bool isRead = type != XmlRpcValue::TypeInvalid && read(type, set, content, end, depth);
    if (depth == 1 && type == XmlRpcValue::TypeStruct && !(isRead && !_tooDeep)) tagSet = 0;
    if (!isRead) return "";
    Util::findTag(XmlRpcValue::XML_ENDTAG_VALUE[set], _xml, &end);
    at = end;
    return PlainXml(type, 0, content);
  }

  int typeAt(int set, int& at) {
    int end = at;
    const std::string tag = Util::getNextTag(_xml, &end);
    const bool isEnd = tag == XmlRpcValue::XML_ENDTAG_VALUE[set];
    if (!isEnd) at = end;
    if (isEnd || tag.empty()) return XmlRpcValue::TypeString;
    if (tag == "<int>") return XmlRpcValue::TypeInt;
    for (int type = 9; type > 0; --type) {
      if (tag == "<" + std::string(PLAIN_TAGS[type][set]) + ">") return type;
    }
    return XmlRpcValue::TypeInvalid;
  }

  bool read(int type, int set, std::string& content, int& at, int depth) {
    if (type == XmlRpcValue::TypeArray) return array(set, content, at, depth + 1);
    if (type == XmlRpcValue::TypeStruct) return structure(set, content, at, depth + 1);
    const bool isText =
        type == XmlRpcValue::TypeString || type == XmlRpcValue::TypeDateTime || type == XmlRpcValue::TypeBase64;
    return isText ? text(type, content, at) : number(type, content, at);
  }

  bool number(int type, std::string& content, int& at) {
    char* end = nullptr;
    const bool isReal = type == XmlRpcValue::TypeDouble;
    if (isReal && strcasecmp("nan", rest(at)) < 0) {
      content = "nan";
      at += 3;
      return true;
    }
    long long whole = isReal ? 0 : std::strtoll(rest(at), &end, 10);
    if (type == XmlRpcValue::TypeInt) whole = static_cast<int>(static_cast<unsigned>(whole & 0xffffffffLL));
    content = isReal ? PlainReal(std::strtod(rest(at), &end)) : std::to_string(whole);
    if (end == rest(at)) return false;
    at += static_cast<int>(end - rest(at));
    return type != XmlRpcValue::TypeBoolean || whole == 0 || whole == 1;
  }

  /// A string, a time or binary data, which end before the next "<".
  bool text(int type, std::string& content, int& at) {
    const std::size_t start = static_cast<std::size_t>(at), less = _xml.find('<', start);
    if (less == std::string::npos) return false;
    const std::string raw = _xml.substr(start, less - start), decoded = Util::xmlDecode(raw);
    at += static_cast<int>(type == XmlRpcValue::TypeString ? decoded.size() : raw.size());
    content = type == XmlRpcValue::TypeBase64 ? PlainBase64(PlainFromBase64(raw.c_str())) : Util::xmlEncode(decoded);
    if (type != XmlRpcValue::TypeDateTime) return true;
    std::tm t = {};
    // NOLINTNEXTLINE(cert-err34-c): what it does is the rule
    const int fields = std::sscanf(raw.c_str(), "%4d%2d%2dT%2d:%2d:%2d", &t.tm_year, &t.tm_mon, &t.tm_mday, &t.tm_hour,
                                   &t.tm_min, &t.tm_sec);
    content = PlainTime(t);
    return fields == 6;
  }

  bool array(int set, std::string& content, int& at, int depth) {
    if (Util::nextTagIs(XmlRpcValue::XML_TAG_DATA[set], _xml, &at, true)) return true;
    if (!isNext(XmlRpcValue::XML_TAG_DATA, set, at)) return false;
    for (std::string element; !(element = value(at, depth)).empty();) content += element;
    isNext(XmlRpcValue::XML_ENDTAG_DATA, set, at);
    return !_tooDeep && !tooLong;
  }

  bool structure(int set, std::string& content, int& at, int depth) {
    std::map<std::string, std::string> members;
    while (isNext(XmlRpcValue::XML_TAG_MEMBER, set, at)) {
      const std::string name = Util::parseTag(XmlRpcValue::XML_TAG_NAME[set], _xml, &at), xml = value(at, depth);
      if (xml.empty()) return false;
      members.emplace(name, xml);  // the first of two of one name stays
      isNext(XmlRpcValue::XML_ENDTAG_MEMBER, set, at);
    }
    for (const auto& [name, xml] : members) content += PlainMember(0, name, xml);
    return true;
  }

  const std::string& _xml;
  int _budget;
  bool _tooDeep = false;  // the document is refused whole
};
