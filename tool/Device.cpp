#include "tool/Device.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <numeric>
#include <tuple>
#include <utility>

#include "tool/Address.h"
#include "tool/Text.h"

namespace tarnddp {
namespace {

bool IsOpen(const std::string& serial, const std::string& other) {
  return serial.empty() || other.empty() || serial == other;
}

/// Empty while the service is away: then the record does not tell it.
std::string SerialOf(const Record& record) { return IsServiceAway(record) ? std::string() : record.serial; }

/// Digit groups count by their value, so that "Bench 2" stands before "Bench 10". Of two different texts one is always
/// before the other, as "Bench 02" is before "Bench 2".
bool IsBefore(std::string_view one, std::string_view other) {
  const auto isDigit = [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; };
  std::size_t i = 0, j = 0;
  while (i < one.size() && j < other.size()) {
    if (isDigit(one[i]) && isDigit(other[j])) {
      const auto number = [&](std::string_view text, std::size_t& at) {
        while (at < text.size() && text[at] == '0') ++at;
        const std::size_t start = at;
        while (at < text.size() && isDigit(text[at])) ++at;
        return text.substr(start, at - start);
      };
      const std::string_view left = number(one, i), right = number(other, j);
      if (left.size() != right.size()) return left.size() < right.size();
      if (left != right) return left < right;
    } else if (one[i] != other[j]) {
      return static_cast<unsigned char>(one[i]) < static_cast<unsigned char>(other[j]);
    } else {
      ++i;
      ++j;
    }
  }
  const std::size_t left = one.size() - i, right = other.size() - j;
  return left != right ? left < right : one < other;
}

bool IsBefore(const Device& one, const Device& other) {
  const bool away = IsServiceAway(one.record);
  if (away != IsServiceAway(other.record)) return !away;
  if (!away && one.record.name != other.record.name) return IsBefore(one.record.name, other.record.name);
  if (one.record.address != other.record.address) return IsBefore(one.record.address, other.record.address);
  return std::tie(one.record.mac, one.id) < std::tie(other.record.mac, other.id);
}

bool EndsIn(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

/// As the device has it or as it is shown. An empty text is nobody's name.
bool IsSame(const std::string& text, std::string_view wanted) {
  return !text.empty() && (text == wanted || Shown(text) == wanted);
}

/// Whether `address` is one of its senders', with its zone or without.
bool AnswersFromAnyZone(const Device& device, const std::string& address) {
  return device.AnswersFrom(address) ||
         std::any_of(device.sources.begin(), device.sources.end(), [&](const Source& source) {
           return source.address.substr(0, source.address.find('%')) == address;
         });
}

}  // namespace

const char* WayName(Way way) {
  switch (way) {
    case Way::IPv6:
      return "ipv6";
    case Way::IPv4:
      return "ipv4";
    case Way::Broadcast:
      break;
  }
  return "broadcast";
}

bool Source::operator==(const Source& other) const {
  return way == other.way && interface == other.interface && address == other.address;
}

bool Source::operator<(const Source& other) const {
  return std::tie(way, interface, address) < std::tie(other.way, other.interface, other.address);
}

const Source* Device::SourceBy(Way way) const {
  const auto found =
      std::find_if(sources.begin(), sources.end(), [way](const Source& source) { return source.way == way; });
  return found == sources.end() ? nullptr : &*found;
}

bool Device::AnswersFrom(const std::string& address) const {
  return std::any_of(sources.begin(), sources.end(), [&](const Source& source) { return source.address == address; });
}

bool SharesMac(const Device& device, const std::vector<Device>& devices) {
  const std::optional<std::string> mac = FactsOf(device.record).mac;
  return mac && std::any_of(devices.begin(), devices.end(), [&](const Device& other) {
           return other.id != device.id && FactsOf(other.record).mac == mac;
         });
}

bool IsOthers(const std::string& address, const Device& device, const std::vector<Device>& devices) {
  return std::any_of(devices.begin(), devices.end(),
                     [&](const Device& other) { return other.id != device.id && other.AnswersFrom(address); });
}

bool Devices::Add(const Answer& answer, int round) {
  const std::optional<std::string> mac = FactsOf(answer.record).mac;
  Group& group = groups[mac ? *mac : answer.source.interface + " " + answer.source.address];
  const std::string serial = SerialOf(answer.record);
  const auto known = std::find_if(group.heard.begin(), group.heard.end(), [&](const Heard& heard) {
    return heard.answer.source == answer.source && IsOpen(serial, SerialOf(heard.answer.record));
  });
  ++lastAge;
  if (known == group.heard.end()) {
    // No device has so many addresses; without a bound, one that lies could keep this PC busy.
    constexpr std::size_t most = 64;
    if (group.heard.size() >= most) return false;
    group.heard.push_back({answer, round, lastAge, 0});
  } else {
    known->round = round;
    known->age = lastAge;
    const auto device = std::find_if(group.devices.begin(), group.devices.end(),
                                     [&known](const Device& one) { return one.id == known->id; });
    // Another source may have told in between that the service is away. Where two tell different things for good, as
    // clones over IPv4 do, what was new last stands.
    const bool isBack = IsServiceAway(device->record) && !IsServiceAway(answer.record);
    if (known->answer.record == answer.record && !isBack) return false;
    known->answer.record = answer.record;
  }
  Split(group);
  return true;
}

bool Devices::ForgetBefore(int round) {
  bool changed = false;
  for (auto at = groups.begin(); at != groups.end();) {
    Group& group = at->second;
    const auto end = std::remove_if(group.heard.begin(), group.heard.end(),
                                    [round](const Heard& heard) { return heard.round < round; });
    if (end != group.heard.end()) {
      changed = true;
      group.heard.erase(end, group.heard.end());
      Split(group);
    }
    at = group.heard.empty() ? groups.erase(at) : std::next(at);
  }
  return changed;
}

/// A device while its answers are put together.
struct Devices::Part {
  Device device;
  std::string serial;
  std::vector<Heard*> heard;
  int age = 0;

