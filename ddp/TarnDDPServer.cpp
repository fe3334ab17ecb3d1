#include "ddp/TarnDDPServer.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "base/Descriptor.h"
#include "base/ErrorText.h"
#include "ddp/Print.h"
#include "util/AddressText.h"

struct TarnDDPServer::Endpoint {
  const char* address;
  const char* port;
  const char* scanMethod;
  bool isGroup;
};

constexpr TarnDDPServer::Endpoint TarnDDPServer::TABLE[ENDPOINTS] = {
    {address_IPV6, port_IPV6, "IPV6 Multicast", true},
    {address_IPV4, port_IPV4, "IPV4 Multicast", true},
    {address_Broadcast, port_Broadcast, "UDP Broadcast", false}};

namespace {

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

/// Null if it cannot be resolved.
AddressList Resolve(const char* node, const char* service, const addrinfo* hints) {
  addrinfo* list = nullptr;
  if (getaddrinfo(node, service, hints, &list) != 0) list = nullptr;
  return AddressList(list, freeaddrinfo);
}

AddressList ResolveNumeric(const char* address) {
  addrinfo hints = {};
  hints.ai_flags = AI_NUMERICHOST;
  hints.ai_family = AF_UNSPEC;
  return Resolve(address, nullptr, &hints);
}

AddressList ResolveWildcard(int family, const char* port) {
  addrinfo hints = {};
  hints.ai_flags = AI_PASSIVE;
  hints.ai_family = family;
  hints.ai_socktype = SOCK_DGRAM;
  return Resolve(nullptr, port, &hints);
}

void PrintSystemError() { Print(ErrorText(errno)); }

template <typename Value>
bool SetOption(int descriptor, int level, int option, const Value& value) {
  return setsockopt(descriptor, level, option, &value, sizeof value) == 0;
}

bool GetReceiveBuffer(int descriptor) {
  int bytes = 0;
  socklen_t length = sizeof bytes;
  return getsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &bytes, &length) == 0;
}

bool EnlargeReceiveBuffer(int descriptor) {
  constexpr int RECEIVE_BUFFER = 300000;
  return GetReceiveBuffer(descriptor) && SetOption(descriptor, SOL_SOCKET, SO_RCVBUF, RECEIVE_BUFFER) &&
         GetReceiveBuffer(descriptor);
}

/// Joins on the interface that the system chooses.
bool JoinGroup(int descriptor, const addrinfo& group) {
  if (group.ai_family == AF_INET6 && group.ai_addrlen == sizeof(sockaddr_in6)) {
    ipv6_mreq membership = {};
    membership.ipv6mr_multiaddr = reinterpret_cast<const sockaddr_in6*>(group.ai_addr)->sin6_addr;
    return SetOption(descriptor, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, membership);
  }
  if (group.ai_family == AF_INET && group.ai_addrlen == sizeof(sockaddr_in)) {
    ip_mreq membership = {};
    membership.imr_multiaddr = reinterpret_cast<const sockaddr_in*>(group.ai_addr)->sin_addr;
    membership.imr_interface.s_addr = htonl(INADDR_ANY);
    if (SetOption(descriptor, IPPROTO_IP, IP_ADD_MEMBERSHIP, membership)) return true;
    PrintSystemError();
  }
  return false;
}

}  // namespace

TarnDDPServer Server;

TarnDDPServer::TarnDDPServer() { connectionsOpen = InitConnections(); }

bool TarnDDPServer::InitConnections() {
  // Nothing reads this record.
  _spareAddressIPV4.sin_family = AF_INET;
  _spareAddressIPV4.sin_port = 5563;
  _spareAddressIPV4.sin_addr.s_addr = inet_addr(port_IPV4);

  bool usable = false;
  for (std::size_t which = 0; which < ENDPOINTS; ++which) usable = OpenEndpoint(which) || usable;
  if (usable) connectionsOpen = true;
  return usable;
}

bool TarnDDPServer::OpenEndpoint(std::size_t which) {
  const AddressList group = ResolveNumeric(TABLE[which].address);
  if (!group) {
    _errors[which] = ENOMEM;  // an address in numbers, and without memory for it
    return false;
  }
  return OpenSocket(which, group->ai_family) && EnlargeReceiveBuffer(_sockets[which]) &&
         (!TABLE[which].isGroup || ::JoinGroup(_sockets[which], *group));
}

/// The new socket takes its place even if it cannot be bound.
bool TarnDDPServer::OpenSocket(std::size_t which, int family) {
  errno = ENOMEM;  // as above
  const AddressList wildcard = ResolveWildcard(family, TABLE[which].port);
  bool isOpen = false;
  if (wildcard) {
    constexpr int ENABLE = 1;
    Replace(_sockets[which], GateDescriptor(socket(family, SOCK_DGRAM, IPPROTO_UDP)));
    isOpen = _sockets[which] >= 0 && SetOption(_sockets[which], SOL_SOCKET, SO_REUSEADDR, ENABLE) &&
             bind(_sockets[which], wildcard->ai_addr, wildcard->ai_addrlen) == 0;
  }
  _errors[which] = isOpen ? 0 : errno;
  return isOpen;
}

