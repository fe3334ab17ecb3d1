#include "net/CTCP.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/ConsoleLine.h"
#include "base/Descriptor.h"

namespace {

sockaddr_in MakeAddress(in_addr_t address, unsigned short port) {
  sockaddr_in made = {};
  made.sin_family = AF_INET;
  made.sin_port = htons(port);
  made.sin_addr.s_addr = address;
  return made;
}

int NewSocket() { return GateCloexec(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP)); }

int Connect(int descriptor, const sockaddr_in& address) {
  return connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

bool SetOption(int descriptor, int level, int option, int value) {
  return setsockopt(descriptor, level, option, &value, sizeof value) == 0;
}

bool GetLocalAddress(int descriptor, sockaddr_in& address) {
  socklen_t size = sizeof address;
  return getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) == 0;
}

timeval ToTimeval(unsigned long milliseconds) {
  timeval time = {};
  time.tv_sec = static_cast<time_t>(milliseconds / 1000);
  time.tv_usec = static_cast<suseconds_t>(milliseconds % 1000 * 1000);
  return time;
}

/// As select() returns. A descriptor that an fd_set has no room for is EBADF: select() would write beside the set.
int WaitReadable(int descriptor, unsigned long timeout) {
  if (descriptor < 0 || descriptor >= FD_SETSIZE) {
    errno = EBADF;
    return -1;
  }
  fd_set readers;
  FD_ZERO(&readers);
  FD_SET(descriptor, &readers);
  timeval limit = ToTimeval(timeout);
  return select(descriptor + 1, &readers, nullptr, nullptr, &limit);
}

/// How a connect() under way on `descriptor`, which passed the gate, ends.
bool AwaitConnection(int descriptor, unsigned long timeout) {
  fd_set readers;
  FD_ZERO(&readers);
  FD_SET(descriptor, &readers);
  fd_set writers = readers;
  timeval limit = ToTimeval(timeout);
  const int ready = select(descriptor + 1, &readers, &writers, nullptr, timeout == 0 ? nullptr : &limit);
  // A wait that was interrupted counts as a connection made: the first send or receive reports the real state.
  if (ready < 0) return true;
  if (ready == 0) {
    errno = ETIMEDOUT;
    return false;
  }
  if (!FD_ISSET(descriptor, &readers) && !FD_ISSET(descriptor, &writers)) return false;
  int pending = 0;
  socklen_t size = sizeof pending;
  if (getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &pending, &size) == -1) return false;
  if (pending == 0) return true;
  errno = pending;
  return false;
}

int Close(int& descriptor) {
  if (descriptor == -1) return -1;
  const int result = close(descriptor);
  descriptor = -1;
  return result;
}

}  // namespace

bool CTCP::Call(const std::string& ip, unsigned short port) {
  const sockaddr_in address = MakeAddress(inet_addr(ip.c_str()), port);
  _socket = NewSocket();
  if (_socket == -1) return false;
  return Connect(_socket, address) != -1;
}

bool CTCP::Call(const std::string& ip, unsigned short port, unsigned long timeout) {
  const sockaddr_in address = MakeAddress(inet_addr(ip.c_str()), port);
  _socket = NewSocket();
  if (_socket == -1) return false;
  const int flags = fcntl(_socket, F_GETFL);
  if (flags == -1 || fcntl(_socket, F_SETFL, flags | O_NONBLOCK) == -1) return false;
  if (Connect(_socket, address) == 0) return true;
  if (errno != EINPROGRESS) return false;
  return AwaitConnection(_socket, timeout);
}

bool CTCP::Send(const void* data, unsigned long length) {
  sent = 0;
  const ssize_t count = send(_socket, data, length, MSG_NOSIGNAL);
  if (count == -1) {
    ConsoleError("CTCP::Send()");
    return false;
  }
  sent = static_cast<std::uint32_t>(count);
  return true;
}

bool CTCP::Receive(void* buffer, unsigned long length) {
  received = 0;
  if (length == 0) return true;
  const ssize_t count = recv(_socket, buffer, length, 0);
  if (count == -1) {
    ConsoleError("CTCP::Receive()");
    return false;
  }
  if (count == 0) {
    errno = STATUS_PEER_CLOSED;
    return false;
  }
  received = static_cast<std::uint32_t>(count);
  return true;
}

int CTCP::Receive(void* buffer, unsigned long length, unsigned long timeout) {
  received = 0;
  if (_socket == -1) return STATUS_NO_SOCKET;
  const int ready = WaitReadable(_socket, timeout);
  if (ready < 0) return errno + STATUS_ERRNO;
  if (ready == 0) return STATUS_RECEIVE_TIMEOUT;
  return Receive(buffer, length) ? 0 : errno + STATUS_ERRNO;
}

