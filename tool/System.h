#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tool/Address.h"

// All that depends on the operating system, sockets apart, which are Boost's. Behind it stands one file for each
// system, such as SystemLinux.cpp. All texts are UTF-8.

namespace tarnddp {

struct Subnet {
  IPv4 address = 0;  ///< this PC's own
  int prefix = 0;
  bool serves = true;  ///< not while it is checked for a double, nor if it has one

  bool operator==(const Subnet& other) const {
    return address == other.address && prefix == other.prefix && serves == other.serves;
  }
};

/// A network interface of this PC.
struct Interface {
  std::string name;
  unsigned index = 0;
  bool isUp = false;
  bool hasLink = false;  ///< a cable, for instance
  bool isLoopback = false;
  bool canMulticast = false;
  std::vector<Subnet> subnets;  ///< its IPv4 addresses; requests leave by the first
  std::string linkLocal;        ///< its IPv6 link-local address without zone, empty if it has none that serves
  bool isPort = false;          ///< of a bridge, which gets all that comes in here

  bool operator==(const Interface& other) const {
    return name == other.name && index == other.index && isUp == other.isUp && hasLink == other.hasLink &&
           isLoopback == other.isLoopback && canMulticast == other.canMulticast && subnets == other.subnets &&
           linkLocal == other.linkLocal && isPort == other.isPort;
  }
};

/// All interfaces, in the system's order. Empty if they cannot be read.
std::vector<Interface> ListInterfaces();

/// The number of the interface that has `name`, be it by another name than ListInterfaces() gives; 0 if none is known.
unsigned InterfaceIndex(const std::string& name);

/// How an interface treats a datagram whose sender is not where the routes would look for it.
enum class ReversePath { Accepts, NeedsAnyRoute, NeedsRouteHere };
ReversePath ReversePathOf(const std::string& interface);

/// The name of the interface by which this PC would send to `address`; empty without a route.
std::string RouteInterface(IPv4 address);

/// The neighbour table: MAC addresses, as "00:1b:c4:0a:ff:05", of those with an IPv4 address.
std::map<IPv4, std::string> Neighbours();

/// A socket as the system names it.
using SocketHandle = std::intptr_t;

/// Has a socket hear on when a host refuses what was sent to it, instead of reporting that as an error of its own.
void IgnoreRefusals(SocketHandle socket);

/// Has all that an IPv4 socket sends leave by `interface`, whatever the routes say. Needs no privilege. 0, or the
/// system's error number.
int SendThrough(SocketHandle socket, const Interface& interface);

/// Binds an IPv4 socket so that it hears `group` at `port` on `interface`, and no group that another socket joined. 0,
/// or the system's error number.
int BindToGroup(SocketHandle socket, IPv4 group, std::uint16_t port, const Interface& interface);

/// What main() was given, without the program's name.
std::vector<std::string> ArgumentWords(int argc, char** argv);

/// Opens a file to read its bytes. Null with errno.
std::FILE* OpenToRead(const std::string& name);

/// Opens what is missing of standard input, output and error, so that no socket ever takes their place, and has a
/// closed pipe reported as an error of writing. To be called first.
void PrepareProcess();

/// What of a receive buffer, as the socket option tells its size, is for what was asked for: Linux tells twice as much.
int GrantedBuffer(int told);

/// In characters. By default that of a terminal which does not tell its size.
struct TerminalSize {
  int columns = 80;
  int rows = 24;
};
/// The size of the terminal that standard output is, and standard error; nothing if it is none, or one that cannot move
/// its cursor.
std::optional<TerminalSize> OutputTerminal();
std::optional<TerminalSize> ErrorTerminal();
bool IsInputTerminal();
/// Whether standard output is a pipe.
bool IsOutputPipe();
/// Whether standard output is a pipe, or on Linux a socket, that nobody reads any more; and whether `error`, the errno
/// of a write to it, says so.
bool IsReaderGone();
bool MeansReaderGone(int error);

/// Ctrl-C, and a request to end, ends the process at once with status 130, unless a KeepOnInterrupt lives: then
/// WasInterrupted() says that it came, and the owner ends in order. One that comes later ends the process even so.
void HandleInterrupts();
bool WasInterrupted();
class KeepOnInterrupt {
 public:
  KeepOnInterrupt();
  ~KeepOnInterrupt();
  KeepOnInterrupt(const KeepOnInterrupt&) = delete;
  KeepOnInterrupt& operator=(const KeepOnInterrupt&) = delete;
};

/// The wall clock as RFC 3339 has it, with milliseconds and the offset of local time; and the time of day, "14:03:59".
std::string DateTimeNow();
std::string TimeOfDayNow();

}  // namespace tarnddp
