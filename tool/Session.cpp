#include "tool/Session.h"

#include <algorithm>
#include <set>

#include "tool/Judge.h"
#include "tool/Output.h"
#include "tool/Render.h"
#include "tool/Scan.h"
#include "tool/Text.h"

namespace tarnddp {
namespace {

std::string WhereHeard(const Device& device) {
  std::string where;
  std::set<std::string> told;
  for (const Source& source : device.sources) {
    if (told.insert(source.address).second) AppendItem(where, source.address);
  }
  return where;
}

void TellSeveral(const std::string& wanted, const std::vector<Device>& found) {
  Say("\"" + Shown(wanted) + "\" means " + DevicesText(static_cast<int>(found.size())) + "; nothing was sent:");
  for (const Device& device : found) {
    const std::optional<std::string> serial = FactsOf(device.record).serial;
    Say("  " + Calling(device) + (serial ? ", serial number " + Shown(*serial) : "") + ", at " + WhereHeard(device));
  }
}

}  // namespace

Session::Session(const CommonOptions& options) : network(options.interfaces) {
  TellInterfaces(network);
  if (!network.IsUsable()) {
    status = StatusNothingSent;
    return;
  }
  Devices heard;
  int shown = -1;
  const auto showProgress = [&] {
    if (heard.Count() == shown) return;
    shown = heard.Count();
    ShowStatus("asking who is there: " + DevicesText(shown) + " so far");
  };
  if (!Collect(network, {options.seconds, 0}, heard, showProgress)) {
    status = TellNothingSent(network);
  }
  ShowStatus({});
  devices = heard.All();
  neighbours = Neighbours();
}

std::optional<Device> Session::Find(const std::string& wanted) {
  if (status != StatusDone) return std::nullopt;
  const std::vector<Device> found = FindDevice(devices, wanted);
  if (found.size() == 1) return found[0];
  status = StatusNotDone;
  if (found.empty()) {
    TellNobody(wanted);
  } else {
    TellSeveral(wanted, found);
  }
  return std::nullopt;
}

void Session::TellNobody(const std::string& wanted) const {
  const std::string heard = DevicesText(static_cast<int>(devices.size()));
  Say("\"" + Shown(wanted) + "\" is none of the " + heard + " heard (tarnddp scan shows them); nothing was sent");
  TellWhyUnheard();
}

void Session::TellWhyUnheard() const {
  if (devices.empty()) return TellProblems(network, {}, false);
  TellLimits(network, Judge(devices, HostOf(network)));
}

void Session::Replace(const Device& device) {
  const auto known =
      std::find_if(devices.begin(), devices.end(), [&](const Device& one) { return one.id == device.id; });
  if (known != devices.end()) *known = device;
}

std::vector<Interface> Session::HeardOn(const Device& device) const {
  std::vector<Interface> interfaces;
  for (const Interface& interface : network.Used()) {
    const auto isThere = [&](const Source& source) { return source.interface == interface.name; };
    if (std::any_of(device.sources.begin(), device.sources.end(), isThere)) interfaces.push_back(interface);
  }
  return interfaces;
}

std::optional<std::string> Session::StrangerAt(IPv4 address) const {
  const auto stranger = neighbours.find(address);
  if (stranger == neighbours.end()) return std::nullopt;
  for (const Device& device : devices) {
    // A record may name another MAC address than that of the cable.
    for (const Source& source : device.sources) {
      const auto from = ParseIPv4(source.address);
      const auto known = from ? neighbours.find(*from) : neighbours.end();
      if (known != neighbours.end() && known->second == stranger->second) return std::nullopt;
    }
  }
  return stranger->second;
}

std::vector<IPv4> OwnAddresses() {
  std::vector<IPv4> addresses;
  for (const Interface& interface : ListInterfaces()) {
    for (const Subnet& subnet : interface.subnets) addresses.push_back(subnet.address);
  }
  return addresses;
}

}  // namespace tarnddp
