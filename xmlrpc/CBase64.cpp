#include "xmlrpc/CBase64.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <stdexcept>

namespace {

constexpr char alphabet[65] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char padding = '=';
constexpr std::size_t bufferStep = 4096;

/// The value of each alphabet character; everything else has `foreign`, which no six bits can be.
constexpr std::uint8_t foreign = 0x80;
constexpr std::array<std::uint8_t, 256> MakeSextets() {
  std::array<std::uint8_t, 256> sextets{};
  for (auto& sextet : sextets) sextet = foreign;
  for (std::uint8_t i = 0; i < 64; ++i) sextets[static_cast<unsigned char>(alphabet[i])] = i;
  return sextets;
}
constexpr std::array<std::uint8_t, 256> sextets = MakeSextets();

/// Makes room for `needed` bytes and zeroes the buffer.
template <typename Char>
void Prepare(std::unique_ptr<Char[]>& buffer, std::int32_t& capacity, std::size_t needed) {
  if (needed > INT_MAX - bufferStep) throw std::length_error("CBase64: too long");
  if (needed > static_cast<std::size_t>(capacity)) {
    const std::size_t size = needed / bufferStep * bufferStep + bufferStep;
    buffer.reset();
    capacity = 0;
    buffer.reset(new Char[size]);
    capacity = static_cast<std::int32_t>(size);
  }
  std::fill_n(buffer.get(), capacity, Char{});
}

/// Writes the bytes of one group of four characters that is not three plain bytes. Returns how many there are, or -1
/// where a foreign character ends the data.
int DecodeOddGroup(const unsigned char* in, unsigned char* out) {
  if (in[0] == padding || in[1] == padding) return 0;
  const unsigned c0 = sextets[in[0]], c1 = sextets[in[1]];
  if (((c0 | c1) & foreign) != 0) return -1;
  out[0] = static_cast<unsigned char>((c0 << 2) | (c1 >> 4));
  if (in[2] == padding) return 1;
  const unsigned c2 = sextets[in[2]];
  if (c2 == foreign) return -1;
  out[1] = static_cast<unsigned char>(((c1 & 15) << 4) | (c2 >> 2));
  return in[3] == padding ? 2 : -1;
}

/// Writes the bytes of `text` to `out`, which has room for three bytes to each four characters, and returns their
/// number.
std::size_t Decode(const char* text, std::size_t length, unsigned char* out) {
  if (length % 4 != 0) return 0;
  const unsigned char* const first = out;
  const auto* in = reinterpret_cast<const unsigned char*>(text);
  for (const auto* end = in + length; in != end; in += 4) {
    const unsigned c0 = sextets[in[0]], c1 = sextets[in[1]], c2 = sextets[in[2]], c3 = sextets[in[3]];
    if (((c0 | c1 | c2 | c3) & foreign) == 0) {
      *out++ = static_cast<unsigned char>((c0 << 2) | (c1 >> 4));
      *out++ = static_cast<unsigned char>(((c1 & 15) << 4) | (c2 >> 2));
      *out++ = static_cast<unsigned char>(((c2 & 3) << 6) | c3);
      continue;
    }
    const int count = DecodeOddGroup(in, out);
    if (count < 0) break;
    out += count;
  }
  return static_cast<std::size_t>(out - first);
}

}  // namespace

void CBase64::Encode(const std::vector<char>& data) {
  if (data.size() > INT_MAX / 4) throw std::length_error("CBase64: too long");
  Prepare(_encoded, _encodedCapacity, 4 * data.size());
  _encodedLength = 0;
  if (data.empty()) return;
  EncodeTo(data.data(), data.size(), _encoded.get());
  _encodedLength = static_cast<std::int32_t>(EncodedLength(data.size()));
}

void CBase64::Decode(const char* text) {
  const std::size_t length = std::strlen(text);
  Prepare(_decoded, _decodedCapacity, length);
  _decodedLength = static_cast<std::int32_t>(::Decode(text, length, _decoded.get()));
}

void CBase64::EncodeTo(const char* bytes, std::size_t length, char* out) {
  const auto* in = reinterpret_cast<const unsigned char*>(bytes);
  for (; length >= 3; length -= 3, in += 3) {
    const unsigned b0 = in[0], b1 = in[1], b2 = in[2];
    *out++ = alphabet[b0 >> 2];
    *out++ = alphabet[((b0 & 3) << 4) | (b1 >> 4)];
    *out++ = alphabet[((b1 & 15) << 2) | (b2 >> 6)];
    *out++ = alphabet[b2 & 63];
  }
  if (length == 0) return;
  const unsigned b0 = in[0], b1 = length == 2 ? in[1] : 0U;
  *out++ = alphabet[b0 >> 2];
  *out++ = alphabet[((b0 & 3) << 4) | (b1 >> 4)];
  *out++ = length == 2 ? alphabet[(b1 & 15) << 2] : padding;
  *out = padding;
}

void CBase64::DecodeTo(const char* text, std::size_t length, std::vector<char>& out) {
  out.resize(length / 4 * 3);
  out.resize(::Decode(text, length, reinterpret_cast<unsigned char*>(out.data())));
}
