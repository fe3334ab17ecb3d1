#include "util/EthernetCfg.h"

#include "tests/unit/Interface.h"
#include "tests/unit/SystemCalls.h"

TEST_F(Interface, AppliesMaskAddressAndBroadcastThenRouteAndResolver) {
  const std::string invalid = ": Invalid argument\n", unknown = "Error: : unknown interface: No such device\n";
  const struct {
    const char *interface, *before, *ip, *mask, *broadcast;
    bool isDone;
    std::string after, printed;
  } rows[] = {
      {"dev0", "1.2.3.4/24", "10.1.2.3", "255.255.0.0", nullptr, true, "10.1.2.3/16 brd 10.1.255.255\n", ""},
      {"dev0", "1.2.3.4/24", "10.1.2.3", "255.255.0.0", "10.1.0.255", true, "10.1.2.3/16 brd 10.1.0.255\n", ""},
      {"dev0", "1.2.3.4/24", "10.1.2.3", nullptr, "", true, "10.1.2.3/8 brd 255.255.255.255\n", ""},
      {"dev0", "1.2.3.4/24", "", "255.255.0.0", nullptr, true, "1.2.3.4/16 brd 0.0.255.255\n", ""},
      {"dev0", "1.2.3.4/24", "", "0.0.0.0", "0.0.0.0", true, "1.2.3.4/8\n", ""},  // no zero mask: that of the class
      {"dev0", "1.2.3.4/24", "172.16.2.3", "0.0.0.0", "", true, "172.16.2.3/16 brd 255.255.255.255\n", ""},
      {"dev0", "128.2.3.4/25", "128.2.3.4", "0.0.0.0", "0.0.0.0", true, "128.2.3.4/16\n", ""},  // the same once more
      {"dev0", "192.2.3.4/25", "192.2.3.4", "0.0.0.0", "0.0.0.0", true, "192.2.3.4/24\n", ""},
      {"dev0", "1.2.3.4/24", "10.1.2.3", "255.255.0.0", "x", true, "10.1.2.3/16 brd 10.1.255.255\n",
       "Error: set broadcast address" + invalid},
      {"dev0", nullptr, "10.1.2.3", "x", nullptr, false, "", "Error: Could not configure subnet mask" + invalid},
      {"dev0", "1.2.3.4/24", "1.2.3.x", "255.255.255.0", nullptr, false, "1.2.3.4/24 brd 1.2.3.255\n",
       "Error: set ip address" + invalid},
      {"", "1.2.3.4/24", "10.1.2.3", "255.255.0.0", nullptr, false, "1.2.3.4/24 brd 1.2.3.255\n",
       "Error: Network Socket not initialized!" + unknown + unknown}};
  for (const auto& [interface, before, ip, mask, broadcast, isDone, after, printed] : rows) {
    Run("ip address flush dev dev0; ip link set dev0 down");
    if (before != nullptr) Run("ip address add dev dev0 broadcast + " + std::string(before));
    EthernetCfg_Final();
    ASSERT_TRUE(EthernetCfg_Init(interface));
    EXPECT_EQ(isDone, EthernetCfg_SetActSettings(ip, mask, broadcast, "1.2.3.5", "10.1.0.2")) << ip << mask;
    EXPECT_EQ(after, Output("ip -4 -o address show dev dev0 | cut -d' ' -f7-9 | sed 's/ scope.*//'"));
    EXPECT_EQ(printed + (isDone ? "route add default gw 1.2.3.5\n" : ""), Printed());
    EXPECT_EQ(isDone ? "nameserver 10.1.0.2\nroute del default\nroute add default gw 1.2.3.5\n" : "", Changes());
    if (*interface != '\0') Run("ip link show dev0 | grep -q ,UP");  // after a failure as well
  }
}

/// A line for each call that fails, with + if the interface is up in the end.
TEST_F(Interface, ComesUpWhicheverCallFailsIfItCanAndLosesNoDescriptor) {
  static char text[4][128] = {};
  const std::pair<bool (*)(), std::string> rows[] = {
      {[] { return EthernetCfg_SetActSettings("10.1.2.3", "255.255.0.0", nullptr, nullptr, nullptr); },
       "ioctl: 0+\nioctl: 0+\nioctl: 1+\nioctl: 0+\nioctl: 1+\nioctl: 0+\nioctl: 0+\nioctl: 0-\nioctl: 0-\n"},
      {[] { return EthernetCfg_SetActSettings(nullptr, "x", nullptr, nullptr, nullptr); },
       "ioctl: 0+\nioctl: 0+\nioctl: 0-\nioctl: 0-\n"},
      {[] { return EthernetCfg_GetActSettings(text[0], text[1], text[2], nullptr, nullptr, text[3], nullptr); },
       "ioctl: 0-\nioctl: 0-\nioctl: 0-\nioctl: 0-\n"},
      {[] { return EthernetCfg_AddMulticastRoute("dev0"); }, "socket: 0-\nioctl: 0-\n"}};
  for (const auto& [change, expected] : rows) {
    const auto attempt = [&change = change] {
      const std::string prepare =
          "ip link set dev0 down; ip address flush dev dev0; ip address add 1.2.3.4/24 dev dev0";
      Undisturbed([&prepare] { return ul_RunCommand(prepare); });
      const std::string result = std::to_string(change());
      return result + (Undisturbed([] { return ul_RunCommand("ip link show dev0 | grep -q ,UP"); }) == 0 ? "+" : "-");
    };
    EXPECT_EQ(expected, WithEachCallFailing(attempt));
  }
  EXPECT_FALSE(EthernetCfg_Init(nullptr));
}

