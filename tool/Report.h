#pragma once

#include <optional>
#include <string>

#include "tool/Change.h"

namespace tarnddp {

/// What came of a change, for a person or a script.
struct Report {
  std::string called;  ///< the device, ready to be shown
  std::optional<std::string> mac;
  Outcome outcome;
  std::optional<Settings> before, after;
  std::string restoring;  ///< the command that undoes it; empty if nothing was changed
};

/// Of a device to which nothing was sent.
Report ReportOn(const Device& device, Outcome outcome, std::optional<Settings> after);

/// Prints it to standard output. With `json` as one object on one line; the words go to standard error then.
void PrintReport(const Report& report, bool json);

/// The exit status for it.
int StatusOf(const Report& report);

}  // namespace tarnddp
