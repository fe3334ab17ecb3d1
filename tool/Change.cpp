#include "tool/Change.h"

#include <algorithm>
#include <array>
#include <utility>

#include "ddp/Datagram.h"
#include "tool/Render.h"
#include "tool/Text.h"

namespace tarnddp {
namespace {

/// Why no host can have `address` in the network of `home`; empty if one can.
std::string HostProblem(IPv4 address, IPv4 home, IPv4 mask) {
  if (IsLoopback(address)) return "is a loopback address";
  if (IsGroup(address)) return "is the address of a group, not of a host";
  if (IsReserved(address)) return "is no address of a host";
  if (!InSameNetwork(address, home, mask)) return {};
  if ((address & ~mask) == 0) return "is the address of the network itself";
  if ((address | mask) == ~IPv4{0}) return "is the broadcast address of the network";
  return {};
}

/// One of the optional addresses. The empty text, or why it is refused.
std::string ReadOptional(const char* what, std::string_view text, const StaticAddress& wanted,
                         std::optional<IPv4>& result) {
  if (text.empty()) return {};
  const auto address = ParseIPv4(text);
  if (!address) {
    return std::string(what) + " \"" + Shown(text) + "\" is no IPv4 address (four numbers up to 255, no leading zeros)";
  }
  if (*address != 0) {
    const std::string problem = HostProblem(*address, wanted.address, MaskOfPrefix(wanted.prefix));
    if (!problem.empty()) return std::string(what) + ' ' + IPv4Text(*address) + ' ' + problem;
  }
  result = address;
  return {};
}

bool IsOneOf(const std::string& text, const std::vector<std::string>& texts) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

bool SameSettings(const Settings& one, const Settings& other) {
  const bool sameDhcp = !one.dhcp || !other.dhcp || one.dhcp == other.dhcp;  // unknown while the service is away
  return sameDhcp && one.address == other.address && one.prefix == other.prefix && one.gateway == other.gateway;
}

/// Whether the IPv4 answers, as far as there were any, all came from `address`.
bool AnswersOnlyFrom(const std::vector<std::string>& answering, const std::optional<std::string>& address) {
  return std::all_of(answering.begin(), answering.end(), [&](const std::string& from) { return from == address; });
}

bool IsLinkLocal(const Source& source) { return source.way == Way::IPv6 && source.address.compare(0, 4, "fe80") == 0; }

bool IsAsWanted(const Seen& seen, const Settings& wanted) {
  return SameSettings(seen.settings, wanted) && AnswersOnlyFrom(seen.answering, wanted.address);
}

bool IsAsBefore(const Seen& after, const Seen& before) {
  return SameSettings(after.settings, before.settings) &&
         std::all_of(after.answering.begin(), after.answering.end(), [&](const std::string& from) {
           return from == before.settings.address || IsOneOf(from, before.answering);
         });
}

/// In what a device differs from what was wanted of it.
std::string Differences(const Seen& after, const Settings& wanted) {
  std::vector<std::string> found;
  const Settings& now = after.settings;
  for (const std::string& from : after.answering) {
    if (from == now.address) continue;
    found.push_back("it answers from " + Shown(from) + " while its record shows " + ShownOr(now.address, "no address"));
    if (from == wanted.address) found.back() += " (its service refused, so the interface alone was set)";
  }
  if (found.empty() && now.address != wanted.address) found.push_back("its address is " + ShownOr(now.address, "none"));
  if (now.prefix != wanted.prefix) {
    found.push_back(now.prefix ? "its prefix length is " + std::to_string(*now.prefix) : "its mask has holes");
  }
  if (now.gateway != wanted.gateway) found.push_back("its gateway is " + ShownOr(now.gateway, "none"));
  if (now.dhcp.value_or(false)) found.emplace_back("DHCP is still on");
  std::string text;
  for (const std::string& one : found) AppendItem(text, one);
  return text;
}

/// Of a device whose record shows what it showed before. A service that refuses knows nothing of what the daemon sets
/// then, and this PC may not hear the new address.
Outcome Unchanged(const Seen& before, const Seen& after, Reply reply) {
  if (after.settings.dhcp && after.answering.empty() && !before.answering.empty()) {
    return {Result::Different,
            "its record shows the old settings, but it is no longer heard over IPv4 (its service may have refused, so "
            "the interface alone was set)"};
  }
  return {Result::Unchanged,
          reply == Reply::Ack ? "acknowledged, but nothing has changed" : "not acknowledged, and nothing has changed"};
}

Outcome RefusedBy(const Seen& before, const std::optional<Seen>& after, const char* words = "the device refused it") {
  Outcome outcome = {Result::Refused, words};
  if (after && !IsAsBefore(*after, before)) outcome.words += ", but its settings are now " + InWords(after->settings);
  return outcome;
}

Outcome NotHeardAgain(Reply reply) {
  return {Result::Gone,
          std::string(reply == Reply::Ack ? "acknowledged" : "not acknowledged") + ", and not heard again since"};
}

std::string Doubt(Reply reply) { return reply == Reply::Ack ? "" : ", although it was not acknowledged"; }

/// Whether `text` can be pasted into a shell as a word without quotes.
bool IsPlainWord(const std::string& text) {
  return !text.empty() && text[0] != '-' && std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '_';
  });
}

}  // namespace

