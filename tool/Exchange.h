#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tool/Change.h"
#include "tool/Report.h"
#include "tool/Session.h"

// One change on its way: sent to one device, acknowledged, and looked at afterwards.

namespace tarnddp {

/// A change of one device.
struct Order {
  std::string word;
  std::vector<std::string> fields;
  bool resend = false;  ///< once after 2 s of silence
  double seconds = 5;   ///< how long it is looked at afterwards
  Settings planned;     ///< what it leads to, as far as that is known before
  std::function<Outcome(const Seen& before, const std::optional<Seen>& after, Reply reply)> judge;
};

Order StaticOrder(const Target& target);
Order DhcpOrder(bool on);
/// What it leads to, in words: "192.168.1.20/24, no gateway" or "DHCP on".
std::string PlannedText(const Order& order);

/// Sends `order` to `device` alone and reports what came of it; nothing, with Network::SendError(), if it could not be
/// sent. A device that cannot be addressed alone gets nothing and is unchanged. `progress` ("3 of 10: ") leads the
/// status line. Throws Interrupted.
std::optional<Report> Carry(Session& session, const Device& device, const Order& order, const std::string& progress);

/// The command that brings the settings of `device` back once `after` is in force; empty if no command can. `seemsSo`:
/// its record shows them still, so they have to be forced.
std::string RestoringCommand(const Session& session, const Device& device, const Settings& after, bool seemsSo = false);

/// What Carry() would do.
Report ReportPlanned(const Session& session, const Device& device, const Order& order);

/// Sends a request and waits for its reply, AcknowledgementTime at most. Nothing, with Network::SendError(), if it
/// could not be sent. Throws Interrupted.
std::optional<Reply> Exchange(Session& session, const Device& device, const Path& path, const std::string& request,
                              bool resend);

/// Asks `device` alone if it can be, else all, and returns it if it answers within a second or until `end`. Throws
/// Interrupted.
std::optional<Device> AskAgain(Session& session, const Device& device, bool alone, Time end);

}  // namespace tarnddp
