#pragma once

/// Leases an address for `interface` by one DISCOVER, OFFER, REQUEST, ACK exchange (RFC 2131) and applies it with
/// EthernetCfg_SetActSettings(). `attempts` is also how many seconds each of the two waits for an answer may take. The
/// exchange is tried once: after a failure the call only sleeps, 1 s for each attempt, and returns false. So it blocks
/// for at most 3 x `attempts` s, and for the `route` commands. With fewer than 1 there is no exchange, and empty
/// settings are applied. Nothing renews the lease later. True once the settings are applied: `*leaseSeconds` is then
/// the lease in seconds, 0 if the server named none. Also true, `*leaseSeconds` untouched, if the interface could not
/// be opened for them. What fails is printed with ul_PrStdOut(). The first call of the process adds a route for the
/// broadcasts. An attempt without a MAC address, read now or by an earlier call, is a failure that closes descriptor 0.
/// A socket of 1024 or more counts as EMFILE, a failed attempt. One thread at a time; never throws.
bool ul_ConfigureNetworkWithDHCP(const char* interface, int attempts, unsigned* leaseSeconds);
