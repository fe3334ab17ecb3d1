#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tool/Change.h"

// A plan: a table, as "scan --csv" prints it, of how devices are to be set. Pure.

namespace tarnddp {

struct PlanLine {
  int number = 0;                   ///< in the file, from 1
  std::vector<std::string> fields;  ///< in the order of PlanHeading(), as they stand in the file
};

/// Reads the text of a plan. Columns may stand in any order and be left out, cells at the end of a line too. The empty
/// text, or what is wrong, with the number of the line; `lines` is untouched then.
std::string ReadPlan(std::string_view text, std::vector<PlanLine>& lines);

enum class Step {
  LeftAlone,  ///< it is so already
  Missing,    ///< the device was not heard
  Blocked,    ///< it cannot be done
  SetAddress,
  DhcpOn,
  DhcpOff
};

/// What a line comes to.
struct PlannedChange {
  int line = 0;
  Step step = Step::LeftAlone;
  std::string called;              ///< the device, ready to be shown
  std::optional<Device> device;    ///< nothing if Missing
  std::optional<std::string> mac;  ///< of the device, or as the line has it
  StaticAddress address;           ///< for SetAddress
  std::vector<int> waitsFor;       ///< Device::id of those that have to give up the address first
  std::string words;               ///< for Blocked, and of LeftAlone and Missing what is known; ready to be shown
};

struct CheckedPlan {
  std::vector<PlannedChange> changes;  ///< one for each line, in an order in which they can be made
  std::vector<std::string> errors;     ///< "line 3: ..."; if there is one, nothing may be sent
};

/// Holds a plan against what was heard. A line equal to what was heard is left alone, whatever it holds.
CheckedPlan CheckPlan(const std::vector<PlanLine>& lines, const std::vector<Device>& devices,
                      const std::vector<IPv4>& ownAddresses,
                      const std::function<std::optional<std::string>(IPv4)>& neighbourMac);

/// What a change is to lead to, and what has to be said about it.
Target TargetOf(const PlannedChange& change);

}  // namespace tarnddp