std::array<TarnDDPServer::EndpointState, TarnDDPServer::ENDPOINTS> TarnDDPServer::GetEndpoints() const {
  std::array<EndpointState, ENDPOINTS> states = {};
  for (std::size_t which = 0; which < ENDPOINTS; ++which) states[which] = {TABLE[which].port, _errors[which]};
  return states;
}

bool TarnDDPServer::OpenClosedEndpoints() {
  bool isOpened = false;
  for (std::size_t which = 0; which < ENDPOINTS; ++which) {
    if (_errors[which] == 0) continue;
    OpenEndpoint(which);
    isOpened = isOpened || _errors[which] == 0;
  }
  return isOpened;
}

/// Stores the new descriptor before the old one is closed, so that the trace thread never sends to a closed one. The
/// initial 1 is standard output, not ours to close.
void TarnDDPServer::Replace(int& descriptor, int replacement) {
  const int replaced = descriptor;
  descriptor = replacement;
  if (replaced <= STDERR_FILENO) return;
  if (_activeSocket == replaced) _activeSocket = replacement;
  CloseKeepingErrno(replaced);
}

std::string TarnDDPServer::Receive() {
  char buffer[1024] = {};
  timeval timeout = {1, 0};
  fd_set ready;
  FD_ZERO(&ready);
  for (const int endpoint : _sockets)
    if (endpoint >= 0) FD_SET(endpoint, &ready);
  if (select(FD_SETSIZE, &ready, nullptr, nullptr, &timeout) <= 0) return {};

  for (const int endpoint : _sockets) {
    if (endpoint < 0 || !FD_ISSET(endpoint, &ready)) continue;
    _activeSocket = endpoint;
    _senderAddressLength = sizeof _senderAddress;
    const ssize_t count = recvfrom(_activeSocket, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(_senderAddress),
                                   &_senderAddressLength);
    if (count <= 0 || count >= static_cast<ssize_t>(sizeof buffer)) return {};
    return buffer;  // the zeroed rest ends the text
  }
  return {};
}

bool TarnDDPServer::Send(const std::string& reply, int patienceMs) {
  const int through = _activeSocket;
  if (through < 0) return false;
  ssize_t sent = SendAtOnce(through, reply);
  if (sent < 0 && errno == EAGAIN && patienceMs > 0) {
    pollfd room = {through, POLLOUT, 0};
    poll(&room, 1, patienceMs);
    sent = SendAtOnce(through, reply);
    if (sent < 0 && errno == EAGAIN) return false;
  }
  if (sent == static_cast<ssize_t>(reply.size())) return true;
  PrintSystemError();
  return false;
}

ssize_t TarnDDPServer::SendAtOnce(int through, const std::string& reply) const {
  if (through != _sockets[IPV4]) {
    return sendto(through, reply.data(), reply.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(_senderAddress),
                  _senderAddressLength);
  }
  const AddressList group = Resolve(address_IPV4, port_IPV4, nullptr);
  return group ? sendto(through, reply.data(), reply.size(), MSG_DONTWAIT, group->ai_addr, group->ai_addrlen) : -1;
}

std::string TarnDDPServer::GetSender() const {
  char text[128] = "";
  if (_activeSocket == _sockets[IPV6]) {
    inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(_senderAddress)->sin6_addr, text, sizeof text);
  } else {
    AddressText_Quad(reinterpret_cast<const sockaddr_in*>(_senderAddress)->sin_addr, text);
  }
  return text;
}

std::string TarnDDPServer::GetScanMethod() const {
  for (std::size_t which = 0; which < ENDPOINTS; ++which) {
    if (_activeSocket == _sockets[which]) return TABLE[which].scanMethod;
  }
  return "Unknown";
}

bool TarnDDPServer::JoinGroups(unsigned index) {
  const bool isJoinedIPV4 = JoinGroup(AF_INET, index);
  return JoinGroup(AF_INET6, index) && isJoinedIPV4;
}

bool TarnDDPServer::JoinGroup(int family, unsigned index) {
  return ChangeGroup(family, IP_ADD_MEMBERSHIP, IPV6_ADD_MEMBERSHIP, index) || errno == EADDRINUSE;
}

bool TarnDDPServer::LeaveGroup(int family, unsigned index) {
  return ChangeGroup(family, IP_DROP_MEMBERSHIP, IPV6_DROP_MEMBERSHIP, index);
}

bool TarnDDPServer::ChangeGroup(int family, int optionIPV4, int optionIPV6, unsigned index) {
  if (family == AF_INET6) {
    ipv6_mreq membership = {};
    inet_pton(AF_INET6, address_IPV6, &membership.ipv6mr_multiaddr);
    membership.ipv6mr_interface = index;
    return SetOption(_sockets[IPV6], IPPROTO_IPV6, optionIPV6, membership);
  }
  ip_mreqn membership = {};
  inet_pton(AF_INET, address_IPV4, &membership.imr_multiaddr);
  membership.imr_ifindex = static_cast<int>(index);
  return SetOption(_sockets[IPV4], IPPROTO_IP, optionIPV4, membership);
}
