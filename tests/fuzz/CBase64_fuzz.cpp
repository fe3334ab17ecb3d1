#include "xmlrpc/CBase64.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "tests/fuzz/LiteralReader.h"

/// Decodes the input as a text, like the literal rules do, and encodes it as data, which must decode again.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static CBase64 codec;  // its buffers live on from one use to the next
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::vector<char> expected = LiteralReader::decodeBase64(text.c_str());
  codec.Decode(text.c_str());
  const auto sameAs = [](const std::vector<char>& bytes) {
    return codec.GetDecodedLength() == static_cast<int>(bytes.size()) &&
           (bytes.empty() || std::memcmp(codec.GetDecoded(), bytes.data(), bytes.size()) == 0);
  };
  if (!sameAs(expected)) std::abort();

  const std::vector<char> bytes(text.begin(), text.end());
  codec.Encode(bytes);
  if (std::strlen(codec.GetEncoded()) != static_cast<std::size_t>(codec.GetEncodedLength())) std::abort();
  codec.Decode(codec.GetEncoded());
  if (!sameAs(bytes)) std::abort();
  return 0;
}
