#pragma once

#include <string>
#include <vector>

#include "tool/Commands.h"
#include "tool/Judge.h"
#include "tool/Network.h"

// What all subcommands say about the network before and after they ask.

namespace tarnddp {

/// This PC as Judge() needs it, with the interfaces of `network`.
Host HostOf(const Network& network);

/// "1 device", "3 devices".
std::string DevicesText(int count);

/// The table as wide as the terminal that standard output is, or was until it was hung up; no line without a device.
std::vector<std::string> TableForTerminal(const std::vector<Finding>& findings);

/// Says which interfaces cannot be used and why.
void TellInterfaces(const Network& network);

/// Says that nothing could be sent, to the device so called if any, and why. The exit status for that.
int TellNothingSent(const Network& network, const std::string& called = {});

/// Says what is wrong with the devices heard, what may have kept others from being heard, and, if there are none, what
/// helps. `isEnough`: as many as were expected answered, so that only the devices themselves are spoken of.
void TellProblems(const Network& network, const std::vector<Finding>& findings, bool isEnough);

/// Says what may have kept devices other than these from being heard.
void TellLimits(const Network& network, const std::vector<Finding>& findings);

/// The rest of "scan --watch": until Ctrl-C ends the process, or standard output takes no more.
int Watch(const ScanOptions& options);

}  // namespace tarnddp
