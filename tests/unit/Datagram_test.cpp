#include "ddp/Datagram.h"

#include <gtest/gtest.h>

using Fields = std::vector<std::string>;

TEST(SplitFields, KeepsEveryFieldBetweenAnyTwoSeparators) {
  const struct {
    std::string datagram;
    Fields fields;
  } cases[] = {
      {"", {""}},
      {"A", {"A"}},
      {"A\r\n", {"A", "", ""}},
      {"\t\r\n", {"", "", "", ""}},
      {"SET!\t10.0.0.2\t255.0.0.0\t\r\n", {"SET!", "10.0.0.2", "255.0.0.0", "", "", ""}},
      {"A b\nC\rD", {"A b", "C", "D"}},
      {std::string("A\0B\tC\n", 6), {std::string("A\0B", 3), "C", ""}},
  };
  for (const auto& c : cases) EXPECT_EQ(c.fields, TarnDDPCommand_SplitFields(c.datagram)) << '"' << c.datagram << '"';
}

TEST(MacFilter, CountsDigitsAndSeparatorsAsToolsRelyOn) {
  const struct {
    const char* field;
    bool isMac;
  } cases[] = {
      {"001bc40aff05", true},          {"001BC40AFF05", true},
      {"00:1b:c4:0a:ff:05", true},     {"00-1B-C4-0A-FF-05", true},
      {"00-1b:c4-0a:ff-05", true},     {"", false},
      {"00:1b:c4:0a:ff", false},       {"0:1b:c4:0a:ff:05", false},
      {"0:01:bc:40:af:f0:5", false},   {"001bc40aff0", false},
      {"001bc40aff051", false},        {"001bc4:0aff05", false},     // scanning stops at the ':'
      {":001bc40aff05", false},                                      // a separator before any digit
      {"x:001bc40aff05", false},       {"001bc40aff05:", true},      // so does it here, with twelve digits seen
      {"001bc40aff05:any text", true}, {"000:1b:c4:0a:ff:5", true},  // an odd first group is rounded down
      {"001bc40aff05x", false},                                      // a foreign character spoils what came before
      {"00:1b:c4:0a:ff:0 5", false},   {"x0:01bc40aff05", true},     // and a first group of one digit mends it
      {"x00:1b:c4:0a:ff:05", false},   {"192.168.1.10", false},
      {"\xe4\xf6\xfc\xff", false},
  };
  for (const auto& c : cases) EXPECT_EQ(c.isMac, TarnDDPCommand_IsMacAddress(c.field)) << '"' << c.field << '"';
}
