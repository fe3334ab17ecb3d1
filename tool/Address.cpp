#include "tool/Address.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <vector>

namespace tarnddp {
namespace {

/// A decimal number of at most three digits, no leading zero, not above `highest`.
std::optional<unsigned> ParseSmallNumber(std::string_view text, unsigned highest) {
  if (text.empty() || text.size() > 3 || (text.size() > 1 && text[0] == '0')) return std::nullopt;
  unsigned number = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    number = number * 10 + static_cast<unsigned>(c - '0');
  }
  return number <= highest ? std::optional(number) : std::nullopt;
}

/// `c` as a lower case hexadecimal digit, or 0.
char HexDigit(char c) {
  if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')) return c;
  return c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : '\0';
}

constexpr std::string_view macSeparators = ":-. ";

/// What stands between the separators, which are all the same character. Empty if `text` holds anything else.
std::vector<std::string> HexGroups(std::string_view text) {
  std::vector<std::string> groups(1);
  char separator = '\0';
  for (const char c : text) {
    if (const char digit = HexDigit(c); digit != '\0') {
      groups.back() += digit;
    } else if (macSeparators.find(c) != std::string_view::npos && (separator == '\0' || separator == c)) {
      separator = c;
      groups.emplace_back();
    } else {
      return {};
    }
  }
  return groups;
}

}  // namespace

std::optional<IPv4> ParseIPv4(std::string_view text) {
  IPv4 address = 0;
  for (int i = 0; i < 4; ++i) {
    const std::size_t end = i < 3 ? text.find('.') : text.size();
    if (end == std::string_view::npos) return std::nullopt;
    const auto number = ParseSmallNumber(text.substr(0, end), 255);
    if (!number) return std::nullopt;
    address = address << 8U | *number;
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return address;
}

std::string IPv4Text(IPv4 address) {
  std::string text = std::to_string(address >> 24U);
  for (const unsigned shift : {16U, 8U, 0U}) text += '.' + std::to_string(address >> shift & 0xffU);
  return text;
}

std::string IPv4Text(IPv4 address, int prefix) { return IPv4Text(address) + '/' + std::to_string(prefix); }

std::optional<int> ParsePrefix(std::string_view text) {
  const auto number = ParseSmallNumber(text, 32);
  return number ? std::optional(static_cast<int>(*number)) : std::nullopt;
}

IPv4 MaskOfPrefix(int prefix) { return prefix <= 0 ? 0 : ~IPv4{0} << static_cast<unsigned>(32 - prefix); }

std::optional<int> PrefixOfMask(IPv4 mask) {
  for (int prefix = 0; prefix <= 32; ++prefix) {
    if (MaskOfPrefix(prefix) == mask) return prefix;
  }
  return std::nullopt;
}

std::optional<std::string> MacDigits(std::string_view text) {
  std::string digits;
  for (const char c : text) {
    if (const char digit = HexDigit(c); digit != '\0') {
      digits += digit;
    } else if (macSeparators.find(c) == std::string_view::npos) {
      return std::nullopt;
    }
  }
  return digits.empty() ? std::nullopt : std::optional(digits);
}

std::optional<std::string> ParseMac(std::string_view text) {
  std::vector<std::string> groups = HexGroups(text);
  if (groups.size() == 6) {
    for (std::string& group : groups) {
      if (group.size() == 1) group.insert(0, 1, '0');
    }
  }
  constexpr std::array<std::size_t, 4> counts = {1, 2, 3, 6};
  if (std::count(counts.begin(), counts.end(), groups.size()) == 0) return std::nullopt;
  std::string mac;
  for (const std::string& group : groups) {
    if (group.size() != 12 / groups.size()) return std::nullopt;
    mac += group;
  }
  for (std::size_t at = 10; at > 0; at -= 2) mac.insert(at, 1, ':');
  return mac;
}

}  // namespace tarnddp
