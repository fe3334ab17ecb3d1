#pragma once

#include <netinet/in.h>

#include <array>
#include <charconv>
#include <cstring>

// Addresses as texts, without the printf that inet_ntop() goes through for each.

/// Writes the dotted quad, at most INET_ADDRSTRLEN bytes with its NUL.
inline void AddressText_Quad(in_addr address, char* text) {
  std::array<unsigned char, 4> bytes = {};
  std::memcpy(bytes.data(), &address, bytes.size());
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i != 0) *text++ = '.';
    text = std::to_chars(text, text + 3, static_cast<unsigned>(bytes[i])).ptr;
  }
  *text = '\0';
}

/// Writes six bytes as "00:1b:c4:0a:ff:05", 18 bytes with the NUL.
inline void AddressText_Mac(const std::array<unsigned char, 6>& mac, char* text) {
  constexpr char digits[] = "0123456789abcdef";
  for (const unsigned char byte : mac) {
    *text++ = digits[byte >> 4];
    *text++ = digits[byte & 15];
    *text++ = ':';
  }
  text[-1] = '\0';
}
