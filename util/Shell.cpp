#include "util/Shell.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <vector>

#include "base/Descriptor.h"

namespace {

constexpr std::size_t LONGEST_COMMAND = 1023;

bool IsTooLong(const std::string& command) {
  if (command.size() <= LONGEST_COMMAND) return false;
  errno = E2BIG;
  return true;
}

void DoNothing(int) {}

/// A child inherits an ignored signal but not a caught one. So while a command is started, an ignored SIGPIPE is caught
/// by a handler that does nothing: the command gets the default, and a broken pipe never ends this process.
class CaughtPipeSignal {
 public:
  CaughtPipeSignal() {
    if (sigaction(SIGPIPE, nullptr, &_before) != 0 || _before.sa_handler != SIG_IGN) return;
    struct sigaction caught = {};
    caught.sa_handler = DoNothing;
    caught.sa_flags = SA_RESTART;
    sigemptyset(&caught.sa_mask);
    _ignored = sigaction(SIGPIPE, &caught, nullptr) == 0;
  }
  ~CaughtPipeSignal() {
    if (_ignored) sigaction(SIGPIPE, &_before, nullptr);
  }
  CaughtPipeSignal(const CaughtPipeSignal&) = delete;
  CaughtPipeSignal& operator=(const CaughtPipeSignal&) = delete;

 private:
  struct sigaction _before = {};
  bool _ignored = false;
};

/// Standard output or error while a command runs: where its reader stopped or went away, it leads to /dev/null. The
/// command would wait for that reader without end, and this process for the command.
class HarmlessStream {
 public:
  explicit HarmlessStream(int stream) : _stream(stream) {
    pollfd look = {stream, POLLOUT, 0};
    if (poll(&look, 1, 0) == 1 && look.revents == POLLOUT) return;
    const int null = GateCloexec(open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (null < 0) return;
    _before = GateCloexec(fcntl(stream, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (_before >= 0) dup2(null, stream);  // a closed one stays closed
    close(null);
  }
  ~HarmlessStream() {
    if (_before < 0) return;
    dup2(_before, _stream);
    close(_before);
  }
  HarmlessStream(const HarmlessStream&) = delete;
  HarmlessStream& operator=(const HarmlessStream&) = delete;

 private:
  int _stream;
  int _before = -1;
};

/// Starts a shell for `command` with that standard output and environment: its process id, or -1 with errno.
pid_t StartShell(const std::string& command, int output, char* const* environment) {
  const HarmlessStream errors(STDERR_FILENO);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (output != STDOUT_FILENO) posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);  // it may be closed
  sigset_t pipeSignal;
  sigemptyset(&pipeSignal);
  sigaddset(&pipeSignal, SIGPIPE);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  posix_spawnattr_setsigdefault(&attributes, &pipeSignal);
  std::string line = command;
  char name[] = "sh";
  char option[] = "-c";
  char* const arguments[] = {name, option, line.data(), nullptr};
  pid_t shell = -1;
  const int failure = posix_spawn(&shell, "/bin/sh", &actions, &attributes, arguments, environment);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (failure == 0) return shell;
  errno = failure;
  return -1;
}

/// Waits for the end of a shell that was started; its status, or -1 with errno.
int Await(pid_t shell) {
  int status = -1;
  while (waitpid(shell, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return status;
}

/// Ours, with short look-ups of host names: the caller waits for `route`, which may ask a silent name server for a
/// gateway, and for a name with dots once more in each domain of the search list.
std::vector<char*> EnvironmentOfRoute() {
  static char options[] = "RES_OPTIONS=timeout:1 attempts:1 ndots:15";
  static char domain[] = "LOCALDOMAIN=";
  std::vector<char*> variables;
  for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
    variables.push_back(*variable);
  }
  if (std::getenv("RES_OPTIONS") == nullptr) variables.push_back(options);
  if (std::getenv("LOCALDOMAIN") == nullptr) variables.push_back(domain);
  variables.push_back(nullptr);
  return variables;
}

std::string ReadToEnd(int descriptor) {
  std::string text;
  std::array<char, 512> piece = {};
  for (;;) {
    const ssize_t size = read(descriptor, piece.data(), piece.size());
    if (size > 0) text.append(piece.data(), static_cast<std::size_t>(size));
    if (size == 0 || (size < 0 && errno != EINTR)) return text;
  }
}

}  // namespace

std::string ul_ShellWord(const std::string& text) {
  constexpr const char* plain =
      "abcdefghijklmnopqrstuvwxyz"
      "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
      "0123456789"
      "-_.,:/@+%=";
  std::string word = text.substr(0, text.find('\0'));
  if (word.find_first_not_of(plain) == std::string::npos) return word;
  std::string quoted = "'";
  for (const char c : word) {
    if (c == '\'') {
      quoted += "'\\''";  // nothing is special between single quotes, not even a backslash
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

int ul_RunCommand(const std::string& command) {
  if (IsTooLong(command)) return -1;
  const CaughtPipeSignal caught;
  const HarmlessStream output(STDOUT_FILENO);
  const HarmlessStream errors(STDERR_FILENO);
  return std::system(command.c_str());  // NOLINT(cert-env33-c): the one place that may
}

int ul_RunRoute(const std::string& command) {
  if (IsTooLong(command)) return -1;
  pid_t shell = -1;
  {
    const HarmlessStream output(STDOUT_FILENO);
    shell = StartShell(command, STDOUT_FILENO, EnvironmentOfRoute().data());
  }
  return shell < 0 ? -1 : Await(shell);
}

bool ul_ReadCommand(const std::string& command, std::string& output) {
  int ends[2] = {-1, -1};
  if (IsTooLong(command) || !OpenPipe(ends)) return false;
  const pid_t shell = StartShell(command, ends[1], environ);
  CloseKeepingErrno(ends[1]);
  if (shell > 0) output = ReadToEnd(ends[0]);
  CloseKeepingErrno(ends[0]);
  if (shell > 0) Await(shell);
  return shell > 0;
}
