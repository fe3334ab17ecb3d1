#include "ddp/Upkeep.h"

#include "ddp/DeviceService.h"
#include "ddp/TarnDDPServer.h"
#include "tests/unit/SystemCalls.h"

namespace {

/// What the sockets are told: the ports that they are bound to, the groups that they join (+4, +6) and leave (-4, -6),
/// '!' behind what fails, as to join once more does. The ports `taken` are another's. The clock shows `seconds`.
class Upkeep : public testing::Test, ReplacedCalls {
 protected:
  void SetUp() override {
    ASSERT_NE(nullptr, std::getenv("SANDBOX_HALT_MARK")) << "opens the discovery ports: inside scripts/sandbox only";
    on_bind = [this](int own, const sockaddr* address, socklen_t size) {
      const std::string port = std::to_string(ntohs(reinterpret_cast<const sockaddr_in*>(address)->sin_port));
      const bool isTaken = taken.find(port) != std::string::npos;
      log += port + (isTaken ? "! " : " ");
      return isTaken ? (errno = EADDRINUSE, -1) : real_bind(own, address, size);
    };
    on_setsockopt = [this](int own, int level, int option, const void* value, socklen_t size) {
      const bool isIPv4 = level == IPPROTO_IP, isJoin = option == (isIPv4 ? IP_ADD_MEMBERSHIP : IPV6_ADD_MEMBERSHIP);
      const bool isLeave = option == (isIPv4 ? IP_DROP_MEMBERSHIP : IPV6_DROP_MEMBERSHIP);
      const int result = real_setsockopt(own, level, option, value, size);
      if (level != SOL_SOCKET && (isJoin || isLeave))
        log += std::string(isJoin ? "+" : "-") + (isIPv4 ? "4" : "6") + (result != 0 ? "! " : " ");
      return result;
    };
    on_connect = [](int own, const sockaddr* address, socklen_t size) {
      std::cout << "Connecting\n" << std::flush;
      return real_connect(own, address, size);
    };
    on_clock_gettime = [](clockid_t, timespec* time) { return *time = {seconds, 0}, 0; };
  }

  /// What the sockets are told and what is printed when `later` seconds have passed.
  std::string Next(int later, const char* interface, void (*retry)(const char*, int, const char*) = nullptr) {
    log.clear();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    seconds += later;
    Upkeep_Network(interface);
    if (retry != nullptr) retry("127.0.0.1", 1, "absent0");
    return log + testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
  }

  std::string log, taken;
  static inline std::time_t seconds = 1000;
};

}  // namespace

/// Snooping switches would see the device leave and join. A socket may have some twenty memberships, those on
/// interfaces that are gone included; and one that lost a group has it still, as far as a socket of ours is told.
TEST_F(Upkeep, JoinsWhereAMembershipIsMissingAndOnlyThere) {
  const std::pair<const char*, const char*> rows[] = {
      {"ip link add tarn2 mtu 1000 type veth peer name tarn3 && ip link set tarn2 up", "+4 +6! "},  // small for IPv6
      {"ip route show dev tarn2 | grep -q ^224.0.0.0/3", "+6! "},
      {"ip link set tarn2 mtu 1500", "+6 "},
      {"true", ""},
      {"ip link set tarn2 mtu 1000 && ip link set tarn2 mtu 1500", "-6 +6 "},
      {"ip link del tarn2", ""},
      {"ip link add tarn2 type veth peer name tarn3 && ip link set tarn2 up", "-4 +4 -6 +6 "},
      {"ip link del tarn2", ""}};
  EXPECT_EQ("+4 +6 ", Next(6, "lo"));
  for (const auto& [change, expected] : rows) {
    ASSERT_EQ(0, std::system(change)) << change;
    EXPECT_EQ(expected, Next(6, "tarn2")) << change;
  }
}

