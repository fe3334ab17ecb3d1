#include "tool/Render.h"

#include <nlohmann/json.hpp>

#include "DeviceSamples.h"
#include "tool/Text.h"

using namespace tarnddp;

namespace {

Finding FindingOf(const Record& record) {
  return {{1, record, {SourceOf("eth0", "fe80::1"), SourceOf("eth1", "fe80::1"), SourceOf("eth0", "10.0.0.1")}}, {}};
}
const std::string m = "00:1b:c4:00:00:01";

}  // namespace

TEST(Render, TableFitsTheTerminal) {
  const std::vector<Finding> findings{FindingOf(RecordOf(m, "314159", "192.168.1.20", "Ä name with \x1b in it")),
                                      FindingOf(RecordOf("", "away", "10.0.0.1"))};
  EXPECT_EQ(
      (std::vector<std::string>{
          "NAME                    SERIAL  MAC                ADDRESS          DHCP  SERVICE  TYPE  MODEL      "
          "FIRMWARE  GATEWAY  VIA",
          "Ä name with \\x1b in it  314159  00:1b:c4:00:00:01  192.168.1.20/24  off   yes      T     XT175012#  4  "
          "       -        eth0:ipv6,ipv4 eth1:ipv6",
          "-                       -       -                  10.0.0.1/24      -     away     -     -          -  "
          "       -        eth0:ipv6,ipv4 eth1:ipv6"}),
      Table(findings, 0));
  const std::string wide(60, 'n');  // what a pipe gets is not cut
  EXPECT_EQ(0U, Table({FindingOf(RecordOf(m, "1", "10.0.0.1", wide))}, 0)[1].find(wide));
  const std::string full = Table(findings, 200)[0];
  for (int columns = 1; columns < 140; ++columns) {
    const std::vector<std::string> lines = Table(findings, columns);
    for (const std::string& line : lines) EXPECT_LE(Width(line), columns) << line;
    EXPECT_EQ(columns >= 60, lines[0].find("SERVICE") != std::string::npos) << columns;
    EXPECT_EQ(columns >= 81, full.find(lines[0]) == 0) << columns;  // no column without those before it
  }
}

TEST(Render, JsonHasAlwaysAllKeysAndIsAlwaysValid) {
  Finding finding = FindingOf(RecordOf(m, "7", "10.0.0.1", "\xff\x1b\"\xc2\x9b"));
  const std::string facts =
      R"({"mac":"00:1b:c4:00:00:01","serial":"7","name":"\u00ff\u001b\"\u00c2\u009b","type":"T","model":"XT175012#",)"
      R"("firmware":"4","address":"10.0.0.1","prefix":24,"gateway":null,"dhcp":false,"service":true,"answers":[)"
      R"({"interface":"eth0","way":"ipv6","from":"fe80::1%eth0"},{"interface":"eth1","way":"ipv6","from":"fe80::1%eth1"},)"
      R"({"interface":"eth0","way":"ipv4","from":"10.0.0.1"}],"problems":[)";
  EXPECT_EQ(facts + "]}", Json(finding));
  finding.problems = {"p"};
  EXPECT_EQ(facts + R"("p"],"event":"came","time":"12:00"})", Json(finding, "came", "12:00"));
  for (int c = 0; c < 256; ++c) {
    const std::string json = Json(FindingOf(RecordOf(m, "7", std::string(1, static_cast<char>(c)), "\xf0\x9f")));
    EXPECT_TRUE(nlohmann::json::accept(json)) << json;
  }
}
