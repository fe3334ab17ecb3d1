#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tool/Device.h"
#include "tool/System.h"

// The sockets: they ask and collect, and decide nothing.

namespace tarnddp {

using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;

constexpr std::uint16_t PortBroadcast = 5562;
constexpr std::uint16_t PortIPv4 = 5563;
constexpr std::uint16_t PortIPv6 = 5564;

/// How long answers by the other ways may take once the first has come, and how long, when a time is over, what came
/// until then may take to be read: a flood would keep us for ever.
constexpr std::chrono::milliseconds Settling{300};

/// Something that came in. `source.way` is the socket that heard it: what was sent to an answering address by unicast
/// is answered on the same way again. On Way::IPv4 (the group) requests and answers of others come too.
struct Datagram {
  Source source;
  std::uint16_t port = 0;  ///< the sender's
  std::string bytes;
};

/// Why an interface, or one way on it, could not be used.
struct Unusable {
  std::string interface;
  std::string reason;

  bool operator==(const Unusable& other) const { return interface == other.interface && reason == other.reason; }
};

/// The sockets on some interfaces. Owns them. One thread.
class Network {
 public:
  /// Opens on the interfaces named, or, if none is, on every one that is up, can multicast and is neither loopback nor
  /// a port.
  explicit Network(const std::vector<std::string>& named);
  ~Network();
  Network(const Network&) = delete;
  Network& operator=(const Network&) = delete;

  /// The interfaces that are used, by at least one way.
  const std::vector<Interface>& Used() const;
  /// What was wanted and cannot be used at all; what of the used ones lacks a way, or kept the last request to all from
  /// leaving by one; none of it is fatal by itself.
  const std::vector<Unusable>& Failures() const;
  std::vector<Unusable> MissingWays() const;
  /// Whether anything can be sent as asked for: no interface named is among the failures, and at least one is used. If
  /// not, the exit status is 3.
  bool IsUsable() const;
  /// The smallest receive buffer that a socket got, in bytes, and what was asked for.
  int ReceiveBuffer() const;
  static constexpr int ReceiveBufferWanted() { return 4 << 20; }

  /// How many datagrams have come in.
  std::size_t Received() const;

  /// Sends `datagram` to all devices: one datagram for each way and interface. False if not one could be sent; then
  /// SendError() says why.
  bool SendToAll(std::string_view datagram);
  const std::string& SendError() const;

  /// Sends `datagram` the way back that an answer came: to the link-local address; by unicast to port 5562 if it came
  /// by broadcast; else to the group. False if it could not be sent; then SendError() says why.
  bool Send(const Source& to, std::string_view datagram);
  /// The same by unicast to `port` of that address, whatever the way.
  bool SendToPort(const Source& to, std::uint16_t port, std::string_view datagram);

  /// The next datagram, also one that came before but is read after `deadline`; nothing when none came until then or,
  /// with a KeepOnInterrupt, after Ctrl-C.
  std::optional<Datagram> Receive(Time deadline);
  /// The next one that `matches`; what does not is dropped. A flood of those delays the end by Settling at most.
  std::optional<Datagram> Await(Time deadline, const std::function<bool(const Datagram&)>& matches);

 private:
  struct Sockets;
  std::unique_ptr<Sockets> sockets;
};

/// The request for an identity record, with its line end.
constexpr const char* IdentityRequest = "DEVICEIDENT?\r\n";

/// What a device answers to any other request: it obeyed, or it did not.
constexpr const char* Acknowledgement = "ACK\n";
constexpr const char* Refusal = "NACK\n";
/// How long that answer is awaited.
constexpr std::chrono::seconds AcknowledgementTime{8};

struct Collection {
  double seconds = 2;  ///< how long answers are collected
  int expect = 0;      ///< ends 0.3 s after so many devices; 0: the whole time
};

Clock::duration SecondsToDuration(double seconds);

/// Asks by all ways on all interfaces of `network` (at once, after 0.25 s and after 0.75 s) and adds every answer to
/// `devices` until the time is over. `onProgress`, if any, is called after each change and at least every 0.1 s. False
/// if nothing could be sent.
bool Collect(Network& network, const Collection& how, Devices& devices, const std::function<void()>& onProgress = {});

}  // namespace tarnddp