TEST_F(Upkeep, TriesClosedEndpointsAndTheServiceEvery5SecondsAndTellsAClosedOneOnce) {
  const std::string all = "5562 5563 5564", away = "Connecting\nConnecting\nFailed to attach to device API - APPTERM\n",
                    opened = away + "Successfully opened server conenctions\n",
                    failed = "5564! 5563! 5562! " + away + "Failed to open server connections\n";
  std::string told;
  for (const std::string port : {"5564", "5563", "5562"})
    told += "tarnddpd: UDP port " + port + " could not be opened: Address already in use; tried again every 5 s\n";
  const std::tuple<int, std::string, std::string> rows[] = {
      {6, all, failed},
      {5, all, "+4 +6 " + told},
      {1, all, failed},
      {5, all, "+4 +6 "},
      {1, "5564 5562", "5564! 5563 +4 5562! " + opened},
      {0, "5564 5562", "5564! 5562! +4! +6 "},  // at once, as the sockets are new
      {6, "5564 5562", "5564! 5562! -6! +6 " + away},
      {6, "", "5564 +6! 5562 +4! +6 " + away}};
  for (int times = 0; times < 2; ++times) {
    Server.connectionsOpen = false;
    EXPECT_NE(std::string::npos, Next(6, "lo", Upkeep_Attach).find(away));
    for (const auto& [later, ports, expected] : rows) {
      taken = ports;
      EXPECT_EQ(expected, Next(later, "lo", Upkeep_Retry)) << &expected - &std::get<2>(rows[0]);
    }
  }
  for (const auto& endpoint : Server.GetEndpoints()) EXPECT_EQ(0, endpoint.error) << endpoint.port;
  // The same with the service there.
  CTCP service;
  service.OpenPort(0, 40009, 5);
  TarnDDPCommand_Init("127.0.0.1", 40009, "lo");
  Server.connectionsOpen = false;
  taken = all;
  int attempts = 0;
  for (int second = 0; second < 12; ++second)
    attempts += Next(1, "absent0", Upkeep_Retry).find("Failed to open") != std::string::npos ? 1 : 0;
  EXPECT_EQ(2, attempts);
}

TEST_F(Upkeep, JoinsBothGroupsOnAnInterfaceThatMayHaveThem) {
  Server.InitConnections();
  const unsigned loopback = if_nametoindex("lo");
  Server.LeaveGroup(AF_INET, loopback);
  Server.LeaveGroup(AF_INET6, loopback);
  for (const char* expected : {"+4 +6 ", "+4! +6! "}) {
    log.clear();
    EXPECT_TRUE(Server.JoinGroups(loopback));
    EXPECT_EQ(expected, log);
  }
  EXPECT_TRUE(Server.LeaveGroup(AF_INET, loopback));
  EXPECT_FALSE(Server.JoinGroups(999));
}

/// A reply that waits for its command, or trace text; by IPv4 to the port of IPv6.
TEST_F(Upkeep, TheLastRequesterIsReachedThroughTheSocketsThatReplaceOthers) {
  const int requester = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in port = {};
  port.sin_family = AF_INET;
  port.sin_port = htons(5564);
  char text[9] = "";
  Server.InitConnections();
  EXPECT_EQ(1, sendto(requester, "?", 1, 0, reinterpret_cast<const sockaddr*>(&port), sizeof port));
  EXPECT_EQ("?", Server.Receive());
  Server.InitConnections();
  EXPECT_TRUE(Server.Send("answer"));
  EXPECT_EQ(6, recv(requester, text, sizeof text, MSG_DONTWAIT));
  std::string tries;
  on_sendto = [&tries](int, const void*, size_t, int flags, const sockaddr*, socklen_t) {
    tries += flags == MSG_DONTWAIT ? '.' : '!';
    errno = EAGAIN;
    return -1;
  };
  EXPECT_FALSE(Server.Send("trace text", 1));
  EXPECT_EQ("..", tries);
  close(requester);
}

/// The system may choose for our end the very port that we connect to.
TEST(ServiceConnection, IsGivenUpIfItLeadsToItselfAndElseKept) {
  for (const int port : {40001, 40002, 40003}) {
    const bool isItself = port != 40002;
    const std::string range = isItself ? std::to_string(port) + ' ' + std::to_string(port) : "40009 60999";
    ASSERT_EQ(0, std::system(("echo " + range + " >/proc/sys/net/ipv4/ip_local_port_range").c_str()));
    CTCP service;
    ASSERT_TRUE(isItself || service.OpenPort(0, static_cast<unsigned short>(port), 5));
    TarnDDPCommand_Init("127.0.0.1", port, "lo");
    EXPECT_TRUE(IsConnected());
    for (int times = 0; times < 2; ++times) Upkeep_ServiceConnection();
    EXPECT_EQ(!isItself, IsConnected());
    TarnDDPCommand_Final();
  }
}