std::string ReadStaticAddress(std::string_view address, std::string_view prefix, std::string_view gateway,
                              std::string_view dns, const std::vector<IPv4>& ownAddresses, StaticAddress& result) {
  StaticAddress read;
  const auto host = ParseIPv4(address);
  if (!host) {
    return '"' + Shown(address) +
           "\" is no IPv4 address (four numbers up to 255, no leading zeros; names are not looked up)";
  }
  const auto length = ParsePrefix(prefix);
  if (!length || *length < 1 || *length > 30) {
    return "the prefix length \"" + Shown(prefix) + "\" is no number from 1 to 30";
  }
  read.address = *host;
  read.prefix = *length;
  const IPv4 mask = MaskOfPrefix(read.prefix);
  if (const std::string problem = HostProblem(read.address, read.address, mask); !problem.empty()) {
    return IPv4Text(read.address, read.prefix) + ' ' + problem;
  }
  if (std::find(ownAddresses.begin(), ownAddresses.end(), read.address) != ownAddresses.end()) {
    return IPv4Text(read.address) + " is an address of this PC";
  }
  if (std::string problem = ReadOptional("gateway", gateway, read, read.gateway); !problem.empty()) return problem;
  if (read.gateway == read.address) return "the gateway " + IPv4Text(read.address) + " is the address itself";
  if (std::string problem = ReadOptional("name server", dns, read, read.dns); !problem.empty()) return problem;
  result = read;
  return {};
}

std::string UnwiseGateway(const StaticAddress& wanted) {
  const IPv4 mask = MaskOfPrefix(wanted.prefix);
  if (wanted.gateway.value_or(0) == 0 || InSameNetwork(*wanted.gateway, wanted.address, mask)) return {};
  return "gateway " + IPv4Text(*wanted.gateway) + " is outside " + IPv4Text(wanted.address & mask, wanted.prefix);
}

std::vector<Holder> HoldersOf(IPv4 address, const Device& own, const std::vector<Device>& devices,
                              const std::optional<std::string>& neighbourMac) {
  std::vector<Holder> holders;
  const std::string text = IPv4Text(address);
  bool neighbourIsHeard = false;
  for (const Device& device : devices) {
    // Of a device that was heard just now, the record and the answers count, not what the table remembers.
    neighbourIsHeard = neighbourIsHeard || (neighbourMac && KnownMac(device.record.mac) == neighbourMac);
    if (device.id == own.id) continue;
    if (device.record.address == text) {
      holders.push_back({device.id, text + " is the address of " + Calling(device)});
    } else if (device.AnswersFrom(text)) {
      holders.push_back({device.id, Calling(device) + " answers from " + text});
    }
  }
  if (neighbourMac && !neighbourIsHeard) {
    holders.push_back({0, text + " is in use by " + *neighbourMac + ", as this PC's neighbour table knows"});
  }
  return holders;
}

