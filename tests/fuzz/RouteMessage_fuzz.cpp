#include "util/RouteMessage.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstring>
#include <vector>

#include "tests/fuzz/Input.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

char* NameOfIndex(unsigned index, char* name) {
  std::memcpy(name, &index, sizeof index);
  return name;
}

template <typename Number>
void Put(Bytes& bytes, std::size_t at, unsigned value) {
  const auto number = static_cast<Number>(value);
  std::memcpy(&bytes.at(at), &number, sizeof number);
}

// The model steps by the macros of the kernel's headers, through a copy that is aligned as they want it.
RouteInfo Read(nlmsghdr* message) {
  RouteInfo route = {};
  auto* const kind = static_cast<rtmsg*>(NLMSG_DATA(message));
  if (message->nlmsg_len < NLMSG_LENGTH(sizeof *kind)) return route;
  if (kind->rtm_family != AF_INET || kind->rtm_table != RT_TABLE_MAIN) return route;
  std::int64_t left = RTM_PAYLOAD(message);
  for (rtattr* one = RTM_RTA(kind); RTA_OK(one, left); one = RTA_NEXT(one, left)) {
    if (RTA_PAYLOAD(one) < 4) continue;
    in_addr value = {};
    std::memcpy(&value, RTA_DATA(one), sizeof value);
    if (one->rta_type == RTA_DST) route.destination = value;
    if (one->rta_type == RTA_PREFSRC) route.source = value;
    if (one->rta_type == RTA_GATEWAY) route.gateway = value;
    if (one->rta_type == RTA_OIF) NameOfIndex(value.s_addr, route.interfaceName);
  }
  return route;
}

unsigned Rarely(Input& input, unsigned usual, unsigned other) { return input.Below(8) == 1 ? other : usual; }

/// Adds a message as the kernel writes it, mostly.
void AddMessage(Input& input, Bytes& dump) {
  const char* const addresses[] = {"0.0.0.0", "10.0.0.0", "20.0.0.0", "0.0.0.1", "5.0.0.0", "192.168.0.0"};
  const unsigned types[] = {RTA_DST, RTA_DST, RTA_GATEWAY, RTA_PREFSRC, RTA_OIF, RTA_TABLE};
  Bytes bytes(28);
  Put<std::uint16_t>(bytes, 4, Rarely(input, RTM_NEWROUTE, input.Below(5)));
  Put<std::uint16_t>(bytes, 6, Rarely(input, NLM_F_MULTI | NLM_F_REQUEST, NLM_F_REQUEST));
  bytes[16] = static_cast<std::uint8_t>(Rarely(input, AF_INET, AF_INET6));
  bytes[20] = static_cast<std::uint8_t>(Rarely(input, RT_TABLE_MAIN, RT_TABLE_LOCAL));
  for (auto attributes = input.Below(5); attributes > 0; --attributes) {
    const std::size_t at = bytes.size();
    const unsigned length = Rarely(input, 8, input.Below(14));
    bytes.resize(at + std::max<std::size_t>(RTA_ALIGN(length), 8));
    Put<std::uint32_t>(bytes, at + 4, inet_addr(addresses[input.Below(6)]));
    Put<std::uint16_t>(bytes, at, length);
    Put<std::uint16_t>(bytes, at + 2, types[input.Below(6)]);
  }
  Put<std::uint32_t>(bytes, 0, Rarely(input, static_cast<unsigned>(bytes.size()), input.Below(60)));
  dump.insert(dump.end(), bytes.begin(), bytes.end());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  Bytes bytes;
  const unsigned how = input.Below(4);
  while (how != 0 && !input.IsEmpty()) AddMessage(input, bytes);
  const std::string_view rest = input.Take(size);
  for (const char byte : rest) bytes.push_back(static_cast<std::uint8_t>(byte));
  if (how == 1) bytes.resize(bytes.size() - std::min<std::size_t>(bytes.size(), size % 40));
  bytes.shrink_to_fit();  // for a sanitizer to see

  std::vector<nlmsghdr> aligned(bytes.size() / sizeof(nlmsghdr) + 1);
  std::copy(bytes.begin(), bytes.end(), reinterpret_cast<std::uint8_t*>(aligned.data()));
  std::string expected = "none", found = "none";
  RouteDump expectedState = RouteDump::Continues;
  std::size_t at = 0, expectedRoutes = 0, routes = 99;
  auto left = static_cast<std::int64_t>(bytes.size());
  for (nlmsghdr* one = aligned.data(); NLMSG_OK(one, left); one = NLMSG_NEXT(one, left)) {
    const RouteInfo route = Read(one), read = RouteMessage_Read(&bytes[at], one->nlmsg_len, NameOfIndex);
    Require(std::memcmp(&route, &read, sizeof read) == 0, "route", std::to_string(at));
    if (expected[0] == 'n' && std::strstr(inet_ntoa(route.destination), "0.0.0.0") != nullptr)
      expected = inet_ntoa(route.gateway);
    at = std::min(at + NLMSG_ALIGN(one->nlmsg_len), bytes.size());
    if (expectedState != RouteDump::Continues) continue;
    if (one->nlmsg_type != NLMSG_DONE) expectedRoutes = at;
    if (one->nlmsg_type == NLMSG_DONE || (one->nlmsg_flags & NLM_F_MULTI) == 0) expectedState = RouteDump::Ended;
    if (one->nlmsg_type == NLMSG_ERROR) expectedState = RouteDump::Malformed;
  }
  const bool isCut = bytes.empty() || at < bytes.size();
  if (isCut && expectedState == RouteDump::Continues) expectedState = RouteDump::Malformed;
  if (expectedState == RouteDump::Malformed) expectedRoutes = routes;
  in_addr gateway = {};
  if (RouteMessage_FindDefaultGateway(bytes.data(), bytes.size(), NameOfIndex, &gateway)) found = inet_ntoa(gateway);
  Require(expected == found, "gateway", expected);
  const RouteDump state = RouteMessage_ScanDatagram(bytes.data(), bytes.size(), &routes);
  Require(std::pair(expectedState, expectedRoutes) == std::pair(state, routes), "scan", std::to_string(bytes.size()));
  return 0;
}
