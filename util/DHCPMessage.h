#pragma once

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>

// The messages of one DHCP exchange (RFC 2131, options of RFC 2132), without a socket. All of them pass through one
// buffer: what an earlier message left in it and a later one does not overwrite stays, is sent with the REQUEST and is
// read with the options of a reply.

/// 236 bytes of fixed fields, 312 of options with their magic cookie, and in the last four the length of the options of
/// the message built last, low byte first. Those four are never sent; a reply of more than 548 bytes overwrites them.
using DHCPBuffer = std::array<std::uint8_t, 552>;
using DHCPMac = std::array<std::uint8_t, 6>;

/// How many leading bytes of the buffer are sent.
constexpr std::size_t DHCP_DISCOVER_SIZE = 281;
constexpr std::size_t DHCP_REQUEST_SIZE = 269;

constexpr std::uint8_t DHCP_OFFER = 2;
constexpr std::uint8_t DHCP_ACK = 5;

/// What a reply says, zero for what it does not. Addresses are in network order, of several in one option the first.
struct DHCPReply {
  in_addr address;
  in_addr server;
  in_addr mask;
  in_addr router;
  in_addr nameServer;
  in_addr broadcast;
  std::uint32_t leaseSeconds;
};

/// The DISCOVER in a buffer that is zero otherwise.
DHCPBuffer ul_DHCPBuildDiscover(const DHCPMac& mac);

/// The REQUEST for `address` of `server`, written over the OFFER in `offer`: ten bytes behind the MAC, most of the
/// sname and file fields and what is behind the options keep what the OFFER had there.
DHCPBuffer ul_DHCPBuildRequest(const DHCPBuffer& offer, const DHCPMac& mac, in_addr server, in_addr address);

/// Reads the reply whose `received` bytes lie at the beginning of `buffer`. False, `reply` untouched, if it is not an
/// answer of that message type to our messages; the message type has to be its first option.
/// Options are taken as code, length, value up to code 255 or four bytes past the reply, pad bytes included, and values
/// as four bytes whatever the length says. Of two equal options the last counts.
bool ul_DHCPReadReply(const DHCPBuffer& buffer, std::size_t received, std::uint8_t messageType, DHCPReply* reply);
