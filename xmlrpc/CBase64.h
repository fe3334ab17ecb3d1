#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// Base64 (RFC 4648, section 4) without line breaks. An object keeps its two buffers between uses, which grow only; the
/// static functions do the same work on the caller's storage. Throws std::length_error for more than int can count.
class CBase64 {
 public:
  CBase64() = default;
  virtual ~CBase64() = default;

  void Encode(const std::vector<char>& data);
  /// Strict: a text whose length is no multiple of 4 gives nothing; a character outside the alphabet, white space
  /// included, ends the data before its group of four; padding ends its group only.
  void Decode(const char* text);

  /// NUL-terminated; empty before the first Encode(). Valid until the next one.
  const char* GetEncoded() const { return _encoded ? _encoded.get() : ""; }
  int GetEncodedLength() const { return _encodedLength; }
  /// Null before the first Decode() of any text that is not empty. Valid until the next one.
  const unsigned char* GetDecoded() const { return _decoded.get(); }
  int GetDecodedLength() const { return _decodedLength; }

  /// The characters that `length` bytes take.
  static constexpr std::size_t EncodedLength(std::size_t length) { return (length + 2) / 3 * 4; }
  /// Writes the text of `length` bytes to `out`, EncodedLength(length) characters without a NUL.
  static void EncodeTo(const char* bytes, std::size_t length, char* out);
  /// Replaces `out` by the bytes of `length` characters, by the rules of Decode().
  static void DecodeTo(const char* text, std::size_t length, std::vector<char>& out);

 private:
  std::unique_ptr<char[]> _encoded;
  std::int32_t _encodedCapacity = 0;
  std::int32_t _encodedLength = 0;
  std::unique_ptr<unsigned char[]> _decoded;
  std::int32_t _decodedCapacity = 0;
  std::int32_t _decodedLength = 0;
};
