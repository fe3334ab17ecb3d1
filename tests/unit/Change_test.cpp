#include "tool/Change.h"

#include <gtest/gtest.h>

#include "DeviceSamples.h"

namespace tarnddp {
namespace {

Device MakeDevice(int id, const std::string& mac, std::vector<Source> sources,
                  const std::string& address = "192.168.1.10") {
  return {id, RecordOf(mac, std::to_string(id), address), std::move(sources)};
}

const Source ipv6 = {"eth0", Way::IPv6, "fe80::5%eth0"}, group = {"eth0", Way::IPv4, "192.168.1.10"},
             broadcast = {"eth0", Way::Broadcast, "192.168.1.10"}, routed = {"eth0", Way::IPv6, "2001:db8::5"};
constexpr const char* mac = "00-1B-C4-0A-FF-05";

TEST(StaticAddress, IsRefusedWhereNoHostCanHaveIt) {
  const struct {
    const char *address, *prefix, *gateway, *dns, *problem;
  } cases[] = {{"192.168.1.20", "24", "", "", ""},
               {"192.168.1.20", "24", "192.168.1.1", "10.0.0.53", ""},
               {"192.168.1.20", "24", "0.0.0.0", "0.0.0.0", ""},
               {"192.168.1.20", "30", "", "", "network itself"},
               {"192.168.1.23", "30", "", "", "broadcast"},
               {"192.168.1.20", "1", "", "", ""},
               {"192.168.1.20", "0", "", "", "1 to 30"},
               {"192.168.1.20", "31", "", "", "1 to 30"},
               {"192.168.1.20", "", "", "", "1 to 30"},
               {"192.168.1.020", "24", "", "", "no IPv4"},
               {"bench\x1b", "24", "", "", "bench\\x1b"},
               {"127.1.2.3", "8", "", "", "loopback"},
               {"224.0.5.128", "24", "", "", "group"},
               {"0.1.2.3", "8", "", "", "no address of a host"},
               {"255.255.255.254", "24", "", "", "no address of a host"},
               {"192.168.1.3", "24", "", "", "this PC"},
               {"192.168.1.20", "24", "192.168.1.20", "", "itself"},
               {"192.168.1.20", "24", "router", "", "gateway"},
               {"192.168.1.20", "24", "192.168.1.255", "", "broadcast"},
               {"192.168.1.20", "24", "192.168.2.255", "", ""},
               {"192.168.1.20", "24", "", "224.0.0.1", "name server"},
               {"192.168.1.20", "24", "", "192.168.01.1", "name server"}};
  for (const auto& c : cases) {
    StaticAddress wanted;
    const std::string problem = ReadStaticAddress(c.address, c.prefix, c.gateway, c.dns, {0xc0a80103}, wanted);
    EXPECT_EQ(*c.problem == '\0', problem.empty())
        << c.address << '/' << c.prefix << ' ' << c.gateway << ": " << problem;
    EXPECT_NE(std::string::npos, problem.find(c.problem)) << problem;
    EXPECT_EQ(problem.empty(), wanted.address != 0);
  }
}

TEST(StaticAddress, KeepsAGatewayThatIsOfUse) {
  const struct {
    const char* before;
    std::optional<IPv4> gateway;
    const char* target;
    bool unwise;
  } cases[] = {{"192.168.1.1", {}, "192.168.1.1", false},
               {"192.168.2.1", {}, "", false},
               {"192.168.1.20", {}, "", false},
               {"192.168.1.255", {}, "", false},
               {"\x1b", {}, "", false},
               {"192.168.1.1", 0, "", false},
               {"192.168.1.1", 0xc0a801fe, "192.168.1.254", false},
               {"192.168.1.1", 0xc0a802fe, "192.168.2.254", true}};
  for (const auto& c : cases) {
    const StaticAddress wanted = {0xc0a80114, 24, c.gateway, {}};
    const Target target = TargetOf(wanted, {"10.0.0.1", 8, c.before, true});
    EXPECT_EQ(target.settings,
              (Settings{"192.168.1.20", 24, *c.target ? std::optional<std::string>(c.target) : std::nullopt, false}));
    EXPECT_EQ(target.notes.size(), c.gateway ? 1U : 2U);  // about the gateway, and always about the name server
    EXPECT_EQ(StaticFields(target), (std::vector<std::string>{"192.168.1.20", "255.255.255.0", c.target, ""}));
    EXPECT_EQ(c.unwise, !UnwiseGateway(wanted).empty());
  }
}

TEST(StaticAddress, IsInForceOnlyIfAllThatWasSaidIs) {
  const Seen seen = {{"192.168.1.20", 24, "192.168.1.1", false}, {"192.168.1.20"}};
  const StaticAddress same = {0xc0a80114, 24, {}, {}};
  const auto with = [&](auto change) {
    StaticAddress wanted = same;
    change(wanted);
    return IsInForce(wanted, seen);
  };
  EXPECT_TRUE(IsInForce(same, seen));
  EXPECT_TRUE(with([](StaticAddress& w) { w.gateway = 0xc0a80101; }));
  EXPECT_FALSE(with([](StaticAddress& w) { w.gateway = 0xc0a80102; }));
  EXPECT_FALSE(with([](StaticAddress& w) { w.gateway = 0; }));
  EXPECT_FALSE(with([](StaticAddress& w) { w.prefix = 25; }));
  EXPECT_FALSE(with([](StaticAddress& w) { w.dns = 0xc0a80101; }));
  EXPECT_FALSE(IsInForce(same, {{"192.168.1.20", 24, "192.168.1.1", true}, {}}));
  EXPECT_TRUE(IsInForce(same, {{"192.168.1.20", 24, "10.0.0.1", {}}, {}}));
  EXPECT_FALSE(IsInForce(same, {seen.settings, {"192.168.1.20", "192.168.1.9"}}));
}

/// What would be sent to the first of `devices`: way, where, request; or why nothing.
std::string Sent(const std::vector<Device>& devices) {
  std::string why;
  const auto path = PathTo(devices[0], devices, why);
  if (!path) return why;
  return std::string(WayName(path->to.way)) + ' ' + path->to.address + ' ' + Request(*path, "SETDHCPMODE!", {"1"});
}

TEST(Path, ReachesOneDeviceAloneOrNone) {
  const Source other = {"eth0", Way::IPv6, "fe80::6%eth0"};
  const Device second = MakeDevice(2, "00:1b:c4:0a:ff:06", {other, group});
  const char *toLinkLocal = "ipv6 fe80::5%eth0 SETDHCPMODE!\t1\r\n",
             *toAddress = "broadcast 192.168.1.10 SETDHCPMODE!\t00-1B-C4-0A-FF-05\t1\r\n",
             *toGroup = "ipv4 192.168.1.10 SETDHCPMODE!\t00-1B-C4-0A-FF-05\t1\r\n",
             *noMac = "its record holds no usable MAC address", *shared = "another device has the same MAC address";
  EXPECT_EQ(toLinkLocal, Sent({MakeDevice(1, mac, {ipv6, group, broadcast}), second}));
  EXPECT_EQ(toLinkLocal, Sent({MakeDevice(1, "", {ipv6}), second}));
  EXPECT_EQ(toAddress, Sent({MakeDevice(1, mac, {group, broadcast})}));
  EXPECT_EQ(toAddress, Sent({MakeDevice(1, mac, {routed, broadcast})}));
  EXPECT_EQ(toGroup, Sent({MakeDevice(1, mac, {group})}));
  EXPECT_EQ(toGroup, Sent({MakeDevice(1, mac, {group, broadcast}), second}));  // two with one address
  EXPECT_EQ(toAddress, Sent({MakeDevice(1, mac, {ipv6, broadcast}), MakeDevice(2, "x", {ipv6})}));
  EXPECT_EQ(shared, Sent({MakeDevice(1, mac, {broadcast}), MakeDevice(2, "00:1b:c4:0a:ff:05", {other})}));
  for (const char* text : {"", "00:00:00:00:00:00", "000000000000", "00:1b:c4:0a:ff", "0:1b:c4:a:ff:5",
                           "001b.c40a.ff05", "001bc40aff05:\t1", "192.168.1.1"}) {
    EXPECT_EQ(noMac, Sent({MakeDevice(1, text, {group, broadcast})})) << text;
  }
  EXPECT_EQ("another device answers from the same IPv6 address",
            Sent({MakeDevice(1, mac, {ipv6}), MakeDevice(2, "x", {ipv6})}));
}

TEST(Path, IsNamedByWhatMeansOneDevice) {
  Device odd = MakeDevice(3, "x", {ipv6}), serial = MakeDevice(4, "x", {group});
  odd.record.serial = "$(halt)";
  const std::vector<Device> devices = {MakeDevice(1, mac, {broadcast, group, ipv6}), odd, serial};
  const char* arguments[] = {"00:1b:c4:0a:ff:05", "fe80::5%eth0", "4"};
  for (std::size_t i = 0; i < devices.size(); ++i) EXPECT_EQ(arguments[i], ArgumentFor(devices[i], devices));
  EXPECT_EQ("192.168.1.10", ArgumentFor(serial, {serial, serial}));
  EXPECT_EQ((std::vector<std::string>{"192.168.1.10"}), SeenOf(devices[0]).answering);
}

TEST(Holders, AreDevicesHeardAndUnknownNeighbours) {
  const Device own = MakeDevice(1, mac, {ipv6}), other = MakeDevice(2, "00:1b:c4:0a:ff:06", {group}, "10.0.0.1");
  const auto holders = [&](const char* address, const std::optional<std::string>& neighbour) {
    std::vector<int> ids;
    for (const Holder& one : HoldersOf(ParseIPv4(address).value(), own, {own, other}, neighbour))
      ids.push_back(one.device);
    return ids;
  };
  EXPECT_EQ(std::vector<int>({2}), holders("10.0.0.1", {}));
  EXPECT_EQ(std::vector<int>({2}), holders("192.168.1.10", {}));  // it answers from there
  EXPECT_EQ(std::vector<int>(), holders("10.0.0.2", {}));
  EXPECT_EQ(std::vector<int>({0}), holders("10.0.0.2", "00:1b:c4:0a:ff:07"));
  EXPECT_EQ(std::vector<int>(), holders("10.0.0.2", "00:1b:c4:0a:ff:06"));  // what it had before
  EXPECT_EQ(std::vector<int>(), holders("10.0.0.2", "00:1b:c4:0a:ff:05"));
}

std::string Told(const Outcome& outcome) { return std::string(ResultName(outcome.result)) + ": " + outcome.words; }

const std::string unchanged = "unchanged: acknowledged, but nothing has changed",
                  neither = "unchanged: not acknowledged, and nothing has changed",
                  doubt = ", although it was not acknowledged", refused = "refused: the device refused it",
                  gone = ", and not heard again since";

TEST(Judgement, TellsWhatCameOfAStaticAddress) {
  const Settings wanted = {"10.0.0.2", 16, {}, false};
  const Seen before = {{"192.168.1.10", 24, "192.168.1.1", {}}, {"192.168.1.10"}}, done = {wanted, {"10.0.0.2"}};
  const Seen old = {{"192.168.1.10", 24, "192.168.1.1", false}, {}};
  const std::string is = "10.0.0.2/16, no gateway", differs = "different: it answers from ";
  const struct {
    std::optional<Seen> after;
    Reply reply;
    std::string told;
  } cases[] = {
      {done, Reply::Ack, "done: " + is},
      {done, Reply::None, "done: " + is + doubt},
      {{{wanted, {}}}, Reply::Ack, "done: " + is},
      {{{{"10.0.0.2", 16, {}, {}}, {}}}, Reply::Ack, "done: " + is},
      {old, Reply::Ack, unchanged},
      {old, Reply::None, neither},
      {before, Reply::Nack, refused},
      {done, Reply::Nack, refused + ", but its settings are now " + is},
      {{}, Reply::Nack, refused},
      {{}, Reply::Ack, "gone: acknowledged" + gone},
      {{}, Reply::None, "gone: not acknowledged" + gone},
      {{{old.settings, {"10.0.0.2"}}},
       Reply::Ack,
       differs + "10.0.0.2 while its record shows 192.168.1.10 (its service refused, so the interface alone was set), "
                 "its prefix length is 24, its gateway is 192.168.1.1"},
      {{{wanted, {"192.168.1.10"}}}, Reply::Ack, differs + "192.168.1.10 while its record shows 10.0.0.2"},
      {{{{{}, {}, {}, false}, {}}}, Reply::Ack, "different: its address is none, its mask has holes"},
      {{{{"10.0.0.2", 16, "10.0.0.1", true}, {}}}, Reply::Ack, "different: its gateway is 10.0.0.1, DHCP is still on"}};
  for (const auto& c : cases) EXPECT_EQ(c.told, Told(JudgeStatic(wanted, before, c.after, c.reply)));
  EXPECT_EQ("done: " + is, Told(JudgeStatic(wanted, done, done, Reply::Ack)));
  EXPECT_EQ(neither, Told(JudgeStatic(wanted, done, done, Reply::None)));  // it was so before
}

TEST(Judgement, TellsWhatCameOfDhcp) {
  const auto seen = [](const char* address, std::optional<bool> dhcp) {
    return Seen{{address, 24, "1.1.1.9", dhcp}, {}};
  };
  const std::string one = "1.1.1.1/24, gateway 1.1.1.9", two = "2.2.2.2/24, gateway 1.1.1.9",
                    unseen = ", as far as can be seen: without its service a device never shows DHCP";
  const struct {
    const char* address;
    bool on;
    std::optional<bool> before, after;
    Reply reply;
    std::string told;
  } cases[] = {{"1.1.1.1", true, false, true, Reply::Ack, "done: " + one + ", by DHCP"},
               {"1.1.1.1", true, false, true, Reply::None, "done: " + one + ", by DHCP" + doubt},
               {"1.1.1.1", true, false, false, Reply::Ack, unchanged},
               {"2.2.2.2", true, false, false, Reply::Ack, "different: DHCP is off with " + two},
               {"2.2.2.2", true, {}, {}, Reply::Ack, "done: " + two + unseen},
               {"1.1.1.1", true, {}, {}, Reply::None, neither},
               {"2.2.2.2",
                true,
                {},
                {},
                Reply::None,
                "different: its service is away now, so DHCP cannot be seen; it has " + two},
               {"1.1.1.1", true, {}, {}, Reply::Nack, refused},
               {"1.1.1.1", false, true, false, Reply::Ack, "done: " + one},
               {"1.1.1.1", false, true, true, Reply::Ack, unchanged},
               {"1.1.1.1",
                false,
                true,
                {},
                Reply::Ack,
                "different: its service is away now, so DHCP cannot be seen; it has " + one},
               {nullptr, true, {}, {}, Reply::Ack, "gone: acknowledged" + gone}};
  for (const auto& c : cases) {
    const auto after = c.address != nullptr ? std::optional(seen(c.address, c.after)) : std::nullopt;
    EXPECT_EQ(c.told, Told(JudgeDhcp(c.on, seen("1.1.1.1", c.before), after, c.reply)));
  }
}

TEST(Restoring, NamesTheCommandThatBringsTheOldSettingsBack) {
  const Settings now = {"192.168.1.20", 24, "192.168.1.1", false};
  const struct {
    Settings before;
    const char* command;
  } cases[] = {{{"192.168.1.10", 24, "192.168.1.1", true}, "tarnddp dhcp M on"},
               {{"192.168.1.10", 24, "192.168.1.1", {}}, "tarnddp set-ip M 192.168.1.10/24 --gateway 192.168.1.1"},
               {{"10.0.0.1", 8, {}, false}, "tarnddp set-ip M 10.0.0.1/8"},
               {{"192.168.1.10", 24, {}, false}, "tarnddp set-ip M 192.168.1.10/24 --gateway 0.0.0.0"},
               {{"10.0.0.1", 8, "11.0.0.1", false}, "tarnddp set-ip M 10.0.0.1/8 --gateway 11.0.0.1 --force"},
               {{"0.0.0.0", 0, {}, false}, ""},
               {{"10.0.0.1", {}, {}, false}, ""},
               {{"$(halt)", 8, {}, false}, ""}};
  for (const auto& c : cases) EXPECT_EQ(c.command, RestoringCommand("M", c.before, now));
}

TEST(Reachability, TakesBothEndsInOneNetwork) {
  const std::vector<Interface> heardOn = {{"eth0", 2, true, true, false, true, {{0xc0a80103, 24}}, ""}};
  const struct {
    Settings settings;
    const char *route, *word;
  } cases[] = {
      {{"192.168.1.20", 24, {}, false}, "eth0", ""},       {{"10.0.0.1", 8, {}, false}, "", "not be"},
      {{"10.0.0.1", 8, {}, false}, "eth0", "not be"},      {{"10.0.0.1", 8, "10.0.0.2", false}, "eth0", "router"},
      {{"192.168.1.20", 28, {}, false}, "eth0", "not be"}, {{"192.168.1.4", 29, {}, false}, "eth0", ""}};
  for (const auto& c : cases) {
    const std::string note = ReachabilityNote(c.settings, heardOn, c.route);
    EXPECT_EQ(*c.word == '\0', note.empty()) << note;
    EXPECT_NE(std::string::npos, note.find(c.word)) << note;
  }
}

TEST(Forwarding, SendsNothingThatTheDaemonItselfWouldTake) {
  const std::string filler(1019, 'x'), nul("a\0b", 3);
  const struct {
    const char* word;
    std::vector<std::string> arguments;
    std::string request;
  } cases[] = {{"hello", {}, "hello\r\n"},
               {"Hello", {"a b", "", "00:1b:c4:0a:ff:05"}, "Hello\ta b\t\t00:1b:c4:0a:ff:05\r\n"},
               {"a", {filler}, "a\t" + filler + "\r\n"},
               {"a", {filler + "x"}, ""},
               {"a", {"b\r"}, ""},
               {"a", {"b", nul}, ""},
               {"a", {"001bc40aff05"}, ""},
               {"a", {"00-1b-c4-0a-ff-05"}, ""},
               {"a", {"001bc40aff05:x"}, ""}};
  for (const auto& c : cases) {
    std::string request;
    EXPECT_EQ(c.request.empty(), !ForwardedRequest(c.word, c.arguments, request).empty()) << c.word;
    EXPECT_EQ(c.request, request);
  }
  for (const char* word :
       {"", "a\tb", "SYSTRACE!\n", "SysTrace!", "executecommand!", "DEVICEIDENT?", "deviceidentext?", "SETIPADDRESS!",
        "SETDHCPMODE!", "DEVICEREBOOT!", "DEVICEDISABLEIDENT!", "DEVICEENABLEIDENT!"}) {
    std::string request;
    EXPECT_NE("", ForwardedRequest(word, {}, request)) << word;
    EXPECT_EQ("", request) << word;
  }
}

}  // namespace
}  // namespace tarnddp
