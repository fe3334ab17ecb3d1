#include "rpc/RPCSys.h"

namespace RPCSys {

namespace {
constexpr char SEND_SYS_CMD_ID[] = "RPCSys::SendSysCmd";
}

SendSysCmd::CParams::CParams() { RPCItem::SetDefaults(*this, SEND_SYS_CMD_ID, {{ItemName_Msg(), ""}}); }

SendSysCmd::CResults::CResults() { RPCItem::SetDefaults(*this, SEND_SYS_CMD_ID, {}); }

}  // namespace RPCSys
