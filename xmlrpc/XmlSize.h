#pragma once

// How long the XML of a value becomes, before it is written. Internal to the library.

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "xmlrpc/XmlRpcValue.h"

namespace TarnXmlRpc {

/// Numbers from 1 to `most`, in no order that a document could have.
class Chance {
 public:
  std::size_t upTo(std::size_t most) {
    _state = _state * 1664525 + 1013904223;
    return 1 + (_state >> 16) % most;
  }

 private:
  std::uint32_t _state = 1;
};

/// What many short texts become in XML, of which some are measured and the others taken to be alike: all of the first,
/// then one of sixteen.
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
    _untilNext = ++_count > MEASURED_ALL ? _chance.upTo(31) : 1;
  }
  std::size_t expected() const;

 private:
  static constexpr unsigned MEASURED_ALL = 64;

  Chance _chance;
  std::size_t _untilNext = 1;
  unsigned _count = 0;
  std::size_t _measured = 0, _becomes = 0, _skipped = 0;
};

/// Adds up the sizes of values: nearly exact, and without formatting every number or reading every text.
class XmlSize {
 public:
  enum Care {
    Sampled,  // of a long array that looks like numbers throughout, parts are looked at
    Complete  // every value is
  };

  XmlSize(int set, Care care) : _set(set), _care(care) {}

  void add(const XmlRpcValue& value);
  std::size_t expected() const;

 private:
  void addText(std::string_view text);
  bool addNumbers(const std::vector<XmlRpcValue>& elements);

  const int _set;
  const Care _care;
  std::size_t _size = 0;
  SampledSize _doubles, _times, _texts;
};

}  // namespace TarnXmlRpc
