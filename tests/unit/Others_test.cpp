#include "util/_Others.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <regex>
#include <string>

namespace {

/// The console with its terminal pipe open.
class Console : public testing::Test {
 protected:
  void SetUp() override {
    readEnd_ = ul_InitTerminalPipe();
    ASSERT_EQ(0, fcntl(readEnd_, F_SETFL, O_NONBLOCK));
  }
  void TearDown() override { ul_FinalTerminalPipe(); }

  /// What has been printed since the last call.
  std::string Printed() const {
    std::string text(8192, '\0');
    const ssize_t size = read(readEnd_, &text[0], text.size());
    text.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return text;
  }

  int readEnd_ = -1;
};

const std::string TIME = R"(\[\d\d:\d\d:\d\d \d{3,4}\.\d\dms\]   )";

void ExpectMatch(const std::string& pattern, const std::string& text) {
  EXPECT_TRUE(std::regex_match(text, std::regex(pattern))) << text << " is not " << pattern;
}

}  // namespace

TEST_F(Console, PrefixFollowsFileAndLine) {
  const std::string longPath = "d/" + std::string(300, 'f');
  const struct {
    const char* file;
    int line;
    std::string prefix;
  } cases[] = {{nullptr, -1, ""},        {nullptr, 0, TIME},
               {"a/c.c", -1, TIME},      {"a/b/c.c", 0, TIME + "c\\.c:0\t"},
               {"/", 7, TIME + "/:7\t"}, {longPath.c_str(), 7, TIME + "f{255}:7\t"}};
  for (const auto& c : cases) {
    const AbsTime_US before = ul_Pr_GetLastPrintTime();
    const int written = ul_PrStdOut(c.file, c.line, "x%d", 5);
    const std::string text = Printed();
    ExpectMatch(c.prefix + "x5", text);
    EXPECT_EQ(text.size(), static_cast<std::size_t>(written));
    EXPECT_EQ(c.prefix.empty(), before == ul_Pr_GetLastPrintTime());
  }
}

TEST_F(Console, LongLinesAreCutAndAClosedPipeCountsTheWholeMessage) {
  const std::string text(2000, 'x');
  EXPECT_EQ(1023, ul_PrStdOut(nullptr, -1, "%s", text.c_str()));
  EXPECT_EQ(text.substr(0, 1023), Printed());
  EXPECT_EQ(1, ul_FinalTerminalPipe());
  EXPECT_EQ(2000, ul_PrStdOut("c.c", 7, "%s", text.c_str()));
  EXPECT_EQ(1, ul_FinalTerminalPipe());
}

TEST_F(Console, PipeIsOpenedOnceAndItsWriteEndBlocks) {
  EXPECT_EQ(readEnd_, ul_InitTerminalPipe());
  struct stat pipe = {};
  struct stat other = {};
  fstat(readEnd_, &pipe);
  int writeEnd = 3;
  while (writeEnd == readEnd_ || fstat(writeEnd, &other) != 0 || other.st_ino != pipe.st_ino) ++writeEnd;
  EXPECT_EQ(FD_CLOEXEC, fcntl(readEnd_, F_GETFD));
  EXPECT_EQ(0, fcntl(writeEnd, F_GETFD));
  EXPECT_EQ(O_WRONLY, fcntl(writeEnd, F_GETFL));
}

TEST_F(Console, SystemErrorTellsErrnoAndAMillionfoldTime) {
  ul_Configure_Pr_SetFirstPrintTimeToActualTime();
  ExpectMatch(TIME + "_Others\\.cpp:\\d+\tPrStdOut starttime resetted !!!\n", Printed());
  ul_Sleep_US(0, 100000);  // shows as 1 day 3 h 46 min 40 s
  const std::string error = "error code = 2 \\(No such file or directory\\)\n";
  errno = ENOENT;
  ul_PrSystemError("a/c.c", 7, "open");
  ExpectMatch("\\[[1-9]\\d*d \\d+h \\d+min \\d+s 0ms 0us\\]\tc\\.c\\.7\topen " + error, Printed());
  errno = ENOENT;
  ul_PrSystemError("a/c.c", -1, "");
  ExpectMatch(error, Printed());
}

TEST_F(Console, ApplicationPropertiesGoToTheHandlerOrThePipe) {
  static std::string handed;
  EXPECT_EQ(42, ul_PrintApplicationProperties([](const char* text) { return handed = text, 42; }, " end"));
  EXPECT_EQ("", Printed());
  ExpectMatch(R"(ThisApp: ParentProc\(ID=\d+\) Proc\(ID=\d+/Prio=-?\d+\) )"
              R"(BaseThread\(ID=-?\d+/Prio=\d+/Policy=SCHED_\w+\) ClockTick=\d+Hz end)",
              handed);
  ul_PrintApplicationProperties(nullptr, " end");
  EXPECT_EQ(handed, Printed());
}

TEST(FormatDuration, StartsAtTheFirstUnitThatIsNotZero) {
  const struct {
    double seconds;
    bool milliseconds, microseconds, nanoseconds;
    const char* text;
  } cases[] = {{0, true, true, true, ""},
               {-5, true, true, true, ""},
               {2000000, true, true, false, "23d 3h 33min 20s 0ms 0us"},
               {3600.9, false, false, false, "1h 0min 0s"},
               {0.00025, true, true, false, "250us"},
               {1.5, true, true, true, "1s 500ms 0us 0ns"},
               {1.8e15, true, false, false, "20833333333d 8h 0min 0s 0ms"}};
  for (const auto& c : cases) {
    EXPECT_EQ(c.text, ul_FormatDuration(c.seconds, c.milliseconds, c.microseconds, c.nanoseconds)) << c.seconds;
  }
}
