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

/// Without a usable MAC address the answers of one device over IPv6 and over IPv4 stand side by side.
bool IsPerhapsSame(const Device& one, const Device& other) {
  return one.record == other.record && !FactsOf(one.record).mac &&
         (one.sources.front().way == Way::IPv6) != (other.sources.front().way == Way::IPv6);
}

std::string WithoutZone(const std::string& address) { return address.substr(0, address.find('%')); }

const Interface* FindInterface(const Host& host, const std::string& name) {
  const auto found = std::find_if(host.interfaces.begin(), host.interfaces.end(),
                                  [&name](const Interface& one) { return one.name == name; });
  return found == host.interfaces.end() ? nullptr : &*found;
}

/// A daemon on this very PC is heard as well.
bool IsThisPC(const Device& device, const Host& host) {
  return std::any_of(device.sources.begin(), device.sources.end(), [&host](const Source& source) {
    const Interface* interface = FindInterface(host, source.interface);
    return interface != nullptr && source.way == Way::IPv6 && WithoutZone(source.address) == interface->linkLocal;
  });
}

bool IsOwn(IPv4 address, const Host& host) {
  return std::any_of(host.interfaces.begin(), host.interfaces.end(), [address](const Interface& interface) {
    return std::any_of(interface.subnets.begin(), interface.subnets.end(),
                       [address](const Subnet& subnet) { return subnet.address == address; });
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
  return "ip route add " + IPv4Text(address & MaskOfPrefix(usable)) + "/" + std::to_string(usable) + " dev " +
         interface;
}

/// Why no IPv4 answer of the device gets through on the interface where its IPv6 one does; empty if nothing speaks
/// against it.
std::string ExplainDropped(const Device& device, const Host& host) {
  const std::optional<IPv4> address = ParseIPv4(device.record.address);
  const Source* heard = device.SourceBy(Way::IPv6);
  if (!address || *address == 0 || IsOwn(*address, host) || heard == nullptr) return {};
  const Interface* interface = FindInterface(host, heard->interface);
  if (interface == nullptr || interface->subnets.empty()) return {};
  if (!IsDropped(*address, interface->name, host)) return {};
  return "this PC drops what " + IPv4Text(*address) + " sends to " + interface->name +
         " (reverse-path filter, and no route back); as root: " +
         RouteCommand(*address, IsInSubnet(*address, host) ? "" : device.record.mask, interface->name);
}

void JudgeAlone(Finding& finding, const Host& host) {
  const Device& device = finding.device;
  const std::optional<IPv4> named = ParseIPv4(device.record.address);
  std::set<std::string> told;
  for (const Source& source : device.sources) {
    if (source.way == Way::IPv6 || ParseIPv4(source.address) == named || !told.insert(source.address).second) continue;
    finding.problems.push_back("its record names the address " + Shown(device.record.address) +
                               ", but it answers from " + source.address);
  }
  if (named && IsOwn(*named, host) && !IsThisPC(device, host)) {
    finding.problems.push_back("this PC has its address " + IPv4Text(*named) + " as well");
  }
  const std::string dropped = ExplainDropped(device, host);
  if (!dropped.empty()) finding.problems.push_back(dropped);
}

/// By what two devices must not share: the positions of the devices that have it.
using Shared = std::map<std::string, std::set<std::size_t>>;

std::string InterfacesText(const Device& device) {
  std::string text;
  for (const std::string& interface : InterfacesOf(device)) text += (text.empty() ? "" : ", ") + interface;
  return text;
}

void JudgeShared(std::vector<Finding>& findings, const Shared& shared) {
  constexpr std::size_t named = 3;
  for (const auto& [what, sharing] : shared) {
    for (const std::size_t one : sharing) {
      std::string others;
      std::size_t count = 0;
      for (const std::size_t other : sharing) {
        const Device& device = findings[other].device;
        if (other == one || IsPerhapsSame(device, findings[one].device)) continue;
        if (++count > named) continue;
        others += (count == 1 ? "" : ", ") + Calling(device) + " at " + device.sources.front().address;
      }
      if (count == 0) continue;
      if (count > named) others += " and " + std::to_string(count - named) + " more";
      std::string problem = "has " + what;
      problem.append(" in common with ").append(others).append(", on ").append(InterfacesText(findings[one].device));
      findings[one].problems.push_back(std::move(problem));
    }
  }
}

std::string InterfaceText(const Interface& interface) {
  std::string text = interface.name;
  if (!interface.subnets.empty()) {
    const Subnet& subnet = interface.subnets.front();
    text += " (" + IPv4Text(subnet.address) + "/" + std::to_string(subnet.prefix) + ")";
  }
  return interface.hasLink ? text : text + " (no link: is the cable plugged in?)";
}

}  // namespace

std::vector<Finding> Judge(const std::vector<Device>& devices, const Host& host) {
  std::vector<Finding> findings;
  Shared shared;
  for (const Device& device : devices) {
    const std::optional<std::string> mac = FactsOf(device.record).mac;
    if (mac) shared["the MAC address " + *mac].insert(findings.size());
    for (const IPv4 address : AddressesOf(device)) shared["the address " + IPv4Text(address)].insert(findings.size());
    findings.push_back({device, {}});
  }
  for (Finding& finding : findings) JudgeAlone(finding, host);
  JudgeShared(findings, shared);
  return findings;
}

std::vector<std::string> ExplainSilence(const Host& host) {
  std::string where;
  for (const Interface& interface : host.interfaces) where += (where.empty() ? "" : ", ") + InterfaceText(interface);
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
    const bool hasDefault = !host.routeInterface(elsewhere).empty();
    lines.push_back("this PC drops the IPv4 answers of devices in other networks that come to " + interface.name +
                    " (reverse-path filter, and no route back); as root: ip route add " +
                    (hasDefault ? "NETWORK/PREFIX" : "default") + " dev " + interface.name);
  }
  return lines;
}

}  // namespace tarnddp
