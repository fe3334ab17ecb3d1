#include "util/RouteMessage.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <tuple>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

char* NameOfIndex(unsigned index, char* name) {
  std::snprintf(name, IF_NAMESIZE, "if%u", index % 1000);
  return name;
}

template <typename Number>
Number At(const Bytes& bytes, std::size_t at) {
  Number number = 0;
  std::memcpy(&number, &bytes.at(at), sizeof number);
  return number;
}

template <typename Number>
void Put(Bytes& bytes, std::size_t at, unsigned value) {
  const auto number = static_cast<Number>(value);
  std::memcpy(&bytes.at(at), &number, sizeof number);
}

std::size_t Padded(std::size_t size) { return (size + 3) / 4 * 4; }

// The model reads as rtnetlink(7) tells it: numbers in the machine's order, everything padded to four bytes.
/// The whole messages from the front on, up to the first one that is cut or lies about its length.
std::vector<Bytes> Messages(const Bytes& bytes) {
  std::vector<Bytes> messages;
  for (std::size_t at = 0; at + 16 <= bytes.size(); at += Padded(messages.back().size())) {
    const std::size_t length = At<std::uint32_t>(bytes, at);
    if (length < 16 || length > bytes.size() - at) break;
    messages.emplace_back(&bytes[at], &bytes[at] + length);
  }
  return messages;
}

std::pair<RouteDump, std::size_t> Scan(const Bytes& bytes) {
  std::size_t at = 0;
  for (const Bytes& message : Messages(bytes)) {
    const auto type = At<std::uint16_t>(message, 4);
    if (type == NLMSG_ERROR) return {RouteDump::Malformed, 99};
    if (type == NLMSG_DONE) return {RouteDump::Ended, at};
    at = std::min(at + Padded(message.size()), bytes.size());
    if ((At<std::uint16_t>(message, 6) & NLM_F_MULTI) == 0) return {RouteDump::Ended, at};
  }
  if (bytes.empty() || at < bytes.size()) return {RouteDump::Malformed, 99};
  return {RouteDump::Continues, at};
}

RouteInfo Read(const Bytes& message) {
  RouteInfo route = {};
  if (message.size() < 28 || message[16] != AF_INET || message[20] != RT_TABLE_MAIN) return route;
  for (std::size_t at = 28, length = 0; at + 4 <= message.size(); at += Padded(length)) {
    length = At<std::uint16_t>(message, at);
    if (length < 4 || length > message.size() - at) break;
    if (length < 8) continue;
    const in_addr value = {At<std::uint32_t>(message, at + 4)};
    const auto type = At<std::uint16_t>(message, at + 2);
    if (type == RTA_DST) route.destination = value;
    if (type == RTA_PREFSRC) route.source = value;
    if (type == RTA_GATEWAY) route.gateway = value;
    if (type == RTA_OIF) NameOfIndex(value.s_addr, route.interfaceName);
  }
  return route;
}

unsigned Random(unsigned below) {
  static std::mt19937 generator(20261125);
  return static_cast<unsigned>(generator() % below);
}

unsigned Rarely(unsigned usual, unsigned other) { return Random(8) == 0 ? other : usual; }

/// A message as the kernel writes it, mostly.
Bytes Message() {
  const char* const addresses[] = {"0.0.0.0", "10.0.0.0", "20.0.0.0", "0.0.0.1", "1.2.3.4", "192.168.0.0"};
  const unsigned types[] = {RTA_DST, RTA_DST, RTA_GATEWAY, RTA_PREFSRC, RTA_OIF, RTA_TABLE};
  Bytes bytes(28);
  Put<std::uint16_t>(bytes, 4, Rarely(RTM_NEWROUTE, Random(5)));
  Put<std::uint16_t>(bytes, 6, Rarely(NLM_F_MULTI | NLM_F_REQUEST, NLM_F_REQUEST));
  bytes[16] = static_cast<std::uint8_t>(Rarely(AF_INET, AF_INET6));
  bytes[20] = static_cast<std::uint8_t>(Rarely(RT_TABLE_MAIN, RT_TABLE_LOCAL));
  for (auto attributes = Random(5); attributes > 0; --attributes) {
    const std::size_t at = bytes.size();
    const unsigned length = Rarely(8, Random(14));
    bytes.resize(at + std::max<std::size_t>(Padded(length), 8));
    Put<std::uint32_t>(bytes, at + 4, inet_addr(addresses[Random(6)]));
    Put<std::uint16_t>(bytes, at, length);
    Put<std::uint16_t>(bytes, at + 2, types[Random(6)]);
  }
  Put<std::uint32_t>(bytes, 0, Rarely(static_cast<unsigned>(bytes.size()), Random(60)));
  return bytes;
}

}  // namespace

TEST(RouteMessage, IsReadAsThePlainModelReadsIt) {
  for (int round = 0; round < 30000 && !testing::Test::HasFailure(); ++round) {
    Bytes bytes;
    for (auto count = Random(4); count > 0; --count) {
      const Bytes message = Message();
      bytes.insert(bytes.end(), message.begin(), message.end());
    }
    if (round % 4 == 0) bytes.resize(Random(static_cast<unsigned>(bytes.size() + 1)));
    bytes.shrink_to_fit();  // for a sanitizer to see
    std::string expected = "none", found = "none";
    for (const Bytes& message : Messages(bytes)) {
      const RouteInfo route = Read(message);
      if (expected == "none" && std::strstr(inet_ntoa(route.destination), "0.0.0.0") != nullptr)
        expected = inet_ntoa(route.gateway);
      const RouteInfo read = RouteMessage_Read(message.data(), message.size(), NameOfIndex);
      EXPECT_EQ(0, std::memcmp(&route, &read, sizeof read));
    }
    in_addr gateway = {};
    if (RouteMessage_FindDefaultGateway(bytes.data(), bytes.size(), NameOfIndex, &gateway)) found = inet_ntoa(gateway);
    EXPECT_EQ(expected, found);
    std::size_t routes = 99;
    const RouteDump state = RouteMessage_ScanDatagram(bytes.data(), bytes.size(), &routes);
    EXPECT_EQ(Scan(bytes), std::pair(state, routes));
  }
}
