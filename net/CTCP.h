#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>

// The connection layer's own codes. They reach the caller in errno or as a status; a system call's errno comes as
// status STATUS_ERRNO + errno.
inline constexpr int STATUS_PEER_CLOSED = -3415;
inline constexpr int STATUS_ERRNO = -3500;
inline constexpr int STATUS_ACCEPT_TIMEOUT = -3535;
inline constexpr int STATUS_NO_SOCKET = -3538;
inline constexpr int STATUS_RECEIVE_TIMEOUT = -3560;  // nothing came in time; a late answer would be taken for the next

/// One IPv4 TCP stream socket and, optionally, a listening one. Owns both descriptors: clear() and the destructor close
/// what is open. A Call(), Accept() or OpenPort() stores its descriptor over the former one without closing it, so
/// close first. Its own descriptors are 3 or higher and close-on-exec from the start; one of 1024 (FD_SETSIZE) or more,
/// which select() could not hold, is closed again and counts as EMFILE. One thread at a time. All times are
/// milliseconds. Failures return false and leave the reason in errno, where a close that belongs to the failure does
/// not change it.
class CTCP {
 public:
  CTCP() = default;
  ~CTCP() { clear(); }
  CTCP(const CTCP&) = delete;
  CTCP& operator=(const CTCP&) = delete;

  /// Bytes of the last Receive(); 0 after a failure.
  std::uint32_t received = 0;
  /// Bytes that the system took of the last Send().
  std::uint32_t sent = 0;

  /// Takes over `descriptor`, whatever it is, as the connected socket. On one of 1024 or more a timed wait fails with
  /// EBADF.
  void SetSocket(int descriptor) { _socket = descriptor; }
  /// The connected socket; -1 if there is none.
  int GetSocket() const { return _socket; }

  /// Connects to the dotted quad `ip` and blocks for as long as the system tries. A text that is no address is taken
  /// for 255.255.255.255. The socket stays open after a failure too, until clear(), Hangup() or the destructor.
  bool Call(const std::string& ip, unsigned short port);
  /// The same within `timeout`, 0 for no limit; ETIMEDOUT when it ran out. The socket is non-blocking from then on. A
  /// wait that a signal interrupts counts as connected: the first Send() or Receive() shows the real state.
  bool Call(const std::string& ip, unsigned short port, unsigned long timeout);

  /// One send(), never a SIGPIPE. True also when the system took only a part: `sent` tells.
  bool Send(const void* data, unsigned long length);
  /// One recv() of at most `length` bytes; a length of 0 does nothing. The end of the connection is a failure with
  /// errno STATUS_PEER_CLOSED.
  bool Receive(void* buffer, unsigned long length);
  /// Waits for data, then reads as above. A `timeout` of 0 polls. 0, or STATUS_NO_SOCKET, STATUS_RECEIVE_TIMEOUT, or
  /// STATUS_ERRNO + errno for everything else, the end of the connection included (-6915).
  int Receive(void* buffer, unsigned long length, unsigned long timeout);

  /// Listens on `address` (host byte order) and `port`; 0 lets the system choose one. With a `backlog` of 1, one
  /// connection is served: the first Accept() closes the listening socket, even if it fails.
  bool OpenPort(unsigned long address, unsigned short port, int backlog);
  /// Waits for a connection and makes it the connected socket.
  bool Accept();
  /// The same within `timeout`, where 0 polls. errno is STATUS_NO_SOCKET without a listening socket and
  /// STATUS_ACCEPT_TIMEOUT when nobody came.
  bool Accept(unsigned long timeout);
  /// The same, but the new connection is the caller's: it goes into `descriptor`, which is -1 after a failure.
  bool Accept(int& descriptor);
  bool Accept(int& descriptor, unsigned long timeout);

  /// Has the system look after 60 idle seconds whether the peer is there: 5 probes, 5 s apart. A failure closes the
  /// connected socket.
  bool ActivateKeepalive();
  /// Gives the connected socket a send buffer of `size` bytes. A failure closes the connected socket.
  bool SetSendBufferSize(int size);

  /// The IPv4 address, in network byte order, of a network interface. Each call costs a descriptor for good: never call
  /// it in a loop.
  static bool GetDeviceIP(const char* interfaceName, unsigned long& address);
  bool GetListenSocketAddr(sockaddr_in* address) const;
  /// The local port of the connected socket or, without one, of the listening socket, also as the result; -1, and
  /// `port` 0, on failure.
  int GetPort(unsigned short& port) const;
  /// The peer's address as a dotted quad; `text` holds at least 16 bytes and is empty after a failure.
  bool GetPeerIP(char* text) const;
  /// The local end of the connected socket. Both are empty after a failure, but `ip` is set if only the port is
  /// missing.
  bool GetLocalConnectedIPAndPort(std::string& ip, std::string& port) const;

  /// Closes `descriptor` if it is not -1, and sets it to -1. Leaves errno as it was.
  static void CloseSocket(int& descriptor);
  /// Closes the connected socket. The result of close(), -1 if there was nothing to close.
  int Hangup();
  /// The same for the listening socket.
  int ClosePort();
  /// Closes both.
  void clear();

 private:
  std::int32_t _listenSocket = -1;
  std::int32_t _socket = -1;
  std::int32_t _backlog = 0;
};
