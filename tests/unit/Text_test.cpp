#include "tool/Text.h"

#include <gtest/gtest.h>
#include <utf8.h>

#include <iterator>
#include <map>
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
  std::map<int, int> characters;  // how many take none, one, two, or an escape's four for each byte
  for (char32_t c = 0; c <= 0x10ffff; ++c) {
    if (c == 0xd800) c = 0xe000;  // halves of pairs, which are no characters
    std::string text;
    utf8::unchecked::append(c, std::back_inserter(text));
    ++characters[Width(Shown(text))];
  }
  EXPECT_EQ((std::map<int, int>{{0, 669}, {1, 919457}, {2, 191859}, {4, 33}, {8, 33}, {12, 13}}), characters);
}

TEST(Text, FitsIntoColumns) {
  EXPECT_EQ("abc  ", Fitted("abc", 5));
  EXPECT_EQ("温度計", Fitted("温度計", 6));
  EXPECT_EQ("温… ", Fitted("温度計", 4));
  EXPECT_EQ("e\xcc\x81…", Fitted("e\xcc\x81xy", 2));
  EXPECT_EQ("", Fitted("abc", 0));
}
