#include "util/DHCPMessage.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <sstream>

namespace {

std::size_t Random(std::size_t below) {
  static std::mt19937 generator(20261125);
  return generator() % below;
}

/// The bytes that are written as hexadecimal numbers between blanks.
std::string Bytes(const std::string& hex) {
  std::istringstream words(hex);
  std::string bytes;
  for (std::string word; words >> word;) bytes += static_cast<char>(std::stoi(word, nullptr, 16));
  return bytes;
}

std::string Bytes(const void* data, std::size_t size) { return std::string(static_cast<const char*>(data), size); }

void Put(std::string& message, std::size_t at, const std::string& bytes) { message.replace(at, bytes.size(), bytes); }

/// `message` with what both requests have, `options` in it.
std::string Request(std::string message, const std::string& mac, const std::string& options) {
  const std::string list = Bytes("37 0b 01 0f 03 06 2c 2e 2f 1f 21 79 2b  ff");
  Put(message, 0, Bytes("01 01 06 00  7c d9 01 00  00 00 80 00") + std::string(16, '\0') + mac);
  Put(message, 44, Bytes("00"));
  Put(message, 108, Bytes("00"));
  Put(message, 236, Bytes("63 82 53 63") + options + list);
  Put(message, 548, static_cast<char>(4 + options.size() + list.size()) + std::string(3, '\0'));
  return message;
}

// The model of a reply: options are code, length, value up to 255 or four bytes past what came; a value is four bytes.
std::string Read(const std::string& message, std::size_t received, char type) {
  const std::string head = message.substr(0, 1) + message.substr(4, 4) + message.substr(240, 3);
  if (received < 240 || head != Bytes("02  7c d9 01 00  35 01") + type) return "none";
  const std::string padded = message + std::string(1000, '\0');
  std::map<char, std::string> values;
  for (std::size_t at = 240; at < received + 4; at += 2 + static_cast<unsigned char>(padded[at + 1])) {
    if (padded[at] == '\xff') break;
    values[padded[at]] = padded.substr(at + 2, 4);
  }
  std::string text = message.substr(16, 4);
  for (const char code : std::string("\1\3\6\x1c\x36\x33")) {
    values[code].resize(4);
    text += values[code];
  }
  return text;
}

}  // namespace

TEST(DHCPMessage, EveryByteOfWhatIsSentIsAsLaidOut) {
  for (int round = 0; round < 20; ++round) {
    DHCPBuffer offer;
    for (std::uint8_t& byte : offer) byte = static_cast<std::uint8_t>(Random(256));
    const DHCPMac mac = {0x00, 0x1b, 0xc4, offer[0], offer[1], offer[2]};
    const in_addr server = {static_cast<in_addr_t>(Random(1 << 31))},
                  address = {static_cast<in_addr_t>(Random(1 << 31))};
    const std::string macBytes = Bytes(mac.data(), 6), offered = Bytes(offer.data(), offer.size());
    const DHCPBuffer discover = ul_DHCPBuildDiscover(mac), request = ul_DHCPBuildRequest(offer, mac, server, address);
    EXPECT_EQ(Request(std::string(offer.size(), '\0'), macBytes,
                      Bytes("35 01 01  3d 07 01") + macBytes + Bytes("0c 0d") + "tarn-xt175-ts"),
              Bytes(discover.data(), discover.size()));
    EXPECT_EQ(
        Request(offered, macBytes, Bytes("35 01 03  36 04") + Bytes(&server, 4) + Bytes("32 04") + Bytes(&address, 4)),
        Bytes(request.data(), request.size()));
  }
  EXPECT_EQ(281U, DHCP_DISCOVER_SIZE);
  EXPECT_EQ(269U, DHCP_REQUEST_SIZE);
}

TEST(DHCPMessage, ReplyIsReadAsThePlainModelReadsIt) {
  const std::string codes("\1\3\6\x1c\x33\x36\0\7", 8);
  for (int round = 0; round < 20000 && !testing::Test::HasFailure(); ++round) {
    std::string message(552, '\0');
    for (char& byte : message) byte = static_cast<char>(Random(256));
    for (std::size_t at = 243, length = 0; at < 550; at += 2 + length) {
      length = Random(4) != 0 ? 4 : Random(Random(9) == 0 ? 256 : 20);
      message[at] = Random(40) == 0 ? '\xff' : codes[Random(8)];
      message[at + 1] = static_cast<char>(length);
    }
    Put(message, 0, Bytes("02 01 06 00  7c d9 01 00"));
    Put(message, 240, Bytes("35 01 05"));
    const std::size_t places[] = {0, 4, 5, 6, 7, 240, 241, 242};
    if (Random(4) == 0) message[places[Random(8)]] ^= 1;
    const std::size_t received = Random(3) == 0 ? 230 + Random(20) : 240 + Random(313);
    DHCPBuffer buffer = {};
    std::copy(message.begin(), message.end(), buffer.begin());
    DHCPReply reply = {};
    reply.leaseSeconds = 77;
    const char type = round % 3 == 0 ? 2 : 5;
    const bool isReply = ul_DHCPReadReply(buffer, received, static_cast<std::uint8_t>(type), &reply);
    const in_addr_t values[] = {reply.address.s_addr,     reply.mask.s_addr,      reply.router.s_addr,
                                reply.nameServer.s_addr,  reply.broadcast.s_addr, reply.server.s_addr,
                                htonl(reply.leaseSeconds)};
    EXPECT_EQ(Read(message, received, type), isReply                    ? Bytes(values, sizeof values)
                                             : reply.leaseSeconds == 77 ? "none"
                                                                        : "?");
  }
}
