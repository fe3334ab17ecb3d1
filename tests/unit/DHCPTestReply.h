#pragma once

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "util/DHCPMessage.h"

/// Bytes from their hexadecimal form, separated by blanks.
inline std::vector<std::uint8_t> bytes(const std::string& hex) {
  std::vector<std::uint8_t> result;
  std::istringstream words(hex);
  for (std::string word; words >> word;) result.push_back(static_cast<std::uint8_t>(std::stoul(word, nullptr, 16)));
  return result;
}

inline void put(DHCPBuffer& buffer, std::size_t at, const std::string& hex) {
  const std::vector<std::uint8_t> what = bytes(hex);
  std::copy(what.begin(), what.end(), buffer.begin() + static_cast<std::ptrdiff_t>(at));
}

/// A reply of `type` to our messages that gives 10.1.2.3, with `options` behind the type, the rest filled with `rest`.
inline DHCPBuffer reply(std::uint8_t type, const std::string& options, std::uint8_t rest = 0) {
  DHCPBuffer buffer;
  buffer.fill(rest);
  put(buffer, 0, "02 01 06 00  7c d9 01 00");
  put(buffer, 16, "0a 01 02 03");
  put(buffer, 240, "35 01");
  buffer[242] = type;
  put(buffer, 243, options);
  return buffer;
}
