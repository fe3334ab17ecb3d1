#pragma once

// Where tags stand in a text, so that looking for them takes time linear in it. Internal to the library.

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "xmlrpc/XmlText.h"

namespace TarnXmlRpc {

/// Numbers the places of tags in a text. A tag has at least four characters, so that each four bytes of text need one
/// bit only.
class TagNumbers {
 public:
  void begin(std::size_t textSize) { _blocks.assign(textSize / BLOCK_BYTES + 1, Block()); }
  bool begun() const { return !_blocks.empty(); }
  void add(std::size_t at) { _blocks[at / BLOCK_BYTES].tags |= bit(at); }

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
    const Block& block = _blocks[at / BLOCK_BYTES];
    return block.before + std::bitset<64>(block.tags & (bit(at) - 1)).count();
  }

 private:
  static constexpr std::size_t SHORTEST_TAG = 4;  // "<va>", "<me>"
  static constexpr std::size_t BLOCK_BYTES = 64 * SHORTEST_TAG;
  struct Block {
    std::uint64_t tags = 0;
    std::uint32_t before = 0;  // in all blocks in front of this one
  };

  static std::uint64_t bit(std::size_t at) { return std::uint64_t{1} << (at % BLOCK_BYTES / SHORTEST_TAG); }

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

}  // namespace TarnXmlRpc
