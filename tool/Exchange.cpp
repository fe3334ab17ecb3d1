#include "tool/Exchange.h"

#include <algorithm>

#include "tool/Output.h"
#include "tool/Render.h"
#include "tool/Text.h"

namespace tarnddp {
namespace {

using std::chrono::seconds;

constexpr seconds resendTime{2};
constexpr seconds roundTime{1};  // how long a device may take to answer once

/// A reply to what went by `path`. Its IPv4 address may be a new one, but no other device's.
bool IsReply(const Datagram& datagram, const Device& device, const std::vector<Device>& devices, const Path& path) {
  if (datagram.bytes != Acknowledgement && datagram.bytes != Refusal) return false;
  if (datagram.source.way != path.to.way) return false;
  const std::string& from = datagram.source.address;
  if (from == path.to.address || path.to.way == Way::IPv6) return from == path.to.address;
  return !IsOthers(from, device, devices);
}

/// What came until now is no reply to what is sent next. Not for ever, whoever floods.
void DropWhatCame(Network& network) {
  const Time last = Clock::now() + Settling;
  while (Clock::now() < last && network.Receive(Time::min())) {
  }
  if (WasInterrupted()) throw Interrupted();
}

std::optional<Reply> AwaitReply(Network& network, Time deadline, const std::function<bool(const Datagram&)>& matches) {
  const auto datagram = network.Await(deadline, matches);
  if (WasInterrupted()) throw Interrupted();
  if (!datagram) return std::nullopt;
  return datagram->bytes == Acknowledgement ? Reply::Ack : Reply::Nack;
}

/// Whether an answer is this device's. One that shares its MAC address is known by where it is, or, if no other one is
/// there, by its serial number, which may be shared as well.
bool IsSame(const Device& device, const std::vector<Device>& devices, const Answer& answer) {
  const Facts known = FactsOf(device.record), facts = FactsOf(answer.record);
  if (facts.mac != known.mac) return false;
  if (known.mac && !SharesMac(device, devices)) return true;
  const std::string& from = answer.source.address;
  if (IsOthers(from, device, devices)) return false;
  return device.AnswersFrom(from) || (known.mac && known.serial && facts.serial == known.serial);
}

/// How it was seen before anything is sent, as far as IsSame() will know its answers again.
Seen SeenBefore(const Device& device, const std::vector<Device>& devices) {
  Seen seen = SeenOf(device);
  if (!SharesMac(device, devices)) return seen;
  const auto isOthers = [&](const std::string& from) { return IsOthers(from, device, devices); };
  seen.answering.erase(std::remove_if(seen.answering.begin(), seen.answering.end(), isOthers), seen.answering.end());
  return seen;
}

std::string LastSeen(const Device& device) {
  const Source& source = device.sources.front();
  const std::string address = FactsOf(device.record).settings.address.value_or("no address");
  return ", last seen with " + Shown(address) + " on " + source.interface + " (" + source.address + ')';
}

Report ReportUnaddressed(const Device& device, const std::string& why) {
  const std::string words = "it cannot be addressed alone (" + why + "), so nothing was sent";
  return ReportOn(device, {Result::Unchanged, words}, FactsOf(device.record).settings);
}

/// Whether the settings are others than before, or may be. What no record shows cannot be brought back. A device that
/// refuses keeps what came before the step that failed.
bool IsWorthRestoring(const Report& report) {
  const bool hasNewRecord = report.after && !(report.before == report.after);
  switch (report.outcome.result) {
    case Result::Unchanged:
      return false;
    case Result::Done:
    case Result::Refused:
      return hasNewRecord;
    default:
      return true;
  }
}

bool HasNoAddress(const Device& device) { return IsServiceAway(device.record) && device.record.address == "0.0.0.0"; }

/// Who else has the address of `device`, behind a comma: a server may lease what another device was given by hand. Not
/// what this PC's neighbour table remembers: that is whoever had the lease before.
std::string Shared(const Session& session, const Device& device) {
  const std::optional<IPv4> address = ParseIPv4(device.record.address);
  if (!address || *address == 0) return {};
  const std::vector<Holder> holders = HoldersOf(*address, device, session.All(), {});
  return holders.empty() ? "" : ", but " + holders.front().text + ", too";
}

/// Asks until the device is as `judge` wants it or the time is over; how it was heard last.
std::optional<Device> LookAfter(Session& session, const Device& device, const Order& order, const Seen& before,
                                Reply reply) {
  const Time end = Clock::now() + SecondsToDuration(order.seconds);
  std::optional<Device> last;
  bool alone = true;
  while (Clock::now() < end) {
    const std::optional<Device> heard = AskAgain(session, device, alone, end);
    alone = heard.has_value();
    if (!heard) continue;
    last = heard;
    if (reply == Reply::Nack || order.judge(before, SeenOf(*heard), reply).result == Result::Done) break;
  }
  return last;
}

}  // namespace

std::optional<Reply> Exchange(Session& session, const Device& device, const Path& path, const std::string& request,
                              bool resend) {
  Network& network = session.Sockets();
  const auto matches = [&](const Datagram& datagram) { return IsReply(datagram, device, session.All(), path); };
  DropWhatCame(network);
  const Time start = Clock::now();
  if (!network.Send(path.to, request)) return std::nullopt;
  if (resend) {
    if (const auto reply = AwaitReply(network, start + resendTime, matches)) return reply;
    network.Send(path.to, request);  // a failure is silence, too: a device that has moved is out of reach
  }
  return AwaitReply(network, start + AcknowledgementTime, matches).value_or(Reply::None);
}

std::optional<Device> AskAgain(Session& session, const Device& device, bool alone, Time end) {
  Network& network = session.Sockets();
  std::string why, request = IdentityRequest;
  if (alone) {
    // By MAC address, so that a thousand others need not answer; a device that has been started anew does not know its
    // own.
    const auto filter = FilterOf(device, session.All(), why);
    if (filter) request = Request({{}, *filter}, "DEVICEIDENT?", {});
  }
  network.SendToAll(request);
  const Time start = Clock::now();
  Time roundEnd = std::min(start + roundTime, end);
  Devices heard;
  while (Clock::now() < roundEnd + Settling) {  // longer only under a flood
    const auto datagram = network.Receive(roundEnd);
    if (!datagram) break;
    const auto record = ReadRecord(datagram->bytes);
    if (!record || !IsSame(device, session.All(), {datagram->source, *record})) continue;
    if (heard.Count() == 0) roundEnd = Clock::now() + Settling;  // also beyond `end`: half of the answers mislead
    heard.Add({datagram->source, *record});
  }
  if (WasInterrupted()) throw Interrupted();
  const std::vector<Device> found = heard.All();
  if (found.empty()) return std::nullopt;
  Device again = found.front();
  again.id = device.id;
  return again;
}

std::string RestoringCommand(const Session& session, const Device& device, const Settings& after, bool seemsSo) {
  const Settings before = FactsOf(device.record).settings;
  const auto address = ParseIPv4(before.address.value_or(""));
  const bool isTaken = address && !HoldersOf(*address, device, session.All(), session.StrangerAt(*address)).empty();
  return RestoringCommand(ArgumentFor(device, session.All()), before, after, isTaken || seemsSo, OwnAddresses());
}

Order StaticOrder(const Target& target) {
  Order order = {"SETIPADDRESS!", StaticFields(target), true, 5, target.settings, {}};
  order.judge = [wanted = target.settings](const Seen& before, const std::optional<Seen>& after, Reply reply) {
    return JudgeStatic(wanted, before, after, reply);
  };
  return order;
}

Order DhcpOrder(bool on) {
  constexpr double leaseTime = 15;
  Order order = {"SETDHCPMODE!", {on ? "1" : "0"}, false, on ? leaseTime : 5, {}, {}};
  order.planned.dhcp = on;
  order.judge = [on](const Seen& before, const std::optional<Seen>& after, Reply reply) {
    return JudgeDhcp(on, before, after, reply);
  };
  return order;
}

std::string PlannedText(const Order& order) {
  if (order.planned.address) return InWords(order.planned);
  return order.planned.dhcp == true ? "DHCP on" : "DHCP off";
}

Report ReportPlanned(const Session& session, const Device& device, const Order& order) {
  std::string why;
  const std::optional<Path> path = PathTo(device, session.All(), why);
  if (!path) return ReportUnaddressed(device, why);
  return ReportOn(device, {Result::Planned, PlannedText(order) + " (nothing was sent)"}, order.planned);
}

std::optional<Report> Carry(Session& session, const Device& device, const Order& order, const std::string& progress) {
  std::string why;
  const std::optional<Path> path = PathTo(device, session.All(), why);
  if (!path) return ReportUnaddressed(device, why);
  ShowStatus(progress + Calling(device) + ": waiting for the acknowledgement");
  if (order.planned.address && HasNoAddress(device)) {
    std::vector<std::string> fields = order.fields;
    fields[1].clear();  // a device sets no mask where there is no address yet: first the address with that of its class
    if (!Exchange(session, device, *path, Request(*path, order.word, fields), order.resend)) return std::nullopt;
  }
  const auto reply = Exchange(session, device, *path, Request(*path, order.word, order.fields), order.resend);
  if (!reply) return std::nullopt;
  ShowStatus(progress + Calling(device) + ": asking again");
  const Seen before = SeenBefore(device, session.All());
  const std::optional<Device> again = LookAfter(session, device, order, before, *reply);
  ShowStatus({});
  const std::optional<Seen> after = again ? std::optional(SeenOf(*again)) : std::nullopt;
  Outcome outcome = order.judge(before, after, *reply);
  if (outcome.result == Result::Gone) outcome.words += LastSeen(device);
  if (outcome.result == Result::Done && !order.planned.address) outcome.words += Shared(session, *again);
  Report report = ReportOn(device, outcome, after ? std::optional(after->settings) : std::nullopt);
  if (IsWorthRestoring(report)) {
    const bool seemsSo = after && after->settings == report.before && after->answering.empty();
    report.restoring = RestoringCommand(session, device, after ? after->settings : order.planned, seemsSo);
  }
  if (again) session.Replace(*again);
  return report;
}

}  // namespace tarnddp
