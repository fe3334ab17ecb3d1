#include "xmlrpc/XmlReader.h"

#include <charconv>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "xmlrpc/CBase64.h"
#include "xmlrpc/Locale.h"

namespace TarnXmlRpc {

namespace {

using std::size_t;
constexpr size_t npos = std::string_view::npos;

#define TARN_TAGS(n)                                                                                          \
  {                                                                                                           \
    SET##n##_XML_TAG_VALUE, SET##n##_XML_ENDTAG_VALUE, SET##n##_XML_TAG_DATA, SET##n##_XML_ENDTAG_DATA,       \
        SET##n##_XML_TAG_MEMBER, SET##n##_XML_ENDTAG_MEMBER, SET##n##_XML_TAG_NAME, SET##n##_XML_ENDTAG_NAME, \
        SET##n##_XML_ENDTAG_ARRAY, SET##n##_XML_ENDTAG_STRUCT                                                 \
  }
constexpr XmlTags tagsOf[2] = {TARN_TAGS(1), TARN_TAGS(2)};
#undef TARN_TAGS

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }

/// What a 64-bit strtol(text + at, ..., 10) gives: blanks, a sign, digits; saturated. False if there is no digit; else
/// `at` is moved past the number.
bool ScanInteger(std::string_view text, size_t& at, std::int64_t& number) {
  size_t p = SkipBlanks(text, at);
  const bool negative = p < text.size() && text[p] == '-';
  if (p < text.size() && (text[p] == '-' || text[p] == '+')) ++p;
  const size_t digits = p;
  constexpr std::uint64_t limit = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) + 1;
  std::uint64_t magnitude = 0;
  bool saturated = false;
  for (; p < text.size() && IsDigit(text[p]); ++p) {
    saturated = saturated || magnitude > limit / 10;
    if (!saturated) magnitude = magnitude * 10 + static_cast<std::uint64_t>(text[p] - '0');
  }
  if (p == digits) return false;
  if (saturated || magnitude > limit) magnitude = limit;
  if (negative) {
    number = magnitude == limit ? std::numeric_limits<std::int64_t>::min() : -static_cast<std::int64_t>(magnitude);
  } else {
    number = magnitude == limit ? std::numeric_limits<std::int64_t>::max() : static_cast<std::int64_t>(magnitude);
  }
  at = p;
  return true;
}

/// Whether "nan", compared without case with all the text that follows, sorts first. So "NaN" before a closing tag is a
/// NaN, and so is whatever begins with letters that sort after it; devices in the field send both.
bool NanSortsFirst(std::string_view text, size_t at) {
  constexpr std::string_view nan("nan");
  for (const char expected : nan) {
    const char c = at < text.size() ? Lower(text[at]) : '\0';
    if (c != expected) return static_cast<unsigned char>(expected) < static_cast<unsigned char>(c);
    ++at;
  }
  return at < text.size() && text[at] != '\0';
}

/// A decimal number that from_chars() and strtod() read alike: no blanks, no plus sign, no hexadecimal, no word. `text`
/// is followed by a NUL.
bool IsPlainDecimal(const char* text) {
  if (*text == '-') ++text;
  return IsDigit(*text) && !(*text == '0' && Lower(text[1]) == 'x');
}

/// What strtod(text + at) gives in the "C" locale. False if nothing was read; else `at` is moved past the number.
bool ScanDouble(std::string_view text, size_t& at, double& number) {
  const char* const start = text.data() + at;
  if (IsPlainDecimal(start)) {
    const auto scanned = std::from_chars(start, text.data() + text.size(), number);
    if (scanned.ec == std::errc()) {
      at += static_cast<size_t>(scanned.ptr - start);
      return true;
    }
  }
  char* end = nullptr;
  number = strtod_l(start, &end, CLocale());
  at += static_cast<size_t>(end - start);
  return end != start;
}

/// One "%<width>d" of sscanf(): blanks, then at most `width` characters of sign and digits.
bool ScanField(std::string_view& text, int width, int& number) {
  text.remove_prefix(SkipBlanks(text, 0));
  bool negative = false;
  if (!text.empty() && width > 0 && (text.front() == '-' || text.front() == '+')) {
    negative = text.front() == '-';
    text.remove_prefix(1);
    --width;
  }
  int magnitude = 0;
  int digits = 0;
  for (; digits < width && !text.empty() && IsDigit(text.front()); ++digits) {
    magnitude = magnitude * 10 + (text.front() - '0');
    text.remove_prefix(1);
  }
  number = negative ? -magnitude : magnitude;
  return digits > 0;
}

