#include "util/DHCPClient.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/unit/DHCPTestReply.h"
#include "tests/unit/LoopbackPeer.h"
#include "tests/unit/TestInterface.h"
#include "util/EthernetCfg.h"
#include "util/_Time.h"

namespace {

using Messages = std::vector<std::vector<std::uint8_t>>;

/// A socket at port 67 of the host at the other end of the cable.
int ServerSocket() {
  const int here = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
  const int far = open("/run/netns/far", O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(0, setns(far, CLONE_NEWNET));
  const int server = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(0, setns(here, CLONE_NEWNET));
  close(here);
  close(far);
  const int on = 1;
  const timeval pause = {0, 10000};
  const sockaddr_in own = {AF_INET, htons(67), {INADDR_ANY}, {}};
  setsockopt(server, SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
  setsockopt(server, SOL_SOCKET, SO_RCVTIMEO, &pause, sizeof(pause));
  setsockopt(server, SOL_SOCKET, SO_BINDTODEVICE, "far0", 5);
  EXPECT_EQ(0, bind(server, reinterpret_cast<const sockaddr*>(&own), sizeof(own)));
  return server;
}

/// Notes what it hears and gives the n-th message the n-th answer, or none where that is empty.
class ScriptedServer {
 public:
  explicit ScriptedServer(Messages answers) : answers_(std::move(answers)), thread_([this] { Serve(); }) {}
  /// Ends it; what it heard. A message that is on its way still counts.
  Messages Heard() {
    ul_Sleep_US(0, 50000);
    stop_ = true;
    thread_.join();
    close(socket_);
    return heard_;
  }

 private:
  void Serve() {
    const sockaddr_in client = {AF_INET, htons(68), {INADDR_BROADCAST}, {}};
    std::vector<std::uint8_t> message(2000);
    while (!stop_) {
      const ssize_t size = recv(socket_, message.data(), message.size(), 0);
      if (size < 0) continue;
      heard_.emplace_back(message.begin(), message.begin() + size);
      if (heard_.size() > answers_.size() || answers_[heard_.size() - 1].empty()) continue;
      const std::vector<std::uint8_t>& answer = answers_[heard_.size() - 1];
      sendto(socket_, answer.data(), answer.size(), 0, reinterpret_cast<const sockaddr*>(&client), sizeof(client));
    }
  }

  const Messages answers_;
  Messages heard_;
  const int socket_ = ServerSocket();
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

class DHCPClient : public TestInterface {
 protected:
  void SetUp() override {
    TestInterface::SetUp();
    Run("ip netns add far && ip link set far0 netns far && ip -n far link set far0 up");
    ASSERT_TRUE(EthernetCfg_AddMulticastRoute("dev0"));  // takes the broadcasts as well
  }
  void TearDown() override {
    unlink("/etc/resolf.conf");
    TestInterface::TearDown();
    Run("ip netns del far");
  }
};

std::vector<std::uint8_t> Cut(const DHCPBuffer& buffer, std::size_t size) {
  return {buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(size)};
}

const auto OFFER = Cut(reply(DHCP_OFFER, "36 04 c0 a8 4d 01  ff", 0xee), 300);
const auto ACK = Cut(reply(DHCP_ACK,
                           "33 04 00 01 51 80  01 04 ff ff 00 00  03 08 0a 01 00 01 0a 01 00 09"
                           "  06 04 0a 01 00 02  1c 04 0a 01 ff ff  ff"),
                     300);
constexpr std::uint8_t NAK = 6;

const std::string CALLED =
    "DHCP Client - DHCP request called for interface dev0\nDHCP Client - HW address of dev0 is 00:1b:c4:0a:ff:05\n";
const std::string ACKNOWLEDGED = "DHCP Client - DHCP acknowledge received: address=10.1.2.3 ";
const std::string APPLIES = "DHCP Client - Configure dev0 with new network settings\n";
const std::string ERROR = "Error - Configure Network with DHCP - ";

}  // namespace

// First, as an address once read is remembered.
TEST_F(DHCPClient, WithoutAMacAddressAnAttemptFailsAndClosesDescriptorZero) {
  const int input = dup(0);
  unsigned lease = 77;
  for (const int attempts : {0, 1}) {
    EXPECT_FALSE(ul_ConfigureNetworkWithDHCP("absent", attempts, &lease));
    EXPECT_EQ(
        "DHCP Client - DHCP request called for interface absent\nError: get mac address: No such device\n"
        "DHCP Client - ERROR: Could not read network settings of absent\n",
        Printed());
    EXPECT_EQ(attempts == 0 ? 0 : -1, fcntl(0, F_GETFD));
  }
  EXPECT_EQ(77u, lease);
  EXPECT_EQ("", Routes());
  dup2(input, 0);
  close(input);
}

// The first call that gets as far adds the route, no later one does.
TEST_F(DHCPClient, LeasesAndAppliesWhatTheAcknowledgeSays) {
  ScriptedServer server({OFFER, ACK});
  unsigned lease = 77;
  EXPECT_TRUE(ul_ConfigureNetworkWithDHCP("dev0", 1, &lease));
  EXPECT_EQ(86400u, lease);
  const DHCPMac mac = {0x00, 0x1b, 0xc4, 0x0a, 0xff, 0x05};
  DHCPBuffer offer = {};
  std::copy(OFFER.begin(), OFFER.end(), offer.begin());
  const auto request = ul_DHCPBuildRequest(offer, mac, {inet_addr("192.168.77.1")}, {inet_addr("10.1.2.3")});
  EXPECT_EQ((Messages{Cut(ul_DHCPBuildDiscover(mac), 281), Cut(request, 269)}), server.Heard());

  EXPECT_EQ("inet 10.1.2.3/16 brd 10.1.255.255\n", Address());
  EXPECT_EQ("nameserver 10.1.0.2\n", ReadFile("/etc/resolf.conf"));
  const std::string route = "add 255.255.255.255 netmask 0.0.0.0 dev dev0\n";
  EXPECT_EQ(route + "del default\nadd default gw 10.1.0.1\n", Routes());
  EXPECT_EQ(CALLED + "DHCP Client - route " + route + "DHCP Client - route " + route + ACKNOWLEDGED +
                "mask=255.255.0.0 dns=10.1.0.2 gw=10.1.0.1 lease=86400s\n" + APPLIES +
                "route add default gw 10.1.0.1\n",
            Printed());
}

TEST_F(DHCPClient, EmptyTextsAndMissingOptionsAreAppliedAsTheyAre) {
  const struct {
    int attempts;
    std::string printed, address, route, resolver;
  } cases[] = {{1, CALLED + ACKNOWLEDGED + "mask=255.255.255.0 dns=0.0.0.0 gw=0.0.0.0 lease=0s\n" + APPLIES,
                "inet 10.1.2.3/24\n", "add default gw 0.0.0.0\n", "nameserver 0.0.0.0\n"},
               {0, CALLED + APPLIES, "inet 10.1.2.3/24 brd 255.255.255.255\n", "add default gw\n", "nameserver \n"}};
  for (const auto& c : cases) {
    ScriptedServer server({OFFER, Cut(reply(DHCP_ACK, "01 04 ff ff ff 00  ff"), 300)});
    unsigned lease = 77;
    EXPECT_TRUE(ul_ConfigureNetworkWithDHCP("dev0", c.attempts, &lease));
    EXPECT_EQ(0u, lease);
    EXPECT_EQ(c.attempts == 0, server.Heard().empty());
    EXPECT_EQ(c.address, Address());
    EXPECT_EQ(c.resolver, ReadFile("/etc/resolf.conf"));
    EXPECT_EQ("del default\n" + c.route, Routes());
    EXPECT_EQ(0u, Printed().find(c.printed));
  }
}

TEST_F(DHCPClient, EveryFailureEndsTheExchangeAndCostsItsSleeps) {
  const auto refusal = Cut(reply(NAK, "01 04 ff ff 00 00  ff"), 300);
  const struct {
    const char* what;
    Messages answers;
    std::size_t heard;
    int attempts;
    double seconds;
    std::string printed;
  } cases[] = {{"silence", {}, 1, 1, 2, ERROR + "no response on dhcp discover\n"},
               {"no offer", {Cut(reply(DHCP_OFFER, ""), 239)}, 1, 1, 1, ""},
               {"silence to the request", {OFFER, {}}, 2, 1, 2, ERROR + "no response from dhcp request\n"},
               {"refused", {OFFER, refusal}, 2, 2, 2, ACKNOWLEDGED + "mask=0.0.0.0 dns=0.0.0.0 gw=0.0.0.0 lease=0s\n"},
               {"no way", {}, 0, 1, 1, ERROR + "could not send dhcp discover (Network is unreachable)\n"}};
  for (const auto& c : cases) {
    if (c.heard == 0) Run("ip route del 224.0.0.0/3");
    const int before = CountDescriptors();
    ScriptedServer server(c.answers);
    unsigned lease = 77;
    const AbsTime_US start = ul_GetAbsTime_US(false);
    EXPECT_FALSE(ul_ConfigureNetworkWithDHCP("dev0", c.attempts, &lease)) << c.what;
    const double seconds = ul_MathAbsTime_NowSubParamFloat(&start);
    EXPECT_TRUE(seconds > c.seconds - 0.1 && seconds < c.seconds + 3) << c.what << " took " << seconds;
    EXPECT_EQ(c.heard, server.Heard().size()) << c.what;
    EXPECT_EQ(CALLED + c.printed, Printed()) << c.what;
    EXPECT_EQ(77u, lease) << c.what;
    EXPECT_EQ("", Routes()) << c.what;
    EXPECT_EQ(before, CountDescriptors()) << c.what;
  }
}

TEST_F(DHCPClient, MacAddressOfAnEarlierCallServesButSettingsThatCannotBeAppliedFail) {
  ScriptedServer server({OFFER, ACK});
  unsigned lease = 77;
  EXPECT_FALSE(ul_ConfigureNetworkWithDHCP("absent", 1, &lease));
  EXPECT_EQ(2u, server.Heard().size());
  const std::string end = "DHCP Client - Failed to configure network settings of absent\n\n";
  const std::string printed = Printed();
  EXPECT_EQ(printed.size() - end.size(), printed.find(end)) << printed;
  EXPECT_EQ(77u, lease);
}
