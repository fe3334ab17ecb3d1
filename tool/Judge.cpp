#include "tool/Judge.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "tool/Text.h"

namespace tarnddp {
namespace {

/// The IPv4 addresses that a device shows: the one of its record and those that it answers from.
std::set<IPv4> AddressesOf(const Device& device) {
  std::set<IPv4> addresses;
  const auto take = [&addresses](const std::string& text) {
    const std::optional<IPv4> address = ParseIPv4(text);
    if (address && *address != 0) addresses.insert(*address);
  };
  take(device.record.address);
  for (const Source& source : device.sources) take(source.address);
  return addresses;
}

/// The interfaces on which a device was heard, each once.
std::set<std::string> InterfacesOf(const Device& device) {
  std::set<std::string> interfaces;
  for (const Source& source : device.sources) interfaces.insert(source.interface);
  return interfaces;
}

std::string WithoutZone(const std::string& address) { return address.substr(0, address.find('%')); }

const Interface* FindInterface(const Host& host, const std::string& name) {
  const auto found = std::find_if(host.interfaces.begin(), host.interfaces.end(),
                                  [&name](const Interface& one) { return one.name == name; });
  return found == host.interfaces.end() ? nullptr : &*found;
}

/// Whether this PC has it; not what every host has.
bool IsOwn(IPv4 address, const Host& host) {
  return !IsLoopback(address) &&
         std::find(host.addresses.begin(), host.addresses.end(), address) != host.addresses.end();
}

/// Whether this PC has it listed without using it.
bool IsUnused(IPv4 address, const Host& host) {
  return std::any_of(host.interfaces.begin(), host.interfaces.end(), [address](const Interface& interface) {
    return std::any_of(interface.subnets.begin(), interface.subnets.end(),
                       [address](const Subnet& subnet) { return subnet.address == address && !subnet.serves; });
  });
}

/// A daemon on this very PC is heard as well. No other device's answer comes from an address of this PC: the system
/// drops it.
bool IsThisPC(const Device& device, const Host& host) {
  return std::any_of(device.sources.begin(), device.sources.end(), [&host](const Source& source) {
    const std::optional<IPv4> address = ParseIPv4(source.address);
    if (address) return IsOwn(*address, host) && !IsUnused(*address, host);
    const Interface* interface = FindInterface(host, source.interface);
    return interface != nullptr && WithoutZone(source.address) == interface->linkLocal;
  });
}

bool IsInSubnet(IPv4 address, const Host& host) {
  return std::any_of(host.interfaces.begin(), host.interfaces.end(), [address](const Interface& interface) {
    return std::any_of(interface.subnets.begin(), interface.subnets.end(), [address](const Subnet& subnet) {
      return InSameNetwork(address, subnet.address, MaskOfPrefix(subnet.prefix));
    });
  });
}

/// Whether what `address` sends is dropped where it arrives on `interface`.
bool IsDropped(IPv4 address, const std::string& interface, const Host& host) {
  switch (host.reversePath(interface)) {
    case ReversePath::Accepts:
      return false;
    case ReversePath::NeedsAnyRoute:
      return host.routeInterface(address).empty();
    case ReversePath::NeedsRouteHere:
      break;
  }
  return host.routeInterface(address) != interface;
}

/// The command that gives this PC a way to the network of `address`, or, without a usable mask, to that address alone:
/// the network may be on another interface as well. Anybody can send a record, so no mask in one moves more than a /8.
std::string RouteCommand(IPv4 address, const std::string& mask, const std::string& interface) {
  const std::optional<IPv4> number = ParseIPv4(mask);
  const int prefix = number ? PrefixOfMask(*number).value_or(32) : 32;
  const int usable = prefix < 8 ? 32 : prefix;
  return "ip route add " + IPv4Text(address & MaskOfPrefix(usable), usable) + " dev " + interface;
}

/// Why no IPv4 answer of the device gets through on the interface where its IPv6 one does; empty if nothing speaks
/// against it, or one came, be it by another interface.
std::string ExplainDropped(const Device& device, const Host& host) {
  const std::optional<IPv4> address = ParseIPv4(device.record.address);
  const Source* heard = device.SourceBy(Way::IPv6);
  if (!address || IsLoopback(*address) || IsGroup(*address) || IsReserved(*address)) return {};
  if (IsOwn(*address, host) || heard == nullptr) return {};
  const Interface* interface = FindInterface(host, heard->interface);
  if (interface == nullptr || interface->subnets.empty() || device.AnswersFrom(IPv4Text(*address))) return {};
  if (!IsDropped(*address, interface->name, host)) return {};
  return "this PC drops what " + IPv4Text(*address) + " sends to " + interface->name +
         " (reverse-path filter, and no route back); as root: " +
         RouteCommand(*address, IsInSubnet(*address, host) ? "" : device.record.mask, interface->name);
}

/// What to tell where the routes look for the neighbours on `interface` by another one, as where two networks have the
/// same addresses; empty where what they send gets through.
std::string ExplainOwnDropped(const Interface& interface, const Host& host) {
  const Subnet& own = interface.subnets.front();
  const IPv4 mask = MaskOfPrefix(own.prefix), hosts = ~mask;
  IPv4 neighbour = own.address ^ hosts ^ hosts >> 1U;  // far away, as near ones may be this PC's, too
  if ((neighbour & hosts) == 0 || (neighbour & hosts) == hosts) neighbour ^= 1U;
  if (own.prefix > 30 || !IsDropped(neighbour, interface.name, host)) return {};
  return "this PC drops what " + IPv4Text(own.address & mask, own.prefix) + " sends to " + interface.name +
         ", as its routes do not look for that network there (reverse-path filter); as root: sysctl " +
         "net/ipv4/conf/" + interface.name + "/rp_filter=2";
}

void JudgeAlone(Finding& finding, const Host& host) {
  const Device& device = finding.device;
  const std::optional<IPv4> named = ParseIPv4(device.record.address);
  std::set<std::string> told;
  for (const Source& source : device.sources) {
    if (source.way == Way::IPv6 || ParseIPv4(source.address) == named || !told.insert(source.address).second) continue;
    const std::string& address = device.record.address;
    finding.problems.push_back("its record names " +
                               (address.empty() ? "no address" : "the address " + Shown(address)) +
                               ", but it answers from " + source.address);
  }
  if (named && IsOwn(*named, host) && !IsThisPC(device, host)) {
    finding.problems.push_back("this PC has its address " + IPv4Text(*named) + " as well");
  }
  const std::string dropped = ExplainDropped(device, host);
  if (!dropped.empty()) finding.problems.push_back(dropped);
}

/// Without a usable MAC address the answers of one device over IPv6 and over IPv4 stand side by side: what such a half
/// tells, and whether over IPv6. Nothing for a device with a MAC address.
using Half = std::optional<std::pair<Record, bool>>;

Half HalfOf(const Device& device) {
  if (FactsOf(device.record).mac) return std::nullopt;
  return std::pair(device.record, device.sources.front().way == Way::IPv6);
}

Half OtherHalf(Half half) {
  if (half) half->second = !half->second;
  return half;
}

/// The positions of the devices that share something.
using Sharing = std::map<Half, std::vector<std::size_t>>;
/// By what two devices must not share.
using Shared = std::map<std::string, Sharing>;

std::string InterfacesText(const Device& device) {
  std::string text;
  for (const std::string& interface : InterfacesOf(device)) AppendItem(text, interface);
  return text;
}

/// With whom the device at `one` shares it: the first few, and how many more of the `count`.
std::string OthersText(const std::vector<Finding>& findings, const Sharing& sharing, const Half& same, std::size_t one,
                       std::size_t count) {
  constexpr std::size_t most = 3;
  std::string text;
  std::size_t named = 0;
  for (const auto& [half, positions] : sharing) {
    if (half && half == same) continue;
    for (auto other = positions.begin(); other != positions.end() && named < most; ++other) {
      if (*other == one) continue;
      const Device& device = findings[*other].device;
      AppendItem(text, Calling(device) + " at " + device.sources.front().address);
      ++named;
    }
    if (named == most) break;
  }
  return count > most ? text + " and " + std::to_string(count - most) + " more" : text;
}

/// Takes a time that grows with the number of devices, not with its square: one that lies can be thousands.
void JudgeShared(std::vector<Finding>& findings, const Shared& shared) {
  for (const auto& [what, sharing] : shared) {
    std::size_t all = 0;
    for (const auto& [half, positions] : sharing) all += positions.size();
    for (const auto& [half, positions] : sharing) {
      const Half same = OtherHalf(half);
      const auto perhapsSame = half ? sharing.find(same) : sharing.end();
      const std::size_t count = all - 1 - (perhapsSame == sharing.end() ? 0 : perhapsSame->second.size());
      if (count == 0) continue;
      for (const std::size_t one : positions) {
        findings[one].problems.push_back("has " + what + " in common with " +
                                         OthersText(findings, sharing, same, one, count) + ", on " +
                                         InterfacesText(findings[one].device));
      }
    }
  }
}

std::string InterfaceText(const Interface& interface) {
  std::string text = interface.name;
  if (!interface.subnets.empty()) {
    const Subnet& subnet = interface.subnets.front();
    text += " (" + IPv4Text(subnet.address, subnet.prefix) + ")";
  }
  return interface.hasLink ? text : text + " (no link: is the cable plugged in?)";
}

}  // namespace

std::vector<Finding> Judge(const std::vector<Device>& devices, const Host& host) {
  std::vector<Finding> findings;
  Shared shared;
  for (const Device& device : devices) {
    const std::optional<std::string> mac = FactsOf(device.record).mac;
    const Half half = HalfOf(device);
    if (mac) shared["the MAC address " + *mac][half].push_back(findings.size());
    for (const IPv4 address : AddressesOf(device)) {
      shared["the address " + IPv4Text(address)][half].push_back(findings.size());
    }
    findings.push_back({device, {}});
  }
  for (Finding& finding : findings) JudgeAlone(finding, host);
  JudgeShared(findings, shared);
  return findings;
}

std::vector<std::string> ExplainSilence(const Host& host) {
  std::string where;
  for (const Interface& interface : host.interfaces) AppendItem(where, InterfaceText(interface));
  return {
      "no device answered on " + where,
      "if one is there, a firewall of this PC may keep its answers out: they are UDP from the ports 5562 and 5564, and "
      "UDP to the port 5563 of the group 224.0.5.128"};
}

std::vector<std::string> ExplainFilters(const std::vector<Finding>& findings, const Host& host) {
  // An address that no network has (RFC 5737): how this PC treats what its routes do not name.
  constexpr IPv4 elsewhere = 0xc0000201;
  std::vector<std::string> lines;
  for (const Interface& interface : host.interfaces) {
    if (!interface.hasLink || interface.subnets.empty() || !IsDropped(elsewhere, interface.name, host)) continue;
    const bool isTold = std::any_of(findings.begin(), findings.end(), [&](const Finding& finding) {
      return InterfacesOf(finding.device).count(interface.name) != 0 && !ExplainDropped(finding.device, host).empty();
    });
    if (isTold) continue;
    if (std::string line = ExplainOwnDropped(interface, host); !line.empty()) {
      lines.push_back(std::move(line));
      continue;
    }
    const bool hasDefault = !host.routeInterface(elsewhere).empty();
    lines.push_back("this PC drops the IPv4 answers of devices in other networks that come to " + interface.name +
                    " (reverse-path filter, and no route back); as root: ip route add " +
                    (hasDefault ? "NETWORK/PREFIX" : "default") + " dev " + interface.name);
  }
  return lines;
}

}  // namespace tarnddp
