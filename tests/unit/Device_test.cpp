#include "tool/Device.h"

#include <algorithm>
#include <set>

#include "DeviceSamples.h"

using namespace tarnddp;

namespace {

/// Where each device is heard from.
std::multiset<std::string> Merged(const std::vector<std::string>& heard) {
  Devices devices;
  for (const std::string& words : heard) devices.Add(AnswerOf(words));
  std::multiset<std::string> all;
  for (const Device& device : devices.All()) {
    std::string senders;
    for (const Source& source : device.sources) senders += source.address + ' ';
    all.insert(senders);
  }
  return all;
}

}  // namespace

TEST(Devices, AreToldApartWhateverTheOrder) {
  const struct {
    std::vector<std::string> heard;
    std::multiset<std::string> merged;
  } cases[] = {{{"e fe80::1 1 1 a", "e 1.1.1.1 001BC4000001 1 a"}, {"fe80::1%e 1.1.1.1 "}},
               {{"e fe80::1 1 1 a", "f fe80::2 1 1 a"}, {"fe80::1%e fe80::2%f "}},
               // One MAC address, but two link-local ones or two serial numbers
               {{"e fe80::1 1 1 a", "e fe80::2 1 1 b", "e 1.1.1.1 1 1 a", "e 1.1.1.2 1 1 b"},
                {"fe80::1%e 1.1.1.1 ", "fe80::2%e 1.1.1.2 "}},
               {{"e 1.1.1.1 1 1 a", "e 1.1.1.1 1 2 a", "e fe80::2 1 2 a"}, {"1.1.1.1 ", "fe80::2%e 1.1.1.1 "}},
               {{"e fe80::1 1 1 a", "e 1.1.1.1 1 away a"}, {"fe80::1%e 1.1.1.1 "}},
               {{"e 1.1.1.1 00:00:00:00:00:00 1 a", "e 1.1.1.2 - 1 a", "f 1.1.1.2 x 1 a"},
                {"1.1.1.1 ", "1.1.1.2 ", "1.1.1.2 "}}};
  for (const auto& c : cases) {
    std::vector<std::string> heard = c.heard;
    std::sort(heard.begin(), heard.end());
    do EXPECT_EQ(c.merged, Merged(heard)) << heard[0];
    while (std::next_permutation(heard.begin(), heard.end()));
  }
}

TEST(Devices, KeepTheirNumberTheNewestRecordAndWhatCameSince) {
  const struct {
    std::string heard;  // or nothing, then what is older is forgotten
    int round;
    bool isChange;
    std::string all;  // number, address, how many senders
  } steps[] = {{"e fe80::1 1 1 a", 1, true, "1a1 "},
               {"e fe80::1 1 1 a", 1, false, "1a1 "},
               {"e 1.1.1.1 1 away b", 2, true, "1b2 "},
               {"e fe80::1 1 1 a", 2, true, "1a2 "},
               {"e 1.1.1.1 1 1 b", 2, true, "1b2 "},
               {"e fe80::1 1 1 a", 2, false, "1b2 "},
               {"e fe80::1 1 1 c", 2, true, "1c2 "},
               {"e fe80::2 1 1 b", 3, true, "2b2 1c1 "},
               {"", 2, false, "2b2 1c1 "},
               {"", 3, true, "2b1 "},
               {"", 4, true, ""}};
  Devices devices;
  for (const auto& step : steps) {
    const bool isForgotten = step.heard.empty();
    EXPECT_EQ(step.isChange,
              isForgotten ? devices.ForgetBefore(step.round) : devices.Add(AnswerOf(step.heard), step.round));
    std::string all;
    for (const Device& device : devices.All())
      all += std::to_string(device.id) + device.record.address + std::to_string(device.sources.size()) + ' ';
    EXPECT_EQ(step.all, all);
    EXPECT_EQ(devices.All().size(), static_cast<std::size_t>(devices.Count()));
  }
}

TEST(Devices, StandInTheOrderThatAPersonExpects) {
  const char* names[] = {"",         "Bench",   "Bench 2", "Bench 02a", "Bench 2b", "Bench 10",
                         "Bench 11", "Bench A", "bench",   "\xc3\xa4",  "Bench 02"};
  Devices devices;
  for (int i = 0; i < 11; ++i) {
    const std::string place(1, "0123456789a"[i * 3 % 11]);
    devices.Add(AnswerOf("e fe80::" + place + " " + place + " 1 a " + names[i * 3 % 11]));
  }
  for (const char* address : {"1.1.1.10", "1.1.1.9"})
    devices.Add(AnswerOf(std::string("e ") + address + " - away " + address));
  for (int i = 0; i < 300; ++i) devices.Add(AnswerOf("e" + std::to_string(i) + " 1.1.1.1 00:1b:c4:00:00:10 1 b liar"));
  std::string order;
  for (const Device& device : devices.All())
    order += device.record.name + '|' + std::to_string(device.sources.size()) + ' ';
  EXPECT_EQ(
      "|1 Bench|1 Bench 02|1 Bench 2|1 Bench 02a|1 Bench 2b|1 Bench 10|1 Bench 11|1 Bench A|1 bench|1 liar|64 "
      "\xc3\xa4|1 |1 |1 ",
      order);
  EXPECT_EQ("1.1.1.10", devices.All().back().record.address);
}

TEST(Devices, AreFoundByWhatALabelOrATableShows) {
  Devices heard;
  for (const char* words :
       {"e fe80::1 00:1b:c4:0a:ff:05 314159 9 Bench 10", "e 1.1.1.2 00:1b:c4:0b:ff:05 ff05 8 Bench 2",
        "e 1.1.1.3 00:1b:c4:0a:aa:aa 1.1.1.2 7 Be\x1bnch 2", "e 1.1.1.4 00:1b:c4:00:00:00 away 6 Bench 2",
        "eP1 fe80::7 00:1b:c4:00:00:0c 8 5 Bench 3"})
    heard.Add(AnswerOf(words));
  const struct {
    const char* found;  // their addresses, in the order of a table
    std::vector<const char*> wanted;
  } cases[] = {
      {"9", {"00-1B-C4-0A-FF-05", "001bc40aff05", "aff05", "0a:ff:05", "314159", "Bench 10", "FE80::1%e", "fe80::1"}},
      {"89", {"ff05"}},
      {"8", {"Bench 2", "1.1.1.2"}},
      {"7", {"Be\\x1bnch 2"}},
      {"6", {"000000"}},
      {"5", {"FE80::7%eP1"}},
      {"", {"f05", "bench 2", "7", "", "Tessel ???"}}};
  for (const auto& c : cases) {
    for (const char* wanted : c.wanted) {
      std::string found;
      for (const Device& device : FindDevice(heard.All(), wanted)) found += device.record.address;
      EXPECT_EQ(c.found, found) << wanted;
    }
  }
}
