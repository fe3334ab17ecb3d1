#pragma once

// Devices and answers for the tests, in one line each.

#include <string>
#include <vector>

#include "tool/Device.h"

inline tarnddp::Record RecordOf(const std::string& mac, const std::string& serial, const std::string& address,
                                const std::string& name = "Bench") {
  tarnddp::Record record;
  record.type = "T";
  record.name = name;
  record.model = "XT175012#";
  record.serial = serial;
  record.dhcp = "false";
  record.address = address;
  record.mask = "255.255.255.0";
  record.mac = mac;
  record.firmware = "4";
  if (serial == "away") record.type = "Tessel ???", record.serial = "000000", record.firmware = "???";
  return record;
}

inline tarnddp::Source SourceOf(const std::string& interface, const std::string& address) {
  const bool isIPv6 = address.find(':') != std::string::npos;
  return {interface, isIPv6 ? tarnddp::Way::IPv6 : tarnddp::Way::IPv4, isIPv6 ? address + "%" + interface : address};
}
