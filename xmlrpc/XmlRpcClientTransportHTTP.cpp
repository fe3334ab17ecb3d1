#include "xmlrpc/XmlRpcClientTransportHTTP.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <string_view>

#include "xmlrpc/Buffers.h"
#include "xmlrpc/XmlRpcUtil.h"

namespace TarnXmlRpc {

namespace {

constexpr std::size_t CHUNK = 8192;

// The same on every device, whatever address and port the configuration has: servers know the device by it.
constexpr char HOST_AND_PORT[] = "tarn-device:1200";

/// As the log and the wire print a length.
int Length(const std::string& text) { return static_cast<int>(text.size()); }

/// Whether the body has all the bytes that the head announced, which is at least 1.
bool IsWhole(const std::string& body, std::int32_t contentLength) {
  return body.size() >= static_cast<std::size_t>(contentLength);
}

int Fail(std::string& response, const char* message, int code, int status) {
  XmlRpcUtil::generateFaultResponse(response, message, code);
  return status;
}

void LogResponse(const std::string& response) {
  XmlRpcUtil::log(3, "XmlRpcClientTransportHTTP::readResponse (read %d bytes)", Length(response));
  XmlRpcUtil::log(5, "response:\n%s", response.c_str());
}

}  // namespace

int XmlRpcClientTransportHTTP::SetCfg(XmlRpcValue& cfg) {
  if (cfg.getMemberType(CfgParam_ServerPort) != XmlRpcValue::TypeInt) return STATUS_BAD_CONFIGURATION;
  _port = static_cast<std::uint16_t>(cfg[CfgParam_ServerPort].getInt());
  if (_port == 0) return STATUS_BAD_CONFIGURATION;
  if (cfg.getMemberType(CfgParam_ServerIP) != XmlRpcValue::TypeString) return STATUS_BAD_CONFIGURATION;
  _host = cfg[CfgParam_ServerIP].getString();
  if (!_host.empty()) return 0;
  _port = 0;
  return STATUS_BAD_CONFIGURATION;
}

int XmlRpcClientTransportHTTP::Connect() {
  if (connected) return 0;
  Disconnect();  // an owner that cleared `connected` by hand left it open
  connected = _tcp.Call(_host, _port);
  if (connected) return 0;
  Disconnect();  // a failed call leaves its socket open
  return STATUS_CONNECT_FAILED;
}

int XmlRpcClientTransportHTTP::Connect(unsigned long limit) {
  if (!connected) {
    Disconnect();
    connected = _tcp.Call(_host, _port, limit);
  }
  if (!connected) {
    Disconnect();
    return STATUS_CONNECT_FAILED;
  }
  timeout = static_cast<std::uint32_t>(std::min<unsigned long>(limit, std::numeric_limits<std::uint32_t>::max()));
  return 0;
}

int XmlRpcClientTransportHTTP::Disconnect() {
  _tcp.clear();
  connected = false;
  _owed = 0;
  _ends = Ends::Unknown;
  return 0;
}

int XmlRpcClientTransportHTTP::TestConnection() { return connected ? 0 : STATUS_NOT_CONNECTED; }

bool XmlRpcClientTransportHTTP::HasInput() {
  constexpr int MOST_PIECES = 16;  // a server that sends nothing but line ends without end is out of step as well
  char piece[256];
  for (int pieces = 0; pieces < MOST_PIECES; ++pieces) {
    const ssize_t count = recv(_tcp.GetSocket(), piece, sizeof piece, MSG_DONTWAIT);
    if (count < 0) return errno != EAGAIN && _tcp.GetSocket() >= 0;
    const std::string_view text(piece, static_cast<std::size_t>(count));
    if (text.empty() || text.find_first_not_of("\r\n") != std::string_view::npos) return true;
  }
  return true;
}

bool XmlRpcClientTransportHTTP::IsItsOwnPeer() {
  if (_ends == Ends::Unknown) {
    sockaddr_in own = {};
    sockaddr_in peer = {};
    socklen_t ownLength = sizeof own;
    socklen_t peerLength = sizeof peer;
    if (getsockname(_tcp.GetSocket(), reinterpret_cast<sockaddr*>(&own), &ownLength) != 0 ||
        getpeername(_tcp.GetSocket(), reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0) {
      return false;  // not connected, or not yet
    }
    _ends = own.sin_port == peer.sin_port && own.sin_addr.s_addr == peer.sin_addr.s_addr ? Ends::Same : Ends::Apart;
  }
  return _ends == Ends::Same;
}

std::string XmlRpcClientTransportHTTP::generateHeader(const std::string& body) const {
  constexpr std::size_t MOST = 256;
  std::string text;
  text.reserve(MOST + body.size());  // which is to follow
  text.append("POST /RPC2 HTTP/1.1\r\nUser-Agent: ").append(XMLRPC_VERSION).append("\r\nHost: ").append(HOST_AND_PORT);
  text.append("\r\nContent-Type: text/xml\r\nContent-length: ").append(std::to_string(Length(body)));
  return text.append("\r\n\r\n");
}

int XmlRpcClientTransportHTTP::execute(const std::string& request, std::string& answer) {
  const BuffersOfOneCall storage{_header, _response};
  return exchange(request, answer);
}

int XmlRpcClientTransportHTTP::exchange(const std::string& request, std::string& answer) {
  const std::string message = generateHeader(request) + request;
  if (!_tcp.Send(message.data(), message.size())) return Fail(answer, "Transmission failed!", -1, STATUS_SEND_FAILED);
  ++_owed;
  _head = HttpHead();

  int status = STATUS_HEADER_INCOMPLETE;
  while (status == STATUS_HEADER_INCOMPLETE) status = readHeader();
  if (status == STATUS_BAD_LENGTH) --_owed;
  if (status != 0) return Fail(answer, "readHeader() failed!", status, status);

  while (!IsWhole(_response, _contentLength)) {
    status = readString(_response);
    if (status != 0) return Fail(answer, "readResponse() failed!", status, status);
  }
  --_owed;
  LogResponse(_response);
  answer = std::move(_response);
  return 0;
}

int XmlRpcClientTransportHTTP::execute(const std::string& request, std::string& answer, unsigned long) {
  return execute(request, answer);
}

int XmlRpcClientTransportHTTP::readString(std::string& target) {
  char chunk[CHUNK + 1];
  if (timeout != 0) {
    const int status = _tcp.Receive(chunk, CHUNK, timeout);
    if (status != 0) return status;
  } else if (!_tcp.Receive(chunk, CHUNK)) {
    return STATUS_RECEIVE_FAILED;
  }
  chunk[_tcp.received] = '\0';
  target.append(chunk, _tcp.received);
  return 0;
}

int XmlRpcClientTransportHTTP::readHeader() {
  const int status = readString(_header);
  if (status != 0) return status;
  XmlRpcUtil::log(4, "XmlRpcClientTransportHTTP::readHeader(): client has read %d bytes", Length(_header));

  const HttpHead::State state = _head.read(_header);
  if (state == HttpHead::State::Incomplete) return STATUS_HEADER_INCOMPLETE;
  if (state == HttpHead::State::NoLength) return STATUS_BAD_LENGTH;
  _contentLength = _head.contentLength();
  XmlRpcUtil::log(4, "client read content length: %d", _contentLength);
  _response = _header.c_str() + _head.bodyStart();  // up to a zero byte; what arrives later is taken whole
  return 0;
}

int XmlRpcClientTransportHTTP::readResponse() {
  while (!IsWhole(_response, _contentLength)) {
    const int status = readString(_response);
    if (status != 0) return status;
  }
  LogResponse(_response);
  return 0;
}

}  // namespace TarnXmlRpc
