#include "util/EthernetCfg.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "tests/unit/TestInterface.h"

namespace {

constexpr const char* RESOLVER = "/etc/resolf.conf";

class EthernetCfg : public TestInterface {
 protected:
  void SetUp() override {
    TestInterface::SetUp();
    ASSERT_TRUE(EthernetCfg_Init("dev0"));
  }
  void TearDown() override {
    EthernetCfg_Final();
    TestInterface::TearDown();
  }
  static void Use(const char* interface) {
    EthernetCfg_Final();
    ASSERT_TRUE(EthernetCfg_Init(interface));
  }
  static unsigned ResolverMode() {
    struct stat state = {};
    return stat(RESOLVER, &state) == 0 ? state.st_mode & 07777 : 0;
  }
};

struct Settings {
  char ip[128] = "?", mask[128] = "?", broadcast[128] = "?", gateway[128] = "?", nameserver[128] = "?", mac[128] = "?";
  bool valid = false;
  bool Read() { return EthernetCfg_GetActSettings(ip, mask, broadcast, gateway, nameserver, mac, &valid); }
  std::string All() const {
    return std::string(ip) + ' ' + mask + ' ' + broadcast + ' ' + gateway + ' ' + nameserver + ' ' + mac;
  }
};

}  // namespace

TEST_F(EthernetCfg, ReadsWhatTheKernelHas) {
  Run("ip route add default via 192.168.77.1");
  Settings settings;
  EXPECT_TRUE(settings.Read());
  EXPECT_EQ("192.168.77.2 255.255.255.0 192.168.77.255 192.168.77.1 ? 00:1b:c4:0a:ff:05", settings.All());
  EXPECT_TRUE(settings.valid);
  EXPECT_TRUE(EthernetCfg_GetActSettings(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
}

TEST_F(EthernetCfg, WhatCannotBeReadIsToldInOrderAndLeftAlone) {
  Use("");
  Settings settings;
  EXPECT_FALSE(settings.Read());
  EXPECT_EQ(
      "Error: Network Socket not initialized!Error: get broadcast address: No such device\n"
      "Error: get mac address: No such device\nError: get ip address: No such device\n"
      "Error: get subnet mask: No such device\n",
      Printed());
  EXPECT_EQ("? ? ? 0.0.0.0 ? ?", settings.All());  // a route of the local table counts as a default route
  EXPECT_TRUE(settings.valid);
}

TEST_F(EthernetCfg, AppliesMaskAddressAndBroadcast) {
  const std::string maskError = "Error: Could not configure subnet mask: Invalid argument\n";
  const struct {
    const char *ip, *mask, *broadcast;
    bool result;
    std::string address;
    std::string printed;
  } cases[] = {{"10.1.2.3", "255.255.0.0", nullptr, true, "inet 10.1.2.3/16 brd 10.1.255.255\n", ""},
               {"10.1.2.3", "255.255.0.0", "10.1.0.255", true, "inet 10.1.2.3/16 brd 10.1.0.255\n", ""},
               {"10.1.2.3", "255.255.0.0", "0.0.0.0", true, "inet 10.1.2.3/16\n", ""},
               {"10.1.2.3", nullptr, "", true, "inet 10.1.2.3/8 brd 255.255.255.255\n", ""},
               {"", "255.255.0.0", nullptr, true, "inet 192.168.77.2/16 brd 0.0.255.255\n", ""},
               {"0.0.0.0", "255.255.0.0", "0.0.0.0", true, "",
                "Error: set broadcast address: Cannot assign requested address\n"},
               {"10.1.2.3", "255.255.0.0", "x", true, "inet 10.1.2.3/16 brd 10.1.255.255\n",
                "Error: set broadcast address: Invalid argument\n"},
               {"10.1.2.3", "x", nullptr, false, "inet 192.168.77.2/24 brd 192.168.77.255\n", maskError},
               {"10.1.2.3", "255.0.255.0", nullptr, false, "inet 192.168.77.2/24 brd 192.168.77.255\n", maskError},
               {"x", "255.255.0.0", nullptr, false, "inet 192.168.77.2/16 brd 192.168.255.255\n",
                "Error: set ip address: Invalid argument\n"}};
  for (const auto& c : cases) {
    Run("ip address flush dev dev0 && ip address add 192.168.77.2/24 broadcast + dev dev0 && ip link set dev0 down");
    EXPECT_EQ(c.result, EthernetCfg_SetActSettings(c.ip, c.mask, c.broadcast, nullptr, nullptr)) << c.address;
    EXPECT_EQ(c.address, Address());
    EXPECT_EQ(c.printed, Printed());
    Run("ip link show dev0 | grep -q ,UP");  // after a failure as well
    EXPECT_EQ("", Routes());
    EXPECT_NE(0, access(RESOLVER, F_OK));
  }
}

TEST_F(EthernetCfg, FailsWithoutAnAddressOrAnInterface) {
  const std::string unknown = "unknown interface: No such device\n";
  const struct {
    const char* interface;
    std::string printed;
  } cases[] = {{"far0", "Error: Could not configure subnet mask: Cannot assign requested address\n"},
               {"absent", "Error: Could not configure subnet mask: No such device\nError: absent: " + unknown +
                              "Error: absent: " + unknown},
               {"", "Error: Network Socket not initialized!Error: : " + unknown + "Error: : " + unknown}};
  for (const auto& c : cases) {
    Use(c.interface);
    EXPECT_FALSE(EthernetCfg_SetActSettings("10.1.2.3", "255.255.0.0", nullptr, "10.1.0.1", "10.1.0.2"));
    EXPECT_EQ(c.printed, Printed());
    EXPECT_EQ("", Routes());
    EXPECT_NE(0, access(RESOLVER, F_OK));
  }
}

TEST_F(EthernetCfg, ReplacesTheDefaultRouteByCommand) {
  const std::string tooLong(1010, '1');
  const struct {
    std::string gateway;
    std::string word;    // as it stands in the command
    std::string routes;  // what arrives at `route` for it
    std::string inForce;
  } cases[] = {{"192.168.77.1", "192.168.77.1", "add default gw 192.168.77.1\n", "192.168.77.1"},
               {"", "", "add default gw\n", "0.0.0.0"},
               {"192.168.77.1;x", "'192.168.77.1;x'", "add default gw 192.168.77.1;x\n", "0.0.0.0"},
               {"-net", "-net", "add default gw -net\n", "0.0.0.0"},  // a host name to `route`, no option
               {tooLong, tooLong, "", "0.0.0.0"}};
  for (const auto& c : cases) {
    Run("ip route replace default via 192.168.77.9");
    EXPECT_TRUE(EthernetCfg_SetActSettings(nullptr, nullptr, nullptr, c.gateway.c_str(), nullptr));
    EXPECT_EQ("del default\n" + c.routes, Routes());
    EXPECT_EQ(("route add default gw " + c.word + "\n").substr(0, 1001), Printed());  // a line holds 1023
    EXPECT_EQ(c.gateway, DefGateway);
    char gateway[128] = "";
    EXPECT_EQ(1, get_gatewayip(gateway));
    EXPECT_EQ(c.inForce, gateway) << c.gateway;
  }
}

TEST_F(EthernetCfg, RewritesTheResolverFile) {
  const mode_t before = umask(077);
  EXPECT_TRUE(EthernetCfg_SetActSettings(nullptr, nullptr, nullptr, nullptr, ""));
  EXPECT_EQ("nameserver \n", ReadFile(RESOLVER));
  EXPECT_EQ(0644u, ResolverMode());
  umask(before);
  chmod(RESOLVER, 0600);
  EXPECT_TRUE(ConfigureNameserver("10.1.0.2", nullptr, "10.1.0.4"));
  EXPECT_EQ("nameserver 10.1.0.2\nnameserver 10.1.0.4\n", ReadFile(RESOLVER));
  EXPECT_EQ(0600u, ResolverMode());
  EXPECT_FALSE(ConfigureNameserver(nullptr, nullptr, nullptr));
  EXPECT_EQ("", ReadFile(RESOLVER));
  Run("rm /etc/resolf.conf && mkdir /etc/resolf.conf");
  EXPECT_FALSE(ConfigureNameserver("10.1.0.2", nullptr, nullptr));
  EXPECT_TRUE(EthernetCfg_SetActSettings(nullptr, nullptr, nullptr, nullptr, "10.1.0.2"));
  EXPECT_EQ("", Printed());
  Run("rmdir /etc/resolf.conf");
}

TEST_F(EthernetCfg, LongNamesAreCutAndOnlyOurOwnSocketIsClosed) {
  EXPECT_EQ(0, EthernetCfg_Final());
  const int stranger = dup(1);  // takes the number of our socket
  EXPECT_EQ(-1, EthernetCfg_Final());
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(0, close(stranger));

  EXPECT_FALSE(EthernetCfg_Init(nullptr));
  const std::string name = "fifteen_letters" + std::string(300, 'x');
  Run("ip link set far0 name fifteen_letters");
  Use(name.c_str());
  Settings settings;
  EXPECT_TRUE(EthernetCfg_GetActSettings(nullptr, nullptr, nullptr, nullptr, nullptr, settings.mac, nullptr));
  EXPECT_TRUE(set_flag(name.c_str(), IFF_NOARP));
  Run("ip link show fifteen_letters | grep -q NOARP");
}

TEST_F(EthernetCfg, MulticastRouteIsTheOneThatTheCommandAdds) {
  const std::string shown = "224.0.0.0/3 dev dev0 scope link \n";
  EXPECT_FALSE(EthernetCfg_AddMulticastRoute("absent"));
  EXPECT_EQ(ENODEV, errno);
  EXPECT_TRUE(EthernetCfg_AddMulticastRoute("dev0"));
  EXPECT_EQ(shown, Output("ip route show 224.0.0.0/3"));
  Run("ip route del 224.0.0.0/3 && route add -net 224.0.0.0 netmask 224.0.0.0 dev0");
  EXPECT_TRUE(EthernetCfg_AddMulticastRoute("dev0"));
  EXPECT_EQ(shown, Output("ip route show 224.0.0.0/3"));
  Routes();
}

TEST_F(EthernetCfg, ATableTooLargeForTheBufferIsAnError) {
  Run("for i in $(seq 200); do ip route add 10.1.$i.0/24 via 192.168.77.1; done");
  char gateway[128] = "?";
  testing::internal::CaptureStderr();
  EXPECT_EQ(-1, get_gatewayip(gateway));
  EXPECT_EQ("Error in recieved packet: Bad message\nRead From Socket Failed...\n",
            testing::internal::GetCapturedStderr());
  EXPECT_STREQ("?", gateway);
}

TEST_F(EthernetCfg, MacAddressIsFoundInTheOutputOfIfconfig) {
  MakeCommand("ifconfig", "[ \"$1\" = 'x y' ] && echo 'x  Link encap:Ethernet  HWaddr 00:1B:C4:0A:FF:05  '");
  char mac[128] = "?";
  bool hasAddress = true;
  EXPECT_FALSE(ul_GetMACAddressString("dev0", mac, &hasAddress));
  EXPECT_STREQ("?", mac);
  EXPECT_TRUE(ul_GetMACAddressString("x y", mac, &hasAddress));
  EXPECT_STREQ("00:1B:C4:0A:FF:05", mac);
  EXPECT_FALSE(hasAddress);
}

TEST(MacText, IsSixGroupsOfOneOrTwoDigits) {
  const struct {
    const char* text;
    bool isMac;
  } cases[] = {{"00:1b:c4:0a:ff:05", true},
               {"0:1b:C4:a:ff:5 ", true},
               {"0:1B:c4:A:FF:5", true},
               {"0:1b:c4:a:ff:5\t:", true},
               {"00:1b:c4:0a:ff:05x", true},
               {"0:1b:c4:a:ff:5:", false},
               {"0:1b:c4:a:ff:5x", false},
               {"00-1b-c4-0a-ff-05", false},
               {"001bc40aff05", false},
               {"00:1b:c4:0a:ff", false},
               {"00:1b:c4:0a:ff:", false},
               {"00:1b:c4:0a:fff:5", false},
               {"00::c4:0a:ff:05", false},
               {" 00:1b:c4:0a:ff:05", false},
               {"0:1b:c4:a:\xff:5", false},
               {"00:1b:c4:0a:ff:\xe4", false},
               {"", false},
               {nullptr, false}};
  for (const auto& c : cases) {
    unsigned char mac[6] = {9, 9, 9, 9, 9, 9};
    EXPECT_EQ(c.isMac ? mac : nullptr, ConverMacAddressStringIntoByte(c.text, mac)) << testing::PrintToString(c.text);
    const std::string expected = c.isMac ? std::string("\x00\x1b\xc4\x0a\xff\x05", 6) : std::string(6, '\t');
    EXPECT_EQ(expected, std::string(mac, mac + 6)) << testing::PrintToString(c.text);
  }
}
