#include <gtest/gtest.h>

#include "tests/model/PlainValue.h"
#include "tests/unit/FailingAllocations.h"
#include "xmlrpc/CBase64.h"

namespace {

/// Of `length` characters, mostly such that belong there.
std::string RandomText(std::mt19937& random, std::size_t length, unsigned oneForeignIn) {
  std::string text(length, ' ');
  for (char& c : text) {
    c = random() % oneForeignIn == 0 ? "= \n?-_\xc3\x7f"[random() % 8] : PLAIN_ALPHABET[random() % 64];
  }
  return text;
}

TEST(CBase64, DecodesAndEncodesLikeTheModelWithTheSameBuffers) {
  std::mt19937 random(1);
  CBase64 codec;
  EXPECT_EQ(std::string(), codec.GetEncoded());
  for (unsigned i = 0; i < 20000; ++i) {
    const std::size_t length =
        i % 500 == 0 ? 4090 + random() % 12 : random() % 17 / (i % 2 + 1) * (i % 2 == 0 ? 1U : 4U);
    const std::string text = RandomText(random, length, i % 3 == 0 ? 1000 : 6), bytes = PlainFromBase64(text);
    codec.Decode(text.c_str());
    ASSERT_EQ(bytes.size(), static_cast<std::size_t>(codec.GetDecodedLength())) << text;
    ASSERT_EQ(bytes, std::string(reinterpret_cast<const char*>(codec.GetDecoded()), bytes.size())) << text;
    std::vector<char> decoded(random() % 5, 'x');
    CBase64::DecodeTo(text.data(), text.size(), decoded);
    ASSERT_EQ(bytes, std::string(decoded.begin(), decoded.end())) << text;
    codec.Encode(decoded);
    ASSERT_EQ(PlainBase64(bytes), codec.GetEncoded()) << text;
    ASSERT_EQ(codec.GetEncodedLength(), static_cast<int>(std::strlen(codec.GetEncoded())));
    codec.Encode(std::vector<char>(text.begin(), text.end()));
    ASSERT_EQ(PlainBase64(text), codec.GetEncoded());
  }
}

TEST(CBase64, LosesNothingWhereMemoryRunsOut) {
  CBase64 codec;
  codec.Decode("Zm9v");
  const std::string text(8000, 'A');
  const auto decode = [&] { codec.Decode(text.c_str()); };
  const auto isUsable = [&] {
    if (codec.GetDecodedLength() != 0) return false;
    codec.Decode("Zm9v");
    return codec.GetDecodedLength() == 3;
  };
  FailEach(decode, isUsable, true);
  EXPECT_EQ(6000, codec.GetDecodedLength());
}

}  // namespace
