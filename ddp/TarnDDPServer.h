#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

// The three endpoints. Constants, so that `Server`, which opens its sockets before main(), finds them in place.

inline constexpr char address_IPV6[] = "FF12::12";
inline constexpr char port_IPV6[] = "5564";
inline constexpr char address_IPV4[] = "224.0.5.128";
inline constexpr char port_IPV4[] = "5563";
inline constexpr char address_Broadcast[] = "255.255.255.255";
inline constexpr char port_Broadcast[] = "5562";

/// The UDP sockets on which requests arrive, and the memory of which of them and which sender the last one came from:
/// every Send() goes there. Opens its sockets when it is made and never closes them, but for those that a repeated
/// InitConnections() replaces.
///
/// Receive() belongs to the main loop. Send() is called by the trace thread too, without a lock: a trace text may then
/// go to the requester before or after, which is accepted.
class TarnDDPServer {
 public:
  TarnDDPServer();
  virtual ~TarnDDPServer() = default;

  /// Opens all three endpoints anew and closes the sockets that they replace. True if the broadcast endpoint works, or
  /// one of the two groups was joined. Tells nothing, but for the cause of a failed IPv4 join on standard output.
  bool InitConnections();

  /// Waits up to 1 s for one datagram. Returns its text up to its first NUL; empty if none came or if it has 1024 bytes
  /// or more. Of several endpoints with input, IPv6 is read first, then the IPv4 group, then broadcast.
  std::string Receive();

  /// Sends `reply` to the last sender, or to the IPv4 group if the last request came through it. False if not all of it
  /// went out, with the cause on standard output; silently before the first request.
  bool Send(const std::string& reply);

  /// The numeric address of the last sender.
  std::string GetSender() const;
  /// "IPV6 Multicast", "IPV4 Multicast", "UDP Broadcast", or "Unknown".
  std::string GetScanMethod() const;
  /// Whether the last request came through the IPv6 endpoint, which is what the privileged commands ask for. That
  /// endpoint also hears unicast and IPv4 requests to its port.
  bool WasDirectAddressed() const { return activeSocket == socket_IPV6; }

  void SetOwnMACAddress(const std::string& mac) { ownMACAddress = mac; }
  /// Exact equality of the texts, case and separators included.
  bool IsOwnMacAddress(const std::string& mac) const { return mac == ownMACAddress; }

  /// Joins both groups on the interface of that index as well; having joined there before is fine. True if both are now
  /// joined there. Tells nothing.
  bool JoinGroups(unsigned index);
  /// Forgets the joins of JoinGroups(`index`). The system remembers those on an interface that is gone, and lets a
  /// socket have about twenty.
  void LeaveGroups(unsigned index);

 private:
  struct Endpoint;

  bool OpenEndpoint(const Endpoint& endpoint, int& descriptor);
  void Replace(int& descriptor, int replacement);
  bool ChangeGroups(int optionIPV4, int optionIPV6, unsigned index);

  // 1, not -1: if the IPv6 group cannot even be resolved, descriptor 1 is waited on.
  int socket_IPV6 = 1;
  int socket_IPV4 = -1;
  int socket_Broadcast = -1;
  int activeSocket = -1;
  alignas(sockaddr_storage) unsigned char senderAddress[1024] = {};
  socklen_t senderAddressLength = 0;
  sockaddr_in spareAddressIPV4 = {};
  std::string ownMACAddress;

 public:
  /// Whether InitConnections() succeeded once. To read.
  bool connectionsOpen = false;
};

/// The one instance. It is made before main(), in no known order with the globals of other files.
extern TarnDDPServer Server;
