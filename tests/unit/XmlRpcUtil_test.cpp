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
  const std::string pieces[] = {"<a>",  "</a>",  "<a/>", "<a />", "<a", "\b",  " ",
                                "\t\r", "<t x>", "/>",   "</",    ">",  "\x0e"};
  for (int i = 0; i < 50000 && !testing::Test::HasFailure(); ++i) {
    std::string xml;
    for (auto n = random() % 7; n > 0; --n) xml += pieces[random() % 13];
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

TEST(Log, NeverBlocksAndKeepsItsLineBreak) {
  int pipe[2] = {}, terminal[2] = {};
  ASSERT_EQ(0, pipe2(pipe, O_NONBLOCK));
  ASSERT_EQ(0, openpty(&terminal[0], &terminal[1], nullptr, nullptr, nullptr));
  std::FILE* const console = std::exchange(stdout, fdopen(pipe[1], "w"));  // where failures are told, so none till then
  std::vector<char> buffer(10000);
  ASSERT_EQ(0, std::setvbuf(stdout, buffer.data(), _IOFBF, buffer.size()));
  std::vector<std::pair<std::string, std::string>> results;
  const auto log = [&](const std::string& text, const std::string& expected) {
    std::string all(100000, ' ');
    errno = EXDEV;
    DefaultLogHandler().log(0, text.c_str());
    const std::string error = errno == EXDEV ? "" : "another errno";
    const ssize_t size = read(pipe[0], all.data(), all.size());
    results.emplace_back(expected, error + all.substr(0, size < 0 ? 0 : static_cast<std::size_t>(size)));
  };
  alarm(60);  // ends a test that blocks
  const std::string most(4096, 'm');
  log("x", "x\n");
  std::printf("%s", most.c_str());
  log(std::string(5000, 'x'), most + std::string(4095, 'x') + "\n");
  std::printf("%s+", most.c_str());
  log("more is pending than is flushed", "more is pending than is flushed\n");
  __fpurge(stdout);
  std::printf("kept ");
  std::string full;
  for (; write(pipe[1], most.data(), most.size()) > 0; full += most) continue;
  fcntl(pipe[1], F_SETFL, 0);
  log("dropped", full);
  flockfile(stdout);
  std::thread([&] { log("another thread has it", "another thread has it\n"); }).join();
  funlockfile(stdout);
  log("x", "kept x\n");
  std::thread([&] { results.emplace_back("0", std::to_string(ftrylockfile(stdout))); }).join();
  stdout = fdopen(terminal[1], "w");  // which poll() may call writable with too little room for what is pending
  ASSERT_EQ(0, std::setvbuf(stdout, buffer.data(), _IOFBF, buffer.size()));
  for (int i = 0; i < 100; ++i) {
    std::printf("%s", most.substr(0, 3000).c_str());
    log("told", "");
    __fpurge(stdout);
  }
  alarm(0);
  stdout = console;
  for (const auto& [expected, result] : results) EXPECT_EQ(expected, result);
  for (const int descriptor : {pipe[0], pipe[1], terminal[0], terminal[1]}) close(descriptor);
}

}  // namespace
