#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <unistd.h>

#include <cstdlib>
#include <future>
#include <string>
#include <tuple>

#include "tests/unit/LoopbackPeer.h"
#include "util/DHCPClient.h"
#include "util/DHCPMessage.h"
#include "util/EthernetCfg.h"
#include "util/Shell.h"
#include "util/_Others.h"
#include "util/_Time.h"

namespace {

/// The end "dev0" of a cable, up with 192.168.77.2/24 and its MAC 00:1b:c4:0a:ff:05, the other end "far0" up; a `route`
/// first in PATH that notes its arguments before it runs the real one; and the terminal pipe to read what was printed.
class Interface : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(nullptr, std::getenv("SANDBOX_HALT_MARK")) << "changes interfaces: runs inside scripts/sandbox only";
    setenv("PATH", ("/tmp/first:" + path_).c_str(), 1);
    Run("mkdir -p /tmp/first && cd /tmp/first && echo '#!/bin/sh\n"
        "echo \"$*\" >>/tmp/log; PATH=${PATH#*:} exec route \"$@\" 2>&-' >route && chmod 755 route");
    Run("ip link add dev0 address 00:1b:c4:0a:ff:05 type veth peer name far0 && ip link set far0 up &&"
        "ip address add 192.168.77.2/24 broadcast + dev dev0 && ip link set dev0 up");
    fcntl(ul_InitTerminalPipe(), F_SETFL, O_NONBLOCK);
    ASSERT_TRUE(EthernetCfg_Init("dev0"));
  }
  void TearDown() override {
    EthernetCfg_Final();
    ul_FinalTerminalPipe();
    Run("ip link del dev0");
  }

  static void Run(const std::string& command) { ASSERT_EQ(0, ul_RunCommand(command)) << command; }

  static std::string Output(const std::string& command) {
    std::string output;
    EXPECT_TRUE(ul_ReadCommand(command, output)) << command;
    return output;
  }

  /// The resolver file and then, after "route ", the arguments of each `route` since the last call.
  static std::string Changes() {
    return Output("exec 2>&-; cat /etc/resolf.conf; sed 's/^/route /' /tmp/log; rm /etc/resolf.conf /tmp/log");
  }

  /// What was printed since the last call, without the times.
  static std::string Printed() {
    char text[8192];
    const ssize_t size = read(ul_InitTerminalPipe(), text, sizeof text);
    std::string all(text, size < 0 ? 0 : static_cast<std::size_t>(size));
    for (std::size_t at = 0; (at = all.find('[', at)) != std::string::npos;) all.erase(at, 22);
    return all;
  }

  static inline const std::string path_ = std::getenv("PATH");
};

DHCPBuffer Reply(std::uint8_t type, std::initializer_list<std::uint8_t> options) {
  DHCPBuffer reply = ul_DHCPBuildDiscover({});  // which has transaction and message type where a reply has them
  reply[0] = 2;
  reply[16] = 10;
  reply[242] = type;
  std::copy(options.begin(), options.end(), reply.begin() + 243);
  return reply;
}

}  // namespace

TEST_F(Interface, AppliesMaskAddressAndBroadcastThenRouteAndResolver) {
  const std::string maskError = "Error: Could not configure subnet mask: ";
  const std::string unknown = "unknown interface: No such device\n", start = "192.168.77.2/24 brd 192.168.77.255\n";
  const std::tuple<const char*, const char*, const char*, const char*, std::string, std::string> cases[] = {
      {"dev0", "10.1.2.3", "255.255.0.0", nullptr, "10.1.2.3/16 brd 10.1.255.255\n", ""},
      {"dev0", "10.1.2.3", "255.255.0.0", "10.1.0.255", "10.1.2.3/16 brd 10.1.0.255\n", ""},
      {"dev0", "10.1.2.3", nullptr, "", "10.1.2.3/8 brd 255.255.255.255\n", ""},
      {"dev0", "", "255.255.0.0", nullptr, "192.168.77.2/16 brd 0.0.255.255\n", ""},
      {"dev0", "172.16.2.3", "0.0.0.0", "", "172.16.2.3/16 brd 255.255.255.255\n", ""},  // the mask of the class
      {"dev0", "192.168.77.2", "0.0.0.0", "0.0.0.0", "192.168.77.2/24\n", ""},  // which the kernel does not set here
      {"dev0", "", "0.0.0.0", "0.0.0.0", "192.168.77.2/24\n", ""},
      {"dev0", "10.1.2.3", "255.255.0.0", "x", "10.1.2.3/16 brd 10.1.255.255\n",
       "Error: set broadcast address: Invalid argument\n"},
      {"dev0", "10.1.2.3", "x", nullptr, start, maskError + "Invalid argument\n"},
      {"", "10.1.2.3", "255.255.0.0", nullptr, start,
       "Error: Network Socket not initialized!Error: : " + unknown + "Error: : " + unknown}};
  for (const auto& [interface, ip, mask, broadcast, address, printed] : cases) {
    Run("ip address flush dev dev0 && ip address add 192.168.77.2/24 broadcast + dev dev0 && ip link set dev0 down");
    EthernetCfg_Final();
    ASSERT_TRUE(EthernetCfg_Init(interface));
    const bool done = address != start;
    EXPECT_EQ(done, EthernetCfg_SetActSettings(ip, mask, broadcast, "192.168.77.1", "10.1.0.2"));
    EXPECT_EQ(address, Output("ip -4 -o address show dev dev0 | cut -d' ' -f7-9 | sed 's/ scope.*//'"));
    EXPECT_EQ(printed + (done ? "route add default gw 192.168.77.1\n" : ""), Printed());
    EXPECT_EQ(done ? "nameserver 10.1.0.2\nroute del default\nroute add default gw 192.168.77.1\n" : "", Changes());
    if (interface == std::string("dev0")) Run("ip link show dev0 | grep -q ,UP");  // after a failure as well
  }
}

