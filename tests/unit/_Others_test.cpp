#include "util/_Others.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <random>
#include <tuple>
#include <vector>

#include "tests/unit/SystemCalls.h"

namespace {

/// What has been printed since the last call; the first one opens the terminal pipe.
std::string Printed() {
  fcntl(ul_InitTerminalPipe(), F_SETFL, O_NONBLOCK);
  char text[8192];
  const ssize_t size = read(ul_InitTerminalPipe(), text, sizeof text);
  return std::string(text, size < 0 ? 0 : static_cast<std::size_t>(size));
}

/// The wall clock stands still at this time of a day, in a zone an hour and a half ahead.
struct StoppedClock {
  explicit StoppedClock(std::time_t seconds, long nanoseconds = 7250000) {
    setenv("TZ", "TST-1:30", 1);
    on_clock_gettime = [=](clockid_t clock, timespec* time) {
      *time = clock == CLOCK_REALTIME ? timespec{seconds, nanoseconds} : timespec{};
      return 0;
    };
  }
  ~StoppedClock() { on_clock_gettime = nullptr; }
};

// The model of a duration: of `units` of 2^-20 s, the largest number first, each but leading zeros.
std::string Duration(std::int64_t units, bool milliseconds, bool microseconds, bool nanoseconds) {
  std::string text;
  const auto append = [&text](std::int64_t count, const char* name) {
    if (count > 0 || !text.empty()) text += (text.empty() ? "" : " ") + std::to_string(count) + name;
  };
  std::int64_t seconds = units >> 20, fraction = units & 0xfffff;
  append(seconds / 86400, "d");
  append(seconds / 3600 % 24, "h");
  append(seconds / 60 % 60, "min");
  append(seconds % 60, "s");
  for (const auto& [isWanted, name] :
       {std::pair(milliseconds, "ms"), std::pair(microseconds, "us"), std::pair(nanoseconds, "ns")}) {
    fraction *= 1000;
    if (isWanted) append(fraction >> 20, name);
    if (isWanted) fraction &= 0xfffff;
  }
  return text;
}

}  // namespace

TEST(Console, PrefixFollowsFileAndLineAndTheWholeIsCut) {
  EXPECT_EQ(2, ul_PrStdOut("c.c", 7, "%s", "xy")) << "without a pipe the message counts";
  EXPECT_EQ("", Printed());
  const std::string longPath = "d/" + std::string(300, 'f'), text(2000, 'x'), time = "[15:33:07 007.25ms]   ";
  const std::tuple<const char*, int, std::string> cases[] = {
      {nullptr, -1, ""},        {nullptr, 0, time},
      {"a/c.c", -1, time},      {"a/b/c.c", 0, time + "c.c:0\t"},
      {"/", 7, time + "/:7\t"}, {longPath.c_str(), 7, time + std::string(255, 'f') + ":7\t"}};
  for (const auto& [file, line, prefix] : cases) {
    const AbsTime_US before = ul_Pr_GetLastPrintTime();
    const StoppedClock clock(50587 + (&line - &std::get<1>(cases[0])) * 86400);
    const int written = ul_PrStdOut(file, line, "x%c", 'y');
    const std::string printed = Printed();
    EXPECT_EQ(prefix + "xy", printed);
    EXPECT_EQ(printed.size(), static_cast<std::size_t>(written));
    EXPECT_EQ(prefix.empty() ? before : ul_GetAbsTime_US(true), ul_Pr_GetLastPrintTime());
  }
  EXPECT_EQ(1023, ul_PrStdOut(nullptr, -1, "%s", text.c_str()));
  EXPECT_EQ(text.substr(0, 1023), Printed());
}

TEST(Console, SystemErrorTellsErrnoAndAMillionfoldTime) {
  Printed();
  for (const std::time_t time : {900, 1000}) {
    const StoppedClock clock(time);
    ul_Configure_Pr_SetFirstPrintTimeToActualTime();
    EXPECT_NE(std::string::npos, Printed().find("\tPrStdOut starttime resetted !!!\n"));
  }
  const StoppedClock clock(1002);
  const std::string error = "error code = 2 (No such file or directory)\n";
  const std::tuple<const char*, int, const char*, std::string> cases[] = {
      {nullptr, 7, nullptr, error},
      {"a/c.c", -1, "", error},
      {"a/c.c", 0, "open", "[23d 3h 33min 20s 0ms 0us]\tc.c.0\topen " + error}};
  for (const auto& [file, line, text, expected] : cases) {
    errno = ENOENT;
    ul_PrSystemError(file, line, text);
    EXPECT_EQ(expected, Printed());
  }
}

TEST(Console, PropertiesGoToTheHandlerOrThePipe) {
  static std::string handed;
  Printed();
  for (const auto& [result, shown] : {std::pair(0, "9/Policy=SCHED_RR"), std::pair(EPERM, "-1/Policy=SCHED_???")}) {
    on_pthread_getschedparam = [&result = result](pthread_t, int* policy, sched_param* scheduling) {
      return *policy = SCHED_RR, scheduling->sched_priority = 9, result;
    };
    EXPECT_EQ(42, ul_PrintApplicationProperties([](const char* text) { return handed = text, 42; }, nullptr));
    EXPECT_NE(std::string::npos, handed.find("ID=" + std::to_string(getpid()) + "/Prio=")) << handed;
    EXPECT_NE(std::string::npos, handed.find("/Prio=" + std::string(shown) + ") ClockTick=")) << handed;
    ul_PrintApplicationProperties(nullptr, " end");
    EXPECT_EQ(handed + " end", Printed());
  }
  on_pthread_getschedparam = nullptr;
}

TEST(Console, TerminalPipeIsOpenedOnceAndClosedWhole) {
  ul_FinalTerminalPipe();
  const int before = CountDescriptors();
  EXPECT_EQ("pipe2: -1\nfcntl: -1\nfcntl: -1\nfcntl: -1\n", WithEachCallFailing([] {
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
  for (int i = 0; i < 2; ++i) EXPECT_EQ(1, ul_FinalTerminalPipe());
  EXPECT_EQ(before, CountDescriptors());
}

TEST(FormatDuration, StartsAtTheFirstUnitThatIsNotZero) {
  std::mt19937_64 generator(20261125);
  for (int round = 0; round < 20000; ++round) {
    const auto units = static_cast<std::int64_t>((generator() >> 11) >> generator() % 53);
    const bool ms = generator() % 2 == 0, us = generator() % 2 == 0, ns = generator() % 2 == 0;
    EXPECT_EQ(Duration(units, ms, us, ns), ul_FormatDuration(std::ldexp(units, -20), ms, us, ns)) << units;
  }
  for (const double none : {0.0, -5.0, std::nan(""), std::log(0.0), -std::log(0.0)})
    EXPECT_EQ("", ul_FormatDuration(none, true, true, true));
  EXPECT_EQ("18582494360528d 23h 57min 52s", ul_FormatDuration(1605527512749705472.0, false, false, false));
}
