#include <SimpleIni.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "xmlrpc/XmlRpcValue.h"

using TarnXmlRpc::XmlRpcValue;

namespace {

struct IniFile : testing::Test {
  IniFile() {
    char name[] = "/tmp/tarn-ini-XXXXXX";
    close(mkstemp(name));
    path = name;
  }
  ~IniFile() override { std::remove(path.c_str()); }

  std::string text() const {
    std::stringstream all;
    all << std::ifstream(path).rdbuf();
    return all.str();
  }
  XmlRpcValue read(const std::string& ini) const {
    std::ofstream(path) << ini;
    XmlRpcValue value(7);
    EXPECT_TRUE(value.fromINIFile(path));
    return value;
  }

  std::string path;
};

}  // namespace

TEST_F(IniFile, HoldsScalarsBySectionAndGivesThemBackAsStrings) {
  XmlRpcValue value;
  value["flag"] = true;
  value["n"] = -5;
  value["ratio"] = 0.1234567;
  value["nothing"] = -NAN;
  value["text"] = " a=b ";
  value["sub"]["inner"] = "x";
  value["sub"]["deep"]["key"] = 1;
  ASSERT_TRUE(value.toINIFile(path));
  EXPECT_EQ(
      "flag = true\nn = -5\nnothing = nan\nratio = 0.123457\ntext =  a=b \n\n\n[deep]\nkey = 1\n\n\n[sub]\ninner = x\n",
      text());
  XmlRpcValue back;
  ASSERT_TRUE(back.fromINIFile(path));
  EXPECT_EQ("-5", back["n"].getString());
  EXPECT_EQ("true", back["flag"].getString());
  EXPECT_EQ("a=b", back["text"].getString());
  EXPECT_EQ("1", back["deep"]["key"].getString());
  EXPECT_EQ("x", back["sub"]["inner"].getString());
}

TEST_F(IniFile, TakesNoOtherTypeAndThenLeavesTheFileAlone) {
  const XmlRpcValue others[] = {XmlRpcValue(), 1LL, std::tm(), std::vector<char>()};
  for (const XmlRpcValue& other : others) {
    XmlRpcValue value;
    value["a"] = "kept";
    value["b"] = other;
    std::ofstream(path) << "before";
    EXPECT_FALSE(value.toINIFile(path));
    EXPECT_EQ("before", text());
    XmlRpcValue::Ini ini;
    EXPECT_FALSE(value.toINIFile(ini, "", ""));
    EXPECT_STREQ("kept", ini.GetValue("", "a"));
    EXPECT_FALSE(value.toINIFile(ini, nullptr, ""));
    EXPECT_FALSE(value.toINIFile(ini, "", nullptr));
  }
  XmlRpcValue value("x");
  EXPECT_FALSE(value.toINIFile("/nonexistent/file"));
  EXPECT_FALSE(value.toINIFile("/dev/full"));
  EXPECT_FALSE(value.fromINIFile("/nonexistent/file"));
  EXPECT_EQ("x", value.getString());
}

TEST_F(IniFile, ReadsSectionsAsStructsAndTheLastOfEqualKeys) {
  XmlRpcValue value = read("k = 1\nk = 2\n[empty]\n[S]\nm = line 1\nline 2\n");
  EXPECT_EQ("2", value["k"].getString());
  EXPECT_EQ(XmlRpcValue::TypeStruct, value.getMemberType("empty"));
  EXPECT_EQ(0, value["empty"].size());
  EXPECT_EQ("line 1", value["S"]["m"].getString());
  EXPECT_FALSE(read("").valid());
}
