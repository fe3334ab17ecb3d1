#include "tool/Judge.h"

#include "DeviceSamples.h"

using namespace tarnddp;

namespace {

/// A PC with 192.168.1.3/24 on e, and 192.168.1.9, which has a double, 10.8.0.2 where it does not ask, and no other
/// route than to the first, unless `route` names where all else goes.
Host HostWith(ReversePath filter, const std::string& route) {
  return {{{"e", 2, true, true, false, true, {{0xc0a80103, 24}, {0xc0a80109, 24, false}}, "fe80::3"}},
          {0x7f000001, 0xc0a80103, 0xc0a80109, 0x0a080002},
          [filter](const std::string&) { return filter; },
          [route](IPv4 address) { return address >> 8U == 0xc0a801 ? std::string("e") : route; }};
}

std::vector<Finding> Judged(const std::vector<std::string>& answers, const Host& host) {
  Devices devices;
  for (const std::string& words : answers) devices.Add(AnswerOf(words));
  return Judge(devices.All(), host);
}

}  // namespace

TEST(Judge, NamesWhatIsSharedAndWhatContradicts) {
  const std::string m = "00:1b:c4:00:00:01", common = " in common with ", at = " (" + m + ") at fe80::";
  const struct {
    std::vector<std::string> answers;
    std::string problem;  // of the first device
  } cases[] = {
      {{"e fe80::1 1 1 192.168.1.2", "e 192.168.1.2 1 1 192.168.1.2"}, ""},
      {{"e 192.168.1.9 1 1 192.168.1.2"}, "its record names the address 192.168.1.2, but it answers from 192.168.1.9"},
      {{"e 192.168.1.9 1 1"}, "its record names no address, but it answers from 192.168.1.9"},
      {{"e fe80::1 1 1 10.0.0.1 A", "f fe80::2 2 2 10.0.0.1 B"},
       "has the address 10.0.0.1" + common + "B (00:1b:c4:00:00:02) at fe80::2%f, on e"},
      {{"e fe80::1 1 1 0.0.0.0 A", "e fe80::2 1 2 0.0.0.0 B"},
       "has the MAC address " + m + common + "B" + at + "2%e, on e"},
      {{"e fe80::1 1 1 10.8.0.2"}, "this PC has its address 10.8.0.2 as well"},
      {{"e fe80::3 1 1 192.168.1.3"}, ""},  // the daemon on this PC
      {{"e 192.168.1.3 1 1 192.168.1.3"}, ""},
      {{"e 192.168.1.9 1 1 192.168.1.9"}, "this PC has its address 192.168.1.9 as well"},
      {{"e fe80::1 1 1 10.0.0.1 A", "e fe80::2 1 1 10.0.0.2 B", "e fe80::4 1 1 10.0.0.3 C", "e fe80::5 1 1 10.0.0.4 D",
        "e fe80::6 1 1 10.0.0.5 E"},
       "has the MAC address " + m + common + "B" + at + "2%e, C" + at + "4%e, D" + at + "5%e and 1 more, on e"},
      // Without a MAC the two halves of one device stand side by side.
      {{"e fe80::1 - 1 192.168.1.2", "e 192.168.1.2 - 1 192.168.1.2"}, ""},
      {{"e fe80::1 - 1 192.168.1.2 A", "e 192.168.1.2 - 1 192.168.1.2 A", "e fe80::4 - 1 192.168.1.2 A",
        "e fe80::5 - 2 192.168.1.2 B", "e fe80::6 1 6 192.168.1.2 C", "e fe80::7 7 7 192.168.1.2 D"},
       "has the address 192.168.1.2" + common + "C" + at +
           "6%e, D (00:1b:c4:00:00:07) at fe80::7%e, A (fe80::4%e) at fe80::4%e and 1 more, on e"}};
  for (const auto& c : cases) {
    const std::vector<Finding> found = Judged(c.answers, HostWith(ReversePath::Accepts, ""));
    EXPECT_EQ(c.problem.empty() ? 0U : 1U, found[0].problems.size()) << c.answers[0];
    for (const std::string& problem : found[0].problems) EXPECT_EQ(c.problem, problem);
  }
}

