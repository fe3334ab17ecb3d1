#include "tool/Text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace tarnddp;

TEST(Text, NothingThatDrivesATerminalIsShown) {
  const struct {
    std::string foreign, shown;
  } cases[] = {
      {"Bench 1", "Bench 1"},
      {"", ""},
      {"meß 温度計 \xf0\x9f\x94\xa7", "meß 温度計 \xf0\x9f\x94\xa7"},
      {"a\x1b[31m\r\n\t\x7f", "a\\x1b[31m\\x0d\\x0a\\x09\\x7f"},
      {std::string("a\0b", 3), "a\\x00b"},
      {"\xc2\x80\xc2\x9f\xc2\xa0", "\\xc2\\x80\\xc2\\x9f\xc2\xa0"},  // C1, and what follows it
      {"\xe2\x80\xa8\xe2\x80\xa9\xe2\x80\xaf", "\\xe2\\x80\\xa8\\xe2\\x80\\xa9\xe2\x80\xaf"},  // separators
      {"\xd8\x9c\xe2\x80\x8e\xe2\x80\x8f\xe2\x80\x8d", "\\xd8\\x9c\\xe2\\x80\\x8e\\xe2\\x80\\x8f\xe2\x80\x8d"},
      {"\xe2\x80\xaa\xe2\x80\xae\xe2\x81\xa6\xe2\x81\xa9\xe2\x81\xaa",
       "\\xe2\\x80\\xaa\\xe2\\x80\\xae\\xe2\\x81\\xa6\\xe2\\x81\\xa9\xe2\x81\xaa"},
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

TEST(Text, FitsIntoColumns) {
  const struct {
    std::string text;
    int columns;
    std::string fitted;
  } cases[] = {{"abc", 5, "abc  "},     {"abc", 3, "abc"},      {"abcd", 3, "ab…"},
               {"温度計", 6, "温度計"}, {"温度計", 5, "温度…"}, {"温度計", 4, "温… "},
               {"abc", 1, "…"},         {"abc", 0, ""},         {"e\xcc\x81x", 2, "e\xcc\x81x"}};
  for (const auto& c : cases) EXPECT_EQ(c.fitted, Fitted(c.text, c.columns)) << c.text << ' ' << c.columns;
}
