#include <winsock2.h>
// These need the first one before them.
#include <fcntl.h>
#include <io.h>
#include <iphlpapi.h>
#include <mswsock.h>
#include <shellapi.h>
#include <windows.h>
#include <winternl.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#undef interface  // these headers mean "struct" by it

#include "tool/Output.h"
#include "tool/System.h"

namespace tarnddp {
namespace {

std::string Narrow(const wchar_t* wide) {
  const int size = WideCharToMultiByte(CP_UTF8, 0, wide, -1, nullptr, 0, nullptr, nullptr);  // with the final zero
  if (size <= 1) return {};
  std::string text(static_cast<std::size_t>(size), '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide, -1, text.data(), size, nullptr, nullptr);
  text.pop_back();
  return text;
}

std::wstring Wide(const std::string& text) {
  const int size = MultiByteToWideChar(CP_UTF8, 0, text.c_str(), -1, nullptr, 0);
  if (size <= 1) return {};
  std::wstring wide(static_cast<std::size_t>(size), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.c_str(), -1, wide.data(), size);
  wide.pop_back();
  return wide;
}

void TakeAddress(Interface& interface, const IP_ADAPTER_UNICAST_ADDRESS& entry) {
  const sockaddr* address = entry.Address.lpSockaddr;
  // One that is still being checked for a double cannot be bound to.
  const bool serves = entry.DadState == IpDadStatePreferred || entry.DadState == IpDadStateDeprecated;
  if (address->sa_family == AF_INET) {
    sockaddr_in internet = {};
    std::memcpy(&internet, address, sizeof internet);
    interface.subnets.push_back({ntohl(internet.sin_addr.s_addr), entry.OnLinkPrefixLength, serves});
    return;
  }
  if (address->sa_family != AF_INET6 || !serves || !interface.linkLocal.empty()) return;
  sockaddr_in6 internet = {};
  std::memcpy(&internet, address, sizeof internet);
  std::array<char, INET6_ADDRSTRLEN> text = {};
  if (!IN6_IS_ADDR_LINKLOCAL(&internet.sin6_addr)) return;
  if (inet_ntop(AF_INET6, &internet.sin6_addr, text.data(), text.size()) != nullptr) interface.linkLocal = text.data();
}

Interface ReadAdapter(const IP_ADAPTER_ADDRESSES& adapter) {
  Interface interface;
  interface.name = Narrow(adapter.FriendlyName);
  interface.index = adapter.IfIndex != 0 ? adapter.IfIndex : adapter.Ipv6IfIndex;  // 0: without that protocol
  // A disabled one is not listed at all. What has no link is down: a PC has several that are there for nothing else.
  interface.isUp = adapter.OperStatus == IfOperStatusUp;
  interface.hasLink = interface.isUp;
  interface.isLoopback = adapter.IfType == IF_TYPE_SOFTWARE_LOOPBACK;
  // Tunnels to somewhere else tell that they can.
  interface.canMulticast = (adapter.Flags & IP_ADAPTER_NO_MULTICAST) == 0 && adapter.IfType != IF_TYPE_TUNNEL;
  for (const auto* entry = adapter.FirstUnicastAddress; entry != nullptr; entry = entry->Next) {
    TakeAddress(interface, *entry);
  }
  // One with a double stays beside the one that the system makes up in its place.
  std::stable_partition(interface.subnets.begin(), interface.subnets.end(), [](const Subnet& s) { return s.serves; });
  return interface;
}

/// What `ask` writes into a buffer whose size it tells; empty if it fails.
template <typename Ask>
std::vector<char> AskWithBuffer(const Ask& ask) {
  ULONG size = 16384;
  for (int attempt = 0; attempt < 4; ++attempt) {  // what it tells may have grown until it is asked again
    std::vector<char> buffer(size);
    const ULONG error = ask(buffer.data(), &size);
    if (error == NO_ERROR) return buffer;
    if (error != ERROR_BUFFER_OVERFLOW && error != ERROR_INSUFFICIENT_BUFFER) break;
  }
  return {};
}

/// A console, and how it was before. Its output is switched to UTF-8 and to escape sequences, and back by Restore():
/// the shell goes on to use it.
class Console {
 public:
  void Prepare() {
    for (Stream& stream : streams) {
      stream.handle = GetStdHandle(stream.number);
      stream.isConsole = GetConsoleMode(stream.handle, &stream.mode) != 0;
    }
    if (!streams[0].isConsole && !streams[1].isConsole) return;
    codePage = GetConsoleOutputCP();
    SetConsoleOutputCP(CP_UTF8);
    for (Stream& stream : streams) {
      const DWORD mode = stream.mode | ENABLE_PROCESSED_OUTPUT | ENABLE_VIRTUAL_TERMINAL_PROCESSING;
      stream.movesCursor = stream.isConsole && SetConsoleMode(stream.handle, mode) != 0;
    }
  }
  void Restore() const {
    for (const Stream& stream : streams)
      if (stream.movesCursor) SetConsoleMode(stream.handle, stream.mode);
    if (codePage != 0) SetConsoleOutputCP(codePage);
  }
  std::optional<TerminalSize> OutputSize() const { return streams[0].Size(); }
  std::optional<TerminalSize> ErrorSize() const { return streams[1].Size(); }

 private:
  struct Stream {
    DWORD number;
    HANDLE handle = nullptr;
    DWORD mode = 0;
    bool isConsole = false;
    bool movesCursor = false;

    std::optional<TerminalSize> Size() const {
      if (!movesCursor) return std::nullopt;
      CONSOLE_SCREEN_BUFFER_INFO info = {};
      if (GetConsoleScreenBufferInfo(handle, &info) == 0) return TerminalSize();
      // Without the last column, as a console may move on to the next line as soon as that is written.
      return TerminalSize{info.srWindow.Right - info.srWindow.Left, info.srWindow.Bottom - info.srWindow.Top + 1};
    }
  };
  std::array<Stream, 2> streams = {{{STD_OUTPUT_HANDLE}, {STD_ERROR_HANDLE}}};
  UINT codePage = 0;
};

Console console;
std::atomic<ULONGLONG> firstInterrupt = 0;  // GetTickCount64(), set by a thread of the system's; 0: none
std::atomic<int> keepers = 0;

BOOL WINAPI OnControl(DWORD event) {
  constexpr ULONGLONG together = 500;
  const ULONGLONG now = GetTickCount64();
  ULONGLONG first = 0;
  if (firstInterrupt.compare_exchange_strong(first, now)) first = now;
  if (now >= first + together || keepers == 0) {
    DWORD count = 0;
    if (console.ErrorSize()) WriteFile(GetStdHandle(STD_ERROR_HANDLE), "\n", 1, &count, nullptr);
    console.Restore();
    TerminateProcess(GetCurrentProcess(), StatusInterrupted);  // whatever the other threads hold
  }
  // When a window is closed the process ends once this returns; it is to end in order.
  if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) Sleep(INFINITE);
  return TRUE;
}

std::int64_t Milliseconds(const SYSTEMTIME& time) {
  FILETIME file = {};
  SystemTimeToFileTime(&time, &file);
  return ((static_cast<std::int64_t>(file.dwHighDateTime) << 32) + file.dwLowDateTime) / 10000;
}

template <typename... Numbers>
std::string Format(const char* format, Numbers... numbers) {
  std::array<char, 64> text = {};
  std::snprintf(text.data(), text.size(), format, numbers...);
  return text.data();
}

}  // namespace

std::vector<Interface> ListInterfaces() {
  constexpr ULONG leftOut = GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER;
  const std::vector<char> buffer = AskWithBuffer([](char* to, ULONG* size) {
    return GetAdaptersAddresses(AF_UNSPEC, leftOut, nullptr, reinterpret_cast<IP_ADAPTER_ADDRESSES*>(to), size);
  });
  std::vector<Interface> interfaces;
  if (buffer.empty()) return interfaces;
  for (const auto* adapter = reinterpret_cast<const IP_ADAPTER_ADDRESSES*>(buffer.data()); adapter != nullptr;
       adapter = adapter->Next) {
    interfaces.push_back(ReadAdapter(*adapter));
  }
  return interfaces;
}

unsigned InterfaceIndex(const std::string& /*name*/) { return 0; }

ReversePath ReversePathOf(const std::string& /*interface*/) { return ReversePath::Accepts; }

std::string RouteInterface(IPv4 address) {
  DWORD index = 0;
  if (GetBestInterface(htonl(address), &index) != NO_ERROR) return {};
  for (const Interface& interface : ListInterfaces()) {
    if (interface.index == index && !interface.isLoopback) return interface.name;
  }
  return {};
}

std::map<IPv4, std::string> Neighbours() {
  std::map<IPv4, std::string> neighbours;
  const std::vector<char> buffer = AskWithBuffer(
      [](char* to, ULONG* size) { return GetIpNetTable(reinterpret_cast<MIB_IPNETTABLE*>(to), size, FALSE); });
  if (buffer.empty()) return neighbours;
  const auto& table = *reinterpret_cast<const MIB_IPNETTABLE*>(buffer.data());
  for (const MIB_IPNETROW* row = table.table; row != table.table + table.dwNumEntries; ++row) {
    constexpr DWORD macLength = 6;
    const bool isKnown = row->dwType == MIB_IPNET_TYPE_DYNAMIC || row->dwType == MIB_IPNET_TYPE_STATIC;
    if (!isKnown || row->dwPhysAddrLen != macLength) continue;
    const BYTE* mac = row->bPhysAddr;
    // Who does not answer has zeros, and a broadcast address is listed, too.
    const bool isHost = (mac[0] & 1U) == 0 && std::any_of(mac, mac + macLength, [](BYTE octet) { return octet != 0; });
    if (!isHost) continue;
    neighbours.emplace(ntohl(row->dwAddr),
                       Format("%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]));
  }
  return neighbours;
}

void IgnoreRefusals(SocketHandle handle) {
  BOOL reports = FALSE;
  DWORD count = 0;
  WSAIoctl(static_cast<SOCKET>(handle), SIO_UDP_CONNRESET, &reports, sizeof reports, nullptr, 0, &count, nullptr,
           nullptr);
}

int SendThrough(SocketHandle handle, const Interface& interface) {
  const auto socket = static_cast<SOCKET>(handle);
  const DWORD unicast = htonl(interface.index);
  const DWORD multicast = htonl(interface.subnets.front().address);
  const auto set = [socket](int option, const DWORD& value) {
    return setsockopt(socket, IPPROTO_IP, option, reinterpret_cast<const char*>(&value), sizeof value) == 0;
  };
  return set(IP_UNICAST_IF, unicast) && set(IP_MULTICAST_IF, multicast) ? 0 : WSAGetLastError();
}

int BindToGroup(SocketHandle handle, IPv4 group, std::uint16_t port, const Interface& interface) {
  const auto socket = static_cast<SOCKET>(handle);
  // No socket can be bound to a group here; one that is bound to an interface's address hears groups there alone.
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(interface.subnets.front().address);
  ip_mreq membership = {};
  membership.imr_multiaddr.s_addr = htonl(group);
  membership.imr_interface = address.sin_addr;
  const bool isDone = bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                      setsockopt(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, reinterpret_cast<const char*>(&membership),
                                 sizeof membership) == 0;
  return isDone ? 0 : WSAGetLastError();
}

std::vector<std::string> ArgumentWords(int /*argc*/, char** /*argv*/) {
  // Not argv, in which characters are lost that the PC's old code page lacks.
  int count = 0;
  const std::unique_ptr<wchar_t*, decltype(&LocalFree)> words(CommandLineToArgvW(GetCommandLineW(), &count), LocalFree);
  std::vector<std::string> arguments;
  for (int i = 1; words && i < count; ++i) arguments.push_back(Narrow(words.get()[i]));
  return arguments;
}

std::FILE* OpenToRead(const std::string& name) { return _wfopen(Wide(name).c_str(), L"rb"); }

void PrepareProcess() {
  for (std::FILE* file : {stdout, stderr}) {
    if (_fileno(file) < 0) continue;
    _setmode(_fileno(file), _O_BINARY);          // the same bytes as everywhere
    std::setvbuf(file, nullptr, _IOFBF, 65536);  // else a console gets byte for byte, and no character of several whole
  }
  console.Prepare();
  std::atexit([] { console.Restore(); });
}

std::optional<TerminalSize> OutputTerminal() { return console.OutputSize(); }
std::optional<TerminalSize> ErrorTerminal() { return console.ErrorSize(); }

bool IsInputTerminal() {
  DWORD mode = 0;
  return GetConsoleMode(GetStdHandle(STD_INPUT_HANDLE), &mode) != 0;
}

bool IsOutputPipe() { return GetFileType(GetStdHandle(STD_OUTPUT_HANDLE)) == FILE_TYPE_PIPE; }

bool IsReaderGone() {
  constexpr ULONG closing = 4;  // FILE_PIPE_CLOSING_STATE, which only the headers for drivers have
  FILE_PIPE_LOCAL_INFORMATION pipe = {};
  HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
  IO_STATUS_BLOCK status = {};
  if (!IsOutputPipe()) return false;
  return NtQueryInformationFile(output, &status, &pipe, sizeof pipe, FilePipeLocalInformation) == 0 &&
         pipe.NamedPipeState == closing;
}

bool MeansReaderGone(int error) {
  // The C library knows no better word for what WriteFile() says then.
  return error == EPIPE || (error == EINVAL && IsOutputPipe());
}

void HandleInterrupts() { SetConsoleCtrlHandler(OnControl, TRUE); }

int GrantedBuffer(int told) { return told; }

bool WasInterrupted() { return firstInterrupt != 0; }
KeepOnInterrupt::KeepOnInterrupt() { ++keepers; }
KeepOnInterrupt::~KeepOnInterrupt() { --keepers; }

std::string DateTimeNow() {
  SYSTEMTIME utc = {}, local = {};
  GetSystemTime(&utc);
  if (SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local) == 0) local = utc;
  const int offset = static_cast<int>((Milliseconds(local) - Milliseconds(utc)) / 60000);
  const int minutes = std::abs(offset);
  return Format("%04d-%02d-%02dT%02d:%02d:%02d.%03d%c%02d:%02d", local.wYear, local.wMonth, local.wDay, local.wHour,
                local.wMinute, local.wSecond, local.wMilliseconds, offset < 0 ? '-' : '+', minutes / 60, minutes % 60);
}

std::string TimeOfDayNow() {
  SYSTEMTIME local = {};
  GetLocalTime(&local);
  return Format("%02d:%02d:%02d", local.wHour, local.wMinute, local.wSecond);
}

}  // namespace tarnddp
