#include "tool/Address.h"

#include <gtest/gtest.h>

using namespace tarnddp;

TEST(Address, IsFourPlainNumbersAndItsMaskHasNoHoles) {
  for (int prefix = 0; prefix <= 32; ++prefix) {
    EXPECT_EQ(prefix, ParsePrefix(std::to_string(prefix)));
    EXPECT_EQ(prefix, PrefixOfMask(MaskOfPrefix(prefix)));
    EXPECT_EQ(MaskOfPrefix(prefix), ParseIPv4(IPv4Text(MaskOfPrefix(prefix))));
  }
  EXPECT_EQ("255.255.252.0", IPv4Text(MaskOfPrefix(22)));
  for (const IPv4 holes : {0xff00ff00U, 0x00ffffffU, 0xfffffffdU, 1U})
    EXPECT_EQ(std::nullopt, PrefixOfMask(holes)) << holes;
  for (const char* text : {"", "1.2.3", "1.2.3.4.5", "1..2.3", "1.2.3.4.", "1.2.3.256", "1.2.3.04", "1.2.3.00",
                           "1.2.3.1000", "1.2.3.-4", "1.2.3.+4", " 1.2.3.4", "1.2.3.4/24", "0x1.2.3.4"}) {
    EXPECT_EQ(std::nullopt, ParseIPv4(text)) << text;
  }
  for (const char* text : {"", "33", "024", "-1", "1000", "2x"}) EXPECT_EQ(std::nullopt, ParsePrefix(text)) << text;
}

TEST(Mac, AnyUsualSpellingIsOneAddress) {
  for (const char* text : {"00:1b:c4:0a:ff:05", "00-1B-C4-0A-FF-05", "001bc40aff05", "001b.c40a.ff05", "001BC4-0AFF05",
                           "0:1b:c4:a:ff:5", "00 1b c4 0a ff 05"}) {
    EXPECT_EQ("00:1b:c4:0a:ff:05", ParseMac(text)) << text;
  }
  for (const char* text :
       {"", "00:1b:c4:0a:ff", "00:1b:c4:0a:ff:05:06", "00:1b:c4:0a:ff:", ":1b:c4:0a:ff:05", "00:1b:c4:0a:ff:0g",
        "00:1b-c4:0a:ff:05", "001b:c40aff05", "001:bc4:0af:f05", "001bc40aff0", "00:1b:c4:0a:ff:005"}) {
    EXPECT_EQ(std::nullopt, ParseMac(text)) << text;
  }
}
