#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <sstream>

#include "xmlrpc/XmlRpcValue.h"

using TarnXmlRpc::XmlRpcValue;

namespace {

std::string Dump(const XmlRpcValue& value) {
  char* text = nullptr;
  std::size_t size = 0;
  std::FILE* stream = open_memstream(&text, &size);
  value.FilePrint(stream, "x", "  ");
  std::fclose(stream);
  const std::string dump(text, size);
  std::free(text);
  return dump;
}

std::string Line(XmlRpcValue value) {
  std::ostringstream stream;
  stream << value;
  return stream.str();
}

XmlRpcValue Array(const std::vector<XmlRpcValue>& elements) {
  XmlRpcValue array;
  array.assertArray(0);
  for (const auto& element : elements) array[array.size()] = element;
  return array;
}

std::tm Time() {
  std::tm time = {};
  time.tm_year = 124;
  time.tm_mday = 5;
  time.tm_hour = 7;
  return time;
}

}  // namespace

TEST(Print, ShowsEachTypeOnALineOfItsOwn) {
  XmlRpcValue structure, odd;
  structure["a"] = 1;
  odd.assertTypeOrInvalid(static_cast<XmlRpcValue::Type>(12));
  const std::string hundred(100, 'x');
  const struct {
    XmlRpcValue value;
    std::string dump, line;
  } rows[] = {
      {XmlRpcValue(), "  x, TypeInvalid\n", ""},
      {false, "  x = false, TypeBoolean\n", "0"},
      {-5, "  x = -5, TypeInt\n", "-5"},
      {std::numeric_limits<long long>::min(), "  x = -9223372036854775808, TypeInt64\n", "-9223372036854775808"},
      {-1.23456789012345e-100, "  x = -1.23456789012345e, TypeDouble\n", "-1.23457e-100"},
      {-std::numeric_limits<double>::quiet_NaN(), "  x = nan, TypeDouble\n", "-nan"},
      {hundred, "  x = \"" + hundred + "\", TypeString\n", hundred},
      {hundred + "y", "  x = \"" + hundred + "...\", TypeString\n", hundred + "y"},
      {Time(), "  x, TypeDateTime, 05.01.2024 07:00:00\n", " 1240005T07:00:00"},
      {std::vector<char>(), "  x, TypeBase64, size = 0\n", ""},
      {std::vector<char>{1, '\xff'}, "  x, TypeBase64, size = 2, data = 0x01, 0xffffffff, \n", "Af8="},
      {Array({1, "a", Array({})}),
       "  x, TypeArray, size = 3\n  x[0] = 1, TypeInt\n  x[1] = \"a\", TypeString\n  x[2], TypeArray, size = 0\n",
       "{1,a,{}}"},
      {structure, "  x, TypeStruct, size = 1\n  x[a] = 1, TypeInt\n", "[a:1]"},
      {odd, "  x, unknown type (12)\n", ""},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.dump, Dump(row.value));
    EXPECT_EQ(row.line, Line(row.value));
  }
}

TEST(Print, StopsAfterAHundredParts) {
  XmlRpcValue array, structure;
  array[100] = 1;
  for (int i = 0; i < 101; ++i) structure[std::to_string(1000 + i)] = i;
  const auto lines = [](const std::string& text) { return std::count(text.begin(), text.end(), '\n'); };
  EXPECT_EQ(101, lines(Dump(array)));
  EXPECT_EQ(101, lines(Dump(structure)));
  const std::string bytes = Dump(std::vector<char>(101));
  EXPECT_EQ("0x00, 0x00, ...\n", bytes.substr(bytes.size() - 16));
  EXPECT_EQ("0x00, 0x00, \n", Dump(std::vector<char>(100)).substr(36 + 98 * 6));
}

TEST(IniText, RendersBySectionWithTheSubstringRule) {
  XmlRpcValue inner, nested, other, list;
  inner["c"] = "x";
  nested["a"] = 1;
  nested["b"] = inner;
  other["b"] = inner;
  other["z"] = 1;
  list["f"] = Array({true, false, Array({7})});
  const struct {
    XmlRpcValue value;
    const char* section;
    const char* key;
    const char* text;
  } rows[] = {{nested, "Root", "", "[Root]\na=1\n[Root.b]\nc=x\n"},
              {other, "Root", "", "[Root.b]\nc=x\nz=1\n"},
              {nested, "", "", "[]\na=1\n[.b]\nc=x\n"},
              {5, "S", "", "[S]\nValue=5\n"},
              {list, "S", "", "[S]\nf|0|=1\nf|1|=0\nf|2||0|=7\n"},
              {Array({}), "S", "k", ""},
              {std::numeric_limits<long long>::min(), "S", "k", "[S]\nk=-92233720368547758\n"},
              {0.1, "S", "k", "[S]\nk=0.1\n"},
              {Time(), "S", "k", "[S]\nk=05.01.2024 07:00:00 (DD.MM.YYYY HH:MM:SS)\n"}};
  for (const auto& row : rows) {
    XmlRpcValue value = row.value;
    std::string out = "old";
    EXPECT_TRUE(value.toINIFormat(out, row.section, row.key));
    EXPECT_EQ(row.text, out);
    EXPECT_FALSE(value.fromINIFormat(out));
  }
}

TEST(IniText, BinaryDataFailsTheCallAndLosesNothingElse) {
  XmlRpcValue value;
  value["a"] = 1;
  value["b"] = std::vector<char>{'x'};
  value["c"] = Array({std::vector<char>(), 2, XmlRpcValue()});
  std::string out;
  EXPECT_FALSE(value.toINIFormat(out, "S", ""));
  EXPECT_EQ("[S]\na=1\nc|1|=2\n", out);
  XmlRpcValue invalid;
  EXPECT_FALSE(invalid.toINIFormat(out, "S", ""));
  EXPECT_EQ("", out);
}
