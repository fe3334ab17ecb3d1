#include "tool/Device.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "DeviceSamples.h"

using namespace tarnddp;

namespace {

struct Heard {
  std::string interface, from, mac, serial, address;
};

/// "2: fe80::1 192.168.1.2 | fe80::2" for two devices and where each is heard from.
std::string Merged(const std::vector<Heard>& heard) {
  Devices devices;
  for (const Heard& h : heard) devices.Add({SourceOf(h.interface, h.from), RecordOf(h.mac, h.serial, h.address)});
  std::vector<std::string> texts;
  for (const Device& device : devices.All()) {
    std::string& text = texts.emplace_back();
    for (const Source& source : device.sources) text += " " + source.address.substr(0, source.address.find('%'));
  }
  std::sort(texts.begin(), texts.end());
  std::string all = std::to_string(devices.Count()) + ":";
  for (const std::string& text : texts) all += text + (&text == &texts.back() ? "" : " |");
  return all;
}

}  // namespace

TEST(Devices, AreToldApartWhateverTheOrder) {
  const std::string m = "00:1b:c4:00:00:01", n = "00:1b:c4:00:00:02", zero = "00:00:00:00:00:00";
  const struct {
    const char* what;
    std::vector<Heard> heard;
    std::string merged;
  } cases[] = {
      {"one by two ways, in two spellings of its MAC",
       {{"e", "fe80::1", m, "1", "1.1.1.1"}, {"e", "1.1.1.1", "001BC4000001", "1", "1.1.1.1"}},
       "1: fe80::1 1.1.1.1"},
      {"the same answer again", {{"e", "fe80::1", m, "1", "a"}, {"e", "fe80::1", m, "1", "b"}}, "1: fe80::1"},
      {"one on two interfaces", {{"e", "fe80::1", m, "1", "a"}, {"f", "fe80::2", m, "1", "a"}}, "1: fe80::1 fe80::2"},
      {"two MACs, one address", {{"e", "1.1.1.1", m, "1", "a"}, {"e", "1.1.1.1", n, "1", "a"}}, "2: 1.1.1.1 | 1.1.1.1"},
      {"one MAC, two link-local addresses",
       {{"e", "fe80::1", m, "1", "a"},
        {"e", "fe80::2", m, "1", "b"},
        {"e", "1.1.1.1", m, "1", "a"},
        {"e", "1.1.1.2", m, "1", "b"}},
       "2: fe80::1 1.1.1.1 | fe80::2 1.1.1.2"},
      {"one MAC, two serial numbers",
       {{"e", "1.1.1.1", m, "1", "a"}, {"e", "1.1.1.1", m, "2", "a"}, {"e", "fe80::2", m, "2", "a"}},
       "2: 1.1.1.1 | fe80::2 1.1.1.1"},
      {"the service goes away meanwhile",
       {{"e", "fe80::1", m, "1", "a"}, {"e", "1.1.1.1", m, "away", "a"}},
       "1: fe80::1 1.1.1.1"},
      {"no MAC",
       {{"e", "1.1.1.1", zero, "1", "a"}, {"e", "1.1.1.2", "", "1", "a"}, {"f", "1.1.1.2", "x", "1", "a"}},
       "3: 1.1.1.1 | 1.1.1.2 | 1.1.1.2"},
  };
  for (const auto& c : cases) {
    std::vector<Heard> heard = c.heard;
    std::vector<std::size_t> order(heard.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    do {
      for (std::size_t i = 0; i < order.size(); ++i) heard[i] = c.heard[order[i]];
      EXPECT_EQ(c.merged, Merged(heard)) << c.what;
    } while (std::next_permutation(order.begin(), order.end()));
  }
}

TEST(Devices, KeepTheirNumberTheNewestRecordAndWhatCameSince) {
  const std::string m = "00:1b:c4:00:00:01";
  const Answer old{SourceOf("e", "fe80::1"), RecordOf(m, "1", "a")}, fresh{old.source, RecordOf(m, "1", "c")};
  const Answer other{SourceOf("e", "1.1.1.1"), RecordOf(m, "1", "b")},
      twin{SourceOf("e", "fe80::2"), RecordOf(m, "1", "b")};
  Devices devices;
  EXPECT_TRUE(devices.Add(old, 1));
  const int id = devices.All().at(0).id;
  EXPECT_FALSE(devices.Add(old, 1));
  EXPECT_TRUE(devices.Add(other, 2));
  EXPECT_TRUE(devices.Add(fresh, 2));
  EXPECT_EQ(id, devices.All().at(0).id);
  EXPECT_EQ("c", devices.All()[0].record.address);
  EXPECT_TRUE(devices.Add(twin, 3));
  ASSERT_EQ(2, devices.Count());
  EXPECT_NE(devices.All()[0].id, devices.All()[1].id);
  EXPECT_FALSE(devices.ForgetBefore(2));
  EXPECT_TRUE(devices.ForgetBefore(3));
  ASSERT_EQ(1, devices.Count());
  EXPECT_NE(id, devices.All()[0].id);
  EXPECT_EQ(std::vector<Source>{twin.source}, devices.All()[0].sources);
  EXPECT_TRUE(devices.ForgetBefore(4));
  EXPECT_EQ(0, devices.Count());
}

TEST(Devices, StandInTheOrderThatAPersonExpects) {
  const char* names[] = {"", "Bench", "Bench 2", "Bench 02a", "Bench 2b", "Bench 10", "Bench A", "bench", "\xc3\xa4"};
  Devices devices;
  for (int i = 0; i < 9; ++i) {
    const int place = i * 4 % 9;
    const std::string number = std::to_string(place);
    devices.Add({SourceOf("e", "fe80::" + number), RecordOf("00:1b:c4:00:00:0" + number, "1", "a", names[place])});
  }
  for (const char* address : {"1.1.1.10", "1.1.1.9"}) {
    devices.Add({SourceOf("e", address), RecordOf("", "away", address)});
    for (int i = 0; i < 300; ++i)  // a liar's answers are bounded
      devices.Add({SourceOf("e" + std::to_string(i), "1.1.1.1"), RecordOf("00:1b:c4:00:00:10", "1", "b", "liar")});
  }
  std::string order;
  for (const Device& device : devices.All())
    order += device.record.name + '|' + std::to_string(device.sources.size()) + ' ';
  EXPECT_EQ(
      "|1 Bench|1 Bench 2|1 Bench 02a|1 Bench 2b|1 Bench 10|1 Bench A|1 bench|1 liar|256 \xc3\xa4|1 Bench|1 Bench|1 ",
      order);
  EXPECT_EQ("1.1.1.10", devices.All().back().record.address);
}

TEST(Devices, AreFoundByWhatALabelOrATableShows) {
  Devices heard;
  heard.Add({SourceOf("e", "fe80::1"), RecordOf("00:1b:c4:0a:ff:05", "314159", "10.0.0.9", "Bench 10")});
  heard.Add({SourceOf("e", "192.168.1.2"), RecordOf("00:1b:c4:0b:ff:05", "ff05", "10.0.0.8", "Bench 2")});
  heard.Add({SourceOf("e", "192.168.1.3"), RecordOf("00:1b:c4:0a:aa:aa", "192.168.1.2", "10.0.0.7", "Be\x1bnch 2")});
  heard.Add({SourceOf("e", "192.168.1.4"), RecordOf("00:1b:c4:00:00:00", "away", "10.0.0.6", "Bench 2")});
  heard.Add({SourceOf("eP1", "fe80::7"), RecordOf("00:1b:c4:00:00:0c", "8", "10.0.0.5", "Bench 3")});
  const struct {
    const char *wanted, *found;  // by the last two digits of the record's address, in the order of a table
  } cases[] = {{"00-1B-C4-0A-FF-05", ".9"},
               {"aff05", ".9"},
               {"0a:ff:05", ".9"},
               {"ff05", ".8.9"},
               {"f05", ""},
               {"314159", ".9"},
               {"Bench 10", ".9"},
               {"Bench 2", ".8"},
               {"bench 2", ""},
               {"000000", ".6"},
               {"Be\\x1bnch 2", ".7"},
               {"FE80::1%e", ".9"},
               {"fe80::1", ".9"},
               {"FE80::7%eP1", ".5"},
               {"192.168.1.2", ".8"},
               {"10.0.0.9", ""},
               {"001bc40aff05", ".9"},
               {"", ""},
               {"APPTERM", ""},
               {"Tessel ???", ""}};
  for (const auto& c : cases) {
    std::string found;
    for (const Device& device : FindDevice(heard.All(), c.wanted)) found += device.record.address.substr(6);
    EXPECT_EQ(c.found, found) << c.wanted;
  }
}