TEST_F(Interface, WhatCannotBeReadIsToldInOrderAndLeftAlone) {
  char texts[5][128] = {"?", "?", "?", "?", "?"};
  bool valid = false;
  ASSERT_TRUE(EthernetCfg_Final() == 0 && EthernetCfg_Init(""));
  EXPECT_FALSE(EthernetCfg_GetActSettings(texts[0], texts[1], texts[2], texts[3], nullptr, texts[4], &valid));
  EXPECT_EQ(
      "Error: Network Socket not initialized!Error: get broadcast address: No such device\n"
      "Error: get mac address: No such device\nError: get ip address: No such device\n"
      "Error: get subnet mask: No such device\n",
      Printed());
  for (const auto& text : texts) EXPECT_STREQ(&text == &texts[3] ? "0.0.0.0" : "?", text);  // from the local table
  EXPECT_TRUE(valid);
  Run("for i in $(seq 200); do ip route add 10.1.$i.0/24 via 192.168.77.1; done");
  EXPECT_EQ(-1, get_gatewayip(nullptr)) << "the table is too large";
}

TEST_F(Interface, RouteCommandAndResolverFileMayFail) {
  const std::string tooLong(1010, '1');
  alarm(20);  // a pipe that is waited for is waited for without end
  for (const char* bad : {"mkfifo /tmp/pipe && ln -s /tmp/pipe /etc/resolf.conf", "mkdir /etc/resolf.conf"}) {
    Run("rm -f /etc/resolf.conf && " + std::string(bad));
    EXPECT_FALSE(ConfigureNameserver("10.1.0.2", nullptr, nullptr)) << bad;
  }
  alarm(0);
  EXPECT_TRUE(EthernetCfg_SetActSettings(nullptr, nullptr, nullptr, tooLong.c_str(), "10.1.0.2"));
  EXPECT_EQ("route add default gw " + tooLong.substr(0, 980), Printed());  // a line holds 1023
  EXPECT_EQ(tooLong, DefGateway);
  Run("rmdir /etc/resolf.conf && touch /etc/resolf.conf && chmod 600 /etc/resolf.conf");
  EXPECT_FALSE(ConfigureNameserver(nullptr, nullptr, nullptr));
  EXPECT_TRUE(ConfigureNameserver("10.1.0.2", nullptr, "10.1.0.4"));
  EXPECT_EQ("600\n", Output("stat -c %a /etc/resolf.conf"));
  EXPECT_EQ("nameserver 10.1.0.2\nnameserver 10.1.0.4\nroute del default\n", Changes());
}

TEST_F(Interface, AnyTextMayLieInTheGatewayThatWasAppliedLast) {
  const char* const remembered = DefGateway;
  for (const char* gateway : {"10.168.77.1", remembered, remembered + 1}) {
    const std::string text = gateway, before = DefGateway;
    EXPECT_TRUE(EthernetCfg_SetActSettings(nullptr, nullptr, nullptr, gateway, DefGateway));
    EXPECT_EQ(text, DefGateway);
    EXPECT_EQ("nameserver " + before + "\nroute del default\nroute add default gw " + text + "\n", Changes());
  }
}

TEST_F(Interface, OnlyOurOwnSocketIsClosedAndLongNamesAreCut) {
  EXPECT_EQ(0, EthernetCfg_Final());
  const int stranger = dup(1);  // takes the number of our socket
  EXPECT_EQ(-1, EthernetCfg_Final());
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(0, close(stranger));
  const std::string name = "fifteen_letters" + std::string(300, 'x');
  Run("ip link set far0 name fifteen_letters");
  EXPECT_TRUE(EthernetCfg_Init(name.c_str()) && set_flag(name.c_str(), IFF_NOARP));
  Run("ip link show fifteen_letters | grep -q NOARP");
}

