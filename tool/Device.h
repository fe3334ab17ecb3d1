#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tool/Record.h"

// Answers merged to devices. Pure: no socket, no clock.

namespace tarnddp {

/// The three ways to ask, and by which an answer came.
enum class Way { IPv6, IPv4, Broadcast };

/// "ipv6", "ipv4" or "broadcast".
const char* WayName(Way way);

/// Where an answer came from, and so how its device can be reached.
struct Source {
  std::string interface;  ///< of this PC
  Way way = Way::IPv6;
  std::string address;  ///< the sender's: "192.168.1.2", or "fe80::1%eth0" with its zone

  bool operator==(const Source& other) const;
  /// By the way, then the interface, then the address.
  bool operator<(const Source& other) const;
};

struct Answer {
  Source source;
  Record record;
};

/// One device as it was heard.
struct Device {
  int id = 0;                   ///< stays with the device as long as it is among the Devices
  Record record;                ///< the newest
  std::vector<Source> sources;  ///< each once: IPv6 first, then IPv4, then broadcast; never empty

  /// The best source of `way`, or null.
  const Source* SourceBy(Way way) const;
  /// Whether `address` is one of its senders', zone and all.
  bool AnswersFrom(const std::string& address) const;
};

/// Whether another one of `devices` has the MAC address of `device`; never without a usable one.
bool SharesMac(const Device& device, const std::vector<Device>& devices);

/// Whether another one of `devices` answers from `address`.
bool IsOthers(const std::string& address, const Device& device, const std::vector<Device>& devices);

/// All that has been heard, merged to devices: by MAC address; one without a usable MAC by where it answers from. One
/// MAC with two link-local addresses on one interface, or with two serial numbers, is two devices.
class Devices {
 public:
  /// Takes an answer that came in `round`, a number that grows with every time that is asked. True if it changed what
  /// All() returns.
  bool Add(const Answer& answer, int round = 0);
  /// Forgets every answer that has not come again since `round`. True if there was one.
  bool ForgetBefore(int round);
  int Count() const;
  /// In the order of their names and addresses, as a table shows them.
  std::vector<Device> All() const;

 private:
  struct Heard {
    Answer answer;
    int round;
    int age;  ///< the higher the newer
    int id;
  };
  struct Group {
    std::vector<Heard> heard;
    std::vector<Device> devices;
  };
  struct Part;
  void Split(Group& group);
  int IdOf(const Part& part, const std::vector<Device>& before);

  std::map<std::string, Group> groups;
  int lastAge = 0;
  int lastId = 0;
};

/// The devices that `wanted` means: a MAC address in any spelling, its last four or more digits, a serial number, a
/// name, or an address that a device answers from (IPv6 with or without its zone). A whole MAC address and an answering
/// address come before the rest. The placeholders of a device without its service are not compared. None, one, or the
/// candidates.
std::vector<Device> FindDevice(const std::vector<Device>& devices, std::string_view wanted);

}  // namespace tarnddp
