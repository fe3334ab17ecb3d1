#include "ddp/TarnDDPCommand.h"

#include <boost/lexical_cast.hpp>
#include <cctype>
#include <new>
#include <vector>

#include "ddp/CommandDeviceIdent.h"
#include "ddp/CommandNetwork.h"
#include "ddp/Datagram.h"
#include "ddp/Notify.h"
#include "ddp/Reply.h"
#include "ddp/TarnDDPServer.h"
#include "ddp/TarnDDPTrace.h"
#include "rpc/RPCSys.h"
#include "util/Shell.h"

AbsTime_US DisableIdentEndTime_US = 0;

namespace {

using RPCSys::SendSysCmd;

/// The command word, then the arguments, without a MAC filter.
using Fields = std::vector<std::string>;

std::string Identify(const Fields&) {
  if (ul_GetAbsTime_US(false) <= DisableIdentEndTime_US) return {};
  return Command_DeviceIdent();
}

std::string SetIPAddress(const Fields& fields) {
  if (fields.size() < 5) return REPLY_NACK;
  return Command_SetIPAddress(fields[1], fields[2], fields[3], fields.size() == 5 ? std::string() : fields[4]);
}

/// A text that is not on or off turns DHCP on.
std::string SetDHCPMode(const Fields& fields) {
  if (fields.size() < 2) return {};
  bool dhcpOn = true;
  if (!boost::conversion::try_lexical_convert(fields[1], dhcpOn)) dhcpOn = true;
  return Command_SetDHCP(dhcpOn);
}

/// The device halts and stays down until it is powered anew.
std::string Reboot(const Fields&) {
  const NotifyLongStep step;
  ul_RunCommand("halt");
  return REPLY_ACK;
}

std::string DisableIdent(const Fields&) {
  constexpr std::uint64_t SILENCE_US = 10000000;
  ul_MathAbsTime_NowAddParam_US(SILENCE_US, &DisableIdentEndTime_US);
  return REPLY_ACK;
}

std::string EnableIdent(const Fields&) {
  DisableIdentEndTime_US = 0;
  return REPLY_ACK;
}

/// Unlike in SetDHCPMode(), a text that is not on or off throws, and nothing catches it: it ends the daemon.
std::string SwitchTrace(const Fields& fields) {
  if (fields.size() < 2) return {};
  EnableTrace(boost::lexical_cast<bool>(fields[1]));
  return REPLY_ACK;
}

/// The argument is a shell line by design. The reply is the same whether it ran or not.
std::string ExecuteCommand(const Fields& fields) {
  if (fields.size() >= 2 && IsConnected()) {
    const NotifyLongStep step;
    ul_RunCommand(fields[1]);
  }
  return REPLY_NACK;
}

struct Command {
  const char* word;
  bool needsDirectAddressing;
  std::string (*run)(const Fields& fields);
};

constexpr Command COMMANDS[] = {
    {"DEVICEIDENT?", false, Identify},          {"DEVICEIDENTEXT?", false, Identify},
    {"SETIPADDRESS!", false, SetIPAddress},     {"SETDHCPMODE!", false, SetDHCPMode},
    {"DEVICEREBOOT!", false, Reboot},           {"DEVICEDISABLEIDENT!", false, DisableIdent},
    {"DEVICEENABLEIDENT!", false, EnableIdent}, {"SYSTRACE!", true, SwitchTrace},
    {"EXECUTECOMMAND!", true, ExecuteCommand},
};

/// Hands the service a request that is not ours and ignores its answer.
void Forward(const std::string& datagram) {
  if (!IsConnected()) return;
  SendSysCmd::CParams params;
  params[SendSysCmd::CParams::ItemName_Msg()] = datagram;
  SendSysCmd::CResults results;
  CallDeviceService(SendSysCmd::MethodName, params, results);
}

/// Whether the request is for this device; takes the MAC filter, which says so, out of the fields. There are two at
/// least, because a line end separates them.
bool PassMacFilter(Fields& fields) {
  if (!TarnDDPCommand_IsMacAddress(fields[1])) return true;
  if (!Server.IsOwnMacAddress(fields[1])) return false;
  fields.erase(fields.begin() + 1);
  return true;
}

std::string Execute(const std::string& datagram, bool directlyAddressed) {
  if (datagram.find_first_of("\r\n") == std::string::npos) return {};
  Fields fields = TarnDDPCommand_SplitFields(datagram);
  if (!PassMacFilter(fields)) return {};

  for (char& c : fields[0]) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  for (const Command& command : COMMANDS) {
    if (fields[0] != command.word) continue;
    return directlyAddressed || !command.needsDirectAddressing ? command.run(fields) : std::string();
  }
  if (directlyAddressed) Forward(datagram);
  return {};
}

}  // namespace

std::string TarnDDPCommand_Execute(const std::string& datagram, bool directlyAddressed) {
  try {
    return Execute(datagram, directlyAddressed);
  } catch (const std::bad_alloc&) {
    return {};
  }
}
