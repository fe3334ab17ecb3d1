#include "tool/Change.h"

#include "DeviceSamples.h"

namespace tarnddp {
namespace {

/// "ADDRESS/PREFIX GATEWAY on", each - if it is not known, and behind them where answers come from.
Seen SeenAs(const std::string& words) {
  std::istringstream text(words);
  std::string address, gateway, dhcp;
  text >> address >> gateway >> dhcp;
  Seen seen;
  const std::size_t slash = address.find('/');
  if (address != "-") seen.settings.address = address.substr(0, slash);
  if (slash != std::string::npos) seen.settings.prefix = ParsePrefix(address.substr(slash + 1));
  if (gateway != "-") seen.settings.gateway = gateway;
  if (dhcp != "-") seen.settings.dhcp = dhcp == "on";
  for (std::string from; text >> from;) seen.answering.push_back(from);
  return seen;
}

TEST(StaticAddress, IsRefusedWhereNoHostCanHaveIt) {
  const struct {
    const char* problem;
    std::vector<const char*> wanted;  // address, prefix, gateway, name server
  } cases[] = {
      {"",
       {"192.168.1.20 24 192.168.1.1 10.0.0.53", "192.168.1.20 1 0.0.0.0 0.0.0.0", "192.168.1.20 24 192.168.2.255"}},
      {"network itself", {"192.168.1.20 30"}},
      {"broadcast", {"192.168.1.23 30", "192.168.1.20 24 192.168.1.255"}},
      {"1 to 30", {"192.168.1.20 0", "192.168.1.20 31", "192.168.1.20"}},
      {"\"bench\\x1b\" is no", {"bench\x1b 24"}},
      {"loopback", {"127.1.2.3 8"}},
      {"group", {"224.0.5.128 24", "239.255.255.254 24"}},
      {"no address of a host", {"0.1.2.3 8", "240.0.0.1 24"}},
      {"this PC", {"192.168.1.3 24"}},
      {"the gateway 192.168.1.20 is the address itself", {"192.168.1.20 24 192.168.1.20"}},
      {"gateway \"router\"", {"192.168.1.20 24 router"}},
      {"name server 224.0.0.1", {"192.168.1.20 24 0.0.0.0 224.0.0.1"}}};
  for (const auto& c : cases) {
    for (const char* words : c.wanted) {
      std::istringstream text(words);
      std::string address, prefix, gateway, dns;
      text >> address >> prefix >> gateway >> dns;
      StaticAddress read;
      const std::string problem = ReadStaticAddress(address, prefix, gateway, dns, {0xc0a80103}, read);
      EXPECT_EQ(*c.problem == '\0', problem.empty()) << words << ": " << problem;
      EXPECT_NE(std::string::npos, problem.find(c.problem)) << problem;
      EXPECT_EQ(problem.empty(), read.address != 0);
    }
  }
}

TEST(StaticAddress, KeepsAGatewayThatIsOfUse) {
  const struct {
    const char* before;
    std::optional<IPv4> gateway;
    const char* target;
  } cases[] = {{"192.168.1.1", {}, "192.168.1.1"},
               {"192.168.2.1", {}, ""},
               {"192.168.1.255", {}, ""},
               {"192.168.1.20", {}, ""},  // what the device itself is to have
               {"\x1b", {}, ""},
               {"192.168.1.1", 0, ""},
               {"192.168.1.1", 0xc0a802fe, "192.168.2.254"}};
  for (const auto& c : cases) {
    const auto dns = c.gateway ? std::optional<IPv4>(0x0a000035) : std::nullopt;
    const StaticAddress wanted = {0xc0a80114, 24, c.gateway, dns};
    const Target target = TargetOf(wanted, {"10.0.0.1", 8, c.before, true});
    EXPECT_EQ(StaticFields(target),
              (std::vector<std::string>{"192.168.1.20", "255.255.255.0", c.target, dns ? "10.0.0.53" : ""}));
    EXPECT_EQ(target.notes.size(), dns ? 0U : 2U);
    EXPECT_EQ(c.gateway.value_or(0) != 0, !UnwiseGateway(wanted).empty());  // outside the network in the last case
  }
}

/// "ID MAC SENDER..."
Device DeviceOf(const std::string& words) {
  std::istringstream text(words);
  std::string id, mac;
  text >> id >> mac;
  Device device = {std::stoi(id), RecordOf(mac, id, "192.168.1.10"), {}};
  for (std::string sender; text >> sender;) device.sources.push_back(SourceOf("eth0", sender));
  return device;
}

const std::string mac = "00-1B-C4-0A-FF-05";

TEST(Path, ReachesOneDeviceAloneOrNone) {
  const std::string own = "1 " + mac, other = "2 6 fe80::6 192.168.1.20", filtered = "SETDHCPMODE!\t" + mac + "\t1\r\n";
  const struct {
    std::string first, second, sent;
  } cases[] = {{own + " fe80::5 192.168.1.10 *192.168.1.10", other, "ipv6 fe80::5%eth0 SETDHCPMODE!\t1\r\n"},
               {"1 - fe80::5", other, "ipv6 fe80::5%eth0 SETDHCPMODE!\t1\r\n"},
               {own + " 2001:db8::5 *192.168.1.10", other, "broadcast 192.168.1.10 " + filtered},
               {own + " 192.168.1.10 *192.168.1.10", other, "broadcast 192.168.1.10 " + filtered},
               {own + " 192.168.1.10", other, "ipv4 192.168.1.10 " + filtered},
               {own + " 192.168.1.10 *192.168.1.10", "2 6 192.168.1.10", "ipv4 192.168.1.10 " + filtered},
               {own + " *192.168.1.10", "2 00:1b:c4:0a:ff:05 fe80::6", "another device has the same MAC address"},
               {own + " fe80::5", "2 x fe80::5", "another device answers from the same IPv6 address"},
               {own + " 2001:db8::5", other, "it answers from no link-local IPv6 address"},
               {"1 001b.c40a.ff05 *192.168.1.10", other, "its record holds no usable MAC address"}};
  for (const auto& c : cases) {
    const std::vector<Device> devices = {DeviceOf(c.first), DeviceOf(c.second)};
    std::string sent;
    if (const auto path = PathTo(devices[0], devices, sent))
      sent = WayName(path->to.way) + (' ' + path->to.address) + ' ' + Request(*path, "SETDHCPMODE!", {"1"});
    EXPECT_EQ(c.sent, sent) << c.first;
  }
}

TEST(Path, IsNamedByWhatMeansOneDevice) {
  std::vector<Device> devices;
  for (const std::string& words : {"1 " + mac + " fe80::5 192.168.1.10 *192.168.1.10", std::string("3 x fe80::5"),
                                   std::string("4 x 192.168.1.10"), std::string("4 x 192.168.1.11")})
    devices.push_back(DeviceOf(words));
  devices[1].record.serial = "$(halt)";
  const char* arguments[] = {"00:1b:c4:0a:ff:05", "fe80::5%eth0", "192.168.1.10", "192.168.1.11"};
  for (std::size_t i = 0; i < devices.size(); ++i) EXPECT_EQ(arguments[i], ArgumentFor(devices[i], devices));
  devices.pop_back();
  EXPECT_EQ("4", ArgumentFor(devices[2], devices));
  EXPECT_EQ((std::vector<std::string>{"192.168.1.10"}), SeenOf(devices[0]).answering);
}

TEST(Judgement, TellsWhatCameOfAChange) {
  const std::string wanted = "10.0.0.2/16 - off", before = "192.168.1.10/24 192.168.1.1 - 192.168.1.10",
                    old = "192.168.1.10/24 192.168.1.1 off", one = "1.1.1.1/24 1.1.1.9 ", two = "2.2.2.2/24 1.1.1.9 ";
  const std::string unchanged = "unchanged: acknowledged, but nothing has changed",
                    neither = "unchanged: not acknowledged, and nothing has changed",
                    gone = "acknowledged, and not heard again since";
  constexpr Reply ack = Reply::Ack, none = Reply::None, nack = Reply::Nack;
  const struct {
    std::string wanted, before, after;
    Reply reply;
    std::string told;
  } cases[] = {
      {wanted, before, wanted, none, "done: 10.0.0.2/16, no gateway, although it was not acknowledged"},
      {wanted, before, "10.0.0.2/16 - -", ack, "done: 10.0.0.2/16, no gateway"},
      {wanted, wanted, wanted, ack, "done: 10.0.0.2/16, no gateway"},
      {wanted, wanted, wanted, none, neither},  // it was so before
      {wanted, before, old + " 192.168.1.10", ack, unchanged},
      {wanted, before, old, ack,
       "different: its record shows the old settings, but it is no longer heard over IPv4 (its service may have "
       "refused, "
       "so the interface alone was set)"},
      {wanted, before, wanted, nack,
       "refused: the device refused it, but its settings are now 10.0.0.2/16, no gateway"},
      {wanted, before, "", none, "gone: not " + gone},
      {wanted, before, old + " 10.0.0.2", ack,
       "different: it answers from 10.0.0.2 while its record shows 192.168.1.10 (its service refused, so the interface "
       "alone was set), its prefix length is 24, its gateway is 192.168.1.1"},
      {wanted, before, wanted + " 1.1.1.1", ack, "different: it answers from 1.1.1.1 while its record shows 10.0.0.2"},
      {wanted, before, "- - off", ack, "different: its address is none, its mask has holes"},
      {wanted, before, "10.0.0.2/16 10.0.0.1 on", ack, "different: its gateway is 10.0.0.1, DHCP is still on"},
      {"on", one + "off", one + "on", none,
       "done: 1.1.1.1/24, gateway 1.1.1.9, by DHCP, although it was not acknowledged"},
      {"on", one + "off", two + "off", ack, "different: DHCP is off with 2.2.2.2/24, gateway 1.1.1.9"},
      {"on", one + "-", two + "-", ack,
       "done: 2.2.2.2/24, gateway 1.1.1.9, as far as can be seen: without its service a device never shows DHCP"},
      {"on", one + "- 3.3.3.3", one + "- 3.3.3.3", none, neither},
      {"on", one + "-", one + "-", nack,
       "refused: it got no lease within a second, and may get one at once if told again"},
      {"on", "0.0.0.0/0 - -", "0.0.0.0/0 - -", nack,
       "refused: it cannot lease an address while it has none: set-ip gives it one first"},
      {"off", one + "on", one + "on", nack, "refused: the device refused it"},
      {"on", one + "-", "", ack, "gone: " + gone},
      {"on", one + "off", two + "-", ack,
       "different: its service is away now, so DHCP cannot be seen; it has 2.2.2.2/24, gateway 1.1.1.9"},
      {"off", one + "on", one + "on", ack, unchanged},
      {"off", one + "on", one + "-", ack,
       "different: its service is away now, so DHCP cannot be seen; it has 1.1.1.1/24, gateway 1.1.1.9"}};
  for (const auto& c : cases) {
    const Seen was = SeenAs(c.before);
    const auto after = c.after.empty() ? std::nullopt : std::optional(SeenAs(c.after));
    const bool isDhcp = c.wanted[0] == 'o';
    const Outcome outcome = isDhcp ? JudgeDhcp(c.wanted == "on", was, after, c.reply)
                                   : JudgeStatic(SeenAs(c.wanted).settings, was, after, c.reply);
    EXPECT_EQ(c.told, ResultName(outcome.result) + (": " + outcome.words));
  }
}

TEST(Restoring, NamesTheCommandThatBringsTheOldSettingsBack) {
  const struct {
    const char *before, *command;
  } cases[] = {{"192.168.1.10/24 192.168.1.1 on", "tarnddp dhcp M on"},
               {"192.168.1.10/24 192.168.1.1 -", "tarnddp set-ip M 192.168.1.10/24 --gateway 192.168.1.1"},
               {"10.0.0.1/8 - off", "tarnddp set-ip M 10.0.0.1/8"},
               {"192.168.1.10/24 - off", "tarnddp set-ip M 192.168.1.10/24 --gateway 0.0.0.0"},
               {"10.0.0.1/8 11.0.0.1 off", "tarnddp set-ip M 10.0.0.1/8 --gateway 11.0.0.1 --force"},
               {"192.168.1.3/24 - off", ""},  // this PC has it
               {"$(halt)/8 - off", ""}};
  const Settings now = SeenAs("192.168.1.20/24 192.168.1.1 off").settings;
  for (const auto& c : cases)
    EXPECT_EQ(c.command, RestoringCommand("M", SeenAs(c.before).settings, now, false, {0xc0a80103}));
  Settings leased;
  leased.dhcp = true;  // with what gateway is not known
  EXPECT_EQ("tarnddp set-ip M 10.0.0.1/8 --gateway 0.0.0.0",
            RestoringCommand("M", SeenAs("10.0.0.1/8 - off").settings, leased, false, {}));
  EXPECT_EQ("", RestoringCommand("M", SeenAs("10.0.0.1/8 - on").settings, leased, false, {}));
}

TEST(Reachability, TakesBothEndsInOneNetwork) {
  const auto isTold = [](const char* settings, const char* route, const char* words) {
    const Interface heardOn = {"eth0", 2, true, true, false, true, {{0xc0a80103, 24}}, ""};
    return ReachabilityNote(SeenAs(settings).settings, {heardOn}, route).find(words) != std::string::npos;
  };
  EXPECT_TRUE(isTold("10.0.0.1/8 - off", "eth0", "no address"));
  EXPECT_TRUE(isTold("10.0.0.1/8 10.0.0.2 off", "eth0", "router"));
  EXPECT_TRUE(isTold("192.168.1.20/28 - off", "", "no route"));
  EXPECT_FALSE(isTold("192.168.1.4/29 - off", "eth0", "reachable"));
}

TEST(Forwarding, SendsNothingThatTheDaemonItselfWouldTake) {
  const auto request = [](const std::string& word, const std::vector<std::string>& arguments) {
    std::string built;
    const std::string problem = ForwardedRequest(word, arguments, built);
    EXPECT_EQ(built.empty(), !problem.empty()) << word;
    return built;
  };
  const std::string filler(1019, 'x');
  EXPECT_EQ("Hello\ta b\t\t00:1b:c4:0a:ff:05\r\n", request("Hello", {"a b", "", "00:1b:c4:0a:ff:05"}));
  EXPECT_EQ("a\t" + filler + "\r\n", request("a", {filler}));
  for (const std::string& argument : {filler + "x", std::string("a\0b", 3), std::string("001bc40aff05:x")})
    EXPECT_EQ("", request("a", {argument}));
  for (const char* word :
       {"", "a\tb", "b\r", "SYSTRACE!\n", "SysTrace!", "executecommand!", "DEVICEIDENT?", "deviceidentext?",
        "SETIPADDRESS!", "SETDHCPMODE!", "DEVICEREBOOT!", "DEVICEDISABLEIDENT!", "DEVICEENABLEIDENT!"})
    EXPECT_EQ("", request(word, {}));
}

}  // namespace
}  // namespace tarnddp
