#pragma once

// What the value reader remembers about a document, so that its time stays linear. Internal to the library.

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "xmlrpc/XmlScan.h"

namespace TarnXmlRpc {

/// Numbers the places of tags in a text. A tag has at least four characters, so that each four bytes of text need one
/// bit only.
class TagNumbers {
 public:
  void begin(std::size_t textSize) { _blocks.assign(textSize / blockBytes + 1, Block()); }
  bool begun() const { return !_blocks.empty(); }
  void add(std::size_t at) { _blocks[at / blockBytes].tags |= bit(at); }

  /// Ends the adding and returns how many there are.
  std::size_t finish() {
    std::size_t total = 0;
    for (Block& block : _blocks) {
      block.before = static_cast<std::uint32_t>(total);
      total += std::bitset<64>(block.tags).count();
    }
    return total;
  }

  /// How many tags stand in front of the four bytes that `at`, a place in the text or its end, belongs to.
  std::size_t before(std::size_t at) const {
    const Block& block = _blocks[at / blockBytes];
    return block.before + std::bitset<64>(block.tags & (bit(at) - 1)).count();
  }

 private:
  static constexpr std::size_t shortestTag = 4;  // "<va>", "<me>"
  static constexpr std::size_t blockBytes = 64 * shortestTag;
  struct Block {
    std::uint64_t tags = 0;
    std::uint32_t before = 0;  // in all blocks in front of this one
  };

  static std::uint64_t bit(std::size_t at) { return std::uint64_t{1} << (at % blockBytes / shortestTag); }

  std::vector<Block> _blocks;
};

/// Looks for one tag from many places of one text. While the places only move forward, each byte is looked at once;
/// after the index is made, a look from anywhere takes a bounded number of steps.
class TagFinder {
 public:
  explicit TagFinder(std::string_view text, std::string_view tag) : _text(text), _tag(tag) {}

  /// The first place of the tag at or after `from`, or npos. Rarely called: kept out of the code around its callers.
  [[gnu::noinline]] std::size_t find(std::size_t from) {
    if (_numbers.begun()) return indexed(from);
    if (from < _from || from > _found) {
      _found = _text.find(_tag, from);
      _from = from;
    }
    return _found;
  }

  void beginIndex() { _numbers.begin(_text.size()); }
  /// Adds `at` to the index if the tag stands there. Each place once, in their order.
  void addToIndex(std::size_t at) {
    if (!StandsAt(_text, at, _tag)) return;
    _numbers.add(at);
    _places.push_back(static_cast<std::uint32_t>(at));
  }
  void endIndex() { _numbers.finish(); }

 private:
  std::size_t indexed(std::size_t from) const {
    if (from > _text.size()) return std::string_view::npos;
    std::size_t number = _numbers.before(from);
    if (number < _places.size() && _places[number] < from) ++number;
    return number < _places.size() ? _places[number] : std::string_view::npos;
  }

  std::string_view _text;
  std::string_view _tag;
  std::size_t _from = 1;  // what find() knows: from _from on the first one is at _found; nothing at first
  std::size_t _found = 0;
  TagNumbers _numbers;
  std::vector<std::uint32_t> _places;
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
    if (end - at >= longStretch) _blanks.emplace(at, end);
    return end;
  }

 private:
  static constexpr std::size_t longStretch = 16;

  TagNumbers _numbers;
  std::vector<Place> _places;
  std::unordered_map<std::size_t, std::size_t> _blanks;
};

}  // namespace TarnXmlRpc
