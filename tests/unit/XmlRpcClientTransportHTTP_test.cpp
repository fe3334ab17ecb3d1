#include "xmlrpc/XmlRpcClientTransportHTTP.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>

#include <future>

#include "tests/unit/LoopbackPeer.h"
#include "xmlrpc/XmlRpcLogHandler.h"
#include "xmlrpc/XmlRpcUtil.h"

using namespace TarnXmlRpc;

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

/// This process's other end of `connection`, or -1.
int OtherEnd(int connection) {
  sockaddr_in peer = {}, own = {};
  socklen_t size = sizeof peer;
  getpeername(connection, reinterpret_cast<sockaddr*>(&peer), &size);
  for (int other = 3; other < FD_SETSIZE; ++other) {
    size = sizeof own;
    const bool isSocket = getsockname(other, reinterpret_cast<sockaddr*>(&own), &size) == 0;
    if (isSocket && own.sin_family == AF_INET && own.sin_port == peer.sin_port) return other;
  }
  return -1;
}

/// Until all that was written, an end too, is at the other end, however slow the machine is.
void AwaitArrival(int connection) {
  const int other = OtherEnd(connection), on = 1;
  for (int left = 1; left > 0 && ioctl(connection, SIOCOUTQ, &left) == 0; std::this_thread::yield()) {
    setsockopt(other, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);  // else it says so 40 ms later
  }
}

/// Writes `text` and waits until the other end has read it all.
void WriteAndWait(int connection, const std::string& text) {
  Write(connection, text);
  AwaitArrival(connection);
  const int other = OtherEnd(connection);
  for (int unread = 1; unread > 0 && ioctl(other, FIONREAD, &unread) == 0;) std::this_thread::yield();
}

TEST(XmlRpcClientTransportHTTP, ReadsOneResponseHoweverItArrives) {
  using namespace std::string_literals;
  std::vector<std::pair<std::vector<std::string>, std::string>> rows = {
      {{"CONTENT-LEN", "GTH: 4\r\n\r", "\nb", "ody and more"}, "body and more"},
      {{HEAD + "bo\0xxxx"s, "d\0"s}, "bod\0"s}};  // the first piece counts up to its zero byte
  const std::string whole = HEAD + "body";
  for (std::size_t cut = 1; cut <= whole.size(); ++cut)
    rows.push_back({{whole.substr(0, cut), whole.substr(cut)}, "body"});
  LoopbackPeer peer([&rows](int connection) {
    for (const auto& [pieces, body] : rows) {
      ReadUpTo(connection, "<call/>");
      for (const std::string& piece : pieces) WriteAndWait(connection, piece);
    }
  });
  for (const bool timed : {false, true}) {
    XmlRpcClientTransportHTTP transport;
    Configure(transport, peer.port);
    ASSERT_EQ(timed ? transport.Connect(60000) : transport.Connect(), 0);
    std::string response;
    for (const auto& [pieces, body] : rows) {  // nothing of one is left over for the next
      ASSERT_EQ(transport.execute("<call/>", response), 0) << testing::PrintToString(pieces);
      ASSERT_EQ(response, body) << testing::PrintToString(pieces);
      ASSERT_EQ(transport.OwedResponses(), 0U);
    }
  }
}

TEST(XmlRpcClientTransportHTTP, TellsOfAPeerThatClosesStaysSilentOrNamesNoLength) {
  const std::string noHead = "readHeader() failed!", noBody = "readResponse() failed!";
  constexpr unsigned long patient = 60000, impatient = 100;
  const struct {
    unsigned long timeout;
    bool closes;
    std::string answer;  // there before the request is sent
    int status;
    std::string message;
  } rows[] = {{patient, false, "Content-length: 0\r\n\r\nx", -4317, noHead},
              {patient, false, "Content-lengt: 5\r\n\r\nx", -4317, noHead},
              {impatient, false, HEAD, -3560, noHead},
              {impatient, false, "Content-length: 2147483647\n\nbo", -3560, noBody},
              {impatient, false, HEAD + "bod", -3560, noBody},
              {0, true, "", -4324, noHead},
              {0, true, HEAD + "bo", -4324, noBody},
              {patient, true, HEAD + "bo", -6915, noBody}};
  for (const auto& row : rows) {
    std::promise<void> arrived;
    LoopbackPeer peer([&](int connection) {
      Write(connection, row.answer);
      if (row.closes) shutdown(connection, SHUT_WR);
      AwaitArrival(connection);
      arrived.set_value();
      ReadUpTo(connection, "no such end");
    });
    XmlRpcClientTransportHTTP transport;
    Configure(transport, peer.port);
    ASSERT_EQ(row.timeout == 0 ? transport.Connect() : transport.Connect(row.timeout), 0);
    arrived.get_future().wait();
    std::string response;
    EXPECT_EQ(transport.execute("<call/>", response), row.status) << row.answer;
    EXPECT_EQ(response, Fault(row.message, row.status));
    EXPECT_EQ(transport.OwedResponses(), row.status == -4317 ? 0U : 1U);
    EXPECT_EQ(transport.TestConnection(), 0) << "a failed exchange leaves the flag alone";
    EXPECT_EQ(transport.Disconnect(), 0);
    EXPECT_EQ(transport.TestConnection(), -3415);
    EXPECT_EQ(transport.OwedResponses(), 0U);
    EXPECT_EQ(transport.execute("<call/>", response), -4323);
    EXPECT_EQ(response, Fault("Transmission failed!", -1));
  }
}

