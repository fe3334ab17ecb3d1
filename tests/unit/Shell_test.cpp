#include "util/Shell.h"

#include <sys/time.h>
#include <sys/wait.h>

#include <csignal>

#include "tests/unit/SystemCalls.h"

namespace {

std::string Output(const std::string& command) {
  std::string output = "?";
  EXPECT_TRUE(ul_ReadCommand(command, output)) << command;
  return output;
}

/// The exit statuses of one command, run in each of the three ways; what it prints to be read goes to `text`.
std::string RunThrice(const std::string& command, std::string* text) {
  const int results[] = {ul_RunCommand(command), ul_RunRoute(command), ul_ReadCommand(command, *text)};
  return std::to_string(WEXITSTATUS(results[0])) + " " + std::to_string(WEXITSTATUS(results[1])) + " " +
         std::to_string(results[2]);
}

}  // namespace

TEST(Shell, WordReachesACommandUnchangedWhateverItHolds) {
  const std::string special = "'\"\\$`&|;<>()*?[]{}~#! \t\n=%aZ9-.",
                    plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.,:/@+%=";
  for (int round = 0; round < 400; ++round) {  // each byte alone, then before special ones
    std::string word(1, static_cast<char>(round % 255 + 1));
    for (auto more = round < 255 ? 0 : Random(12); more > 0; --more) word += special[Random(special.size())];
    const std::string quoted = ul_ShellWord(word);
    EXPECT_EQ(word.find_first_not_of(plain) == std::string::npos, quoted == word) << quoted;
    EXPECT_EQ(word + "\1", Output("printf '%s\\1' " + quoted));
  }
  EXPECT_EQ("", ul_ShellWord(""));
  EXPECT_EQ("'~root'", ul_ShellWord(std::string("~root\0;halt", 11)));
}

TEST(Shell, RunsNoLongerCommandThan1023BytesAndEachWithThePipeSignalAtItsDefault) {
  const std::string longest = "exit 5 #" + std::string(1015, 'x');
  std::string output = "before";
  errno = 0;
  EXPECT_EQ("255 255 0", RunThrice(longest + "x", &output));
  EXPECT_EQ(E2BIG, errno);
  EXPECT_EQ("before", output);
  EXPECT_EQ("5 5 1", RunThrice(longest, &output));
  EXPECT_EQ("", output);
  void (*const handlers[])(int) = {SIG_IGN, SIG_DFL, [](int) {}};
  for (const auto handler : handlers) {
    EXPECT_NE(SIG_ERR, std::signal(SIGPIPE, handler));
    // The inner shell ends itself by the signal unless it inherited it as ignored.
    EXPECT_EQ("141 141 1", RunThrice("sh -c 'kill -PIPE $$'; s=$?; echo $s; exit $s", &output));
    EXPECT_EQ("141\n", output);
    const std::string isCaught = "exit $((0x$(sed -n 's/SigCgt:.//p' /proc/$PPID/status) >> 12 & 1))";
    EXPECT_EQ(handler == SIG_DFL ? 0 : 1, WEXITSTATUS(ul_RunCommand(isCaught))) << "a broken pipe would end us";
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
  const std::string noise = "echo noise >&2 && echo heard && exit 3";
  int ends[2] = {}, lost[2] = {}, saved[3] = {};
  ASSERT_EQ(0, pipe(ends) + pipe(lost) + close(lost[0]));
  for (int stream = 0; stream < 3; ++stream)
    saved[stream] = real_fcntl(stream, F_DUPFD_CLOEXEC, reinterpret_cast<void*>(10));
  const auto restore = [&saved] {
    for (int stream = 0; stream < 3; ++stream) dup2(saved[stream], stream);
  };
  const int before = CountDescriptors();
  alarm(60);  // a command that waits would wait for ever
  std::string text, all(100, '\0');
  for (const int full : {-1, ends[1], lost[1]}) {  // the last one has no reader at all
    fcntl(ends[1], F_SETFL, O_NONBLOCK);
    while (full == ends[1] && write(full, saved, sizeof saved) > 0) continue;
    fcntl(ends[1], F_SETFL, 0);
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) dup2(full < 0 ? ends[1] : full, stream);
    const std::string results = RunThrice(noise, &text);
    const bool arePipes = lseek(STDOUT_FILENO, 0, SEEK_CUR) < 0 && lseek(STDERR_FILENO, 0, SEEK_CUR) < 0;
    restore();
    EXPECT_EQ("3 3 1", results);
    EXPECT_EQ("heard\n", text);
    EXPECT_TRUE(arePipes) << "as before";
    if (full < 0) all.resize(static_cast<std::size_t>(read(ends[0], all.data(), all.size())));
  }
  EXPECT_EQ("noise\nheard\nnoise\nheard\nnoise\n", all);
  for (int stream = 0; stream < 3; ++stream) close(stream);
  const bool isRead = ul_ReadCommand("cd /proc/$PPID/fd && echo *", text);
  const int routed = ul_RunRoute("exit 3");
  restore();
  EXPECT_EQ(3, WEXITSTATUS(routed)) << "run, though there is no standard output to give it";
  EXPECT_TRUE(isRead);
  for (const char* standard : {" 0 ", " 1 ", " 2 "}) EXPECT_EQ(std::string::npos, (" " + text).find(standard)) << text;
  EXPECT_EQ(before, CountDescriptors());
  EXPECT_EQ("pipe2: 0\n", WithEachCallFailing([&text] { return std::to_string(ul_ReadCommand("exit", text)); }));
  alarm(0);
  for (const int descriptor : {ends[0], ends[1], lost[1], saved[0], saved[1], saved[2]}) close(descriptor);
}

TEST(Shell, SignalsDoNotEndTheWaitAndACommandThatCannotStartIsAFailure) {
  struct sigaction before = {}, handled = {};
  handled.sa_handler = [](int) {};
  sigaction(SIGALRM, &handled, &before);
  const itimerval often = {{0, 20000}, {0, 20000}}, never = {};
  setitimer(ITIMER_REAL, &often, nullptr);
  std::string output;
  EXPECT_EQ("4 4 1", RunThrice("sleep 0.1; echo heard; exec >&-; sleep 0.1; exit 4", &output));
  EXPECT_EQ("heard\n", output);
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &before, nullptr);
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "no child is left";
  const ReplacedCalls calls;
  on_posix_spawn = [](auto&&...) { return EAGAIN; };
  const int descriptors = CountDescriptors(), result = ul_RunRoute("exit");
  EXPECT_EQ(std::pair(-1, EAGAIN), std::pair(result, errno));
  EXPECT_FALSE(ul_ReadCommand("exit", output));
  EXPECT_EQ(EAGAIN, errno);
  EXPECT_EQ(descriptors, CountDescriptors());
}
