#include "ddp/TarnDDPTrace.h"

#include <chrono>
#include <sstream>

#include "tests/unit/SystemCalls.h"

namespace {

constexpr char FOLDER[] = "/tmp/tsl_app", FIFO[] = "/tmp/tsl_app/FIFO_T_C2H_AET";
constexpr char NO_FOLDER[] = "Could not create directory \"/temp/tsl_app\n";
constexpr char NO_FOLDER_MODES[] = "Could not change access permissions of /tmp/tsl_app\n";
constexpr char NO_PIPE[] = "Could not create FIFO\n\n";
constexpr char NO_PIPE_MODES[] = "Could not change access permissions for fifoFTPR\n";
constexpr char NOT_OPEN[] = "Error at open\n\n";

bool isOldLibrary = false;  // which cannot change modes without following links

void Shell(const std::string& command) { ASSERT_EQ(0, std::system(command.c_str())) << command; }

/// "777 777" for folder and pipe as they are, links not followed; "-" for what is not there.
std::string Modes() {
  std::ostringstream text;
  for (const char* const path : {FOLDER, FIFO}) {
    struct stat found = {};
    text << (path == FIFO ? " " : "");
    lstat(path, &found) == 0 ? text << std::oct << (found.st_mode & 07777) : text << '-';
  }
  return text.str();
}

/// What `step` prints.
template <typename Step>
std::string Printed(const Step& step) {
  testing::internal::CaptureStdout();
  step();
  return testing::internal::GetCapturedStdout();
}

}  // namespace

extern "C" int fchmodat(int folder, const char* path, mode_t mode, int flags) noexcept {
  if (flags != AT_SYMLINK_NOFOLLOW || folder != AT_FDCWD) std::abort();
  struct stat found = {};
  if (isOldLibrary || (lstat(path, &found) == 0 && S_ISLNK(found.st_mode))) {
    errno = EOPNOTSUPP;
    return -1;
  }
  return chmod(path, mode);
}

TEST(TracePipe, IsMadeForEveryoneAndLeftAsSomebodyMadeIt) {
  const std::string make = std::string("mkdir ") + FOLDER + "; mkfifo " + FIFO, both = make + "; chmod ";
  const std::string none = NO_PIPE + std::string(NO_PIPE_MODES) + NOT_OPEN;
  const struct {
    std::string prepare;
    mode_t umask;
    bool isUsable;
    std::string printed, modes;
  } rows[] = {
      {"true", 022, true, "", "777 777"},
      {"true", 0, true, "", "777 777"},
      {both + "0 " + FIFO + "; chmod 5 " + FOLDER, 0, true, "", "777 777"},  // half-made by an earlier start
      {both + "2 " + FIFO + "; chmod 7 " + FOLDER, 0, true, "", "777 777"},
      {both + "640 " + FIFO + "; chmod 750 " + FOLDER, 0, true, "", "750 640"},
      {both + "20 " + FIFO + "; chmod 1007 " + FOLDER, 0, true, "", "1007 20"},
      {both + "2 " + FIFO + "; chmod 7 " + FOLDER + "; chown 1 " + FIFO + " " + FOLDER, 0, true, "", "7 2"},
      {make + "; rm " + FIFO + "; mkdir -m 2 " + FIFO, 0, true, NOT_OPEN, "755 2"},  // no pipe
      {make + "; rm " + FIFO + "; touch " + FIFO, 0, true, NOT_OPEN, "755 644"},
      {make + "; mv " + FIFO + " /tmp/other; ln -s /tmp/other " + FIFO, 0, true, NOT_OPEN, "755 777"},
      {std::string("ln -s /tmp/nowhere ") + FOLDER, 0, false, NO_FOLDER + std::string(NO_FOLDER_MODES) + none, "777 -"},
      {make + "; rm " + FIFO + "; ln -s nowhere " + FIFO, 0, false, none, "755 777"},
      {std::string("touch ") + FOLDER, 0, false, none, "644 -"}};
  for (const bool isOld : {false, true}) {
    isOldLibrary = isOld;
    for (const auto& [prepare, mask, isUsable, printed, modes] : rows) {
      Shell(std::string("umask 022; rm -rf /tmp/other ") + FOLDER + "; " + prepare);
      const mode_t before = umask(mask);
      const int descriptors = CountDescriptors();
      TracePipe pipe;
      bool result = !isUsable;
      EXPECT_EQ(printed, Printed([&] { result = TarnDDPTrace_OpenPipe(pipe); })) << prepare;
      EXPECT_EQ(isUsable, result) << prepare;
      EXPECT_EQ(modes, Modes()) << prepare << isOld;
      EXPECT_EQ(printed.find("Error") == std::string::npos, pipe.descriptor >= 0) << prepare;
      EXPECT_EQ("", Printed([&] { TarnDDPTrace_OpenPipe(pipe); })) << prepare << ": told before";
      umask(before);
      for (const int descriptor : {pipe.descriptor, pipe.watch}) close(descriptor);
      EXPECT_EQ(descriptors, CountDescriptors()) << prepare;
    }
  }
  isOldLibrary = false;
  EXPECT_FALSE(Enabled) << "until it is switched on";
}

