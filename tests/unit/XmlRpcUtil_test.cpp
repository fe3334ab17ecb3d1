#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <thread>

#include "tests/model/PlainReader.h"
#include "xmlrpc/XmlRpcLogHandler.h"
#include "xmlrpc/XmlRpcUtil.h"

using namespace TarnXmlRpc;

namespace {

TEST(XmlRpcUtil, ScansTagsLikeTheModel) {
  using U = XmlRpcUtil;
  std::mt19937 random(1);
  const std::string pieces[] = {"<a>", "</a>", "<a/>", "<a />", "<a", "x", " ", "\n\v", "<t x>", "/>", "</", ">"};
  for (int i = 0; i < 50000 && !testing::Test::HasFailure(); ++i) {
    std::string xml;
    for (auto n = random() % 7; n > 0; --n) xml += pieces[random() % 12];
    const char* const tag = i % 8 == 0 ? "" : i % 8 == 1 ? "<" : i % 8 == 2 ? "<A>" : "<a>";
    const int offset = i % 4 > 0 ? 0 : static_cast<int>(random() % (xml.size() + 4)) - 2;
    const auto same = [&](const auto& model, const auto& helper) {
      auto at = static_cast<std::size_t>(offset);  // a negative one is past every end
      int moved = offset;
      EXPECT_EQ(model(at), helper(&moved)) << "'" << tag << "' from " << offset << " of '" << xml << "'";
      EXPECT_EQ(static_cast<int>(at), moved) << "'" << tag << "' from " << offset << " of '" << xml << "'";
    };
    same([&](auto& at) { return PlainNextTagIs(tag, xml, at); }, [&](int* at) { return U::nextTagIs(tag, xml, at); });
    same([&](auto& at) { return PlainEmptyTagIs(tag, xml, at); },
         [&](int* at) { return U::nextTagIs(tag, xml, at, true); });
    same([&](auto& at) { return PlainFindTag(tag, xml, at); }, [&](int* at) { return U::findTag(tag, xml, at); });
    same([&](auto& at) { return PlainParseTag(tag, xml, at); }, [&](int* at) { return U::parseTag(tag, xml, at); });
    same([&](auto& at) { return PlainNextTag(xml, at); }, [&](int* at) { return U::getNextTag(xml, at); });
  }
}

TEST(XmlRpcUtil, CodesEntitiesLikeTheModel) {
  std::mt19937 random(2);
  const std::string pieces[] = {"&lt;", "&gt;", "&amp;", "&apos;", "&quot;", "&",
                                "&l",   "t;",   "&#65;", "x",      "<",      "\xe4"};
  for (int i = 0; i < 20000; ++i) {
    std::string text;
    for (auto n = random() % 6; n > 0; --n) text += pieces[random() % 12];
    if (i % 100 == 0) text.append(1020, 'y').append(pieces[random() % 12]);
    ASSERT_EQ(PlainDecode(text), XmlRpcUtil::xmlDecode(text));
    ASSERT_EQ(PlainEncode(text), XmlRpcUtil::xmlEncode(text));
  }
}

TEST(XmlRpcUtil, PutsResultsAndFaultsIntoTheirEnvelopes) {
  const std::string head = "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\r\n<methodResponse>";
  std::string out = "old";
  XmlRpcUtil::generateResponse(out, out);
  EXPECT_EQ(head + "<params><param>\r\n\told\r\n</param></params></methodResponse>\r\n", out);
  XmlRpcUtil::generateFaultResponse(out, "a<b", -1);
  EXPECT_EQ(head +
                "<fault>\r\n\t<value><struct><member><name>faultCode</name><value><i4>-1</i4></value></member>"
                "<member><name>faultString</name><value>a&lt;b</value></member></struct></value>\r\n</fault>"
                "</methodResponse>\r\n",
            out);
}

TEST(Log, GoesUpToTheVerbosityCutTo1022CharactersAndNowhereWithoutAHandler) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  XmlRpcUtil::log(0, "%d", 1);
  XmlRpcUtil::log(1, "too deep");
  DefaultLogHandler().log(1, "not at this verbosity");
  setVerbosity(3);
  EXPECT_EQ(3, getVerbosity());
  XmlRpcUtil::log(3, "now");
  setVerbosity(0);
  XmlRpcUtil::error("%s", std::string(5000, 'x').c_str());
  auto* const logHandler = std::exchange(XmlRpcLogHandler::m_pLogHandler, nullptr);
  auto* const errorHandler = std::exchange(XmlRpcErrorHandler::m_pErrorHandler, nullptr);
  XmlRpcUtil::log(0, "nobody");
  XmlRpcUtil::error("nobody");
  XmlRpcLogHandler::m_pLogHandler = logHandler;
  XmlRpcErrorHandler::m_pErrorHandler = errorHandler;
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

  // A terminal that poll() calls writable may have too little room for what is pending.
  int terminal[2] = {};
  ASSERT_EQ(openpty(&terminal[0], &terminal[1], nullptr, nullptr, nullptr), 0);
  dup2(terminal[1], STDOUT_FILENO);
  for (int i = 0; i < 100; ++i) {
    std::fwrite(std::string(3000, 'x').data(), 1, 3000, stdout);
    log("told");
    __fpurge(stdout);
  }
  for (const int descriptor : terminal) close(descriptor);
  alarm(0);
}

}  // namespace
