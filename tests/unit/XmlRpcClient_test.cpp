#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <future>

#include "rpc/RPCConf.h"
#include "tests/unit/LoopbackPeer.h"
#include "xmlrpc/HttpHead.h"
#include "xmlrpc/XmlRpcClient.h"
#include "xmlrpc/XmlRpcClientTransportHTTP.h"
#include "xmlrpc/XmlRpcLogHandler.h"
#include "xmlrpc/XmlRpcUtil.h"

using namespace TarnXmlRpc;

namespace {

const std::string HEAD = "HTTP/1.1 404 No\r\nContent-length: 4\r\n\r\n";
const XmlRpcValue none;

/// Answers every request with the same text and status, and remembers what it was given.
struct FakeTransport : XmlRpcClientTransportHTTP {
  explicit FakeTransport(std::string text, int result = 0) : answer(std::move(text)), status(result) {}
  int execute(const std::string& text, std::string& out) override {
    sent = text;
    out = answer;
    return status;
  }
  int execute(const std::string& text, std::string& out, unsigned long limit) override {
    if (limit == 99) throw std::runtime_error(out = "broken");
    return execute(text, out);
  }
  std::string answer, sent;
  int status;
};

struct Client : XmlRpcClient {
  using XmlRpcClient::XmlRpcClient;
  bool HoldsNothing() const { return request.empty() && response.empty(); }
};

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

TEST(Client, SendsOneParameterOrNone) {
  FakeTransport transport(Fault("", 0));
  XmlRpcValue result, shortTags;
  int offset = 0;
  ASSERT_TRUE(shortTags.fromXml("<va><i4>5</i4></va>", &offset));
  const auto sent = [&](const auto& params) {
    XmlRpcClient(&transport).execute("a&b", params, result);
    return transport.sent;
  };
  std::string head = "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\r\n<methodCall><methodName>a&b</methodName>\r\n";
  for (const std::string& request : {sent(none), sent(nullptr)}) EXPECT_EQ(request, head + "</methodCall>\r\n");
  const std::string end = "</param></params></methodCall>\r\n";
  EXPECT_EQ(sent(shortTags), (head += "<params><param>") + "<va><i4>5</i4></va>" + end);
  EXPECT_EQ(sent("<raw>"), head + "<raw>" + end);
  result["a"][0] = std::string("\0<", 2);
  EXPECT_EQ(sent(result["a"]),
            head + "<value><array><data><value>" + '\0' + "&lt;</value></data></array></value>" + end);
}

TEST(Client, EachFormHasItsStatus) {
  const std::string five = "<value><int>5</int></value>";
  const std::tuple<std::string, int, int, int, int, std::string, bool, bool> rows[] = {
      {"<x><methodResponse> <params>\r\n<param>" + five, 0, 0, 0, 0, "", true, false},
      {Fault("no", 4), 0, 0, 4, 4, "", true, true},
      {Fault("no", -4), 0, 0, -4, -4, "", true, true},
      {"<methodResponse><params><fault>" + five, 0, 0, 0, 0, "", true, true},
      {"<params><param>" + five, 0, -4317, 0, -4317, " - no methodResponse", false, false},
      {"<methodResponse><params>" + five, 0, -4317, 0, -4317, " - no param or fault tag", false, false},
      {"<methodResponse><fault><int>5</int>", 0, -4317, 0, -4317, " value", false, true},
      {Fault("no", 4), -3560, -3560, -3560, -3560, "", false, false}};
  for (const auto& [answer, transportStatus, textForms, timedValueForm, valueForm, error, valid, isFault] : rows) {
    FakeTransport transport(answer, transportStatus);
    Client client(&transport);
    XmlRpcValue result(1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(client.execute("m", nullptr, result), textForms) << answer;
    std::string line = "XmlRpcClient::parseResponse(): Invalid response";
    line.append(error).append(". Response:\n").append(answer).append("\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), error.empty() ? "" : line);
    EXPECT_EQ(client.execute("m", nullptr, result, 1), textForms) << answer;
    EXPECT_EQ(client.execute("m", none, result, 1), timedValueForm) << answer;
    EXPECT_EQ(client.execute("m", none, result), valueForm) << answer;
    EXPECT_TRUE(result.valid() == valid && client.IsFault() == isFault && client.HoldsNothing()) << answer;
  }
}

TEST(Client, KeepsNothingOfACallThatThrowsAndMakesNoneWithoutTransport) {
  FakeTransport transport(
      "<methodResponse><fault><va><st><me><na>faultCode</na><va>x</va></me><me><na>faultString</na>"
      "<va></va></me></st></va>");
  Client client(&transport);
  XmlRpcValue result(1);
  EXPECT_THROW(client.execute("m", none, result), XmlRpcException);
  EXPECT_THROW(client.execute("m", none, result, 99), std::runtime_error);
  EXPECT_TRUE(client.HoldsNothing() && !result.valid());
  result = 1;
  EXPECT_TRUE(XmlRpcClient(nullptr).execute("m", none, result) == -9 && !result.valid());
}

TEST(HttpHead, TakesTimeLinearInTheHead) {  // else this one does not end
  HttpHead head;
  for (std::string text; text.size() < 4000000; text += "X: y\r\n") ASSERT_TRUE(head.read(text) == HttpHead::State());
}

TEST(Bindings, GetReadsWhateverIsNoStringAsEmptyAndAddressesNeverShrink) {
  RPCConf::GetNetwork::CResults results;
  results["SubnetMask"] = 5;
  results.deleteMember("MACAddress");
  EXPECT_EQ(results.Get_SubnetMask() + results.Get_MACAddress(), "");
  EXPECT_TRUE(results["SubnetMask"] == 5 && results.hasMember("MACAddress")) << "which reading makes";
  static_cast<XmlRpcValue&>(results) = 5;
  EXPECT_EQ(results.Get_GatewayAddress(), "");
  RPCConf::SetNetwork::CParams params;
  for (const int count : {0, -1}) params.SetSize_DNSAddresses(count);
  EXPECT_FALSE(params.hasMember("DNSAddresses"));
  for (const int count : {1, 2, 1, 3}) params.SetSize_DNSAddresses(count), params["DNSAddresses"][0] = "8.8.8.8";
  EXPECT_EQ(params["DNSAddresses"].toXml(1), "<va><ar><da><va>8.8.8.8</va><va></va><va></va></da></ar></va>");
}

TEST(Transport, ReadsOneResponseHoweverItArrivesAndReportsAPeerThatCloses) {
  using namespace std::string_literals;
  const std::string noHead = "readHeader() failed!", noBody = "readResponse() failed!";
  const std::tuple<bool, unsigned long, std::vector<std::string>, int, std::string> rows[] = {
      {false, 300, {HEAD, "bo", "dy"}, 0, "body"},
      {false, 300, {"CONTENT-LEN", "GTH: 4\r\n\r", "\nb", "ody and more"}, 0, "body and more"},
      {false, 300, {HEAD + "bo\0xxxx"s, "d\0"s}, 0, "bod\0"s},  // the first piece counts up to its zero byte
      {false, 300, {"Content-length: 0\r\n\r\nx"}, -4317, noHead},
      {false, 300, {HEAD}, -3560, noHead},
      {false, 300, {"Content-length: 2147483647\n\nbo"}, -3560, noBody},
      {true, 0, {}, -4324, noHead},
      {true, 0, {HEAD, "bo"}, -4324, noBody},
      {true, 500, {HEAD, "bo"}, -6915, noBody}};
  for (const auto& [closes, timeout, pieces, status, body] : rows) {
    LoopbackPeer peer([closes = closes, &pieces = pieces](int connection) {
      while (!ReadUpTo(connection, "<call/>").empty()) {
        for (const std::string& piece : pieces) Write(connection, piece), Pause();
        if (closes) return;
      }
    });
    XmlRpcClientTransportHTTP transport;
    Configure(transport, peer.port);
    ASSERT_EQ(timeout == 0 ? transport.Connect() : transport.Connect(timeout), 0);
    std::string response;
    for (int round = closes ? 1 : 0; round < 2; ++round) {  // nothing of the first is left over for the second
      EXPECT_EQ(transport.execute("<call/>", response), status) << testing::PrintToString(pieces);
      EXPECT_EQ(response, status == 0 ? body : Fault(body, status));
    }
    EXPECT_EQ(transport.TestConnection(), 0) << "a failed exchange leaves the flag alone";
    EXPECT_TRUE(transport.Disconnect() == 0 && transport.TestConnection() == -3415);
    EXPECT_EQ(transport.execute("<call/>", response), -4323);
    EXPECT_EQ(response, Fault("Transmission failed!", -1));
  }
}

TEST(Transport, DropsLineEndsOnTheIdleConnectionAndSeesWhatElseThereIs) {
  using namespace std::string_literals;
  const std::tuple<std::string, bool, bool> rows[] = {{"", false, false},
                                                      {"\r\n", false, false},
                                                      {"\n\r\r\n", false, false},
                                                      {"x", false, true},
                                                      {"\0"s, false, true},
                                                      {"\r\nx", false, true},
                                                      {std::string(9999, '\n'), false, true},
                                                      {"\n", true, true}};
  for (const auto& [behind, closes, hasInput] : rows) {
    std::promise<void> sent, asked;
    LoopbackPeer peer([&, text = behind, ends = closes](int connection) {
      if (ReadUpTo(connection, "<call/>").empty()) return;
      Write(connection, HEAD + "body");
      asked.get_future().wait();
      Write(connection, text);
      if (ends) shutdown(connection, SHUT_WR);
      sent.set_value();
      ReadUpTo(connection, "the end");
    });
    XmlRpcClientTransportHTTP transport;
    EXPECT_FALSE(transport.HasInput()) << "not connected";
    Configure(transport, peer.port);
    transport.Connect(2000);
    std::string response;
    EXPECT_EQ(transport.execute("<call/>", response), 0);
    asked.set_value();
    sent.get_future().wait();
    EXPECT_EQ(transport.HasInput(), hasInput) << testing::PrintToString(behind.substr(0, 9)) << closes;
  }
}

TEST(Transport, ConnectsAsConfiguredLosesNoDescriptorAndSendsTheseBytes) {
  XmlRpcClientTransportHTTP unconfigured, refused, transport;
  EXPECT_TRUE(Configure(refused, 65536) == -4318 && Configure(refused, 1, "") == -4318 &&
              Configure(refused, 1, 127) == -4318);
  EXPECT_TRUE(Configure(refused, 70000, "::") == 0 && Configure(refused, 1) == 0);
  const int before = CountDescriptors();
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(unconfigured.Connect() == -4320 && refused.Connect(500) == -4320);
  EXPECT_TRUE(CountDescriptors() == before && refused.timeout == 0);

  std::promise<std::string> sent;
  LoopbackPeer peer([&](int connection) {
    const std::string request = ReadUpTo(connection, "<call/>");
    if (!request.empty()) sent.set_value(request), Write(connection, HEAD + "body");
  });
  Configure(transport, peer.port);
  ASSERT_EQ(transport.Connect(), 0);
  transport.connected = false;  // by an owner that means to begin anew: the peer sees the end of the first connection
  ASSERT_TRUE(transport.Connect() == 0 && transport.Connect(2000) == 0);
  EXPECT_EQ(transport.timeout, 2000U) << "stored although it was connected";
  std::string text = "<call/>";
  EXPECT_TRUE(transport.execute(text, text, 1) == 0 && text == "body") << "request and response may be one string";
  EXPECT_EQ(sent.get_future().get(),
            "POST /RPC2 HTTP/1.1\r\nUser-Agent: TARNXMLRPC++ 1.0\r\nHost: tarn-device:1200\r\n"
            "Content-Type: text/xml\r\nContent-length: 7\r\n\r\n<call/>");
}

TEST(TagHelpers, MoveTheOffsetOnlyOnSuccess) {
  using Util = XmlRpcUtil;
  const std::string xml = " \t\r\n\v\f<a> <a/><a /><a> 1 </a> <t x> <u";
  int at = 0;
  for (const char* const other : {"<A>", "<a", "x<a>"}) EXPECT_FALSE(Util::nextTagIs("<a>", other, &at)) << other;
  for (const char* const other : {"<a>", "<a /", "<a"}) EXPECT_FALSE(Util::nextTagIs("<a>", other, &at, true)) << other;
  EXPECT_TRUE(Util::parseTag("<a>", "</a><a>1", &at).empty() && Util::getNextTag("x<t>", &at).empty() && at == 0);
  EXPECT_TRUE(Util::nextTagIs("<a>", xml, &at) && at == 9) << at;
  EXPECT_TRUE(Util::nextTagIs("<a>", xml, &at, true) && Util::nextTagIs("<a>", xml, &at, true) && at == 19) << at;
  EXPECT_TRUE(Util::parseTag("<a>", xml, &at) == " 1 " && at == 29) << at;
  EXPECT_TRUE(Util::getNextTag(xml, &at) == "<t x>" && Util::getNextTag(xml, &at) == "<u" && at == 38) << at;
  for (int outside : {-1, 3, 4, 1 << 30}) EXPECT_FALSE(Util::findTag("<a>", "<a>", &outside)) << outside;
}

TEST(Documents, HaveTheFiveEntitiesAndTheirEnvelopes) {
  EXPECT_EQ("&lt;&gt;&amp;&apos;&quot;\xe4", XmlRpcUtil::xmlEncode("<>&'\"\xe4"));
  EXPECT_EQ("<>'\"& &lt; &#65; &&< &l a&",
            XmlRpcUtil::xmlDecode("&lt;&gt;&apos;&quot;&amp; &amp;lt; &#65; &&&lt; &l a&"));
  const std::string head = "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\r\n<methodResponse>";
  const std::string code = "<member><name>faultCode</name><value><i4>-1</i4></value></member>";
  const std::string message = "<member><name>faultString</name><value>a&lt;b</value></member>";
  const std::string fault = "<fault>\r\n\t<value><struct>" + code + message + "</struct></value>\r\n</fault>";
  EXPECT_EQ(head + fault + "</methodResponse>\r\n", Fault("a<b", -1));
  std::string out = "old";
  XmlRpcUtil::generateResponse(out, out);
  EXPECT_EQ(head + "<params><param>\r\n\told\r\n</param></params></methodResponse>\r\n", out);
}

TEST(Log, GoesUpToTheVerbosityCutTo1022Characters) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  XmlRpcUtil::log(0, "%d", 1);
  XmlRpcUtil::log(1, "too deep");
  DefaultLogHandler().log(1, "not at this verbosity");
  setVerbosity(3);
  XmlRpcUtil::log(3, "now");
  setVerbosity(0);
  XmlRpcUtil::error("%s", std::string(5000, 'x').c_str());
  EXPECT_EQ("1\nnow\n", testing::internal::GetCapturedStdout());
  EXPECT_EQ(std::string(1022, 'x') + "\n", testing::internal::GetCapturedStderr());
}

/// Standard output as a small pipe while it exists.
struct StandardOutputPipe {
  StandardOutputPipe() {
    std::fflush(stdout);
    EXPECT_EQ(0, pipe2(ends, O_NONBLOCK));
    dup2(ends[1], STDOUT_FILENO);
  }
  ~StandardOutputPipe() {
    dup2(console, STDOUT_FILENO);
    for (const int descriptor : {console, ends[0], ends[1]}) close(descriptor);
  }
  void Fill() const {
    while (write(ends[1], std::string(4096, '.').data(), 4096) > 0) continue;
    fcntl(ends[1], F_SETFL, 0);
  }
  std::string Take() const {
    std::string all;
    char piece[4096];
    for (ssize_t n; (n = read(ends[0], piece, sizeof piece)) > 0;) all.append(piece, static_cast<std::size_t>(n));
    return all;
  }
  const int console = dup(STDOUT_FILENO);
  int ends[2] = {};
};

TEST(Log, NeverBlocksAndKeepsItsLineBreak) {
  alarm(60);  // ends a test that blocks
  const StandardOutputPipe output;
  const auto log = [](const std::string& text) { DefaultLogHandler().log(0, text.c_str()); };
  std::printf("started ");
  log(std::string(5000, 'x'));
  EXPECT_EQ(output.Take(), "started " + std::string(4095, 'x') + "\n");

  std::printf("kept");
  output.Fill();
  log("dropped");
  EXPECT_EQ(output.Take().find_first_not_of('.'), std::string::npos);
  flockfile(stdout);
  std::thread([&] { log("passes"); }).join();
  funlockfile(stdout);
  EXPECT_EQ(output.Take(), "passes\n");
  std::fflush(stdout);
  EXPECT_EQ(output.Take(), "kept");
  alarm(0);
}

}  // namespace
