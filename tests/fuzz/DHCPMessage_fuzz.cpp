#include "util/DHCPMessage.h"

#include <array>
#include <cstring>
#include <map>

#include "tests/fuzz/Input.h"

namespace {

/// Writes `bytes` from `at` on; where the next ones go.
template <typename Bytes>
std::size_t Put(DHCPBuffer& buffer, std::size_t at, const Bytes& bytes) {
  std::memcpy(&buffer.at(at), bytes.data(), bytes.size());
  return at + bytes.size();
}

/// What tells a reply of that type: bytes and their places.
std::array<std::pair<std::size_t, std::uint8_t>, 8> Head(std::uint8_t type) {
  return {{{0, 2}, {4, 0x7c}, {5, 0xd9}, {6, 1}, {7, 0}, {240, 53}, {241, 1}, {242, type}}};
}

/// Every byte of a message with these options that is written over `buffer`.
DHCPBuffer Request(DHCPBuffer buffer, const DHCPMac& mac, const std::string& options) {
  using namespace std::string_literals;
  Put(buffer, 0, "\1\1\6\0\x7c\xd9\1\0\0\0\x80\0"s + std::string(16, '\0'));
  Put(buffer, 28, mac);
  buffer[44] = buffer[108] = 0;
  const std::size_t end =
      Put(buffer, 236, "\x63\x82\x53\x63" + options + "\x37\x0b\1\x0f\3\6\x2c\x2e\x2f\x1f\x21\x79\x2b\xff");
  Put(buffer, 548, std::string{static_cast<char>(end - 236), 0, 0, 0});
  return buffer;
}

/// What the bytes of a reply say: options are code, length, value up to 255 or four bytes past what came, a value is
/// four bytes. False for what is no reply.
bool Read(const DHCPBuffer& buffer, std::size_t received, std::uint8_t type, DHCPReply& reply) {
  for (const auto& [at, byte] : Head(type)) {
    if (received < 240 || buffer[at] != byte) return false;
  }
  reply = {};
  std::memcpy(&reply.address, &buffer[16], 4);
  std::uint8_t padded[1000] = {};
  std::memcpy(padded, buffer.data(), buffer.size());
  const std::map<int, void*> places = {{1, &reply.mask},       {3, &reply.router},        {6, &reply.nameServer},
                                       {28, &reply.broadcast}, {51, &reply.leaseSeconds}, {54, &reply.server}};
  for (std::size_t at = 240; at < received + 4 && padded[at] != 255; at += 2U + padded[at + 1]) {
    if (places.count(padded[at]) != 0) std::memcpy(places.at(padded[at]), &padded[at + 2], 4);
  }
  reply.leaseSeconds = ntohl(reply.leaseSeconds);
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
  for (const auto& [place, byte] : Head(type)) buffer[place] = byte;
  if (how == 1) buffer[Head(type)[input.Below(8)].first] ^= 1;
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
  const std::string client = "\x3d\7\1" + std::string(reinterpret_cast<const char*>(mac.data()), mac.size());
  Require(buffer == Request({}, mac, "\x35\1\1" + client + "\x0c\x0dtarn-xt175-ts"), "DISCOVER", "");
  DHCPReply offer = {}, lease = {};
  lease.leaseSeconds = 77;
  const std::size_t offered = Receive(input, DHCP_OFFER, buffer);
  Compare(buffer, offered, DHCP_OFFER, offer);
  std::string options("\x35\1\3\x36\4....\x32\4....");
  std::memcpy(&options[5], &offer.server, 4);
  std::memcpy(&options[11], &offer.address, 4);
  const DHCPBuffer expected = Request(buffer, mac, options);
  buffer = ul_DHCPBuildRequest(buffer, mac, offer.server, offer.address);
  Require(buffer == expected, "REQUEST", "");
  const std::size_t acknowledged = Receive(input, DHCP_ACK, buffer);
  Compare(buffer, acknowledged, DHCP_ACK, lease);
  return 0;
}
