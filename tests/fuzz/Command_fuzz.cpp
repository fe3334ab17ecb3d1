#include <cctype>
#include <typeinfo>
#include <vector>

#include "ddp/CommandDeviceIdent.h"
#include "ddp/CommandNetwork.h"
#include "ddp/Datagram.h"
#include "ddp/Notify.h"
#include "ddp/TarnDDPCommand.h"
#include "ddp/TarnDDPServer.h"
#include "ddp/TarnDDPTrace.h"
#include "rpc/Item.h"
#include "tests/fuzz/Input.h"
#include "util/Shell.h"

// In place of what acts, opens and asks the clock: each tells what it was asked for.

namespace {
std::string done;
AbsTime_US now;
bool isServed, isAck;
const std::string MAC = "00:1b:c4:0a:ff:05";
}  // namespace

TarnDDPServer::TarnDDPServer() = default;
TarnDDPServer Server;
NotifyLongStep::NotifyLongStep() { done += '{'; }
NotifyLongStep::~NotifyLongStep() { done += '}'; }
void EnableTrace(bool on) { done += on ? "trace" : "no trace"; }
bool IsConnected() { return isServed; }
std::string Command_DeviceIdent() { return "record"; }
std::string Command_SetDHCP(bool dhcpOn) { return dhcpOn ? "lease" : "no lease"; }
std::string Command_SetIPAddress(const std::string& a, const std::string& b, const std::string& c,
                                 const std::string& d) {
  done = a + '|' + b + '|' + c + '|' + d;
  return isAck ? "ACK\n" : "NACK\n";
}
int ul_RunCommand(const std::string& command) {
  done += command;
  return 0;
}
bool CallDeviceService(const char* method, const TarnXmlRpc::XmlRpcValue& params, TarnXmlRpc::XmlRpcValue&,
                       AfterTimeout) {
  done = method + RPCItem::GetText(params, "Msg");
  return isAck;
}
AbsTime_US ul_GetAbsTime_US(bool) { return now; }
void ul_MathAbsTime_NowAddParam_US(std::uint64_t us, AbsTime_US* time) { *time = now + us; }

namespace {

enum Mode { Off, On, Neither };

/// Zeros in front count for nothing, nor does a sign, but for that of -1.
Mode ModeOf(const std::string& text) {
  const std::size_t sign = text.find_first_of("+-") == 0 ? 1 : 0, digit = text.find_first_not_of('0', sign);
  if (digit == std::string::npos) return text.size() > sign ? Off : Neither;
  return text.substr(digit) == "1" && text[0] != '-' ? On : Neither;
}

/// The answer by the rules, "ends" where the process does, and what is done for it.
std::string Answer(const std::string& datagram, bool isDirect, AbsTime_US& silentUntil, std::string& acts) {
  std::vector<std::string> fields = TarnDDPCommand_SplitFields(datagram);
  if (datagram.find_first_of("\r\n") == std::string::npos) return "";
  if (TarnDDPCommand_IsMacAddress(fields[1])) {
    if (fields[1] != MAC) return "";
    fields.erase(fields.begin() + 1);
  }
  std::string word = fields[0];
  for (char& c : word) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  const std::size_t count = fields.size();
  fields.resize(count + 4);
  const std::string first = fields[1], server = count > 5 ? fields[4] : "", given = isAck ? "ACK\n" : "NACK\n";
  if (word == "DEVICEIDENT?" || word == "DEVICEIDENTEXT?") return now > silentUntil ? "record" : "";
  if (word == "DEVICEENABLEIDENT!") return silentUntil = 0, "ACK\n";
  if (word == "DEVICEDISABLEIDENT!") return silentUntil = now + 10000000, "ACK\n";
  if (word == "DEVICEREBOOT!") return acts = "{halt}", "ACK\n";
  if (word == "SETIPADDRESS!" && count < 5) return "NACK\n";
  if (word == "SETIPADDRESS!") return acts = first + '|' + fields[2] + '|' + fields[3] + '|' + server, given;
  if (word == "SETDHCPMODE!") return count < 2 ? "" : ModeOf(first) == Off ? "no lease" : "lease";
  if (word == "EXECUTECOMMAND!" && isDirect && isServed && count > 1) acts = '{' + first + '}';
  if (word == "EXECUTECOMMAND!") return isDirect ? "NACK\n" : "";
  if (word == "SYSTRACE!" && isDirect && count > 1) {
    if (ModeOf(first) == Neither) return "ends";
    return acts = ModeOf(first) == On ? "trace" : "no trace", "ACK\n";
  }
  if (word != "SYSTRACE!" && isDirect && isServed) acts = "RPCSys.SendSysCmd" + datagram;
  return "";
}

std::string Datagram(Input& input) {
  std::string text(
      input.Piece("DEVICEIDENT?|deviceIdentExt?|SETIPADDRESS!|SETDHCPMODE!|DEVICEREBOOT!|DEVICEDISABLEIDENT!|"
                  "DEVICEENABLEIDENT!|SYSTRACE!|systrace!|EXECUTECOMMAND!|show|DEVICEIDENT|"));
  for (unsigned left = input.Below(12); left > 0; --left) {
    const auto piece =
        input.Piece("\t|-|+|\r|\n|\r\n|0|1|\t00:1b:c4:0a:ff:05|\t001bc40aff05|\t2|x| |00:1B:c4:0a:ff:05|||");
    text += piece.empty() ? input.Take(1) : piece;
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  AbsTime_US silentUntil = 0;
  DisableIdentEndTime_US = 0;
  Server.SetOwnMACAddress(MAC);
  for (now = 1; !input.IsEmpty();) {
    const unsigned how = input.Byte();
    const bool isDirect = (how & 1) != 0;
    isServed = (how & 2) != 0;
    isAck = (how & 4) != 0;
    now += (how & 8) != 0 ? 10000000 : how / 16;
    const std::string datagram = Datagram(input);
    std::string acts, answer;
    done.clear();
    try {
      answer = TarnDDPCommand_Execute(datagram, isDirect);
    } catch (const std::bad_cast&) {
      answer = "ends";
    }
    Require(Answer(datagram, isDirect, silentUntil, acts) == answer, "answer", datagram);
    Require(acts == done, "act", done);
  }
  return 0;
}
