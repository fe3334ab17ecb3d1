#pragma once

// White space, tags and entities of a text. Internal to the library. Positions are bytes from the start of the text;
// none of these reads past its end.

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

#include "base/Blank.h"

namespace TarnXmlRpc {

inline std::size_t SkipBlanks(std::string_view text, std::size_t at) {
  while (at < text.size() && IsBlank(text[at])) ++at;
  return at;
}

[[gnu::always_inline]] inline bool StandsAt(std::string_view text, std::size_t at, std::string_view tag) {
  // A tag that the compiler knows is compared in place, without a call.
  return at <= text.size() && text.size() - at >= tag.size() &&
         std::memcmp(text.data() + at, tag.data(), tag.size()) == 0;
}

/// Skips white space; if `tag` stands there, moves `at` past it.
inline bool SkipTag(std::string_view text, std::size_t& at, std::string_view tag) {
  const std::size_t start = SkipBlanks(text, at);
  if (!StandsAt(text, start, tag)) return false;
  at = start + tag.size();
  return true;
}

/// The same for the empty-element form of `tag`: "<data/>", with blanks before the slash or without.
inline bool SkipEmptyTag(std::string_view text, std::size_t& at, std::string_view tag) {
  std::size_t end = at;
  if (tag.empty() || !SkipTag(text, end, tag.substr(0, tag.size() - 1))) return false;
  end = SkipBlanks(text, end);
  if (text.size() - end < 2 || text[end] != '/' || text[end + 1] != tag.back()) return false;
  at = end + 2;
  return true;
}

/// The most bytes that one character becomes.
inline constexpr std::size_t LONGEST_ENTITY = 6;
/// What Encode() overwrites for each character, however short it becomes.
inline constexpr std::size_t ENCODING_STEP = 8;

/// Writes `text` to `to` with the five characters as entities and returns the end of what was written. Up to
/// ENCODING_STEP bytes behind that end are overwritten.
char* Encode(std::string_view text, char* to);
/// The bytes that Encode() writes.
std::size_t EncodedLength(std::string_view text);
/// Sets `out` to `text` with the entities of the five characters read. False, and `out` untouched, if there is no "&"
/// in it.
bool Decode(std::string_view text, std::string& out);

}  // namespace TarnXmlRpc
