#include "util/Shell.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <string>

TEST(ShellWord, LeavesPlainTextAloneAndQuotesTheRest) {
  const struct {
    const char* text;
    const char* word;
  } cases[] = {{"", ""},
               {"eth0:1.100", "eth0:1.100"},
               {"-net", "-net"},
               {"gw.example_x/24,a@b+c%d", "gw.example_x/24,a@b+c%d"},
               {"1.2.3.4;halt", "'1.2.3.4;halt'"},
               {"'", "''\\'''"},
               {"~root", "'~root'"}};
  for (const auto& c : cases) EXPECT_EQ(c.word, ul_ShellWord(c.text));
  EXPECT_EQ("eth0", ul_ShellWord(std::string("eth0\0;halt", 10)));
}

TEST(ShellWord, ReachesACommandUnchangedWhateverItHolds) {
  std::string all;
  for (int c = 1; c < 256; ++c) all += static_cast<char>(c);
  std::string output;
  ASSERT_TRUE(ul_ReadCommand("printf '%s|' " + ul_ShellWord(all) + " " + ul_ShellWord("$(echo x) `y` #"), output));
  EXPECT_EQ(all + "|$(echo x) `y` #|", output);
}

TEST(RunCommand, RunsNoLongerOneThan1023Bytes) {
  const std::string longest = "exit 5 #" + std::string(1015, 'x');
  EXPECT_EQ(5, WEXITSTATUS(ul_RunCommand(longest)));
  EXPECT_EQ(-1, ul_RunCommand(longest + "x"));
  EXPECT_EQ(E2BIG, errno);
  std::string output = "before";
  EXPECT_FALSE(ul_ReadCommand(longest + "x", output));
  EXPECT_EQ("before", output);
}

TEST(RunCommand, GivesThePipeSignalItsDefaultAndLeavesOursAsItWas) {
  void (*const handlers[])(int) = {SIG_IGN, SIG_DFL, [](int) {}};
  for (const auto handler : handlers) {
    std::signal(SIGPIPE, handler);
    // The inner shell ends itself by the signal unless it inherited it as ignored.
    EXPECT_EQ(128 + SIGPIPE, WEXITSTATUS(ul_RunCommand("sh -c 'kill -PIPE $$'; exit $?")));
    std::string output;
    EXPECT_TRUE(ul_ReadCommand("sh -c 'kill -PIPE $$'; echo $?", output));
    EXPECT_EQ(std::to_string(128 + SIGPIPE) + "\n", output);
    EXPECT_EQ(handler, std::signal(SIGPIPE, SIG_DFL));
  }
}
