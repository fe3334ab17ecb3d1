#include "tool/Plan.h"

#include <gtest/gtest.h>

#include "DeviceSamples.h"
#include "tool/Csv.h"
#include "tool/Render.h"

namespace tarnddp {
namespace {

/// Devices 1 and 2 with the addresses 192.168.1.11 and .12, 2 by DHCP, device 3 with .13 and its service away.
std::vector<Device> Bench() {
  std::vector<Device> devices;
  for (const std::string id : {"1", "2", "3"}) {
    Record record = RecordOf("00:1b:c4:0a:ff:0" + id, id == "3" ? "away" : "100" + id, "192.168.1.1" + id);
    record.gateway = "192.168.1.1";
    record.dhcp = id == "2" ? "true" : "false";
    devices.push_back({id[0] - '0', record, {SourceOf("eth0", "fe80::" + id)}});
  }
  return devices;
}

/// The steps in their order as "line:step", or the lines that are wrong as "line!".
std::string Check(const std::string& text, const std::vector<Device>& devices = Bench()) {
  std::vector<PlanLine> lines;
  const std::string error = ReadPlan(text, lines);
  const auto neighbourMac = [](IPv4 address) {
    return address == 0xc0a80163 ? std::optional<std::string>("00:1b:c4:00:00:99") : std::nullopt;
  };
  CheckedPlan plan = CheckPlan(lines, devices, {0xc0a80103}, neighbourMac);
  if (!error.empty()) plan.errors.insert(plan.errors.begin(), error);
  std::string shown;
  for (const std::string& one : plan.errors) {
    const int line = one.find("line ") == 0 ? std::stoi(one.substr(5)) : 0;
    shown += (shown.empty() ? "" : " ") + std::to_string(line) + '!';
  }
  if (!shown.empty()) return shown;
  constexpr const char* steps[] = {"alone", "missing", "blocked", "address", "on", "off"};
  for (const PlannedChange& change : plan.changes) {
    shown += (shown.empty() ? "" : " ") + std::to_string(change.line) + ':' + steps[static_cast<int>(change.step)];
  }
  return shown;
}

TEST(Plan, OfWhatWasHeardLeavesAllAlone) {
  std::vector<Device> devices = Bench();
  devices[0].record.name = "a,\"b\"\x1b\r\n";
  devices[1].record.address = "0.0.0.0";  // refused anywhere else
  devices[2].record.mac = "";
  devices.push_back(devices[0]);  // two devices that say the same
  devices.back().id = 4;
  std::string text = "\xef\xbb\xbf" + CsvLine(PlanHeading());
  for (const Device& device : devices) {
    std::vector<std::string> row = PlanRow(device);
    row[6] = "192.168.1.53";  // the name server, which no record shows
    text += CsvLine(row);
  }
  EXPECT_EQ("2:alone 3:alone 4:alone 5:alone", Check(text, devices));
}

TEST(Plan, TellsDevicesWithOneMacApart) {
  std::vector<Device> devices = Bench();
  devices[1].record.mac = devices[0].record.mac;
  const std::string start = "mac,serial,address,prefix\n00:1b:c4:0a:ff:01,", end = ",192.168.1.21,24\n";
  EXPECT_EQ("2:address", Check(start + "1002" + end, devices));
  EXPECT_EQ("2:missing", Check(start + "1009" + end, devices));
  EXPECT_EQ("2!", Check(start + end, devices));
  EXPECT_EQ("2:address", Check(start + "1009" + end));  // a serial number that a spreadsheet has spoilt
}

TEST(Plan, SaysWhatIsToBeDone) {
  const struct {
    const char *lines, *steps;
  } cases[] = {{"001BC40AFF01,,192.168.1.21,24,,", "2:address"},
               {",1001,192.168.1.21,24,,off", "2:address"},
               {"00:1b:c4:0a:ff:01,,192.168.1.11,24,,", "2:alone"},
               {"00:1b:c4:0a:ff:01,,192.168.1.11,24,,off", "2:alone"},
               {"00:1b:c4:0a:ff:01,, 192.168.1.11 ,24,192.168.1.2,", "2:address"},
               {"00:1b:c4:0a:ff:01,,192.168.1.11,25,,", "2:address"},
               {"00:1b:c4:0a:ff:02,,192.168.1.12,24,,", "2:alone"},
               {"00:1b:c4:0a:ff:02,,192.168.1.12,24,,off", "2:address"},
               {"00:1b:c4:0a:ff:02,,junk,,junk,On", "2:alone"},
               {"00:1b:c4:0a:ff:01,,192.168.1.12,24,,on", "2:on"},
               {"00:1b:c4:0a:ff:02,,,,,off", "2:off"},
               {"00:1b:c4:0a:ff:01,,,,,off", "2:alone"},
               {"00:1b:c4:0a:ff:03,,,,,off", "2:blocked"},
               {"00:1b:c4:0a:ff:03,,,,,on", "2:on"},
               {"00:1b:c4:0a:ff:03,,192.168.1.13,24,,off", "2:alone"},
               {"00:1b:c4:0a:ff:01", "2:alone"},
               {"00:1b:c4:00:00:99,,192.168.1.99,24,,", "2:missing"},
               {"00:1b:c4:00:00:00,,192.168.1.21,24,,\n,,,,,\n", "2:missing"}};
  for (const auto& c : cases)
    EXPECT_EQ(c.steps, Check(std::string("MAC,serial,address,prefix,gateway,dhcp\n") + c.lines)) << c.lines;
}

TEST(Plan, OrdersTheMovesSoThatAnAddressIsFreeFirst) {
  const std::string heading = "mac,address,prefix,dhcp\n", one = "00:1b:c4:0a:ff:01,", two = "00:1b:c4:0a:ff:02,",
                    three = "00:1b:c4:0a:ff:03,";
  EXPECT_EQ("4:address 3:address 2:address",
            Check(heading + one + "192.168.1.12,24\n" + two + "192.168.1.13,24\n" + three + "192.168.1.14,24\n"));
  EXPECT_EQ("2:address 3:address", Check(heading + one + "192.168.1.12,24\n" + two + "192.168.1.11,24\n"));
  EXPECT_EQ("2:alone", Check("mac,address,prefix,dns\n" + one + "192.168.1.11,24,192.168.1.53\n"));
  EXPECT_EQ("3:on 2:address", Check(heading + two + "192.168.1.11,24\n" + one + ",,on\n"));
}

TEST(Plan, NamesEachWrongLine) {
  const struct {
    const char *lines, *wrong;
  } cases[] = {
      {"00:1b:c4:0a:ff:01,,192.168.1.12,24,,\n", "2!"},  // of a device that stays
      {"00:1b:c4:0a:ff:01,,192.168.1.12,24,,\n00:1b:c4:0a:ff:02,,192.168.1.12,24,,\n", "2! 3!"},
      {"00:1b:c4:0a:ff:01,,192.168.1.99,24,,\n", "2!"},  // a neighbour's
      {"00:1b:c4:0a:ff:01,,192.168.1.3,24,,\n", "2!"},   // this PC's
      {"00:1b:c4:0a:ff:01,,192.168.1.21,24,192.168.2.1,\n", "2!"},
      {"00:1b:c4:0a:ff:01,,192.168.1.21,,,\n00:1b:c4:0a:ff:02,,,24,,\n00:1b:c4:0a:ff:03,,,,192.168.1.1,\n", "2! 3! 4!"},
      {"00:1b:c4:0a:ff:01,,192.168.1.21,24,,\n00-1B-C4-0A-FF-01,,192.168.1.22,24,,\n", "3!"},
      {"00:1b:c4:0a:ff:01,,192.168.1.21,24,,\n,1001,192.168.1.22,24,,\n", "3!"},
      {"00:1b:c4:00:00:01,,192.168.1.21,24,,\n00:1b:c4:00:00:01,,,,,on\n", "3!"},
      {"00:1b:c4:00:00:01,,192.168.1.21,24,,\n\n00:1b:c4:00:00:02,,192.168.1.21,24,,\n", "4!"},
      {"00:1b:c4:0a:ff,,192.168.1.21,24,,\n00:00:00:00:00:00,,192.168.1.22,24,,\n,,192.168.1.23,24,,\n", "2! 3! 4!"},
      {"00:1b:c4:0a:ff:01,,192.168.1.21,24,,maybe\n", "2!"},
      {"00:1b:c4:0a:ff:01,,a.b.c.d,24,,\n", "2!"},
      {"00:1b:c4:0a:ff:01,,192.168.1.21,24,,,x\n", "2!"},
      {"00:1b:c4:0a:ff:01,\"x\n", "2!"}};
  for (const auto& c : cases)
    EXPECT_EQ(c.wrong, Check(std::string("mac,serial,address,prefix,gateway,dhcp\n") + c.lines)) << c.lines;
  // Of two lines for one device, the one that was changed is wrong.
  EXPECT_EQ("2!",
            Check(CsvLine(PlanHeading()) + "00:1b:c4:0a:ff:01,,,192.168.1.21,24,,,\n" + CsvLine(PlanRow(Bench()[0]))));
  for (const char* heading : {"", "mac,foo\n", "mac,mac\n", "00:1b:c4:0a:ff:01,,,192.168.1.21,24,,,\n"})
    EXPECT_EQ("1!", Check(heading)) << heading;
}

}  // namespace
}  // namespace tarnddp
