#include "util/RouteMessage.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstring>

namespace {

template <typename Record>
Record Load(const std::uint8_t* from) {
  Record record;
  std::memcpy(&record, from, sizeof(record));
  return record;
}

/// The header of the first message, if the whole message lies within `size` bytes.
bool ReadHeader(const std::uint8_t* messages, std::size_t size, nlmsghdr* header) {
  if (size < sizeof(nlmsghdr)) return false;
  *header = Load<nlmsghdr>(messages);
  return header->nlmsg_len >= sizeof(nlmsghdr) && header->nlmsg_len <= size;
}

/// How far the next message or attribute is, when this one has `length` bytes: padded to four, but not past the end.
std::size_t Step(std::size_t length, std::size_t size) { return std::min(size, (length + 3) & ~std::size_t{3}); }

void ReadAttribute(unsigned type, const std::uint8_t* value, RouteMessage_NameOfIndex nameOfIndex, RouteInfo* route) {
  switch (type) {
    case RTA_DST:
      route->destination = Load<in_addr>(value);
      break;
    case RTA_GATEWAY:
      route->gateway = Load<in_addr>(value);
      break;
    case RTA_PREFSRC:
      route->source = Load<in_addr>(value);
      break;
    case RTA_OIF:
      nameOfIndex(Load<unsigned>(value), route->interfaceName);
      break;
    default:
      break;
  }
}

/// Whether the dotted form contains "0.0.0.0": three zero bytes behind one that ends in the digit 0.
bool TextHasZeroAddress(in_addr address) {
  const std::uint32_t number = ntohl(address.s_addr);
  return (number & 0xffffff) == 0 && (number >> 24) % 10 == 0;
}

}  // namespace

RouteDump RouteMessage_ScanDatagram(const std::uint8_t* datagram, std::size_t size, std::size_t* routes) {
  std::size_t at = 0;
  bool hasEnded = false;
  do {
    nlmsghdr header = {};
    if (!ReadHeader(datagram + at, size - at, &header) || header.nlmsg_type == NLMSG_ERROR) return RouteDump::Malformed;
    const bool isRoute = header.nlmsg_type != NLMSG_DONE;
    hasEnded = !isRoute || (header.nlmsg_flags & NLM_F_MULTI) == 0;
    if (isRoute) at += Step(header.nlmsg_len, size - at);
  } while (!hasEnded && at < size);
  *routes = at;
  return hasEnded ? RouteDump::Ended : RouteDump::Continues;
}

RouteInfo RouteMessage_Read(const std::uint8_t* message, std::size_t size, RouteMessage_NameOfIndex nameOfIndex) {
  RouteInfo route = {};
  if (size < NLMSG_LENGTH(sizeof(rtmsg))) return route;
  const auto kind = Load<rtmsg>(message + NLMSG_HDRLEN);
  if (kind.rtm_family != AF_INET || kind.rtm_table != RT_TABLE_MAIN) return route;
  std::size_t at = NLMSG_SPACE(sizeof(rtmsg));
  while (size >= at + sizeof(rtattr)) {
    const auto attribute = Load<rtattr>(message + at);
    if (attribute.rta_len < sizeof(rtattr) || attribute.rta_len > size - at) break;
    if (attribute.rta_len >= RTA_LENGTH(4)) {
      ReadAttribute(attribute.rta_type, message + at + RTA_LENGTH(0), nameOfIndex, &route);
    }
    at += Step(attribute.rta_len, size - at);
  }
  return route;
}

bool RouteMessage_FindDefaultGateway(const std::uint8_t* messages, std::size_t size,
                                     RouteMessage_NameOfIndex nameOfIndex, in_addr* gateway) {
  nlmsghdr header = {};
  for (std::size_t at = 0; ReadHeader(messages + at, size - at, &header); at += Step(header.nlmsg_len, size - at)) {
    const RouteInfo route = RouteMessage_Read(messages + at, header.nlmsg_len, nameOfIndex);
    if (TextHasZeroAddress(route.destination)) {
      *gateway = route.gateway;
      return true;
    }
  }
  return false;
}
