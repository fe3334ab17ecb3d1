#include "util/RouteMessage.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

template <typename Record>
void Append(Bytes& to, const Record& record) {
  to.resize(to.size() + sizeof(record));
  std::memcpy(to.data() + to.size() - sizeof(record), &record, sizeof(record));
}

void AppendAddress(Bytes& to, unsigned short type, const char* text) {
  if (text == nullptr) return;
  Append(to, rtattr{RTA_LENGTH(4), type});
  Append(to, inet_addr(text));
}

struct Route {
  const char* destination;
  const char* gateway;
  int family = AF_INET;
  int table = RT_TABLE_MAIN;
  int type = RTM_NEWROUTE;
  int flags = NLM_F_MULTI;
};
const Route END = {nullptr, nullptr, 0, 0, NLMSG_DONE};

Bytes Messages(const std::vector<Route>& routes) {
  Bytes all;
  for (const Route& route : routes) {
    rtmsg kind = {};
    kind.rtm_family = static_cast<unsigned char>(route.family);
    kind.rtm_table = static_cast<unsigned char>(route.table);
    Bytes body;
    Append(body, kind);
    AppendAddress(body, RTA_DST, route.destination);
    AppendAddress(body, RTA_GATEWAY, route.gateway);
    Append(all, nlmsghdr{static_cast<std::uint32_t>(NLMSG_LENGTH(body.size())), static_cast<std::uint16_t>(route.type),
                         static_cast<std::uint16_t>(route.flags), 0, 0});
    all.insert(all.end(), body.begin(), body.end());
  }
  return all;
}

char* NameOfIndex(unsigned index, char* name) {
  std::snprintf(name, IF_NAMESIZE, "port%u", index);
  return name;
}

std::string Text(in_addr address) { return inet_ntoa(address); }

/// The default gateway, "none" without one.
std::string Gateway(const Bytes& messages) {
  in_addr gateway = {};
  const bool found = RouteMessage_FindDefaultGateway(messages.data(), messages.size(), NameOfIndex, &gateway);
  return found ? Text(gateway) : "none";
}

}  // namespace

TEST(RouteMessage, FirstDestinationThatContainsTheZeroAddressIsTheDefaultRoute) {
  const struct {
    std::vector<Route> routes;
    const char* gateway;
  } cases[] = {{{{"192.168.1.0", "1.1.1.1"}, {nullptr, "192.168.1.1"}}, "192.168.1.1"},
               {{{"10.0.0.0", "10.9.9.9"}, {nullptr, "192.168.1.1"}}, "10.9.9.9"},
               {{{"1.2.3.4", "10.9.9.9", AF_INET, RT_TABLE_LOCAL}}, "0.0.0.0"},  // not read, so zero
               {{{"1.2.3.4", "10.9.9.9", AF_INET6}}, "0.0.0.0"},
               {{{"192.168.1.0", "192.168.1.1"}}, "none"},
               {{}, "none"}};
  for (const auto& c : cases) EXPECT_EQ(c.gateway, Gateway(Messages(c.routes)));
}

TEST(RouteMessage, ReadsEveryAttributeOfARoute) {
  Bytes message = Messages({{"10.1.0.0", "10.1.0.1"}});
  Append(message, rtattr{5, RTA_IIF});  // padded to eight
  Append(message, 0xeeeeeeee);
  AppendAddress(message, RTA_PREFSRC, "10.1.2.3");
  Append(message, rtattr{RTA_LENGTH(4), RTA_OIF});
  Append(message, 3u);
  const RouteInfo route = RouteMessage_Read(message.data(), message.size(), NameOfIndex);
  EXPECT_EQ("10.1.0.0", Text(route.destination));
  EXPECT_EQ("10.1.0.1", Text(route.gateway));
  EXPECT_EQ("10.1.2.3", Text(route.source));
  EXPECT_STREQ("port3", route.interfaceName);
}

TEST(RouteMessage, LengthsThatLieLeadNowhere) {
  const Bytes whole = Messages({{nullptr, "192.168.1.1"}});
  for (std::size_t size = 0; size < whole.size(); ++size) {  // each on the heap alone, for a sanitizer to see
    const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_EQ("0.0.0.0", Text(RouteMessage_Read(cut.data(), cut.size(), NameOfIndex).gateway)) << size;
    EXPECT_EQ("none", Gateway(cut)) << size;
  }
  for (const int length : {0, 3, 7, 9, 65535}) {  // of the only attribute
    Bytes lying = whole;
    const rtattr attribute = {static_cast<std::uint16_t>(length), RTA_GATEWAY};
    std::memcpy(&lying[28], &attribute, sizeof(attribute));
    EXPECT_EQ("0.0.0.0", Gateway(lying)) << length;
  }
}

TEST(RouteMessage, EndOfTheDumpIsSeenInAnyMessageAndIsNoRoute) {
  const Route route = {"10.1.0.0", "10.1.0.1"};
  const Route single = {"10.1.0.0", "10.1.0.1", AF_INET, RT_TABLE_MAIN, RTM_NEWROUTE, 0};
  const Route error = {nullptr, nullptr, 0, 0, NLMSG_ERROR};
  const std::size_t one = Messages({route}).size();
  Bytes cut = Messages({route, route});
  cut.pop_back();
  Bytes tooShort = Messages({route});
  std::memset(tooShort.data(), 0, sizeof(nlmsghdr::nlmsg_len));
  const struct {
    const char* what;
    Bytes datagram;
    RouteDump state;
    std::size_t routes;
  } cases[] = {{"routes alone", Messages({route, route}), RouteDump::Continues, 2 * one},
               {"the end alone", Messages({END}), RouteDump::Ended, 0},
               {"what is behind the end does not count", Messages({route, END, error}), RouteDump::Ended, one},
               {"a message that is no part of a dump", Messages({single}), RouteDump::Ended, one},
               {"an error", Messages({route, error}), RouteDump::Malformed, 99},
               {"a cut message", cut, RouteDump::Malformed, 99},
               {"a length below the header's", tooShort, RouteDump::Malformed, 99},
               {"nothing", {}, RouteDump::Malformed, 99}};
  for (const auto& c : cases) {
    std::size_t routes = 99;
    EXPECT_EQ(c.state, RouteMessage_ScanDatagram(c.datagram.data(), c.datagram.size(), &routes)) << c.what;
    EXPECT_EQ(c.routes, routes) << c.what;
  }
}
