#include "tool/Plan.h"

#include <regex>

#include "DeviceSamples.h"
#include "tool/Csv.h"
#include "tool/Render.h"

namespace tarnddp {
namespace {

/// Devices 1 and 2 with the addresses 192.168.1.11 and .12, 2 by DHCP, device 3 with .13, its service away, which
/// answers from .33.
std::vector<Device> Bench() {
  std::vector<Device> devices;
  for (const std::string id : {"1", "2", "3"}) {
    Record record = RecordOf(id, id == "3" ? "away" : "100" + id, "192.168.1.1" + id);
    record.gateway = "192.168.1.1";
    record.dhcp = id == "2" ? "true" : "false";
    devices.push_back({id[0] - '0', record, {SourceOf("eth0", "fe80::" + id)}});
  }
  devices[2].sources.push_back(SourceOf("eth0", "192.168.1.33"));
  return devices;
}

/// The steps in their order as "line:step", with a ? where there are words to it, or the lines that are wrong as
/// "line!". In the text, M1 is the MAC address of device 1, @ the network. Neighbours are M0 to M9 with @90 to @99.
std::string Check(const std::string& text, const std::vector<Device>& devices = Bench()) {
  std::vector<PlanLine> lines;
  const std::string error = ReadPlan(
      std::regex_replace(std::regex_replace(text, std::regex("M"), "00:1b:c4:00:00:0"), std::regex("@"), "192.168.1."),
      lines);
  const auto neighbourMac = [](IPv4 address) {
    const bool isThere = address >> 8U == 0xc0a801 && (address & 0xffU) >= 90;
    return isThere ? std::optional("00:1b:c4:00:00:0" + std::to_string((address & 0xffU) - 90)) : std::nullopt;
  };
  CheckedPlan plan = CheckPlan(lines, devices, {0xc0a80103}, neighbourMac);
  if (!error.empty()) plan.errors = {error};
  std::string shown;
  for (const std::string& one : plan.errors) shown += one.substr(5, 1) + "! ";
  constexpr const char* steps[] = {"alone", "missing", "blocked", "address", "on", "off"};
  if (plan.errors.empty())
    for (const PlannedChange& change : plan.changes)
      shown += std::to_string(change.line) + ':' + steps[static_cast<int>(change.step)] +
               (change.words.empty() ? " " : "? ");
  return shown;
}

TEST(Plan, OfWhatWasHeardLeavesAllAlone) {
  std::vector<Device> devices = Bench();
  devices[0].record.name = "a,\"b\"\x1b\r\n";
  devices[1].record.address = "0.0.0.0";  // refused anywhere else
  devices[1].record.dhcp = "false";
  devices[2].record.mac = "";
  devices.push_back(devices[0]);  // two devices that say the same
  devices.back().id = 4;
  std::string text = "\xef\xbb\xbf" + CsvLine(PlanHeading());
  for (const Device& device : devices) {
    std::vector<std::string> row = PlanRow(device);
    row[6] = "192.168.1.53";                                 // the name server, which no record shows
    if (device.id == 2) row[1] = "01002", row[2] = "other";  // of no use behind this MAC address
    text += CsvLine(row);
  }
  EXPECT_EQ("2:alone 3:alone 4:alone 5:alone ", Check(text, devices));
  const std::string wrong = std::regex_replace(text, std::regex("\\.53"), ".530");
  EXPECT_EQ("2! 3! 4! 5! 6! ", Check(wrong + "M9,,,,,,x,\r\nM8,,,,,,x,on\r\n", devices));
}

TEST(Plan, HoldsNoFormula) {
  std::vector<Device> devices = Bench();
  Record& record = devices[0].record;
  record.name = record.serial = record.address = record.gateway = "=1";
  EXPECT_EQ((std::vector<std::string>{record.mac, "'=1", "'=1", "'=1", "24", "'=1", "", "off"}), PlanRow(devices[0]));
  record.serial = "\u00fc";
  for (const std::string cell : {"'=1,", "=1,", ",\u00fc", ",\xfc"})  // also by hand, and in Latin-1
    EXPECT_EQ("2:on ", Check("name,serial,dhcp\n" + cell + ",on\n", devices)) << cell;
}

TEST(Plan, TellsDevicesWithOneMacApart) {
  std::vector<Device> devices = Bench();
  devices[1].record.mac = devices[0].record.mac;
  const std::string start = "mac,serial,address,prefix\nM1,", end = ",@21,24\n";
  EXPECT_EQ("2:address ", Check(start + "1002" + end, devices));
  EXPECT_EQ("2:missing ", Check(start + "1009" + end, devices));
  EXPECT_EQ("2! ", Check(start + end, devices));
  EXPECT_EQ("2:missing 3:missing ", Check(start + "1001" + end + "M1,1002,@22,24", {}));
  // Only the first one is heard, and has what the line of the second asks for.
  EXPECT_EQ("2:address 3:missing? ", Check(CsvLine(PlanHeading()) + "M1,1001,,@21,24\nM1,1002,,@11,24,@1,,off"));
  for (const char* spoilt : {"001001", "1.00E+03"}) EXPECT_EQ("2:address ", Check(start + spoilt + end));
}

TEST(Plan, SaysWhatIsToBeDoneInWhichOrderOrWhatIsWrong) {
  const struct {
    const char* steps;
    std::vector<const char*> lines;
  } cases[] = {
      {"2:alone ", {"M1", "M1,,@11,24,,off", "M1,,,,,off", "M2,,@12,24", "M2,,junk,,junk,On"}},
      {"2:address ",
       {"001BC4000001,,@21,24", ",1001,@21,24,,off", "M1,, @11 ,24,@2,", "M1,,@11,25", "M2,,@12,24,,off",
        "M3,,@33,24,,off",  // it answers from there
        "M1,,@92,24"}},     // what device 2 had before
      {"2:on ", {"M1,,@12,24,,on", "M3,,,,,on"}},
      {"2:off ", {"M2,,,,,off"}},
      {"2:blocked? ", {"M3,,,,,off"}},
      {"2:missing ", {"M9,,@99,24"}},
      // An address is free first, unless it goes round.
      {"4:address 3:address 2:address ", {"M1,,@12,24\nM2,,@13,24\nM3,,@14,24"}},
      {"2:address 3:address ", {"M1,,@12,24\nM2,,@11,24"}},
      {"3:on 2:address ", {"M2,,@11,24\nM1,,,,,on"}},
      {"2! ",
       {"M1,,@12,24", "M1,,@33,24", "M1,,@99,24",  // of a device, of one that answers from there, a neighbour's
        "M1,,@3,24",                               // this PC's
        "M1,,@21,24,192.168.2.1", "M1,,@21,24,,maybe", "M1,,@21,24,,,x", "M1,\"x", "M1,\"x\"y", "M1,x\"y\""}},
      {"3! ", {"M1,,@21,24\n00-1B-C4-00-00-01,,@22,24", "M1,,@21,24\r,1001,@22,24", "M9,,@21,24\r\nM9,,,,,on"}},
      {"4! ", {"M8,,@21,24\n\nM9,,@21,24", "M8,\"\r\n\",@21,24\nM9,,@21,24", "M8,\"\r\n\"\n,\"\"x", "\n\nM1,\""}},
      {"2! 3! 4! ", {"M1,,@21\nM2,,,24\nM3,,,,@1", "00:1b:c4,,@21,24\n00:00:00:00:00:00,,@22,24\n,,@23,24"}}};
  for (const auto& c : cases) {
    for (const char* lines : c.lines)
      EXPECT_EQ(c.steps, Check(std::string("mac,Serial,address,prefix,gateway,dhcp\n") + lines)) << lines;
  }
  std::vector<Device> devices = Bench();
  devices[0].record.gateway = "10.0.0.1";  // of no use, and kept all the same
  EXPECT_EQ("2:alone ", Check("mac,address,prefix,dns\nM1,@11,24,@53\n", devices));
  devices[2].sources.pop_back();
  EXPECT_EQ("2:alone? ", Check("mac,address,prefix,dhcp\nM3,@13,24,off\n", devices));
  for (const char* text :
       {"\nname;mac;dhcp\n\"a;b\";M1;on", "\nname\tmac\tdhcp\n;\tM1\ton", "\nmac,name,dhcp\nM1,;,on"})
    EXPECT_EQ("3:on ", Check(text));
  // Of two lines for one device, the one that was changed is wrong.
  EXPECT_EQ("2! ", Check(CsvLine(PlanHeading()) + "M1,,,@21,24\n" + CsvLine(PlanRow(Bench()[0]))));
  std::vector<PlanLine> none;
  EXPECT_EQ("line 1: the file is UTF-16, and a plan is UTF-8", ReadPlan("\xff\xfem", none));
  for (const char* heading : {"", "mac,foo\n", "mac,mac\n", "M1,,,@21,24,,,\n"}) EXPECT_EQ("1! ", Check(heading));
}

}  // namespace
}  // namespace tarnddp
