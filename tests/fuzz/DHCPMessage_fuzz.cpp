#include "util/DHCPMessage.h"

#include <cstring>

#include "tests/fuzz/Input.h"

namespace {

const std::size_t PLACES[] = {0, 4, 5, 6, 7, 240, 241, 242};

/// What the bytes of a reply say: options are code, length, value up to 255 or four bytes past what came, a value is
/// four bytes. False for what is no reply.
bool Read(const DHCPBuffer& buffer, std::size_t received, std::uint8_t type, DHCPReply& reply) {
  const std::uint8_t head[] = {2, 0x7c, 0xd9, 1, 0, 53, 1, type};
  for (int i = 0; i < 8; ++i) {
    if (received < 240 || buffer[PLACES[i]] != head[i]) return false;
  }
  reply = {};
  std::memcpy(&reply.address, &buffer[16], 4);
  std::uint8_t padded[1000] = {};
  std::memcpy(padded, buffer.data(), buffer.size());
  for (std::size_t at = 240; at < received + 4 && padded[at] != 255; at += 2U + padded[at + 1]) {
    const int code = padded[at];
    in_addr* const to = code == 1    ? &reply.mask
                        : code == 3  ? &reply.router
                        : code == 6  ? &reply.nameServer
                        : code == 28 ? &reply.broadcast
                        : code == 54 ? &reply.server
                                     : nullptr;
    if (to != nullptr) std::memcpy(to, &padded[at + 2], 4);
    if (code != 51) continue;
    std::memcpy(&reply.leaseSeconds, &padded[at + 2], 4);
    reply.leaseSeconds = ntohl(reply.leaseSeconds);
  }
  return true;
}

/// Receives a message over what the buffer holds: bytes as they are, or a head, of which one byte may be wrong, and
/// options. Returns how many bytes came.
std::size_t Receive(Input& input, std::uint8_t type, DHCPBuffer& buffer) {
  const std::uint8_t codes[] = {1, 3, 6, 28, 51, 54, 0, 7, 255};
  const unsigned how = input.Below(8);
  std::size_t at = 0;
  const auto put = [&at, &buffer](std::uint8_t byte) {
    if (at < buffer.size()) buffer[at++] = byte;
  };
  if (how == 0) {
    for (const char byte : input.Take(input.Byte())) put(static_cast<std::uint8_t>(byte));
    return at;
  }
  const std::uint8_t head[] = {2, 0x7c, 0xd9, 1, 0, 53, 1, type};
  for (int i = 0; i < 8; ++i) buffer[PLACES[i]] = head[i];
  if (how == 1) buffer[PLACES[input.Below(8)]] ^= 1;
  at = 16;
  for (int i = 0; i < 4; ++i) put(input.Byte());
  at = 243;
  for (unsigned options = input.Below(24); options > 0; --options) {
    put(codes[input.Below(9)]);
    const std::uint8_t length = input.Below(4) != 0 ? std::uint8_t{4} : input.Byte();
    put(length);
    for (unsigned i = 0; i < length; ++i) put(input.Byte());
  }
  return std::min(buffer.size(), at + 8 - input.Below(how == 2 ? 250 : 16));
}

void Compare(const DHCPBuffer& buffer, std::size_t received, std::uint8_t type, DHCPReply& reply) {
  DHCPReply expected = reply;
  const bool isReply = Read(buffer, received, type, expected);
  Require(ul_DHCPReadReply(buffer, received, type, &reply) == isReply, "verdict", std::to_string(received));
  Require(std::memcmp(&reply, &expected, sizeof reply) == 0, "reply", std::to_string(received));
}

}  // namespace

/// A whole exchange through one buffer.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const DHCPMac mac = {input.Byte(), 0x1b, 0xc4, 0x0a, 0xff, 0x05};
  DHCPBuffer buffer = ul_DHCPBuildDiscover(mac);
  DHCPReply offer = {}, lease = {};
  lease.leaseSeconds = 77;
  const std::size_t offered = Receive(input, DHCP_OFFER, buffer);
  Compare(buffer, offered, DHCP_OFFER, offer);
  const DHCPBuffer before = buffer;
  buffer = ul_DHCPBuildRequest(buffer, mac, offer.server, offer.address);
  Require(std::equal(buffer.begin() + 273, buffer.begin() + 548, before.begin() + 273), "what the OFFER left", "");
  const std::size_t acknowledged = Receive(input, DHCP_ACK, buffer);
  Compare(buffer, acknowledged, DHCP_ACK, lease);
  return 0;
}
