#pragma once

#include <unistd.h>

#include <initializer_list>
#include <string_view>

#include "base/ConsoleLine.h"

/// Writes `texts` behind each other, cut to ConsoleLineLimit - 1 bytes, and a line end to standard output by the rules
/// of ConsoleLine(). Needs no memory.
inline void Print(std::initializer_list<std::string_view> texts) {
  char line[ConsoleLineLimit];
  std::size_t length = 0;
  for (const std::string_view text : texts) length += text.copy(line + length, sizeof line - 1 - length);
  line[length] = '\n';
  ConsoleLine(STDOUT_FILENO, {line, length + 1});
}
inline void Print(std::string_view text) { Print({text}); }
