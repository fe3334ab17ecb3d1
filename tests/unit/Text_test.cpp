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
  // The first and the last of each block, and their neighbours outside.
  const std::string accents =
      "\u0300\u036f\u0483\u0489\u0591\u05bd\u0610\u061a\u064b\u065f\u1ab0\u1aff\u1dc0\u1dff\u200b"
      "\u200d\u2060\u2064\u20d0\u20ff\ufe00\ufe0f\ufe20\ufe2f\ufeff\U000e0100\U000e01ef";
  const std::string wide =
      "\u1100\u115f\u2e80\u303e\u3041\ua4cf\ua960\ua97c\uac00\ud7a3\uf900\ufaff\ufe30\ufe6f\uff00"
      "\uff60\uffe0\uffe6\U0001f300\U0001f64f\U0001f680\U0001f6ff\U0001f900\U0001f9ff\U00020000\U0003fffd";
  const std::string usual =
      "\u02ff\u0370\u0482\u048a\u0590\u05be\u060f\u064a\u0660\u1aaf\u1b00\u1dbf\u1e00\u200a"
      "\u205f\u2065\u20cf\u2100\u10ff\u1160\u2e7f\u303f\u3040\ua4d0\ua95f\ua97d\uabff\ud7a4\uf8ff\ufb00"
      "\ufdff\ufe10\ufe1f\ufe70\ufefe\uff61\uffdf\uffe7\U0001f2ff\U0001f650\U0001f67f\U0001f700\U0001f8ff"
      "\U0001fa00\U0001ffff\U0003fffe\U000e00ff\U000e01f0";
  EXPECT_EQ(0, Width(accents));
  EXPECT_EQ(2 * 26, Width(wide));
  EXPECT_EQ(48, Width(usual));
}
