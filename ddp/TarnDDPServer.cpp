#include "ddp/TarnDDPServer.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "base/ConsoleLine.h"
#include "base/Descriptor.h"

struct TarnDDPServer::Endpoint {
  const char* address;
  const char* port;
  bool isGroup;
};

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

void PrintSystemError() { ConsoleLine(STDOUT_FILENO, std::string(std::strerror(errno)) + "\n"); }

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
  constexpr int ReceiveBuffer = 300000;
  return GetReceiveBuffer(descriptor) && SetOption(descriptor, SOL_SOCKET, SO_RCVBUF, ReceiveBuffer) &&
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

bool IsFine(bool changed) { return changed || errno == EADDRINUSE; }

}  // namespace

TarnDDPServer Server;

TarnDDPServer::TarnDDPServer() { connectionsOpen = InitConnections(); }

bool TarnDDPServer::InitConnections() {
  // Nothing reads this record.
  spareAddressIPV4.sin_family = AF_INET;
  spareAddressIPV4.sin_port = 5563;
  spareAddressIPV4.sin_addr.s_addr = inet_addr(port_IPV4);

  bool usable = OpenEndpoint({address_IPV6, port_IPV6, true}, socket_IPV6);
  if (OpenEndpoint({address_IPV4, port_IPV4, true}, socket_IPV4)) usable = true;
  if (OpenEndpoint({address_Broadcast, port_Broadcast, false}, socket_Broadcast)) usable = true;
  if (usable) connectionsOpen = true;
  return usable;
}

bool TarnDDPServer::OpenEndpoint(const Endpoint& endpoint, int& descriptor) {
  const AddressList group = ResolveNumeric(endpoint.address);
  if (!group) return false;
  const AddressList wildcard = ResolveWildcard(group->ai_family, endpoint.port);
  if (!wildcard) return false;
  Replace(descriptor, GateDescriptor(socket(group->ai_family, SOCK_DGRAM, IPPROTO_UDP)));
  constexpr int enable = 1;
  return descriptor >= 0 && SetOption(descriptor, SOL_SOCKET, SO_REUSEADDR, enable) &&
         bind(descriptor, wildcard->ai_addr, wildcard->ai_addrlen) == 0 && EnlargeReceiveBuffer(descriptor) &&
         (!endpoint.isGroup || JoinGroup(descriptor, *group));
}

/// Stores the new descriptor before the old one is closed, so that the trace thread never sends to a closed one. The
/// initial 1 is standard output, not ours to close.
void TarnDDPServer::Replace(int& descriptor, int replacement) {
  const int replaced = descriptor;
  descriptor = replacement;
  if (replaced <= STDERR_FILENO) return;
  if (activeSocket == replaced) activeSocket = replacement;
  CloseKeepingErrno(replaced);
}

std::string TarnDDPServer::Receive() {
  char buffer[1024] = {};
  timeval timeout = {1, 0};
  const int endpoints[] = {socket_IPV6, socket_IPV4, socket_Broadcast};
  fd_set ready;
  FD_ZERO(&ready);
  for (const int endpoint : endpoints)
    if (endpoint >= 0) FD_SET(endpoint, &ready);
  if (select(FD_SETSIZE, &ready, nullptr, nullptr, &timeout) <= 0) return {};

  for (const int endpoint : endpoints) {
    if (endpoint < 0 || !FD_ISSET(endpoint, &ready)) continue;
    activeSocket = endpoint;
    senderAddressLength = sizeof senderAddress;
    const ssize_t count = recvfrom(activeSocket, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(senderAddress),
                                   &senderAddressLength);
    if (count <= 0 || count >= static_cast<ssize_t>(sizeof buffer)) return {};
    return buffer;  // the zeroed rest ends the text
  }
  return {};
}

bool TarnDDPServer::Send(const std::string& reply) {
  const int through = activeSocket;
  if (through < 0) return false;
  ssize_t sent = -1;
  if (through == socket_IPV4) {
    const AddressList group = Resolve(address_IPV4, port_IPV4, nullptr);
    if (group) sent = sendto(through, reply.data(), reply.size(), 0, group->ai_addr, group->ai_addrlen);
  } else {
    sent = sendto(through, reply.data(), reply.size(), 0, reinterpret_cast<const sockaddr*>(senderAddress),
                  senderAddressLength);
  }
  if (sent == static_cast<ssize_t>(reply.size())) return true;
  PrintSystemError();
  return false;
}

std::string TarnDDPServer::GetSender() const {
  char text[128] = "";
  if (activeSocket == socket_IPV6) {
    inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(senderAddress)->sin6_addr, text, sizeof text);
  } else {
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(senderAddress)->sin_addr, text, sizeof text);
  }
  return text;
}

std::string TarnDDPServer::GetScanMethod() const {
  if (activeSocket == socket_IPV6) return "IPV6 Multicast";
  if (activeSocket == socket_IPV4) return "IPV4 Multicast";
  if (activeSocket == socket_Broadcast) return "UDP Broadcast";
  return "Unknown";
}

bool TarnDDPServer::JoinGroups(unsigned index) { return ChangeGroups(IP_ADD_MEMBERSHIP, IPV6_ADD_MEMBERSHIP, index); }

void TarnDDPServer::LeaveGroups(unsigned index) { ChangeGroups(IP_DROP_MEMBERSHIP, IPV6_DROP_MEMBERSHIP, index); }

bool TarnDDPServer::ChangeGroups(int optionIPV4, int optionIPV6, unsigned index) {
  ip_mreqn membershipIPV4 = {};
  inet_pton(AF_INET, address_IPV4, &membershipIPV4.imr_multiaddr);
  membershipIPV4.imr_ifindex = static_cast<int>(index);
  const bool doneIPV4 = IsFine(SetOption(socket_IPV4, IPPROTO_IP, optionIPV4, membershipIPV4));

  ipv6_mreq membershipIPV6 = {};
  inet_pton(AF_INET6, address_IPV6, &membershipIPV6.ipv6mr_multiaddr);
  membershipIPV6.ipv6mr_interface = index;
  return IsFine(SetOption(socket_IPV6, IPPROTO_IPV6, optionIPV6, membershipIPV6)) && doneIPV4;
}
