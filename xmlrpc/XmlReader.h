#pragma once

// The value reader. Internal to the library: programs use XmlRpcValue::fromXml().

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "xmlrpc/XmlRpcValue.h"
#include "xmlrpc/XmlSurvey.h"

namespace TarnXmlRpc {

/// Reads values from one text, in one pass that builds as it goes. Only where a struct inside an array turns out to be
/// malformed does the reader have to go back, since the array ends before the struct and what encloses the array goes
/// on inside the struct's text. Then it starts again: once to survey what can be read where (XmlSurvey), building
/// nothing, and once to build along what the survey found, without ever going back.
class XmlReader {
 public:
  /// `xml` must stay as it is while the reader is used.
  explicit XmlReader(const std::string& xml);

  // Each reads one thing from `at` on into `value`, which must be invalid. On failure, `at` is as it was and `value` is
  // invalid, with the tag set of its start tag if that of a struct does not follow. The second kind starts after the
  // type's own tag and takes tags from set `set`.

  bool readValue(XmlRpcValue& value, std::size_t& at);
  bool readOfType(XmlRpcValue::Type type, XmlRpcValue& value, std::size_t& at, int set);

 private:
  using Value = XmlRpcValue;

  struct Finders {
    TagFinder valueEnd, name, nameEnd;

    template <typename Action>
    void each(const Action& action) {
      action(valueEnd);
      action(name);
      action(nameEnd);
    }
  };

  template <typename Read>
  bool run(const Read& read, XmlRpcValue& value, std::size_t& at);
  void beginSurvey();
  int tagSetOfFailed(std::size_t at) const;

  int valueTagAt(std::size_t at) const;
  bool value(Value* out, std::size_t& at, int depth);
  bool valueOf(int set, Value* out, std::size_t start, std::size_t& at, int depth);
  template <int set>
  bool valueOfSet(Value* out, std::size_t start, std::size_t& at, int depth);
  template <int set>
  bool surveyedValue(std::size_t start, std::size_t& at, int depth);
  template <int set>
  bool content(Value* out, std::size_t& at, int depth);
  template <int set>
  bool ofType(Value::Type type, Value* out, std::size_t& at, int depth);
  template <int set>
  std::size_t pastValueEnd(std::size_t at, std::size_t typeEndLength);
  template <int set>
  std::size_t pastFarValueEnd(std::size_t at);

  bool boolean(Value* out, std::size_t& at);
  bool integer(Value* out, std::size_t& at);
  bool integer64(Value* out, std::size_t& at);
  bool number(Value* out, std::size_t& at);
  bool text(Value* out, std::size_t& at);
  bool time(Value* out, std::size_t& at);
  bool binary(Value* out, std::size_t& at);
  template <int set>
  bool array(Value* out, std::size_t& at, int depth);
  template <int set>
  bool structure(Value* out, std::size_t& at, int depth);

  void buildElements(Value::Array& elements, std::size_t& at, int depth);
  void surveyElements(std::size_t& at, int depth);
  template <int set>
  bool buildMembers(Value::Struct& members, std::size_t& at, int depth);
  template <int set>
  bool surveyMembers(std::size_t& at, int depth);
  template <int set>
  std::string_view memberName(std::size_t& at);
  bool enterKnown(const XmlSurvey::Outcome& outcome, int depth);
  void recordRest(std::size_t mark, bool success, std::size_t end, std::uint32_t levels);

  std::size_t skipBlanks(std::size_t at) { return at < _text.size() && IsBlank(_text[at]) ? skipKnownBlanks(at) : at; }
  std::size_t skipKnownBlanks(std::size_t at);
  bool skipTag(std::size_t& at, std::string_view tag);
  std::size_t nextLess(std::size_t at);
  std::size_t nearLess(std::size_t at) const;
  bool stopped() const { return _tooDeep || _mustSurvey; }

  std::string_view _text;
  std::array<Finders, 2> _finders;
  XmlSurvey _survey;
  std::vector<std::size_t> _trail;  // the list members surveyed so far whose lists go on
  std::size_t _lastFailed = std::string_view::npos;
  std::size_t _blanksFrom = 0;  // white space from here to _blanksEnd is known
  std::size_t _blanksEnd = 0;
  std::size_t _noLessFrom = std::string_view::npos;
  int _openArrays = 0;
  int _deepest = 0;
  bool _surveying = false;
  bool _tooDeep = false;
  bool _mustSurvey = false;
};

}  // namespace TarnXmlRpc
