#pragma once

// What the value reader remembers about a document, so that its time stays linear. Internal to the library.

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "xmlrpc/TagFinder.h"
#include "xmlrpc/XmlText.h"

namespace TarnXmlRpc {

/// The outcome of reading from each start tag of a document: whether a value or a list that goes on there can be read,
/// where it ends, and how many levels the reader entered for it. Reading is a function of the place alone, so each
/// place is tried once, however often the text around it is taken up again.
class XmlSurvey {
 public:
  struct Outcome {
    static constexpr std::uint32_t Unknown = 0;
    static constexpr std::uint32_t Failed = 1;

    std::uint32_t code = Unknown;
    std::uint32_t levels = 0;

    bool known() const { return code != Unknown; }
    bool failed() const { return code == Failed; }
    std::size_t end() const { return code - 2; }
    void set(bool success, std::size_t end, std::uint32_t levelCount) {
      code = success ? static_cast<std::uint32_t>(end + 2) : Failed;
      levels = levelCount;
    }
  };
  struct Place {
    Outcome value;  // of the value whose start tag is here
    Outcome rest;   // of the array elements, or struct members, from this one on
  };

  // Every start tag of a value or member is added, then the survey begins.

  void beginTags(std::size_t textSize) { _numbers.begin(textSize); }
  void addTag(std::size_t at) { _numbers.add(at); }
  void begin() { _places.resize(_numbers.finish()); }
  bool begun() const { return !_places.empty(); }

  /// `at` is where a start tag stands that was added.
  Place& at(std::size_t at) { return _places[_numbers.before(at)]; }

  /// SkipBlanks() that looks at a long stretch only once for each place it is entered at.
  std::size_t skipBlanks(std::string_view text, std::size_t at) {
    const auto known = _blanks.find(at);
    if (known != _blanks.end()) return known->second;
    const std::size_t end = SkipBlanks(text, at);
    if (end - at >= LONG_STRETCH) _blanks.emplace(at, end);
    return end;
  }

 private:
  static constexpr std::size_t LONG_STRETCH = 16;

  TagNumbers _numbers;
  std::vector<Place> _places;
  std::unordered_map<std::size_t, std::size_t> _blanks;
};

}  // namespace TarnXmlRpc
