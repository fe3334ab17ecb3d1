#include "util/DHCPMessage.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tests/unit/DHCPTestReply.h"

namespace {

constexpr DHCPMac MAC = {0x00, 0x1b, 0xc4, 0x0a, 0xff, 0x05};
const std::string FIELDS =
    "01 01 06 00  7c d9 01 00  00 00  80 00  00 00 00 00  00 00 00 00  00 00 00 00  00 00 00 00  00 1b c4 0a ff 05";
const std::string PARAMETERS = "37 0b 01 0f 03 06 2c 2e 2f 1f 21 79 2b  ff";

std::string text(in_addr address) { return inet_ntoa(address); }

}  // namespace

TEST(DHCPMessage, DiscoverIsZeroButForItsFieldsAndOptions) {
  DHCPBuffer expected = {};
  put(expected, 0, FIELDS);
  put(expected, 236, "63 82 53 63   35 01 01   3d 07 01 00 1b c4 0a ff 05   0c 0d");
  const std::string host = "tarn-xt175-ts";
  std::copy(host.begin(), host.end(), expected.begin() + 254);
  put(expected, 267, PARAMETERS);
  put(expected, 548, "2d 00 00 00");  // not sent: the length of the options
  EXPECT_EQ(expected, ul_DHCPBuildDiscover(MAC));
}

TEST(DHCPMessage, RequestKeepsTheRestOfTheOffer) {
  const DHCPBuffer offer = reply(DHCP_OFFER, "", 0xee);
  DHCPBuffer expected = offer;
  put(expected, 0, FIELDS);  // ten bytes behind the MAC stay
  put(expected, 44, "00");   // the sname field but its first byte stays
  put(expected, 108, "00");  // so does the file field
  put(expected, 236, "63 82 53 63   35 01 03   36 04 c0 a8 01 01   32 04 0a 01 02 03");
  put(expected, 255, PARAMETERS);
  put(expected, 548, "21 00 00 00");
  EXPECT_EQ(expected, ul_DHCPBuildRequest(offer, MAC, {inet_addr("192.168.1.1")}, {inet_addr("10.1.2.3")}));
}

TEST(DHCPMessage, OnlyAnAnswerOfTheRightTypeIsOne) {
  const struct {
    const char* what;
    std::size_t at;
    const char* hex;
    std::size_t received;
    bool isReply;
  } cases[] = {{"another cookie", 236, "00", 240, true},  {"another MAC", 28, "ff ff", 300, true},
               {"too short", 0, "", 239, false},          {"a request", 0, "01", 300, false},
               {"another exchange", 7, "01", 300, false}, {"an ACK", 242, "05", 300, false},
               {"two bytes long", 241, "02", 300, false}, {"second", 240, "00 35 01 02", 300, false}};
  for (const auto& c : cases) {
    DHCPBuffer buffer = reply(DHCP_OFFER, "");
    put(buffer, c.at, c.hex);
    DHCPReply read = {};
    read.leaseSeconds = 77;
    EXPECT_EQ(c.isReply, ul_DHCPReadReply(buffer, c.received, DHCP_OFFER, &read)) << c.what;
    EXPECT_EQ(c.isReply ? 0u : 77u, read.leaseSeconds) << c.what;
  }
}

TEST(DHCPMessage, OptionsAreWalkedAsCodeLengthValueWhateverTheySay) {
  const struct {
    const char* what;
    const char* options;
    std::size_t received;
    const char* router;
    std::uint32_t lease;
  } cases[] = {
      {"first of two addresses", "03 08 0a 00 00 01 0a 00 00 02  33 04 80 00 00 01 ff", 300, "10.0.0.1", 0x80000001},
      {"the last of two equal ones", "03 04 0a 00 00 01  03 04 0a 00 00 02  ff", 300, "10.0.0.2", 0},
      {"behind the end", "ff  03 04 0a 00 00 01", 300, "0.0.0.0", 0},
      {"a pad byte has a length", "00 03 04 0a 00  03 04 0a 00 00 01  ff", 300, "10.0.0.1", 0},
      {"four bytes whatever the length", "03 01 0a  33 04 00 00  ff", 300, "10.51.4.0", 0x0000ff00},
      {"a length that leads out", "07 fe  03 04 0a 00 00 01  ff", 300, "0.0.0.0", 0},
      {"ends four bytes past the reply", "03 04 0a 00 00 01  33 04 00 00 00 07", 246, "10.0.0.1", 7},
      {"and no further", "03 04 0a 00 00 01  33 04 00 00 00 07", 245, "10.0.0.1", 0}};
  for (const auto& c : cases) {
    DHCPReply read = {};
    ASSERT_TRUE(ul_DHCPReadReply(reply(DHCP_ACK, c.options), c.received, DHCP_ACK, &read)) << c.what;
    EXPECT_EQ(c.router, text(read.router)) << c.what;
    EXPECT_EQ(c.lease, read.leaseSeconds) << c.what;
  }
}

TEST(DHCPMessage, TheNotedLengthIsWalkedLikeTheRestAndZeroFollowsTheBuffer) {
  DHCPBuffer buffer = ul_DHCPBuildDiscover(MAC);        // leaves 2d 00 00 00 in the last four bytes
  const DHCPBuffer offer = reply(DHCP_OFFER, "07 ff");  // on to 500
  std::copy(offer.begin(), offer.begin() + 548, buffer.begin());
  put(buffer, 500, "07 2c");  // on to 546
  put(buffer, 546, "36 04");  // the server's address lies in the noted length
  DHCPReply read = {};
  ASSERT_TRUE(ul_DHCPReadReply(buffer, 548, DHCP_OFFER, &read));
  EXPECT_EQ("45.0.0.0", text(read.server));
  put(buffer, 546, "07 02 00 00  36 04");  // on to 550, the value behind the buffer
  ASSERT_TRUE(ul_DHCPReadReply(buffer, 552, DHCP_OFFER, &read));
  EXPECT_EQ("0.0.0.0", text(read.server));
}
