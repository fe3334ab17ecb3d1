#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// IPv4 and MAC addresses as people and devices write them. Pure: any text, nothing is ever looked up.

namespace tarnddp {

/// An IPv4 address or mask as a number: 10.0.0.1 is 0x0a000001 on every machine.
using IPv4 = std::uint32_t;

/// Four decimal numbers up to 255 joined by dots and nothing else: no leading zero (which some programs read as octal),
/// no sign, no blank, no shorter form.
std::optional<IPv4> ParseIPv4(std::string_view text);
std::string IPv4Text(IPv4 address);
/// "10.0.0.1/8".
std::string IPv4Text(IPv4 address, int prefix);

/// A decimal number from 0 to 32 without leading zeros.
std::optional<int> ParsePrefix(std::string_view text);
/// `prefix` is 0 to 32.
IPv4 MaskOfPrefix(int prefix);
/// Nothing for a mask with holes.
std::optional<int> PrefixOfMask(IPv4 mask);

/// A network by its mask; a mask with holes is as good as any.
constexpr bool InSameNetwork(IPv4 one, IPv4 other, IPv4 mask) { return (one & mask) == (other & mask); }

constexpr bool IsLoopback(IPv4 address) { return address >> 24U == 127; }
/// A multicast group.
constexpr bool IsGroup(IPv4 address) { return address >> 28U == 0xe; }
/// "This network" (0.0.0.0/8) or beyond the groups (240.0.0.0/4, the limited broadcast address included): no host has
/// it.
constexpr bool IsReserved(IPv4 address) { return address >> 24U == 0 || address >> 28U == 0xf; }

/// The hexadecimal digits of a MAC address or of its end, in lower case, without the separators ':', '-', '.' and
/// blank. Nothing if any other character is in `text` or no digit.
std::optional<std::string> MacDigits(std::string_view text);

/// A whole MAC address in any of the usual spellings as "00:1b:c4:0a:ff:05": twelve digits plain or with separators
/// (one kind throughout) in groups of two, four or six, or six groups of one or two digits. Nothing for any other text.
std::optional<std::string> ParseMac(std::string_view text);

}  // namespace tarnddp