bool ScanCharacter(std::string_view& text, char expected) {
  if (text.empty() || text.front() != expected) return false;
  text.remove_prefix(1);
  return true;
}

/// "%4d%2d%2dT%2d:%2d:%2d", all six. The fields are kept as they stand: the full year, the month from 1.
bool ScanTime(std::string_view text, std::tm& time) {
  time = std::tm();
  time.tm_isdst = -1;
  return ScanField(text, 4, time.tm_year) && ScanField(text, 2, time.tm_mon) && ScanField(text, 2, time.tm_mday) &&
         ScanCharacter(text, 'T') && ScanField(text, 2, time.tm_hour) && ScanCharacter(text, ':') &&
         ScanField(text, 2, time.tm_min) && ScanCharacter(text, ':') && ScanField(text, 2, time.tm_sec);
}

/// `text` as a NUL-terminated string sees it.
std::string_view UpToNul(std::string_view text) { return text.substr(0, text.find('\0')); }

}  // namespace

XmlReader::XmlReader(const std::string& xml)
    : _text(xml),
      _finders{{{TagFinder(_text, tagsOf[0].valueEnd), TagFinder(_text, tagsOf[0].name),
                 TagFinder(_text, tagsOf[0].nameEnd)},
                {TagFinder(_text, tagsOf[1].valueEnd), TagFinder(_text, tagsOf[1].name),
                 TagFinder(_text, tagsOf[1].nameEnd)}}} {}

bool XmlReader::readValue(XmlRpcValue& value, size_t& at) {
  return run([](XmlReader& reader, Value* out, size_t& p) { return reader.value(out, p, 1); }, value, at);
}

bool XmlReader::readOfType(XmlRpcValue::Type type, XmlRpcValue& value, size_t& at, int set) {
  return run([=](XmlReader& reader, Value* out, size_t& p) { return reader.ofType(type, out, p, set, 1); }, value, at);
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
    end = at;
    success = !_tooDeep && read(*this, &value, end);
  }
  if (_tooDeep || !success) {
    value.invalidate();
    return false;
  }
  at = end;
  return true;
}

void XmlReader::beginSurvey() {
  _survey.begin(_text.size());
  for (Finders& finders : _finders) {
    finders.valueEnd.index();
    finders.name.index();
    finders.nameEnd.index();
  }
  _lastFailed = npos;
  _openArrays = 0;
  _mustSurvey = false;
  _surveying = true;
}

size_t XmlReader::skipBlanks(size_t at) {
  if (at >= _text.size() || !IsBlank(_text[at])) return at;
  if (_surveying) return _survey.skipBlanks(_text, at);
  if (at < _blanksFrom || at >= _blanksEnd) {  // else known from the levels that looked here before
    _blanksFrom = at;
    _blanksEnd = SkipBlanks(_text, at);
  }
  return _blanksEnd;
}