Target TargetOf(const StaticAddress& wanted, const Settings& before) {
  Target target;
  target.settings.address = IPv4Text(wanted.address);
  target.settings.prefix = wanted.prefix;
  target.settings.dhcp = false;
  const IPv4 mask = MaskOfPrefix(wanted.prefix);
  if (wanted.gateway) {
    if (*wanted.gateway != 0) target.settings.gateway = IPv4Text(*wanted.gateway);
  } else if (before.gateway) {
    const auto kept = ParseIPv4(*before.gateway);
    if (kept && InSameNetwork(*kept, wanted.address, mask) && *kept != wanted.address &&
        HostProblem(*kept, wanted.address, mask).empty()) {
      target.settings.gateway = IPv4Text(*kept);
      target.notes.push_back("the gateway " + *target.settings.gateway + " is kept");
    } else {
      const std::string why = kept == wanted.address
                                  ? "is the new address itself"
                                  : "is of no use in " + IPv4Text(wanted.address & mask, wanted.prefix);
      target.notes.push_back("the gateway " + Shown(*before.gateway) + ' ' + why + ", so the device gets none");
    }
  } else {
    target.notes.emplace_back("the device has no gateway and gets none");
  }
  if (wanted.dns.value_or(0) != 0) target.dns = wanted.dns;
  if (!wanted.dns) target.notes.emplace_back("the name server is cleared, as none was given");
  return target;
}

Seen SeenOf(const Device& device) {
  Seen seen = {FactsOf(device.record).settings, {}};
  for (const Source& source : device.sources) {
    if (source.way != Way::IPv6 && !IsOneOf(source.address, seen.answering)) seen.answering.push_back(source.address);
  }
  return seen;
}

bool IsInForce(const StaticAddress& wanted, const Seen& seen) {
  if (wanted.dns.value_or(0) != 0) return false;
  Settings settings = TargetOf(wanted, seen.settings).settings;
  if (!wanted.gateway) settings.gateway = seen.settings.gateway;
  return IsAsWanted(seen, settings);
}

std::string ReachabilityNote(const Settings& settings, const std::vector<Interface>& heardOn,
                             const std::string& routeInterface) {
  const auto address = ParseIPv4(settings.address.value_or(""));
  if (!address || !settings.prefix) return {};
  for (const Interface& interface : heardOn) {
    for (const Subnet& subnet : interface.subnets) {
      if (InSameNetwork(*address, subnet.address, MaskOfPrefix(subnet.prefix)) &&
          InSameNetwork(*address, subnet.address, MaskOfPrefix(*settings.prefix))) {
        return {};
      }
    }
  }
  const std::string where = *settings.address + '/' + std::to_string(*settings.prefix);
  if (settings.gateway && !routeInterface.empty()) {
    return "with " + where + " the device will be reachable over IPv4 from this PC through a router at best";
  }
  return "with " + where + " the device will not be reachable over IPv4 from this PC" +
         (routeInterface.empty() ? ", which has no route there" : ", which has no address in that network");
}

std::optional<Path> LinkLocalPath(const Device& device, const std::vector<Device>& devices) {
  for (const Source& source : device.sources)
    if (IsLinkLocal(source) && !IsOthers(source.address, device, devices)) return Path{source, {}};
  return std::nullopt;
}

