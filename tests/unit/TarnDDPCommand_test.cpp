

#include "ddp/TarnDDPCommand.h"
#include "ddp/TarnDDPServer.h"
#include "tests/unit/LoopbackPeer.h"
#include "xmlrpc/XmlRpcUtil.h"

namespace {

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

TEST(Command, DisconnectsFromAServiceThatIsOutOfStepAndDoesWithoutOneThatFails) {
  FakeService service;
  XmlRpcClient = TarnXmlRpc::XmlRpcClient(&service);
  sInterfaceName = "absent0";
  const std::tuple<const char*, const char*, int, bool, bool> cases[] = {
      {ident, infos, -3560, false, false},
      {ident, infos, -3405, false, false},
      {ident, infos, THROWS, false, false},
      {ident, infos, 1, true, true},
      {ident, infos, 0, true, true},
      {ident, infos, -1, false, true},
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
    EXPECT_EQ(500U, XmlRpcTransport.timeout);
    const std::string empty = TarnDDPCommand_Execute(ident, false);
    EXPECT_NE(std::string::npos, empty.find("\tOAN:Tessel ???\t")) << "no answer in time";
    EXPECT_TRUE(IsConnected());
    const std::string reply = TarnDDPCommand_Execute(datagram, false);
    EXPECT_EQ(isServed, reply != "NACK\n" && reply != empty) << late << datagram << reply;
    EXPECT_EQ(staysConnected, IsConnected()) << late << datagram;
    TarnDDPCommand_Final();
  }
}

TEST(Command, ServiceThatNeverOwesNeedNotNameItsMethods) {
  LoopbackPeer peer([](int connection) {
    while (!ReadUpTo(connection, "</methodCall>").empty()) Write(connection, HttpAnswer("?"));
  });
  XmlRpcClient = TarnXmlRpc::XmlRpcClient(&XmlRpcTransport);
  ASSERT_TRUE(TarnDDPCommand_Init("127.0.0.1", peer.port, "absent0"));
  for (const char* const datagram : {ident, address, mode, ident}) {
    const std::string reply = TarnDDPCommand_Execute(datagram, false);
    EXPECT_EQ(datagram == ident ? "SID:0\tOAN:\t" : "ACK\n", reply.substr(0, 11)) << datagram;
    EXPECT_TRUE(IsConnected());
  }
  TarnDDPCommand_Final();
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
  EXPECT_EQ("dev0", sInterfaceName);
  EXPECT_EQ(before, CountDescriptors());
}
