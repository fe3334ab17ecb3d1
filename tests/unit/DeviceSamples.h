#pragma once

// Devices and answers for the tests, in one line each.

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "tool/Device.h"

/// A digit as `mac` is the last one of a MAC address, "-" none; "away" as `serial` is a service that is.
inline tarnddp::Record RecordOf(const std::string& mac, const std::string& serial, const std::string& address,
                                const std::string& name = "Bench") {
  tarnddp::Record record = {"T", name, "XT175012#", serial, "false", address, "255.255.255.0", "", mac, "4"};
  if (mac.size() == 1) record.mac = mac == "-" ? "" : "00:1b:c4:00:00:0" + mac;
  if (serial == "away") record.type = "Tessel ???", record.serial = "000000", record.firmware = "???";
  return record;
}

/// `sender` by broadcast with a * before it.
inline tarnddp::Source SourceOf(const std::string& interface, const std::string& sender) {
  if (sender[0] == '*') return {interface, tarnddp::Way::Broadcast, sender.substr(1)};
  const bool isIPv6 = sender.find(':') != std::string::npos;
  return {interface, isIPv6 ? tarnddp::Way::IPv6 : tarnddp::Way::IPv4, isIPv6 ? sender + "%" + interface : sender};
}

/// "INTERFACE SENDER MAC SERIAL ADDRESS NAME" with a name of any words.
inline tarnddp::Answer AnswerOf(const std::string& words) {
  std::istringstream text(words);
  std::string interface, sender, mac, serial, address, name;
  std::getline(text >> interface >> sender >> mac >> serial >> address >> std::ws, name);
  return {SourceOf(interface, sender), RecordOf(mac, serial, address, name)};
}
