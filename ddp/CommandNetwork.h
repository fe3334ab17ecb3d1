#pragma once

#include <string>

// Both change the device's network settings through the device service or, while that is away or fails, on the
// interface itself; the latter asks the upkeep to look after the network at once. Both return "ACK\n" or "NACK\n".

/// Sets a static configuration; the texts are not checked here. On the interface the broadcast address becomes 0.0.0.0.
std::string Command_SetIPAddress(const std::string& ipAddress, const std::string& subnetMask,
                                 const std::string& gatewayAddress, const std::string& dnsAddress);

/// Turns DHCP on or off, keeping the addresses that the service reports. Without the service it leases an address,
/// whatever `dhcpOn` says, and so blocks for a few seconds.
std::string Command_SetDHCP(bool dhcpOn);
