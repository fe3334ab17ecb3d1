#include "ddp/TarnDDPTrace.h"

#include <chrono>
#include <sstream>

#include "tests/unit/LoopbackPeer.h"

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

TEST(TracePipe, StaysOpenWhereItIsInPlace) {
  Shell(std::string("rm -rf ") + FOLDER);
  char text = 0;
  TracePipe pipe;
  TarnDDPTrace_OpenPipe(pipe);
  fcntl(pipe.descriptor, F_SETFL, O_NONBLOCK | O_APPEND);  // as a mark, which one that is opened anew does not bear
  ASSERT_EQ(1, write(pipe.descriptor, "x", 1));
  ul_MathAbsTime_Clear(&pipe.lookDeadline);
  TarnDDPTrace_Step(pipe);
  EXPECT_NE(0, fcntl(pipe.descriptor, F_GETFL) & O_APPEND);
  EXPECT_EQ(-1, read(pipe.descriptor, &text, 1)) << "it was read";
}

TEST(TracePipe, IsReadAtFullSpeedWhileFilesComeAndGoBesideIt) {
  Shell(std::string("rm -rf ") + FOLDER);
  TracePipe pipe;
  TarnDDPTrace_OpenPipe(pipe);
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 50; ++i) {
    close(open("/tmp/tsl_app/other", O_CREAT | O_CLOEXEC, 0600));
    unlink("/tmp/tsl_app/other");
    ASSERT_EQ(1, write(pipe.descriptor, "x", 1));
    TarnDDPTrace_Step(pipe);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3)) << "a pause of 0.1 s makes 5";
  for (const int descriptor : {pipe.descriptor, pipe.watch}) close(descriptor);
}
