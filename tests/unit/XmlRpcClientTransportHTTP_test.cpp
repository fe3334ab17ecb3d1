#include "xmlrpc/XmlRpcClientTransportHTTP.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "tests/unit/SystemCalls.h"
#include "xmlrpc/XmlRpcLogHandler.h"
#include "xmlrpc/XmlRpcUtil.h"

using namespace TarnXmlRpc;
using namespace std::string_literals;

namespace {

const std::string HEAD = "HTTP/1.1 404 No\r\nContent-length: 4\r\n\r\n";

int Configure(XmlRpcClientTransportHTTP& transport, int port, const XmlRpcValue& ip = "127.0.0.1") {
  XmlRpcValue cfg;
  cfg["Port"] = port;
  cfg["IP"] = ip;
  return transport.SetCfg(cfg);
}

std::string Fault(const std::string& message, int code) {
  std::string document;
  XmlRpcUtil::generateFaultResponse(document, message, code);
  return document;
}

/// A connected transport. What its peer says is told here, a piece for each recv(), so that no time matters.
struct Connected : XmlRpcClientTransportHTTP {
  explicit Connected(unsigned long limit) {
    unsigned short port = 0;
    EXPECT_TRUE(listener.OpenPort(INADDR_LOOPBACK, 0, 5));
    listener.GetPort(port);
    Configure(*this, port);
    EXPECT_EQ(0, limit == 0 ? Connect() : Connect(limit));
    on_recv = [this](int, void* buffer, std::size_t size, int) -> ssize_t {
      const std::string piece = pieces.empty() ? "" : pieces.front().substr(0, size);
      errno = EAGAIN;
      if (pieces.empty()) return closed ? 0 : -1;
      if (pieces.front().erase(0, size).empty()) pieces.erase(pieces.begin());
      std::memcpy(buffer, piece.data(), piece.size());
      return static_cast<ssize_t>(piece.size());
    };
    on_select = [this](int, fd_set*, fd_set*, fd_set*, timeval* wait) {
      waited = static_cast<unsigned long>(wait->tv_sec * 1000 + wait->tv_usec / 1000);
      return pieces.empty() && !closed ? 0 : 1;
    };
  }
  ~Connected() override {
    on_recv = nullptr;
    on_select = nullptr;
  }
  CTCP listener;
  std::vector<std::string> pieces;
  bool closed = false;  // behind the pieces; else silent
  unsigned long waited = 0;
};

TEST(XmlRpcClientTransportHTTP, ReadsOneResponseHoweverItArrives) {
  std::vector<std::pair<std::vector<std::string>, std::string>> rows = {
      {{"CONTENT-LEN", "GTH: 4\r\n\r", "\nb", "ody and more"}, "body and more"},
      {{"Content-length: 20000\n\n" + std::string(20000, 'x')}, std::string(20000, 'x')},
      {{HEAD + "bo\0xxxx"s, "d\0"s}, "bod\0"s}};  // the first piece counts up to its zero byte
  const std::string whole = HEAD + "body";
  for (std::size_t cut = 1; cut < whole.size(); ++cut)
    rows.push_back({{whole.substr(0, cut), whole.substr(cut)}, "body"});
  for (const unsigned long limit : {0UL, 60000UL}) {
    Connected transport(limit);
    for (const auto& [pieces, body] : rows) {  // nothing of one is left over for the next
      std::string response;
      transport.pieces = pieces;
      ASSERT_EQ(transport.execute("<call/>", response), 0) << testing::PrintToString(pieces);
      ASSERT_EQ(response, body) << testing::PrintToString(pieces);
      ASSERT_EQ(transport.OwedResponses(), 0U);
      ASSERT_EQ(transport.waited, limit);
    }
  }
}

TEST(XmlRpcClientTransportHTTP, TellsOfAPeerThatClosesStaysSilentOrNamesNoLength) {
  const std::string noHead = "readHeader() failed!", noBody = "readResponse() failed!";
  const struct {
    unsigned long limit;
    std::string answer;
    bool closed;
    int status;
    std::string message;
    unsigned owed;
  } rows[] = {{9, "Content-length: 0\r\n\r\nx", false, -4317, noHead, 0},
              {9, "Content-lengt: 5\r\n\r\nx", false, -4317, noHead, 0},
              {9, HEAD.substr(0, 41), false, -3560, noHead, 1},
              {9, "Content-length: 2147483647\n\nbo", false, -3560, noBody, 1},
              {9, HEAD + "bod", false, -3560, noBody, 1},
              {0, "X", true, -4324, noHead, 1},
              {0, HEAD + "bo", true, -4324, noBody, 1},
              {9, HEAD + "bo", true, -6915, noBody, 1}};
  for (const auto& row : rows) {
    Connected transport(row.limit);
    std::string response;
    transport.pieces = {row.answer};
    transport.closed = row.closed;
    EXPECT_EQ(transport.execute("<call/>", response), row.status) << row.answer;
    EXPECT_EQ(response, Fault(row.message, row.status)) << row.answer;
    EXPECT_EQ(transport.OwedResponses(), row.owed) << row.answer;
    EXPECT_EQ(transport.TestConnection(), 0) << "a failed exchange leaves the flag alone";
    EXPECT_EQ(transport.Disconnect(), 0);
    EXPECT_EQ(transport.TestConnection(), -3415);
    EXPECT_EQ(transport.OwedResponses(), 0U);
    EXPECT_EQ(transport.execute("<call/>", response), -4323);
    EXPECT_EQ(response, Fault("Transmission failed!", -1));
  }
}

TEST(XmlRpcClientTransportHTTP, DropsLineEndsOnTheIdleConnectionAndSeesWhatElseThereIs) {
  const struct {
    std::string text;
    bool closed, hasInput;
  } rows[] = {{"", false, false},
              {"\r\n\n\r\r\n", false, false},
              {"x", false, true},
              {"\0"s, false, true},
              {"\r\nx", false, true},
              {"", true, true},
              {"\n", true, true},
              {std::string(256UL * 15, '\n'), false, false},
              {std::string(256UL * 16, '\n'), false, true}};
  for (const auto& row : rows) {
    Connected transport(60000);
    if (!row.text.empty()) transport.pieces = {row.text};
    transport.closed = row.closed;
    EXPECT_EQ(transport.HasInput(), row.hasInput) << testing::PrintToString(row.text.substr(0, 9)) << row.closed;
  }
  EXPECT_FALSE(XmlRpcClientTransportHTTP().HasInput()) << "not connected";
}

TEST(XmlRpcClientTransportHTTP, IsConfiguredByAStructWithAnAddressAndAPort) {
  XmlRpcClientTransportHTTP refused, transport;
  XmlRpcValue cfg = 5;
  EXPECT_EQ(-4318, transport.SetCfg(cfg));
  EXPECT_EQ(-4318, Configure(transport, 65536));
  EXPECT_EQ(-4318, Configure(transport, 1, ""));
  EXPECT_EQ(-4318, Configure(transport, 1, 127));
  EXPECT_EQ(0, Configure(transport, 70000, "::"));
  EXPECT_EQ(0, Configure(refused, 1));
  const int before = CountDescriptors();
  for (const int status : {XmlRpcClientTransportHTTP().Connect(), refused.Connect(), refused.Connect(500)}) {
    EXPECT_EQ(-4320, status);
  }
  EXPECT_EQ(0U, refused.timeout);
  EXPECT_EQ(0U, XmlRpcClientTransportHTTP().OwedResponses());
  EXPECT_EQ(before, CountDescriptors());
}

TEST(XmlRpcClientTransportHTTP, SendsTheseBytesOverTheConnectionItHas) {
  Connected transport(0);
  int peer = -1;
  std::string text = "<call/>", logged;
  transport.connected = false;  // by an owner that means to begin anew: the peer sees the end of the first connection
  ASSERT_EQ(transport.Connect(), 0);
  ASSERT_EQ(transport.Connect(20000), 0);
  EXPECT_EQ(transport.timeout, 20000U) << "stored although it was connected";
  transport.pieces = {HEAD + "body"};
  EXPECT_EQ(transport.execute(text, text, 1), 0);
  EXPECT_EQ(text, "body") << "request and response may be one string";
  on_recv = nullptr;
  on_select = nullptr;
  for (const std::string request : {"",
                                    "POST /RPC2 HTTP/1.1\r\nUser-Agent: TARNXMLRPC++ 1.0\r\nHost: tarn-device:1200\r\n"
                                    "Content-Type: text/xml\r\nContent-length: 7\r\n\r\n<call/>"}) {
    ASSERT_TRUE(transport.listener.Accept(peer, 60000));
    EXPECT_EQ(request, ReadUpTo(peer, "<call/>"));
    if (request.empty()) close(peer);
  }
  const std::string lines[] = {"", "XmlRpcClientTransportHTTP::readResponse (read 4 bytes)\n", "", "response:\nbody\n"};
  for (int verbosity = 2; verbosity <= 5; ++verbosity) {
    setVerbosity(verbosity);
    testing::internal::CaptureStdout();
    Write(peer, HEAD + "body");
    EXPECT_EQ(transport.execute("<call/>", text), 0);
    logged += lines[verbosity - 2];
    const std::string head =
        "XmlRpcClientTransportHTTP::readHeader(): client has read 42 bytes\nclient read content length: 4\n";
    EXPECT_EQ((verbosity < 4 ? "" : head) + logged, testing::internal::GetCapturedStdout());
  }
  setVerbosity(0);
  close(peer);
}

TEST(XmlRpcClientTransportHTTP, IsItsOwnPeerIfBothEndsAreOne) {
  Connected other(0);
  XmlRpcClientTransportHTTP transport;
  unsigned short port = 0;
  other.listener.GetPort(port);
  Configure(transport, port);
  const auto isItsOwnPeer = [&](const char* address) {  // from there, and from the port that it calls
    on_connect = [address](int descriptor, const sockaddr* to, socklen_t size) {
      sockaddr_in from = *reinterpret_cast<const sockaddr_in*>(to);
      from.sin_addr.s_addr = inet_addr(address);
      EXPECT_EQ(0, bind(descriptor, reinterpret_cast<const sockaddr*>(&from), size));
      return real_connect(descriptor, to, size);
    };
    EXPECT_FALSE(transport.IsItsOwnPeer()) << "not connected";
    EXPECT_EQ(0, transport.Connect());
    on_connect = nullptr;
    const bool itself = transport.IsItsOwnPeer();
    transport.Disconnect();
    return itself;
  };
  EXPECT_FALSE(other.IsItsOwnPeer());
  EXPECT_FALSE(isItsOwnPeer("127.0.0.2"));
  other.listener.ClosePort();
  other.Disconnect();
  EXPECT_TRUE(isItsOwnPeer("127.0.0.1"));
}

TEST(HttpHead, TakesTimeLinearInTheHead) {  // else this one does not end
  HttpHead head;
  for (std::string text; text.size() < 4000000; text += "X: y\r\n") ASSERT_EQ(head.read(text), HttpHead::State());
}

}  // namespace
