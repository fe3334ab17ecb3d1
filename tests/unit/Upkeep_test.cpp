#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <string>

#include "ddp/TarnDDPServer.h"
#include "ddp/Upkeep.h"

/// Snooping switches would see the device leave and join. The interface is too small for IPv6, whose group is missing.
TEST(Upkeep, LeavesAMembershipThatIsThereAlone) {
  const auto run = [](const std::string& command) { return std::system(command.c_str()); };
  ASSERT_EQ(0,
            run("ip link add tarn4 mtu 1000 type veth peer name tarn5 mtu 1000 && ip addr add 10.9.0.1/24 dev tarn4 &&"
                "ip link set tarn4 up && ip link set tarn5 up"));
  const int listener = socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_IP));
  sockaddr_ll peer = {};
  peer.sll_family = AF_PACKET;
  peer.sll_protocol = htons(ETH_P_IP);
  peer.sll_ifindex = static_cast<int>(if_nametoindex("tarn5"));
  ASSERT_EQ(0, bind(listener, reinterpret_cast<const sockaddr*>(&peer), sizeof peer));
  const auto reports = [listener] {  // of memberships (IGMP), within the second that they may take
    int count = 0;
    for (pollfd input = {listener, POLLIN, 0}; poll(&input, 1, 1300) == 1;) {
      unsigned char packet[64] = {};
      recv(listener, packet, sizeof packet, 0);
      if (packet[9] == IPPROTO_IGMP) ++count;
    }
    return count;
  };
  for (const bool isFirst : {true, false}) {
    for (int times = 0; times < 3; ++times) Upkeep_ExpectNetworkChange(), Upkeep_Network("tarn4");
    EXPECT_EQ(isFirst, reports() > 0);
  }
  EXPECT_EQ(0, run("grep -q 800500E0 /proc/net/igmp && ip link del tarn4"));
  close(listener);
}

/// The socket of the server that is bound to `port`.
int SocketOf(const char* port) {
  for (int descriptor = 3; descriptor < 64; ++descriptor) {
    sockaddr_in6 bound = {};
    socklen_t length = sizeof bound;
    getsockname(descriptor, reinterpret_cast<sockaddr*>(&bound), &length);
    if (ntohs(bound.sin6_port) == std::stoi(port)) return descriptor;  // the port of either family is there
  }
  return -1;
}

/// What is done 5 s later, and said on standard error.
std::string NextUpkeep(const char* interface = "lo") {
  testing::internal::CaptureStderr();
  Upkeep_ExpectNetworkChange();
  Upkeep_Network(interface);
  return testing::internal::GetCapturedStderr();
}

/// The groups that the kernel has on the interface of that index.
std::string Joined(unsigned index) {
  std::ifstream igmp("/proc/net/igmp"), igmp6("/proc/net/igmp6");
  const std::string list{std::istreambuf_iterator<char>(igmp), {}}, list6{std::istreambuf_iterator<char>(igmp6), {}};
  const bool isIPV4 = Upkeep_ListsGroupIPV4(list, index, address_IPV4);
  const bool isIPV6 = Upkeep_ListsGroupIPV6(list6, index, address_IPV6);
  return isIPV4 && isIPV6 ? "both" : isIPV4 ? "IPv4" : isIPV6 ? "IPv6" : "none";
}

/// A socket may have some twenty memberships, those on interfaces that are gone included; and one that lost a group has
/// it still, as far as a socket of ours is told.
TEST(Upkeep, JoinsOnAnyNumberOfInterfacesOneAfterTheOther) {
  for (int i = 0; i < 25; ++i) {
    ASSERT_EQ(0, std::system("ip link add tarn2 type veth peer name tarn3 && ip link set tarn2 up"));
    const unsigned index = if_nametoindex("tarn2");
    NextUpkeep("tarn2");
    ASSERT_EQ("both", Joined(index)) << i;
    ASSERT_EQ(0, i != 0 ? 0 : std::system("ip link set tarn2 mtu 1000 && ip link set tarn2 mtu 1500"));
    NextUpkeep("tarn2");
    ASSERT_EQ("both", Joined(index)) << "lost by a change of the MTU";
    ASSERT_EQ(0, std::system("ip link del tarn2"));
  }
}

