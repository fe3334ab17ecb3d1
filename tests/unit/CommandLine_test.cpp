#include "tool/CommandLine.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <string>
#include <vector>

using namespace tarnddp;

TEST(CommandLine, WrongUsageIsToldApart) {
  const std::vector<const char*> byCommand[] = {
      {"--help", "--version", "send --help"},
      {"", "--json", "scan --watch --json --interface a --interface b", "--time=1.5 --expect 3"},
      {"set-ip halt 10.0.0.1/8", "set-ip d a --gateway b --dns c --force --dry-run --json"},
      {"dhcp d on", "dhcp --dry-run d off"},
      {"apply p.csv --yes --dry-run", "apply /p"},
      {"trace d --time 0.1"},
      {"halt d", "halt scan --yes"},
      {"send d WORD -1 -- --json="},
      {"scna", "scan --interface a b", "--csv --json", "--csv --watch", "--expect 0", "--expect +010", "--expect x",
       "--time 0", "--time -1", "--time nan", "--time 1e9", "--interface", "set-ip d", "dhcp d yes", "dhcp d",
       "trace d --json", "send d", "dhcp d on --interface= a"}};
  for (std::size_t index = 0; index < std::size(byCommand); ++index) {
    for (const char* words : byCommand[index]) {
      std::istringstream text(words);
      const Command command = ReadCommandLine({std::istream_iterator<std::string>(text), {}});
      const bool isWrong = index + 1 == std::size(byCommand);
      EXPECT_EQ(isWrong ? 0 : index, command.index()) << words;
      const Ending* ending = std::get_if<Ending>(&command);
      EXPECT_EQ(isWrong, ending != nullptr && ending->status == 2) << words;
    }
  }
}

TEST(CommandLine, WordsReachADeviceAsTheyAre) {
  const std::vector<std::string> words = {"[1,2]", "[]", "[", "\x01", "\x01[x]"};
  const auto send = std::get<SendOptions>(
      ReadCommandLine({"send", "--interface", "[i]", "[d]", "[w]", "[1,2]", "[]", "[", "\x01", "\x01[x]"}));
  EXPECT_EQ("[i] [d] [w]", send.interfaces[0] + " " + send.device + " " + send.word);
  EXPECT_EQ(words, send.arguments);
  for (const char* state : {"on", "off"})
    EXPECT_EQ(state, std::string(std::get<DhcpOptions>(ReadCommandLine({"dhcp", "d", state})).on ? "on" : "off"));
}

TEST(CommandLine, HelpNamesTheCommandAndWhatItDoes) {
  for (const std::string name : {"scan", "set-ip", "dhcp", "apply", "trace", "halt", "send"}) {
    const std::string help = std::get<Ending>(ReadCommandLine({name, "--help"})).text;
    EXPECT_NE(std::string::npos, help.find(".\nUsage: tarnddp " + name + " [OPTIONS]")) << help;
  }
}
