#pragma once

// How long the XML of a value becomes, before it is written. Internal to the library.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "xmlrpc/XmlRpcValue.h"

namespace TarnXmlRpc {

/// What many short texts become in XML, of which some are measured and the others taken to be alike: all of the first,
/// then one of eight, by chance, so that a document's own rhythm does not matter.
class SampledSize {
 public:
  /// `size` is what is known without measuring, such as the length before entities are written.
  template <typename Measure>
  void add(std::size_t size, const Measure& measure) {
    if (--_untilNext > 0) {
      _skipped += size;
      return;
    }
    _measured += size;
    _becomes += measure();
    if (++_count > MEASURED_ALL) _untilNext = chance();
  }
  std::size_t expected() const;

 private:
  static constexpr unsigned MEASURED_ALL = 256;
  int chance() {  // 1 to 15
    _random = _random * 1664525 + 1013904223;
    return 1 + static_cast<int>(_random >> 16) % 15;
  }

  int _untilNext = 1;
  unsigned _count = 0;
  std::uint32_t _random = 1;
  std::size_t _measured = 0, _becomes = 0, _skipped = 0;
};

/// Adds up the sizes of values: nearly exact, and without formatting every number or reading every text.
class XmlSize {
 public:
  explicit XmlSize(int set) : _set(set) {}

  void add(const XmlRpcValue& value);
  std::size_t expected() const { return _size + _doubles.expected() + _times.expected() + _texts.expected(); }

 private:
  void addText(std::string_view text);

  const int _set;
  std::size_t _size = 0;
  SampledSize _doubles, _times, _texts;
};

}  // namespace TarnXmlRpc
