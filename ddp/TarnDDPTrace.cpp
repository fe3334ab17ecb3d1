#include "ddp/TarnDDPTrace.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>

#include "base/ConsoleLine.h"
#include "base/Descriptor.h"
#include "ddp/TarnDDPServer.h"

std::atomic<bool> Enabled{false};
pthread_t FIFO_THREAD;

namespace {

constexpr char DirectoryPath[] = "/tmp/tsl_app";
constexpr char PipePath[] = "/tmp/tsl_app/FIFO_T_C2H_AET";
constexpr std::size_t LongestText = 2048;
constexpr std::uint64_t LookInterval_US = 5000000;

void Print(std::string_view text) { ConsoleLine(STDOUT_FILENO, std::string(text) + "\n"); }

bool Exists(const char* path) {
  struct stat status = {};
  return stat(path, &status) == 0;
}

/// The directory is everyone's, so that a link may stand where we made something a moment ago: it is not followed.
bool LetEveryoneIn(const char* path) { return fchmodat(AT_FDCWD, path, 0777, AT_SYMLINK_NOFOLLOW) == 0; }

// The modes given to mkdir() and mkfifo() stand only until the next line.

bool MakeDirectory() {
  const bool isMade = mkdir(DirectoryPath, 0007) == 0;
  if (!isMade) Print("Could not create directory \"/temp/tsl_app");
  if (!LetEveryoneIn(DirectoryPath)) Print("Could not change access permissions of /tmp/tsl_app");
  return isMade;
}

bool MakePipe() {
  bool isUsable = mkfifo(PipePath, 0002) == 0;
  if (!isUsable) Print("Could not create FIFO\n");
  if (!LetEveryoneIn(PipePath)) {
    isUsable = false;
    Print("Could not change access permissions for fifoFTPR");
  }
  return isUsable;
}

/// Opens the path for reading and writing: as its own writer the pipe never reports an end, and the open waits for
/// nobody. Reads do not wait either, poll() does, for another reader may take the text in between. A link or another
/// kind of file, which anyone may put there, is not opened: what it holds is no trace text.
void Reopen(TracePipe& pipe) {
  if (pipe.descriptor >= 0) close(pipe.descriptor);
  pipe.descriptor = GateDescriptor(open(PipePath, O_RDWR | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW | O_CLOEXEC));
  struct stat opened = {};
  if (pipe.descriptor < 0 || (fstat(pipe.descriptor, &opened) == 0 && S_ISFIFO(opened.st_mode))) return;
  close(pipe.descriptor);
  pipe.descriptor = -1;
}

/// Whether a writer who opens the path reaches us.
bool IsInPlace(const TracePipe& pipe) {
  struct stat held = {};
  struct stat found = {};
  return fstat(pipe.descriptor, &held) == 0 && lstat(PipePath, &found) == 0 && held.st_dev == found.st_dev &&
         held.st_ino == found.st_ino;
}

int MillisecondsUntil(const AbsTime_US& deadline) {
  return std::max(0, -ul_MathAbsTime_NowSubParam_US(&deadline)) / 1000 + 1;
}

void SendText(char (&buffer)[LongestText + 1], std::size_t length) {
  if (length == LongestText) buffer[length - 1] = '\n';
  buffer[length] = '\0';
  if (Enabled) Server.Send(buffer);
}

void* FIFO_Thread_Handler(void*) {
  TracePipe pipe;
  const bool isUsable = TarnDDPTrace_OpenPipe(pipe);
  Print("TarnDDPTrace successfully initialized");
  if (isUsable) {
    for (;;) TarnDDPTrace_Step(pipe);
  }
  if (pipe.descriptor >= 0) close(pipe.descriptor);
  return nullptr;
}

}  // namespace

void EnableTrace(bool on) { Enabled = on; }

bool Init_TarnDDPTrace() {
  if (pthread_create(&FIFO_THREAD, nullptr, FIFO_Thread_Handler, nullptr) != 0) {
    Print("Unable to create FIFO COMM Thread  !!!\n");
  }
  return true;
}

bool Final_TarnDDPTrace() { return true; }

bool TarnDDPTrace_OpenPipe(TracePipe& pipe) {
  bool isUsable = true;
  if (!Exists(DirectoryPath)) isUsable = MakeDirectory();
  if (!Exists(PipePath) && !MakePipe()) isUsable = false;
  Reopen(pipe);
  if (pipe.descriptor < 0) Print("Error at open\n");
  ul_MathAbsTime_NowAddParam_US(LookInterval_US, &pipe.lookDeadline);
  return isUsable;
}

void TarnDDPTrace_Step(TracePipe& pipe) {
  constexpr int Pause_MS = 2000;
  if (ul_MathAbsTime_NowIsHigherParam(&pipe.lookDeadline)) {
    if (!IsInPlace(pipe)) TarnDDPTrace_OpenPipe(pipe);
    ul_MathAbsTime_NowAddParam_US(LookInterval_US, &pipe.lookDeadline);
  }
  const int untilLook = MillisecondsUntil(pipe.lookDeadline);
  pollfd readable = {pipe.descriptor, POLLIN, 0};
  if (pipe.descriptor >= 0 && poll(&readable, 1, untilLook) == 0) return;

  char buffer[LongestText + 1] = {};
  const ssize_t count = read(pipe.descriptor, buffer, LongestText);
  if (count > 0) {
    SendText(buffer, static_cast<std::size_t>(count));
  } else if (count == 0 || errno != EAGAIN) {
    poll(nullptr, 0, std::min(Pause_MS, untilLook));
    Reopen(pipe);
  }
  usleep(1000);
}
