#pragma once

#include <string>

// All that mends itself: the connection to the device service, the endpoints, the multicast groups and route, the
// memory. Each call does nothing until it is time, and none wakes the process by itself. Main thread only; what memory
// runs out for throws std::bad_alloc and is done the next time.

/// Connects to the device service, says on standard output whether it did, and sets the time of the first
/// Upkeep_Retry(). Blocks for at most 1 s.
void Upkeep_Attach(const char* host, int port, const char* interface);

/// 5 s after the last attempt, makes another: attaches anew if the service is not connected, opens the endpoints anew
/// if none is usable.
void Upkeep_Retry(const char* host, int port, const char* interface);

/// Gives up the idle connection to the device service if there is anything to read on it: the service closed it, or its
/// answers are out of step. Or if it leads to ourselves, while it would keep the service from its own port.
void Upkeep_ServiceConnection();

/// Joins both groups on `interface`, each where it is missing, routes IPv4 multicast through it, and opens single
/// endpoints that could not be opened before. A closed endpoint is told once, on standard error. Once in 5 s; an
/// interface that is absent is left until it is back. Does not block.
///
/// The system forgets the groups with the interface, and the route with its last address or when the link goes down;
/// at start-up the IPv4 group is joined before the route is there.
void Upkeep_Network(const char* interface);

/// After a request: gives what a huge answer took back to the system, where the C library would keep it.
void Upkeep_Memory();

/// Makes the next Upkeep_Network() do its work, 5 s or not.
void Upkeep_ExpectNetworkChange();

// Whether `list`, the text of /proc/net/igmp or igmp6 (proc(5)), has `group` on the interface of that index. Pure.

bool Upkeep_ListsGroupIPV4(const std::string& list, unsigned index, const char* group);
bool Upkeep_ListsGroupIPV6(const std::string& list, unsigned index, const char* group);
