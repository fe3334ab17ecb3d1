#include "rpc/RPCConf.h"

namespace RPCConf {

namespace {
constexpr char GET_NETWORK_ID[] = "RPCConf::GetNetwork";
constexpr char SET_NETWORK_ID[] = "RPCConf::SetNetwork";
}  // namespace

GetNetwork::CParams::CParams() { RPCItem::SetDefaults(*this, GET_NETWORK_ID, {{ItemName_DeviceName(), ""}}); }

GetNetwork::CResults::CResults() {
  RPCItem::SetDefaults(*this, GET_NETWORK_ID,
                       {{ItemName_IPAddress(), ""},
                        {ItemName_SubnetMask(), ""},
                        {ItemName_GatewayAddress(), ""},
                        {ItemName_DHCPActive(), 0},
                        {ItemName_MACAddress(), ""},
                        {ItemName_iRet(), 0}});
}

SetNetwork::CParams::CParams() {
  RPCItem::SetDefaults(*this, SET_NETWORK_ID,
                       {{ItemName_DeviceName(), ""},
                        {ItemName_IPAddress(), ""},
                        {ItemName_SubnetMask(), ""},
                        {ItemName_GatewayAddress(), ""},
                        {ItemName_DHCPActive(), false},
                        {ItemName_Activate(), false},
                        {ItemName_Save(), false}});
}

void SetNetwork::CParams::SetSize_DNSAddresses(int count) {
  if (count <= 0 && !hasMember(ItemName_DNSAddresses())) return;
  XmlRpcValue& addresses = (*this)[ItemName_DNSAddresses()];
  const int before = addresses.size();
  addresses.assertArray(count);
  for (int i = before; i < addresses.size(); ++i) addresses[i] = "";
}

SetNetwork::CResults::CResults() { RPCItem::SetDefaults(*this, SET_NETWORK_ID, {{ItemName_iRet(), 0}}); }

}  // namespace RPCConf
