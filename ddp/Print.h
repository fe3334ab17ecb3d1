#pragma once

#include <unistd.h>

#include <string_view>

#include "base/ConsoleLine.h"

/// Writes `text`, cut to ConsoleLineLimit - 1 bytes, and a line end to standard output by the rules of ConsoleLine().
/// Needs no memory.
inline void Print(std::string_view text) {
  char line[ConsoleLineLimit];
  const std::size_t length = text.copy(line, sizeof line - 1);
  line[length] = '\n';
  ConsoleLine(STDOUT_FILENO, {line, length + 1});
}
