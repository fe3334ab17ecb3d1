#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "base/ConsoleLine.h"
#include "ddp/Options.h"
#include "ddp/TarnDDPCommand.h"
#include "ddp/TarnDDPServer.h"
#include "ddp/TarnDDPTrace.h"
#include "ddp/Upkeep.h"
#include "util/Shell.h"
#include "util/_Time.h"

namespace {

constexpr std::uint64_t RetryInterval_US = 5000000;

void Print(const std::string& text) { ConsoleLine(STDOUT_FILENO, text + "\n"); }

/// So that no descriptor of ours ever takes the place of a standard stream.
void OpenStandardStreams() {
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (fcntl(stream, F_GETFD) < 0) open("/dev/null", O_RDWR);
  }
}

/// A reader of our console that went away must not end us. Not SIG_IGN, which the commands that we run would inherit.
void SurviveBrokenPipes() {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  action.sa_flags = SA_RESTART;
  sigaction(SIGPIPE, &action, nullptr);
}

/// What a huge answer took goes back to the system with it: the C library would otherwise learn from its size to keep
/// blocks of that size in the heap.
void ReturnLargeBlocks() {
#ifdef __GLIBC__
  constexpr int Threshold = 65536;
  mallopt(M_MMAP_THRESHOLD, Threshold);
#endif
}

void AddMulticastRoute() {
  char command[1024];
  std::snprintf(command, sizeof command, "route add -net 224.0.0.0 netmask 224.0.0.0 %s\n",
                ul_ShellWord(InterfaceName).c_str());
  ul_RunRoute(command);
}

/// Goes on in a child without a terminal; ends the process on failure. Exits are immediate: nothing that is to be done
/// or written at the end may be done in both processes.
void Daemonize() {
  Print("VRTX APP Started in Daemon mode! -> Daemonizing");
  const pid_t child = fork();
  if (child < 0) _exit(EXIT_FAILURE);
  if (child > 0) _exit(EXIT_SUCCESS);
  umask(0);
  if (setsid() < 0 || chdir("/") < 0) _exit(EXIT_FAILURE);
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) close(stream);
  for (const int mode : {O_RDONLY, O_RDWR, O_RDWR}) open("/dev/null", mode);
}

void AttachToDeviceService() {
  const bool isAttached = TarnDDPCommand_Init(IPAddress, port, InterfaceName);
  Print(isAttached ? "Successfully attached to device API" : "Failed to attach to device API - APPTERM");
}

void OpenEndpoints() {
  const bool isOpen = Server.InitConnections();
  Print(isOpen ? "Successfully opened server conenctions" : "Failed to open server connections");
}

void Answer(const std::string& datagram) {
  Print("Received " + datagram + " from " + Server.GetSender() + " with " + Server.GetScanMethod());
  const std::string reply = TarnDDPCommand_Execute(datagram, Server.WasDirectAddressed());
  Upkeep_Network(InterfaceName);  // the reply may need what the command just changed
  if (!reply.empty()) Server.Send(reply);
  Upkeep_Memory();
}

/// One turn of the loop.
void Serve(AbsTime_US& retryDeadline) {
  const std::string datagram = Server.Receive();
  Upkeep_ServiceConnection();
  Upkeep_Network(InterfaceName);
  if (!datagram.empty()) Answer(datagram);

  const bool isWhole = IsConnected() && Server.connectionsOpen;
  if (!isWhole && ul_MathAbsTime_NowIsHigherParam(&retryDeadline)) {
    if (!IsConnected()) AttachToDeviceService();
    if (!Server.connectionsOpen) OpenEndpoints();
    ul_MathAbsTime_NowAddParam_US(RetryInterval_US, &retryDeadline);
  }
  usleep(1000);
}

}  // namespace

// What a command throws is meant to end the process.
int main(int argc, char** argv) {
  std::set_terminate([] { std::abort(); });  // without a word, for which a stopped reader would have to wait
  OpenStandardStreams();
  SurviveBrokenPipes();
  ReturnLargeBlocks();

  ReadOptions(argc, argv);
  Print("Starting Tessel01 DDP Server");
  AddMulticastRoute();
  Upkeep_Network(InterfaceName);
  if (Daemon != 0) Daemonize();
  Init_TarnDDPTrace();
  AttachToDeviceService();

  AbsTime_US retryDeadline = ul_GetAbsTime_US(false) + RetryInterval_US;
  for (;;) Serve(retryDeadline);
}
