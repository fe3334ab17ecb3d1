#include "ddp/Startup.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "ddp/Notify.h"
#include "ddp/Print.h"
#include "util/Shell.h"

namespace {

/// So that no descriptor of ours ever takes the place of a standard stream.
void OpenStandardStreams() {
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (fcntl(stream, F_GETFD) < 0) open("/dev/null", O_RDWR);
  }
}

/// A reader of our console that went away must not end us, nor a file that has reached the limit for files (ulimit -f).
/// Not SIG_IGN, which the commands that we run would inherit.
void SurviveFailedWrites() {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  action.sa_flags = SA_RESTART;
  for (const int cause : {SIGPIPE, SIGXFSZ}) sigaction(cause, &action, nullptr);
}

/// What a huge answer took goes back to the system with it: the C library would otherwise learn from its size to keep
/// blocks of that size in the heap.
void ReturnLargeBlocks() {
#ifdef __GLIBC__
  constexpr int THRESHOLD = 65536;
  mallopt(M_MMAP_THRESHOLD, THRESHOLD);  // NOLINT(concurrency-mt-unsafe): there is one thread yet
#endif
}

void TellAbort(const char* cause) {
  char line[512];
  std::snprintf(line, sizeof line, "tarnddpd: aborted: %s\n", cause);
  ConsoleLine(STDERR_FILENO, line);
}

/// Says why in one line, for which it needs no memory and waits for no reader.
[[noreturn]] void Abort() {
  try {
    const std::exception_ptr thrown = std::current_exception();
    if (thrown) std::rethrow_exception(thrown);
    TellAbort("no exception");
  } catch (const std::exception& thrown) {
    TellAbort(thrown.what());
  } catch (...) {
    TellAbort("an exception of an unknown kind");
  }
  std::abort();
}

}  // namespace

void Startup_Prepare() {
  std::set_terminate(Abort);
  Notify_Prepare();
  OpenStandardStreams();
  ConsoleSettle();
  SurviveFailedWrites();
  ReturnLargeBlocks();
}

void Startup_AddMulticastRoute(const char* interface) {
  ul_RunRoute("route add -net 224.0.0.0 netmask 224.0.0.0 " + ul_ShellWord(interface) + "\n");
}

// Exits are immediate: nothing that is to be done or written at the end may be done in both processes.
void Startup_Daemonize() {
  Print("VRTX APP Started in Daemon mode! -> Daemonizing");
  const pid_t child = fork();
  if (child < 0) _exit(EXIT_FAILURE);
  Notify_Detached(child);
  if (child > 0) _exit(EXIT_SUCCESS);
  umask(0);
  if (setsid() < 0 || chdir("/") < 0) _exit(EXIT_FAILURE);
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) close(stream);
  for (const int mode : {O_RDONLY, O_RDWR, O_RDWR}) open("/dev/null", mode);
  ConsoleSettle();
}
