#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tool/Commands.h"
#include "tool/Device.h"
#include "tool/Network.h"

namespace tarnddp {

/// Thrown by what waits once Ctrl-C came while a KeepOnInterrupt lives.
struct Interrupted {};

/// What every subcommand that changes a device begins with: the sockets open, all devices asked and heard. What goes
/// wrong is said on standard error.
class Session {
 public:
  explicit Session(const CommonOptions& options);

  /// StatusDone, or what the program ends with: nothing could be asked, or Find() found nobody.
  int Status() const { return status; }
  Network& Sockets() { return network; }
  const std::vector<Device>& All() const { return devices; }
  /// The one device that `wanted` means. Nothing unless the status is StatusDone, nor, after saying so, if there is
  /// none or more than one.
  std::optional<Device> Find(const std::string& wanted);
  /// Says what may have kept a device from being heard, as far as this PC knows.
  void TellWhyUnheard() const;
  /// Takes the place of what was known of the device with its id.
  void Replace(const Device& device);
  /// The interfaces by which a device was heard.
  std::vector<Interface> HeardOn(const Device& device) const;
  /// Whom the neighbour table had at `address` after all were heard, by MAC address; nothing for one of the devices
  /// heard, as far as the table can tell: of those it may remember what they had before.
  std::optional<std::string> StrangerAt(IPv4 address) const;

 private:
  void TellNobody(const std::string& wanted) const;

  Network network;
  std::vector<Device> devices;
  std::map<IPv4, std::string> neighbours;
  int status = 0;
};

/// The IPv4 addresses of this PC.
std::vector<IPv4> OwnAddresses();

}  // namespace tarnddp
