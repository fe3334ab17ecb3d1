#include <gtest/gtest.h>

#include "rpc/RPCConf.h"
#include "rpc/RPCMeas.h"
#include "rpc/RPCSys.h"

using TarnXmlRpc::XmlRpcValue;

namespace {

const std::string no = "<boolean>0</boolean> ";
const std::string zero = "<i4>0</i4> ";

/// "name=value" of each member, in order of the names.
std::string Dump(const XmlRpcValue& record) {
  std::vector<std::string> names;
  EXPECT_TRUE(record.getMembers(names));
  std::string text;
  for (const std::string& name : names) {
    XmlRpcValue member;
    record.getMember(name, member);
    const std::string xml = member.toXml(0);
    text += name + "=" + xml.substr(7, xml.size() - 15) + " ";  // between <value> and </value>
  }
  return text;
}

TEST(Bindings, StartWithEveryMemberAtItsDefault) {
  EXPECT_EQ(Dump(RPCConf::GetNetwork::CParams()), "DeviceName= MethodID=RPCConf::GetNetwork ");
  EXPECT_EQ(Dump(RPCConf::GetNetwork::CResults()),
            "DHCPActive=" + zero +
                "GatewayAddress= IPAddress= MACAddress= MethodID=RPCConf::GetNetwork SubnetMask= iRet=" + zero);
  EXPECT_EQ(Dump(RPCConf::SetNetwork::CParams()), "Activate=" + no + "DHCPActive=" + no +
                                                      "DeviceName= GatewayAddress= IPAddress= "
                                                      "MethodID=RPCConf::SetNetwork Save=" +
                                                      no + "SubnetMask= ");
  EXPECT_EQ(Dump(RPCConf::SetNetwork::CResults()), "MethodID=RPCConf::SetNetwork iRet=" + zero);
  EXPECT_EQ(Dump(RPCMeas::GetGlobalSysInfos::CParams()), "MethodID=RPCMeas::GetGlobalSysInfos ");
  EXPECT_EQ(
      Dump(RPCMeas::GetGlobalSysInfos::CResults()),
      "CasingModuleType=" + zero + "DataBufferCount=" + zero + "DataLoggerCount=" + zero +
          "DeviceName= DeviceType= Firmware= FunctionModuleType=" + zero +
          "InternalProcessingRate=<double>0</double> IsBigEndian=" + no + "MainModuleType=" + zero +
          "MesurementRate=<double>0</double> MethodID=RPCMeas::GetGlobalSysInfos SerialNumber= SlaveModuleCount=" +
          zero + "SubModuleType=" + zero + "TypeCode= VariablesCount=" + zero);
  EXPECT_EQ(Dump(RPCSys::SendSysCmd::CParams()), "MethodID=RPCSys::SendSysCmd Msg= ");
  EXPECT_EQ(Dump(RPCSys::SendSysCmd::CResults()), "MethodID=RPCSys::SendSysCmd ");
}

TEST(Bindings, GetReadsWhateverIsNoStringAsEmpty) {
  using Results = RPCConf::GetNetwork::CResults;
  Results results;
  results[Results::ItemName_IPAddress()] = "10.0.0.1";
  results[Results::ItemName_SubnetMask()] = 5;
  results.deleteMember(Results::ItemName_MACAddress());
  const Results& server = results;
  EXPECT_EQ(server.Get_IPAddress(), "10.0.0.1");
  EXPECT_EQ(server.Get_SubnetMask(), "");
  EXPECT_EQ(server.getMemberType(Results::ItemName_SubnetMask()), XmlRpcValue::TypeInt);
  EXPECT_EQ(server.Get_MACAddress(), "");
  EXPECT_EQ(server.getMemberType(Results::ItemName_MACAddress()), XmlRpcValue::TypeString) << "made by reading it";
  results.invalidate();
  EXPECT_EQ(server.Get_GatewayAddress(), "");
  static_cast<XmlRpcValue&>(results) = 5;
  EXPECT_EQ(server.Get_GatewayAddress(), "");
  EXPECT_EQ(server.getType(), XmlRpcValue::TypeInt);
  EXPECT_EQ(RPCMeas::GetGlobalSysInfos::CResults().Get_DeviceType(), "");
}

TEST(Bindings, SetNetworkTakesTextsAndAddressesThatGrowButNeverShrink) {
  RPCConf::SetNetwork::CParams params;
  const std::string& addresses = params.ItemName_DNSAddresses();
  params.SetSize_DNSAddresses(0);
  params.SetSize_DNSAddresses(-1);
  EXPECT_FALSE(params.hasMember(addresses));
  params.SetSize_DNSAddresses(2);
  params[addresses][1] = "8.8.8.8";
  params.SetSize_DNSAddresses(1);
  params.SetSize_DNSAddresses(3);
  params.Set_IPAddress("10.0.0.1");
  params.Set_SubnetMask("255.0.0.0");
  params.Set_GatewayAddress("10.0.0.2");
  EXPECT_EQ(Dump(params), "Activate=" + no + "DHCPActive=" + no +
                              "DNSAddresses=<array><data><value></value><value>8.8.8.8</value><value></value></data>"
                              "</array> DeviceName= GatewayAddress=10.0.0.2 IPAddress=10.0.0.1 "
                              "MethodID=RPCConf::SetNetwork Save=" +
                              no + "SubnetMask=255.0.0.0 ");
}

}  // namespace
