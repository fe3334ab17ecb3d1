#include <dlfcn.h>
#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <map>
#include <regex>
#include <typeinfo>

#include "tests/fuzz/Input.h"

#define main DaemonMain
#include "ddp/Main.cpp"  // NOLINT(bugprone-suspicious-include)
#undef main

// The daemon's own loop in a world that is made up: descriptors from 100 on, a clock, a service, a DHCP server, an
// interface. Whatever the daemon waits for, the script says what comes: nothing, a datagram, an answer, an end.

namespace {

enum Kind { Udp, Tcp, Netlink, File };
struct Socket {
  Kind kind;
  int port;
};
auto& sockets = *new std::map<int, Socket>;  // `Server` opens its own before main()
Input script(nullptr, 0);
bool isInside = false;
std::uint64_t now = 1000000000;  // microseconds; each script begins later than the one before ended
int untilFailure = 0;            // calls until one fails; 0 for none
std::string datagram, request, answer;
int arrivedAt = 0, replies = 0, offers = 0, calls = 0;
fd_set readable;  // as the last select() told

bool IsOurs(int descriptor) { return sockets.count(descriptor) != 0; }
int Fail(int cause) { return errno = cause, -1; }
int Result() {
  Require(++calls < 10000, "a turn without end", datagram);
  return untilFailure == 0 || --untilFailure != 0 ? 0 : Fail(EMFILE);
}
ssize_t Result(ssize_t size) { return Result() != 0 ? -1 : size; }

int Open(Kind kind) {
  int descriptor = 100;
  while (IsOurs(descriptor)) ++descriptor;
  if (Result() != 0) return -1;
  sockets[descriptor] = {kind, 0};
  return descriptor;
}

/// Whether something comes while the daemon waits for `time`.
bool Comes(std::uint64_t time) {
  const bool comes = script.Below(5) != 0 && !script.IsEmpty();
  now += comes ? 1000 : time;
  return comes;
}

std::string Datagram() {
  std::string text(
      script.Piece("DEVICEIDENT?\r\n|SETIPADDRESS!\t|SETDHCPMODE!\t1\r\n|DEVICEREBOOT!\n|DEVICEDISABLEIDENT!\n|"
                   "SYSTRACE!\t1\n|EXECUTECOMMAND!\t|show\n|DEVICEIDENT?\t00:1b:c4:0a:ff:05\r\n||"));
  for (unsigned left = script.Below(8); left > 0; --left)
    text += script.Piece("10.0.0.1\t|255.0.0.0\t|\t|\n|'; x|$(x)\t|0|");
  return text + std::string(script.Take(script.Below(4)));
}

/// What the service answers to the last request, or to another one, whole or not.
std::string Answer() {
  const unsigned how = script.Below(8);
  if (how == 0) return std::string(script.Take(script.Byte()));
  const std::size_t at = request.find("<methodName>") + 12;
  const std::string method = request.substr(at, request.find('<', at) - at);
  std::string body = how == 2 ? "<methodResponse><fault>" : "<methodResponse><params><param>";
  body += "<value><struct>";
  const auto add = [&body](std::string_view name, std::string_view value) {
    body.append("<member><name>").append(name).append("</name><value>").append(value).append("</value></member>");
  };
  for (unsigned left = script.Below(8); left > 0; --left) {
    const auto name = script.Piece("IPAddress|MACAddress|DNSAddresses|DHCPActive|faultCode|DeviceType|");
    add(name, script.Piece("00:1b:c4:0a:ff:05|<i4>-3560</i4>|<i4>7</i4>|<array><data/></array>|"
                           "<array><data><value>10.0.0.2</value></data></array>|x\ty|<struct/>|"));
  }
  add("MethodID", how == 1 ? "RPCConf.GetNetwork" : method);
  body += "</struct></value></param></params></methodResponse>";  // nobody reads how it ends
  return "HTTP/1.1 200 OK\r\nContent-length: " + std::to_string(body.size() + (how == 3 ? script.Byte() : 0)) +
         "\r\n\r\n" + body;
}

ssize_t Give(std::string_view text, void* to, std::size_t size) {
  return Result(static_cast<ssize_t>(text.copy(static_cast<char*>(to), size)));
}

ssize_t FromService(void* to, std::size_t size, bool isIdle) {
  const unsigned how = answer.empty() ? script.Below(isIdle ? 16 : 8) : 1;
  if (script.IsEmpty() || how > 7) return Fail(EAGAIN);
  if (how == 0) return script.Below(2) == 0 ? 0 : Fail(ECONNRESET);
  if (answer.empty()) answer = Answer();
  const ssize_t given = Give(answer, to, how == 7 ? std::min<std::size_t>(size, 40) : size);
  answer.erase(0, given < 0 ? 0 : static_cast<std::size_t>(given));
  return given;
}

/// A reply that is right but for its options.
ssize_t FromDhcpServer(void* to, std::size_t size) {
  std::string message(240, '\0');
  message.replace(0, 8, std::string("\2\1\6\0\x7c\xd9\1\0", 8)).replace(16, 4, "\12\0\0\7", 4);
  message.append("\x35\1").append(++offers % 2 == 1 || script.Below(8) == 1 ? "\2" : "\5");
  return Give(message.append(script.Take(script.Below(64))), to, size);
}

/// Beside what a tool may have executed, a command has foreign text in single quotes only.
void Run(const std::string& command) {
  if (datagram.substr(0, 15) == "EXECUTECOMMAND!")
    return Require(sockets[arrivedAt].port == 5564 && IsConnected(), "execute", command);
  if (command == "halt") return Require(datagram.substr(0, 13) == "DEVICEREBOOT!", "halt", datagram);
  static const std::regex quoted("route ([^';$`|&()<>\"*?\n\\\\]|\\\\[\\s\\S]|'[^']*')*\n?");
  Require(std::regex_match(command, quoted), "quoting", command);
}

void CheckReply(int through, const std::string& reply, const sockaddr* address) {
  Require(++replies == 1 && !datagram.empty() && through == arrivedAt, "reply", datagram);
  const bool isRecord = reply.substr(0, 10) == "SID:0\tOAN:" && reply.substr(reply.size() - 2) == "\r\n";
  Require(isRecord || reply == "ACK\n" || reply == "NACK\n", "text", reply);
  const bool isToSender = reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr == 0x07070707;
  Require(isToSender != (sockets[through].port == 5563), "destination", datagram);
}

/// Of a datagram it tells the endpoint and the sender.
void CheckLine(const std::string& line) {
  if (line.substr(0, 9) != "Received ") return;
  const int port = sockets.at(arrivedAt).port;
  const std::string end = port == 5564   ? ":707:707:707 with IPV6 Multicast\n"
                          : port == 5563 ? " from 7.7.7.7 with IPV4 Multicast\n"
                                         : " from 7.7.7.7 with UDP Broadcast\n";
  Require(line.substr(line.size() - std::min(line.size(), end.size())) == end, "line", line);
}

}  // namespace

