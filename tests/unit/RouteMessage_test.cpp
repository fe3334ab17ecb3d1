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

// The model reads as rtnetlink(7) tells it: numbers in the machine's order, everything padded to four bytes.
unsigned Number(const Bytes& bytes, std::size_t at, std::size_t size) {
  std::uint16_t two = 0;
  std::uint32_t four = 0;
  std::memcpy(size == 2 ? static_cast<void*>(&two) : &four, &bytes.at(at), size);
  return size == 2 ? two : four;
}

std::size_t Padded(std::size_t size) { return (size + 3) / 4 * 4; }

/// The whole messages from the front on, up to the first one that is cut or lies about its length.
std::vector<Bytes> Messages(const Bytes& bytes) {
  std::vector<Bytes> messages;
  for (std::size_t at = 0; at + 16 <= bytes.size();) {
    const std::size_t length = Number(bytes, at, 4);
    if (length < 16 || length > bytes.size() - at) break;
    messages.emplace_back(&bytes[at], &bytes[at] + length);
    at += Padded(length);
  }
  return messages;
}

std::pair<RouteDump, std::size_t> Scan(const Bytes& bytes) {
  std::size_t at = 0;
  for (const Bytes& message : Messages(bytes)) {
    if (Number(message, 4, 2) == NLMSG_ERROR) return {RouteDump::Malformed, 99};
    if (Number(message, 4, 2) == NLMSG_DONE) return {RouteDump::Ended, at};
    at = std::min(at + Padded(message.size()), bytes.size());
    if ((Number(message, 6, 2) & NLM_F_MULTI) == 0) return {RouteDump::Ended, at};
  }
  return bytes.empty() || at < bytes.size() ? std::pair(RouteDump::Malformed, std::size_t{99})
                                            : std::pair(RouteDump::Continues, at);
}

RouteInfo Read(const Bytes& message) {
  RouteInfo route = {};
  if (message.size() < 28 || message[16] != AF_INET || message[20] != RT_TABLE_MAIN) return route;
  for (std::size_t at = 28, length = 0; at + 4 <= message.size(); at += Padded(length)) {
    length = Number(message, at, 2);
    if (length < 4 || length > message.size() - at) break;
    if (length < 8) continue;
    const in_addr value = {Number(message, at + 4, 4)};
    const unsigned type = Number(message, at + 2, 2);
    if (type == RTA_DST) route.destination = value;
    if (type == RTA_PREFSRC) route.source = value;
    if (type == RTA_GATEWAY) route.gateway = value;
    if (type == RTA_OIF) NameOfIndex(value.s_addr, route.interfaceName);
  }
  return route;
}

std::string Text(const RouteInfo& route) {
  const std::string destination = inet_ntoa(route.destination), source = inet_ntoa(route.source);
  return destination + " from " + source + " via " + inet_ntoa(route.gateway) + " dev " + route.interfaceName;
}

unsigned Random(unsigned below) {
  static std::mt19937 generator(20261125);
  return static_cast<unsigned>(generator() % below);
}

void Put(Bytes& bytes, std::size_t at, std::size_t size, unsigned number) {
  const auto two = static_cast<std::uint16_t>(number);
  std::memcpy(&bytes.at(at), size == 2 ? static_cast<const void*>(&two) : &number, size);
}

/// A message as the kernel writes it, mostly.
Bytes Message() {
  const char* const addresses[] = {"0.0.0.0", "10.0.0.0", "20.0.0.0", "0.0.0.1", "1.2.3.4", "192.168.0.0"};
  const unsigned types[] = {RTA_DST, RTA_DST, RTA_GATEWAY, RTA_PREFSRC, RTA_OIF, RTA_TABLE};
  Bytes bytes(28);
  const auto rarely = [](unsigned usual, unsigned other) { return Random(8) == 0 ? other : usual; };
  Put(bytes, 4, 2, rarely(RTM_NEWROUTE, Random(5)));
  Put(bytes, 6, 2, rarely(NLM_F_MULTI | NLM_F_REQUEST, NLM_F_REQUEST));
  bytes[16] = static_cast<std::uint8_t>(rarely(AF_INET, AF_INET6));
  bytes[20] = static_cast<std::uint8_t>(rarely(RT_TABLE_MAIN, RT_TABLE_LOCAL));
  for (auto attributes = Random(5); attributes > 0; --attributes) {
    const std::size_t at = bytes.size(), length = rarely(8, Random(14));
    bytes.resize(at + Padded(std::max<std::size_t>(length, 4)));
    Put(bytes, at, 2, static_cast<unsigned>(length));
    Put(bytes, at + 2, 2, types[Random(6)]);
    if (length >= 8) Put(bytes, at + 4, 4, inet_addr(addresses[Random(6)]));
  }
  Put(bytes, 0, 4, static_cast<unsigned>(rarely(static_cast<unsigned>(bytes.size()), Random(60))));
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
      EXPECT_EQ(Text(route), Text(RouteMessage_Read(message.data(), message.size(), NameOfIndex)));
    }
    in_addr gateway = {};
    if (RouteMessage_FindDefaultGateway(bytes.data(), bytes.size(), NameOfIndex, &gateway)) found = inet_ntoa(gateway);
    EXPECT_EQ(expected, found);
    std::size_t routes = 99;
    const RouteDump state = RouteMessage_ScanDatagram(bytes.data(), bytes.size(), &routes);
    EXPECT_EQ(Scan(bytes), std::pair(state, routes));
  }
}