bool XmlReader::skipTag(size_t& at, std::string_view tag) {
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

/// The tag set of the value start tag that stands at `at`, or -1.
int XmlReader::valueTagAt(size_t at) const {
  if (StandsAt(_text, at, tagsOf[0].value)) return 0;
  return StandsAt(_text, at, tagsOf[1].value) ? 1 : -1;
}

/// Reads one value. `out` is null while surveying.
bool XmlReader::value(Value* out, size_t& at, int depth) {
  const size_t start = skipBlanks(at);
  const int set = valueTagAt(start);
  if (set < 0) return false;
  if (depth > Value::MaximumDepth) {
    _tooDeep = true;
    return false;
  }
  const size_t afterTag = start + tagsOf[set].value.size();
  if (_surveying) return surveyedValue(start, afterTag, at, set, depth);
  // Each enclosing array that ends before a malformed value lets the next one try the same place again.
  if (start == _lastFailed || (_survey.begun() && _survey.at(start).value.failed())) return false;
  size_t p = afterTag;
  if (!content(out, p, set, depth)) {
    _lastFailed = start;
    return false;
  }
  at = pastValueEnd(p, set);
  return true;
}

bool XmlReader::surveyedValue(size_t start, size_t afterTag, size_t& at, int set, int depth) {
  XmlSurvey::Outcome& outcome = _survey.at(start).value;
  if (!outcome.known()) {
    const int deepestOutside = _deepest;
    _deepest = depth;
    size_t p = afterTag;
    const bool success = content(nullptr, p, set, depth);
    if (_tooDeep) return false;
    if (success) p = pastValueEnd(p, set);
    outcome.set(success, p, static_cast<size_t>(_deepest - depth + 1));
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

/// The place just past the value's end tag, wherever that is; `at` itself if there is none.
size_t XmlReader::pastValueEnd(size_t at, int set) {
  const std::string_view tag = tagsOf[set].valueEnd;
  const size_t found = StandsAt(_text, at, tag) ? at : _finders[static_cast<size_t>(set)].valueEnd.find(at);
  return found == npos ? at : found + tag.size();
}

/// Takes the tag that comes next, if one does; `at` is moved past a known one alone.
XmlReader::Tag XmlReader::nextTag(size_t& at, int set) {
  struct Known {
    std::string_view name[2];  // in the two sets
    Tag tag;
  };
#define TARN_TAG(x) \
  { SET1_XML_TAG_##x, SET2_XML_TAG_##x }
  static constexpr Known known[] = {{TARN_TAG(I4), Tag::Int},
                                    {TARN_TAG(STRUCT), Tag::Struct},
                                    {TARN_TAG(DOUBLE), Tag::Double},
                                    {TARN_TAG(STRING), Tag::String},
                                    {TARN_TAG(BOOLEAN), Tag::Boolean},
                                    {TARN_TAG(ARRAY), Tag::Array},
                                    {TARN_TAG(INT), Tag::Int},
                                    {TARN_TAG(I8), Tag::Int64},
                                    {TARN_TAG(DATETIME), Tag::DateTime},
                                    {TARN_TAG(BASE64), Tag::Base64},
                                    {{SET1_XML_ENDTAG_VALUE, SET2_XML_ENDTAG_VALUE}, Tag::ValueEnd}};
#undef TARN_TAG
  const size_t start = skipBlanks(at);
  if (start >= _text.size() || _text[start] != '<') return Tag::None;
  for (const Known& candidate : known) {
    const std::string_view name = candidate.name[set];
    if (!StandsAt(_text, start, name)) continue;
    at = start + name.size();
    return candidate.tag;
  }
  return Tag::Unknown;
}

/// Reads what follows the value's start tag, its end tag left out.
bool XmlReader::content(Value* out, size_t& at, int set, int depth) {
  const size_t afterTag = at;
  switch (nextTag(at, set)) {
    case Tag::Boolean:
      return ofType(Value::TypeBoolean, out, at, set, depth);
    case Tag::Int:
      return ofType(Value::TypeInt, out, at, set, depth);
    case Tag::Int64:
      return ofType(Value::TypeInt64, out, at, set, depth);
    case Tag::Double:
      return ofType(Value::TypeDouble, out, at, set, depth);
    case Tag::DateTime:
      return ofType(Value::TypeDateTime, out, at, set, depth);
    case Tag::Base64:
      return ofType(Value::TypeBase64, out, at, set, depth);
    case Tag::Array:
      return ofType(Value::TypeArray, out, at, set, depth);
    case Tag::Struct:
      return ofType(Value::TypeStruct, out, at, set, depth);
    case Tag::ValueEnd:
      at = afterTag;  // nothing but white space in the value: that is its text
      return ofType(Value::TypeString, out, at, set, depth);
    case Tag::None:
    case Tag::String:
      return ofType(Value::TypeString, out, at, set, depth);
    case Tag::Unknown:
      break;
  }
  return false;
}

/// Reads what follows the type's own tag.
bool XmlReader::ofType(Value::Type type, Value* out, size_t& at, int set, int depth) {
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
      success = array(out, at, set, depth);
      break;
    case Value::TypeStruct:
      success = structure(out, at, set, depth);
      break;
    default:
      break;
  }
  if (success && out != nullptr) out->tagSet = set;
  return success;
}

bool XmlReader::boolean(Value* out, size_t& at) {
  std::int64_t number = 0;
  size_t end = at;
  if (!ScanInteger(_text, end, number) || number < 0 || number > 1) return false;
  if (out != nullptr) *out = number == 1;
  at = end;
  return true;
}

bool XmlReader::integer(Value* out, size_t& at) {
  std::int64_t number = 0;
  if (!ScanInteger(_text, at, number)) return false;
  // A number beyond 32 bits is cut to its low 32 bits on every machine.
  if (out != nullptr) *out = static_cast<std::int32_t>(static_cast<std::uint32_t>(number));
  return true;
}

bool XmlReader::integer64(Value* out, size_t& at) {
  std::int64_t number = 0;
  if (!ScanInteger(_text, at, number)) return false;
  if (out != nullptr) *out = static_cast<long long>(number);
  return true;
}

bool XmlReader::number(Value* out, size_t& at) {
  double number = std::numeric_limits<double>::quiet_NaN();
  if (NanSortsFirst(_text, at)) {
    at += 3;  // also past the end of a text that is shorter; nothing is found from there
  } else if (!ScanDouble(_text, at, number)) {
    return false;
  }
  if (out != nullptr) *out = number;
  return true;
}

bool XmlReader::text(Value* out, size_t& at) {
  const size_t end = nextLess(at);
  if (end == npos) return false;
  std::string decoded = Decoded(_text.substr(at, end - at));
  // By the decoded length, not the raw one: after an entity this stops short of the "<", which is harmless, because the
  // closing tag is searched for from here.
  at += decoded.size();
  if (out != nullptr) {
    out->_value.asString = new std::string(std::move(decoded));
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

bool XmlReader::array(Value* out, size_t& at, int set, int depth) {
  size_t p = at;
  const bool empty = SkipEmptyTag(_text, p, tagsOf[set].data);
  if (!empty && !skipTag(p, tagsOf[set].data)) return false;
  if (out != nullptr) out->assertTypeOrInvalid(Value::TypeArray);
  if (!empty) {
    ++_openArrays;
    if (_surveying) {
      surveyElements(p, depth + 1);
    } else {
      buildElements(*out->_value.asArray, p, depth + 1);
    }
    --_openArrays;
    if (stopped()) return false;
    skipTag(p, tagsOf[set].dataEnd);
  }
  at = p;
  return true;
}

void XmlReader::buildElements(Value::Array& elements, size_t& at, int depth) {
  do {
    elements.emplace_back();
  } while (value(&elements.back(), at, depth));
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
std::string_view XmlReader::memberName(size_t& at, int set) {
  const XmlTags& tags = tagsOf[set];
  Finders& finders = _finders[static_cast<size_t>(set)];
  const size_t found = StandsAt(_text, at, tags.name) ? at : finders.name.find(at);
  if (found == npos) return {};
  const size_t start = found + tags.name.size();
  const size_t end = finders.nameEnd.find(start);
  if (end == npos) return {};
  at = end + tags.nameEnd.size();
  return _text.substr(start, end - start);
}

bool XmlReader::structure(Value* out, size_t& at, int set, int depth) {
  size_t p = at;
  bool success = false;
  if (_surveying) {
    success = surveyMembers(p, set, depth + 1);
  } else {
    out->assertTypeOrInvalid(Value::TypeStruct);
    success = buildMembers(*out->_value.asStruct, p, set, depth + 1);
    if (!success) {
      out->invalidate();
      if (!_tooDeep && _openArrays > 0 && !_survey.begun()) _mustSurvey = true;
    }
  }
  if (success) at = p;
  return success;
}

bool XmlReader::buildMembers(Value::Struct& members, size_t& at, int set, int depth) {
  while (skipTag(at, tagsOf[set].member)) {
    const std::string_view name = memberName(at, set);
    // Members mostly come in the map's own order, as our own writer sends them.
    auto place = members.end();
    if (!members.empty() && name <= std::prev(place)->first) place = members.lower_bound(std::string(name));
    if (place == members.end() || place->first != name) {
      place = members.try_emplace(place, std::string(name));
      if (!value(&place->second, at, depth)) return false;
    } else {
      Value surplus;  // the first of two members of one name stays
      if (!value(&surplus, at, depth)) return false;
    }
    skipTag(at, tagsOf[set].memberEnd);
  }
  return true;
}

bool XmlReader::surveyMembers(size_t& at, int set, int depth) {
  const size_t mark = _trail.size();
  std::uint32_t levels = 0;
  bool success = true;
  for (;;) {
    const size_t start = skipBlanks(at);
    if (!StandsAt(_text, start, tagsOf[set].member)) break;
    const XmlSurvey::Outcome& rest = _survey.at(start).rest;
    if (rest.known()) {
      if (!enterKnown(rest, depth)) return false;
      levels = rest.levels;
      success = !rest.failed();
      if (success) at = rest.end();
      break;
    }
    at = start + tagsOf[set].member.size();
    memberName(at, set);
    const size_t valueStart = skipBlanks(at);
    success = value(nullptr, at, depth);
    if (_tooDeep) return false;
    // The member's own place keeps the levels of its value, for recordRest().
    _survey.at(start).value.levels = valueTagAt(valueStart) < 0 ? 0 : _survey.at(valueStart).value.levels;
    _trail.push_back(start);
    if (!success) break;
    skipTag(at, tagsOf[set].memberEnd);
  }
  recordRest(mark, success, at, levels);
  return success;
}

}  // namespace TarnXmlRpc
