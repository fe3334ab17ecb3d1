#include "ddp/TarnDDPCommand.h"
#include "ddp/TarnDDPServer.h"
#include "tests/unit/LoopbackPeer.h"
#include "util/_Others.h"
#include "xmlrpc/XmlRpcUtil.h"

namespace {

constexpr char IDENT[] = "DEVICEIDENT?\r\n", MODE[] = "SETDHCPMODE!\t0\r\n", ADDRESS[] = "SETIPADDRESS!\t1\t2\r\n";
constexpr char INFOS[] = "RPCMeas.GetGlobalSysInfos", GET[] = "RPCConf.GetNetwork", SET[] = "RPCConf.SetNetwork";

/// What a service answers that names `method`, faults with a number, or with what is none ("odd"); nothing for "".
std::string HttpAnswer(const std::string& method) {
  if (method.empty()) return "";
  TarnXmlRpc::XmlRpcValue members;
  members["MethodID"] = method == SET ? "RPCConf::SetNetwork" : method;  // either will do
  const int code = static_cast<int>(std::strtol(method.c_str(), nullptr, 10));
  if (code != 0) members["faultCode"] = code;
  if (method == "odd") members["faultCode"] = method;
  if (members.hasMember("faultCode")) members["faultString"] = "refused";
  std::string body;
  TarnXmlRpc::XmlRpcUtil::generateResponse(body, members.toXml(0));
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

/// Whether the service had its part in the reply. The interface is absent, so that nothing else does.
bool IsServed(const char* datagram) {
  const AbsTime_US printed = ul_Pr_GetLastPrintTime();
  const std::string reply = TarnDDPCommand_Execute(datagram, true);
  const bool isServed = reply != "NACK\n" && reply.find("\tOAN:Tessel ???\t") == std::string::npos;
  EXPECT_EQ(isServed, ul_Pr_GetLastPrintTime() == printed) << "what tries the interface prints why it cannot";
  if (datagram == IDENT) {
    EXPECT_TRUE(Server.IsOwnMacAddress(isServed ? "" : "00:00:00:00:00:00"));
  }
  return isServed;
}

}  // namespace

/// One method has an answer of its own; or that is late, behind a record that does without it: it comes at the next
/// request, and each from then on at the one after. No record mixes both sources, and none is empty. A service that is
/// never late need not name its methods.
TEST(Command, DoesWithoutAServiceThatFailsAndLeavesOneThatIsOutOfStep) {
  const struct {
    bool isLate;
    const char *datagram, *method;
    std::string answer;
    bool isServed, staysConnected;
  } rows[] = {{false, IDENT, INFOS, "", false, false},
              {false, IDENT, INFOS, "-3405", false, false},
              {false, IDENT, INFOS, "odd", false, false},
              {false, IDENT, INFOS, "?", true, true},
              {false, IDENT, INFOS, "-1", false, true},
              {false, IDENT, INFOS, "-9999", false, true},
              {false, IDENT, INFOS, "-10000", true, true},
              {false, IDENT, GET, "", false, true},
              {false, MODE, GET, "", false, false},
              {false, MODE, SET, "-17", false, true},
              {false, MODE, SET, "4", true, true},
              {false, ADDRESS, SET, "", false, false},
              {false, "Show\r\n", "RPCSys.SendSysCmd", "", true, false},
              {true, IDENT, GET, "", false, true},
              {true, IDENT, GET, "RPCConf::GetNetwork", false, false},
              {true, IDENT, GET, GET, false, false},
              {true, IDENT, GET, "?", false, false},
              {true, ADDRESS, GET, "", true, true},
              {true, ADDRESS, GET, GET, false, false},
              {true, ADDRESS, GET, "-17", false, true},
              {true, ADDRESS, GET, "-10000", true, true}};
  for (const auto& row : rows) {
    LoopbackPeer peer([&row](int connection) {
      bool isShifted = false;
      for (std::string text, held; !(text = ReadUpTo(connection, "</methodCall>")).empty();) {
        int offset = 0;
        const std::string method = TarnXmlRpc::XmlRpcUtil::parseTag("<methodName>", text, &offset);
        std::string answer = HttpAnswer(method == row.method ? row.answer : row.isLate ? method : "?");
        isShifted = isShifted || (row.isLate && method == row.method && !row.answer.empty());
        if (isShifted) std::swap(held, answer);
        Write(connection, answer);
      }
    });
    ASSERT_TRUE(TarnDDPCommand_Init("127.0.0.1", peer.port, "absent0"));
    EXPECT_EQ(500U, XmlRpcTransport.timeout);
    EXPECT_EQ("absent0", sInterfaceName);
    if (row.isLate) {
      EXPECT_FALSE(IsServed(IDENT));
    }
    EXPECT_EQ(row.isServed, IsServed(row.datagram)) << &row - rows;
    EXPECT_EQ(row.staysConnected, IsConnected()) << &row - rows;
    TarnDDPCommand_Final();
  }
  const int before = CountDescriptors();
  for (int times = 0; times < 3; ++times) EXPECT_FALSE(TarnDDPCommand_Init("127.0.0.1", 1, "absent0"));
  EXPECT_EQ(2000U, XmlRpcTransport.timeout);
  EXPECT_EQ(before, CountDescriptors());
}
