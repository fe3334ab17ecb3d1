#pragma once

#include <net/if.h>
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

// Reading the kernel's routing table as rtnetlink(7) dumps it. Nothing here owns or opens anything, and nothing reads
// outside the bytes that it is given, whatever they say; they need no alignment.

/// One route, as far as one message tells it; all zero where it does not.
struct RouteInfo {
  in_addr destination;
  in_addr source;  // the preferred one
  in_addr gateway;
  char interfaceName[IF_NAMESIZE];
};

/// Turns an interface's index into its name in a buffer of IF_NAMESIZE, or returns null: if_indextoname().
using RouteMessage_NameOfIndex = char* (*)(unsigned index, char* name);

enum class RouteDump { Continues, Ended, Malformed };

/// Looks through one datagram of a dump, up to the message that ends it: NLMSG_DONE, which is no route, or one that is
/// no part of a dump, the last route then. `routes` becomes the number of leading bytes that hold routes. Malformed
/// (`routes` untouched) is a message that does not fit, or an error, before the end.
RouteDump RouteMessage_ScanDatagram(const std::uint8_t* datagram, std::size_t size, std::size_t* routes);

/// Reads the message of `size` bytes, its netlink header included. Only an IPv4 route of the main table is read; any
/// other leaves the record zero.
RouteInfo RouteMessage_Read(const std::uint8_t* message, std::size_t size, RouteMessage_NameOfIndex nameOfIndex);

/// Finds the default gateway in the messages of one or more datagrams: that of the first record whose destination in
/// dotted form contains "0.0.0.0". That is a default route, but also a record left zero, whose gateway is 0.0.0.0, and
/// a route to 10.0.0.0 or 20.0.0.0. Without policy routing the kernel dumps the main table first, before the local one,
/// and in it the default route, so a default route is found where there is one; where there is none, the result is the
/// gateway of such a route to 10.0.0.0 or else 0.0.0.0, by the first route of the local table. A further table may be
/// dumped before the main one, and then the result is 0.0.0.0. False, `gateway` untouched, if there is nothing of the
/// kind.
bool RouteMessage_FindDefaultGateway(const std::uint8_t* messages, std::size_t size,
                                     RouteMessage_NameOfIndex nameOfIndex, in_addr* gateway);
