#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tool/Device.h"
#include "tool/Render.h"
#include "tool/System.h"

// What is wrong with what was heard, and why something may not have been heard. Pure.

namespace tarnddp {

/// What this PC would do with datagrams; System.h answers it in the program, a table in a test.
struct Host {
  std::vector<Interface> interfaces;  ///< those that were used
  std::vector<IPv4> addresses;        ///< its own, also on other interfaces
  std::function<ReversePath(const std::string& interface)> reversePath;
  std::function<std::string(IPv4 address)> routeInterface;
};

/// The devices with their problems: an address or a MAC that two have, a record that names another address than the one
/// that answers, an address that this PC does not hear or reach over IPv4.
std::vector<Finding> Judge(const std::vector<Device>& devices, const Host& host);

/// What helps when nothing at all came, as lines.
std::vector<std::string> ExplainSilence(const Host& host);

/// On which interfaces this PC drops whatever devices in other networks answer over IPv4, and the route that helps, as
/// lines. Not where one of `findings` tells it for a device.
std::vector<std::string> ExplainFilters(const std::vector<Finding>& findings, const Host& host);

}  // namespace tarnddp
