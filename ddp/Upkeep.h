#pragma once

#include <string>

// What mends itself beside the loop's repairs, without a word and without a wake-up of its own. Main thread only; the
// loop calls both after each Receive() and before a request is handled. Nothing here blocks or throws.

/// Gives up the idle connection to the device service if there is anything to read on it: the service closed it, or its
/// answers are out of step. Or if it leads to ourselves, while it would keep the service from its own port.
void Upkeep_ServiceConnection();

/// Joins both groups on `interface` and routes IPv4 multicast through it. Does so once in 5 s, and otherwise returns at
/// once; an interface that is absent is left until it is back.
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
