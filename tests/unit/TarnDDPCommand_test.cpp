#include "ddp/TarnDDPCommand.h"

#include <algorithm>
#include <boost/lexical_cast.hpp>
#include <future>
#include <map>
#include <sstream>

#include "ddp/TarnDDPServer.h"
#include "ddp/TarnDDPTrace.h"
#include "ddp/Upkeep.h"
#include "tests/unit/LoopbackPeer.h"
#include "tests/unit/TestInterface.h"
#include "xmlrpc/XmlRpcUtil.h"

using TarnXmlRpc::XmlRpcUtil;
using TarnXmlRpc::XmlRpcValue;

namespace {

constexpr char infosMethod[] = "RPCMeas.GetGlobalSysInfos";
constexpr char getMethod[] = "RPCConf.GetNetwork";
constexpr char setMethod[] = "RPCConf.SetNetwork";

/// What the service does with a call: the status of the exchange and, if that is 0, a result; the code of a fault, if
/// that is not 0; or an exception on the way.
struct Answer {
  int status = 0;
  XmlRpcValue result = 0;
  int fault = 0;
  bool throws = false;
};

struct FakeService : TarnXmlRpc::XmlRpcClientTransportHTTP {
  std::map<std::string, Answer> answers;
  std::string calls;  // "method params" of each call, a line for each

  int execute(const std::string& request, std::string& document) override {
    int offset = 0;
    const std::string method = XmlRpcUtil::parseTag("<methodName>", request, &offset);
    XmlRpcUtil::findTag("<param>", request, &offset);
    XmlRpcValue params;
    params.fromXml(request, &offset);
    params.deleteMember("MethodID");
    std::ostringstream line;
    line << method << ' ' << params << '\n';
    calls += line.str();

    const Answer& answer = answers[method];
    if (answer.throws) throw TarnXmlRpc::XmlRpcException("on the way");
    if (answer.fault != 0) {
      XmlRpcUtil::generateFaultResponse(document, "refused", answer.fault);
    } else {
      XmlRpcUtil::generateResponse(document, answer.result.toXml(0));
    }
    return answer.status;
  }
};

XmlRpcValue Struct(const std::map<std::string, XmlRpcValue>& members) {
  XmlRpcValue value;
  value.assertStruct();
  for (const auto& member : members) value[member.first] = member.second;
  return value;
}

/// The dispatcher over an Ethernet of its own and, once connected, a device service that answers well.
class Command : public TestInterface {
 protected:
  void SetUp() override {
    TestInterface::SetUp();
    sInterfaceName = "dev0";
    XmlRpcClient = TarnXmlRpc::XmlRpcClient(&service);
    service.answers[infosMethod].result = Struct({{"DeviceType", "Tessel XT"},
                                                  {"DeviceName", "bench 7"},
                                                  {"MainModuleType", 4},
                                                  {"SubModuleType", 5},
                                                  {"SerialNumber", "000123"},
                                                  {"Firmware", "1.2.3"}});
    service.answers[getMethod].result = Struct({{"IPAddress", "10.0.0.2"},
                                                {"SubnetMask", "255.0.0.0"},
                                                {"GatewayAddress", "10.0.0.1"},
                                                {"DHCPActive", 2},
                                                {"MACAddress", "00:1B:C4:0A:FF:05"}});
    service.answers[setMethod].result = Struct({{"iRet", -1}});
    XmlRpcTransport.connected = false;
  }

  /// The reply to the datagram while the service is connected, and the calls that it made.
  std::string Connected(const std::string& datagram, bool isDirect = false) {
    service.calls.clear();
    XmlRpcTransport.connected = true;
    return TarnDDPCommand_Execute(datagram, isDirect);
  }

