#include "xmlrpc/CBase64.h"

#include <endian.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <stdexcept>

namespace {

constexpr char ALPHABET[65] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char PADDING = '=';
constexpr std::size_t BUFFER_STEP = 4096;

// Both ways look up tables of 12 KB, which a small program does without: it takes up to twice the time.
constexpr std::uint32_t FOREIGN = 0x80000000;  // of a character outside the alphabet; no six bits can be this

#ifndef __OPTIMIZE_SIZE__

using Sextets = std::array<std::uint32_t, 256>;
constexpr Sextets MakeSextets(unsigned shift) {
  Sextets sextets{};
  for (auto& sextet : sextets) sextet = FOREIGN;
  for (std::uint32_t i = 0; i < 64; ++i) sextets[static_cast<unsigned char>(ALPHABET[i])] = i << shift;
  return sextets;
}
constexpr Sextets SEXTETS[4] = {MakeSextets(18), MakeSextets(12), MakeSextets(6), MakeSextets(0)};

/// The value of a character, shifted to its place in a group of four.
inline std::uint32_t Sextet(int place, unsigned char c) { return SEXTETS[place][c]; }

/// The two characters of each twelve bits.
struct Pair {
  char characters[2];
};
constexpr std::array<Pair, 4096> MakePairs() {
  std::array<Pair, 4096> pairs{};
  for (std::size_t i = 0; i < pairs.size(); ++i) pairs[i] = {{ALPHABET[i >> 6], ALPHABET[i & 63]}};
  return pairs;
}
constexpr std::array<Pair, 4096> PAIRS = MakePairs();

inline void PutPair(unsigned bits, char* to) { std::memcpy(to, PAIRS[bits].characters, 2); }

#else

using Sextets = std::array<std::uint8_t, 256>;
constexpr Sextets MakeSextets() {
  Sextets sextets{};
  for (auto& sextet : sextets) sextet = 64;
  for (std::uint8_t i = 0; i < 64; ++i) sextets[static_cast<unsigned char>(ALPHABET[i])] = i;
  return sextets;
}
constexpr Sextets SEXTETS = MakeSextets();

std::uint32_t Sextet(int place, unsigned char c) {
  const std::uint32_t sextet = SEXTETS[c];
  return sextet > 63 ? FOREIGN : sextet << (18 - 6 * place);
}

void PutPair(unsigned bits, char* to) {
  to[0] = ALPHABET[bits >> 6];
  to[1] = ALPHABET[bits & 63];
}

#endif

/// Makes room for `needed` bytes and zeroes the buffer.
template <typename Char>
void Prepare(std::unique_ptr<Char[]>& buffer, std::int32_t& capacity, std::size_t needed) {
  if (needed > INT_MAX - BUFFER_STEP) throw std::length_error("CBase64: too long");
  if (needed > static_cast<std::size_t>(capacity)) {
    const std::size_t size = needed / BUFFER_STEP * BUFFER_STEP + BUFFER_STEP;
    buffer.reset();
    capacity = 0;
    buffer.reset(new Char[size]);
    capacity = static_cast<std::int32_t>(size);
  }
  std::fill_n(buffer.get(), capacity, Char{});
}

/// Writes the upper `count` of the three bytes of a group.
unsigned char* PutBytes(std::uint32_t group, int count, unsigned char* out) {
  for (int shift = 16; count > 0; --count, shift -= 8) *out++ = static_cast<unsigned char>(group >> shift);
  return out;
}

/// Writes the bytes of one group of four characters that is not three plain bytes. Null where a foreign character ends
/// the data; else the end of what was written.
unsigned char* DecodeOddGroup(const unsigned char* in, unsigned char* out) {
  if (in[0] == PADDING || in[1] == PADDING) return out;
  std::uint32_t group = Sextet(0, in[0]) | Sextet(1, in[1]);
  if ((group & FOREIGN) != 0) return nullptr;
  if (in[2] == PADDING) return PutBytes(group, 1, out);
  group |= Sextet(2, in[2]);
  return (group & FOREIGN) == 0 && in[3] == PADDING ? PutBytes(group, 2, out) : nullptr;
}

/// Writes the bytes of `text` to `out`, which has room for three bytes to each four characters, and returns their
/// number.
std::size_t Decode(const char* text, std::size_t length, unsigned char* out) {
  if (length % 4 != 0) return 0;
  const unsigned char* const first = out;
  const auto* in = reinterpret_cast<const unsigned char*>(text);
  const auto GroupAt = [](const unsigned char* at) {
    return Sextet(0, at[0]) | Sextet(1, at[1]) | Sextet(2, at[2]) | Sextet(3, at[3]);
  };
  const auto* const end = in + length;
  // Three plain bytes in one write of four, while another group's follow.
  for (; end - in > 4; in += 4, out += 3) {
    const std::uint32_t group = GroupAt(in);
    if ((group & FOREIGN) != 0) break;
    const std::uint32_t bytes = htobe32(group << 8);
    std::memcpy(out, &bytes, sizeof bytes);
  }
  for (; in != end; in += 4) {
    const std::uint32_t group = GroupAt(in);
    unsigned char* next = (group & FOREIGN) == 0 ? PutBytes(group, 3, out) : DecodeOddGroup(in, out);
    if (next == nullptr) break;
    out = next;
  }
  return static_cast<std::size_t>(out - first);
}

}  // namespace

void CBase64::Encode(const std::vector<char>& data) {
  if (data.size() > INT_MAX / 4) throw std::length_error("CBase64: too long");
  _encodedLength = 0;
  Prepare(_encoded, _encodedCapacity, 4 * data.size());
  if (data.empty()) return;
  EncodeTo(data.data(), data.size(), _encoded.get());
  _encodedLength = static_cast<std::int32_t>(EncodedLength(data.size()));
}

void CBase64::Decode(const char* text) {
  const std::size_t length = std::strlen(text);
  _decodedLength = 0;
  Prepare(_decoded, _decodedCapacity, length);
  _decodedLength = static_cast<std::int32_t>(::Decode(text, length, _decoded.get()));
}

void CBase64::EncodeTo(const char* bytes, std::size_t length, char* out) {
  const auto* in = reinterpret_cast<const unsigned char*>(bytes);
  for (; length >= 3; length -= 3, in += 3, out += 4) {
    const unsigned group = (static_cast<unsigned>(in[0]) << 16) | (static_cast<unsigned>(in[1]) << 8) | in[2];
    PutPair(group >> 12, out);
    PutPair(group & 4095, out + 2);
  }
  if (length == 0) return;
  const unsigned b0 = in[0], b1 = length == 2 ? in[1] : 0U;
  *out++ = ALPHABET[b0 >> 2];
  *out++ = ALPHABET[((b0 & 3) << 4) | (b1 >> 4)];
  *out++ = length == 2 ? ALPHABET[(b1 & 15) << 2] : PADDING;
  *out = PADDING;
}

void CBase64::DecodeTo(const char* text, std::size_t length, std::vector<char>& out) {
  out.resize(length / 4 * 3);
  out.resize(::Decode(text, length, reinterpret_cast<unsigned char*>(out.data())));
}