/// What each step waits for, and for how many milliseconds; "new" in front where another pipe is open. Nothing is
/// waited for: the clock is put forward instead.
TEST(TracePipe, IsLookedAfterEvery5SecondsAndSoonAfterAChangeAndReadMeanwhile) {
  Shell(std::string("rm -rf ") + FOLDER);
  const ReplacedCalls calls;
  std::int64_t now = 1000000;
  std::string log;
  on_clock_gettime = [&now](clockid_t, timespec* time) {
    *time = {static_cast<std::time_t>(now / 1000), static_cast<long>(now % 1000 * 1000000)};
    return 0;
  };
  on_poll = [&now, &log](pollfd* inputs, nfds_t count, int timeout) {
    const int ready = real_poll(inputs, count, 0);
    if (timeout == 0) return ready;
    for (nfds_t i = 0; i < count; ++i) log += inputs[i].fd < 0 ? "" : i == 0 ? "pipe " : "folder ";
    log += std::to_string(timeout);
    now += ready == 0 ? timeout : 0;
    return ready;
  };
  TracePipe pipe;
  TarnDDPTrace_OpenPipe(pipe);
  if (pipe.watch < 0) GTEST_SKIP() << "no inotify instance is left";
  const int before = CountDescriptors();
  const std::string none = "true", write = "", all = "pipe folder 5001", remove = std::string("rm ") + FIFO,
                    spoil = " ";
  const std::pair<std::string, std::string> rows[] = {{none, "new " + all},
                                                      {write, all},
                                                      {"touch /tmp/tsl_app/other", all},
                                                      {write, "pipe 101"},
                                                      {none, "pipe 101"},
                                                      {write, all},
                                                      {remove, all},
                                                      {none, "pipe 101"},
                                                      {none, "new " + all},
                                                      {remove + "; touch " + FIFO, "folder 2000"},
                                                      {none, "folder 2000"},
                                                      {remove, "folder 2000"},
                                                      {none, "new 101"},
                                                      {write, all},
                                                      {spoil, "new pipe folder 50012000"}};
  for (const auto& [change, expected] : rows) {
    Shell(change);
    if (change == write) {
      ASSERT_EQ(1, ::write(pipe.descriptor, "x", 1));
    } else if (change == spoil) {  // what is ready, but cannot be read
      const int unreadable = open("/dev/null", O_WRONLY);
      dup2(unreadable, pipe.descriptor);
      close(unreadable);
    }
    log.clear();
    TarnDDPTrace_Step(pipe);
    const bool isNew = (fcntl(pipe.descriptor, F_GETFL) & O_APPEND) == 0;
    fcntl(pipe.descriptor, F_SETFL, O_NONBLOCK | O_APPEND);  // a mark
    EXPECT_EQ(expected, (isNew ? "new " : "") + log) << &change - &rows[0].first;
    char text = 0;
    EXPECT_EQ(-1, read(pipe.descriptor, &text, 1)) << "all was read";
  }
  EXPECT_EQ("777 777", Modes());
  EXPECT_EQ(before, CountDescriptors());
}