extern "C" {
int socket(int family, int type, int) noexcept {
  return Open(family == AF_NETLINK ? Netlink : (type & SOCK_STREAM) != 0 ? Tcp : Udp);
}
int bind(int descriptor, const sockaddr* address, socklen_t) noexcept {
  sockets.at(descriptor).port = ntohs(reinterpret_cast<const sockaddr_in*>(address)->sin_port);  // of either family
  return Result();
}
int connect(int, const sockaddr*, socklen_t) { return script.Below(4) == 1 ? Fail(ECONNREFUSED) : Result(); }
int setsockopt(int, int, int, const void*, socklen_t) noexcept { return Result(); }
int getsockopt(int, int, int, void* value, socklen_t* size) noexcept { return std::memset(value, 0, *size), Result(); }
int getsockname(int, sockaddr* address, socklen_t* size) noexcept { return std::memset(address, 1, *size), Result(); }
int getpeername(int, sockaddr* address, socklen_t* size) noexcept { return std::memset(address, 2, *size), Result(); }
int ioctl(int, unsigned long, ...) noexcept { return Result(); }
int open(const char* path, int flags, ...) {
  const std::string_view name(path);
  if (name == "/proc/net/igmp" || name == "/proc/net/igmp6" || name == "/etc/resolf.conf") return Open(File);
  Require(!isInside, "path", path);
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, 0644));
}
int close(int descriptor) {
  if (isInside && descriptor == 0) return 0;  // a lease without a MAC closes it, which is kept: the fuzzer's own
  Require(!isInside || IsOurs(descriptor), "close", std::to_string(descriptor));
  return sockets.erase(descriptor) != 0 ? 0 : static_cast<int>(syscall(SYS_close, descriptor));
}
int fcntl(int descriptor, int, ...) { return IsOurs(descriptor) ? Result() : Fail(EBADF); }
ssize_t read(int descriptor, void* to, size_t size) {
  return IsOurs(descriptor) ? Give(script.Take(script.Below(64)), to, size) : syscall(SYS_read, descriptor, to, size);
}
ssize_t write(int descriptor, const void* text, size_t size) {
  Require(!isInside || descriptor == 1 || IsOurs(descriptor) || descriptor == 2, "write", std::to_string(descriptor));
  if (isInside && descriptor == 1) CheckLine({static_cast<const char*>(text), size});
  return isInside ? Result(static_cast<ssize_t>(size)) : syscall(SYS_write, descriptor, text, size);
}
int poll(pollfd* inputs, nfds_t, int) {
  pollfd* volatile const input = inputs;  // glibc declares that poll() does not read it
  input->revents = input->events;
  return (input->events & POLLOUT) != 0 || Comes(1000000) ? 1 : 0;
}
int select(int size, fd_set* asked, fd_set*, fd_set*, timeval* timeout) {
  for (int at = 0; at < size; ++at) Require(!FD_ISSET(at, asked) || IsOurs(at), "select", std::to_string(at));
  if (Result() != 0) return -1;
  if (!Comes(static_cast<std::uint64_t>(timeout->tv_sec * 1000000 + timeout->tv_usec))) return 0;
  for (int at = size - 1, others = static_cast<int>(script.Below(3)); at > 0; --at) {
    if (FD_ISSET(at, asked) && others-- > 0 && size == FD_SETSIZE) FD_CLR(at, asked);
  }
  readable = *asked;
  return 1;
}
ssize_t recvfrom(int descriptor, void* to, size_t size, int, sockaddr* sender, socklen_t* length) {
  const bool isDump = sockets[descriptor].kind == Netlink;
  std::memset(sender, isDump ? 0 : 7, *length = std::min<socklen_t>(*length, 28));
  if (isDump) return Give(script.Take(script.Below(100)), to, size);
  arrivedAt = descriptor;
  for (const auto& [other, at] : sockets)
    Require(!FD_ISSET(other, &readable) || at.port <= sockets[descriptor].port, "order", datagram);
  return Give(datagram = Datagram(), to, size);
}
ssize_t recv(int descriptor, void* to, size_t size, int flags) {
  if (!IsOurs(descriptor)) return Fail(EBADF);
  return sockets[descriptor].kind == Udp ? FromDhcpServer(to, size)
                                         : FromService(to, size, (flags & MSG_DONTWAIT) != 0);
}
ssize_t send(int descriptor, const void* text, size_t size, int) {
  if (sockets.at(descriptor).kind == Tcp) request.assign(static_cast<const char*>(text), size);
  return Result(static_cast<ssize_t>(size));
}
ssize_t sendto(int descriptor, const void* text, size_t size, int, const sockaddr* address, socklen_t) {
  if (sockets.at(descriptor).port != 68)
    CheckReply(descriptor, std::string(static_cast<const char*>(text), size), address);
  return Result(static_cast<ssize_t>(size));
}
int clock_gettime(clockid_t clock, timespec* time) noexcept {
  if (!isInside) return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  *time = {static_cast<time_t>(now / 1000000), static_cast<long>(now % 1000000 * 1000)};
  return 0;
}
int usleep(useconds_t us) { return now += us, 0; }
int nanosleep(const timespec* time, timespec*) { return now += static_cast<std::uint64_t>(time->tv_sec) * 1000000, 0; }
unsigned if_nametoindex(const char*) noexcept { return Result() == 0 ? 2 : 0; }
char* if_indextoname(unsigned, char* name) noexcept { return Result() == 0 ? std::strcpy(name, "eth0") : nullptr; }
int system(const char* command) {
  if (!isInside) return reinterpret_cast<int (*)(const char*)>(dlsym(RTLD_NEXT, "system"))(command);  // the fuzzer's
  return Run(command), 0;
}
int posix_spawn(pid_t* process, const char*, const posix_spawn_file_actions_t*, const posix_spawnattr_t*,
                char* const* words, char* const*) {
  return Run(words[2]), *process = 1, 0;
}
pid_t waitpid(pid_t process, int* status, int) { return *status = 0, process; }

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  isInside = true;
  untilFailure = 0;
  XmlRpcTransport.Disconnect();
  DisableIdentEndTime_US = 0;
  Server.SetOwnMACAddress("");
  Server.InitConnections();
  script = Input(data, size);
  request = "<methodName><";
  for (now += 1000000000; !script.IsEmpty();) {
    datagram.clear();
    answer.clear();
    replies = offers = calls = 0;
    untilFailure = std::max(0, script.Byte() - 200);
    try {
      Serve();
    } catch (const std::bad_cast&) {
      Require(datagram.substr(0, 9) == "SYSTRACE!" && sockets[arrivedAt].port == 5564, "end", datagram);
      break;
    }
    Require(sockets.size() <= 3U + (IsConnected() ? 1 : 0), "descriptors", datagram);
  }
  isInside = false;
  return 0;
}
}
