#include "xmlrpc/CBase64.h"

#include <gtest/gtest.h>

#include "tests/model/PlainValue.h"
#include "tests/unit/FailingAllocations.h"

TEST(CBase64, DecodesAndEncodesLikeTheModelWithTheSameBuffers) {
  Random random;
  CBase64 codec;
  EXPECT_EQ(std::string(), codec.GetEncoded());
  EXPECT_EQ(0, codec.GetDecodedLength());
  CBase64().Decode("");
  for (unsigned i = 0; i < 20000; ++i) {
    std::string text(i % 500 == 0 ? 4090 + random() % 12 : i % 2 == 0 ? random() % 17 : random() % 5 * 4, ' ');
    for (char& c : text) {
      c = random() % (i % 3 == 0 ? 1000 : 6) == 0 ? random("= \n?-_\xc3\x7f") : PLAIN_ALPHABET[random() % 64];
    }
    const std::string bytes = PlainFromBase64(text.c_str());
    codec.Decode(text.c_str());
    const auto* const start = reinterpret_cast<const char*>(codec.GetDecoded());
    ASSERT_EQ(bytes, std::string(start, start + codec.GetDecodedLength())) << text;
    std::vector<char> decoded(random() % 5, 'x');
    CBase64::DecodeTo(text.data(), std::strlen(text.c_str()), decoded);
    ASSERT_EQ(bytes, Text(decoded)) << text;
    for (const std::string& clear : {bytes, text}) {
      codec.Encode(std::vector<char>(clear.begin(), clear.end()));
      ASSERT_EQ(PlainBase64(clear), codec.GetEncoded());
      ASSERT_EQ(codec.GetEncodedLength(), static_cast<int>(std::strlen(codec.GetEncoded())));
    }
  }
}

TEST(CBase64, HasNothingDecodedWhereMemoryRunsOut) {
  CBase64 codec;
  codec.Decode("Zm9v");
  const std::string text(8000, 'A');
  FailEach([&] { codec.Decode(text.c_str()); }, [&] { return codec.GetDecodedLength() == 0; }, true);
  EXPECT_EQ(6000, codec.GetDecodedLength());
}
