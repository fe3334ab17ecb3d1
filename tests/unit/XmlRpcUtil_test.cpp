#include <pty.h>
#include <stdio_ext.h>

#include <thread>

#include "tests/unit/Test.h"
#include "xmlrpc/XmlRpcLogHandler.h"
#include "xmlrpc/XmlRpcUtil.h"

using namespace TarnXmlRpc;

namespace {

TEST(XmlRpcUtil, ScansTagsByTheirPatterns) {
  using U = XmlRpcUtil;
  std::map<std::string, std::regex> known;
  const std::string tags[] = {"", "<", "<A>", "<a>"}, blank = "[ \t\n\v\f\r]", any = "[\\s\\S]*?",
                    next = blank + "*(?=[^ \t\n\v\f\r])", never = "[^\\s\\S]";
  const std::string pieces[] = {"<a>",  "</a>",  "<a/>", "<a />", "<a", "\b",  " ",
                                "\t\r", "<t x>", "/>",   "</",    ">",  "\x0e"};
  for (int i = 0; i < 20000 && !testing::Test::HasFailure(); ++i) {
    std::string xml;
    for (auto n = Random(7); n > 0; --n) xml += pieces[Random(13)];
    const int offset = i % 4 > 0 ? 0 : static_cast<int>(Random(xml.size() + 4)) - 2;
    int at = offset;
    // What the pattern has in brackets; the offset behind what it matches, here and nowhere else.
    const auto expect = [&](const std::string& pattern, const std::string& result) {
      const std::regex& regex = known.try_emplace(pattern, pattern).first->second;
      std::smatch match;
      const bool found =
          offset >= 0 && static_cast<std::size_t>(offset) <= xml.size() &&
          std::regex_search(xml.cbegin() + offset, xml.cend(), match, regex, std::regex_constants::match_continuous);
      EXPECT_EQ(found ? match.str(1) : "", result) << pattern << " from " << offset << " of '" << xml << "'";
      EXPECT_EQ(found ? offset + match.length() : offset, at) << pattern << " from " << offset << " of '" << xml << "'";
      at = offset;
    };
    const std::string &tag = tags[std::min(i % 8, 3)], open = tag.substr(0, std::max<std::size_t>(tag.size(), 1) - 1);
    const bool isTag = !tag.empty();
    expect(next + "(" + tag + ")", U::nextTagIs(tag.c_str(), xml, &at) ? tag : "");
    expect(any + "(" + tag + ")", U::findTag(tag.c_str(), xml, &at) ? tag : "");
    expect(isTag ? next + open + blank + "*(/" + tag.back() + ")" : never,
           U::nextTagIs(tag.c_str(), xml, &at, true) ? "/" + tag.substr(open.size()) : "");
    expect(isTag ? any + tag + "(" + any + ")</" + tag.substr(1) : never, U::parseTag(tag.c_str(), xml, &at));
    expect(blank + "*(<[^>]*>?)", U::getNextTag(xml, &at));
  }
}

TEST(XmlRpcUtil, CodesEntitiesPieceByPiece) {
  const char* const pieces[][3] = {
      // as it stands, decoded, encoded
      {"&lt;&gt;", "<>", "&amp;lt;&amp;gt;"}, {"&amp;", "&", "&amp;amp;"}, {"&apos;", "'", "&amp;apos;"},
      {"&quot;", "\"", "&amp;quot;"},         {"&", "&", "&amp;"},         {"&amp;lt;", "&lt;", "&amp;amp;lt;"},
      {"&#65;", "&#65;", "&amp;#65;"},        {"&l", "&l", "&amp;l"},      {"<>", "<>", "&lt;&gt;"},
      {"'\"", "'\"", "&apos;&quot;"},         {"\xe4", "\xe4", "\xe4"}};
  for (int i = 0; i < 20000; ++i) {
    std::string texts[3];
    for (std::string& text : texts) text.assign(i % 50 == 0 ? 1020 : 0, 'y');
    for (auto n = Random(6); n > 0; --n) {
      const auto& piece = pieces[Random(std::size(pieces))];
      for (std::size_t form = 0; form < 3; ++form) texts[form] += piece[form];
    }
    ASSERT_EQ(texts[1], XmlRpcUtil::xmlDecode(texts[0]));
    ASSERT_EQ(texts[2], XmlRpcUtil::xmlEncode(texts[0]));
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
  std::FILE* const console = stdout;       // where failures are told, so none till it is back
  static std::vector<char> buffer(10000);  // of streams that stay open
  std::vector<std::pair<std::string, std::string>> results;
  const auto open = [&](int descriptor) {
    stdout = fdopen(descriptor, "w");
    EXPECT_EQ(0, std::setvbuf(stdout, buffer.data(), _IOFBF, buffer.size()));
  };
  const auto log = [&](const std::string& text, const std::string& expected) {
    std::string all(100000, ' ');
    errno = EXDEV;
    DefaultLogHandler().log(0, text.c_str());
    const std::string error = errno == EXDEV ? "" : "another errno";
    const ssize_t size = read(pipe[0], all.data(), all.size());
    results.emplace_back(expected, error + all.substr(0, size < 0 ? 0 : static_cast<std::size_t>(size)));
  };
  alarm(60);  // ends a test that blocks
  open(pipe[1]);
  const std::string most(4096, 'm');
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
  std::thread([&] { results.emplace_back("0", std::to_string(ftrylockfile(stdout))), funlockfile(stdout); }).join();
  open(terminal[1]);  // which poll() may call writable with too little room for what is pending
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
