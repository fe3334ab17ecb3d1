#include "xmlrpc/XmlRpcClientTransportHTTP.h"

#include <gtest/gtest.h>

#include <future>
#include <vector>

#include "tests/unit/LoopbackPeer.h"
#include "xmlrpc/XmlRpcUtil.h"

using TarnXmlRpc::XmlRpcClientTransportHTTP;
using TarnXmlRpc::XmlRpcValue;

namespace {

const std::string HEAD = "HTTP/1.1 404 No\r\nContent-length: 4\r\n\r\n";
using Pieces = std::vector<std::string>;

XmlRpcValue Configuration(const XmlRpcValue& port, const XmlRpcValue& ip) {
  XmlRpcValue cfg;
  cfg["Port"] = port;
  cfg["IP"] = ip;
  return cfg;
}

/// A transport that is configured for port `peer` on loopback.
struct Transport : XmlRpcClientTransportHTTP {
  explicit Transport(int peer) {
    XmlRpcValue cfg = Configuration(peer, "127.0.0.1");
    EXPECT_EQ(SetCfg(cfg), 0);
  }
};

/// Answers each request, which ends with "<call/>", with the pieces, one write each; then closes if it is so told.
auto Answering(const Pieces& pieces, bool closes = false) {
  return [pieces, closes](int connection) {
    while (!ReadUpTo(connection, "<call/>").empty()) {
      for (const std::string& piece : pieces) Write(connection, piece), Pause();
      if (closes) return;
    }
  };
}

std::string Fault(const char* message, int code) {
  std::string document;
  TarnXmlRpc::XmlRpcUtil::generateFaultResponse(document, message, code);
  return document;
}

TEST(Transport, TakesAConfigurationWithAddressAndPort) {
  const struct {
    XmlRpcValue cfg;
    int status;
  } cases[] = {{Configuration(70000, "::"), 0},      {Configuration(65536, "::"), -4318},
               {Configuration("1200", "::"), -4318}, {Configuration(1200, ""), -4318},
               {Configuration(1200, 127), -4318},    {XmlRpcValue(1200), -4318}};
  for (const auto& c : cases) {
    XmlRpcValue cfg = c.cfg;
    EXPECT_EQ(XmlRpcClientTransportHTTP().SetCfg(cfg), c.status) << cfg.toXml(0);
  }
}

TEST(Transport, SendsHeadAndBodyInTheseBytes) {
  std::promise<std::string> sent;
  LoopbackPeer peer([&](int connection) {
    sent.set_value(ReadUpTo(connection, "<call/>"));
    Write(connection, HEAD + "body");
  });
  Transport transport(peer.port);
  ASSERT_EQ(transport.Connect(1000), 0);
  std::string text = "<call/>";
  EXPECT_EQ(transport.execute(text, text, 1), 0) << "request and response may be one string";
  EXPECT_EQ(text, "body");
  EXPECT_EQ(sent.get_future().get(),
            "POST /RPC2 HTTP/1.1\r\nUser-Agent: TARNXMLRPC++ 1.0\r\nHost: tarn-device:1200\r\n"
            "Content-Type: text/xml\r\nContent-length: 7\r\n\r\n<call/>");
}

TEST(Transport, ReadsOneResponseHoweverItArrives) {
  using namespace std::string_literals;
  const struct {
    Pieces pieces;
    int status;
    std::string body;
  } cases[] = {{{HEAD, "bo", "dy"}, 0, "body"},
               {{"CONTENT-LEN", "GTH: 4\r\n\r", "\nb", "ody and more"}, 0, "body and more"},
               {{HEAD + "bo\0xxxx"s, "d\0"s}, 0, "bod\0"s},  // the first piece counts up to its zero byte
               {{"Content-length: 0\r\n\r\nx"}, -4317, Fault("readHeader() failed!", -4317)},
               {{}, -3560, Fault("readHeader() failed!", -3560)},
               {{HEAD}, -3560, Fault("readHeader() failed!", -3560)},
               {{"Content-length: 2147483647\n\nbo"}, -3560, Fault("readResponse() failed!", -3560)}};
  for (const auto& c : cases) {
    LoopbackPeer peer(Answering(c.pieces));
    Transport transport(peer.port);
    ASSERT_EQ(transport.Connect(300), 0);
    for (int round = 0; round < 2; ++round) {  // the second on the same connection: nothing of the first is left over
      std::string response;
      EXPECT_EQ(transport.execute("<call/>", response), c.status) << testing::PrintToString(c.pieces);
      EXPECT_EQ(response, c.body) << testing::PrintToString(c.pieces);
    }
  }
}

TEST(Transport, ReportsAPeerThatCloses) {
  const struct {
    unsigned long timeout;
    Pieces pieces;
    int status;
    const char* message;
  } cases[] = {{0, {}, -4324, "readHeader() failed!"},
               {0, {HEAD, "bo"}, -4324, "readResponse() failed!"},
               {500, {HEAD, "bo"}, -6915, "readResponse() failed!"}};
  for (const auto& c : cases) {
    LoopbackPeer peer(Answering(c.pieces, true));
    Transport transport(peer.port);
    ASSERT_EQ(c.timeout == 0 ? transport.Connect() : transport.Connect(c.timeout), 0);
    std::string response;
    EXPECT_EQ(transport.execute("<call/>", response), c.status);
    EXPECT_EQ(response, Fault(c.message, c.status));
    EXPECT_EQ(transport.TestConnection(), 0) << "a failed exchange leaves the flag alone";
    EXPECT_EQ(transport.Disconnect(), 0);
    EXPECT_EQ(transport.TestConnection(), -3415);
    EXPECT_EQ(transport.execute("<call/>", response), -4323);
    EXPECT_EQ(response, Fault("Transmission failed!", -1));
  }
}

TEST(Transport, ConnectLosesNoDescriptor) {
  XmlRpcClientTransportHTTP unconfigured;
  Transport refused(1);
  const int before = CountDescriptors();
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(unconfigured.Connect(), -4320);
    ASSERT_EQ(refused.Connect(500), -4320);
  }
  EXPECT_EQ(CountDescriptors(), before);
  EXPECT_EQ(refused.timeout, 0U);

  LoopbackPeer peer(Answering({HEAD + "body"}));
  Transport transport(peer.port);
  EXPECT_EQ(transport.Connect(), 0);
  transport.connected = false;  // by an owner that means to begin anew: the peer sees the end of the first connection
  EXPECT_EQ(transport.Connect(), 0);
  EXPECT_EQ(transport.Connect(2000), 0);
  EXPECT_EQ(transport.timeout, 2000U) << "stored although it was connected";
  std::string response;
  EXPECT_EQ(transport.execute("<call/>", response), 0);
}

TEST(Transport, SeesInputThatNobodyAskedFor) {
  for (const bool sendsData : {true, false}) {
    std::promise<void> proceed, end;
    LoopbackPeer peer([&](int connection) {
      proceed.get_future().wait();
      if (!sendsData) return;
      Write(connection, "late");
      end.get_future().wait();
    });
    Transport transport(peer.port);
    EXPECT_FALSE(transport.HasInput()) << "no socket";
    EXPECT_EQ(transport.Connect(1000), 0);
    EXPECT_FALSE(transport.HasInput());
    proceed.set_value();
    for (int i = 0; i < 100 && !transport.HasInput(); ++i) Pause();
    EXPECT_TRUE(transport.HasInput()) << (sendsData ? "data" : "the end");
    end.set_value();
  }
}

}  // namespace