  FakeService service;
};

std::string Unconnected(const std::string& datagram, bool isDirect = false) {
  XmlRpcTransport.connected = false;
  return TarnDDPCommand_Execute(datagram, isDirect);
}

constexpr char serviceRecord[] =
    "SID:0\tOAN:Tessel XT\tOVN:Orvalle Labs\tSAN:Tessel XT\tSVN:Orvalle Labs\tLOC:bench 7\tMKC:XT4005#\tSNR:000123\t"
    "ASK:true\tIPA:10.0.0.2\tSNM:255.0.0.0\tGWA:10.0.0.1\tMAA:00:1B:C4:0A:FF:05\tEXTSID:0\tEXTAPPVER:1.2.3\r\n";
constexpr char emptyRecord[] =
    "SID:0\tOAN:\tOVN:Orvalle Labs\tSAN:\tSVN:Orvalle Labs\tLOC:\tMKC:XT0000#\tSNR:\t"
    "ASK:false\tIPA:\tSNM:\tGWA:\tMAA:\tEXTSID:0\tEXTAPPVER:\r\n";

std::string FallbackRecord(const std::string& ip, const std::string& mask, const std::string& mac) {
  return "SID:0\tOAN:Tessel ???\tOVN:Orvalle Labs\tSAN:Tessel ???\tSVN:Orvalle Labs\tLOC:APPTERM\tMKC:XT175???#\t"
         "SNR:000000\tASK:false\tIPA:" +
         ip + "\tSNM:" + mask + "\tGWA:0.0.0.0\tMAA:" + mac + "\tEXTSID:0\tEXTAPPVER:???\r\n";
}

}  // namespace

TEST_F(Command, AnswersOnlyWhatHasALineEndAndIsAllowed) {
  sInterfaceName = "absent0";
  const struct {
    const char* datagram;
    bool isDirect;
    const char* reply;
  } cases[] = {{"", true, ""},
               {"DEVICEENABLEIDENT!", true, ""},
               {"DEVICEENABLEIDENT!\tx", true, ""},
               {"DEVICEENABLEIDENT!\r", false, "ACK\n"},
               {"deviceEnableIdent!\t\n", false, "ACK\n"},
               {" DEVICEENABLEIDENT!\n", false, ""},
               {"SETIPADDRESS!\t10.0.0.2\r\n", false, "NACK\n"},
               {"SETIPADDRESS!\t10.0.0.2\t255.0.0.0\r\n", false, "NACK\n"},  // for want of the interface
               {"SYSTRACE!\t1\r\n", false, ""},
               {"EXECUTECOMMAND!\ttouch /tmp/ran\r\n", false, ""},
               {"EXECUTECOMMAND!\ttouch /tmp/ran\r\n", true, "NACK\n"},  // not run: no service
               {"UNKNOWN\r\n", false, ""},
               {"UNKNOWN\r\n", true, ""},
               {"\r\n", true, ""}};
  for (const auto& c : cases) EXPECT_EQ(c.reply, Unconnected(c.datagram, c.isDirect)) << c.datagram;
  EXPECT_NE(0, access("/tmp/ran", F_OK));
}

TEST_F(Command, HeedsTheMacFilterOnceItsOwnMacIsKnown) {
  Server.SetOwnMACAddress("");
  const std::string mine = "00:1b:c4:0a:ff:05";
  EXPECT_EQ("", Unconnected("DEVICEIDENT?\t" + mine + "\r\n"));
  EXPECT_NE("", Unconnected("DEVICEIDENT?\r\n"));
  EXPECT_EQ(FallbackRecord("192.168.77.2", "255.255.255.0", mine), Unconnected("DEVICEIDENT?\t" + mine + "\r\n"));
  for (const char* other : {"00:1b:c4:0a:ff:06", "00:1B:C4:0A:FF:05", "001bc40aff05"}) {
    EXPECT_EQ("", Unconnected("DEVICEIDENT?\t" + std::string(other) + "\r\n")) << other;
  }
  EXPECT_EQ("ACK\n", Connected("SETIPADDRESS!\t" + mine + "\t10.0.0.3\t255.0.0.0\t10.0.0.1\t10.0.0.9\r\n"));
  EXPECT_NE(std::string::npos, service.calls.find("DNSAddresses:{10.0.0.9}")) << service.calls;
  EXPECT_EQ("", Unconnected("SETDHCPMODE!\n" + mine)) << "no argument is left";
  EXPECT_EQ("", Unconnected("SYSTRACE!\n" + mine, true));
}

