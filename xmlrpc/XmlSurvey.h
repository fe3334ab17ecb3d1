#pragma once

// What the value reader remembers about a document, so that its time stays linear. Internal to the library.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "xmlrpc/XmlScan.h"

namespace TarnXmlRpc {

/// Looks for one tag from many places of one text. While the places only move forward, each byte is looked at once;
/// after index(), a look from anywhere takes a bounded number of steps.
class TagFinder {
 public:
  explicit TagFinder(std::string_view text, std::string_view tag) : _text(text), _tag(tag) {}

  /// The first place of the tag at or after `from`, or npos.
  std::size_t find(std::size_t from) {
    if (!_firstOfBlock.empty()) return indexed(from);
    if (from < _from || from > _found) {
      _found = _text.find(_tag, from);
      _from = from;
    }
    return _found;
  }

  void index() {
    for (std::size_t at = _text.find(_tag); at != std::string_view::npos; at = _text.find(_tag, at + 1)) {
      for (; _firstOfBlock.size() * blockSize <= at; _firstOfBlock.push_back(_places.size())) {
      }
      _places.push_back(at);
    }
    _firstOfBlock.push_back(_places.size());
  }

 private:
  static constexpr std::size_t blockSize = 64;

  std::size_t indexed(std::size_t from) const {
    const std::size_t block = std::min(from / blockSize, _firstOfBlock.size() - 1);
    for (std::size_t i = _firstOfBlock[block]; i < _places.size(); ++i) {
      if (_places[i] >= from) return _places[i];
    }
    return std::string_view::npos;
  }

  std::string_view _text;
  std::string_view _tag;
  std::size_t _from = 1;  // what find() knows: from _from on the first one is at _found; nothing at first
  std::size_t _found = 0;
  std::vector<std::size_t> _places;
  std::vector<std::size_t> _firstOfBlock;  // for each block of the text, the first place in it or after it
};

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

  void begin(std::size_t size) { _places.resize(size / shortestTag + 1); }
  bool begun() const { return !_places.empty(); }

  /// `at` is where a value or member start tag stands; no two can share a place, as the shortest has four characters.
  Place& at(std::size_t at) { return _places[at / shortestTag]; }

  /// SkipBlanks() that looks at a long stretch only once for each place it is entered at.
  std::size_t skipBlanks(std::string_view text, std::size_t at) {
    const auto known = _blanks.find(at);
    if (known != _blanks.end()) return known->second;
    const std::size_t end = SkipBlanks(text, at);
    if (end - at >= longStretch) _blanks.emplace(at, end);
    return end;
  }

 private:
  static constexpr std::size_t shortestTag = 4;  // "<va>", "<me>"
  static constexpr std::size_t longStretch = 16;

  std::vector<Place> _places;
  std::unordered_map<std::size_t, std::size_t> _blanks;
};

}  // namespace TarnXmlRpc
