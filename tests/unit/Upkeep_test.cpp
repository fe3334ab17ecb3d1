#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

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

TEST(Upkeep, ReadsTheListsOfMembershipsByInterfaceAndGroup) {
  const std::string igmp =
      "Idx\tDevice    : Count Querier\tGroup    Users Timer\tReporter\n"
      "1\tlo        :     1      V3\n\t\t\t\t010000E0     1 0:00000000\t\t0\n"
      "12\teth0      :     2      V3\n\t\t\t\t800500E0     1 0:00000000\t\t0\n\t\t\t\t010000E0     1 0:00000000\t\t0\n"
      "2\teth1      :     1      V3\n\t\t\t\t010000E0     1 0:00000000\t\t0\n";
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