TEST_F(Command, StaysSilentWhileIdentificationIsDisabled) {
  EXPECT_EQ("ACK\n", Connected("DEVICEDISABLEIDENT!\r\n"));
  EXPECT_NEAR(10e6, static_cast<double>(DisableIdentEndTime_US - ul_GetAbsTime_US(false)), 1e6);
  EXPECT_EQ("", Connected("DEVICEIDENT?\r\n") + Connected("DEVICEIDENTEXT?\r\n"));
  EXPECT_EQ("ACK\n", Connected("DEVICEENABLEIDENT!\r\n"));
  EXPECT_EQ(serviceRecord, Connected("DEVICEIDENT?\r\n"));
  EXPECT_EQ(serviceRecord, Connected("DEVICEIDENTEXT?\r\n"));
}

TEST_F(Command, TakesTheRecordFromOneSourceAndDisconnectsWhatIsOutOfStep) {
  const std::string fallback = FallbackRecord("192.168.77.2", "255.255.255.0", "00:1b:c4:0a:ff:05");
  const std::map<std::string, Answer> well = service.answers;
  const struct {
    const char* method;
    Answer answer;
    bool isFallback, staysConnected;
  } cases[] = {{infosMethod, {-3560, {}}, true, false},      {infosMethod, {-3405, {}}, true, false},
               {infosMethod, {-6915, {}}, true, true},       {infosMethod, {0, {}, -1}, true, true},
               {infosMethod, {0, {}, 0, true}, true, false}, {infosMethod, {0, {}, -9999}, true, true},
               {infosMethod, {0, {}, -10000}, false, true},  {infosMethod, {0, {}, 1}, false, true},
               {getMethod, {-3560, {}}, true, true},         {getMethod, {-3405, {}}, true, false},
               {getMethod, {0, {}, 0, true}, true, false},   {getMethod, {-4317, {}}, true, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.method) + " " + std::to_string(c.answer.status) + " " + std::to_string(c.answer.fault));
    service.answers = well;
    service.answers[c.method] = c.answer;
    const std::string record = Connected("DEVICEIDENT?\r\n");
    EXPECT_EQ(c.isFallback, record == fallback) << record;
    EXPECT_EQ(c.staysConnected, IsConnected());
    EXPECT_TRUE(Server.IsOwnMacAddress(c.isFallback ? "00:1b:c4:0a:ff:05" : "00:1B:C4:0A:FF:05"));
  }
  sInterfaceName = "absent0";
  EXPECT_EQ(FallbackRecord("0.0.0.0", "0.0.0.0", "00:00:00:00:00:00"), Unconnected("DEVICEIDENT?\r\n"));
  EXPECT_TRUE(Server.IsOwnMacAddress("00:00:00:00:00:00"));
}

TEST_F(Command, ReadsEachFieldOfTheRecordByItself) {
  for (const char* method : {infosMethod, getMethod}) service.answers[method].result = Struct({});
  EXPECT_EQ(emptyRecord, Connected("DEVICEIDENT?\r\n"));
  for (const char* method : {infosMethod, getMethod}) service.answers[method].result = "no struct";
  EXPECT_EQ(emptyRecord, Connected("DEVICEIDENT?\r\n"));
  for (const char* method : {infosMethod, getMethod}) {
    XmlRpcValue& result = service.answers[method].result = Struct({{"MACAddress", 1}});
    for (const char* name : {"DeviceType", "DeviceName", "SerialNumber", "IPAddress", "SubnetMask"}) result[name] = 7;
    for (const char* name : {"MainModuleType", "SubModuleType", "Firmware", "DHCPActive"}) result[name] = true;
  }
  EXPECT_EQ(emptyRecord, Connected("DEVICEIDENT?\r\n"));
  service.answers[infosMethod].result = Struct({{"MainModuleType", -1}, {"SubModuleType", 1234}});
  EXPECT_NE(std::string::npos, Connected("DEVICEIDENT?\r\n").find("\tMKC:XT-11234#\t"));
}

