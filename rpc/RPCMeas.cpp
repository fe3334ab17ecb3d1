#include "rpc/RPCMeas.h"

namespace RPCMeas {

namespace {
constexpr char GET_GLOBAL_SYS_INFOS_ID[] = "RPCMeas::GetGlobalSysInfos";
}

GetGlobalSysInfos::CParams::CParams() { RPCItem::SetDefaults(*this, GET_GLOBAL_SYS_INFOS_ID, {}); }

GetGlobalSysInfos::CResults::CResults() {
  RPCItem::SetDefaults(*this, GET_GLOBAL_SYS_INFOS_ID,
                       {{ItemName_DeviceType(), ""},
                        {ItemName_DeviceName(), ""},
                        {ItemName_TypeCode(), ""},
                        {ItemName_MainModuleType(), 0},
                        {ItemName_SubModuleType(), 0},
                        {ItemName_FunctionModuleType(), 0},
                        {ItemName_CasingModuleType(), 0},
                        {ItemName_SerialNumber(), ""},
                        {ItemName_Firmware(), ""},
                        {ItemName_IsBigEndian(), false},
                        {ItemName_MesurementRate(), 0.0},
                        {ItemName_InternalProcessingRate(), 0.0},
                        {ItemName_DataBufferCount(), 0},
                        {ItemName_DataLoggerCount(), 0},
                        {ItemName_VariablesCount(), 0},
                        {ItemName_SlaveModuleCount(), 0}});
}

}  // namespace RPCMeas
