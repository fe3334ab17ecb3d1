#include "xmlrpc/XmlRpcClient.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "xmlrpc/XmlRpcException.h"
#include "xmlrpc/XmlRpcLogHandler.h"

using TarnXmlRpc::XmlRpcClient;
using TarnXmlRpc::XmlRpcValue;

namespace {

/// Answers every request with the same text and status, and remembers what it was given.
struct FakeTransport : TarnXmlRpc::XmlRpcClientTransport {
  int SetCfg(XmlRpcValue&) override { return 0; }
  int Connect() override { return 0; }
  int Disconnect() override { return 0; }
  int execute(const std::string& request, std::string& response) override {
    sent = request;
    response = answer;
    return status;
  }
  int execute(const std::string& request, std::string& response, unsigned long timeout) override {
    if (timeout == 99) throw std::runtime_error(response = "broken");
    return execute(request, response);
  }
  std::string answer, sent;
  int status = 0;
};

struct Client : XmlRpcClient {
  using XmlRpcClient::XmlRpcClient;
  bool HoldsNothing() const { return request.empty() && response.empty(); }
};

struct LastError : TarnXmlRpc::XmlRpcErrorHandler {
  LastError() { m_pErrorHandler = this; }
  ~LastError() override { m_pErrorHandler = before; }
  void error(const char* msg) override { text = msg; }
  XmlRpcErrorHandler* const before = m_pErrorHandler;
  std::string text;
};

std::string FaultDocument(const XmlRpcValue& code) {
  XmlRpcValue fault;
  fault["faultCode"] = code;
  fault["faultString"] = "no";
  return "<methodResponse><fault>" + fault.toXml(0) + "</fault></methodResponse>";
}

TEST(Client, SendsOneParameterOrNone) {
  const std::string head =
      "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\r\n<methodCall><methodName>a&b</methodName>\r\n";
  const std::string end = "</methodCall>\r\n";
  FakeTransport transport;
  Client client(&transport);
  XmlRpcValue result, array, shortTags;
  array[0] = std::string("\0<", 2);
  int offset = 0;
  ASSERT_TRUE(shortTags.fromXml("<va><i4>5</i4></va>", &offset));
  const LastError quiet;

  client.execute("a&b", array, result);
  EXPECT_EQ(transport.sent, head + "<params><param><value><array><data><value>" + '\0' +
                                "&lt;</value></data></array></value></param></params>" + end);
  client.execute("a&b", shortTags, result);
  EXPECT_EQ(transport.sent, head + "<params><param><va><i4>5</i4></va></param></params>" + end);
  client.execute("a&b", "<raw>", result);
  EXPECT_EQ(transport.sent, head + "<params><param><raw></param></params>" + end);
  client.execute("a&b", XmlRpcValue(), result);
  EXPECT_EQ(transport.sent, head + end);
  client.execute("a&b", nullptr, result);
  EXPECT_EQ(transport.sent, head + end);
  result["a"] = 6;
  client.execute("a&b", result["a"], result);
  EXPECT_EQ(transport.sent, head + "<params><param><value><i4>6</i4></value></param></params>" + end)
      << "a part of the result is still there to be sent";
}

TEST(Client, EachFormHasItsStatus) {
  const std::string five = "<value><int>5</int></value>";
  const struct {
    std::string answer;
    int transportStatus, textForms, timedValueForm, valueForm;
    const char* error;
    bool valid, isFault;
  } cases[] = {
      {"<x><methodResponse> <params>\r\n<param>" + five, 0, 0, 0, 0, "", true, false},
      {FaultDocument(4), 0, 0, 4, 4, "", true, true},
      {FaultDocument(-4), 0, 0, -4, -4, "", true, true},
      {"<methodResponse><params><fault>" + five, 0, 0, 0, 0, "", true, true},
      {"<params><param>" + five, 0, -4317, 0, -4317, "Invalid response - no methodResponse", false, false},
      {"<methodResponse><params>" + five, 0, -4317, 0, -4317, "Invalid response - no param or fault tag", false, false},
      {"<methodResponse><fault><int>5</int>", 0, -4317, 0, -4317, "Invalid response value", false, true},
      {FaultDocument(4), -3560, -3560, -3560, -3560, "", false, false}};
  for (const auto& c : cases) {
    const LastError error;
    FakeTransport transport;
    transport.answer = c.answer;
    transport.status = c.transportStatus;
    Client client(&transport);
    XmlRpcValue result(1);
    EXPECT_EQ(client.execute("m", nullptr, result), c.textForms) << c.answer;
    EXPECT_EQ(client.execute("m", nullptr, result, 1), c.textForms) << c.answer;
    EXPECT_EQ(client.execute("m", XmlRpcValue(), result, 1), c.timedValueForm) << c.answer;
    EXPECT_EQ(client.execute("m", XmlRpcValue(), result), c.valueForm) << c.answer;
    EXPECT_EQ(result.valid(), c.valid) << c.answer;
    EXPECT_EQ(client.IsFault(), c.isFault) << c.answer;
    EXPECT_TRUE(client.HoldsNothing()) << c.answer;
    const std::string text = *c.error == '\0' ? "" : c.error + (". Response:\n" + c.answer);
    EXPECT_EQ(error.text, text.empty() ? text : "XmlRpcClient::parseResponse(): " + text);
  }
}

TEST(Client, KeepsNothingOfACallThatThrows) {
  FakeTransport transport;
  Client client(&transport);
  XmlRpcValue result(1);
  transport.answer = FaultDocument("a text is no status");
  EXPECT_THROW(client.execute("m", XmlRpcValue(), result), TarnXmlRpc::XmlRpcException);
  EXPECT_TRUE(client.HoldsNothing());
  EXPECT_THROW(client.execute("m", XmlRpcValue(), result, 99), std::runtime_error);
  EXPECT_TRUE(client.HoldsNothing());
  EXPECT_FALSE(result.valid());
}

TEST(Client, WithoutTransportMakesNoCall) {
  XmlRpcValue result(1);
  XmlRpcClient client(nullptr);
  EXPECT_EQ(client.execute("m", XmlRpcValue(), result), -9);
  EXPECT_FALSE(result.valid());
  FakeTransport transport;
  transport.answer = FaultDocument(7);
  client = XmlRpcClient(&transport);
  EXPECT_EQ(client.execute("m", XmlRpcValue(), result), 7);
}

}  // namespace