TEST_F(Interface, MacAddressIsFoundInTheOutputOfIfconfig) {
  Run("cd /tmp/first && echo '[ \"$1\" = \"x y\" ] && echo \"x  HWaddr 00:1B:C4:0A:FF:05 \"' >ifconfig && chmod +x *");
  char mac[128] = "?";
  bool hasAddress = true;
  EXPECT_FALSE(ul_GetMACAddressString("dev0", mac, &hasAddress));
  EXPECT_TRUE(ul_GetMACAddressString("x y", mac, &hasAddress) && !hasAddress);
  EXPECT_STREQ("00:1B:C4:0A:FF:05", mac);
}

// One test, as the process remembers a MAC address and that it added the route for broadcasts.
TEST_F(Interface, DHCPTellsEachStepAndEndsAtTheFirstFailureWhichCostsItsSleeps) {
  const DHCPBuffer offer = Reply(DHCP_OFFER, {255}), nak = Reply(6, {1, 4, 255, 255, 0, 0, 255});
  const DHCPBuffer ack =
      Reply(DHCP_ACK, {51, 4, 0, 1, 81, 128, 1, 4, 255, 0, 0, 0, 3, 4, 10, 0, 0, 1, 6, 4, 10, 0, 0, 2, 255});
  const std::string client = "DHCP Client - ", called = client + "DHCP request called for interface ";
  const std::string route = "route add 255.255.255.255 netmask 0.0.0.0 dev dev0\n";
  const std::string noMac = called + "absent\nError: get mac address: No such device\n" + client +
                            "ERROR: Could not read network settings of absent\n";
  const std::string hasMac = called + "dev0\n" + client + "HW address of dev0 is 00:1b:c4:0a:ff:05\n";
  const std::string acked = hasMac + client + "DHCP acknowledge received: address=10.0.0.0 mask=";
  const std::string silence = "Error - Configure Network with DHCP - no response ";
  const std::string set = client + "Configure dev0 with new network settings\nroute add default gw ";
  const std::string applied = acked + "255.0.0.0 dns=10.0.0.2 gw=10.0.0.1 lease=86400s\n" + set +
                              "10.0.0.1\nnameserver 10.0.0.2\nroute del default\nroute add default gw 10.0.0.1\n";
  const std::tuple<const char*, int, std::vector<DHCPBuffer>, std::size_t, unsigned, double, std::string> cases[] = {
      {"absent", 0, {}, 0, 77, 0, noMac},
      {"absent", 1, {}, 0, 77, 1, noMac},
      {"dev0", 1, {}, 1, 77, 2, hasMac + client + route + client + route + silence + "on dhcp discover\n" + route},
      {"dev0", 1, {ack}, 1, 77, 1, hasMac},
      {"dev0", 1, {offer}, 2, 77, 2, hasMac + silence + "from dhcp request\n"},
      {"dev0", 2, {offer, nak}, 2, 77, 2, acked + "0.0.0.0 dns=0.0.0.0 gw=0.0.0.0 lease=0s\n"},
      {"dev0", 0, {}, 0, 0, 0, hasMac + set + "\nnameserver \nroute del default\nroute add default gw\n"},
      {"dev0", 1, {offer, ack}, 2, 86400, 0, applied}};
  const int input = dup(0), server = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);  // hears its own host's broadcasts
  const sockaddr_in own = {AF_INET, htons(67), {INADDR_ANY}, {}};
  const sockaddr_in peer = {AF_INET, htons(68), {inet_addr("127.0.0.1")}, {}};
  ASSERT_EQ(0, bind(server, reinterpret_cast<const sockaddr*>(&own), sizeof own));
  for (const auto& [interface, attempts, answers, messages, lease, duration, expected] : cases) {
    ASSERT_TRUE(EthernetCfg_AddMulticastRoute("dev0"));  // takes the broadcasts as well
    const int before = CountDescriptors();
    unsigned leased = 77;  // stays so where nothing is applied
    const AbsTime_US start = ul_GetAbsTime_US(false);
    auto call = std::async(std::launch::async, ul_ConfigureNetworkWithDHCP, interface, attempts, &leased);
    std::size_t heard = 0;
    for (char text[999]; call.wait_for(std::chrono::milliseconds(5)) != std::future_status::ready;) {
      if (recv(server, text, sizeof text, MSG_DONTWAIT) < 0 || heard++ >= answers.size()) continue;
      sendto(server, answers[heard - 1].data(), 300, 0, reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
    }
    const double seconds = ul_MathAbsTime_NowSubParamFloat(&start);
    EXPECT_TRUE(seconds > duration - 0.1 && seconds < duration + 3) << seconds;
    EXPECT_EQ(lease != 77, call.get());
    EXPECT_EQ(messages, heard);
    EXPECT_EQ(lease, leased);
    EXPECT_EQ(expected, Printed() + Changes());
    EXPECT_EQ(attempts > 0 && expected == noMac ? -1 : 0, fcntl(0, F_GETFD));  // its descriptor before any socket
    dup2(input, 0);
    EXPECT_EQ(before, CountDescriptors());
  }
  close(input);
  close(server);
}
