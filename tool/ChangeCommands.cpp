#include <string>

#include "tool/Commands.h"
#include "tool/Exchange.h"
#include "tool/Output.h"
#include "tool/Render.h"
#include "tool/Report.h"
#include "tool/Scan.h"
#include "tool/Session.h"

// set-ip and dhcp.

namespace tarnddp {
namespace {

int Finish(const Report& report, bool json) {
  PrintReport(report, json);
  return StatusOf(report);
}

/// Sends what was decided, or says what would be sent.
int Execute(Session& session, const Device& device, const Order& order, bool dryRun, bool json) {
  if (dryRun) return Finish(ReportPlanned(session, device, order), json);
  const KeepOnInterrupt keep;
  try {
    const auto report = Carry(session, device, order, "");
    if (report) return Finish(*report, json);
    return TellNothingSent(session.Sockets(), Calling(device));
  } catch (const Interrupted&) {
    Say("interrupted while " + Calling(device) + " was changed; tarnddp scan shows what came of it");
    return StatusInterrupted;
  }
}

/// The empty text, or why it is refused whatever is heard.
std::string ReadWanted(const SetIPOptions& options, StaticAddress& wanted) {
  const std::size_t slash = options.address.find('/');
  if (slash == std::string::npos) return "\"" + options.address + "\" lacks its prefix length (192.168.1.20/24)";
  if (options.gateway == "" || options.dns == "") return "an empty address is none (0.0.0.0 says that there is none)";
  return ReadStaticAddress(options.address.substr(0, slash), options.address.substr(slash + 1),
                           options.gateway.value_or(""), options.dns.value_or(""), OwnAddresses(), wanted);
}

/// Says what is unwise. Whether it is to be done all the same.
bool PassesUnwise(const std::vector<std::string>& unwise, bool force) {
  for (const std::string& one : unwise) Say(one + (force ? "" : "; nothing was sent (--force does it all the same)"));
  return force || unwise.empty();
}

std::vector<std::string> Unwise(const std::string& text) {
  return text.empty() ? std::vector<std::string>() : std::vector<std::string>{text};
}

}  // namespace

int SetIP(const SetIPOptions& options) {
  StaticAddress wanted;
  if (const std::string refusal = ReadWanted(options, wanted); !refusal.empty()) {
    Say(refusal + "; nothing was sent");
    return StatusUsage;
  }
  if (!PassesUnwise(Unwise(UnwiseGateway(wanted)), options.force)) return StatusUsage;
  Session session(options);
  const auto device = session.Find(options.device);
  if (!device) return session.Status();
  const Seen before = SeenOf(*device);
  // Unknown while the service is away: then it is sent.
  if (!options.force && before.settings.dhcp && IsInForce(wanted, before)) {
    const std::string words = InWords(before.settings) + " already; nothing was sent";
    return Finish(ReportOn(*device, {Result::Done, words}, before.settings), options.json);
  }
  std::vector<std::string> holders;
  for (const Holder& one : HoldersOf(wanted.address, *device, session.All(), session.StrangerAt(wanted.address))) {
    holders.push_back(one.text);
  }
  if (!PassesUnwise(holders, options.force)) return StatusUsage;
  const Target target = TargetOf(wanted, before.settings);
  for (const std::string& note : target.notes) Say(note);
  const std::string note = ReachabilityNote(target.settings, session.HeardOn(*device), RouteInterface(wanted.address));
  if (!note.empty()) Say(note);
  return Execute(session, *device, StaticOrder(target), options.dryRun, options.json);
}

int Dhcp(const DhcpOptions& options) {
  Session session(options);
  const auto device = session.Find(options.device);
  if (!device) return session.Status();
  const Settings before = FactsOf(device->record).settings;
  if (before.dhcp == options.on) {
    const std::string words = std::string("DHCP is ") + (options.on ? "on" : "off") + " already; nothing was sent";
    return Finish(ReportOn(*device, {Result::Done, words}, before), options.json);
  }
  if (!options.on && !before.dhcp) {
    const std::string help = RestoringCommand(session, *device, {});
    Say(Calling(*device) + ": its service is away, and then a device that is told to switch DHCP off takes a lease; " +
        "nothing was sent" + (help.empty() ? "" : " (a fixed address ends DHCP: " + help + ")"));
    return StatusNotDone;
  }
  return Execute(session, *device, DhcpOrder(options.on), options.dryRun, options.json);
}

}  // namespace tarnddp
