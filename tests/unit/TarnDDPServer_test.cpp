#include "ddp/TarnDDPServer.h"

#include "tests/unit/LoopbackPeer.h"

namespace {

/// A socket that has sent `text` to a port of this host, an IPv6 or mapped IPv4 address.
int Request(const std::string& text, const char* host, const char* port) {
  sockaddr_in6 to = {};
  to.sin6_family = AF_INET6;
  to.sin6_port = htons(static_cast<in_port_t>(std::stoi(port)));
  inet_pton(AF_INET6, host, &to.sin6_addr);
  const int requester = socket(AF_INET6, SOCK_DGRAM, 0);
  EXPECT_EQ(0, connect(requester, reinterpret_cast<const sockaddr*>(&to), sizeof to));
  EXPECT_EQ(1, send(requester, text.data(), text.size(), 0));
  return requester;
}

}  // namespace

TEST(Server, ReadsOneEndpointForEachCallInTheirOrderAndAnswersThere) {
  EXPECT_FALSE(Server.Send("x")) << "before the first request";
  EXPECT_EQ("Unknown", Server.GetScanMethod());
  const char* const mapped = "::ffff:127.0.0.1";
  const int last = Request("3", mapped, port_Broadcast), third = Request("2", mapped, port_IPV4);
  const std::tuple<int, const char*, const char*, const char*> rows[] = {
      {Request("0", "::1", port_IPV6), "IPV6 Multicast", "::1", "reply"},
      {Request("1", mapped, port_IPV6), "IPV6 Multicast", mapped, "reply"},
      {third, "IPV4 Multicast", "127.0.0.1", "none"},  // to the group, where no way leads
      {last, "UDP Broadcast", "127.0.0.1", "reply"}};
  const int before = CountDescriptors();
  for (int i = 0; i < 4; ++i) {
    const auto& [requester, method, sender, reply] = rows[i];
    EXPECT_EQ(std::to_string(i), Server.Receive());
    for (int times = 0; i == 3 && times < 3; ++times) EXPECT_TRUE(Server.InitConnections());  // the requester stays
    EXPECT_EQ(method, Server.GetScanMethod());
    EXPECT_EQ(sender, Server.GetSender());
    EXPECT_EQ(i < 2, Server.WasDirectAddressed());
    EXPECT_EQ(i != 2, Server.Send("reply"));
    char text[6] = "none";
    recv(requester, text, sizeof text, MSG_DONTWAIT);
    EXPECT_STREQ(reply, text);
  }
  EXPECT_EQ(before, CountDescriptors());
}

TEST(Server, JoinsAndLeavesBothGroupsOnAnInterface) {
  const unsigned loopback = if_nametoindex("lo");
  for (int times = 0; times < 2; ++times) EXPECT_TRUE(Server.JoinGroups(loopback)) << times;
  for (const int family : {AF_INET, AF_INET6}) {
    EXPECT_TRUE(Server.LeaveGroup(family, loopback)) << family;
    EXPECT_FALSE(Server.LeaveGroup(family, loopback)) << family;
    EXPECT_FALSE(Server.JoinGroup(family, 999)) << family;
  }
  EXPECT_FALSE(Server.JoinGroups(999));
}
