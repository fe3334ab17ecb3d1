#pragma once

#include <optional>
#include <string>
#include <string_view>

// What a device says of itself. Pure: any bytes.

namespace tarnddp {

/// One identity record, each field exactly as the device sent it, that is any bytes; empty where the field is missing.
struct Record {
  std::string type, name, model, serial, dhcp, address, mask, gateway, mac, firmware;

  bool operator==(const Record& other) const;
  bool operator!=(const Record& other) const { return !(*this == other); }
  /// Some order.
  bool operator<(const Record& other) const;
};

/// Nothing if `datagram` is no identity record but another reply, a request or a trace line. A TAB inside a value stays
/// in it, unless what follows looks like a field; the first field of a name counts.
std::optional<Record> ReadRecord(std::string_view datagram);

/// Whether the device answered without its service: then `serial`, `firmware`, `type`, `name`, `model` and `dhcp` are
/// fixed texts that say nothing.
bool IsServiceAway(const Record& record);

/// The settings that a record tells, as far as they are known.
struct Settings {
  std::optional<std::string> address;  ///< as the device wrote it
  std::optional<int> prefix;           ///< nothing for a mask with holes or a text that is none
  std::optional<std::string> gateway;  ///< nothing for an empty one and 0.0.0.0
  std::optional<bool> dhcp;            ///< nothing while the service is away

  bool operator==(const Settings& other) const;
};

/// What is known of a device, for every way to show it. Texts are still the device's own bytes.
struct Facts {
  std::optional<std::string> mac;  ///< "00:1b:c4:0a:ff:05"; nothing if zero, empty or malformed
  std::optional<std::string> serial, name, type, model, firmware;  ///< nothing while the service is away
  Settings settings;
  bool service = false;  ///< whether the device's service answered

  bool operator==(const Facts& other) const;
};

Facts FactsOf(const Record& record);

/// A MAC address in any spelling as "00:1b:c4:0a:ff:05"; nothing for one that no device has: zero, empty or malformed.
std::optional<std::string> KnownMac(std::string_view text);

}  // namespace tarnddp
