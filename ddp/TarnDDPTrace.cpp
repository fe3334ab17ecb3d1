#include "ddp/TarnDDPTrace.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>

#include "base/Descriptor.h"
#include "ddp/Print.h"
#include "ddp/TarnDDPServer.h"

std::atomic<bool> Enabled{false};
pthread_t FIFO_THREAD;

namespace {

constexpr char DIRECTORY[] = "/tmp/tsl_app";
constexpr char PIPE[] = "/tmp/tsl_app/FIFO_T_C2H_AET";
constexpr std::size_t LONGEST_TEXT = 2048;
constexpr std::uint64_t LOOK_INTERVAL_US = 5000000;

bool Exists(const char* path) {
  struct stat status = {};
  return stat(path, &status) == 0;
}

// The modes given to mkdir() and mkfifo() stand only until they are changed to 0777.
constexpr mode_t FIRST_DIRECTORY_MODE = 0007;
constexpr mode_t FIRST_PIPE_MODE = 0002;

/// Lets everyone into what stands at `path`, if it is of that kind. By a descriptor, so that what is changed is what
/// was looked at: the directory is everyone's, and anyone may put a link in its place. Where there is no /proc, by
/// which alone the modes of such a descriptor are changed, what the path leads to is.
bool LetEveryoneIn(const char* path, mode_t kind) {
  constexpr mode_t EVERYTHING = 0777;
  const int held = GateCloexec(open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat found = {};
  if (held < 0) return false;
  char link[32];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", held);
  const bool isDone = fstat(held, &found) == 0 && (found.st_mode & S_IFMT) == kind &&
                      (chmod(link, EVERYTHING) == 0 || (errno == ENOENT && chmod(path, EVERYTHING) == 0));
  close(held);
  return isDone;
}

/// Whether a start of ours made `path` and ended, or failed, before it set the modes: the first ones are there, as they
/// are or without what the usual umask 022 takes. Any other modes are somebody's will.
bool IsHalfMade(const char* path, mode_t kind, mode_t firstMode) {
  struct stat found = {};
  if (lstat(path, &found) != 0 || (found.st_mode & S_IFMT) != kind || found.st_uid != geteuid()) return false;
  const mode_t mode = found.st_mode & 07777;
  return mode == firstMode || mode == (firstMode & ~022U);
}

/// Makes `path`, a directory or a pipe, where it is missing, and lets everyone into one that is new or half-made.
void Make(const char* path, mode_t kind, mode_t firstMode, bool& failed, bool& modesFailed) {
  const bool exists = Exists(path);
  if (!exists) failed = (kind == S_IFDIR ? mkdir(path, firstMode) : mkfifo(path, firstMode)) != 0;
  if (exists && !IsHalfMade(path, kind, firstMode)) return;
  modesFailed = !LetEveryoneIn(path, kind);
}

void Close(int& descriptor) {
  if (descriptor >= 0) close(descriptor);
  descriptor = -1;
}

/// A new one: a watch stays with the directory that it was made for, though another may stand in its place.
void WatchDirectory(TracePipe& pipe) {
  constexpr std::uint32_t CHANGES = IN_CREATE | IN_DELETE | IN_MOVE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
  Close(pipe.watch);
  pipe.watch = GateCloexec(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (pipe.watch >= 0 && inotify_add_watch(pipe.watch, DIRECTORY, CHANGES) < 0) Close(pipe.watch);
}

/// Opens the path for reading and writing: as its own writer the pipe never reports an end, and the open waits for
/// nobody. Reads do not wait either, poll() does, for another reader may take the text in between. A link or another
/// kind of file, which anyone may put there, is not opened: what it holds is no trace text. 0, or errno.
int Reopen(int& descriptor) {
  Close(descriptor);
  descriptor = GateCloexec(open(PIPE, O_RDWR | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW | O_CLOEXEC));
  if (descriptor < 0) return errno;
  struct stat opened = {};
  if (fstat(descriptor, &opened) == 0 && S_ISFIFO(opened.st_mode)) return 0;
  Close(descriptor);
  return ENOTSUP;
}

bool AreSame(const TracePipe::Failures& one, const TracePipe::Failures& other) {
  return one.noDirectory == other.noDirectory && one.noDirectoryModes == other.noDirectoryModes &&
         one.noPipe == other.noPipe && one.noPipeModes == other.noPipeModes && one.openError == other.openError;
}

void PrintFailures(const TracePipe::Failures& failures) {
  if (failures.noDirectory) Print("Could not create directory \"/temp/tsl_app");
  if (failures.noDirectoryModes) Print("Could not change access permissions of /tmp/tsl_app");
  if (failures.noPipe) Print("Could not create FIFO\n");
  if (failures.noPipeModes) Print("Could not change access permissions for fifoFTPR");
  if (failures.openError != 0) Print("Error at open\n");
}

/// Whether a writer who opens the path reaches us.
bool IsInPlace(const TracePipe& pipe) {
  struct stat held = {};
  struct stat found = {};
  return fstat(pipe.descriptor, &held) == 0 && lstat(PIPE, &found) == 0 && held.st_dev == found.st_dev &&
         held.st_ino == found.st_ino;
}

int MillisecondsUntil(const AbsTime_US& deadline) {
  return std::max(0, -ul_MathAbsTime_NowSubParam_US(&deadline)) / 1000 + 1;
}

void SendText(char (&buffer)[LONGEST_TEXT + 1], std::size_t length) {
  if (length == LONGEST_TEXT) buffer[length - 1] = '\n';
  buffer[length] = '\0';
  constexpr int PATIENCE_MS = 10;  // a slow link slows those who write; one that leads nowhere shall not stop them
  if (!Enabled) return;
  try {
    Server.Send(buffer, PATIENCE_MS);
  } catch (const std::bad_alloc&) {  // this text is lost
  }
}

void HasLooked(TracePipe& pipe) {
  pipe.isLookDue = false;
  ul_MathAbsTime_NowAddParam_US(LOOK_INTERVAL_US, &pipe.lookDeadline);
}

/// After the directory told of a change. However many there are, we look ten times a second at most, and read the pipe
/// meanwhile.
void LookSoon(TracePipe& pipe) {
  constexpr std::uint64_t PAUSE_US = 100000;
  char events[4096];  // what does not fit makes us look once more
  const ssize_t size = read(pipe.watch, events, sizeof events);
  static_cast<void>(size);
  AbsTime_US soon = 0;
  ul_MathAbsTime_NowAddParam_US(PAUSE_US, &soon);
  pipe.lookDeadline = std::min(pipe.lookDeadline, soon);
  pipe.isLookDue = true;
}

void* FIFO_Thread_Handler(void*) {
  TracePipe pipe;
  const bool isUsable = TarnDDPTrace_OpenPipe(pipe);
  Print("TarnDDPTrace successfully initialized");
  if (isUsable) {
    for (;;) TarnDDPTrace_Step(pipe);
  }
  Close(pipe.descriptor);
  Close(pipe.watch);
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
  TracePipe::Failures failures = {};
  Make(DIRECTORY, S_IFDIR, FIRST_DIRECTORY_MODE, failures.noDirectory, failures.noDirectoryModes);
  Make(PIPE, S_IFIFO, FIRST_PIPE_MODE, failures.noPipe, failures.noPipeModes);
  WatchDirectory(pipe);  // before the path is opened, so that no change goes unseen
  failures.openError = Reopen(pipe.descriptor);
  if (!AreSame(failures, pipe.told)) PrintFailures(failures);
  pipe.told = failures;
  HasLooked(pipe);
  return !failures.noDirectory && !failures.noPipe && !failures.noPipeModes;
}

void TarnDDPTrace_Step(TracePipe& pipe) {
  constexpr int PAUSE_MS = 2000;
  if (ul_MathAbsTime_NowIsHigherParam(&pipe.lookDeadline)) {
    if (!IsInPlace(pipe)) TarnDDPTrace_OpenPipe(pipe);
    HasLooked(pipe);
  }
  pollfd inputs[] = {{pipe.descriptor, POLLIN, 0}, {pipe.isLookDue ? -1 : pipe.watch, POLLIN, 0}};
  const int untilLook = MillisecondsUntil(pipe.lookDeadline);
  if (poll(inputs, 2, pipe.descriptor < 0 ? std::min(PAUSE_MS, untilLook) : untilLook) <= 0) {
    if (pipe.descriptor < 0) TarnDDPTrace_OpenPipe(pipe);
    return;
  }
  if (inputs[1].revents != 0) LookSoon(pipe);
  if (inputs[0].revents == 0) return;

  char buffer[LONGEST_TEXT + 1] = {};
  const ssize_t count = read(pipe.descriptor, buffer, LONGEST_TEXT);
  if (count > 0) {
    SendText(buffer, static_cast<std::size_t>(count));
  } else if (count == 0 || errno != EAGAIN) {
    poll(nullptr, 0, PAUSE_MS);
    TarnDDPTrace_OpenPipe(pipe);
  }
  usleep(1000);
}
