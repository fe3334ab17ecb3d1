#include <cstdlib>
#include <iostream>
#include <string>
#include <utility>

#include "net/CTCP.h"
#include "xmlrpc/HttpHead.h"
#include "xmlrpc/XmlRpcClient.h"
#include "xmlrpc/XmlRpcClientTransport.h"
#include "xmlrpc/XmlRpcClientTransportHTTP.h"

using namespace TarnXmlRpc;

namespace {

/// A transport of one's own: it gives up on a response beyond a limit, waits for each piece of it for 2 s at most, and
/// has a connection for each call, so that servers are fine which close theirs after each response. Connecting waits
/// for as long as the system tries: a connection that was made with a time-out would send a large request cut.
class BoundedTransport : public XmlRpcClientTransport {
 public:
  static constexpr int TOO_LONG = -1;

  BoundedTransport(std::string ip, unsigned short port, std::size_t most)
      : _ip(std::move(ip)), _port(port), _most(most) {}

  int SetCfg(XmlRpcValue&) override { return 0; }
  int Connect() override { return 0; }
  int Disconnect() override { return 0; }

  int execute(const std::string& request, std::string& response) override {
    const std::string message = "POST /RPC2 HTTP/1.1\r\nHost: " + _ip +
                                "\r\nContent-Type: text/xml\r\nContent-Length: " + std::to_string(request.size()) +
                                "\r\n\r\n" + request;
    CTCP tcp;
    if (!tcp.Call(_ip, _port)) return STATUS_CONNECT_FAILED;
    if (!tcp.Send(message.data(), message.size())) return STATUS_SEND_FAILED;
    std::string text;
    HttpHead head;
    HttpHead::State state = HttpHead::State::Incomplete;
    while (!IsWhole(text, head, state)) {
      const int status = Append(tcp, text);
      if (status != 0) return status;
      if (state == HttpHead::State::Incomplete) state = head.read(text);
      if (state == HttpHead::State::NoLength) return STATUS_BAD_LENGTH;
      if (text.size() > _most || BodyLength(head, state) > _most) return TOO_LONG;
    }
    response = text.substr(head.bodyStart());
    return 0;
  }

 private:
  static std::size_t BodyLength(const HttpHead& head, HttpHead::State state) {
    return state == HttpHead::State::Complete ? static_cast<std::size_t>(head.contentLength()) : 0;
  }

  static bool IsWhole(const std::string& text, const HttpHead& head, HttpHead::State state) {
    return state == HttpHead::State::Complete && text.size() - head.bodyStart() >= BodyLength(head, state);
  }

  static int Append(CTCP& tcp, std::string& text) {
    char piece[8192];
    const int status = tcp.Receive(piece, sizeof piece, 2000);
    text.append(piece, tcp.received);
    return status;
  }

  std::string _ip;
  unsigned short _port;
  std::size_t _most;
};

}  // namespace

// usage: bounded ADDRESS PORT BYTES: prints what "describe" answers for the channel 7, if no more than BYTES come.
int main(int argc, char** argv) {
  if (argc != 4) return 2;
  BoundedTransport transport(argv[1], static_cast<unsigned short>(std::atoi(argv[2])),
                             std::strtoul(argv[3], nullptr, 10));
  XmlRpcValue channel, result;
  channel["channel"] = 7;
  const int status = XmlRpcClient(&transport).execute("describe", channel.toXml(0).c_str(), result);
  const bool isFault = result.IsFaultResponse();  // of which this form of execute() tells by the result alone
  std::cout << (status == BoundedTransport::TOO_LONG ? "too long" : status == 0 ? result.toXml(0) : "failed") << "\n";
  return status == 0 && !isFault ? 0 : 1;
}
