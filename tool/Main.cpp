#include <cstdio>
#include <exception>
#include <string>
#include <variant>
#include <vector>

#include "tool/CommandLine.h"
#include "tool/Output.h"
#include "tool/System.h"

namespace tarnddp {
namespace {

int Run(const Ending& ending) {
  if (ending.status == StatusDone) {
    Print(ending.text);
  } else {
    Say(ending.text);
  }
  return ending.status;
}
int Run(const ScanOptions& options) { return Scan(options); }
int Run(const SetIPOptions& options) { return SetIP(options); }
int Run(const DhcpOptions& options) { return Dhcp(options); }
int Run(const ApplyOptions& options) { return Apply(options); }
int Run(const TraceOptions& options) { return Trace(options); }
int Run(const HaltOptions& options) { return Halt(options); }
int Run(const SendOptions& options) { return Send(options); }

int RunProgram(const std::vector<std::string>& words) {
  PrepareProcess();
  HandleInterrupts();
  const int status = std::visit([](const auto& options) { return Run(options); }, ReadCommandLine(words));
  ShowStatus({});
  if (IsOutputGood()) return status;
  if (WasInterrupted()) return StatusInterrupted;
  return status == StatusDone ? StatusNotDone : status;
}

}  // namespace
}  // namespace tarnddp

int main(int argc, char** argv) try {
  return tarnddp::RunProgram(tarnddp::ArgumentWords(argc, argv));
} catch (const std::exception& error) {
  // No memory, no descriptor left.
  std::fprintf(stderr, "tarnddp: %s\n", error.what());
  return tarnddp::StatusNotDone;
}
