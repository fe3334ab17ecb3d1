#include "util/ResolverFile.h"

#include <array>

#include "tests/unit/SystemCalls.h"
#include "util/Shell.h"

TEST(ResolverFile, IsRewrittenWholeAndKeepsItsMode) {
  ASSERT_NE(nullptr, std::getenv("SANDBOX_HALT_MARK")) << "changes /etc: runs inside scripts/sandbox only";
  const std::string two = "nameserver 10.1.0.2\nnameserver 10.1.0.4\n";
  const std::tuple<const char*, std::array<const char*, 3>, bool, std::string> cases[] = {
      {"rm -f resolf.conf", {{"10.1.0.2", nullptr, "10.1.0.4"}}, true, two + "644\n"},
      {"chmod 600 resolf.conf; seq 99 >resolf.conf", {{nullptr, "", nullptr}}, true, "nameserver \n600\n"},
      {"chmod 400 resolf.conf; seq 99 >resolf.conf", {{nullptr}}, false, "400\n"},
      {"rm resolf.conf; ln -s far resolf.conf; rm -f far", {{"10.1.0.2", "10.1.0.4"}}, true, two + "777\n"},
      {"rm resolf.conf far; mkfifo far; ln -s far resolf.conf", {{"10.1.0.2"}}, false, ""},
      {"rm resolf.conf far; mkdir resolf.conf", {{"10.1.0.2"}}, false, ""},
      {"rmdir resolf.conf", {{}}, false, "644\n"}};
  alarm(60);  // a pipe that is waited for is waited for without end
  umask(077);
  const int before = CountDescriptors();
  for (const auto& [prepare, nameservers, isWritten, expected] : cases) {
    ASSERT_EQ(0, ul_RunCommand("cd /etc && " + std::string(prepare)));
    const auto& [first, second, third] = nameservers;
    EXPECT_EQ(isWritten, ResolverFile_Write({first, second, third})) << prepare;
    std::string found;
    ul_ReadCommand("cd /etc; test ! -f resolf.conf || { cat resolf.conf; stat -c %a resolf.conf; }", found);
    EXPECT_EQ(expected, found) << prepare;
  }
  EXPECT_EQ(before, CountDescriptors());
  alarm(0);
  EXPECT_EQ("open: 0\nfcntl: 0\n",
            WithEachCallFailing([] { return std::to_string(ResolverFile_Write({"10.1.0.2"})); }));
}