TEST_F(Command, HandsTheSettingsToTheService) {
  XmlRpcValue none, two, mixed;
  none.assertArray(0);
  two[1] = mixed[1] = "9.9.9.9";
  two[0] = "8.8.8.8";
  mixed[0] = 8;
  const struct {
    std::string datagram;
    XmlRpcValue names;  // the "DNSAddresses" of the settings so far
    std::string dhcp, dns, gateway, ip, mask;
  } cases[] = {{"SETIPADDRESS!\t1\t2\t3\r\n", two, "0", "", "3", "1", "2"},
               {"SETIPADDRESS!\t1\t2\r\n", two, "0", "", "", "1", "2"},
               {"SETIPADDRESS!\n1\n2\n3\n4", two, "0", "", "3", "1", "2"},  // a fifth and last field is dropped
               {"SETIPADDRESS!\n1\n2\n3\n4\n", two, "0", "4", "3", "1", "2"},
               {"SETDHCPMODE!\t0\r\n", two, "0", "8.8.8.8", "10.0.0.1", "10.0.0.2", "255.0.0.0"},
               {"SETDHCPMODE!\t+0\r\n", none, "0", "", "10.0.0.1", "10.0.0.2", "255.0.0.0"},
               {"SETDHCPMODE!\t001\r\n", mixed, "1", "", "10.0.0.1", "10.0.0.2", "255.0.0.0"},
               {"SETDHCPMODE!\tyes\r\n", "8.8.8.8", "1", "", "10.0.0.1", "10.0.0.2", "255.0.0.0"},
               {"SETDHCPMODE!\r\n", 0, "1", "", "10.0.0.1", "10.0.0.2", "255.0.0.0"}};
  for (const auto& c : cases) {
    service.answers[getMethod].result["DNSAddresses"] = c.names;
    EXPECT_EQ("ACK\n", Connected(c.datagram));
    const std::string call = "RPCConf.SetNetwork [Activate:1,DHCPActive:" + c.dhcp + ",DNSAddresses:{" + c.dns +
                             "},DeviceName:,GatewayAddress:" + c.gateway + ",IPAddress:" + c.ip +
                             ",Save:1,SubnetMask:" + c.mask + "]\n";
    EXPECT_EQ(call, service.calls.substr(std::min(service.calls.find(setMethod), service.calls.size()))) << c.datagram;
  }
  EXPECT_EQ("", Routes()) << "the interface is left alone";
}

TEST_F(Command, ConfiguresTheInterfaceItselfWhereTheServiceFails) {
  service.answers[setMethod].fault = -5;
  Routes();
  const int descriptors = CountDescriptors();
  EXPECT_EQ("ACK\n", Connected("SETIPADDRESS!\t10.1.2.3\t255.255.0.0\t10.1.0.1\t\r\n"));
  EXPECT_NE(std::string::npos, Output("ip -brief address show dev0").find(" 10.1.2.3/16 "));
  EXPECT_EQ("del default\nadd default gw 10.1.0.1\n", Routes());
  EXPECT_EQ("NACK\n", Unconnected("SETIPADDRESS!\t10.1.2.300\t255.255.0.0\t10.1.0.1\t\r\n"));
  EXPECT_NE("", Unconnected("DEVICEIDENT?\r\n"));
  EXPECT_EQ(descriptors, CountDescriptors());

  sInterfaceName = "absent0";
  service.answers[getMethod].status = -3405;
  EXPECT_EQ("NACK\n", Connected("SETDHCPMODE!\t0\r\n")) << "DHCP is tried even to turn it off";
  EXPECT_FALSE(IsConnected());
  EXPECT_EQ(std::string::npos, service.calls.find(setMethod));
}

