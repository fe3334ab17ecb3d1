#pragma once

// The IPv4 settings of one network interface, read and changed through the kernel: interface ioctls (netdevice(7)), a
// dump of the routing table (rtnetlink(7)), the command `route` and a resolver file. One thread at a time. Every use is
// EthernetCfg_Init(), reads or writes, EthernetCfg_Final(). What fails is printed with ul_PrStdOut(); nothing throws,
// but for a read where memory runs out: std::bad_alloc.
//
// Texts are NUL-terminated; what is written goes into buffers of at least 128 bytes of the caller's. Addresses are
// dotted quads. Of an interface name the first 15 bytes count, as the kernel reads no more.

/// The gateway that EthernetCfg_SetActSettings() applied last, cut to the buffer; empty before the first one.
extern char DefGateway[1024];

/// Remembers the name of the interface and opens the socket that the calls below work on. False if `interface` is null
/// or the socket cannot be opened, a descriptor of 1024 or more counting as EMFILE here and below. A second call
/// without EthernetCfg_Final() leaves the first socket open for good.
bool EthernetCfg_Init(const char* interface);

/// Closes that socket: 0, or -1 with errno. A second call closes nothing: -1, EBADF.
int EthernetCfg_Final();

/// Reads every setting whose pointer is not null; `mac` is "00:1b:c4:0a:ff:05", `*valid` becomes true always, and
/// `nameserver` is never written. False if one could not be read: its buffer is then untouched. The gateway does not
/// count: without a default route it reads "0.0.0.0", and it is untouched where get_gatewayip() fails.
bool EthernetCfg_GetActSettings(char* ip, char* mask, char* broadcast, char* gateway, char* nameserver, char* mac,
                                bool* valid);

/// Sets mask, address and broadcast address, replaces the default route and the resolver file, brings the interface up.
/// Null or empty leaves `ip` and `mask` as they are and makes `broadcast` what follows from the two given (zero for one
/// not given); null leaves `gateway` and `nameserver` alone, while an empty text replaces the default route (by none)
/// and the file. A mask of 0.0.0.0 ends as that of the address's class, as no default route could be set beside it.
/// True if the interface came up with the settings; what happened to broadcast address, routes and file does not count.
/// Nothing is rolled back. On an interface without an address the mask cannot be set, which is a failure. After a
/// failure the interface is up, and without its broadcast flag where the kernel allows that. Any text may be
/// DefGateway, or lie in it, and counts as it was at the call.
bool EthernetCfg_SetActSettings(const char* ip, const char* mask, const char* broadcast, const char* gateway,
                                const char* nameserver);

/// Adds `flags` (IFF_...) to those of `interface`, between EthernetCfg_Init() and EthernetCfg_Final().
bool set_flag(const char* interface, short flags);

/// Reads six groups of one or two hexadecimal digits separated by ':' into `out`, ignoring what follows the sixth
/// (where white space or the end of the text must stand after a single digit). Returns `out`; null, `out` untouched, if
/// the text is malformed or null.
unsigned char* ConverMacAddressStringIntoByte(const char* text, unsigned char out[6]);

/// Rewrites the resolver file, a line for each name server that is not null. True if at least one was written. A new
/// file is readable for all (0644), an existing one keeps its mode.
bool ConfigureNameserver(const char* first, const char* second, const char* third);

/// Writes the default gateway of the main table into `gateway` and returns 1. Without a default route that is
/// "0.0.0.0", as the routes of the other tables, which the kernel dumps as well, count as a route to nowhere
/// (RouteMessage_FindDefaultGateway()); only a dump that has none of them gives 0, `gateway` untouched. -1, told on
/// standard error, if the kernel did not give its table of up to 8192 bytes within a second. Needs no
/// EthernetCfg_Init().
int get_gatewayip(char* gateway);

/// Another way to the MAC address, through the output of `ifconfig` in its older form (that of busybox): writes the
/// text after "HWaddr" into `out` and tells by `*hasAddress` whether there is an "inet addr". False, both untouched,
/// without a MAC address. Needs no EthernetCfg_Init().
bool ul_GetMACAddressString(const char* interface, char* out, bool* hasAddress);

/// Routes all IPv4 multicast (224.0.0.0/3) to `interface`. True also if that route is there; else false with errno, as
/// for an interface that is absent or down. Needs no EthernetCfg_Init() and runs no command.
bool EthernetCfg_AddMulticastRoute(const char* interface);
