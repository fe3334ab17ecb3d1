#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

/// The bytes of a fuzz input, taken from the front; zeroes and empty texts once they are used up.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : _rest(reinterpret_cast<const char*>(data), size) {}
  bool IsEmpty() const { return _rest.empty(); }
  std::string_view Take(std::size_t size) {
    const std::string_view taken = _rest.substr(0, size);
    _rest.remove_prefix(taken.size());
    return taken;
  }
  std::uint8_t Byte() { return _rest.empty() ? std::uint8_t{0} : static_cast<std::uint8_t>(Take(1)[0]); }
  unsigned Below(unsigned bound) { return Byte() % bound; }
  /// One of the pieces of `list`, each of which ends with '|'.
  std::string_view Piece(std::string_view list) {
    for (auto skipped = Below(static_cast<unsigned>(std::count(list.begin(), list.end(), '|'))); skipped > 0;
         --skipped) {
      list.remove_prefix(list.find('|') + 1);
    }
    return list.substr(0, list.find('|'));
  }
  /// Up to `size` bytes as they are or, as the first one says, of one character of `alphabet` for each.
  std::string Text(std::string_view alphabet, std::size_t size = std::string::npos) {
    const bool isSpelled = Byte() >= 0x80;
    std::string text(Take(size));
    for (char& c : text) c = isSpelled ? alphabet[static_cast<unsigned char>(c) % alphabet.size()] : c;
    return text;
  }

 private:
  std::string_view _rest;
};

inline void Require(bool holds, const char* rule, const std::string& what) {
  if (holds) return;
  std::fprintf(stderr, "%s: %.2000s\n", rule, what.c_str());
  std::abort();
}