TEST(XmlRpcClientTransportHTTP, DropsLineEndsOnTheIdleConnectionAndSeesWhatElseThereIs) {
  using namespace std::string_literals;
  const struct {
    std::string behind;  // a response that was read
    bool closes, hasInput;
  } rows[] = {{"", false, false},
              {"\r\n", false, false},
              {"\n\r\r\n", false, false},
              {"x", false, true},
              {"\0"s, false, true},
              {"\r\nx", false, true},
              {"\n", true, true},
              {std::string(3800, '\n'), false, false},
              {std::string(9999, '\n'), false, true}};
  for (const auto& row : rows) {
    std::promise<void> arrived, asked;
    LoopbackPeer peer([&](int connection) {
      ReadUpTo(connection, "<call/>");
      Write(connection, HEAD + "body");
      asked.get_future().wait();
      Write(connection, row.behind);
      if (row.closes) shutdown(connection, SHUT_WR);
      AwaitArrival(connection);
      arrived.set_value();
      ReadUpTo(connection, "no such end");
    });
    XmlRpcClientTransportHTTP transport;
    EXPECT_FALSE(transport.HasInput()) << "not connected";
    Configure(transport, peer.port);
    transport.Connect(60000);
    std::string response;
    EXPECT_EQ(transport.execute("<call/>", response), 0);
    asked.set_value();
    arrived.get_future().wait();
    EXPECT_EQ(transport.HasInput(), row.hasInput) << testing::PrintToString(row.behind.substr(0, 9)) << row.closes;
  }
}

TEST(XmlRpcClientTransportHTTP, IsConfiguredByAStructWithAnAddressAndAPort) {
  XmlRpcClientTransportHTTP refused, transport;
  XmlRpcValue cfg;
  EXPECT_EQ(-4318, transport.SetCfg(cfg = 5));
  EXPECT_EQ(-4318, Configure(transport, 65536));
  EXPECT_EQ(-4318, Configure(transport, 1, ""));
  EXPECT_EQ(-4318, Configure(transport, 1, 127));
  EXPECT_EQ(0, Configure(transport, 70000, "::"));
  EXPECT_EQ(0, Configure(refused, 1));
  const int before = CountDescriptors();
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(-4320, XmlRpcClientTransportHTTP().Connect());
    EXPECT_EQ(-4320, refused.Connect());
    EXPECT_EQ(-4320, refused.Connect(500));
  }
  EXPECT_EQ(before, CountDescriptors());
  EXPECT_EQ(-4320, refused.Connect());
  EXPECT_EQ(0U, refused.timeout);
  EXPECT_EQ(before, CountDescriptors());
}

TEST(XmlRpcClientTransportHTTP, SendsTheseBytesOverTheConnectionItHas) {
  std::promise<std::string> sent;
  std::atomic<int> connections = 0;
  LoopbackPeer peer([&](int connection) {
    ++connections;
    const std::string request = ReadUpTo(connection, "<call/>");
    if (request.empty()) return;
    sent.set_value(request);
    for (int answer = 0; answer < 5; ++answer) Write(connection, HEAD + "body"), ReadUpTo(connection, "<call/>");
  });
  XmlRpcClientTransportHTTP transport;
  Configure(transport, peer.port);
  ASSERT_EQ(transport.Connect(), 0);
  transport.connected = false;  // by an owner that means to begin anew: the peer sees the end of the first connection
  ASSERT_EQ(transport.Connect(), 0);
  ASSERT_EQ(transport.Connect(20000), 0);
  EXPECT_EQ(transport.timeout, 20000U) << "stored although it was connected";
  std::string text = "<call/>";
  EXPECT_EQ(transport.execute(text, text, 1), 0);
  EXPECT_EQ(text, "body") << "request and response may be one string";
  EXPECT_EQ(sent.get_future().get(),
            "POST /RPC2 HTTP/1.1\r\nUser-Agent: TARNXMLRPC++ 1.0\r\nHost: tarn-device:1200\r\n"
            "Content-Type: text/xml\r\nContent-length: 7\r\n\r\n<call/>");
  EXPECT_EQ(2, connections);
  const std::string lines[] = {"", "XmlRpcClientTransportHTTP::readResponse (read 4 bytes)\n", "", "response:\nbody\n"};
  std::string logged;
  for (int verbosity = 2; verbosity <= 5; ++verbosity) {
    setVerbosity(verbosity);
    testing::internal::CaptureStdout();
    EXPECT_EQ(transport.execute("<call/>", text), 0);
    logged += lines[verbosity - 2];
    const std::string head =
        "XmlRpcClientTransportHTTP::readHeader(): client has read 42 bytes\nclient read content length: 4\n";
    EXPECT_EQ((verbosity < 4 ? "" : head) + logged, testing::internal::GetCapturedStdout());
  }
  setVerbosity(0);
}

TEST(HttpHead, TakesTimeLinearInTheHead) {  // else this one does not end
  HttpHead head;
  for (std::string text; text.size() < 4000000; text += "X: y\r\n") ASSERT_EQ(head.read(text), HttpHead::State());
}

}  // namespace
