#pragma once

#include <netinet/in.h>

/// Asks the kernel for its routing table, through a netlink socket of its own (rtnetlink(7)), and finds the default
/// gateway in it: 1, or 0 (`gateway` untouched) if RouteMessage_FindDefaultGateway() finds none, or -1, told on
/// standard error, if the kernel did not give its table of up to 8192 bytes within a second,
/// or if the socket got a descriptor of 1024 or more (EMFILE).
int RouteSocket_FindDefaultGateway(in_addr* gateway);
