#include "util/EthernetCfg.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>

#include "base/Blank.h"
#include "base/Descriptor.h"
#include "base/ErrorText.h"
#include "util/AddressText.h"
#include "util/NameOrEmpty.h"
#include "util/ResolverFile.h"
#include "util/RouteSocket.h"
#include "util/Shell.h"
#include "util/_Others.h"

char DefGateway[1024];

namespace {

int skfd = -1;
bool skfdIsOpen = false;  // skfd keeps its number after the close, when it may be someone else's
char ifName[32];

/// A request for `interface`, of whose name it holds 16 bytes; the kernel takes the last one for the terminating NUL.
ifreq RequestFor(const char* interface) {
  ifreq request = {};
  const char* const name = NameOrEmpty(interface);
  std::memcpy(request.ifr_name, name, strnlen(name, sizeof(request.ifr_name)));
  return request;
}

bool IsInitialized() {
  if (skfd >= 0 && ifName[0] != '\0') return true;
  ul_PrStdOut(nullptr, PR_TIME_ONLY, "Error: Network Socket not initialized!");
  return false;
}

/// Prints that the kernel refused something, and why (errno). Always false.
bool Refused(const char* what) {
  ul_PrStdOut(nullptr, PR_TIME_ONLY, "Error: %s: %s\n", what, ErrorText(errno));
  return false;
}

bool GetAddress(unsigned long what, in_addr* address) {
  ifreq request = RequestFor(ifName);
  if (ioctl(skfd, what, &request) < 0) return false;
  sockaddr_in found = {};
  std::memcpy(&found, &request.ifr_addr, sizeof(found));
  *address = found.sin_addr;
  return true;
}

bool SetAddress(unsigned long what, in_addr address) {
  ifreq request = RequestFor(ifName);
  sockaddr_in wanted = {};
  wanted.sin_family = AF_INET;
  wanted.sin_addr = address;
  std::memcpy(&request.ifr_addr, &wanted, sizeof(wanted));
  return ioctl(skfd, what, &request) >= 0;
}

/// A text that is no address fails like a refused request, with EINVAL.
bool ParseAddress(const char* text, in_addr* address) {
  if (inet_aton(text, address) != 0) return true;
  errno = EINVAL;
  return false;
}

bool IsGiven(const char* text) { return text != nullptr && *text != '\0'; }

bool GetAddressText(unsigned long what, const char* failure, char* text) {
  in_addr address = {};
  if (!GetAddress(what, &address)) return Refused(failure);
  AddressText_Quad(address, text);
  return true;
}

bool GetMacText(char* text) {
  ifreq request = RequestFor(ifName);
  if (ioctl(skfd, SIOCGIFHWADDR, &request) < 0) return Refused("get mac address");
  std::array<unsigned char, 6> mac = {};
  std::memcpy(mac.data(), request.ifr_hwaddr.sa_data, mac.size());
  AddressText_Mac(mac, text);
  return true;
}

bool SetFromText(unsigned long what, const char* text, in_addr* address) {
  return ParseAddress(text, address) && SetAddress(what, *address);
}

/// The mask that the kernel gives to a new address: that of its class.
in_addr ClassMask(in_addr address) {
  const in_addr_t host = ntohl(address.s_addr);
  return {htonl(IN_CLASSA(host) ? IN_CLASSA_NET : IN_CLASSB(host) ? IN_CLASSB_NET : IN_CLASSC_NET)};
}

/// Sets the wanted mask once more if a new address has lost it to that of its class. Not a zero one, with which every
/// address would count as a neighbour and the kernel refuse the default route: then the mask of the class stays. The
/// kernel ignores an address that is not new, so there a zero mask in force is replaced here.
bool CorrectMask(in_addr wanted) {
  in_addr inForce = {};
  in_addr ip = {};
  if (!GetAddress(SIOCGIFNETMASK, &inForce)) return true;
  if (wanted.s_addr != 0) return inForce.s_addr == wanted.s_addr || SetAddress(SIOCSIFNETMASK, wanted);
  return inForce.s_addr != 0 || !GetAddress(SIOCGIFADDR, &ip) || SetAddress(SIOCSIFNETMASK, ClassMask(ip));
}

/// Mask before address, each if given.
bool SetMaskAndIp(const char* maskText, const char* ipText, in_addr* mask, in_addr* ip) {
  const bool hasMask = IsGiven(maskText);
  if (hasMask && !SetFromText(SIOCSIFNETMASK, maskText, mask)) return Refused("Could not configure subnet mask");
  if (IsGiven(ipText) && !SetFromText(SIOCSIFADDR, ipText, ip)) return Refused("set ip address");
  return !hasMask || CorrectMask(*mask) || Refused("Could not configure subnet mask");
}

void SetBroadcast(const char* text, in_addr mask, in_addr ip) {
  in_addr broadcast = {};
  broadcast.s_addr = ~mask.s_addr | ip.s_addr;
  if ((IsGiven(text) && !ParseAddress(text, &broadcast)) || !SetAddress(SIOCSIFBRDADDR, broadcast)) {
    Refused("set broadcast address");
  }
}

/// A command that there is no memory for counts as one that failed, which does not matter: the interface is still to be
/// brought up.
void ReplaceDefaultRoute(const char* gateway) {
  try {
    ul_RunRoute("route del default");
    const std::string command = "route add default gw " + ul_ShellWord(gateway) + "\n";
    ul_RunRoute(command);
    ul_PrStdOut(nullptr, PR_TIME_ONLY, "%s", command.c_str());
  } catch (const std::bad_alloc&) {
  }
}

/// Last of all, as any text of the caller's may lie in the buffer itself.
void RememberGateway(const char* gateway) {
  const std::size_t length = strnlen(gateway, sizeof(DefGateway) - 1);
  std::memmove(DefGateway, gateway, length);
  DefGateway[length] = '\0';
}

bool GetFlags(const char* interface, ifreq* request) {
  *request = RequestFor(interface);
  if (ioctl(skfd, SIOCGIFFLAGS, request) >= 0) return true;
  ul_PrStdOut(nullptr, PR_TIME_ONLY, "Error: %s: unknown interface: %s\n", NameOrEmpty(interface), ErrorText(errno));
  return false;
}

/// What a failed change ends with: the interface without its broadcast flag, but up.
void GiveUp() {
  ifreq request = {};
  if (std::strchr(ifName, ':') != nullptr && skfd < 0) {
    ul_PrStdOut(nullptr, PR_TIME_ONLY, "Error: No support for INET on this system.\n");
  } else if (GetFlags(ifName, &request)) {
    request.ifr_flags = static_cast<short>(request.ifr_flags & ~IFF_BROADCAST);
    if (ioctl(skfd, SIOCSIFFLAGS, &request) < 0) {
      ul_PrStdOut(nullptr, PR_TIME_ONLY, "Error: SIOCSIFFLAGS - %s", ErrorText(errno));
    }
  }
  set_flag(ifName, IFF_UP | IFF_RUNNING);
}

/// The value of a hexadecimal digit, -1 if it is none.
int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool EthernetCfg_Init(const char* interface) {
  if (interface == nullptr) return false;
  constexpr std::size_t longest = 16;
  std::memset(ifName, 0, sizeof(ifName));
  std::memcpy(ifName, interface, strnlen(interface, longest));
  skfd = GateCloexec(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  skfdIsOpen = skfd >= 0;
  if (!skfdIsOpen) ul_PrStdOut(nullptr, PR_TIME_ONLY, "Error: Could not create socket for ethernet configuration\n");
  return skfdIsOpen;
}

int EthernetCfg_Final() {
  if (!skfdIsOpen) {
    errno = EBADF;  // what close() would say, without closing what may be a stranger's by now
    return -1;
  }
  skfdIsOpen = false;
  return close(skfd);
}

bool EthernetCfg_GetActSettings(char* ip, char* mask, char* broadcast, char* gateway, char*, char* mac, bool* valid) {
  bool result = IsInitialized();
  if (broadcast != nullptr) result = GetAddressText(SIOCGIFBRDADDR, "get broadcast address", broadcast) && result;
  if (mac != nullptr) result = GetMacText(mac) && result;
  if (ip != nullptr) result = GetAddressText(SIOCGIFADDR, "get ip address", ip) && result;
  if (mask != nullptr) result = GetAddressText(SIOCGIFNETMASK, "get subnet mask", mask) && result;
  if (valid != nullptr) *valid = true;
  if (gateway != nullptr) get_gatewayip(gateway);
  return result;
}

bool EthernetCfg_SetActSettings(const char* ip, const char* mask, const char* broadcast, const char* gateway,
                                const char* nameserver) {
  in_addr newMask = {};
  in_addr newIp = {};
  if (!IsInitialized() || !SetMaskAndIp(mask, ip, &newMask, &newIp)) {
    GiveUp();
    return false;
  }
  SetBroadcast(broadcast, newMask, newIp);
  if (!set_flag(ifName, IFF_BROADCAST)) {
    set_flag(ifName, IFF_UP | IFF_RUNNING);
    return false;
  }
  if (gateway != nullptr) ReplaceDefaultRoute(gateway);
  if (nameserver != nullptr) ConfigureNameserver(nameserver, nullptr, nullptr);
  if (gateway != nullptr) RememberGateway(gateway);
  return set_flag(ifName, IFF_UP | IFF_RUNNING);
}

bool set_flag(const char* interface, short flags) {
  ifreq request = {};
  if (!GetFlags(interface, &request)) return false;
  request.ifr_flags = static_cast<short>(request.ifr_flags | flags);
  return ioctl(skfd, SIOCSIFFLAGS, &request) >= 0 || Refused("Could not configure interface flag");
}

unsigned char* ConverMacAddressStringIntoByte(const char* text, unsigned char out[6]) {
  if (text == nullptr) return nullptr;
  std::array<unsigned char, 6> mac = {};
  for (std::size_t group = 0; group < mac.size(); ++group) {
    const bool last = group + 1 == mac.size();
    int value = HexDigit(*text++);
    if (value < 0) return nullptr;
    const int second = HexDigit(*text);
    if (second >= 0) {
      value = value * 16 + second;
      ++text;
    } else if (last && *text != '\0' && !IsBlank(*text)) {
      return nullptr;
    }
    if (!last && *text++ != ':') return nullptr;
    mac[group] = static_cast<unsigned char>(value);
  }
  std::memcpy(out, mac.data(), mac.size());
  return out;
}

bool ConfigureNameserver(const char* first, const char* second, const char* third) {
  return ResolverFile_Write({first, second, third});
}

int get_gatewayip(char* gateway) {
  in_addr found = {};
  const int result = RouteSocket_FindDefaultGateway(&found);
  if (result == 1) AddressText_Quad(found, gateway);
  return result;
}

bool ul_GetMACAddressString(const char* interface, char* out, bool* hasAddress) {
  std::string output;
  if (!IsGiven(interface)) return false;  // without a name it shows all interfaces
  if (!ul_ReadCommand("ifconfig " + ul_ShellWord(interface), output)) return false;
  const std::string label = "HWaddr ";
  const std::size_t at = output.find(label);
  if (at == std::string::npos) return false;
  const std::string mac = output.substr(at + label.size(), sizeof("00:00:00:00:00:00") - 1);
  unsigned char bytes[6];
  if (ConverMacAddressStringIntoByte(mac.c_str(), bytes) == nullptr) return false;
  std::memcpy(out, mac.c_str(), mac.size() + 1);
  if (hasAddress != nullptr) *hasAddress = output.find("inet addr") != std::string::npos;
  return true;
}

bool EthernetCfg_AddMulticastRoute(const char* interface) {
  const int descriptor = GateCloexec(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (descriptor < 0) return false;
  ifreq name = RequestFor(interface);
  sockaddr_in group = {};
  group.sin_family = AF_INET;
  group.sin_addr.s_addr = htonl(0xe0000000);  // 224.0.0.0, as its own mask too
  rtentry route = {};
  std::memcpy(&route.rt_dst, &group, sizeof(group));
  std::memcpy(&route.rt_genmask, &group, sizeof(group));
  route.rt_flags = RTF_UP;
  route.rt_dev = name.ifr_name;
  const bool isThere = ioctl(descriptor, SIOCADDRT, &route) >= 0 || errno == EEXIST;
  CloseKeepingErrno(descriptor);
  return isThere;
}
