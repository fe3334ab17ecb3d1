#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <string>

// The three endpoints. Constants, so that `Server`, which opens its sockets before main(), finds them in place.

inline constexpr char address_IPV6[] = "FF12::12";
inline constexpr char port_IPV6[] = "5564";
inline constexpr char address_IPV4[] = "224.0.5.128";
inline constexpr char port_IPV4[] = "5563";
inline constexpr char address_Broadcast[] = "255.255.255.255";
inline constexpr char port_Broadcast[] = "5562";

/// The UDP sockets on which requests arrive, and the memory of which of them and which sender the last one came from:
/// every Send() goes there. Opens its sockets when it is made and never closes them, but for those that it replaces.
///
/// Receive() belongs to the main loop. Send() is called by the trace thread too, without a lock: a trace text may then
/// go to the requester before or after, which is accepted.
class TarnDDPServer {
 public:
  TarnDDPServer();
  virtual ~TarnDDPServer() = default;

  /// Opens all three endpoints anew and closes the sockets that they replace. True if the broadcast endpoint works, or
  /// one of the two groups was joined. Prints nothing but the cause of a failed IPv4 join, on standard output.
  bool InitConnections();

  /// Waits up to 1 s for one datagram. Returns its text up to its first NUL; empty if none came or if it has 1024 bytes
  /// or more. Of several endpoints with input, IPv6 is read first, then the IPv4 group, then broadcast.
  std::string Receive();

  /// Sends `reply` to the last sender, or to the IPv4 group if the last request came through it. False if not all of it
  /// went out, with the cause on standard output; silently before the first request. Behind what goes to hosts that
  /// cannot be found there may be no room for up to 3 s: it is waited for as long as `patienceMs` says, after which,
  /// unless that is 0, nothing is printed.
  bool Send(const std::string& reply, int patienceMs = 0);

  /// The numeric address of the last sender.
  std::string GetSender() const;
  /// "IPV6 Multicast", "IPV4 Multicast", "UDP Broadcast", or "Unknown".
  std::string GetScanMethod() const;
  /// Whether the last request came through the IPv6 endpoint, which is what the privileged commands ask for. That
  /// endpoint also hears unicast and IPv4 requests to its port.
  bool WasDirectAddressed() const { return _activeSocket == _sockets[IPV6]; }

  void SetOwnMACAddress(const std::string& mac) { _ownMACAddress = mac; }
  /// Exact equality of the texts, case and separators included.
  bool IsOwnMacAddress(const std::string& mac) const { return mac == _ownMACAddress; }

  /// Joins both groups on the interface of that index as well; having joined there before is fine. True if both are now
  /// joined there. Nothing is printed.
  bool JoinGroups(unsigned index);
  /// The same for one group, that of `family` (AF_INET or AF_INET6).
  bool JoinGroup(int family, unsigned index);
  /// Forgets that join. The system remembers those on an interface that is gone, and lets a socket have about twenty.
  bool LeaveGroup(int family, unsigned index);

  /// An endpoint that is closed has an `error`, the errno of why its socket could not be made or bound; an open one 0.
  struct EndpointState {
    const char* port;
    int error;
  };
  static constexpr std::size_t ENDPOINTS = 3;
  std::array<EndpointState, ENDPOINTS> GetEndpoints() const;
  /// Opens those that are closed and leaves the others alone. True if one is open now that was not. Nothing is printed,
  /// but for the cause of a failed IPv4 join on standard output.
  bool OpenClosedEndpoints();

 private:
  struct Endpoint;
  /// In the order in which they are opened and read.
  enum : std::size_t { IPV6, IPV4, BROADCAST };
  static const Endpoint TABLE[ENDPOINTS];

  bool OpenEndpoint(std::size_t which);
  bool OpenSocket(std::size_t which, int family);
  ssize_t SendAtOnce(int through, const std::string& reply) const;
  void Replace(int& descriptor, int replacement);
  bool ChangeGroup(int family, int optionIPV4, int optionIPV6, unsigned index);

  // 1, not -1, for IPv6: if that group cannot even be resolved, descriptor 1 is waited on.
  int _sockets[ENDPOINTS] = {1, -1, -1};
  int _errors[ENDPOINTS] = {};
  int _activeSocket = -1;
  alignas(sockaddr_storage) unsigned char _senderAddress[1024] = {};
  socklen_t _senderAddressLength = 0;
  sockaddr_in _spareAddressIPV4 = {};
  std::string _ownMACAddress;

 public:
  /// Whether InitConnections() succeeded once. To read.
  bool connectionsOpen = false;
};

/// The one instance. It is made before main(), in no known order with the globals of other files.
extern TarnDDPServer Server;
