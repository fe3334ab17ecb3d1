#pragma once

#include <cstdint>
#include <string>

#include "net/CTCP.h"
#include "xmlrpc/HttpHead.h"
#include "xmlrpc/XmlRpcClientTransport.h"

namespace TarnXmlRpc {

// The statuses of this transport. Those of the timed receive (net/CTCP.h) pass through execute() as well.
inline constexpr int STATUS_NOT_CONNECTED = -3415;
inline constexpr int STATUS_BAD_LENGTH = -4317;  // a response head without a length field, or with one below 1
inline constexpr int STATUS_BAD_CONFIGURATION = -4318;
inline constexpr int STATUS_CONNECT_FAILED = -4320;
inline constexpr int STATUS_HEADER_INCOMPLETE = -4321;  // inside only: read on
inline constexpr int STATUS_SEND_FAILED = -4323;
inline constexpr int STATUS_RECEIVE_FAILED = -4324;  // without a receive time-out: any failure, the peer's end included

/// Posts each request to path "/RPC2" over one persistent TCP connection and reads one response, framed by its
/// "Content-length: " field (HTTP/1.1, RFC 9112; no chunked bodies). The status line is not looked at. Nothing is
/// retried and nothing reconnects: after a failed exchange the connection stays as it is, out of step with the server
/// perhaps, until the owner calls Disconnect().
class XmlRpcClientTransportHTTP : public XmlRpcClientTransport {
 public:
  /// The members of the configuration: the server's dotted quad and its port, an int.
  static inline const std::string CfgParam_ServerPort = "Port";
  static inline const std::string CfgParam_ServerIP = "IP";

  XmlRpcClientTransportHTTP() = default;
  ~XmlRpcClientTransportHTTP() override = default;

  /// STATUS_BAD_CONFIGURATION unless `cfg` is a struct with a "Port" whose low 16 bits are not 0 and an "IP" that is
  /// not empty. A failure keeps what was stored up to it: without a usable "IP" the new port stands beside the former
  /// address, so configure again before Connect().
  int SetCfg(XmlRpcValue& cfg) override;

  /// 0 at once when connected. Else connects and blocks for as long as the system tries; STATUS_CONNECT_FAILED leaves
  /// no descriptor open.
  int Connect() override;
  /// The same within `timeout` ms, 0 for no limit; then `timeout` is the receive time-out as well, also when it was
  /// connected before. The connection is non-blocking: with a receive time-out of 0 a read does not wait on it.
  int Connect(unsigned long timeout);
  int Disconnect() override;
  /// STATUS_NOT_CONNECTED unless connected: by the flag alone, the server may be gone all the same.
  int TestConnection() override;
  /// Whether the idle connection has anything to read but line ends: data, its end or an error. Between two exchanges
  /// that means that it is out of step with the server; a line end behind the response is common, and is read and
  /// dropped. Never waits. False without an open socket.
  bool HasInput();
  /// Whether the open connection leads to itself: connecting to a local port that nobody listens on may do so, if the
  /// system chooses that very port for our end. False without an open socket. Asks the system once for a connection.
  bool IsItsOwnPeer();

  /// Requests on this connection without their response yet: such a response may still come, and be read as that of a
  /// later request. 0 after a connect or disconnect. A response without a good length counts, as does a fault.
  unsigned OwedResponses() const { return _owed; }

  /// One exchange. On success `response` is the body of the response, surplus bytes included; on failure a fault
  /// document whose code is the status (-1 for STATUS_SEND_FAILED). `request` and `response` may be one string. A
  /// request beyond the send buffer of a non-blocking connection is sent cut: the system takes a part, and that counts.
  int execute(const std::string& request, std::string& response) override;
  /// The same; the receive time-out that counts is the one of Connect().
  int execute(const std::string& request, std::string& response, unsigned long timeout) override;

 private:
  std::string generateHeader(const std::string& body) const;
  int exchange(const std::string& request, std::string& response);
  int readHeader();
  int readResponse();  // until the body is whole, as exchange() does in place
  int readString(std::string& target);

  std::string _host;
  std::uint16_t _port = 0;

 public:
  bool connected = false;

 private:
  CTCP _tcp;
  std::string _header;
  std::int32_t _contentLength = 0;
  std::string _response;

 public:
  /// Receive time-out in ms for each read; 0 waits without limit on a blocking connection.
  std::uint32_t timeout = 0;

 private:
  HttpHead _head;  // how far `_header` is read
  unsigned _owed = 0;
  enum class Ends { Unknown, Apart, Same } _ends = Ends::Unknown;  // of the connection, which cannot change
};

}  // namespace TarnXmlRpc
