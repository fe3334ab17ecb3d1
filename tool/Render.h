#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tool/Device.h"

// Devices as a person, a program and a spreadsheet read them. Pure.

namespace tarnddp {

/// A device and what is wrong with it, in words.
struct Finding {
  Device device;
  std::vector<std::string> problems;
};

/// How a device is called in a message: its name and serial number, or its MAC address, or where it answers from.
std::string Calling(const Device& device);

/// A table of one line for each device below a line of headings. `columns` is the width of the terminal: lines are cut
/// to it and less important columns left out; 0: all columns, uncut.
std::vector<std::string> Table(const std::vector<Finding>& findings, int columns);

/// One JSON object without a line end, in ASCII alone. `event` and `time` are added if `event` is not empty.
std::string Json(const Finding& finding, std::string_view event = {}, std::string_view time = {});

/// The settings of `set-ip --json` and the like, as one object; "null" for none.
std::string SettingsJson(const std::optional<Settings>& settings);

/// The heading of a plan, and the row of a device in it, as fields.
std::vector<std::string> PlanHeading();
std::vector<std::string> PlanRow(const Device& device);

}  // namespace tarnddp
