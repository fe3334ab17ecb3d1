#include "ddp/TarnDDPTrace.h"

#include <sstream>

#include "ddp/Print.h"
#include "tests/unit/SystemCalls.h"

namespace {

constexpr char NO_FOLDER[] = "Could not create directory \"/temp/tsl_app\n";
constexpr char NO_FOLDER_MODES[] = "Could not change access permissions of /tmp/tsl_app\n";
constexpr char NO_PIPE[] = "Could not create FIFO\n\n";
constexpr char NO_PIPE_MODES[] = "Could not change access permissions for fifoFTPR\n";
constexpr char NOT_OPEN[] = "Error at open\n\n";
constexpr char PIPE[] = "/tmp/tsl_app/FIFO_T_C2H_AET";

/// $D and $P in the command are the folder and the pipe.
void Shell(const std::string& command) {
  ASSERT_EQ(0, std::system(("D=/tmp/tsl_app P=$D/FIFO_T_C2H_AET; " + command).c_str())) << command;
}

/// What opening prints; then "777 777" for folder and pipe as they are, links not followed; "-" for what is not there.
std::string Opened(TracePipe& pipe, bool& isUsable) {
  testing::internal::CaptureStdout();
  isUsable = TarnDDPTrace_OpenPipe(pipe);
  std::ostringstream text(testing::internal::GetCapturedStdout(), std::ios::ate);
  for (const char* const path : {"/tmp/tsl_app", PIPE}) {
    struct stat found = {};
    lstat(path, &found) == 0 ? text << std::oct << (found.st_mode & 07777) << ' ' : text << "- ";
  }
  return text.str();
}

}  // namespace

/// Refused, or without /proc; or, as anyone may do, after a link was put in the place of the pipe that was looked at.
extern "C" int chmod(const char* path, mode_t mode) noexcept {
  if (access("/tmp/refused", F_OK) == 0) return errno = EPERM, -1;
  if (access("/tmp/no-proc", F_OK) == 0 && path[1] == 'p') return errno = ENOENT, -1;
  if (access("/tmp/replaced", F_OK) == 0 && access(PIPE, F_OK) == 0) Shell("ln -sf /tmp/other $P");
  return fchmodat(AT_FDCWD, path, mode, 0);
}

TEST(TracePipe, IsMadeForEveryoneAndLeftAsSomebodyMadeIt) {
  const std::string make = "mkdir $D; mkfifo $P; ", noPipe = NO_PIPE + (NO_PIPE_MODES + std::string(NOT_OPEN));
  const bool hasOthers = std::system("touch /tmp/owned && chown 1 /tmp/owned") == 0;  // users, in this sandbox
  const std::tuple<std::string, bool, std::string> rows[] = {
      {"true", true, "777 777 "},
      {"touch /tmp/no-proc", true, "777 777 "},
      {"touch /tmp/replaced", true, std::string(NOT_OPEN) + "777 777 "},
      {make + "chmod 0 $P; chmod 5 $D", true, "777 777 "},  // half-made by an earlier start
      {make + "chmod 2 $P; chmod 7 $D", true, "777 777 "},
      {make + "chmod 640 $P; chmod 750 $D", true, "750 640 "},
      {make + "chmod 20 $P; chmod 1007 $D", true, "1007 20 "},
      {make + "chmod 2 $P; chmod 7 $D; chown 1 $P $D || true", true, hasOthers ? "7 2 " : "777 777 "},
      {"mkdir $D; mkdir -m 2 $P", true, std::string(NOT_OPEN) + "755 2 "},  // no pipe
      {make + "mv $P /tmp/other; ln -s /tmp/other $P", true, std::string(NOT_OPEN) + "755 777 "},
      {"ln -s /tmp/nowhere $D", false, NO_FOLDER + (NO_FOLDER_MODES + noPipe) + "777 - "},
      {"mkdir $D; ln -s nowhere $P", false, noPipe + "755 777 "},
      {"touch /tmp/refused", false, NO_FOLDER_MODES + (NO_PIPE_MODES + std::string("5 0 "))}};
  for (const auto& [prepare, isUsable, expected] : rows) {
    Shell("umask 022; rm -rf /tmp/other /tmp/refused /tmp/no-proc /tmp/replaced $D; touch /tmp/other; " + prepare);
    const int descriptors = CountDescriptors();
    TracePipe pipe;
    bool result = !isUsable;
    EXPECT_EQ(expected, Opened(pipe, result)) << prepare;
    EXPECT_EQ(isUsable, result) << prepare;
    EXPECT_EQ(expected.find("Error") == std::string::npos, pipe.descriptor >= 0) << prepare;
    EXPECT_EQ(expected.substr(expected.rfind('\n') + 1), Opened(pipe, result)) << prepare << ": told before";
    for (const int descriptor : {pipe.descriptor, pipe.watch}) close(descriptor);
    EXPECT_EQ(descriptors, CountDescriptors()) << prepare;
    Shell("[ -p /tmp/other ] || [ $(stat -c %a /tmp/other) = 644 ]");
  }
  Shell("rm /tmp/refused");
  EXPECT_FALSE(Enabled) << "until it is switched on";
}

