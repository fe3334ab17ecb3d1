#include "util/RouteMessage.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstring>
#include <vector>

#include "tests/fuzz/Input.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using View = std::basic_string_view<std::uint8_t>;

char* NameOfIndex(unsigned index, char* name) {
  std::memcpy(name, &index, sizeof index);
  return name;
}

template <typename Number>
Number At(View bytes, std::size_t at) {
  Number number = 0;
  std::memcpy(&number, bytes.substr(at, sizeof number).data(), sizeof number);
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
std::vector<View> Messages(View bytes) {
  std::vector<View> messages;
  for (std::size_t at = 0; at + 16 <= bytes.size(); at += Padded(messages.back().size())) {
    const std::size_t length = At<std::uint32_t>(bytes, at);
    if (length < 16 || length > bytes.size() - at) break;
    messages.push_back(bytes.substr(at, length));
  }
  return messages;
}

std::pair<RouteDump, std::size_t> Scan(View bytes, const std::vector<View>& messages) {
  std::size_t at = 0;
  for (const View message : messages) {
    const auto type = At<std::uint16_t>(message, 4);
    if (type == NLMSG_ERROR) return {RouteDump::Malformed, 99};
    if (type == NLMSG_DONE) return {RouteDump::Ended, at};
    at = std::min(at + Padded(message.size()), bytes.size());
    if ((At<std::uint16_t>(message, 6) & NLM_F_MULTI) == 0) return {RouteDump::Ended, at};
  }
  if (bytes.empty() || at < bytes.size()) return {RouteDump::Malformed, 99};
  return {RouteDump::Continues, at};
}

RouteInfo Read(View message) {
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
    bytes.resize(at + std::max<std::size_t>(Padded(length), 8));
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

  const View dump(bytes.data(), bytes.size());
  const std::vector<View> messages = Messages(dump);
  std::string expected = "none", found = "none";
  for (const View message : messages) {
    const RouteInfo route = Read(message);
    if (expected[0] == 'n' && std::strstr(inet_ntoa(route.destination), "0.0.0.0") != nullptr)
      expected = inet_ntoa(route.gateway);
    const RouteInfo read = RouteMessage_Read(message.data(), message.size(), NameOfIndex);
    Require(std::memcmp(&route, &read, sizeof read) == 0, "route", expected);
  }
  in_addr gateway = {};
  if (RouteMessage_FindDefaultGateway(bytes.data(), bytes.size(), NameOfIndex, &gateway)) found = inet_ntoa(gateway);
  Require(expected == found, "gateway", expected);
  std::size_t routes = 99;
  const RouteDump state = RouteMessage_ScanDatagram(bytes.data(), bytes.size(), &routes);
  Require(Scan(dump, messages) == std::pair(state, routes), "scan", std::to_string(bytes.size()));
  return 0;
}