std::optional<Path> PathTo(const Device& device, const std::vector<Device>& devices, std::string& why) {
  if (auto path = LinkLocalPath(device, devices)) return path;
  const Source* group = device.SourceBy(Way::IPv4);
  const Source* unicast = device.SourceBy(Way::Broadcast);
  if (group == nullptr && unicast == nullptr) {
    why = std::any_of(device.sources.begin(), device.sources.end(), IsLinkLocal)
              ? "another device answers from the same IPv6 address"
              : "it answers from no link-local IPv6 address";
    return std::nullopt;
  }
  const auto filter = FilterOf(device, devices, why);
  if (!filter) return std::nullopt;
  const bool byGroup = unicast == nullptr || (group != nullptr && IsOthers(unicast->address, device, devices));
  return Path{byGroup ? *group : *unicast, *filter};
}

std::optional<std::string> FilterOf(const Device& device, const std::vector<Device>& devices, std::string& why) {
  // A field that a device does not take for a filter would be its first argument.
  if (!FactsOf(device.record).mac || !TarnDDPCommand_IsMacAddress(device.record.mac)) {
    why = "its record holds no usable MAC address";
    return std::nullopt;
  }
  if (SharesMac(device, devices)) {
    why = "another device has the same MAC address";
    return std::nullopt;
  }
  return device.record.mac;
}

std::string Request(const Path& path, std::string_view word, const std::vector<std::string>& fields) {
  std::string request(word);
  if (!path.filter.empty()) request += '\t' + path.filter;
  for (const std::string& field : fields) request += '\t' + field;
  return request + "\r\n";
}

std::vector<std::string> StaticFields(const Target& target) {
  return {target.settings.address.value_or(""), IPv4Text(MaskOfPrefix(target.settings.prefix.value_or(0))),
          target.settings.gateway.value_or(""), target.dns ? IPv4Text(*target.dns) : ""};
}

const char* ResultName(Result result) {
  switch (result) {
    case Result::Planned:
      return "planned";
    case Result::Done:
      return "done";
    case Result::Unchanged:
      return "unchanged";
    case Result::Refused:
      return "refused";
    case Result::Different:
      return "different";
    case Result::Gone:
      break;
  }
  return "gone";
}

Outcome JudgeStatic(const Settings& wanted, const Seen& before, const std::optional<Seen>& after, Reply reply) {
  if (reply == Reply::Nack) return RefusedBy(before, after);
  if (!after) return NotHeardAgain(reply);
  const bool wasSo = IsAsWanted(before, wanted) && reply != Reply::Ack;  // then the record proves nothing
  if (IsAsWanted(*after, wanted) && !wasSo) return {Result::Done, InWords(after->settings) + Doubt(reply)};
  if (IsAsBefore(*after, before)) return Unchanged(before, *after, reply);
  return {Result::Different, Differences(*after, wanted)};
}

Outcome JudgeDhcp(bool on, const Seen& before, const std::optional<Seen>& after, Reply reply) {
  if (on && reply == Reply::Nack) {  // many a server first probes the address for longer than the daemon waits
    return RefusedBy(before, after,
                     before.settings.address == "0.0.0.0"
                         ? "it cannot lease an address while it has none: set-ip gives it one first"
                         : "it got no lease within a second, and may get one at once if told again");
  }
  if (reply == Reply::Nack) return RefusedBy(before, after);
  if (!after) return NotHeardAgain(reply);
  const std::string words = InWords(after->settings);
  if (after->settings.dhcp == on) return {Result::Done, words + Doubt(reply)};
  const bool isEverAway = !before.settings.dhcp && !after->settings.dhcp;  // one that was there may only be busy
  if (on && isEverAway && reply == Reply::Ack) {
    return {Result::Done, words + ", as far as can be seen: without its service a device never shows DHCP"};
  }
  if (IsAsBefore(*after, before) && (after->settings.dhcp || isEverAway)) return Unchanged(before, *after, reply);
  if (after->settings.dhcp)
    return {Result::Different, std::string("DHCP is ") + (on ? "off" : "on") + " with " + words};
  return {Result::Different, "its service is away now, so DHCP cannot be seen; it has " + words};
}

