#include "tool/Judge.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "DeviceSamples.h"

using namespace tarnddp;

namespace {

/// A PC with 192.168.1.3/24 on e and no other route than to there, unless `route` names where all else goes.
Host HostWith(ReversePath filter, const std::string& route) {
  Interface e;
  e.name = "e";
  e.hasLink = true;
  e.subnets = {{0xc0a80103, 24}};
  e.linkLocal = "fe80::3";
  return {{e},
          [filter](const std::string&) { return filter; },
          [route](IPv4 address) { return address >> 8U == 0xc0a801 ? std::string("e") : route; }};
}

std::vector<std::string> Problems(const std::vector<Answer>& answers, const Host& host) {
  Devices devices;
  for (const Answer& answer : answers) devices.Add(answer);
  std::vector<std::string> problems;
  for (const Finding& finding : Judge(devices.All(), host))
    problems.insert(problems.end(), finding.problems.begin(), finding.problems.end());
  return problems;
}

const std::string m = "00:1b:c4:00:00:01", n = "00:1b:c4:00:00:02";

}  // namespace

TEST(Judge, NamesWhatIsSharedAndWhatContradicts) {
  const Host host = HostWith(ReversePath::Accepts, "");
  const std::string five = "the MAC address " + m + " in common with ", at = " (" + m + ") at fe80::";
  const struct {
    std::vector<Answer> answers;
    std::vector<std::string> problems;
  } cases[] = {
      {{{SourceOf("e", "fe80::1"), RecordOf(m, "1", "192.168.1.2")},
        {SourceOf("e", "192.168.1.2"), RecordOf(m, "1", "192.168.1.2")}},
       {}},
      {{{SourceOf("e", "192.168.1.9"), RecordOf(m, "1", "192.168.1.2")}},
       {"its record names the address 192.168.1.2, but it answers from 192.168.1.9"}},
      {{{SourceOf("e", "fe80::1"), RecordOf(m, "1", "10.0.0.1", "A")},
        {SourceOf("e", "fe80::2"), RecordOf(n, "2", "10.0.0.1", "B")}},
       {"has the address 10.0.0.1 in common with B (" + n + ") at fe80::2%e, on e",
        "has the address 10.0.0.1 in common with A (" + m + ") at fe80::1%e, on e"}},
      {{{SourceOf("e", "fe80::1"), RecordOf(m, "1", "10.0.0.1", "A")},
        {SourceOf("f", "fe80::2"), RecordOf(n, "2", "10.0.0.1", "B")}},
       {"has the address 10.0.0.1 in common with B (" + n + ") at fe80::2%f, on e",
        "has the address 10.0.0.1 in common with A (" + m + ") at fe80::1%e, on f"}},
      {{{SourceOf("e", "fe80::1"), RecordOf(m, "1", "0.0.0.0", "A")},
        {SourceOf("e", "fe80::2"), RecordOf(m, "2", "0.0.0.0", "B")}},
       {"has the MAC address " + m + " in common with B (" + m + ") at fe80::2%e, on e",
        "has the MAC address " + m + " in common with A (" + m + ") at fe80::1%e, on e"}},
      {{{SourceOf("e", "fe80::1"), RecordOf(m, "1", "192.168.1.3")}}, {"this PC has its address 192.168.1.3 as well"}},
      {{{SourceOf("e", "fe80::3"), RecordOf(m, "1", "192.168.1.3")}}, {}},  // the daemon on this PC
      {{{SourceOf("e", "fe80::1"), RecordOf(m, "1", "10.0.0.1", "A")},
        {SourceOf("e", "fe80::2"), RecordOf(m, "1", "10.0.0.2", "B")},
        {SourceOf("e", "fe80::4"), RecordOf(m, "1", "10.0.0.3", "C")},
        {SourceOf("e", "fe80::5"), RecordOf(m, "1", "10.0.0.4", "D")},
        {SourceOf("e", "fe80::6"), RecordOf(m, "1", "10.0.0.5", "E")}},
       {"has " + five + "B" + at + "2%e, C" + at + "4%e, D" + at + "5%e and 1 more, on e",
        "has " + five + "A" + at + "1%e, C" + at + "4%e, D" + at + "5%e and 1 more, on e",
        "has " + five + "A" + at + "1%e, B" + at + "2%e, D" + at + "5%e and 1 more, on e",
        "has " + five + "A" + at + "1%e, B" + at + "2%e, C" + at + "4%e and 1 more, on e",
        "has " + five + "A" + at + "1%e, B" + at + "2%e, C" + at + "4%e and 1 more, on e"}},
      // Without a MAC the two halves of one device stand side by side.
      {{{SourceOf("e", "fe80::1"), RecordOf("", "1", "192.168.1.2")},
        {SourceOf("e", "192.168.1.2"), RecordOf("", "1", "192.168.1.2")}},
       {}},
  };
  for (const auto& c : cases) EXPECT_EQ(c.problems, Problems(c.answers, host));
}

TEST(Judge, NamesTheOneRouteThatHelps) {
  const std::vector<Answer> near{{SourceOf("e", "fe80::1"), RecordOf(m, "1", "192.168.1.2")}};
  const std::vector<Answer> far{{SourceOf("e", "fe80::1"), RecordOf(m, "1", "10.1.2.3")}};
  const std::string generally =
      "this PC drops the IPv4 answers of devices in other networks that come to e (reverse-path "
      "filter, and no route back); as root: ip route add ";
  const std::string farOne =
      "this PC drops what 10.1.2.3 sends to e (reverse-path filter, and no route back); as root: "
      "ip route add 10.1.2.0/24 dev e";
  const struct {
    ReversePath filter;
    const char* route;
    std::string farProblem, general;
  } cases[] = {{ReversePath::Accepts, "", "", ""},
               {ReversePath::NeedsAnyRoute, "", farOne, generally + "default dev e"},
               {ReversePath::NeedsAnyRoute, "f", "", ""},
               {ReversePath::NeedsRouteHere, "", farOne, generally + "default dev e"},
               {ReversePath::NeedsRouteHere, "f", farOne, generally + "NETWORK/PREFIX dev e"},
               {ReversePath::NeedsRouteHere, "e", "", ""}};
  const auto lines = [](const std::string& text) { return std::vector<std::string>(text.empty() ? 0 : 1, text); };
  for (const auto& c : cases) {
    const Host host = HostWith(c.filter, c.route);
    EXPECT_EQ(lines(c.farProblem), Problems(far, host));
    EXPECT_EQ(lines(""), Problems(near, host));
    EXPECT_EQ(lines(c.general), ExplainFilters({}, host));
    Devices devices;
    devices.Add(far[0]);
    EXPECT_EQ(lines(""), ExplainFilters(Judge(devices.All(), host), host));
  }
  // The network is on another interface too, which the routes prefer.
  Host host = HostWith(ReversePath::NeedsRouteHere, "");
  host.routeInterface = [](IPv4) { return "f"; };
  ASSERT_EQ(1U, Problems(near, host).size());
  EXPECT_NE(std::string::npos, Problems(near, host)[0].find("ip route add 192.168.1.2/32 dev e"));
}
