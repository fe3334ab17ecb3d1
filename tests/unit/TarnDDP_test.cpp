#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>

#include <cstring>
#include <map>
#include <tuple>

#include "ddp/Datagram.h"
#include "ddp/Options.h"
#include "ddp/TarnDDPCommand.h"
#include "ddp/TarnDDPServer.h"
#include "ddp/Upkeep.h"
#include "tests/unit/LoopbackPeer.h"
#include "xmlrpc/XmlRpcUtil.h"

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

constexpr int THROWS = -100000;

/// A service whose answers hold nothing but a fault code, 0 for none; or that ends a call by an exception.
struct FakeService : TarnXmlRpc::XmlRpcClientTransportHTTP {
  std::map<std::string, int> faults;

  int execute(const std::string& request, std::string& document) override {
    int offset = 0;
    const int fault = faults[TarnXmlRpc::XmlRpcUtil::parseTag("<methodName>", request, &offset)];
    if (fault == THROWS) throw TarnXmlRpc::XmlRpcException("on the way");
    TarnXmlRpc::XmlRpcUtil::generateResponse(document, TarnXmlRpc::XmlRpcValue(0).toXml(0));
    if (fault != 0) TarnXmlRpc::XmlRpcUtil::generateFaultResponse(document, "refused", fault);
    return 0;
  }
};

/// What a service answers that names `method`, or, if it has a '-', faults.
std::string HttpAnswer(const std::string& method) {
  TarnXmlRpc::XmlRpcValue members;
  members["MethodID"] = method;
  std::string body;
  TarnXmlRpc::XmlRpcUtil::generateResponse(body, members.toXml(0));
  if (method[0] == '-') TarnXmlRpc::XmlRpcUtil::generateFaultResponse(body, "late", std::stoi(method));
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

constexpr char ident[] = "DEVICEIDENT?\r\n", mode[] = "SETDHCPMODE!\t0\r\n", address[] = "SETIPADDRESS!\t1\t2\r\n";
constexpr char infos[] = "RPCMeas.GetGlobalSysInfos", get[] = "RPCConf.GetNetwork", set[] = "RPCConf.SetNetwork";

}  // namespace

TEST(Server, ReadsOneEndpointForEachCallInTheirOrderAndAnswersThere) {
  EXPECT_FALSE(Server.Send("x")) << "before the first request";
  const char* const mapped = "::ffff:127.0.0.1";
  const int last = Request("3", mapped, port_Broadcast), third = Request("2", mapped, port_IPV4);
  const std::tuple<int, const char*, const char*, const char*> cases[] = {
      {Request("0", "::1", port_IPV6), "IPV6 Multicast", "::1", "reply"},
      {Request("1", mapped, port_IPV6), "IPV6 Multicast", mapped, "reply"},
      {third, "IPV4 Multicast", "127.0.0.1", "none"},  // to the group, where no way leads
      {last, "UDP Broadcast", "127.0.0.1", "reply"}};
  const int before = CountDescriptors();
  for (int i = 0; i < 4; ++i) {
    const auto& [requester, method, sender, reply] = cases[i];
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

TEST(Server, OutlivesAnyNumberOfInterfaces) {
  for (int i = 0; i < 25; ++i) {  // a socket may have twenty memberships, those on interfaces that are gone included
    ASSERT_EQ(0, std::system("ip link add tarn2 type veth peer name tarn3 && ip link set tarn2 up"));
    const unsigned passing = if_nametoindex("tarn2");
    ASSERT_TRUE(Server.JoinGroups(passing) && Server.JoinGroups(passing)) << i;
    ASSERT_EQ(0, std::system("ip link del tarn2"));
    Server.LeaveGroups(passing);
    ASSERT_FALSE(Server.JoinGroups(passing));
  }
}

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

TEST(Command, DisconnectsFromAServiceThatIsOutOfStepAndDoesWithoutOneThatFails) {
  FakeService service;
  XmlRpcClient = TarnXmlRpc::XmlRpcClient(&service);
  sInterfaceName = "absent0";
  const std::tuple<const char*, const char*, int, bool, bool> cases[] = {
      {ident, infos, -3560, false, false},
      {ident, infos, -3405, false, false},
      {ident, infos, THROWS, false, false},
      {ident, infos, 1, true, true},
      {ident, get, -3560, false, true},
      {ident, get, -3405, false, false},
      {mode, get, -3560, false, false},
      {address, set, -3560, false, false},
      {"Show\r\n", "RPCSys.SendSysCmd", -3560, true, false}};
  for (const auto& [datagram, method, fault, isServed, staysConnected] : cases) {
    service.faults = {{method, fault}};
    XmlRpcTransport.connected = true;
    const std::string reply = TarnDDPCommand_Execute(datagram, true);
    EXPECT_EQ(isServed, reply != "NACK\n" && reply.find("\tOAN:Tessel ???\t") == std::string::npos) << reply;
    EXPECT_EQ(staysConnected, IsConnected()) << datagram << method << ' ' << fault;
    EXPECT_TRUE(datagram != ident || Server.IsOwnMacAddress(isServed ? "" : "00:00:00:00:00:00"));
  }
  XmlRpcTransport.connected = false;
}

/// "RPCConf.GetNetwork" is answered at the next request, and each request from then on at the one after; or never. Then
/// no record mixes, and none is empty; a service that is silent there keeps its connection.
TEST(Command, NeverTakesALateAnswerForItsOwn) {
  const std::string never = "", id = "RPCConf::GetNetwork", dotted = get, nameless = "?", fault = "-17", success = "-1";
  const std::tuple<std::string, const char*, bool, bool> cases[] = {
      {never, ident, false, true},     {id, ident, false, false},      {dotted, ident, false, false},
      {nameless, ident, false, false}, {id, address, false, false},    {id, mode, false, false},
      {fault, address, false, true},   {"-10000", address, true, true}};
  XmlRpcClient = TarnXmlRpc::XmlRpcClient(&XmlRpcTransport);
  for (const auto& [late, datagram, isServed, staysConnected] : cases) {
    LoopbackPeer peer([&late = late](int connection) {
      std::string held;  // the answer that is sent at the next request, once one is
      for (std::string text; !(text = ReadUpTo(connection, "</methodCall>")).empty();) {
        int offset = 0;
        const std::string method = TarnXmlRpc::XmlRpcUtil::parseTag("<methodName>", text, &offset);
        if (!held.empty()) {
          Write(connection, HttpAnswer(std::exchange(held, method)));
        } else if (method == get) {
          held = late;
        } else {
          Write(connection, HttpAnswer(method));
        }
      }
    });
    ASSERT_TRUE(TarnDDPCommand_Init("127.0.0.1", peer.port, "absent0"));
    const std::string empty = TarnDDPCommand_Execute(ident, false);
    EXPECT_NE(std::string::npos, empty.find("\tOAN:Tessel ???\t")) << "no answer in time";
    EXPECT_TRUE(IsConnected());
    const std::string reply = TarnDDPCommand_Execute(datagram, false);
    EXPECT_EQ(isServed, reply != "NACK\n" && reply != empty) << late << datagram << reply;
    EXPECT_EQ(staysConnected, IsConnected()) << late << datagram;
    TarnDDPCommand_Final();
  }
}

TEST(Command, IsTheFirstFieldAsItStandsAndTheFilterTheSecond) {
  Server.SetOwnMACAddress("00:1b:c4:0a:ff:05");
  for (const char* silent : {"DEVICEENABLEIDENT!\tx", " DEVICEENABLEIDENT!\n", "SETDHCPMODE!\n00:1b:c4:0a:ff:05",
                             "SYSTRACE!\n00:1b:c4:0a:ff:05"}) {  // the last two: no argument is left
    EXPECT_EQ("", TarnDDPCommand_Execute(silent, true)) << silent;
  }
  EXPECT_EQ("ACK\n", TarnDDPCommand_Execute("deviceDisableIdent!\t00:1b:c4:0a:ff:05\r", false));
  EXPECT_NEAR(10e6, static_cast<double>(DisableIdentEndTime_US - ul_GetAbsTime_US(false)), 1e6);
}

TEST(DeviceService, IsTriedAnewWithItsOwnTimeoutAndNoDescriptorLost) {
  const int before = CountDescriptors();
  for (int i = 0; i < 1000; ++i) ASSERT_FALSE(TarnDDPCommand_Init("127.0.0.1", 1, "dev0"));
  EXPECT_EQ(2000U, XmlRpcTransport.timeout);
  EXPECT_EQ(before, CountDescriptors());
}

TEST(Datagram, KeepsEveryFieldBetweenAnyTwoSeparators) {
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"", {""}},
      {"A b\nC\rD", {"A b", "C", "D"}},
      {"SET!\t1\t\t\r\n", {"SET!", "1", "", "", "", ""}},
      {std::string("A\0B\tC\n", 6), {std::string("A\0B", 3), "C", ""}}};
  for (const auto& [datagram, fields] : cases) EXPECT_EQ(fields, TarnDDPCommand_SplitFields(datagram)) << datagram;
}