std::string InWords(const Settings& settings) {
  std::string words = ShownOr(settings.address, "no address");
  if (settings.prefix) words += '/' + std::to_string(*settings.prefix);
  words += settings.gateway ? ", gateway " + Shown(*settings.gateway) : ", no gateway";
  return settings.dhcp.value_or(false) ? words + ", by DHCP" : words;
}

std::string ArgumentFor(const Device& device, const std::vector<Device>& devices) {
  const auto means = [&](const std::string& text) { return FindDevice(devices, text).size() == 1; };
  const Facts facts = FactsOf(device.record);
  if (facts.mac && means(*facts.mac)) return *facts.mac;
  if (facts.serial && IsPlainWord(*facts.serial) && means(*facts.serial)) return *facts.serial;
  return device.sources.empty() ? "" : device.sources.front().address;
}

std::string RestoringCommand(const std::string& argument, const Settings& before, const Settings& after, bool isForced,
                             const std::vector<IPv4>& ownAddresses) {
  if (before.dhcp.value_or(false)) {
    // "on" sends nothing while the record shows it.
    return after.dhcp.value_or(false) ? "" : "tarnddp dhcp " + argument + " on";
  }
  StaticAddress old;
  const std::string prefix = before.prefix ? std::to_string(*before.prefix) : "";
  const std::string address = before.address.value_or(""), gateway = before.gateway.value_or("");
  if (!ReadStaticAddress(address, prefix, gateway, "", ownAddresses, old).empty()) return {};
  std::string command = "tarnddp set-ip " + argument + ' ' + IPv4Text(old.address, old.prefix);
  if (old.gateway) {
    command += " --gateway " + IPv4Text(*old.gateway);
  } else if (after.dhcp.value_or(false) || TargetOf(old, after).settings.gateway) {
    command += " --gateway 0.0.0.0";  // without it the present one would be kept, or the one that a lease brings
  }
  return UnwiseGateway(old).empty() && !isForced ? command : command + " --force";
}

std::string ForwardedRequest(const std::string& word, const std::vector<std::string>& arguments, std::string& request) {
  constexpr std::size_t longest = 1023;
  static constexpr std::array<std::string_view, 9> ownWords = {
      "DEVICEIDENT?", "DEVICEIDENTEXT?",     "SETIPADDRESS!",      "SETDHCPMODE!",   "DEVICEREBOOT!",
      "SYSTRACE!",    "DEVICEDISABLEIDENT!", "DEVICEENABLEIDENT!", "EXECUTECOMMAND!"};
  if (word.empty()) return "an empty word means nothing to a device";
  const auto* const own =
      std::find_if(ownWords.begin(), ownWords.end(), [&](std::string_view one) { return Lower(one) == Lower(word); });
  if (own != ownWords.end()) {
    return std::string(*own) + " is a word of the discovery protocol itself and never reaches the device's service";
  }
  if (!arguments.empty() && TarnDDPCommand_IsMacAddress(arguments[0])) {
    return "a first argument like \"" + Shown(arguments[0]) + "\" would be taken for the MAC address of a device";
  }
  std::vector<std::string> parts = {word};
  parts.insert(parts.end(), arguments.begin(), arguments.end());
  for (const std::string& part : parts) {
    if (part.find_first_of(std::string_view("\t\r\n\0", 4)) != std::string::npos) {
      return '"' + Shown(part) + "\" holds a separator (TAB, CR, LF) or NUL";
    }
  }
  std::string built = Request({}, word, arguments);
  if (built.size() > longest) {
    return std::to_string(built.size()) + " bytes with their separators and line end: a device takes at most " +
           std::to_string(longest);
  }
  request = std::move(built);
  return {};
}

}  // namespace tarnddp
