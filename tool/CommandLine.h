#pragma once

#include <string>
#include <variant>
#include <vector>

#include "tool/Commands.h"

namespace tarnddp {

/// What a command line asks for: a subcommand with its options, or a text to print and a status to end with (--help,
/// --version; wrong usage, where the text goes to standard error).
struct Ending {
  std::string text;
  int status = 0;
};
using Command =
    std::variant<Ending, ScanOptions, SetIPOptions, DhcpOptions, ApplyOptions, TraceOptions, HaltOptions, SendOptions>;

/// Reads the words behind the program's name. No words, or options alone, are those of "scan".
Command ReadCommandLine(std::vector<std::string> words);

}  // namespace tarnddp