TEST(Datagram, MacFilterCountsDigitsAndSeparatorsAsToolsRelyOn) {
  for (const char* mac : {"001bc40aff05", "00:1B:c4-0a:ff-05", "001bc40aff05:any", "000:1b:c4:0a:ff:5",
                          "x0:01bc40aff05"}) {  // the last: a first group of one digit mends what "x" spoiled
    EXPECT_TRUE(TarnDDPCommand_IsMacAddress(mac)) << mac;
  }
  for (const char* other : {"", "00:1b:c4:0a:ff", "0:1b:c4:0a:ff:05", "001bc40aff051", ":001bc40aff05", "001bc4:0aff05",
                            "001bc40aff05x", "x00:1b:c4:0a:ff:05", "192.168.1.10", "\xe4\xf6\xfc\xff"}) {
    EXPECT_FALSE(TarnDDPCommand_IsMacAddress(other)) << other;
  }
}

TEST(Options, AreReadInOneScanOfEveryArgument) {
  const std::string longest(127, 'x'), tooLong(128, 'x');
  const std::pair<std::vector<const char*>, std::string> cases[] = {
      {{}, "ip if 1200 1 0"},
      {{"/ServiceSystem/x", "-if"}, "ip if 1200 1 1"},
      {{"x", "/ServiceSystem", "-NODAEMON"}, "ip if 1200 1 0"},
      {{"-ip", "-nodaemon"}, "-nodaemon if 1200 0 0"},  // a value is an option word as well
      {{"x", "-ip", longest.c_str(), "-if", tooLong.c_str()}, longest + " if 1200 1 0"},
      {{"-ip", "", "-port", "999"}, " if 1400 1 0"},
      {{"-port", "-80"}, "ip if -80 1 0"},
      {{"-port", " 4294968296x"}, "ip if 1000 1 0"}};
  for (const auto& [arguments, expected] : cases) {
    std::strcpy(IPAddress, "ip");
    std::strcpy(InterfaceName, "if");
    std::tie(port, Daemon, ServiceSystem) = std::make_tuple(1200, 1, 0);
    ReadOptions(static_cast<int>(arguments.size()), arguments.data());
    std::string settings = IPAddress + std::string(" ") + InterfaceName;
    for (const int number : {port, Daemon, ServiceSystem}) settings += ' ' + std::to_string(number);
    EXPECT_EQ(expected, settings);
  }
}
