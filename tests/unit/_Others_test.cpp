#include "util/_Others.h"

#include <sys/resource.h>

#include <cmath>

#include "tests/unit/SystemCalls.h"

namespace {

/// The wall clock stands at `now`.
class Console : public testing::Test, ReplacedCalls {
 protected:
  void SetUp() override {
    on_clock_gettime = [this](clockid_t clock, timespec* time) {
      *time = clock == CLOCK_REALTIME ? timespec{now, 7250000} : timespec{};
      return 0;
    };
  }
  void TearDown() override { ul_FinalTerminalPipe(); }

  /// What has been printed since the last call; the first one opens the pipe.
  static std::string Printed() {
    fcntl(ul_InitTerminalPipe(), F_SETFL, O_NONBLOCK);
    char text[8192];
    const ssize_t size = read(ul_InitTerminalPipe(), text, sizeof text);
    return std::string(text, size < 0 ? 0 : static_cast<std::size_t>(size));
  }

  std::time_t now = 900;
};

}  // namespace

// The first, as the time of the first print is told.
TEST_F(Console, SystemErrorTellsErrnoAndAMillionfoldTime) {
  EXPECT_EQ(2, ul_PrStdOut("c.c", 7, "%s", "xy")) << "without a pipe the message counts";
  EXPECT_EQ("", Printed());
  const std::string error = "error code = 2 (No such file or directory)\n";
  const std::tuple<const char*, int, const char*, std::string> rows[] = {
      {nullptr, 7, nullptr, error},
      {"a/c.c", -1, "", error},
      {"a/%d", 0, "open", "[23d 3h 33min 20s 0ms 0us]\t%d.0\topen " + error}};
  for (const bool isReset : {false, true}) {
    if (isReset) ul_Configure_Pr_SetFirstPrintTimeToActualTime();
    EXPECT_EQ(isReset, Printed().find("\tPrStdOut starttime resetted !!!\n") != std::string::npos);
    now += 2;
    for (const auto& [file, line, text, expected] : rows) {
      errno = ENOENT;
      ul_PrSystemError(file, line, text);
      EXPECT_EQ(expected, Printed());
    }
  }
}

TEST_F(Console, PrefixFollowsFileAndLineAndTheWholeIsCut) {
  const std::string longPath = "d/" + std::string(300, 'f'), text(2000, 'x'), time = "[15:33:07 007.25ms]   ",
                    longest = "/" + std::string(498, 'f') + "/x";
  const std::tuple<const char*, int, std::string> rows[] = {
      {nullptr, -1, ""},
      {nullptr, 0, time},
      {"a/c.c", -1, time},
      {"a/b/c.c", 0, time + "c.c:0\t"},
      {"/", 7, time + "/:7\t"},
      {longPath.c_str(), 7, time + std::string(255, 'f') + ":7\t"},
      {longest.c_str(), 7, time + std::string(255, 'f') + ":7\t"}};
  setenv("TZ", "TST-1:30", 1);
  Printed();
  now = 50587;
  for (const auto& [file, line, prefix] : rows) {
    now += 86400;
    const AbsTime_US before = ul_Pr_GetLastPrintTime();
    const int written = ul_PrStdOut(file, line, "x%c", 'y');
    const std::string printed = Printed();
    EXPECT_EQ(prefix + "xy", printed);
    EXPECT_EQ(printed.size(), static_cast<std::size_t>(written));
    EXPECT_EQ(prefix.empty() ? before : ul_GetAbsTime_US(true), ul_Pr_GetLastPrintTime());
  }
  EXPECT_EQ(1023, ul_PrStdOut(nullptr, -1, "%s", text.c_str()));
  EXPECT_EQ(text.substr(0, 1023), Printed());
}

