#include "util/RouteMessage.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstring>
#include <random>
#include <vector>

namespace {

char* NameOfIndex(unsigned index, char* name) {
  std::snprintf(name, IF_NAMESIZE, "if%u", index % 1000);
  return name;
}

template <typename Record>
Record At(const std::string& bytes, std::size_t at) {
  Record record;
  std::memcpy(&record, &bytes.at(at), sizeof record);
  return record;
}

template <typename Record>
std::string Bytes(const Record& record) {
  return std::string(reinterpret_cast<const char*>(&record), sizeof record);
}

const std::uint8_t* Data(const std::string& bytes) { return reinterpret_cast<const std::uint8_t*>(bytes.data()); }

// The model reads as rtnetlink(7) tells it: everything is padded to four bytes.
std::size_t Padded(std::size_t size) { return (size + 3) / 4 * 4; }

/// The whole messages from the front on, up to the first one that is cut or lies about its length.
std::vector<std::string> Messages(const std::string& bytes) {
  std::vector<std::string> messages;
  for (std::size_t at = 0; at + 16 <= bytes.size(); at += Padded(messages.back().size())) {
    const std::size_t length = At<nlmsghdr>(bytes, at).nlmsg_len;
    if (length < 16 || length > bytes.size() - at) break;
    messages.push_back(bytes.substr(at, length));
  }
  return messages;
}

std::pair<RouteDump, std::size_t> Scan(const std::string& bytes) {
  std::size_t at = 0;
  for (const std::string& message : Messages(bytes)) {
    const auto header = At<nlmsghdr>(message, 0);
    if (header.nlmsg_type == NLMSG_ERROR) return {RouteDump::Malformed, 99};
    if (header.nlmsg_type == NLMSG_DONE) return {RouteDump::Ended, at};
    at = std::min(at + Padded(message.size()), bytes.size());
    if ((header.nlmsg_flags & NLM_F_MULTI) == 0) return {RouteDump::Ended, at};
  }
  if (bytes.empty() || at < bytes.size()) return {RouteDump::Malformed, 99};
  return {RouteDump::Continues, at};
}

RouteInfo Read(const std::string& message) {
  RouteInfo route = {};
  if (message.size() < 28) return route;
  const auto kind = At<rtmsg>(message, 16);
  if (kind.rtm_family != AF_INET || kind.rtm_table != RT_TABLE_MAIN) return route;
  for (std::size_t at = 28, length = 0; at + 4 <= message.size(); at += Padded(length)) {
    length = At<rtattr>(message, at).rta_len;
    if (length < 4 || length > message.size() - at) break;
    if (length < 8) continue;
    const auto value = At<in_addr>(message, at + 4);
    const unsigned type = At<rtattr>(message, at).rta_type;
    if (type == RTA_DST) route.destination = value;
    if (type == RTA_PREFSRC) route.source = value;
    if (type == RTA_GATEWAY) route.gateway = value;
    if (type == RTA_OIF) NameOfIndex(value.s_addr, route.interfaceName);
  }
  return route;
}

template <typename Number = unsigned>
Number Random(unsigned below) {
  static std::mt19937 generator(20261125);
  return static_cast<Number>(generator() % below);
}

template <typename Number>
Number Rarely(Number usual, unsigned below) {
  return Random(8) == 0 ? Random<Number>(below) : usual;
}

/// A message as the kernel writes it, mostly.
std::string Message() {
  const char* const addresses[] = {"0.0.0.0", "10.0.0.0", "20.0.0.0", "0.0.0.1", "1.2.3.4", "192.168.0.0"};
  const std::uint16_t types[] = {RTA_DST, RTA_DST, RTA_GATEWAY, RTA_PREFSRC, RTA_OIF, RTA_TABLE};
  std::string attributes;
  for (auto count = Random(5); count > 0; --count) {
    const auto length = Rarely<std::uint16_t>(8, 14);
    std::string attribute = Bytes(rtattr{length, types[Random(6)]}) + Bytes(inet_addr(addresses[Random(6)]));
    attribute.resize(std::max<std::size_t>(Padded(length), 8));
    attributes += attribute;
  }
  const rtmsg kind = {Rarely<std::uint8_t>(AF_INET, 11), 0, 0, 0, Rarely<std::uint8_t>(RT_TABLE_MAIN, 256), 0, 0, 0, 0};
  const auto size = static_cast<std::uint32_t>(28 + attributes.size());
  const nlmsghdr header = {Rarely(size, 60), Rarely<std::uint16_t>(RTM_NEWROUTE, 5), Rarely<std::uint16_t>(3, 2), 0, 0};
  return Bytes(header) + Bytes(kind) + attributes;
}

}  // namespace

TEST(RouteMessage, IsReadAsThePlainModelReadsIt) {
  for (int round = 0; round < 30000 && !testing::Test::HasFailure(); ++round) {
    std::string bytes;
    for (auto count = Random(4); count > 0; --count) bytes += Message();
    if (round % 4 == 0) bytes.resize(Random(static_cast<unsigned>(bytes.size() + 1)));
    bytes.shrink_to_fit();  // for a sanitizer to see
    std::string expected = "none", found = "none";
    for (const std::string& message : Messages(bytes)) {
      const RouteInfo route = Read(message);
      if (expected == "none" && std::strstr(inet_ntoa(route.destination), "0.0.0.0") != nullptr)
        expected = inet_ntoa(route.gateway);
      EXPECT_EQ(Bytes(route), Bytes(RouteMessage_Read(Data(message), message.size(), NameOfIndex)));
    }
    in_addr gateway = {};
    if (RouteMessage_FindDefaultGateway(Data(bytes), bytes.size(), NameOfIndex, &gateway)) found = inet_ntoa(gateway);
    EXPECT_EQ(expected, found);
    std::size_t routes = 99;
    const RouteDump state = RouteMessage_ScanDatagram(Data(bytes), bytes.size(), &routes);
    EXPECT_EQ(Scan(bytes), std::pair(state, routes));
  }
}
