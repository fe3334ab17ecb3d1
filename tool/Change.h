#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tool/Device.h"
#include "tool/System.h"

// The rules by which a device is changed: what is refused, what is only unwise, what is sent and which way, and what
// came of it. Pure: nothing is sent or looked up here.

namespace tarnddp {

/// A static address as it was asked for.
struct StaticAddress {
  IPv4 address = 0;
  int prefix = 0;
  std::optional<IPv4> gateway;  ///< nothing: not said; 0: none
  std::optional<IPv4> dns;      ///< nothing or 0: none
};

/// Reads the texts of one; empty `gateway` and `dns` are not said, 0.0.0.0 is none. The empty text, or why it is
/// refused: what no host can have or no device should get. `result` is untouched then. `ownAddresses` are this PC's.
std::string ReadStaticAddress(std::string_view address, std::string_view prefix, std::string_view gateway,
                              std::string_view dns, const std::vector<IPv4>& ownAddresses, StaticAddress& result);

/// Why the gateway is unwise; empty if it is not.
std::string UnwiseGateway(const StaticAddress& wanted);

/// Who has an address already.
struct Holder {
  int device = 0;    ///< its Device::id; 0 for one that is known by the neighbour table alone
  std::string text;  ///< "Bench 1 (...) has it", ready to be shown
};
/// Everyone but `own` who shows `address` in its record or answers from it, and whoever `neighbourMac`, what the
/// neighbour table has for it, says; that may be `own` or one of the devices heard.
std::vector<Holder> HoldersOf(IPv4 address, const Device& own, const std::vector<Device>& devices,
                              const std::optional<std::string>& neighbourMac);

/// What the device is to have afterwards, and what has to be said about it.
struct Target {
  Settings settings;
  std::optional<IPv4> dns;
  std::vector<std::string> notes;
};
/// Without a word about the gateway the device's own is kept if it is of use in the new network.
Target TargetOf(const StaticAddress& wanted, const Settings& before);

/// A device's settings and where its IPv4 answers really came from.
struct Seen {
  Settings settings;
  std::vector<std::string> answering;
};
Seen SeenOf(const Device& device);

/// Whether a device has it all already, as far as a record shows: then nothing needs to be sent. A name server is never
/// shown, so a wanted one is never known to be in force.
bool IsInForce(const StaticAddress& wanted, const Seen& seen);

/// What to say if a device heard on `heardOn` cannot be reached over IPv4 with `settings`; else empty. `routeInterface`
/// is where this PC would send to the new address, empty for nowhere.
std::string ReachabilityNote(const Settings& settings, const std::vector<Interface>& heardOn,
                             const std::string& routeInterface);

/// How one device alone is reached: where to, and the MAC filter that goes with it (none on a link-local address, which
/// no other device has).
struct Path {
  Source to;
  std::string filter;
};
/// Its link-local path, unless it has none or another device answers from the same address.
std::optional<Path> LinkLocalPath(const Device& device, const std::vector<Device>& devices);
/// The link-local path, or one over IPv4 whose filter is fit for it: by the group if another device answers from the
/// same IPv4 address, too. Nothing, with the reason in `why`, if there is none: then nothing may be sent.
std::optional<Path> PathTo(const Device& device, const std::vector<Device>& devices, std::string& why);

/// The MAC text of its record, exactly as it spells it, if that reaches this device alone; else nothing and why.
std::optional<std::string> FilterOf(const Device& device, const std::vector<Device>& devices, std::string& why);

/// A request with its line end: the word, the filter if any, the fields.
std::string Request(const Path& path, std::string_view word, const std::vector<std::string>& fields);
/// The fields of a "SETIPADDRESS!".
std::vector<std::string> StaticFields(const Target& target);

enum class Result { Planned, Done, Unchanged, Refused, Different, Gone };
/// "planned" and so on.
const char* ResultName(Result result);

enum class Reply { None, Ack, Nack };

struct Outcome {
  Result result = Result::Unchanged;
  std::string words;  ///< ready to be shown
};
/// What came of a static address. `after` is what was heard since; nothing if the device was not.
Outcome JudgeStatic(const Settings& wanted, const Seen& before, const std::optional<Seen>& after, Reply reply);
/// What came of DHCP being switched on or off.
Outcome JudgeDhcp(bool on, const Seen& before, const std::optional<Seen>& after, Reply reply);

/// "192.168.1.10/24, gateway 192.168.1.1", ready to be shown.
std::string InWords(const Settings& settings);

/// The word that means this device alone on a command line, safe to paste.
std::string ArgumentFor(const Device& device, const std::vector<Device>& devices);
/// The command that brings `before` back once `after` is in force; empty if no command can. `isForced`: it is refused
/// otherwise, for instance as somebody else has its address, too.
std::string RestoringCommand(const std::string& argument, const Settings& before, const Settings& after, bool isForced,
                             const std::vector<IPv4>& ownAddresses);

/// Whether `word` and `arguments` may be passed on to a device's service. The empty text and the datagram in `request`,
/// or why not: what the daemon itself would obey, take for a MAC filter or cut is refused.
std::string ForwardedRequest(const std::string& word, const std::vector<std::string>& arguments, std::string& request);

}  // namespace tarnddp
