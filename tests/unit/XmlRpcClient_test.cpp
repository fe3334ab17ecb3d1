#include "xmlrpc/XmlRpcClient.h"
#include "rpc/RPCConf.h"
#include "rpc/RPCMeas.h"
#include "rpc/RPCSys.h"
#include "tests/unit/Test.h"
#include "xmlrpc/XmlRpcClientTransportHTTP.h"
#include "xmlrpc/XmlRpcUtil.h"

using namespace TarnXmlRpc;

namespace {

const XmlRpcValue none;

/// Answers every request with the same text and status, and remembers what it was given.
struct FakeTransport : XmlRpcClientTransportHTTP {
  explicit FakeTransport(std::string text, int result = 0) : answer(std::move(text)), status(result) {}
  int execute(const std::string& text, std::string& out) override {
    sent = text;
    out = answer;
    if (status > 0) throw XmlRpcException("broken", CODE_TYPE_ERROR);
    return status;
  }
  int execute(const std::string& text, std::string& out, unsigned long limit) override {
    timeout = static_cast<std::uint32_t>(limit);
    return execute(text, out);
  }
  std::string answer, sent;
  int status;
};

struct Client : XmlRpcClient {
  using XmlRpcClient::XmlRpcClient;
  std::string documents() const { return request + response; }
  std::size_t room() const { return std::max(request.capacity(), response.capacity()); }
};

std::string Fault(const std::string& message, const XmlRpcValue& code) {
  XmlRpcValue fault;
  fault["faultCode"] = code;
  fault["faultString"] = message;
  return "<methodResponse><fault>" + fault.toXml(0);
}

TEST(XmlRpcClient, SendsOneParameterOrNone) {
  FakeTransport transport(Fault("", 0));
  XmlRpcValue result, shortTags;
  int offset = 0;
  ASSERT_TRUE(shortTags.fromXml("<va><i4>5</i4></va>", &offset));
  const std::string head =
      "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\r\n<methodCall><methodName>a&b</methodName>\r\n";
  const auto sends = [&](const std::string& params, const auto& given) {
    XmlRpcClient(&transport).execute("a&b", given, result);
    EXPECT_EQ(head + params + "</methodCall>\r\n", transport.sent);
  };
  sends("", none);
  sends("", nullptr);
  sends("<params><param><va><i4>5</i4></va></param></params>", shortTags);
  sends("<params><param><raw></param></params>", "<raw>");
  result["a"][0] = "x<";  // and a part of it sent
  sends("<params><param><value><array><data><value>x&lt;</value></data></array></value></param></params>", result["a"]);
}

TEST(XmlRpcClient, HasAStatusForEachFormAndKeepsNothingOfACall) {
  constexpr int thrown = 1;
  const std::function<int(XmlRpcClient&, XmlRpcValue&)> forms[] = {
      [](auto& client, auto& result) { return client.execute("m", "<x>", result); },
      [](auto& client, auto& result) { return client.execute("m", "<x>", result, 1); },
      [](auto& client, auto& result) { return client.execute("m", none, result, 1); },
      [](auto& client, auto& result) { return client.execute("m", none, result); }};
  const std::string five = "<value><int>5</int></value>";
  const struct {
    std::string answer;
    int transportStatus;
    int statuses[4];
    std::string error;
    bool valid, isFault;
  } rows[] = {
      {"<x><methodResponse> <params>\r\n<param>" + five + std::string(99999, ' '), 0, {0, 0, 0, 0}, "", true, false},
      {Fault("no", -4), 0, {0, 0, -4, -4}, "", true, true},
      {Fault("no", "4"), 0, {0, 0, thrown, thrown}, "", true, true},
      {"<methodResponse><params><fault>" + five, 0, {0, 0, 0, 0}, "", true, true},
      {"<params><param>" + five, 0, {-4317, -4317, 0, -4317}, " - no methodResponse", false, false},
      {"<methodResponse><params>" + five, 0, {-4317, -4317, 0, -4317}, " - no param or fault tag", false, false},
      {"<methodResponse><fault><int>5</int>", 0, {-4317, -4317, 0, -4317}, " value", false, true},
      {Fault("no", 4), -3560, {-3560, -3560, -3560, -3560}, "", false, false},
      {"the transport throws", 1, {thrown, thrown, thrown, thrown}, "", false, false}};
  for (const auto& row : rows) {
    std::string error = row.error;
    if (!error.empty())
      error = "XmlRpcClient::parseResponse(): Invalid response" + error + ". Response:\n" + row.answer + "\n";
    for (std::size_t form = 0; form < 4; ++form) {
      FakeTransport transport(row.answer, row.transportStatus);
      Client client(&transport), unconnected(nullptr);
      XmlRpcValue result(1), nothing(1);
      int status = thrown;
      testing::internal::CaptureStderr();
      try {
        status = forms[form](client, result);
      } catch (const XmlRpcException& e) {
        EXPECT_EQ(CODE_TYPE_ERROR, e.getCode());
      }
      EXPECT_EQ(error, testing::internal::GetCapturedStderr());
      EXPECT_EQ(row.statuses[form], status) << row.answer << " by form " << form;
      EXPECT_EQ(row.valid, result.valid()) << row.answer;
      EXPECT_EQ(row.isFault, client.IsFault()) << row.answer;
      EXPECT_NE(std::string::npos, transport.sent.find("<methodName>m</methodName>"));
      EXPECT_EQ("", client.documents());
      EXPECT_LE(client.room(), 65536U) << "more than that goes back";
      EXPECT_EQ(form == 1 || form == 2 ? 1U : 0U, transport.timeout);
      EXPECT_EQ(-9, forms[form](unconnected, nothing));
      EXPECT_FALSE(nothing.valid());
    }
  }
}

TEST(Bindings, GetReadsWhateverIsNoStringAsEmptyAndAddressesNeverShrink) {
  RPCConf::GetNetwork::CResults results;
  results["SubnetMask"] = 5;
  results.deleteMember("MACAddress");
  EXPECT_EQ(results.Get_SubnetMask() + results.Get_MACAddress(), "");
  EXPECT_EQ(XmlRpcValue(5), results["SubnetMask"]);
  EXPECT_TRUE(results.hasMember("MACAddress")) << "which reading makes";
  static_cast<XmlRpcValue&>(results) = 5;
  EXPECT_EQ(results.Get_GatewayAddress(), "");
  RPCConf::SetNetwork::CParams params;
  for (const int count : {0, -1}) params.SetSize_DNSAddresses(count);
  EXPECT_FALSE(params.hasMember("DNSAddresses"));
  for (const int count : {2, 3}) params.SetSize_DNSAddresses(count);
  params["DNSAddresses"][0] = "8.8.8.8";
  params.SetSize_DNSAddresses(1);
  EXPECT_EQ(params["DNSAddresses"].toXml(1), "<va><ar><da><va>8.8.8.8</va><va></va><va></va></da></ar></va>");
}

TEST(Bindings, StartWithTheseMembers) {
  RPCConf::SetNetwork::CParams set;
  set.Set_IPAddress("ip");
  set.Set_SubnetMask("mask");
  set.Set_GatewayAddress("gate");
  const std::pair<XmlRpcValue, std::string> rows[] = {
      {RPCConf::GetNetwork::CParams(), "DeviceName= MethodID=RPCConf::GetNetwork "},
      {RPCConf::GetNetwork::CResults(),
       "DHCPActive=<i4>0</i4> GatewayAddress= IPAddress= MACAddress= MethodID=RPCConf::GetNetwork SubnetMask= "
       "iRet=<i4>0</i4> "},
      {set,
       "Activate=<bo>0</bo> DHCPActive=<bo>0</bo> DeviceName= GatewayAddress=gate IPAddress=ip "
       "MethodID=RPCConf::SetNetwork Save=<bo>0</bo> SubnetMask=mask "},
      {RPCConf::SetNetwork::CResults(), "MethodID=RPCConf::SetNetwork iRet=<i4>0</i4> "},
      {RPCMeas::GetGlobalSysInfos::CParams(), "MethodID=RPCMeas::GetGlobalSysInfos "},
      {RPCMeas::GetGlobalSysInfos::CResults(),
       "CasingModuleType=<i4>0</i4> DataBufferCount=<i4>0</i4> DataLoggerCount=<i4>0</i4> DeviceName= DeviceType= "
       "Firmware= FunctionModuleType=<i4>0</i4> InternalProcessingRate=<do>0</do> IsBigEndian=<bo>0</bo> "
       "MainModuleType=<i4>0</i4> MesurementRate=<do>0</do> MethodID=RPCMeas::GetGlobalSysInfos SerialNumber= "
       "SlaveModuleCount=<i4>0</i4> SubModuleType=<i4>0</i4> TypeCode= VariablesCount=<i4>0</i4> "},
      {RPCSys::SendSysCmd::CParams(), "MethodID=RPCSys::SendSysCmd Msg= "},
      {RPCSys::SendSysCmd::CResults(), "MethodID=RPCSys::SendSysCmd "}};
  for (const auto& [record, expected] : rows) {
    std::string members;
    for (const auto& [name, member] : record.members()) {
      const std::string xml = member.toXml(1);
      members += name + "=" + xml.substr(4, xml.size() - 9) + " ";  // without its value tags
    }
    EXPECT_EQ(members, expected);
  }
}

}  // namespace
