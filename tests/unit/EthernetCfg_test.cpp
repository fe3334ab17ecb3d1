#include "util/EthernetCfg.h"

#include <net/if.h>
#include <sys/ioctl.h>

#include <random>
#include <sstream>
#include <tuple>

#include "tests/unit/Interface.h"
#include "tests/unit/SystemCalls.h"

TEST_F(Interface, AppliesMaskAddressAndBroadcastThenRouteAndResolver) {
  const std::string unknown = "unknown interface: No such device\n", start = "192.168.77.2/24 brd 192.168.77.255\n";
  const std::tuple<const char*, const char*, const char*, const char*, std::string, std::string> cases[] = {
      {"dev0", "10.1.2.3", "255.255.0.0", nullptr, "10.1.2.3/16 brd 10.1.255.255\n", ""},
      {"dev0", "10.1.2.3", "255.255.0.0", "10.1.0.255", "10.1.2.3/16 brd 10.1.0.255\n", ""},
      {"dev0", "10.1.2.3", nullptr, "", "10.1.2.3/8 brd 255.255.255.255\n", ""},
      {"dev0", "", "255.255.0.0", nullptr, "192.168.77.2/16 brd 0.0.255.255\n", ""},
      {"dev0", "172.16.2.3", "0.0.0.0", "", "172.16.2.3/16 brd 255.255.255.255\n", ""},  // the mask of the class
      {"dev0", "", "0.0.0.0", "0.0.0.0", "192.168.77.2/24\n", ""},
      {"dev0", "10.1.2.3", "255.255.0.0", "x", "10.1.2.3/16 brd 10.1.255.255\n",
       "Error: set broadcast address: Invalid argument\n"},
      {"dev0", "10.1.2.3", "x", nullptr, start, "Error: Could not configure subnet mask: Invalid argument\n"},
      {"dev0", "1.2.3.x", "255.255.255.0", nullptr, start, "Error: set ip address: Invalid argument\n"},
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

TEST_F(Interface, ZeroMaskOfAnAddressThatIsThereBecomesThatOfItsClass) {
  for (const auto& [ip, prefix] :
       {std::pair("126.2.3.4", "8"), std::pair("128.2.3.4", "16"), std::pair("192.2.3.4", "24")}) {
    for (const char* mask : {"255.255.255.128", "0.0.0.0"})
      EXPECT_TRUE(EthernetCfg_SetActSettings(ip, mask, nullptr, nullptr, nullptr));
    EXPECT_EQ(ip + ("/" + std::string(prefix)), Output("ip -4 -o address show dev dev0 | cut -d' ' -f7 | tr -d '\n'"));
  }
}

TEST_F(Interface, EveryFailureIsTold) {
  char texts[5][128] = {};
  bool valid = false;
  const std::string link = "Invalid cross-device link\n",
                    flags = "ioctl: 0 Error: dev0: unknown interface: " + link +
                            "ioctl: 0 Error: Could not configure interface flag: " + link;
  std::string states;
  const auto told = [](bool result) {
    return std::to_string(result) + Undisturbed([] {
             const std::string text = Printed();
             return text.empty() ? "" : " " + text.substr(0, text.size() - 1);
           });
  };
  EXPECT_EQ("ioctl: 0 Error: Could not configure subnet mask: " + link + "ioctl: 0 Error: set ip address: " + link +
                "ioctl: 1\nioctl: 0 Error: Could not configure subnet mask: " + link +
                "ioctl: 1 Error: set broadcast address: " + link + flags + flags,
            WithEachCallFailing([&] {
              const std::string start =
                  "ip link set dev0 down; ip address flush dev dev0; ip address add 1.2.3.4/24 dev dev0";
              Undisturbed([&] { return ul_RunCommand(start); });
              const bool result = EthernetCfg_SetActSettings("10.1.2.3", "255.255.0.0", nullptr, nullptr, nullptr);
              states +=
                  Undisturbed([] { return ul_RunCommand("ip link show dev0 | grep -q ,UP"); }) == 0 ? "up " : "down ";
              return told(result);
            }));
  EXPECT_EQ("up up up up up up up down down up ", states) << "after a failure too, if it can be";
  EXPECT_EQ(
      "ioctl: 0 Error: Could not configure subnet mask: Invalid argument\nError: dev0: unknown interface: " + link +
          "ioctl: 0 Error: Could not configure subnet mask: Invalid argument\nError: SIOCSIFFLAGS - Invalid "
          "cross-device lin\n" +
          "ioctl: 0 Error: Could not configure subnet mask: Invalid argument\nError: dev0: unknown interface: " + link +
          "ioctl: 0 Error: Could not configure subnet mask: Invalid argument\nError: Could not configure interface "
          "flag: " +
          link,
      WithEachCallFailing([&] { return told(EthernetCfg_SetActSettings(nullptr, "x", nullptr, nullptr, nullptr)); }));
  EXPECT_EQ("ioctl: 0 Error: get broadcast address: " + link + "ioctl: 0 Error: get mac address: " + link +
                "ioctl: 0 Error: get ip address: " + link + "ioctl: 0 Error: get subnet mask: " + link,
            WithEachCallFailing([&] {
              return told(EthernetCfg_GetActSettings(texts[0], texts[1], texts[2], nullptr, nullptr, texts[4], &valid));
            }));
  EXPECT_EQ("socket: 0\nfcntl: 0\nioctl: 0\n",
            WithEachCallFailing([&] { return told(EthernetCfg_AddMulticastRoute("dev0")); }));
  EthernetCfg_Final();
  EXPECT_EQ(
      "socket: 0 Error: Could not create socket for ethernet configuration\nfcntl: 0 Error: Could not create socket "
      "for ethernet configuration\n",
      WithEachCallFailing([&] {
        const bool result = EthernetCfg_Init("dev0");
        if (result) EthernetCfg_Final();
        return told(result);
      }));
  EXPECT_FALSE(EthernetCfg_Init(nullptr));
}

TEST_F(Interface, SettingsAreReadAndWhatCannotBeReadIsLeftAlone) {
  char texts[5][128] = {"?", "?", "?", "?", "?"};
  bool valid = false;
  const auto read = [&] {
    return EthernetCfg_GetActSettings(texts[0], texts[1], texts[2], texts[3], nullptr, texts[4], &valid);
  };
  const auto all = [&] {
    std::string text;
    for (const char* one : texts) text += one + std::string(" ");
    return text;
  };
  ASSERT_EQ(0, EthernetCfg_Final());
  ASSERT_TRUE(EthernetCfg_Init(""));
  EXPECT_FALSE(read());
  EXPECT_EQ("? ? ? 0.0.0.0 ? ", all()) << "the gateway: from the local table";
  EXPECT_TRUE(valid);
  EthernetCfg_Final();
  EthernetCfg_Init("dev0");
  Run("ip route add default via 192.168.77.1");
  EXPECT_TRUE(read());
  EXPECT_EQ("192.168.77.2 255.255.255.0 192.168.77.255 192.168.77.1 00:1b:c4:0a:ff:05 ", all());
  Run("for i in $(seq 200); do ip route add 10.1.$i.0/24 via 192.168.77.1; done");
  EXPECT_EQ(-1, get_gatewayip(texts[3])) << "the table is too large";
}

TEST_F(Interface, AnyTextMayLieInTheGatewayThatWasAppliedLast) {
  const char* const remembered = DefGateway;
  const std::string tooLong(1100, '1');
  for (const char* gateway : {tooLong.c_str(), "10.168.77.1", remembered, remembered + 1}) {
    const std::string text = gateway, before = DefGateway;
    const bool isRun = text.size() < 1000;
    EXPECT_TRUE(EthernetCfg_SetActSettings(nullptr, nullptr, nullptr, gateway, DefGateway));
    EXPECT_EQ(text.substr(0, 1023), DefGateway);
    EXPECT_EQ("nameserver " + before + "\nroute del default\n" + (isRun ? "route add default gw " + text + "\n" : ""),
              Changes());
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
  Run("cd /tmp/first && echo 'echo \"$1  HWaddr $1 \"' >ifconfig && chmod +x *");
  char mac[128] = "?";
  bool hasAddress = true;
  EXPECT_FALSE(ul_GetMACAddressString("00:1B", mac, &hasAddress));
  EXPECT_FALSE(ul_GetMACAddressString(nullptr, mac, nullptr));
  EXPECT_STREQ("?", mac);
  EXPECT_TRUE(ul_GetMACAddressString("00:1B:C4:0A:FF:05 inet addr", mac, &hasAddress));
  EXPECT_TRUE(hasAddress);
  EXPECT_TRUE(ul_GetMACAddressString("00:1B:C4:0A:FF:06;", mac, &hasAddress));
  EXPECT_FALSE(hasAddress);
  EXPECT_STREQ("00:1B:C4:0A:FF:06", mac);
}

namespace {

/// The rule: six groups of one or two digits, ':' between them, white space or the end after a single last digit.
bool ReadMac(const std::string& text, unsigned char* mac) {
  std::istringstream groups(text);
  std::string group;
  for (int i = 0; i < 6; ++i) {
    if (!std::getline(groups, group, i < 5 ? ':' : '\0')) return false;
    const std::size_t digits = std::min(group.find_first_not_of("0123456789abcdefABCDEF"), group.size());
    const bool isCut = digits == group.size() || (i == 5 && (digits >= 2 || std::strchr(" \t\n\v\f\r", group[digits])));
    if (digits == 0 || !isCut || (i < 5 && (digits > 2 || groups.eof()))) return false;
    mac[i] = static_cast<unsigned char>(std::stoul(group.substr(0, 2), nullptr, 16));
  }
  return true;
}

}  // namespace

TEST(MacText, IsReadAsTheRuleSays) {
  std::mt19937 generator(20261125);
  const std::string valid[] = {"0:1b:c4:0a:ff:05", "00:1B:C4:a:ff:5 ", "99:00:aa:FF:09:af:12"},
                    odd = "0f: gG\t\r-@`/9A\xff";
  int macs = 0;
  for (int round = 0; round < 5000; ++round) {
    std::string text = valid[generator() % 3];
    for (auto changes = generator() % 3; changes > 0; --changes) {
      text.replace(generator() % (text.size() + 1), generator() % 2, generator() % 2, odd[generator() % odd.size()]);
    }
    unsigned char expected[6] = {}, mac[6] = {9, 9, 9, 9, 9, 9};
    const bool isMac = ReadMac(text, expected);
    macs += isMac ? 1 : 0;
    EXPECT_EQ(isMac ? mac : nullptr, ConverMacAddressStringIntoByte(text.c_str(), mac)) << text;
    EXPECT_EQ(isMac ? std::string(expected, expected + 6) : std::string(6, '\x9'), std::string(mac, mac + 6)) << text;
  }
  EXPECT_GT(macs, 1000);
  EXPECT_EQ(nullptr, ConverMacAddressStringIntoByte(nullptr, nullptr));
}