TEST_F(Console, PropertiesGoToTheHandlerOrThePipe) {
  Printed();
  for (const auto& [result, shown] :
       {std::pair(0, "9/Policy=SCHED_RR"), std::pair(EPERM, "-1/Policy=SCHED_\\?\\?\\?")}) {
    on_pthread_getschedparam = [&result = result](pthread_t, int* policy, sched_param* scheduling) {
      *policy = SCHED_RR;
      scheduling->sched_priority = 9;
      return result;
    };
    static std::string handed;
    EXPECT_EQ(42, ul_PrintApplicationProperties([](const char* text) { return handed = text, 42; }, nullptr));
    const std::string priority = std::to_string(getpriority(PRIO_PROCESS, 0));
    const std::string own = "\\(ID=" + std::to_string(getpid()) + "/Prio=" + priority + "\\)";
    EXPECT_TRUE(std::regex_search(handed, std::regex(own + ".*/Prio=" + shown + "\\) ClockTick="))) << handed;
    ul_PrintApplicationProperties(nullptr, " %d");
    EXPECT_EQ(handed + " %d", Printed());
  }
}

TEST_F(Console, TerminalPipeIsOpenedOnceAndClosedWhole) {
  for (int i = 0; i < 2; ++i) EXPECT_EQ(1, ul_FinalTerminalPipe());
  const int before = CountDescriptors();
  EXPECT_EQ("pipe2: -1\nfcntl: -1\n", WithEachCallFailing([] {
              const int result = ul_InitTerminalPipe();
              if (result >= 0) ul_FinalTerminalPipe();
              return std::to_string(result);
            }));
  const int readEnd = ul_InitTerminalPipe();
  EXPECT_EQ(readEnd, ul_InitTerminalPipe());
  EXPECT_EQ(before + 2, CountDescriptors());
  EXPECT_EQ(FD_CLOEXEC, fcntl(readEnd, F_GETFD));
  int writeEnd = readEnd + 1;
  while (writeEnd < 100 && fcntl(writeEnd, F_GETFL) != O_WRONLY) ++writeEnd;
  EXPECT_EQ(0, fcntl(writeEnd, F_GETFD)) << "it blocks, and commands inherit it";
  ul_FinalTerminalPipe();
  EXPECT_EQ(before, CountDescriptors());
}

/// The model: of units of 2^-20 s, the largest number first, each but leading zeros.
TEST(FormatDuration, StartsAtTheFirstUnitThatIsNotZero) {
  std::mt19937_64 generator(20261125);
  for (int round = 0; round < 20000; ++round) {
    const auto units = static_cast<std::int64_t>((generator() >> 11) >> generator() % 53), seconds = units >> 20;
    const bool isWanted[] = {generator() % 2 == 0, generator() % 2 == 0, generator() % 2 == 0};
    std::vector<std::pair<std::int64_t, const char*>> parts = {
        {seconds / 86400, "d"}, {seconds / 3600 % 24, "h"}, {seconds / 60 % 60, "min"}, {seconds % 60, "s"}};
    const char* const names[] = {"ms", "us", "ns"};
    std::int64_t fraction = units & 0xfffff;
    for (int i = 0; i < 3; ++i) {
      fraction *= 1000;
      if (!isWanted[i]) continue;
      parts.emplace_back(fraction >> 20, names[i]);
      fraction &= 0xfffff;
    }
    std::string expected;
    for (const auto& [count, name] : parts) {
      if (count > 0 || !expected.empty()) expected += (expected.empty() ? "" : " ") + std::to_string(count) + name;
    }
    EXPECT_EQ(expected, ul_FormatDuration(std::ldexp(units, -20), isWanted[0], isWanted[1], isWanted[2])) << units;
  }
  for (const double none : {0.0, -5.0, std::nan(""), std::log(0.0), -std::log(0.0)})
    EXPECT_EQ("", ul_FormatDuration(none, true, true, true));
  EXPECT_EQ("18582494360528d 23h 57min 52s", ul_FormatDuration(1605527512749705472.0, false, false, false));
}
