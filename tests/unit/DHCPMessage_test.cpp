#include "util/DHCPMessage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <tuple>

namespace {

unsigned Random(unsigned below) {
  static std::mt19937 generator(20261125);
  return static_cast<unsigned>(generator() % below);
}

/// Writes bytes given as hexadecimal numbers between blanks.
void Put(DHCPBuffer& buffer, std::size_t at, const std::string& hex) {
  std::istringstream words(hex);
  for (std::string word; words >> word;) buffer.at(at++) = static_cast<std::uint8_t>(std::stoul(word, nullptr, 16));
}

std::string Hex(const void* bytes, std::size_t size) {
  std::string text;
  char number[4];
  for (std::size_t at = 0; at < size; ++at) {
    std::snprintf(number, sizeof number, "%02x ", static_cast<const unsigned char*>(bytes)[at]);
    text += number;
  }
  return text;
}

std::string Hex(const DHCPBuffer& buffer) { return Hex(buffer.data(), buffer.size()); }

/// What both messages have in front of their options.
DHCPBuffer Fields(DHCPBuffer buffer, const DHCPMac& mac) {
  Put(buffer, 0, "01 01 06 00  7c d9 01 00  00 00 80 00  00 00 00 00  00 00 00 00  00 00 00 00  00 00 00 00");
  Put(buffer, 28, Hex(mac.data(), mac.size()));
  Put(buffer, 44, "00");
  Put(buffer, 108, "00");
  Put(buffer, 236, "63 82 53 63");
  return buffer;
}

const std::string LIST = "37 0b 01 0f 03 06 2c 2e 2f 1f 21 79 2b  ff";

// The model of a reply: options are code, length, value up to 255 or four bytes past what came; a value is four bytes.
std::string Read(const DHCPBuffer& buffer, std::size_t received, std::uint8_t type) {
  const std::uint8_t head[] = {2, 0x7c, 0xd9, 1, 0, 53, 1, type};
  const std::size_t places[] = {0, 4, 5, 6, 7, 240, 241, 242};
  for (int i = 0; i < 8; ++i) {
    if (received < 240 || buffer[places[i]] != head[i]) return "none";
  }
  DHCPReply reply = {};
  std::memcpy(&reply.address, &buffer[16], 4);
  std::string padded(buffer.begin(), buffer.end());
  padded.resize(1000);
  for (std::size_t at = 240; at < received + 4; at += 2 + static_cast<unsigned char>(padded[at + 1])) {
    const int code = static_cast<unsigned char>(padded[at]);
    if (code == 255) break;
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
  return Hex(&reply, sizeof reply);
}

}  // namespace

TEST(DHCPMessage, EveryByteOfWhatIsSentIsAsLaidOut) {
  for (int round = 0; round < 200; ++round) {
    DHCPMac mac = {};
    DHCPBuffer offer = {}, expected = {};
    in_addr server = {Random(UINT32_MAX)}, address = {Random(UINT32_MAX)};
    for (auto& byte : mac) byte = static_cast<std::uint8_t>(Random(256));
    for (auto& byte : offer) byte = static_cast<std::uint8_t>(Random(256));
    expected = Fields({}, mac);
    Put(expected, 240,
        "35 01 01  3d 07 01 " + Hex(mac.data(), 6) + "0c 0d 74 61 72 6e 2d 78 74 31 37 35 2d 74 73 " + LIST);
    Put(expected, 548, "2d 00 00 00");
    EXPECT_EQ(Hex(expected), Hex(ul_DHCPBuildDiscover(mac)));
    expected = Fields(offer, mac);
    Put(expected, 240, "35 01 03  36 04 " + Hex(&server, 4) + "32 04 " + Hex(&address, 4) + LIST);
    Put(expected, 548, "21 00 00 00");
    EXPECT_EQ(Hex(expected), Hex(ul_DHCPBuildRequest(offer, mac, server, address)));
  }
  EXPECT_EQ(std::tuple(281U, 269U), std::tuple(DHCP_DISCOVER_SIZE, DHCP_REQUEST_SIZE));
}

TEST(DHCPMessage, ReplyIsReadAsThePlainModelReadsIt) {
  const std::uint8_t codes[] = {1, 3, 6, 28, 51, 54, 0, 7, 255};
  for (int round = 0; round < 20000 && !testing::Test::HasFailure(); ++round) {
    DHCPBuffer buffer = {};
    for (std::size_t at = 16; at < 20; ++at) buffer[at] = static_cast<std::uint8_t>(Random(256));
    for (std::size_t at = 243; at < buffer.size();) {
      buffer[at++] = codes[Random(40) == 0 ? 8 : Random(8)];
      const unsigned length = Random(4) != 0 ? 4 : Random(Random(9) == 0 ? 256 : 20);
      for (unsigned i = 0; i <= length && at < buffer.size(); ++i) {
        buffer[at++] = static_cast<std::uint8_t>(i == 0 ? length : Random(256));
      }
    }
    Put(buffer, 0, "02 01 06 00  7c d9 01 00");
    Put(buffer, 240, "35 01 05");
    const std::size_t places[] = {0, 4, 5, 6, 7, 240, 241, 242};
    if (Random(4) == 0) buffer[places[Random(8)]] ^= 1;
    const std::size_t received = Random(3) == 0 ? 230 + Random(20) : 240 + Random(313);
    DHCPReply reply = {};
    reply.leaseSeconds = 77;
    const std::uint8_t type = round % 3 == 0 ? 2 : 5;
    const bool isReply = ul_DHCPReadReply(buffer, received, type, &reply);
    EXPECT_EQ(Read(buffer, received, type), isReply                    ? Hex(&reply, sizeof reply)
                                            : reply.leaseSeconds == 77 ? "none"
                                                                       : "?");
  }
}