TEST_F(Interface, SettingsAreReadAndWhatCannotBeReadIsLeftAlone) {
  char texts[5][128] = {"?", "?", "?", "?", "?"};
  const std::pair<const char*, std::string> rows[] = {
      {"", "0 1 ? ? ? 0.0.0.0 ? "},                      // the gateway is that of the local table
      {"far0", "0 1 ? ? ? 0.0.0.0 00:1b:c4:0a:ff:06 "},  // which has no address
      {"dev0", "1 1 192.168.77.2 255.255.255.0 192.168.77.255 192.168.77.1 00:1b:c4:0a:ff:05 "}};
  for (const auto& [interface, expected] : rows) {
    bool valid = false;
    EthernetCfg_Final();
    ASSERT_TRUE(EthernetCfg_Init(interface));
    Run(*interface == 'd' ? "ip route add default via 192.168.77.1" : "ip link set far0 address 00:1b:c4:0a:ff:06");
    std::string all =
        std::to_string(EthernetCfg_GetActSettings(texts[0], texts[1], texts[2], texts[3], nullptr, texts[4], &valid));
    all += (valid ? " 1 " : " 0 ");
    for (const char* one : texts) all += one + std::string(" ");
    EXPECT_EQ(expected, all);
  }
}

TEST_F(Interface, AnyTextMayLieInTheGatewayThatWasAppliedLast) {
  const char* const remembered = DefGateway;
  const std::string tooLong(1100, '1');
  for (const char* gateway : {tooLong.c_str(), "10.168.77.1%c", remembered, remembered + 1}) {
    const std::string text = gateway, before = DefGateway, add = "route add default gw " + text + "\n";
    EXPECT_TRUE(EthernetCfg_SetActSettings(nullptr, nullptr, nullptr, gateway, DefGateway));
    EXPECT_EQ(text.substr(0, 1023), DefGateway);
    EXPECT_EQ("nameserver " + before + "\nroute del default\n" + (gateway == tooLong ? "" : add), Changes());
    EXPECT_EQ(add.substr(0, 1001), Printed()) << "with a time before it, 1023 at most";
  }
}

TEST_F(Interface, OnlyOurOwnSocketIsClosedAndLongNamesAreCut) {
  EXPECT_EQ(0, EthernetCfg_Final());
  const int stranger = dup(1);  // takes the number of our socket
  errno = 0;
  EXPECT_EQ(-1, EthernetCfg_Final());
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(0, close(stranger));
  const std::string name = "fifteen_letters" + std::string(300, 'x');
  Run("ip link set far0 name fifteen_letters");
  EXPECT_TRUE(EthernetCfg_Init(name.c_str()));
  EXPECT_TRUE(set_flag(name.c_str(), IFF_NOARP));
  EXPECT_FALSE(set_flag(nullptr, IFF_NOARP));
  char mac[128] = "";
  EXPECT_TRUE(EthernetCfg_GetActSettings(nullptr, nullptr, nullptr, nullptr, nullptr, mac, nullptr));
  EXPECT_TRUE(ConfigureNameserver("10.1.0.2", nullptr, nullptr));
  Run("ip link show fifteen_letters | grep -q NOARP");
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(EthernetCfg_AddMulticastRoute("dev0")) << "there already";
  EXPECT_EQ("224.0.0.0/3 dev dev0 scope link \n", Output("ip route show 224.0.0.0/3"));
  EXPECT_FALSE(EthernetCfg_AddMulticastRoute(nullptr));
  EXPECT_EQ(ENODEV, errno);
}

TEST_F(Interface, MacAddressIsFoundInTheOutputOfIfconfig) {
  const std::string tooLong(1100, 'x');
  Run("cd /tmp/first && echo 'echo \"$1  HWaddr ${1-0:1:2:3:4:5} \"' >ifconfig && chmod +x *");
  const std::tuple<const char*, bool, const char*, bool> rows[] = {
      {"00:1B", false, "?", true},
      {nullptr, false, "?", true},
      {tooLong.c_str(), false, "?", true},
      {"00:1B:C4:0A:FF:05 inet addr", true, "00:1B:C4:0A:FF:05", true},
      {"00:1B:C4:0A:FF:96;", true, "00:1B:C4:0A:FF:96", false},
      {"0:1:2:3:4:56%s%d%", true, "0:1:2:3:4:56%s%d%", false}};
  for (const auto& [shown, isFound, expected, expectsAddress] : rows) {
    char mac[128] = "?";
    bool hasAddress = true;
    EXPECT_EQ(isFound, ul_GetMACAddressString(shown, mac, &hasAddress));
    EXPECT_EQ(std::pair(std::string(expected), expectsAddress), std::pair(std::string(mac), hasAddress));
  }
}
