#include "tool/Address.h"

#include <gtest/gtest.h>

namespace tarnddp {
namespace {

TEST(Address, IsFourPlainNumbersAndNothingElse) {
  for (const IPv4 address : {0U, 0xc0a8010aU, 0xffffffffU, 0x0a000001U})
    EXPECT_EQ(address, ParseIPv4(IPv4Text(address)));
  EXPECT_EQ("192.168.1.10", IPv4Text(0xc0a8010a));
  for (const char* text : {"", "1.2.3", "1.2.3.4.5", "1.2.3.", ".1.2.3", "1..2.3", "1.2.3.4.", "1.2.3.256", "1.2.3.04",
                           "01.2.3.4", "1.2.3.00", "1.2.3.1000", "1.2.3.-4", "1.2.3.+4", " 1.2.3.4", "1.2.3.4 ",
                           "1.2.3.4/24", "0x1.2.3.4", "bench-1"}) {
    EXPECT_EQ(std::nullopt, ParseIPv4(text)) << text;
  }
}

TEST(Address, PrefixAndMaskAgreeBothWays) {
  for (int prefix = 0; prefix <= 32; ++prefix) {
    EXPECT_EQ(prefix, ParsePrefix(std::to_string(prefix)));
    EXPECT_EQ(prefix, PrefixOfMask(MaskOfPrefix(prefix)));
  }
  EXPECT_EQ(0xfffffc00U, MaskOfPrefix(22));
  for (const IPv4 holes : {0xff00ff00U, 0x00ffffffU, 0xfffffffdU, 1U})
    EXPECT_EQ(std::nullopt, PrefixOfMask(holes)) << holes;
  for (const char* text : {"", "33", "024", "-1", "24 ", "1000", "2x"})
    EXPECT_EQ(std::nullopt, ParsePrefix(text)) << text;
}

TEST(Address, ClassesEndWhereTheyShould) {
  const struct {
    const char* text;
    char kind;
  } cases[] = {// reserved, loopback, group, host
               {"0.255.255.255", 'r'},   {"1.0.0.0", 'h'},   {"126.255.255.255", 'h'}, {"127.0.0.0", 'l'},
               {"127.255.255.255", 'l'}, {"128.0.0.0", 'h'}, {"223.255.255.255", 'h'}, {"224.0.0.0", 'g'},
               {"239.255.255.255", 'g'}, {"240.0.0.0", 'r'}, {"255.255.255.255", 'r'}};
  for (const auto& c : cases) {
    const IPv4 address = ParseIPv4(c.text).value();
    EXPECT_EQ(c.kind == 'r', IsReserved(address)) << c.text;
    EXPECT_EQ(c.kind == 'l', IsLoopback(address)) << c.text;
    EXPECT_EQ(c.kind == 'g', IsGroup(address)) << c.text;
  }
}

TEST(Mac, AnyUsualSpellingIsOneAddress) {
  for (const char* text : {"00:1b:c4:0a:ff:05", "00-1B-C4-0A-FF-05", "001bc40aff05", "001b.c40a.ff05", "001BC4-0AFF05",
                           "0:1b:c4:a:ff:5", "00 1b c4 0a ff 05"}) {
    EXPECT_EQ("00:1b:c4:0a:ff:05", ParseMac(text)) << text;
  }
  for (const char* text :
       {"", "00:1b:c4:0a:ff", "00:1b:c4:0a:ff:05:06", "00:1b:c4:0a:ff:", ":1b:c4:0a:ff:05", "00:1b:c4:0a:ff:0g",
        "00:1b-c4:0a:ff:05", "001b:c40aff05", "001bc40aff0", "00:1b:c4:0a:ff:005"}) {
    EXPECT_EQ(std::nullopt, ParseMac(text)) << text;
  }
}

TEST(Mac, DigitsOfItsEndAreTakenWithoutSeparators) {
  EXPECT_EQ("0aff05", MacDigits("0A:FF-05"));
  EXPECT_EQ("ff05", MacDigits("ff05"));
  for (const char* text : {"", ":", "ff0g", "bench"}) EXPECT_EQ(std::nullopt, MacDigits(text)) << text;
}

}  // namespace
}  // namespace tarnddp
