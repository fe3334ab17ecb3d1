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
      {"", "--json", "scan --watch --json --interface a --interface b", "--time=1.5 --expect 3", "--watch --expect 3"},
      {"set-ip halt 10.0.0.1/8", "set-ip d a --gateway b --dns c --force --dry-run --json"},
      {"dhcp d on", "dhcp --dry-run d off"},
      {"apply p.csv --yes", "apply p.csv"},
      {"trace d --time 0.5"},
      {"halt d", "halt scan --yes"},
      {"send d WORD -1 -- --json"},
      {"scna", "scan eth0", "--csv --json", "--csv --watch", "--expect 0", "--expect x", "--time 0", "--time -1",
       "--time nan", "--time 1e9", "--interface", "set-ip d", "dhcp d yes", "dhcp d", "trace d --json", "send d"}};
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

TEST(CommandLine, WordsReachTheirPlaces) {
  const auto scan = std::get<ScanOptions>(ReadCommandLine({"--expect", "3", "--interface", "a", "--interface", "b"}));
  EXPECT_EQ(3, scan.expect);
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), scan.interfaces);
  const auto set = std::get<SetIPOptions>(ReadCommandLine({"set-ip", "--interface", "a", "d", "x", "--gateway", ""}));
  EXPECT_EQ("d x", set.device + " " + set.address);
  EXPECT_EQ("", set.gateway);
  EXPECT_FALSE(set.dns.has_value());
  for (const bool isSet : {set.force, set.dryRun, set.json}) EXPECT_FALSE(isSet);
  const std::vector<std::string> bracketed = {"[1,2]", "[]", "[", "\x01", "\x01[x]"};
  const auto send =
      std::get<SendOptions>(ReadCommandLine({"send", "[d]", "[w]", "[1,2]", "[]", "[", "\x01", "\x01[x]"}));
  EXPECT_EQ("[d] [w]", send.device + " " + send.word);
  EXPECT_EQ(bracketed, send.arguments);
  EXPECT_TRUE(std::get<DhcpOptions>(ReadCommandLine({"dhcp", "d", "on"})).on);
  EXPECT_FALSE(std::get<DhcpOptions>(ReadCommandLine({"dhcp", "d", "off"})).on);
}
