#pragma once

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

/// How a device is called in a message: "Bench 1 (00:1b:c4:0a:ff:05)", without the name while the service is away, and
/// with where it answers from if its MAC address is not known.
std::string Calling(const Device& device);

/// "192.168.1.20/24", without the prefix where it is not known, "-" without an address.
std::string AddressText(const Settings& settings);

/// A table of one line for each device below a line of headings. `columns` is the width of the terminal: lines are cut
/// to it and less important columns left out; 0: all columns, uncut, and a very long text just moves the rest of its
/// line.
std::vector<std::string> Table(const std::vector<Finding>& findings, int columns);

/// One JSON object without a line end, in ASCII alone. `event` and `time` are added if `event` is not empty.
std::string Json(const Finding& finding, std::string_view event = {}, std::string_view time = {});

/// The heading of a plan, and the row of a device in it, as fields, none of which is a formula (Cell() of tool/Text.h).
std::vector<std::string> PlanHeading();
std::vector<std::string> PlanRow(const Device& device);

/// What became of a device that was heard before: "ADDRESS 192.168.1.10/24 -> 192.168.1.20/24, DHCP on -> off"; empty
/// if all but how it was heard is as it was.
std::string DescribeChange(const Finding& before, const Finding& after);

}  // namespace tarnddp