TEST(Upkeep, OpensASingleClosedEndpointLaterAndTellsItOnce) {
  const char* const ports[] = {port_IPV6, port_IPV4, port_Broadcast};
  for (int taken = 0; taken < 3; ++taken) {
    const int unbound = socket(AF_INET6, SOCK_DGRAM, 0);
    dup2(unbound, SocketOf(ports[taken]));
    const int holder = socket(AF_INET6, SOCK_DGRAM, 0);
    sockaddr_in6 any = {};
    any.sin6_family = AF_INET6;
    any.sin6_port = htons(static_cast<in_port_t>(std::stoi(ports[taken])));
    ASSERT_EQ(0, bind(holder, reinterpret_cast<const sockaddr*>(&any), sizeof any));
    Server.connectionsOpen = false;
    EXPECT_TRUE(Server.InitConnections());
    EXPECT_TRUE(Server.connectionsOpen);
    const std::string line = std::string("tarnddpd: UDP port ") + ports[taken] +
                             " could not be opened: Address already in use; tried again every 5 s\n";
    EXPECT_EQ(line, NextUpkeep());
    EXPECT_EQ("", NextUpkeep());
    for (int which = 0; which < 3; ++which) {
      const TarnDDPServer::EndpointState state = Server.GetEndpoints().at(static_cast<std::size_t>(which));
      EXPECT_STREQ(ports[which], state.port);
      EXPECT_EQ(which == taken ? EADDRINUSE : 0, state.error) << which;
    }
    close(holder);
    close(unbound);
    const int others[] = {SocketOf(ports[(taken + 1) % 3]), SocketOf(ports[(taken + 2) % 3])};
    const int member = socket(AF_INET6, SOCK_DGRAM, 0);  // so that the groups are there, but not for the new socket
    const unsigned loopback = if_nametoindex("lo");
    ip_mreqn group = {{}, {}, static_cast<int>(loopback)};
    ipv6_mreq group6 = {{}, loopback};
    inet_pton(AF_INET, address_IPV4, &group.imr_multiaddr);
    inet_pton(AF_INET6, address_IPV6, &group6.ipv6mr_multiaddr);
    EXPECT_EQ(0, setsockopt(member, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group));
    EXPECT_EQ(0, setsockopt(member, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &group6, sizeof group6));
    EXPECT_EQ("", NextUpkeep());
    close(member);
    EXPECT_EQ(others[0], SocketOf(ports[(taken + 1) % 3])) << "left alone";
    EXPECT_EQ(others[1], SocketOf(ports[(taken + 2) % 3])) << "left alone";
    EXPECT_NE(-1, SocketOf(ports[taken]));
    EXPECT_EQ(0, Server.GetEndpoints().at(static_cast<std::size_t>(taken)).error);
    EXPECT_EQ("both", Joined(loopback)) << ports[taken];
  }
}

TEST(Upkeep, ReadsTheListsOfMembershipsByInterfaceAndGroup) {
  const bool isLittle = htonl(1) != 1;  // the kernel prints an address as a number of its machine
  const std::string tail = "     1 0:00000000\t\t0\n",
                    all = (isLittle ? "\t\t\t\t010000E0" : "\t\t\t\tE0000001") + tail,
                    ours = (isLittle ? "\t\t\t\t800500E0" : "\t\t\t\tE0000580") + tail;
  const std::string igmp =
      "Idx\tDevice    : Count Querier\tGroup    Users Timer\tReporter\n1\tlo        :     1      V3\n" + all +
      "12\teth0      :     2      V3\n" + ours + all + "2\teth1      :     1      V3\n" + all;
  const std::string igmp6 =
      "1    lo              ff020000000000000000000000000001     1 0000000C 0\n"
      "12   eth0            ff120000000000000000000000000012     1 00000004 0\n"
      "2    eth1            ff0200000000000000000000000000fb     1 00000004 0\n";
  for (const unsigned index : {1U, 2U, 12U, 0U}) {
    EXPECT_EQ(index == 12, Upkeep_ListsGroupIPV4(igmp, index, "224.0.5.128")) << index;
    EXPECT_EQ(index != 0, Upkeep_ListsGroupIPV4(igmp, index, "224.0.0.1")) << index;
    EXPECT_EQ(index == 12, Upkeep_ListsGroupIPV6(igmp6, index, "FF12::12")) << index;
    EXPECT_EQ(index == 2, Upkeep_ListsGroupIPV6(igmp6, index, "ff02::fb")) << index;
  }
}