bool CTCP::OpenPort(unsigned long address, unsigned short port, int backlog) {
  _listenSocket = -1;
  _backlog = backlog;
  const sockaddr_in local = MakeAddress(htonl(static_cast<std::uint32_t>(address)), port);
  _listenSocket = NewSocket();
  if (_listenSocket == -1) {
    ConsoleError("NetOpenServerPort socket");
    return false;
  }
  const bool listening = SetOption(_listenSocket, SOL_SOCKET, SO_REUSEADDR, 1) &&
                         bind(_listenSocket, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0 &&
                         SetOption(_listenSocket, IPPROTO_TCP, TCP_NODELAY, 1) && listen(_listenSocket, _backlog) == 0;
  if (!listening) CloseSocket(_listenSocket);
  return listening;
}

bool CTCP::Accept() {
  // cppcheck-suppress nullPointer ; accept4(2) takes it
  _socket = GateCloexec(accept4(_listenSocket, nullptr, nullptr, SOCK_CLOEXEC));
  if (_backlog == 1) CloseSocket(_listenSocket);
  if (_socket == -1) {
    ConsoleError("CTCP::Accept(): accept");
    return false;
  }
  if (!SetOption(_socket, IPPROTO_TCP, TCP_NODELAY, 1)) {
    ConsoleError("CTCP::Accept(): setsockopt TCP_NODELAY");
    CloseSocket(_socket);
    return false;
  }
  return true;
}

bool CTCP::Accept(unsigned long timeout) {
  if (_listenSocket == -1) {
    errno = STATUS_NO_SOCKET;
    return false;
  }
  const int ready = WaitReadable(_listenSocket, timeout);
  if (ready < 0) return false;
  if (ready == 0) {
    errno = STATUS_ACCEPT_TIMEOUT;
    return false;
  }
  return Accept();
}

bool CTCP::Accept(int& descriptor) {
  descriptor = -1;
  if (!Accept()) return false;
  std::swap(descriptor, _socket);
  return true;
}

bool CTCP::Accept(int& descriptor, unsigned long timeout) {
  descriptor = -1;
  if (!Accept(timeout)) return false;
  std::swap(descriptor, _socket);
  return true;
}

bool CTCP::ActivateKeepalive() {
  const struct {
    int level, option, value;
    const char* failure;
  } steps[] = {{SOL_SOCKET, SO_KEEPALIVE, 1, "CTCP::ActivateKeepalive(): setsockopt SO_KEEPALIVE"},
               {IPPROTO_TCP, TCP_KEEPIDLE, 60, "CTCP::ActivateKeepalive(): setsockopt TCP_KEEPIDLE"},
               {IPPROTO_TCP, TCP_KEEPINTVL, 5, "CTCP::ActivateKeepalive(): setsockopt TCP_KEEPINTVL"},
               {IPPROTO_TCP, TCP_KEEPCNT, 5, "CTCP::ActivateKeepalive(): setsockopt TCP_KEEPCNT"}};
  for (const auto& step : steps) {
    if (SetOption(_socket, step.level, step.option, step.value)) continue;
    ConsoleError(step.failure);
    CloseSocket(_socket);
    return false;
  }
  return true;
}

bool CTCP::SetSendBufferSize(int size) {
  // Half of it: the kernel doubles what it is given.
  if (SetOption(_socket, SOL_SOCKET, SO_SNDBUF, size / 2)) return true;
  CloseSocket(_socket);
  return false;
}

bool CTCP::GetDeviceIP(const char* interfaceName, unsigned long& address) {
  const int probe = NewSocket();  // never closed: kept for compatibility, the header warns
  if (probe == -1) {
    ConsoleError("GetDeviceIP socket");
    return false;
  }
  ifreq request = {};
  std::strncpy(request.ifr_name, interfaceName, sizeof request.ifr_name - 1);
  request.ifr_addr.sa_family = AF_INET;
  if (ioctl(probe, SIOCGIFADDR, &request) == -1) return false;
  sockaddr_in found = {};
  std::memcpy(&found, &request.ifr_addr, sizeof found);
  address = found.sin_addr.s_addr;
  return true;
}

bool CTCP::GetListenSocketAddr(sockaddr_in* address) const { return GetLocalAddress(_listenSocket, *address); }

int CTCP::GetPort(unsigned short& port) const {
  port = 0;
  sockaddr_in local = {};
  if (!GetLocalAddress(_socket != -1 ? _socket : _listenSocket, local)) return -1;
  port = ntohs(local.sin_port);
  return port;
}

bool CTCP::GetPeerIP(char* text) const {
  *text = '\0';
  sockaddr_in peer = {};
  socklen_t size = sizeof peer;
  if (getpeername(_socket, reinterpret_cast<sockaddr*>(&peer), &size) == -1) return false;
  return inet_ntop(AF_INET, &peer.sin_addr, text, INET_ADDRSTRLEN) != nullptr;
}

bool CTCP::GetLocalConnectedIPAndPort(std::string& ip, std::string& port) const {
  ip.clear();
  port.clear();
  sockaddr_in local = {};
  if (!GetLocalAddress(_socket, local)) return false;
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &local.sin_addr, text, sizeof text);
  ip = text;
  if (local.sin_port == 0) return false;
  port = std::to_string(ntohs(local.sin_port));
  return true;
}

void CTCP::CloseSocket(int& descriptor) {
  const int cause = errno;
  Close(descriptor);
  errno = cause;
}

int CTCP::Hangup() { return Close(_socket); }

int CTCP::ClosePort() { return Close(_listenSocket); }

void CTCP::clear() {
  CloseSocket(_listenSocket);
  CloseSocket(_socket);
}
