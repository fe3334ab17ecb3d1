#include "util/Shell.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <random>
#include <tuple>

#include "tests/unit/SystemCalls.h"

namespace {

std::string Output(const std::string& command) {
  std::string output = "?";
  EXPECT_TRUE(ul_ReadCommand(command, output)) << command;
  return output;
}

}  // namespace

TEST(Shell, WordReachesACommandUnchangedWhateverItHolds) {
  std::mt19937 generator(20261125);
  const std::string special = "'\"\\$`&|;<>()*?[]{}~#! \t\n=%aZ9-.";
  for (int round = 0; round < 60; ++round) {
    std::string command = "printf '%s\\1'", expected;
    for (int c = round; command.size() < 900 && c < round + 20; ++c) {
      std::string word(1, static_cast<char>(c % 255 + 1));  // in the end each byte alone
      for (auto more = generator() % 12; round % 4 != 0 && more > 0; --more)
        word += special[generator() % special.size()];
      const std::string quoted = ul_ShellWord(word);
      const bool isPlain =
          word.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.,:/@+%=") ==
          std::string::npos;
      EXPECT_EQ(isPlain, quoted == word) << quoted;
      command += " " + quoted;
      expected += word + "\1";
    }
    EXPECT_EQ(expected, Output(command));
  }
  EXPECT_EQ("", ul_ShellWord(""));
  EXPECT_EQ("'~root'", ul_ShellWord(std::string("~root\0;halt", 11)));
}

TEST(Shell, RunsNoLongerCommandThan1023BytesAndEachWithThePipeSignalAtItsDefault) {
  const std::string longest = "exit 5 #" + std::string(1015, 'x');
  std::string output = "before";
  for (const auto run : {ul_RunCommand, ul_RunRoute}) {
    EXPECT_EQ(5, WEXITSTATUS(run(longest)));
    errno = 0;
    EXPECT_EQ(-1, run(longest + "x"));
    EXPECT_EQ(E2BIG, errno);
  }
  EXPECT_EQ("", Output(longest));
  EXPECT_FALSE(ul_ReadCommand(longest + "x", output));
  EXPECT_EQ("before", output);
  void (*const handlers[])(int) = {SIG_IGN, SIG_DFL, [](int) {}};
  for (const auto handler : handlers) {
    std::signal(SIGPIPE, handler);
    // The inner shell ends itself by the signal unless it inherited it as ignored.
    for (const auto run : {ul_RunCommand, ul_RunRoute})
      EXPECT_EQ(141, WEXITSTATUS(run("sh -c 'kill -PIPE $$'; exit $?")));
    EXPECT_EQ("141\n", Output("sh -c 'kill -PIPE $$'; echo $?"));
    EXPECT_EQ(handler, std::signal(SIGPIPE, SIG_DFL));
  }
}

TEST(Shell, RouteAloneGetsTheLimitsForNameLookups) {
  const std::string show = "test \"$RES_OPTIONS$LOCALDOMAIN\" = ";
  unsetenv("RES_OPTIONS");
  setenv("LOCALDOMAIN", "own", 1);
  EXPECT_EQ(0, ul_RunRoute(show + "'timeout:1 attempts:1 ndots:15own'"));
  EXPECT_EQ(0, ul_RunCommand(show + "own"));
  EXPECT_EQ("own\n", Output("echo $RES_OPTIONS$LOCALDOMAIN"));
  setenv("RES_OPTIONS", "mine", 1);
  EXPECT_EQ(0, ul_RunRoute(show + "mineown"));
  unsetenv("LOCALDOMAIN");
  EXPECT_EQ(0, ul_RunRoute("test \"${LOCALDOMAIN-unset}\" = ''"));
}

TEST(Shell, ReaderThatStoppedIsNotWaitedForAndNoDescriptorIsLost) {
  int ends[2] = {}, saved[3] = {};
  ASSERT_EQ(0, pipe(ends));
  for (int stream = 0; stream < 3; ++stream)
    saved[stream] = real_fcntl(stream, F_DUPFD_CLOEXEC, reinterpret_cast<void*>(10));
  const auto restore = [&saved] {
    for (int stream = 0; stream < 3; ++stream) dup2(saved[stream], stream);
  };
  const int before = CountDescriptors();
  alarm(60);  // a command that waits would wait for ever
  std::string text;
  const char* const noise = "echo noise >&2; echo heard; exit 3";
  for (const bool isFull : {false, true}) {
    fcntl(ends[1], F_SETFL, O_NONBLOCK);
    while (isFull && write(ends[1], saved, sizeof saved) > 0) continue;
    fcntl(ends[1], F_SETFL, 0);
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) dup2(ends[1], stream);
    const int results[] = {ul_RunCommand(noise), ul_RunRoute(noise), ul_ReadCommand(noise, text)};
    struct stat pipe = {}, after[2] = {};
    fstat(ends[1], &pipe);
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) fstat(stream, &after[stream - 1]);
    restore();
    EXPECT_EQ(std::tuple(3, 3, 1), std::tuple(WEXITSTATUS(results[0]), WEXITSTATUS(results[1]), results[2]));
    EXPECT_EQ("heard\n", text);
    EXPECT_EQ(std::tuple(pipe.st_ino, pipe.st_ino), std::tuple(after[0].st_ino, after[1].st_ino)) << "as they were";
    if (isFull) break;
    std::string all(100, '\0');
    all.resize(static_cast<std::size_t>(read(ends[0], all.data(), all.size())));
    EXPECT_EQ("noise\nheard\nnoise\nheard\nnoise\n", all);
  }
  for (int stream = 0; stream < 3; ++stream) close(stream);
  const bool isRead = ul_ReadCommand("cd /proc/$PPID/fd && echo *", text);
  const int routed = ul_RunRoute("exit 3");
  restore();
  EXPECT_EQ(3, WEXITSTATUS(routed)) << "run, though there is no standard output to give it";
  EXPECT_TRUE(isRead);
  for (const char* standard : {" 0 ", " 1 ", " 2 "}) EXPECT_EQ(std::string::npos, (" " + text).find(standard)) << text;
  EXPECT_EQ(before, CountDescriptors());
  EXPECT_EQ("pipe2: 0\nfcntl: 0\nfcntl: 0\n",
            WithEachCallFailing([&text] { return std::to_string(ul_ReadCommand("exit", text)); }));
  alarm(0);
  for (const int descriptor : {ends[0], ends[1], saved[0], saved[1], saved[2]}) close(descriptor);
}

TEST(Shell, SignalsDoNotEndTheWaitAndACommandThatCannotStartIsAFailure) {
  struct sigaction before = {}, handled = {};
  handled.sa_handler = [](int) {};
  sigaction(SIGALRM, &handled, &before);
  const itimerval often = {{0, 20000}, {0, 20000}}, never = {};
  setitimer(ITIMER_REAL, &often, nullptr);
  EXPECT_EQ(4, WEXITSTATUS(ul_RunRoute("sleep 0.1; exit 4")));
  EXPECT_EQ("heard\n", Output("sleep 0.1; echo heard; exec >&-; sleep 0.1"));
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &before, nullptr);
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "no child is left";
  on_posix_spawn = [](auto&&...) { return EAGAIN; };
  std::string output;
  const int descriptors = CountDescriptors(), result = ul_RunRoute("exit");
  EXPECT_EQ(std::pair(-1, EAGAIN), std::pair(result, errno));
  EXPECT_FALSE(ul_ReadCommand("exit", output));
  EXPECT_EQ(EAGAIN, errno);
  EXPECT_EQ(descriptors, CountDescriptors());
  on_posix_spawn = nullptr;
}
