#include "util/Shell.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <utility>

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
/// by a handler that does nothing: at no moment could a broken pipe end this process, and the command gets the default.
class CaughtPipeSignal {
 public:
  CaughtPipeSignal() {
    if (sigaction(SIGPIPE, nullptr, &before_) != 0 || before_.sa_handler != SIG_IGN) return;
    struct sigaction caught = {};
    caught.sa_handler = DoNothing;
    caught.sa_flags = SA_RESTART;
    sigemptyset(&caught.sa_mask);
    ignored_ = sigaction(SIGPIPE, &caught, nullptr) == 0;
  }
  ~CaughtPipeSignal() {
    if (ignored_) sigaction(SIGPIPE, &before_, nullptr);
  }
  CaughtPipeSignal(const CaughtPipeSignal&) = delete;
  CaughtPipeSignal& operator=(const CaughtPipeSignal&) = delete;

 private:
  struct sigaction before_ = {};
  bool ignored_ = false;
};

/// Standard output or error while a command runs: where its reader stopped or went away, it leads to /dev/null, since
/// the command knows nothing of our care and would wait for the reader for ever, and we for the command.
class HarmlessStream {
 public:
  explicit HarmlessStream(int stream) : stream_(stream) {
    pollfd look = {stream, POLLOUT, 0};
    if (poll(&look, 1, 0) == 1 && (look.revents == POLLOUT || (look.revents & POLLNVAL) != 0)) return;
    const int null = GateDescriptor(open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (null < 0) return;
    before_ = GateDescriptor(fcntl(stream, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (before_ >= 0) dup2(null, stream);
    close(null);
  }
  ~HarmlessStream() {
    if (before_ < 0) return;
    dup2(before_, stream_);
    close(before_);
  }
  HarmlessStream(const HarmlessStream&) = delete;
  HarmlessStream& operator=(const HarmlessStream&) = delete;

 private:
  int stream_;
  int before_ = -1;
};

}  // namespace

std::string ul_ShellWord(const std::string& text) {
  constexpr const char* plain =
      "abcdefghijklmnopqrstuvwxyz"
      "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
      "0123456789"
      "-_.,:/@+%=";
  std::string word = text.c_str();  // up to the first NUL
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
  return std::system(command.c_str());
}

bool ul_ReadCommand(const std::string& command, std::string& output) {
  if (IsTooLong(command)) return false;
  std::FILE* stream = nullptr;
  {
    const CaughtPipeSignal caught;
    stream = popen(command.c_str(), "re");
  }
  if (stream == nullptr) return false;
  std::string text;
  std::array<char, 512> piece = {};
  while (const std::size_t size = std::fread(piece.data(), 1, piece.size(), stream)) text.append(piece.data(), size);
  pclose(stream);
  output = std::move(text);
  return true;
}
