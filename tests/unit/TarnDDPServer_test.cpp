#include "ddp/TarnDDPServer.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <netdb.h>
#include <poll.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/unit/LoopbackPeer.h"

namespace {

/// A requester on this host, on a port of its own.
class Requester {
 public:
  Requester(const char* address, const char* port) {
    addrinfo hints = {};
    hints.ai_socktype = SOCK_DGRAM;
    if (getaddrinfo(address, port, &hints, &to_) != 0) std::abort();
    socket_ = socket(to_->ai_family, SOCK_DGRAM, 0);
  }
  ~Requester() {
    freeaddrinfo(to_);
    close(socket_);
  }
  Requester(const Requester&) = delete;
  Requester& operator=(const Requester&) = delete;

  bool send(const std::string& text) const {
    return sendto(socket_, text.data(), text.size(), 0, to_->ai_addr, to_->ai_addrlen) ==
           static_cast<ssize_t>(text.size());
  }
  /// What came back within 0.2 s.
  std::string receive() const {
    pollfd readable = {socket_, POLLIN, 0};
    char text[2048];
    if (poll(&readable, 1, 200) != 1) return "nothing";
    return std::string(text, static_cast<std::size_t>(recv(socket_, text, sizeof text, 0)));
  }

 private:
  addrinfo* to_ = nullptr;
  int socket_;
};

/// The loopback interface for what has one receiver, and an Ethernet for the groups, on which a sender hears itself.
class ServerEndpoints : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_EQ(0, std::system("ip link add tarn0 type veth peer name tarn1 && ip link set tarn1 up &&"
                             "ip link set tarn0 addrgenmode none && ip addr add 10.77.0.1/24 dev tarn0 &&"
                             "ip addr add fd77::1/64 dev tarn0 nodad && ip link set tarn0 up &&"
                             "ip route add 224.0.0.0/3 dev tarn0"));
    index = if_nametoindex("tarn0");
    ASSERT_TRUE(Server.JoinGroups(index));
    ASSERT_TRUE(Server.JoinGroups(index)) << "joined already";
  }
  static inline unsigned index;
};

}  // namespace

TEST_F(ServerEndpoints, SendNothingBeforeTheFirstRequest) {
  EXPECT_TRUE(Server.connectionsOpen);
  EXPECT_FALSE(Server.Send("x"));
  EXPECT_EQ("Unknown", Server.GetScanMethod());
  EXPECT_FALSE(Server.WasDirectAddressed());
}

TEST_F(ServerEndpoints, TakeADatagramUpToItsFirstNulAndDropWhatFillsTheBuffer) {
  const Requester pc("127.0.0.1", port_Broadcast);
  const struct {
    std::string datagram, text;
  } cases[] = {{std::string(1023, 'x'), std::string(1023, 'x')},
               {std::string(1024, 'x'), ""},
               {std::string(5000, 'x'), ""},
               {"", ""},
               {std::string("ab\0cd\r\n", 7), "ab"},
               {"ab\r\n", "ab\r\n"}};
  for (const auto& c : cases) {
    ASSERT_TRUE(pc.send(c.datagram));
    EXPECT_EQ(c.text, Server.Receive()) << c.datagram.size() << " bytes";
  }
  EXPECT_EQ("", Server.Receive()) << "none is left over";
}

TEST_F(ServerEndpoints, AnswerWhereTheRequestCameFromButTheIPv4GroupToTheGroup) {
  const struct {
    const char *address, *port, *scanMethod, *sender;
    bool isDirect, isReplyToGroup;
  } cases[] = {{"ff12::12%tarn0", "5564", "IPV6 Multicast", "fd77::1", true, false},
               {"::1", "5564", "IPV6 Multicast", "::1", true, false},
               {"127.0.0.1", "5564", "IPV6 Multicast", "::ffff:127.0.0.1", true, false},
               {"224.0.5.128", "5563", "IPV4 Multicast", "10.77.0.1", false, true},
               {"127.0.0.1", "5563", "IPV4 Multicast", "127.0.0.1", false, true},
               {"127.0.0.1", "5562", "UDP Broadcast", "127.0.0.1", false, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.address) + " port " + c.port);
    const Requester pc(c.address, c.port);
    ASSERT_TRUE(pc.send("request"));
    ASSERT_EQ("request", Server.Receive());
    EXPECT_EQ(c.scanMethod, Server.GetScanMethod());
    EXPECT_EQ(c.sender, Server.GetSender());
    EXPECT_EQ(c.isDirect, Server.WasDirectAddressed());
    EXPECT_TRUE(Server.Send("reply"));
    EXPECT_EQ(c.isReplyToGroup ? "nothing" : "reply", pc.receive());
    if (c.isReplyToGroup) {
      EXPECT_EQ("reply", Server.Receive()) << "we are in the group ourselves";
    }
  }
}

TEST_F(ServerEndpoints, AreReadOneForEachCallInTheirOrder) {
  const Requester last("127.0.0.1", port_Broadcast);
  const Requester second("127.0.0.1", port_IPV4);
  const Requester first("::1", port_IPV6);
  ASSERT_TRUE(last.send("last") && second.send("second") && first.send("first"));
  for (const char* text : {"first", "second", "last", ""}) EXPECT_EQ(text, Server.Receive());
}

TEST_F(ServerEndpoints, ReopenWithoutLosingADescriptorOrTheRequester) {
  const Requester pc("::1", port_IPV6);
  ASSERT_TRUE(pc.send("request"));
  ASSERT_EQ("request", Server.Receive());
  const int before = CountDescriptors();
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(Server.InitConnections());
  EXPECT_EQ(before, CountDescriptors());
  EXPECT_TRUE(Server.WasDirectAddressed());
  EXPECT_TRUE(Server.Send("reply"));
  EXPECT_EQ("reply", pc.receive());
}

TEST_F(ServerEndpoints, OutliveAnyNumberOfInterfaces) {
  for (int i = 0; i < 25; ++i) {  // a socket may have twenty memberships, those on interfaces that are gone included
    ASSERT_EQ(0, std::system("ip link add tarn2 type veth peer name tarn3 && ip link set tarn2 up"));
    const unsigned passing = if_nametoindex("tarn2");
    ASSERT_TRUE(Server.JoinGroups(passing)) << i;
    ASSERT_EQ(0, std::system("ip link del tarn2"));
    Server.LeaveGroups(passing);
    ASSERT_FALSE(Server.JoinGroups(passing));
  }
}
