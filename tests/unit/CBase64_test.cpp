#include "xmlrpc/CBase64.h"

#include <gtest/gtest.h>

namespace {

std::string Encoded(const std::string& bytes) {
  CBase64 codec;
  codec.Encode(std::vector<char>(bytes.begin(), bytes.end()));
  EXPECT_EQ(static_cast<std::size_t>(codec.GetEncodedLength()), std::string(codec.GetEncoded()).size());
  return codec.GetEncoded();
}

}  // namespace

TEST(Base64, EncodesWithoutLineBreaks) {
  const struct {
    std::string bytes, text;
  } rows[] = {{"", ""},        {std::string("\0\xff", 2), "AP8="}, {"f", "Zg=="},
              {"foo", "Zm9v"}, {"\xfb\xff\xfe", "+//+"},           {"foobar", "Zm9vYmFy"}};
  for (const auto& row : rows) EXPECT_EQ(row.text, Encoded(row.bytes));
}

TEST(Base64, DecodingEndsAtTheFirstForeignCharacterButNotAtPadding) {
  const struct {
    const char* text;
    std::string bytes;
  } rows[] = {{"", ""},
              {"Zm9vYg==", "foob"},
              {"Zm9", ""},
              {"Zm9v\nYmFy", ""},
              {"Zm9vYm F", "foo"},
              {"Zg==Zm9v", "ffoo"},
              {"Zg=?Zm9v", "ffoo"},
              {"=?==Zm9v", "foo"},
              {"Z=??Zm9v", "foo"},
              {"Zm9=Zm9v", "fofoo"},
              {"Zm?=Zm9v", ""},
              {"Zm9?Zm9v", ""},
              {"?m9vZm9v", ""},
              {"\xc3\xa4\xc3\xa4", ""}};
  CBase64 codec;
  for (const auto& row : rows) {
    codec.Decode(row.text);
    const auto* bytes = reinterpret_cast<const char*>(codec.GetDecoded());
    EXPECT_EQ(row.bytes, std::string(bytes == nullptr ? "" : bytes, static_cast<std::size_t>(codec.GetDecodedLength())))
        << row.text;
  }
}

TEST(Base64, OneObjectServesManyUsesOfAnySize) {
  CBase64 codec;
  for (const std::size_t size : {5000U, 1U, 1024U, 4096U, 0U, 9000U}) {
    std::vector<char> data(size);
    for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<char>(i * 7);
    codec.Encode(data);
    codec.Decode(codec.GetEncoded());
    const auto* bytes = reinterpret_cast<const char*>(codec.GetDecoded());
    EXPECT_EQ(data, std::vector<char>(bytes, bytes + codec.GetDecodedLength())) << size;
  }
}
