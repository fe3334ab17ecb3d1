#include "tool/Commands.h"
#include "tool/Output.h"

namespace tarnddp {
namespace {

int NotThereYet(const char* name) {
  Say(std::string(name) + " is not there yet");
  return StatusNotDone;
}

}  // namespace

int SetIP(const SetIPOptions& /*options*/) { return NotThereYet("set-ip"); }
int Dhcp(const DhcpOptions& /*options*/) { return NotThereYet("dhcp"); }
int Apply(const ApplyOptions& /*options*/) { return NotThereYet("apply"); }
int Trace(const TraceOptions& /*options*/) { return NotThereYet("trace"); }
int Halt(const HaltOptions& /*options*/) { return NotThereYet("halt"); }
int Send(const SendOptions& /*options*/) { return NotThereYet("send"); }

}  // namespace tarnddp
