#pragma once

#include <string_view>

// What the program prints. Bytes from the network come through Shown() (tool/Text.h) before they are handed over.

namespace tarnddp {

enum ExitStatus : int {
  StatusDone = 0,
  StatusNotDone = 1,      ///< not, or not wholly, as asked
  StatusUsage = 2,        ///< refused before anything that changes a device was sent
  StatusNothingSent = 3,  ///< no interface to send by
  StatusInterrupted = 130
};

/// Results: `text` to standard output, as it is, at once. After a failure (a closed pipe, a full disk) it does nothing.
void Print(std::string_view text);
/// Whether standard output took everything so far.
bool IsOutputGood();

/// Progress, explanations, warnings and errors: "tarnddp: `text`" as a line of standard error.
void Say(std::string_view text);

/// The status line, on standard error if that is a terminal, else nothing: `text` takes the place of the last one, cut
/// to the width. It goes away by itself before anything else is printed; empty removes it. Nothing either where results
/// go into a pipe: what reads it may write to the same terminal, at any time.
void ShowStatus(std::string_view text);

/// Asks `question` ("Halt Bench 1?") on standard error and reads a line from standard input: true for "y" and "yes", in
/// any case; anything else and the end of input mean no. Only where standard input is a terminal (IsInputTerminal()).
bool Confirm(std::string_view question);

}  // namespace tarnddp
