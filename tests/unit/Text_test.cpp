#include "tool/Text.h"

#include <gtest/gtest.h>
#include <utf8.h>

#include <cstdint>
#include <iterator>
#include <sstream>
#include <string>

using namespace tarnddp;

TEST(Text, NothingThatDrivesATerminalIsShown) {
  const struct {
    std::string foreign, shown;
  } cases[] = {
      {"meß 温度計 \xf0\x9f\x94\xa7", "meß 温度計 \xf0\x9f\x94\xa7"},
      {std::string("a\x1b[31m\0\x7f\xe2\x80\xae", 11), "a\\x1b[31m\\x00\\x7f\\xe2\\x80\\xae"},
      // No UTF-8: all of it is Latin-1, also what would be UTF-8 by itself.
      {"caf\xe9", "café"},
      {"ß\x9b", "Ã\\xc2\\x9f\\xc2\\x9b"},
      {"\xed\xa0\x80", "í\xc2\xa0\\xc2\\x80"},  // half of a pair
      {"\xc0\x8a", "À\\xc2\\x8a"},              // a line end, spelled too long
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.shown, Shown(c.foreign));
    EXPECT_EQ(c.shown, Shown(c.shown));
  }
}

TEST(Text, NoCellIsAFormula) {
  const char* cases[][2] = {
      {"=1", "'=1"}, {"+1", "'+1"},    {"-1", "'-1"},     {"@1", "'@1"},    {"  =1", "  '=1"},
      {"'=", "'="},  {"a =-", "a =-"}, {"＝１", "'＝１"}, {"温度", "温度"}, {"a;=; @,=", "a;'=; '@,="}};
  for (const auto& [text, cell] : cases) {
    EXPECT_EQ(cell, Cell(text));
    EXPECT_EQ(cell, Cell(cell));
  }
}

TEST(Text, EveryCharacterTakesItsColumns) {
  std::ostringstream told;  // from which character on it is how many: none, one, two, or an escape's four for each byte
  int columns = 1;
  for (char32_t c = 0; c <= 0x10ffff; ++c) {
    if (c == 0xd800) c = 0xe000;  // halves of pairs, which are no characters
    std::string text;
    utf8::unchecked::append(c, std::back_inserter(text));
    const int now = Width(Shown(text));
    if (now != columns) told << std::hex << std::uint32_t{c} << std::dec << ':' << now << ' ';
    columns = now;
  }
  EXPECT_EQ(
      "0:4 20:1 7f:4 80:8 a0:1 300:0 370:1 483:0 48a:1 591:0 5be:1 610:0 61b:1 61c:8 61d:1 64b:0 660:1 1100:2 1160:1 "
      "1ab0:0 1b00:1 1dc0:0 1e00:1 200b:0 200e:12 2010:1 2028:12 202f:1 2060:0 2065:1 2066:12 206a:1 20d0:0 2100:1 "
      "2e80:2 303f:1 3041:2 a4d0:1 a960:2 a97d:1 ac00:2 d7a4:1 f900:2 fb00:1 fe00:0 fe10:1 fe20:0 fe30:2 fe70:1 "
      "feff:0 ff00:2 ff61:1 ffe0:2 ffe7:1 1f300:2 1f650:1 1f680:2 1f700:1 1f900:2 1fa00:1 20000:2 3fffe:1 e0100:0 "
      "e01f0:1 ",
      told.str());
}

TEST(Text, FitsIntoColumns) {
  EXPECT_EQ("abc  ", Fitted("abc", 5));
  EXPECT_EQ("温度計", Fitted("温度計", 6));
  EXPECT_EQ("温… ", Fitted("温度計", 4));
  EXPECT_EQ("e\xcc\x81…", Fitted("e\xcc\x81xy", 2));
  EXPECT_EQ("", Fitted("abc", 0));
}
