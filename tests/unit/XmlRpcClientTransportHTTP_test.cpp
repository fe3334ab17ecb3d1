#include "xmlrpc/XmlRpcClientTransportHTTP.h"

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

TEST(XmlRpcClientTransportHTTP, ReadsOneResponseHoweverItArrivesOrTellsWhyThereIsNone) {
  const std::string noHead = "readHeader() failed!", noBody = "readResponse() failed!", whole = HEAD + "body";
  struct Row {
    std::vector<std::string> pieces;
    bool closed;
    unsigned long limit;
    int status;
    std::string text;  // the body, or the fault's
    unsigned owed;
  };
  std::vector<Row> rows = {
      {{"CONTENT-LEN", "GTH: 4\r\n\r", "\nb", "ody and more"}, false, 60000, 0, "body and more", 0},
      {{"Content-length: 20000\n\n" + std::string(20000, 'x')}, false, 0, 0, std::string(20000, 'x'), 0},
      {{HEAD + "bo\0xxxx"s, "d\0"s}, false, 9, 0, "bod\0"s, 0},  // the first piece counts up to its zero byte
      {{"Content-length: 0\r\n\r\nx"}, false, 9, -4317, noHead, 0},
      {{"Content-lengt: 5\r\n\r\nx"}, false, 9, -4317, noHead, 0},
      {{HEAD.substr(0, 41)}, false, 9, -3560, noHead, 1},
      {{"Content-length: 2147483647\n\nbo"}, false, 9, -3560, noBody, 1},
      {{HEAD + "bod"}, false, 9, -3560, noBody, 1},
      {{"X"}, true, 0, -4324, noHead, 1},
      {{HEAD + "bo"}, true, 0, -4324, noBody, 1},
      {{HEAD + "bo"}, true, 9, -6915, noBody, 1}};
  for (std::size_t cut = 1; cut < whole.size(); ++cut)
    rows.push_back({{whole.substr(0, cut), whole.substr(cut)}, false, 9, 0, "body", 0});
  for (const Row& row : rows) {
    const std::string shown = testing::PrintToString(row.pieces);
    Connected transport(row.limit);
    std::string response, expected;
    for (unsigned round = row.status == 0 ? 2 : 1; round > 0; --round) {  // nothing of one is left over for the next
      transport.pieces = row.pieces;
      transport.closed = row.closed;
      EXPECT_EQ(transport.execute("<call/>", response), row.status) << shown;
      XmlRpcUtil::generateFaultResponse(expected, row.text, row.status);
      EXPECT_EQ(response, row.status == 0 ? row.text : expected) << shown;
      EXPECT_EQ(transport.OwedResponses(), row.owed) << shown;
      EXPECT_EQ(transport.waited, row.limit) << shown;
      EXPECT_EQ(transport.TestConnection(), 0) << "a failed exchange leaves the flag alone";
    }
    EXPECT_EQ(transport.Disconnect(), 0);
    EXPECT_EQ(transport.TestConnection(), -3415);
    EXPECT_EQ(transport.OwedResponses(), 0U);
    EXPECT_EQ(transport.execute("<call/>", response), -4323);
    XmlRpcUtil::generateFaultResponse(expected, "Transmission failed!", -1);
    EXPECT_EQ(response, expected);
  }
}

TEST(XmlRpcClientTransportHTTP, DropsLineEndsOnTheIdleConnectionAndSeesWhatElseThereIs) {
  const std::string few(256UL * 15, '\n'), many(256UL * 16, '\n');
  for (const std::string& text : {""s, "\n"s, "\r\n\n\r\r\n"s, "x"s, "\0"s, "\r\nx"s, few, many}) {
    for (const bool closed : {false, true}) {
      Connected transport(60000);
      if (!text.empty()) transport.pieces = {text};
      transport.closed = closed;
      EXPECT_EQ(closed || text == many || text.find_first_not_of("\r\n") != text.npos, transport.HasInput()) << text;
    }
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
  std::string text = "<call/>";
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
    close(peer);
  }
}

TEST(XmlRpcClientTransportHTTP, LogsEachStepAtItsVerbosity) {
  Connected transport(0);
  const std::pair<int, std::string> lines[] = {
      {4, "XmlRpcClientTransportHTTP::readHeader(): client has read 42 bytes\n"},
      {4, "client read content length: 4\n"},
      {3, "XmlRpcClientTransportHTTP::readResponse (read 4 bytes)\n"},
      {5, "response:\nbody\n"}};
  for (int verbosity = 2; verbosity <= 5; ++verbosity) {
    std::string expected, response;
    for (const auto& [level, line] : lines) expected += level <= verbosity ? line : "";
    setVerbosity(verbosity);
    testing::internal::CaptureStdout();
    transport.pieces = {HEAD + "body"};
    EXPECT_EQ(transport.execute("<call/>", response), 0);
    EXPECT_EQ(expected, testing::internal::GetCapturedStdout());
  }
  setVerbosity(0);
}

TEST(XmlRpcClientTransportHTTP, IsItsOwnPeerIfBothEndsAreOne) {
  Connected transport(0);
  unsigned short port = 0;
  transport.listener.GetPort(port);
  for (const auto& [address, ownPort] : {std::pair(1U, 0U), {0U, 1U}, {0U, 0U}}) {  // what is added to the peer's
    EXPECT_EQ(0, transport.Connect());
    on_getsockname = [&, own = port + ownPort, host = INADDR_LOOPBACK + address](int, sockaddr* name, socklen_t*) {
      reinterpret_cast<sockaddr_in*>(name)->sin_port = htons(static_cast<std::uint16_t>(own));
      reinterpret_cast<sockaddr_in*>(name)->sin_addr.s_addr = htonl(host);
      return 0;
    };
    EXPECT_EQ(address + ownPort == 0, transport.IsItsOwnPeer());
    on_getsockname = nullptr;
    EXPECT_EQ(address + ownPort == 0, transport.IsItsOwnPeer()) << "which is asked once";
    EXPECT_EQ(0, transport.Disconnect());
    EXPECT_FALSE(transport.IsItsOwnPeer()) << "not connected";
  }
}

TEST(HttpHead, TakesTimeLinearInTheHead) {  // else this one does not end
  HttpHead head;
  for (std::string text; text.size() < 4000000; text += "X: y\r\n") ASSERT_EQ(head.read(text), HttpHead::State());
}

}  // namespace
