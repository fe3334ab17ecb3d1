#include "util/_Others.h"

#include <fcntl.h>
#include <libgen.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/Descriptor.h"
#include "base/ErrorText.h"

namespace {

constexpr int READ_END = 0;
constexpr int WRITE_END = 1;

struct Console {
  bool firstPrint = true;
  AbsTime_US firstPrintTime = 0;
  AbsTime_US lastPrintTime = 0;
  int terminalPipe[2] = {-1, 0};  // the read end alone tells whether it is open
  ul_Pr_Handler handler = nullptr;
};
Console console;

/// One line as it grows; what does not fit is cut off.
class LineBuffer {
 public:
  void Append(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(End(), Room(), format, arguments);
    va_end(arguments);
  }
  const char* Text() const { return _text.data(); }
  std::size_t Size() const { return std::strlen(_text.data()); }
  /// Where the next text goes, and how many bytes it may have, its NUL included.
  char* End() { return _text.data() + Size(); }
  std::size_t Room() const { return _text.size() - Size(); }

 private:
  std::array<char, 1024> _text = {};
};

/// The last component of a path, of which at most 499 bytes are looked at, cut to 255.
std::string LastPathComponent(const char* file) {
  std::array<char, 500> path = {};
  std::strncpy(path.data(), file, path.size() - 1);
  return std::string(basename(path.data())).substr(0, 255);
}

/// The time of day with the milliseconds of its second.
void AppendTime(LineBuffer& line, AbsTime_NS time) {
  // Unsigned: the low 32 bits of the clock are right until 2106 where time_t has more.
  const auto seconds = static_cast<std::time_t>(static_cast<std::uint32_t>(time.seconds));
  std::tm local = {};
  tzset();
  localtime_r(&seconds, &local);
  std::array<char, 32> clock = {};
  static_cast<void>(std::strftime(clock.data(), clock.size(), "[%H:%M:%S ", &local));  // it fits
  line.Append("%s%06.2fms]   ", clock.data(), time.nanoseconds / 1000000.0);
}

const char* PolicyName(int policy) {
  switch (policy) {
    case SCHED_OTHER:
      return "SCHED_OTHER";
    case SCHED_FIFO:
      return "SCHED_FIFO";
    case SCHED_RR:
      return "SCHED_RR";
    default:
      return "SCHED_???";
  }
}

}  // namespace

int ul_PrStdOut(const char* file, int line, const char* format, ...) {
  LineBuffer text;
  const AbsTime_US now = ul_GetAbsTime_US(true);
  const AbsTime_NS time = ul_GetAbsTime_NS(true);
  if (console.firstPrint) {
    console.firstPrint = false;
    console.firstPrintTime = now;
  }
  if (line != -1 || file != nullptr) {
    AppendTime(text, time);
    console.lastPrintTime = now;
    if (line >= 0 && file != nullptr) text.Append("%s:%d\t", LastPathComponent(file).c_str(), line);
  }
  std::va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text.End(), text.Room(), format, arguments);
  va_end(arguments);
  if (console.terminalPipe[READ_END] < 0 || console.terminalPipe[WRITE_END] < 0) return length;
  return static_cast<int>(write(console.terminalPipe[WRITE_END], text.Text(), text.Size()));
}

void ul_PrSystemError(const char* file, int line, const char* text) {
  if (line >= 0 && file != nullptr) {
    // Microseconds where the formatter takes seconds: kept, as the header says.
    const double elapsed = ul_MathAbsTime_SubFloat_US(ul_GetAbsTime_US(true), console.firstPrintTime);
    LineBuffer prefix;
    prefix.Append("[%s]\t", ul_FormatDuration(elapsed, true, true, false).c_str());
    prefix.Append("%s.%ld\t", LastPathComponent(file).c_str(), static_cast<long>(line));
    ul_PrStdOut(nullptr, -1, "%s", prefix.Text());
  }
  if (text != nullptr && *text != '\0') ul_PrStdOut(nullptr, -1, "%s ", text);
  ul_PrStdOut(nullptr, -1, "error code = %d", errno);
  if (const char* reason = ErrorText(errno)) {
    ul_PrStdOut(nullptr, -1, " (%s)\n", reason);
  } else {
    ul_PrStdOut(nullptr, -1, "\n");
  }
}

