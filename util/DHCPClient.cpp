#include "util/DHCPClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <new>
#include <string>

#include "base/Descriptor.h"
#include "base/ErrorText.h"
#include "util/DHCPMessage.h"
#include "util/EthernetCfg.h"
#include "util/NameOrEmpty.h"
#include "util/Shell.h"
#include "util/_Others.h"
#include "util/_Time.h"

namespace {

constexpr std::uint16_t SERVER_PORT = 67;
constexpr std::uint16_t CLIENT_PORT = 68;

char macText[128];  // keeps what an earlier call read
bool SetRoute = true;

/// What is applied in the end; empty as long as there was no exchange.
struct Settings {
  char address[INET_ADDRSTRLEN] = "";
  char mask[INET_ADDRSTRLEN] = "";
  char broadcast[INET_ADDRSTRLEN] = "";
  char nameServer[INET_ADDRSTRLEN] = "";
  char gateway[INET_ADDRSTRLEN] = "";
  std::uint32_t leaseSeconds = 0;
};

/// The state of one call.
struct Call {
  bool failed = false;  // never cleared, so that the attempts after a failure only sleep
  int descriptor = 0;   // until there is a socket: see CloseSocket()
  Settings settings;
};

void PrintError(const char* what) {
  ul_PrStdOut(nullptr, PR_TIME_ONLY, "Error - Configure Network with DHCP - could not %s (%s)\n", what,
              ErrorText(errno));
}

/// Reads the MAC address of the interface, or keeps the one from an earlier call.
bool ReadMac(const char* interface) {
  if (!EthernetCfg_Init(interface)) return true;
  EthernetCfg_GetActSettings(nullptr, nullptr, nullptr, nullptr, nullptr, macText, nullptr);
  EthernetCfg_Final();
  if (macText[0] != '\0') return true;
  ul_PrStdOut(nullptr, PR_TIME_ONLY, "DHCP Client - ERROR: Could not read network settings of %s\n",
              NameOrEmpty(interface));
  return false;
}

/// Once per process, or at the next call if memory ran out. The line is printed before and after it has run.
void AddBroadcastRoute(const char* interface) {
  if (!SetRoute) return;
  try {
    const std::string command = "route add 255.255.255.255 netmask 0.0.0.0 dev " + ul_ShellWord(NameOrEmpty(interface));
    ul_PrStdOut(nullptr, PR_TIME_ONLY, "DHCP Client - %s\n", command.c_str());
    ul_RunRoute(command);
    ul_PrStdOut(nullptr, PR_TIME_ONLY, "DHCP Client - %s\n", command.c_str());
    SetRoute = false;
  } catch (const std::bad_alloc&) {
  }
}

bool OpenSocket(Call& call) {
  call.descriptor = GateCloexec(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
  if (call.descriptor < 0) {
    PrintError("create socket");
    return false;
  }
  const int on = 1;
  const bool mayBroadcast = setsockopt(call.descriptor, SOL_SOCKET, SO_BROADCAST, &on, sizeof(on)) == 0;
  if (!mayBroadcast) PrintError("set sock opt");
  if (setsockopt(call.descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0) PrintError("set sock opt");
  if (!mayBroadcast) return false;
  sockaddr_in client = {};
  client.sin_family = AF_INET;
  client.sin_port = htons(CLIENT_PORT);
  client.sin_addr.s_addr = htonl(INADDR_ANY);
  if (bind(call.descriptor, reinterpret_cast<const sockaddr*>(&client), sizeof(client)) == 0) return true;
  PrintError("bind socket");
  return false;
}

bool Broadcast(int descriptor, const DHCPBuffer& buffer, std::size_t size, const char* what) {
  sockaddr_in server = {};
  server.sin_family = AF_INET;
  server.sin_port = htons(SERVER_PORT);
  server.sin_addr.s_addr = htonl(INADDR_BROADCAST);
  const auto* address = reinterpret_cast<const sockaddr*>(&server);
  if (sendto(descriptor, buffer.data(), size, 0, address, sizeof(server)) >= 0) return true;
  PrintError(what);
  return false;
}

/// Waits up to `seconds` for one datagram, whoever sent it, and receives it over what the buffer holds.
bool Receive(int descriptor, int seconds, DHCPBuffer& buffer, std::size_t* received, const char* silence) {
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(descriptor, &readable);
  timeval timeout = {seconds, 0};
  if (select(FD_SETSIZE, &readable, nullptr, nullptr, &timeout) <= 0) {
    ul_PrStdOut(nullptr, PR_TIME_ONLY, "Error - Configure Network with DHCP - no response %s\n", silence);
    return false;
  }
  const ssize_t size = recv(descriptor, buffer.data(), buffer.size(), MSG_DONTWAIT);
  if (size < 0) {
    PrintError("receive data from socket");
    return false;
  }
  *received = static_cast<std::size_t>(size);
  return true;
}

void StoreSettings(const DHCPReply& reply, Settings* settings) {
  inet_ntop(AF_INET, &reply.address, settings->address, sizeof(settings->address));
  inet_ntop(AF_INET, &reply.mask, settings->mask, sizeof(settings->mask));
  inet_ntop(AF_INET, &reply.broadcast, settings->broadcast, sizeof(settings->broadcast));
  inet_ntop(AF_INET, &reply.nameServer, settings->nameServer, sizeof(settings->nameServer));
  inet_ntop(AF_INET, &reply.router, settings->gateway, sizeof(settings->gateway));
  settings->leaseSeconds = reply.leaseSeconds;
}

/// The exchange over an open socket; `*lease` is what the ACK says, or the offered address alone after another answer.
/// False if it ended before there was an answer.
bool TalkToServer(int descriptor, int seconds, bool* acknowledged, DHCPReply* lease) {
  DHCPMac mac = {};  // stays zero where no MAC address is known
  ConverMacAddressStringIntoByte(macText, mac.data());
  std::size_t received = 0;
  DHCPReply offer = {};
  DHCPBuffer buffer = ul_DHCPBuildDiscover(mac);
  if (!Broadcast(descriptor, buffer, DHCP_DISCOVER_SIZE, "send dhcp discover") ||
      !Receive(descriptor, seconds, buffer, &received, "on dhcp discover") ||
      !ul_DHCPReadReply(buffer, received, DHCP_OFFER, &offer)) {
    return false;
  }
  buffer = ul_DHCPBuildRequest(buffer, mac, offer.server, offer.address);
  if (!Broadcast(descriptor, buffer, DHCP_REQUEST_SIZE, "send dhcp request") ||
      !Receive(descriptor, seconds, buffer, &received, "from dhcp request")) {
    return false;
  }
  *lease = {};
  lease->address = offer.address;
  *acknowledged = ul_DHCPReadReply(buffer, received, DHCP_ACK, lease);
  return true;
}

/// Closes the call's descriptor once, then forgets it. Where no socket was ever tried that closes descriptor 0, which
/// harms nothing: no descriptor of ours is 0.
void CloseSocket(Call& call) {
  if (call.descriptor >= 0) close(call.descriptor);
  call.descriptor = -1;
}

/// One attempt; true if it got a lease. The line about the acknowledge is printed for a refusal too.
bool Attempt(Call& call, int seconds) {
  DHCPReply lease = {};
  bool acknowledged = false;
  if (call.failed || !OpenSocket(call) || !TalkToServer(call.descriptor, seconds, &acknowledged, &lease)) return false;
  StoreSettings(lease, &call.settings);
  ul_PrStdOut(nullptr, PR_TIME_ONLY,
              "DHCP Client - DHCP acknowledge received: address=%s mask=%s dns=%s gw=%s lease=%lds\n",
              call.settings.address, call.settings.mask, call.settings.nameServer, call.settings.gateway,
              static_cast<long>(call.settings.leaseSeconds));
  CloseSocket(call);
  return acknowledged;
}

/// Attempts until one gets a lease or all are used up. As the failed mark stays, only the first one can; the others
/// just sleep, kept for compatibility.
bool Exchange(Call& call, int attempts) {
  for (int attempt = 0; attempt < attempts; ++attempt) {
    if (Attempt(call, attempts)) return true;
    CloseSocket(call);
    ul_Sleep_US(0, 1000000);
    call.failed = true;
  }
  return false;
}

bool Apply(const char* interface, const Settings& settings, unsigned* leaseSeconds) {
  if (!EthernetCfg_Init(interface)) return true;  // a lease that nothing was set from: kept for compatibility
  ul_PrStdOut(nullptr, PR_TIME_ONLY, "DHCP Client - Configure %s with new network settings\n", interface);
  const bool applied = EthernetCfg_SetActSettings(settings.address, settings.mask, settings.broadcast, settings.gateway,
                                                  settings.nameServer);
  if (applied) {
    if (leaseSeconds != nullptr) *leaseSeconds = settings.leaseSeconds;
  } else {
    ul_PrStdOut(nullptr, PR_TIME_ONLY, "DHCP Client - Failed to configure network settings of %s\n\n", interface);
  }
  EthernetCfg_Final();
  return applied;
}

}  // namespace

bool ul_ConfigureNetworkWithDHCP(const char* interface, int attempts, unsigned* leaseSeconds) {
  ul_PrStdOut(nullptr, PR_TIME_ONLY, "DHCP Client - DHCP request called for interface %s\n", NameOrEmpty(interface));
  Call call;
  if (ReadMac(interface)) {
    ul_PrStdOut(nullptr, PR_TIME_ONLY, "DHCP Client - HW address of %s is %s\n", NameOrEmpty(interface), macText);
    AddBroadcastRoute(interface);
  } else {
    call.failed = true;
  }
  if (attempts < 1 ? call.failed : !Exchange(call, attempts)) return false;
  return Apply(interface, call.settings, leaseSeconds);
}
