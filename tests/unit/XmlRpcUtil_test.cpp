#include "xmlrpc/XmlRpcUtil.h"

#include <gtest/gtest.h>

#include "xmlrpc/XmlRpcLogHandler.h"
#include "xmlrpc/XmlRpcValue.h"

using namespace TarnXmlRpc;

namespace {

struct Collector : XmlRpcLogHandler, XmlRpcErrorHandler {
  Collector() {
    m_pLogHandler = this;
    m_pErrorHandler = this;
  }
  ~Collector() override {
    m_pLogHandler = logBefore;
    m_pErrorHandler = errorBefore;
    setVerbosity(0);
  }
  void log(int level, const char* msg) override { text += std::to_string(level) + ":" + msg + ";"; }
  void error(const char* msg) override { text += std::string("error:") + msg + ";"; }

  XmlRpcLogHandler* logBefore = m_pLogHandler;
  XmlRpcErrorHandler* errorBefore = m_pErrorHandler;
  std::string text;
};

}  // namespace

TEST(TagHelpers, MoveTheOffsetOnlyOnSuccess) {
  const auto next = [](const char* tag, const std::string& xml, int* o) {
    return XmlRpcUtil::nextTagIs(tag, xml, o) ? std::string("yes") : "";
  };
  const auto empty = [](const char* tag, const std::string& xml, int* o) {
    return XmlRpcUtil::nextTagIs(tag, xml, o, true) ? std::string("yes") : "";
  };
  const auto find = [](const char* tag, const std::string& xml, int* o) {
    return XmlRpcUtil::findTag(tag, xml, o) ? std::string("yes") : "";
  };
  const auto parse = [](const char* tag, const std::string& xml, int* o) { return XmlRpcUtil::parseTag(tag, xml, o); };
  const auto get = [](const char*, const std::string& xml, int* o) { return XmlRpcUtil::getNextTag(xml, o); };
  const struct {
    std::string (*look)(const char*, const std::string&, int*);
    const char* tag;
    const char* xml;
    int from;
    std::string result;
    int to;
  } rows[] = {{next, "<a>", " \t\r\n\v\f<a>", 0, "yes", 9},
              {next, "<a>", "<A>", 0, "", 0},
              {next, "<a>", "<a", 0, "", 0},
              {next, "<a>", "   ", 1, "", 1},
              {next, "<a>", "<a>", 4, "", 4},
              {next, "<a>", "<a>", -1, "", -1},
              {empty, "<da>", " <da />x", 0, "yes", 7},
              {empty, "<da>", "<da/>", 0, "yes", 5},
              {empty, "<da>", "<da>", 0, "", 0},
              {empty, "<da>", "<da /", 0, "", 0},
              {find, "</a>", "x</a>y", 0, "yes", 5},
              {find, "</a>", "x</a>y", 2, "", 2},
              {parse, "<n>", "x<n> 1 </n>y", 0, " 1 ", 11},
              {parse, "<n>", "</n><n>1", 0, "", 0},
              {get, "", "  <tag x> ", 0, "<tag x>", 9},
              {get, "", " <tag", 0, "<tag", 5},
              {get, "", " x<tag>", 0, "", 0}};
  for (const auto& row : rows) {
    int offset = row.from;
    EXPECT_EQ(row.result, row.look(row.tag, row.xml, &offset)) << row.tag << " in " << row.xml;
    EXPECT_EQ(row.to, offset) << row.tag << " in " << row.xml;
  }
}

TEST(Entities, AreTheFiveAndNothingElse) {
  EXPECT_EQ("&lt;&gt;&amp;&apos;&quot;\xe4", XmlRpcUtil::xmlEncode("<>&'\"\xe4"));
  const struct {
    const char* text;
    const char* decoded;
  } rows[] = {{"&#65;&amp;", "&#65;&"}, {"&lt;&gt;&apos;&quot;", "<>'\""},
              {"&amp;lt;", "&lt;"},     {"a&", "a&"},
              {"&&lt;&l", "&<&l"},      {"&LT;", "&LT;"}};
  for (const auto& row : rows) EXPECT_EQ(row.decoded, XmlRpcUtil::xmlDecode(row.text));
}

TEST(Responses, AreWholeDocuments) {
  std::string out = "old";
  XmlRpcUtil::generateResponse(out, out);
  EXPECT_EQ(
      "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\r\n<methodResponse><params><param>\r\n\told"
      "\r\n</param></params></methodResponse>\r\n",
      out);
  XmlRpcUtil::generateFaultResponse(out, "a<b", -1);
  EXPECT_EQ(
      "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\r\n<methodResponse><fault>\r\n\t<value><struct>"
      "<member><name>faultCode</name><value><i4>-1</i4></value></member>"
      "<member><name>faultString</name><value>a&lt;b</value></member>"
      "</struct></value>\r\n</fault></methodResponse>\r\n",
      out);
}

TEST(Log, GoesToTheHandlerUpToTheVerbosityCutTo1022Characters) {
  Collector collector;
  XmlRpcUtil::log(0, "%d", 1);
  XmlRpcUtil::log(1, "too deep");
  setVerbosity(3);
  XmlRpcUtil::log(3, "now");
  XmlRpcUtil::error("%s", "bad");
  EXPECT_EQ("0:1;3:now;error:bad;", collector.text);
  collector.text.clear();
  XmlRpcUtil::error("%s", std::string(5000, 'x').c_str());
  EXPECT_EQ("error:" + std::string(1022, 'x') + ";", collector.text);
}

TEST(Log, DefaultHandlersWriteALineEach) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  XmlRpcUtil::log(0, "to output");
  DefaultLogHandler().log(1, "not at this verbosity");
  XmlRpcUtil::error("to error");
  EXPECT_EQ("to output\n", testing::internal::GetCapturedStdout());
  EXPECT_EQ("to error\n", testing::internal::GetCapturedStderr());
}