  bool CanBe(const Answer& answer) const {
    if (!IsOpen(serial, SerialOf(answer.record))) return false;
    return answer.source.way != Way::IPv6 || std::none_of(heard.begin(), heard.end(), [&answer](const Heard* other) {
             const Source& source = other->answer.source;
             return source.way == Way::IPv6 && source.interface == answer.source.interface &&
                    source.address != answer.source.address;
           });
  }
  void Take(Heard& one) {
    heard.push_back(&one);
    device.sources.push_back(one.answer.source);
    if (serial.empty()) serial = SerialOf(one.answer.record);
    if (one.age < age) return;
    age = one.age;
    device.record = one.answer.record;
  }
};

/// IPv6 answers come first, as the link-local address tells two devices apart; then an IPv4 answer goes to the device
/// whose record it brings, or else to the first that it can be from.
void Devices::Split(Group& group) {
  std::stable_sort(group.heard.begin(), group.heard.end(),
                   [](const Heard& one, const Heard& other) { return one.answer.source < other.answer.source; });
  std::vector<Part> parts;
  for (Heard& heard : group.heard) {
    const auto canBe = [&heard](const Part& part) { return part.CanBe(heard.answer); };
    auto part = std::find_if(parts.begin(), parts.end(), [&](const Part& candidate) {
      return canBe(candidate) && candidate.device.record == heard.answer.record;
    });
    if (part == parts.end()) part = std::find_if(parts.begin(), parts.end(), canBe);
    if (part == parts.end()) part = parts.emplace(parts.end());
    part->Take(heard);
  }
  group.devices.clear();
  for (Part& part : parts) {
    part.device.id = IdOf(part, group.devices);
    for (Heard* heard : part.heard) heard->id = part.device.id;
    group.devices.push_back(std::move(part.device));
  }
}

/// The number that one of its answers had, unless one of the devices `before` it took that, or a new one.
int Devices::IdOf(const Part& part, const std::vector<Device>& before) {
  for (const Heard* heard : part.heard) {
    const bool isTaken = std::any_of(before.begin(), before.end(), [&](const Device& d) { return d.id == heard->id; });
    if (heard->id != 0 && !isTaken) return heard->id;
  }
  return ++lastId;
}

int Devices::Count() const {
  return std::accumulate(groups.begin(), groups.end(), 0, [](int count, const auto& group) {
    return count + static_cast<int>(group.second.devices.size());
  });
}

std::vector<Device> Devices::All() const {
  std::vector<Device> all;
  for (const auto& [key, group] : groups) all.insert(all.end(), group.devices.begin(), group.devices.end());
  std::sort(all.begin(), all.end(), [](const Device& one, const Device& other) { return IsBefore(one, other); });
  return all;
}

std::vector<Device> FindDevice(const std::vector<Device>& devices, std::string_view wanted) {
  const auto those = [&devices](const auto& isMeant) {
    std::vector<Device> found;
    std::copy_if(devices.begin(), devices.end(), std::back_inserter(found), isMeant);
    return found;
  };
  const std::optional<std::string> mac = ParseMac(wanted);
  std::vector<Device> found = those([&](const Device& device) { return mac && FactsOf(device.record).mac == mac; });
  if (!found.empty()) return found;
  const std::size_t zone = std::min(wanted.find('%'), wanted.size());  // an interface, whose letter case counts
  const std::string address = Lower(wanted.substr(0, zone)) + std::string(wanted.substr(zone));
  found = those([&](const Device& device) { return AnswersFromAnyZone(device, address); });
  if (!found.empty()) return found;
  const std::optional<std::string> digits = MacDigits(wanted);
  return those([&](const Device& device) {
    const Facts facts = FactsOf(device.record);
    return (facts.serial && IsSame(*facts.serial, wanted)) || (facts.name && IsSame(*facts.name, wanted)) ||
           (digits && facts.mac && digits->size() >= 4 && EndsIn(*MacDigits(*facts.mac), *digits));
  });
}

}  // namespace tarnddp
