#include "ddp/TarnDDPCommand.h"
#include "ddp/TarnDDPServer.h"
#include "tests/unit/LoopbackPeer.h"
#include "xmlrpc/XmlRpcUtil.h"

namespace {

constexpr char IDENT[] = "DEVICEIDENT?\r\n", MODE[] = "SETDHCPMODE!\t0\r\n", ADDRESS[] = "SETIPADDRESS!\t1\t2\r\n";
constexpr char INFOS[] = "RPCMeas.GetGlobalSysInfos", GET[] = "RPCConf.GetNetwork", SET[] = "RPCConf.SetNetwork";
constexpr int THROWS = -100000;

std::string MethodOf(const std::string& request) {
  int offset = 0;
  return TarnXmlRpc::XmlRpcUtil::parseTag("<methodName>", request, &offset);
}

/// Whether the service had its part in it. The interface is absent, so that nothing else does.
bool IsServed(const std::string& reply) {
  return reply != "NACK\n" && reply.find("\tOAN:Tessel ???\t") == std::string::npos;
}

/// A service whose answers hold nothing but a fault code, 0 for none; or that ends a call by an exception.
struct FakeService : TarnXmlRpc::XmlRpcClientTransportHTTP {
  std::map<std::string, int> faults;

  int execute(const std::string& request, std::string& document) override {
    const int fault = faults[MethodOf(request)];
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

}  // namespace

TEST(Command, DisconnectsFromAServiceThatIsOutOfStepAndDoesWithoutOneThatFails) {
  FakeService service;
  XmlRpcClient = TarnXmlRpc::XmlRpcClient(&service);
  sInterfaceName = "absent0";
  const std::tuple<const char*, const char*, int, bool, bool> rows[] = {
      {IDENT, INFOS, -3560, false, false},  {IDENT, INFOS, -3405, false, false},
      {IDENT, INFOS, THROWS, false, false}, {IDENT, INFOS, 1, true, true},
      {IDENT, INFOS, 0, true, true},        {IDENT, INFOS, -1, false, true},
      {IDENT, INFOS, -9999, false, true},   {IDENT, INFOS, -10000, true, true},
      {IDENT, GET, -3560, false, true},     {IDENT, GET, -3405, false, false},
      {MODE, GET, -3560, false, false},     {MODE, SET, -17, false, true},
      {MODE, SET, 4, true, true},           {ADDRESS, SET, -3560, false, false},
      {ADDRESS, SET, 4, true, true},        {"Show\r\n", "RPCSys.SendSysCmd", -3560, true, false}};
  for (const auto& [datagram, method, fault, isServed, staysConnected] : rows) {
    service.faults = {{method, fault}};
    XmlRpcTransport.connected = true;
    EXPECT_EQ(isServed, IsServed(TarnDDPCommand_Execute(datagram, true))) << datagram << method << ' ' << fault;
    EXPECT_EQ(staysConnected, IsConnected()) << datagram << method << ' ' << fault;
    if (datagram == IDENT) {
      EXPECT_TRUE(Server.IsOwnMacAddress(isServed ? "" : "00:00:00:00:00:00"));
    }
  }
  XmlRpcTransport.connected = false;
}

/// "RPCConf.GetNetwork" is answered at the next request, and each request from then on at the one after; or never. Then
/// no record mixes, and none is empty; a service that is silent there keeps its connection. One that is never late need
/// not name its methods.
TEST(Command, NeverTakesALateAnswerForItsOwn) {
  const std::string never, id = "RPCConf::GetNetwork", dotted = GET, nameless = "?", fault = "-17", success = "-10000",
                           atOnce = "at once";
  const std::tuple<std::string, const char*, bool, bool> rows[] = {
      {never, IDENT, false, true},     {id, IDENT, false, false},      {dotted, IDENT, false, false},
      {nameless, IDENT, false, false}, {id, ADDRESS, false, false},    {id, MODE, false, false},
      {fault, ADDRESS, false, true},   {success, ADDRESS, true, true}, {atOnce, MODE, true, true}};
  XmlRpcClient = TarnXmlRpc::XmlRpcClient(&XmlRpcTransport);
  for (const auto& [late, datagram, isServed, staysConnected] : rows) {
    LoopbackPeer peer([&late = late, &atOnce](int connection) {
      std::string held;  // the answer that is sent at the next request, once one is
      for (std::string text; !(text = ReadUpTo(connection, "</methodCall>")).empty();) {
        const std::string method = MethodOf(text);
        if (late == atOnce) {
          Write(connection, HttpAnswer("?"));
        } else if (!held.empty()) {
          Write(connection, HttpAnswer(std::exchange(held, method)));
        } else if (method == GET) {
          held = late;
        } else {
          Write(connection, HttpAnswer(method));
        }
      }
    });
    ASSERT_TRUE(TarnDDPCommand_Init("127.0.0.1", peer.port, "absent0"));
    EXPECT_EQ(500U, XmlRpcTransport.timeout);
    EXPECT_EQ(late == atOnce, IsServed(TarnDDPCommand_Execute(IDENT, false))) << "an answer in time?";
    EXPECT_TRUE(IsConnected());
    EXPECT_EQ(isServed, IsServed(TarnDDPCommand_Execute(datagram, false))) << late << datagram;
    EXPECT_EQ(staysConnected, IsConnected()) << late << datagram;
    TarnDDPCommand_Final();
  }
}

TEST(DeviceService, IsTriedAnewWithItsOwnTimeoutAndNoDescriptorLost) {
  const int before = CountDescriptors();
  for (int i = 0; i < 1000; ++i) ASSERT_FALSE(TarnDDPCommand_Init("127.0.0.1", 1, "dev0"));
  EXPECT_EQ(2000U, XmlRpcTransport.timeout);
  EXPECT_EQ("dev0", sInterfaceName);
  EXPECT_EQ(before, CountDescriptors());
}
