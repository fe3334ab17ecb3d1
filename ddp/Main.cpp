#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

#include "ddp/Notify.h"
#include "ddp/Options.h"
#include "ddp/Print.h"
#include "ddp/Startup.h"
#include "ddp/TarnDDPCommand.h"
#include "ddp/TarnDDPServer.h"
#include "ddp/TarnDDPTrace.h"
#include "ddp/Upkeep.h"

namespace {

/// Runs a step around the dispatcher, whose own exceptions are meant to end the process. False if it broke off because
/// memory ran out, which costs the datagram.
template <typename Step>
bool IsDone(const Step& step) {
  try {
    step();
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

/// The next datagram, announced; empty if there is none. What mends itself is looked after meanwhile.
std::string Receive() {
  std::string datagram = Server.Receive();
  Upkeep_ServiceConnection();
  Upkeep_Network(InterfaceName);
  if (!datagram.empty()) {
    Print({"Received ", datagram, " from ", Server.GetSender(), " with ", Server.GetScanMethod()});
  }
  return datagram;
}

void Send(const std::string& reply) {
  Upkeep_Network(InterfaceName);  // the reply may need what the command just changed
  if (!reply.empty()) Server.Send(reply);
  Upkeep_Memory();
}

/// One turn of the loop.
void Serve() {
  Notify_Turn();
  std::string datagram;
  if (IsDone([&datagram] { datagram = Receive(); }) && !datagram.empty()) {
    const std::string reply = TarnDDPCommand_Execute(datagram, Server.WasDirectAddressed());
    IsDone([&reply] { Send(reply); });
  }
  IsDone([] { Upkeep_Retry(IPAddress, port, InterfaceName); });
  usleep(1000);
}

/// Ends the process where there is an answer to print instead of serving.
void AnswerInstead(int argc, char** argv) {
  const char* const answer = AnswerInsteadOfServing(argc, argv);
  if (answer == nullptr) return;
  const bool isTold = std::fputs(answer, stdout) >= 0 && std::fflush(stdout) == 0;
  _exit(isTold ? EXIT_SUCCESS : EXIT_FAILURE);
}

#if defined(__GLIBC__) && !defined(__UCLIBC__)  // uClibc says that it is glibc, and calls these without arguments
// glibc hands the command line to these as well: here nothing is open yet, as it is in main(), which `Server` precedes.
[[gnu::constructor(101)]] void AnswerBeforeServerIsMade(int argc, char** argv) { AnswerInstead(argc, argv); }
#endif

}  // namespace

int main(int argc, char** argv) {
  AnswerInstead(argc, argv);
  Startup_Prepare();
  ReadOptions(argc, argv);
  Print("Starting Tessel01 DDP Server");
  Startup_AddMulticastRoute(InterfaceName);
  Upkeep_Network(InterfaceName);
  if (Daemon != 0) Startup_Daemonize();
  Init_TarnDDPTrace();  // after the fork, which takes no thread along
  Upkeep_Attach(IPAddress, port, InterfaceName);
  for (;;) Serve();
}