TEST(Print, CutsALineAndEndsIt) {
  for (const std::size_t size : {0U, 4095U, 4096U, 9999U}) {
    testing::internal::CaptureStdout();
    Print({std::string(size / 2, 'x'), std::string(size - size / 2, 'x')});
    EXPECT_EQ(std::string(std::min<std::size_t>(size, 4095), 'x') + '\n', testing::internal::GetCapturedStdout());
  }
}

/// What each step waits for, and for how many milliseconds; "new" in front where another pipe is open. Nothing is
/// waited for: the clock is put forward instead.
TEST(TracePipe, IsLookedAfterEvery5SecondsAndSoonAfterAChangeAndReadMeanwhile) {
  Shell("rm -rf $D");
  const ReplacedCalls calls;
  std::int64_t now = 1000000;
  std::string log;
  bool isLost = false;
  on_clock_gettime = [&now](clockid_t, timespec* time) {
    return *time = {static_cast<std::time_t>(now / 1000), static_cast<long>(now % 1000 * 1000000)}, 0;
  };
  on_poll = [&now, &log, &isLost](pollfd* inputs, nfds_t count, int timeout) {
    const int ready = real_poll(inputs, count, 0);
    if (timeout == 0) return ready;
    for (nfds_t i = 0; i < count; ++i) log += inputs[i].fd < 0 ? "" : i == 0 ? "pipe " : "folder ";
    log += std::to_string(timeout);
    now += ready == 0 ? timeout : 0;
    char taken = 0;
    EXPECT_TRUE(!isLost || read(inputs[0].fd, &taken, 1) == 1);
    return ready;
  };
  TracePipe pipe;
  TarnDDPTrace_OpenPipe(pipe);
  if (pipe.watch < 0) GTEST_SKIP() << "no inotify instance is left";
  const int before = CountDescriptors();
  const std::string none = "true", write = "printf x 1<>$P", lose = write + " ", all = "pipe folder 5001", spoil = " ";
  const std::pair<std::string, std::string> rows[] = {{none, "new " + all},
                                                      {write, all},
                                                      {lose, all},
                                                      {"touch $D/other", all},
                                                      {write, "pipe 101"},
                                                      {none, "pipe 101"},
                                                      {write, all},
                                                      {"rm $P", all},
                                                      {none, "pipe 101"},
                                                      {none, "new " + all},
                                                      {"rm $P; touch $P", "folder 2000"},
                                                      {none, "folder 2000"},
                                                      {"rm $P", "folder 2000"},
                                                      {none, "new 101"},
                                                      {write, all},
                                                      {spoil, "new pipe folder 50012000"}};
  for (const auto& [change, expected] : rows) {
    Shell(change);
    if (change == spoil) {  // what is ready, but cannot be read
      const int unreadable = open("/dev/null", O_WRONLY);
      dup2(unreadable, pipe.descriptor);
      close(unreadable);
    }
    isLost = change == lose;  // to a reader that is faster
    log.clear();
    TarnDDPTrace_Step(pipe);
    const int flags = fcntl(pipe.descriptor, F_GETFL);
    ASSERT_NE(0, flags & O_NONBLOCK);
    const bool isNew = (flags & O_APPEND) == 0;
    fcntl(pipe.descriptor, F_SETFL, O_NONBLOCK | O_APPEND);  // a mark
    EXPECT_EQ(expected, (isNew ? "new " : "") + log) << &change - &rows[0].first;
    char text = 0;
    EXPECT_EQ(-1, read(pipe.descriptor, &text, 1)) << "all was read";
  }
  EXPECT_EQ(before, CountDescriptors());
}
