#include "tool/Scan.h"

#include <algorithm>

#include "tool/Csv.h"
#include "tool/Output.h"
#include "tool/Screen.h"
#include "tool/Session.h"

namespace tarnddp {
namespace {

/// What stands on a terminal while answers come in: the status line and, where the result is a table, the table so far.
class Progress {
 public:
  Progress(const ScanOptions& options, const Devices& devices)
      : isTable(OutputTerminal() && !options.json && !options.csv),
        heard(devices),
        end(Clock::now() + SecondsToDuration(options.seconds)) {}

  /// Does something only now and then.
  void Update() {
    const Time now = Clock::now();
    if (now < next) return;
    next = now + std::chrono::milliseconds(200);
    if (isTable) screen.Show(TableForTerminal(WithoutProblems(heard.All())));
    const auto left = std::chrono::duration_cast<std::chrono::seconds>(end - now).count() + 1;
    ShowStatus(DevicesText(heard.Count()) + " so far, listening for another " + std::to_string(left) + " s");
  }
  void Finish(const std::vector<Finding>& findings) {
    ShowStatus({});
    if (isTable) {
      screen.Finish(TableForTerminal(findings));
    } else if (!findings.empty()) {
      for (const std::string& line : Table(findings, 0)) Print(line + "\n");
    }
  }

 private:
  static std::vector<Finding> WithoutProblems(const std::vector<Device>& devices) {
    std::vector<Finding> findings;
    findings.reserve(devices.size());
    for (const Device& device : devices) findings.push_back({device, {}});
    return findings;
  }

  bool isTable;
  const Devices& heard;
  Time end, next;
  Screen screen;
};

void PrintPlan(const std::vector<Finding>& findings) {
  Print(CsvLine(PlanHeading()));
  for (const Finding& finding : findings) Print(CsvLine(PlanRow(finding.device)));
}

void TellReceiveBuffer(const Network& network) {
  // What a small datagram takes of the buffer at worst.
  constexpr int each = 2304;
  if (network.ReceiveBuffer() >= Network::ReceiveBufferWanted()) return;
  if (network.Received() <= static_cast<std::size_t>(network.ReceiveBuffer() / each)) return;
  Say("warning: answers may have been lost: the receive buffer is " + std::to_string(network.ReceiveBuffer()) +
      " bytes, not " + std::to_string(Network::ReceiveBufferWanted()) +
      " (as root: sysctl net.core.rmem_max=" + std::to_string(Network::ReceiveBufferWanted()) + ")");
}

/// Without a link it is no news that an interface lacks something.
void TellMissingWays(const Network& network, const Host& host) {
  for (const Unusable& way : network.MissingWays()) {
    const bool hasLink = std::any_of(
        host.interfaces.begin(), host.interfaces.end(),
        [&way](const Interface& interface) { return interface.name == way.interface && interface.hasLink; });
    if (hasLink) Say(way.interface + " is used in part: " + way.reason);
  }
}

int ScanOnce(const ScanOptions& options) {
  Network network(options.interfaces);
  TellInterfaces(network);
  if (!network.IsUsable()) return StatusNothingSent;
  Devices devices;
  Progress progress(options, devices);
  if (!Collect(network, {options.seconds, options.expect}, devices, [&progress] { progress.Update(); })) {
    return TellNothingSent(network);
  }
  const std::vector<Finding> findings = Judge(devices.All(), HostOf(network));
  if (options.csv) {
    PrintPlan(findings);
  } else if (options.json) {
    for (const Finding& finding : findings) Print(Json(finding) + "\n");
  } else {
    progress.Finish(findings);
  }
  if (!IsOutputGood()) return StatusNotDone;
  const int wanted = std::max(options.expect, 1);
  const bool isEnough = devices.Count() >= wanted;
  TellProblems(network, findings, isEnough && options.expect > 0);
  if (!isEnough && options.expect > 0) {
    Say(DevicesText(devices.Count()) + " answered, " + std::to_string(options.expect) + " were expected");
  }
  return isEnough ? StatusDone : StatusNotDone;
}

}  // namespace

Host HostOf(const Network& network) { return {network.Used(), OwnAddresses(), ReversePathOf, RouteInterface}; }

std::string DevicesText(int count) { return std::to_string(count) + (count == 1 ? " device" : " devices"); }

std::vector<std::string> TableForTerminal(const std::vector<Finding>& findings) {
  if (findings.empty()) return {};
  return Table(findings, OutputTerminal().value_or(TerminalSize()).columns);
}

void TellInterfaces(const Network& network) {
  for (const Unusable& failure : network.Failures()) {
    Say((failure.interface.empty() ? "" : failure.interface + " cannot be used: ") + failure.reason);
  }
}

int TellNothingSent(const Network& network, const std::string& called) {
  Say("nothing could be sent" + (called.empty() ? "" : " to " + called) + ": " + network.SendError());
  return StatusNothingSent;
}

void TellProblems(const Network& network, const std::vector<Finding>& findings, bool isEnough) {
  for (const Finding& finding : findings)
    for (const std::string& problem : finding.problems) Say(Calling(finding.device) + ": " + problem);
  if (isEnough) return TellReceiveBuffer(network);
  TellLimits(network, findings);
  if (!findings.empty()) return;
  for (const std::string& line : ExplainSilence(HostOf(network))) Say(line);
}

void TellLimits(const Network& network, const std::vector<Finding>& findings) {
  TellReceiveBuffer(network);
  const Host host = HostOf(network);
  TellMissingWays(network, host);
  for (const std::string& line : ExplainFilters(findings, host)) Say(line);
}

int Scan(const ScanOptions& options) { return options.watch ? Watch(options) : ScanOnce(options); }

}  // namespace tarnddp