TEST(Judge, NamesTheOneRouteThatHelps) {
  const std::string dropped = " (reverse-path filter, and no route back); as root: ip route add ",
                    farOne = "this PC drops what 10.1.2.3 sends to e" + dropped + "10.1.2.0/24 dev e",
                    generally = "this PC drops the IPv4 answers of devices in other networks that come to e" + dropped;
  const struct {
    ReversePath filter;
    const char* route;
    std::string farProblem, general;
  } cases[] = {{ReversePath::Accepts, "", "", ""},
               {ReversePath::NeedsAnyRoute, "", farOne, generally + "default dev e"},
               {ReversePath::NeedsAnyRoute, "f", "", ""},
               {ReversePath::NeedsRouteHere, "f", farOne, generally + "NETWORK/PREFIX dev e"},
               {ReversePath::NeedsRouteHere, "e", "", ""}};
  const auto lines = [](const std::string& text) { return std::vector<std::string>(text.empty() ? 0 : 1, text); };
  const std::vector<std::string> near = {"e fe80::1 1 1 192.168.1.2"}, far = {"e fe80::1 1 1 10.1.2.3"};
  for (const auto& c : cases) {
    const Host host = HostWith(c.filter, c.route);
    EXPECT_EQ(lines(c.farProblem), Judged(far, host)[0].problems);
    EXPECT_EQ(lines(""), Judged(near, host)[0].problems);
    EXPECT_EQ(lines(c.general), ExplainFilters({}, host));
    EXPECT_EQ(lines(""), ExplainFilters(Judged(far, host), host));
    Host unplugged = host;
    unplugged.interfaces[0].hasLink = false;
    EXPECT_EQ(lines(""), ExplainFilters({}, unplugged));
  }
  const char* masks[][2] = {{"255.0.0.0", "10.0.0.0/8"},
                            {"254.0.0.0", "10.1.2.3/32"},
                            {"0.0.0.0", "10.1.2.3/32"},
                            {"255.0.255.0", "10.1.2.3/32"}};
  for (const auto& [mask, network] : masks) {
    Device device = {1, RecordOf("1", "1", "10.1.2.3"), {SourceOf("e", "fe80::1")}};
    device.record.mask = mask;
    EXPECT_EQ(lines("this PC drops what 10.1.2.3 sends to e" + dropped + network + " dev e"),
              Judge({device}, HostWith(ReversePath::NeedsRouteHere, ""))[0].problems);
  }
  Host two = HostWith(ReversePath::NeedsRouteHere, "");
  two.interfaces.push_back({"f", 3, true, true, false, true, {{0xc0a80203, 24}}, ""});
  EXPECT_EQ(lines("this PC drops what 192.168.2.0/24 sends to f, as its routes do not look for that network there "
                  "(reverse-path filter); as root: sysctl net/ipv4/conf/f/rp_filter=2"),
            ExplainFilters(Judged(far, two), two));
  // The network is on another interface too, which the routes prefer.
  Host host = HostWith(ReversePath::NeedsRouteHere, "");
  host.routeInterface = [](IPv4) { return "f"; };
  EXPECT_EQ(lines("this PC drops what 192.168.1.2 sends to e" + dropped + "192.168.1.2/32 dev e"),
            Judged(near, host)[0].problems);
  EXPECT_EQ(lines(""), Judged({near[0], "f 192.168.1.2 1 1 192.168.1.2"}, host)[0].problems);  // heard by that one
  for (const char* nobodys : {"127.0.0.1", "224.1.1.1", "255.255.255.255"})
    EXPECT_EQ(lines(""), Judged({std::string("e fe80::1 1 1 ") + nobodys}, host)[0].problems);
}
