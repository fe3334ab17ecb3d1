#include "xmlrpc/XmlReader.h"

#include <algorithm>
#include <limits>
#include <tuple>
#include <utility>

#include "xmlrpc/CBase64.h"
#include "xmlrpc/ValueTypes.h"
#include "xmlrpc/XmlNumbers.h"

namespace TarnXmlRpc {

namespace {

using std::size_t;
constexpr size_t npos = std::string_view::npos;

/// The tags of one set, known to the compiler where they are compared.
template <int set>
struct Tags {
  static constexpr std::string_view value = XmlRpcValue::XML_TAG_VALUE[set];
  static constexpr std::string_view valueEnd = XmlRpcValue::XML_ENDTAG_VALUE[set];
  static constexpr std::string_view data = XmlRpcValue::XML_TAG_DATA[set];
  static constexpr std::string_view dataEnd = XmlRpcValue::XML_ENDTAG_DATA[set];
  static constexpr std::string_view member = XmlRpcValue::XML_TAG_MEMBER[set];
  static constexpr std::string_view memberEnd = XmlRpcValue::XML_ENDTAG_MEMBER[set];
  static constexpr std::string_view name = XmlRpcValue::XML_TAG_NAME[set];
  static constexpr std::string_view nameEnd = XmlRpcValue::XML_ENDTAG_NAME[set];
};

/// Whether a row of the table of types, each known to the compiler, is the one.
template <typename IsRow, size_t... i>
[[gnu::always_inline]] inline bool anyRow(const IsRow& isRow, std::index_sequence<i...>) {
  return (isRow(VALUE_TYPES[i]) || ...);
}

/// `text` as a NUL-terminated string sees it.
std::string_view UpToNul(std::string_view text) { return text.substr(0, text.find('\0')); }

}  // namespace

XmlReader::XmlReader(const std::string& xml)
    : _text(xml),
      _finders{
          {{TagFinder(_text, Tags<0>::valueEnd), TagFinder(_text, Tags<0>::name), TagFinder(_text, Tags<0>::nameEnd)},
           {TagFinder(_text, Tags<1>::valueEnd), TagFinder(_text, Tags<1>::name),
            TagFinder(_text, Tags<1>::nameEnd)}}} {}

bool XmlReader::readValue(XmlRpcValue& value, size_t& at) {
  if (run([](XmlReader& reader, Value* out, size_t& p) { return reader.value(out, p, 1); }, value, at)) return true;
  value._tagSet = tagSetOfFailed(at);
  return false;
}

bool XmlReader::readOfType(XmlRpcValue::Type type, XmlRpcValue& value, size_t& at, int set) {
  const auto read = [=](XmlReader& reader, Value* out, size_t& p) {
    return set == 1 ? reader.ofType<1>(type, out, p, 1) : reader.ofType<0>(type, out, p, 1);
  };
  return run(read, value, at);
}

template <typename Read>
bool XmlReader::run(const Read& read, XmlRpcValue& value, size_t& at) {
  size_t end = at;
  bool success = read(*this, &value, end);
  if (_mustSurvey) {
    value.invalidate();
    beginSurvey();
    size_t ignored = at;
    read(*this, nullptr, ignored);
    _surveying = false;
    success = !_tooDeep && read(*this, &value, end);
  }
  if (_tooDeep || !success) {
    value.invalidate();
    return false;
  }
  at = end;
  return true;
}

/// The tag set of the value start tag that stands at `at`, or -1.
[[gnu::always_inline]] inline int XmlReader::valueTagAt(size_t at) const {
  if (StandsAt(_text, at, Tags<0>::value)) return 0;
  return StandsAt(_text, at, Tags<1>::value) ? 1 : -1;
}

/// That of the start tag; a struct has lost it, as it was made and freed again.
int XmlReader::tagSetOfFailed(size_t at) const {
  at = SkipBlanks(_text, at);
  if (valueTagAt(at) != 1) return 0;
  return StandsAt(_text, SkipBlanks(_text, at + Tags<1>::value.size()), Value::XML_TAG_STRUCT[1]) ? 0 : 1;
}

void XmlReader::beginSurvey() {
  _survey.beginTags(_text.size());
  for (Finders& finders : _finders) finders.each([](TagFinder& finder) { finder.beginIndex(); });
  for (size_t at = _text.find('<'); at != npos; at = _text.find('<', at + 1)) {
    if (valueTagAt(at) >= 0 || StandsAt(_text, at, Tags<0>::member) || StandsAt(_text, at, Tags<1>::member)) {
      _survey.addTag(at);
    } else {
      for (Finders& finders : _finders) finders.each([at](TagFinder& finder) { finder.addToIndex(at); });
    }
  }
  for (Finders& finders : _finders) finders.each([](TagFinder& finder) { finder.endIndex(); });
  _survey.begin();
  _lastFailed = npos;
  _openArrays = 0;
  _mustSurvey = false;
  _surveying = true;
}

size_t XmlReader::skipKnownBlanks(size_t at) {
  if (_surveying) return _survey.skipBlanks(_text, at);
  if (at < _blanksFrom || at >= _blanksEnd) {  // else known from the levels that looked here before
    _blanksFrom = at;
    _blanksEnd = SkipBlanks(_text, at);
  }
  return _blanksEnd;
}

[[gnu::always_inline]] inline bool XmlReader::skipTag(size_t& at, std::string_view tag) {
  const size_t start = skipBlanks(at);
  if (!StandsAt(_text, start, tag)) return false;
  at = start + tag.size();
  return true;
}

/// The next "<" at or after `at`, or npos.
size_t XmlReader::nextLess(size_t at) {
  if (at >= _noLessFrom) return npos;
  const size_t found = _text.find('<', at);
  if (found == npos) _noLessFrom = at;
  return found;
}

/// The next "<" at or after `at` if it is near, else npos: a look that may be repeated for many values or members.
inline size_t XmlReader::nearLess(size_t at) const {
  constexpr size_t near = 64;
  if (at >= _text.size()) return npos;
  const size_t found = _text.substr(at, near).find('<');
  return found == npos ? npos : at + found;
}

template <int set>
[[gnu::always_inline]] inline bool XmlReader::valueOfSet(Value* out, size_t start, size_t& at, int depth) {
  if (_surveying) return surveyedValue<set>(start, at, depth);
  // Each enclosing array that ends before a malformed value lets the next one try the same place again.
  if (start == _lastFailed || (_survey.begun() && _survey.at(start).value.failed())) return false;
  size_t p = start + Tags<set>::value.size();
  if (!content<set>(out, p, depth)) {
    _lastFailed = start;
    return false;
  }
  at = p;
  return true;
}

/// Reads the value whose start tag of set `set` stands at `start`.
[[gnu::always_inline]] inline bool XmlReader::valueOf(int set, Value* out, size_t start, size_t& at, int depth) {
  if (depth > Value::MaximumDepth) {
    _tooDeep = true;
    return false;
  }
  return set == 0 ? valueOfSet<0>(out, start, at, depth) : valueOfSet<1>(out, start, at, depth);
}

/// Reads one value. `out` is null while surveying.
bool XmlReader::value(Value* out, size_t& at, int depth) {
  const size_t start = skipBlanks(at);
  const int set = valueTagAt(start);
  return set >= 0 && valueOf(set, out, start, at, depth);
}

template <int set>
[[gnu::noinline]] bool XmlReader::surveyedValue(size_t start, size_t& at, int depth) {
  XmlSurvey::Outcome& outcome = _survey.at(start).value;
  if (!outcome.known()) {
    const int deepestOutside = _deepest;
    _deepest = depth;
    size_t p = start + Tags<set>::value.size();
    const bool success = content<set>(nullptr, p, depth);
    if (_tooDeep) return false;
    const int levels = _deepest - depth + 1;
    outcome.set(success, p, static_cast<std::uint32_t>(levels));
    _deepest = std::max(_deepest, deepestOutside);
  } else if (!enterKnown(outcome, depth)) {
    return false;
  }
  if (outcome.failed()) return false;
  at = outcome.end();
  return true;
}

/// Counts the levels of what was surveyed before as entered again; false if that is too deep here.
bool XmlReader::enterKnown(const XmlSurvey::Outcome& outcome, int depth) {
  _deepest = std::max(_deepest, depth + static_cast<int>(outcome.levels) - 1);
  _tooDeep = _tooDeep || _deepest > Value::MaximumDepth;
  return !_tooDeep;
}

/// The place just past the value's end tag, wherever that is; `at` itself if there is none. Mostly the type's own end
/// tag, of `typeEndLength` bytes, stands between.
template <int set>
inline size_t XmlReader::pastValueEnd(size_t at, size_t typeEndLength) {
  constexpr std::string_view tag = Tags<set>::valueEnd;
  if (StandsAt(_text, at, tag)) return at + tag.size();
  // At most one byte longer than the value's end tag, it hides none: that one would have to begin with the slash.
  const size_t next = at + typeEndLength;
  const bool nothingBetween = typeEndLength <= tag.size() + 1 && StandsAt(_text, at, "</");
  return nothingBetween && StandsAt(_text, next, tag) ? next + tag.size() : pastFarValueEnd<set>(at);
}

template <int set>
[[gnu::noinline]] size_t XmlReader::pastFarValueEnd(size_t at) {
  constexpr std::string_view tag = Tags<set>::valueEnd;
  const size_t next = nearLess(at + 1);
  if (StandsAt(_text, next, tag)) return next + tag.size();
  const size_t found = _finders[set].valueEnd.find(at);
  return found == npos ? at : found + tag.size();
}

/// Reads what follows the value's start tag: a type's own tag, or at once the text of a string, which may be empty.
template <int set>
bool XmlReader::content(Value* out, size_t& at, int depth) {
  const size_t afterTag = at;
  const auto read = [&](Value::Type type) {
    const size_t typeEndLength = at - afterTag + 1;  // an end tag has a slash more
    if (!ofType<set>(type, out, at, depth)) return false;
    at = pastValueEnd<set>(at, typeEndLength);
    return true;
  };
  const size_t start = skipBlanks(at);
  if (start >= _text.size() || _text[start] != '<') return read(Value::TypeString);
  const char initial = start + 1 < _text.size() ? _text[start + 1] : '\0';
  const auto take = [&](std::string_view tag) __attribute__((always_inline)) {
    if (initial != tag[1] || !StandsAt(_text, start, tag)) return false;
    at = start + tag.size();
    return true;
  };
  bool success = false;
  const auto isRow = [&](const ValueType& row) __attribute__((always_inline)) {
    if (!take(row.tag[set])) return false;
    success = read(row.type);
    return true;
  };
  if (anyRow(isRow, std::make_index_sequence<std::size(VALUE_TYPES)>())) return success;
  if (take(Value::XML_TAG_INT[set])) return read(Value::TypeInt);
  return StandsAt(_text, start, Tags<set>::valueEnd) && read(Value::TypeString);
}

/// Reads what follows the type's own tag.
template <int set>
inline bool XmlReader::ofType(Value::Type type, Value* out, size_t& at, int depth) {
  bool success = false;
  switch (type) {
    case Value::TypeBoolean:
      success = boolean(out, at);
      break;
    case Value::TypeInt:
      success = integer(out, at);
      break;
    case Value::TypeInt64:
      success = integer64(out, at);
      break;
    case Value::TypeDouble:
      success = number(out, at);
      break;
    case Value::TypeString:
      success = text(out, at);
      break;
    case Value::TypeDateTime:
      success = time(out, at);
      break;
    case Value::TypeBase64:
      success = binary(out, at);
      break;
    case Value::TypeArray:
      success = array<set>(out, at, depth);
      break;
    case Value::TypeStruct:
      success = structure<set>(out, at, depth);
      break;
    case Value::TypeInvalid:
      break;
  }
  if (success && out != nullptr) {
    out->_type = type;
    out->_tagSet = set;
  }
  return success;
}

bool XmlReader::boolean(Value* out, size_t& at) {
  std::int64_t number = 0;
  size_t end = at;
  if (!ScanInteger(_text, end, number) || number < 0 || number > 1) return false;
  if (out != nullptr) out->_value.asBool = number == 1;
  at = end;
  return true;
}

bool XmlReader::integer(Value* out, size_t& at) {
  std::int64_t number = 0;
  if (!ScanInteger(_text, at, number)) return false;
  // A number beyond 32 bits is cut to its low 32 bits on every machine.
  if (out != nullptr) out->_value.asInt = static_cast<std::int32_t>(static_cast<std::uint32_t>(number));
  return true;
}

bool XmlReader::integer64(Value* out, size_t& at) {
  std::int64_t number = 0;
  if (!ScanInteger(_text, at, number)) return false;
  if (out != nullptr) out->_value.asInt64 = number;
  return true;
}

bool XmlReader::number(Value* out, size_t& at) {
  double number = std::numeric_limits<double>::quiet_NaN();
  if (NanSortsFirst(_text, at)) {
    at += 3;  // also past the end of a text that is shorter; nothing is found from there
  } else if (!ScanDouble(_text, at, number)) {
    return false;
  }
  if (out != nullptr) out->_value.asDouble = number;
  return true;
}

bool XmlReader::text(Value* out, size_t& at) {
  const size_t end = nextLess(at);
  if (end == npos) return false;
  const std::string_view raw = _text.substr(at, end - at);
  std::string decoded;
  const bool plain = !Decode(raw, decoded);
  // By the decoded length, not the raw one: after an entity this stops short of the "<", which is harmless, because the
  // closing tag is searched for from here.
  at += plain ? raw.size() : decoded.size();
  if (out != nullptr) {
    out->_value.asString = plain ? new std::string(raw) : new std::string(std::move(decoded));
    out->_type = Value::TypeString;
  }
  return true;
}

bool XmlReader::time(Value* out, size_t& at) {
  const size_t end = nextLess(at);
  if (end == npos) return false;
  std::tm time;
  if (!ScanTime(UpToNul(_text.substr(at, end - at)), time)) return false;
  if (out != nullptr) *out = time;
  at = end;
  return true;
}

bool XmlReader::binary(Value* out, size_t& at) {
  const size_t end = nextLess(at);
  if (end == npos) return false;
  if (out != nullptr) {
    out->assertTypeOrInvalid(Value::TypeBase64);
    const std::string_view text = UpToNul(_text.substr(at, end - at));
    CBase64::DecodeTo(text.data(), text.size(), *out->_value.asBinary);
  }
  at = end;
  return true;
}

template <int set>
bool XmlReader::array(Value* out, size_t& at, int depth) {
  size_t p = at;
  const bool empty = !skipTag(p, Tags<set>::data);
  if (empty && !SkipEmptyTag(_text, p, Tags<set>::data)) return false;
  if (out != nullptr) out->assertTypeOrInvalid(Value::TypeArray);
  if (!empty) {
    ++_openArrays;
    if (out == nullptr) {
      surveyElements(p, depth + 1);
    } else {
      buildElements(*out->_value.asArray, p, depth + 1);
    }
    --_openArrays;
    if (stopped()) return false;
    skipTag(p, Tags<set>::dataEnd);
  }
  at = p;
  return true;
}

void XmlReader::buildElements(Value::Array& elements, size_t& at, int depth) {
  for (;;) {
    const size_t start = skipBlanks(at);
    const int set = valueTagAt(start);
    if (set < 0) return;  // before there is an element for it, for which the array might have to grow
    elements.emplace_back();
    if (!valueOf(set, &elements.back(), start, at, depth)) break;
  }
  elements.pop_back();
}

void XmlReader::surveyElements(size_t& at, int depth) {
  const size_t mark = _trail.size();
  std::uint32_t levels = 0;
  for (;;) {
    const size_t start = skipBlanks(at);
    if (valueTagAt(start) < 0) break;
    const XmlSurvey::Place& place = _survey.at(start);
    if (place.rest.known()) {
      if (!enterKnown(place.rest, depth)) return;
      levels = place.rest.levels;
      at = place.rest.end();
      break;
    }
    if (!value(nullptr, at, depth)) {
      if (_tooDeep) return;
      levels = place.value.levels;  // entered in vain, but entered
      break;
    }
    _trail.push_back(start);
  }
  recordRest(mark, true, at, levels);
}

/// Notes the outcome of a list for each of its members from `mark` on. `levels` are those of what came after the last.
void XmlReader::recordRest(size_t mark, bool success, size_t end, std::uint32_t levels) {
  for (; _trail.size() > mark; _trail.pop_back()) {
    XmlSurvey::Place& place = _survey.at(_trail.back());
    levels = std::max(levels, place.value.levels);
    place.rest.set(success, end, levels);
  }
}

/// The raw text between the next name tags, `at` moved past them; empty, and nothing moved, where there are none.
/// Entities stay as they are: a name is matched by the bytes on the wire.
template <int set>
std::string_view XmlReader::memberName(size_t& at) {
  constexpr std::string_view nameEnd = Tags<set>::nameEnd;
  const size_t found = StandsAt(_text, at, Tags<set>::name) ? at : _finders[set].name.find(at);
  if (found == npos) return {};
  const size_t start = found + Tags<set>::name.size();
  const size_t less = nearLess(start);
  const size_t end = StandsAt(_text, less, nameEnd) ? less : _finders[set].nameEnd.find(start);
  if (end == npos) return {};
  at = end + nameEnd.size();
  return _text.substr(start, end - start);
}

template <int set>
bool XmlReader::structure(Value* out, size_t& at, int depth) {
  size_t p = at;
  bool success = false;
  if (out == nullptr) {
    success = surveyMembers<set>(p, depth + 1);
  } else {
    out->assertTypeOrInvalid(Value::TypeStruct);
    success = buildMembers<set>(*out->_value.asStruct, p, depth + 1);
    if (!success && !_tooDeep && _openArrays > 0 && !_survey.begun()) _mustSurvey = true;
  }
  if (success) at = p;
  return success;
}

template <int set>
bool XmlReader::buildMembers(Value::Struct& members, size_t& at, int depth) {
  while (skipTag(at, Tags<set>::member)) {
    const std::string_view name = memberName<set>(at);
    // Members mostly come in the map's own order, as our own writer sends them: hence the hint.
    const size_t before = members.size();
    const auto place = members.emplace_hint(members.end(), std::piecewise_construct, std::forward_as_tuple(name),
                                            std::forward_as_tuple());
    Value surplus;  // the first of two members of one name stays
    if (!value(members.size() == before ? &surplus : &place->second, at, depth)) return false;
    skipTag(at, Tags<set>::memberEnd);
  }
  return true;
}

template <int set>
bool XmlReader::surveyMembers(size_t& at, int depth) {
  const size_t mark = _trail.size();
  std::uint32_t levels = 0;
  bool success = true;
  for (;;) {
    const size_t start = skipBlanks(at);
    if (!StandsAt(_text, start, Tags<set>::member)) break;
    const XmlSurvey::Outcome& rest = _survey.at(start).rest;
    if (rest.known()) {
      if (!enterKnown(rest, depth)) return false;
      levels = rest.levels;
      success = !rest.failed();
      if (success) at = rest.end();
      break;
    }
    at = start + Tags<set>::member.size();
    memberName<set>(at);
    const size_t valueStart = skipBlanks(at);
    success = value(nullptr, at, depth);
    if (_tooDeep) return false;
    // The member's own place keeps the levels of its value, for recordRest().
    _survey.at(start).value.levels = valueTagAt(valueStart) < 0 ? 0 : _survey.at(valueStart).value.levels;
    _trail.push_back(start);
    if (!success) break;
    skipTag(at, Tags<set>::memberEnd);
  }
  recordRest(mark, success, at, levels);
  return success;
}

}  // namespace TarnXmlRpc
