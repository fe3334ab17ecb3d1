#include "ddp/Datagram.h"

#include <gtest/gtest.h>

TEST(Datagram, MacFilterCountsDigitsAndSeparators) {
  for (const char* mac : {"001bc40aff05", "00:1B:c4-0a:ff-05", "001bc40aff05:any", "000:1b:c4:0a:ff:5",
                          "x0:01bc40aff05"}) {  // the last: a first group of one digit mends what "x" spoiled
    EXPECT_TRUE(TarnDDPCommand_IsMacAddress(mac)) << mac;
  }
  for (const char* other : {"", "00:1b:c4:0a:ff", "0:1b:c4:0a:ff:05", "001bc40aff051", ":001bc40aff05", "001bc4:0aff05",
                            "001bc40aff05x", "x00:1b:c4:0a:ff:05", "192.168.1.10", "\xe4\xf6\xfc\xff"}) {
    EXPECT_FALSE(TarnDDPCommand_IsMacAddress(other)) << other;
  }
}