void ul_Configure_Pr_SetFirstPrintTimeToActualTime() {
  ul_PrStdOut(__FILE__, __LINE__, "PrStdOut starttime resetted !!!\n");
  console.firstPrintTime = ul_GetAbsTime_US(true);
}

void ul_Configure_Pr_AddHandler(ul_Pr_Handler handler) { console.handler = handler; }

AbsTime_US ul_Pr_GetLastPrintTime() { return console.lastPrintTime; }

int ul_InitTerminalPipe() {
  if (console.terminalPipe[READ_END] >= 0) return console.terminalPipe[READ_END];
  int ends[2] = {-1, -1};
  if (!OpenPipe(ends)) return -1;
  // This sets descriptor flags, not the O_NONBLOCK of the same value: the write end blocks and loses close-on-exec.
  if (fcntl(ends[WRITE_END], F_SETFD, 0x800) != 0) {
    for (const int end : ends) CloseKeepingErrno(end);
    return -1;
  }
  std::copy(std::begin(ends), std::end(ends), console.terminalPipe);
  return ends[READ_END];
}

int ul_FinalTerminalPipe() {
  if (console.terminalPipe[READ_END] >= 0) {
    for (int& end : console.terminalPipe) {
      close(end);
      end = -1;
    }
  }
  return 1;
}

int ul_PrintApplicationProperties(ul_Pr_Handler handler, const char* suffix) {
  const pthread_t thread = pthread_self();
  int policy = -1;
  sched_param scheduling = {};
  if (pthread_getschedparam(thread, &policy, &scheduling) != 0) {
    policy = -1;
    scheduling.sched_priority = -1;
  }
  char own[256];
  std::snprintf(own, sizeof own,
                "ThisApp: ParentProc(ID=%d) Proc(ID=%d/Prio=%d) BaseThread(ID=%ld/Prio=%ld/Policy=%s) ClockTick=%ldHz",
                getppid(), getpid(), getpriority(PRIO_PROCESS, static_cast<id_t>(getpid())), static_cast<long>(thread),
                static_cast<long>(scheduling.sched_priority), PolicyName(policy), sysconf(_SC_CLK_TCK));
  const std::string text = own + std::string(suffix == nullptr ? "" : suffix);
  return handler != nullptr ? handler(text.c_str()) : ul_PrStdOut(nullptr, -1, "%s", text.c_str());
}

std::string ul_FormatDuration(double seconds, bool milliseconds, bool microseconds, bool nanoseconds) {
  if (!(seconds > 0) || std::isinf(seconds)) return "";
  std::string text;
  // Appends one unit unless it is zero with nothing before it; the number without a limit, as a double may be large.
  const auto append = [&text](double count, const char* unit) {
    if (count < 1 && text.empty()) return;
    std::array<char, 400> number = {};
    std::snprintf(number.data(), number.size(), "%s%.0f%s", text.empty() ? "" : " ", count, unit);
    text += number.data();
  };
  double rest = seconds;
  const struct {
    double seconds;
    const char* name;
  } units[] = {{86400, "d"}, {3600, "h"}, {60, "min"}, {1, "s"}};
  for (const auto& unit : units) {
    // Not by a quotient, which a long duration may have rounded up.
    const double below = std::fmod(rest, unit.seconds);
    append((rest - below) / unit.seconds, unit.name);
    rest = below;
  }
  const struct {
    bool wanted;
    const char* name;
  } fractions[] = {{milliseconds, "ms"}, {microseconds, "us"}, {nanoseconds, "ns"}};
  for (const auto& fraction : fractions) {
    rest *= 1000;
    if (!fraction.wanted) continue;
    const double count = std::trunc(rest);
    append(count, fraction.name);
    rest -= count;
  }
  return text;
}
