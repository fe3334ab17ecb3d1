#include "ddp/Options.h"

#include "tests/unit/Test.h"

TEST(Options, AreReadInOneScanOfEveryArgument) {
  const std::string longest(127, 'x'), tooLong(128, 'x');
  const std::pair<std::vector<const char*>, std::string> cases[] = {
      {{}, "ip if 1200 1 0"},
      {{"/ServiceSystem/x", "-if"}, "ip if 1200 1 1"},
      {{"x", "--help", "/ServiceSystem", "-NODAEMON"}, "ip if 1200 1 0"},
      {{"-ip", "-nodaemon"}, "-nodaemon if 1200 0 0"},  // a value is an option word as well
      {{"x", "-ip", longest.c_str(), "-if", tooLong.c_str()}, longest + " if 1200 1 0"},
      {{"-ip", "", "-port", "999"}, " if 1400 1 0"},
      {{"-port", "-80", "--version"}, "ip if -80 1 0"},
      {{"-port", " 4294968296x"}, "ip if 1000 1 0"}};
  for (const auto& [arguments, expected] : cases) {
    EXPECT_EQ(nullptr, AnswerInsteadOfServing(static_cast<int>(arguments.size()), arguments.data()));
    std::strcpy(IPAddress, "ip");
    std::strcpy(InterfaceName, "if");
    std::tie(port, Daemon, ServiceSystem) = std::make_tuple(1200, 1, 0);
    ReadOptions(static_cast<int>(arguments.size()), arguments.data());
    std::string settings = IPAddress + std::string(" ") + InterfaceName;
    for (const int number : {port, Daemon, ServiceSystem}) settings += ' ' + std::to_string(number);
    EXPECT_EQ(expected, settings);
  }
}
