#include <SimpleIni.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tests/unit/FailingAllocations.h"
#include "tests/unit/LoopbackPeer.h"
#include "xmlrpc/XmlRpcValue.h"

using TarnXmlRpc::XmlRpcValue;

namespace {

const std::string path = testing::TempDir() + "tarn-ini-" + std::to_string(getpid());

std::string Text() {
  std::ifstream file(path);
  unlink(path.c_str());
  return std::string(std::istreambuf_iterator<char>(file), {});
}

TEST(IniFile, HoldsScalarsBySectionAndGivesThemBackAsStrings) {
  XmlRpcValue value, read(7);
  value["n"] = -5;
  value["ratio"] = 0.1234567;
  value["nothing"] = -NAN;
  value["sub"]["inner"] = " a=b ";
  value["sub"]["deep"]["key"] = true;
  std::ofstream(path) << std::string(999, 'x');
  ASSERT_TRUE(value.toINIFile(path));
  const std::string text = Text();
  EXPECT_EQ(text, "n = -5\nnothing = nan\nratio = 0.123457\n\n\n[deep]\nkey = true\n\n\n[sub]\ninner =  a=b \n");
  for (const auto& [ini, expected] :
       {std::pair(text, "[deep:[key:true],n:-5,nothing:nan,ratio:0.123457,sub:[inner:a=b]]"),
        {"k = 1\nk = 2\n[empty]\n[S]\nm = line 1\nline 2\n", "[S:[m:line 1],empty:[],k:2]"},
        {"", ""}}) {
    std::ostringstream line;
    std::ofstream(path) << ini;
    EXPECT_TRUE(read.fromINIFile(path));
    EXPECT_EQ(ini, Text()) << "left alone";
    line << read;
    EXPECT_EQ(expected, line.str());
  }
}

TEST(IniFile, TakesNoOtherTypeAndThenLeavesTheFileAlone) {
  XmlRpcValue value("x");
  EXPECT_FALSE(value.toINIFile("/no/file"));
  EXPECT_FALSE(value.toINIFile("/dev/full"));
  EXPECT_FALSE(value.fromINIFile("/no/file"));
  EXPECT_EQ("x", value.getString());
  for (const XmlRpcValue& other : std::vector<XmlRpcValue>{XmlRpcValue(), 1LL, std::tm(), std::vector<char>()}) {
    XmlRpcValue::Ini ini;
    value = XmlRpcValue();
    value["a"] = "kept";
    value["b"] = other;
    std::ofstream(path) << "before";
    EXPECT_FALSE(value.toINIFile(path));
    EXPECT_FALSE(value.toINIFile(ini, "", ""));
    EXPECT_FALSE(value.toINIFile(ini, nullptr, ""));
    EXPECT_EQ("before", Text());
    EXPECT_STREQ("kept", ini.GetValue("", "a"));
  }
}

TEST(IniFile, IsClosedAlsoWhenMemoryRunsOut) {
  XmlRpcValue value, read(7);
  value["a"]["b"] = std::string(100, 'x');
  const int before = CountDescriptors();
  const auto isClosed = [&] { return CountDescriptors() == before; };
  const auto mustSucceed = [](bool done) {
    if (!done) throw std::bad_alloc();  // as some of it does within SimpleIni
  };
  FailEach([&] { mustSucceed(value.toINIFile(path)); }, isClosed, true);
  FailEach([&] { mustSucceed(read.fromINIFile(path)); }, isClosed, true);
  EXPECT_EQ(Text(), "[a]\nb = " + std::string(100, 'x') + "\n");
  EXPECT_EQ(value, read);
}

}  // namespace
