#include "util/DHCPMessage.h"

#include <sstream>

#include "tests/unit/Test.h"

namespace {

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

}  // namespace

TEST(DHCPMessage, EveryByteOfWhatIsSentIsAsLaidOut) {
  for (int round = 0; round < 20; ++round) {
    DHCPBuffer offer;
    for (std::uint8_t& byte : offer) byte = static_cast<std::uint8_t>(Random(256));
    const DHCPMac mac = {0x00, 0x1b, 0xc4, offer[0], offer[1], offer[2]};
    const in_addr server = {static_cast<in_addr_t>(Random(1U << 31))},
                  address = {static_cast<in_addr_t>(Random(1U << 31))};
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