TEST_F(Command, HasTheMulticastRouteMendedAtOnce) {
  const std::string route = "ip route show 224.0.0.0/3 dev dev0";
  Upkeep_ExpectNetworkChange();
  Upkeep_Network("dev0");
  EXPECT_NE("", Output(route));
  EXPECT_EQ("ACK\n", Unconnected("SETIPADDRESS!\t192.168.77.3\t255.255.255.0\r\n"));
  EXPECT_EQ("", Output(route)) << "a change of address takes it away";
  Upkeep_Network("dev0");
  EXPECT_NE("", Output(route));
  Run("ip route del 224.0.0.0/3 dev dev0");
  Upkeep_Network("dev0");
  EXPECT_EQ("", Output(route)) << "without cause, not before 5 s";
  EXPECT_EQ(std::string::npos, Routes().find("-net")) << "and never by a command";
}

TEST_F(Command, ForwardsWhatItDoesNotKnow) {
  EXPECT_EQ("", Connected("Show\tall\r\n", true));
  EXPECT_EQ("RPCSys.SendSysCmd [Msg:Show\tall\r\n]\n", service.calls);
  EXPECT_EQ("", Connected("Show\tall\r\n", false));
  EXPECT_EQ("", service.calls);
  service.answers["RPCSys.SendSysCmd"].status = -3560;
  EXPECT_EQ("", Connected("Show\r\n", true));
  EXPECT_FALSE(IsConnected());
}

TEST_F(Command, RunsCommands) {
  EXPECT_EQ("NACK\n", Connected("EXECUTECOMMAND!\techo $((6*7)) '>' >/tmp/ran\t\r\n", true));
  EXPECT_EQ("42 >\n", Output("cat /tmp/ran"));
  EXPECT_EQ("ACK\n", Unconnected("DEVICEREBOOT!\r\n"));
  EXPECT_EQ("halt \n", Output("cat $SANDBOX_HALT_MARK"));
}

TEST_F(Command, SwitchesTheTraceAndThrowsOnWhatIsNeitherOnNorOff) {
  EXPECT_EQ("ACK\n", Unconnected("SYSTRACE!\t1\r\n", true));
  EXPECT_TRUE(Enabled);
  EXPECT_THROW(Unconnected("SYSTRACE!\tyes\r\n", true), boost::bad_lexical_cast);
  EXPECT_TRUE(Enabled);
  EXPECT_EQ("ACK\n", Unconnected("SYSTRACE!\t0\r\n", true));
  EXPECT_FALSE(Enabled);
}

TEST(DeviceService, IsGivenUpWhenItsIdleConnectionHasInputAndCostsNoDescriptor) {
  XmlRpcTransport.connected = true;
  Upkeep_ServiceConnection();
  EXPECT_TRUE(IsConnected()) << "without a socket there is nothing to look at";
  TarnDDPCommand_Final();

  const int before = CountDescriptors();
  for (int i = 0; i < 1000; ++i) ASSERT_FALSE(TarnDDPCommand_Init("127.0.0.1", 1, "dev0"));
  EXPECT_EQ(2000U, XmlRpcTransport.timeout);
  {
    std::promise<void> hangUp;
    const LoopbackPeer peer([end = hangUp.get_future().share()](int) { end.wait(); });
    ASSERT_TRUE(TarnDDPCommand_Init("127.0.0.1", peer.port, "dev0"));
    EXPECT_EQ(500U, XmlRpcTransport.timeout);
    Upkeep_ServiceConnection();
    EXPECT_TRUE(IsConnected());
    hangUp.set_value();
    for (int i = 0; i < 100 && !XmlRpcTransport.HasInput(); ++i) Pause();
    Upkeep_ServiceConnection();
    EXPECT_FALSE(IsConnected());
  }
  EXPECT_EQ(before, CountDescriptors());
}
