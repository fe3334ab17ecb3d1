#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <random>
#include <sstream>
#include <string>

#include "tests/fuzz/LiteralReader.h"
#include "xmlrpc/XmlRpcValue.h"

using TarnXmlRpc::XmlRpcValue;

namespace {

std::string Repeated(const std::string& text, std::size_t count) {
  std::string all;
  for (; count > 0; --count) all += text;
  return all;
}

/// What `xml` reads as, in the compact form with its type; "-" where it cannot be read.
std::string Read(const std::string& xml, int* offset) {
  XmlRpcValue value("held before");
  const int start = *offset;
  if (!value.fromXml(xml, offset)) {
    EXPECT_EQ(start, *offset);
    EXPECT_FALSE(value.valid());
    EXPECT_EQ(0, value.getTagSet());
    return "-";
  }
  std::ostringstream text;
  text << static_cast<int>(value.getType()) << (value.getTagSet() == 1 ? "s " : " ") << value;
  return text.str();
}

}  // namespace

TEST(XmlWriting, UsesUntypedStringsTheI4TagAndTheChosenSet) {
  std::tm time = {};
  time.tm_year = 2024;
  time.tm_mon = 1;
  time.tm_mday = 5;
  time.tm_hour = 7;
  XmlRpcValue array, structure;
  array.assertArray(0);
  structure["b&"] = 1;
  structure["a"][0] = "x";
  const struct {
    XmlRpcValue value;
    const char* longForm;
    const char* shortForm;
  } rows[] = {
      {XmlRpcValue(), "", ""},
      {true, "<value><boolean>1</boolean></value>", "<va><bo>1</bo></va>"},
      {5, "<value><i4>5</i4></value>", "<va><i4>5</i4></va>"},
      {INT_MIN, "<value><i4>-2147483648</i4></value>", "<va><i4>-2147483648</i4></va>"},
      {LLONG_MIN, "<value><i8>-9223372036854775808</i8></value>", "<va><i8>-9223372036854775808</i8></va>"},
      {1e300, "<value><double>1e+300</double></value>", "<va><do>1e+300</do></va>"},
      {-0.0, "<value><double>-0</double></value>", "<va><do>-0</do></va>"},
      {-INFINITY, "<value><double>-inf</double></value>", "<va><do>-inf</do></va>"},
      {-NAN, "<value><double>nan</double></value>", "<va><do>nan</do></va>"},
      {0.1, "<value><double>0.1</double></value>", "<va><do>0.1</do></va>"},
      {"a<b\xff", "<value>a&lt;b\xff</value>", "<va>a&lt;b\xff</va>"},
      {time, "<value><dateTime.iso8601>20240105T07:00:00</dateTime.iso8601></value>",
       "<va><dtime>20240105T07:00:00</dtime></va>"},
      {std::vector<char>{'\0', '\xff'}, "<value><base64>AP8=</base64></value>", "<va><b64>AP8=</b64></va>"},
      {array, "<value><array><data></data></array></value>", "<va><ar><da></da></ar></va>"},
      {structure,
       "<value><struct><member><name>a</name><value><array><data><value>x</value></data></array></value></member>"
       "<member><name>b&amp;</name><value><i4>1</i4></value></member></struct></value>",
       "<va><st><me><na>a</na><va><ar><da><va>x</va></da></ar></va></me>"
       "<me><na>b&amp;</na><va><i4>1</i4></va></me></st></va>"}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.longForm, row.value.toXml(0));
    EXPECT_EQ(row.longForm, row.value.toXml(7));
    EXPECT_EQ(row.shortForm, row.value.toXml(1));
  }
  EXPECT_EQ("", XmlRpcValue(5).stringToXml(0));
  EXPECT_EQ("<va><i4>5</i4></va>", XmlRpcValue(5).intToXml(1));
  EXPECT_EQ(50 + 18 + 2 * 3, [] {
    XmlRpcValue v;
    v[0] = "abc";
    return v.toXmlSize(0);
  }());
  EXPECT_EQ(23 + 24 + 23, [] {
    XmlRpcValue v;
    v["a long member name"] = true;
    return v.structToXmlSize(1);
  }());
}

TEST(XmlWriting, OfDoublesFollowsTheFormatLikePrintf) {
  const std::string before = XmlRpcValue::m_DoubleFormat;
  XmlRpcValue::m_DoubleFormat = "%.3f";
  EXPECT_EQ("<value><double>0.500</double></value>", XmlRpcValue(0.5).toXml(0));
  EXPECT_EQ("<value><double>nan</double></value>", XmlRpcValue(NAN).toXml(0));
  EXPECT_EQ(15U + 254U + 17U, XmlRpcValue(1e300).toXml(0).size());
  XmlRpcValue::m_DoubleFormat = before;
  std::mt19937_64 random(1);
  for (int i = 0; i < 20000; ++i) {
    const std::uint64_t bits = random();
    double number = 0;
    std::memcpy(&number, &bits, sizeof number);
    char expected[64];
    std::snprintf(expected, sizeof expected, "%.15g", number);
    if (!std::isnan(number)) {
      EXPECT_EQ("<va><do>" + std::string(expected) + "</do></va>", XmlRpcValue(number).toXml(1));
    }
  }
}

TEST(XmlReading, FollowsEachRule) {
  const struct {
    const char* xml;
    const char* result;
    int offset;  // after reading
  } rows[] = {
      {" <value><string>x</string></value> ", "4 x", 34},
      {"<value>x</value>", "4 x", 16},
      {"<value></value>", "4 ", 15},
      {"<value>  </value>", "4   ", 17},
      {"<value> x </value>", "4  x ", 18},
      {"<va>a&lt;b</va>", "4s a<b", 15},
      {"<value>open", "-", 0},
      {"<value>open<", "4 open", 11},
      {"<value><str>x</str></value>", "-", 0},
      {"<va><string>x</string></va>", "-", 0},
      {"<value><boolean> +1</boolean></value>", "1 1", 37},
      {"<value><boolean>2</boolean></value>", "-", 0},
      {"<value><boolean>4294967297</boolean></value>", "-", 0},
      {"<value><boolean></boolean></value>", "-", 0},
      {"<value><i4>4294967297</i4></value>", "2 1", 34},
      {"<value><int>99999999999999999999</int></value>", "2 -1", 46},
      {"<value><i8>99999999999999999999</i8></value>", "9 9223372036854775807", 44},
      {"<value><i8>-99999999999999999999</i8></value>", "9 -9223372036854775808", 45},
      {"<va><i4>5x</i4></va></va>", "2s 5", 20},
      {"<value><i4>5", "2 5", 12},
      {"<value><i4>5<value>y</value>", "2 5", 28},
      {"<value><double> +1.5e1</double></value>", "3 15", 39},
      {"<value><double>0x1p4</double></value>", "3 16", 37},
      {"<value><double>1e999</double></value>", "3 inf", 37},
      {"<value><double>NaN</double></value>", "3 nan", 35},
      {"<value><double>xyz</double></value>", "3 nan", 35},
      {"<value><double>zebra</double></value>", "3 nan", 37},
      {"<value><double>abc</double></value>", "-", 0},
      {"<va><dtime>20240105T07:08:09</dtime></va>", "5s 20240105T07:08:09", 41},
      {"<va><dtime> 24 1 5T 7: 8: 9 junk</dtime></va>", "5s   240105T07:08:09", 45},
      {"<va><dtime>20240105 07:08:09</dtime></va>", "-", 0},
      {"<va><dtime>20240105T07:08</dtime></va>", "-", 0},
      {"<value><base64>Zm9v</base64></value>", "6 Zm9v", 36},
      {"<value><base64>Zm9</base64></value>", "6 ", 35},
      {"<value><array><data/></array></value>", "7 {}", 37},
      {"<va><ar> <da /></ar></va>", "7s {}", 25},
      {"<va><ar><da><va><i4>1</i4></va><value>x</value></da></ar></va>", "7s {1,x}", 62},
      {"<va><ar><va>1</va></ar></va>", "-", 0},
      {"<value><struct></struct></value>", "8 []", 32},
      {"<value><struct><member><name>x&amp;y</name><value>1</value></member></struct></value>", "8 [x&amp;y:1]", 85},
      {"<va><st><me><na>a</na><va>1</va></me><me><na>a</na><va>2</va></me></st></va>", "8s [a:1]", 76},
      {"<va><st><me><na>a</na></me></st></va>", "-", 0},
      {"<va><st><me><va>1</va></me></st></va>", "8s [:1]", 37},
      {"<value><nil/></value>", "-", 0},
      {"<value><string/></value>", "-", 0},
      // The array ends before the malformed struct, and the value ends at the next end tag there is.
      {"<va><ar><da><va><st><me><na>a</na><va>1</va></me><me>bad</me></st></va></da></ar></va>", "7s {}", 44},
  };
  for (const auto& row : rows) {
    int offset = 0;
    EXPECT_EQ(row.result, Read(row.xml, &offset)) << row.xml;
    EXPECT_EQ(row.offset, offset) << row.xml;
  }
}

TEST(XmlReading, FromAnOffsetOutsideTheTextFails) {
  const std::string xml = "<value>x</value>";
  for (int offset : {-1, INT_MIN, 17, INT_MAX}) EXPECT_EQ("-", Read(xml, &offset));
  for (int offset : {1, 16}) EXPECT_EQ("-", Read(xml, &offset));
}

TEST(XmlReading, OfOneTypeUsesTheTagSetAndReleasesWhatWasHeld) {
  XmlRpcValue value;
  int offset = 0;
  ASSERT_TRUE(value.fromXml("<va><st></st></va>", &offset));
  offset = 1;
  EXPECT_TRUE(value.arrayFromXml(" <da><va>1</va></da></ar>", &offset));
  EXPECT_EQ(20, offset);
  EXPECT_EQ("1", value[0].getString());
  EXPECT_EQ(1, value.getTagSet());
  offset = 0;
  EXPECT_TRUE(value.stringFromXml("&lt;&lt;<", &offset));
  EXPECT_EQ(2, offset);
  offset = 0;
  EXPECT_FALSE(value.structFromXml("<me><na>a</na></me>", &offset));
  EXPECT_EQ(0, offset);
  EXPECT_FALSE(value.valid());
  EXPECT_EQ(0, value.getTagSet());
}

TEST(XmlReading, RefusesWhatNestsTooDeepAsAWhole) {
  const std::string open = "<value><array><data>", close = "</data></array></value>";
  const auto nested = [&](std::size_t levels) { return Repeated(open, levels) + "<value/>" + Repeated(close, levels); };
  XmlRpcValue value;
  int offset = 0;
  ASSERT_TRUE(value.fromXml(nested(XmlRpcValue::MaximumDepth), &offset));
  EXPECT_EQ(static_cast<int>(nested(XmlRpcValue::MaximumDepth).size()), offset);
  offset = 0;
  EXPECT_EQ("-", Read(nested(XmlRpcValue::MaximumDepth + 1), &offset));
  EXPECT_EQ("-", Read("<va><ar><da><va>1</va>" + nested(1000000), &offset));
  EXPECT_EQ("-", Read(Repeated("<value><struct><member>", 1000000), &offset));
  EXPECT_FALSE(value.arrayFromXml("<data>" + nested(XmlRpcValue::MaximumDepth), &offset));
  // What the reader never enters does not count.
  EXPECT_EQ("4 x", Read("<value>x" + nested(1000), &offset));
}

TEST(XmlReading, AgreesWithTheLiteralRulesOnDocumentsOfOddPieces) {
  static const char* const pieces[] = {"<value>",
                                       "</value>",
                                       "<va>",
                                       "</va>",
                                       "<value><array><data>",
                                       "</data>",
                                       "<va><ar><da>",
                                       "</da>",
                                       "<value><struct><member><name>a</name>",
                                       "<va><st><me><na>b</na>",
                                       "<member>",
                                       "<me>",
                                       "</me>",
                                       "<name>",
                                       "</name>",
                                       "<na>",
                                       "</na>",
                                       "</member>",
                                       "<value>1</value>",
                                       "<va><i4>7</i4></va>",
                                       "<value><i4>",
                                       "2",
                                       " ",
                                       "<value><double>",
                                       "x"};
  std::mt19937 random(7);
  int compared = 0, read = 0;
  for (int i = 0; i < 20000; ++i) {
    std::string xml = "<value><array><data>";
    for (auto n = random() % 40; n > 0; --n) xml += pieces[random() % (sizeof pieces / sizeof *pieces)];
    LiteralReader literal(xml, 2000);
    LiteralReader::Node node;
    int literalOffset = 0, offset = 0;
    const bool expected = literal.read(node, &literalOffset);
    XmlRpcValue value;
    const bool success = value.fromXml(xml, &offset);
    if (literal.tooLong) continue;
    ++compared;
    read += success ? 1 : 0;
    ASSERT_EQ(expected, success) << xml;
    ASSERT_EQ(literalOffset, offset) << xml;
    ASSERT_TRUE(!success || LiteralReader::same(node, value)) << xml;
  }
  EXPECT_GT(compared, 15000);
  EXPECT_GT(read, 5000);
}

// Each of these would take minutes or longer if any text were looked at again for each value, member or level around
// it.
TEST(XmlReading, GetsThroughHostileDocuments) {
  constexpr std::size_t n = 30000;
  const std::string deep = Repeated("<value><array><data>", 200);
  const std::string jump = Repeated("<value><array><data><value><struct><member></value>", n);
  const std::string documents[] = {
      "<value><array><data>" + Repeated("<value><i4>1</i4>", n),
      "<value><struct>" + Repeated("<member><value>1</value></member>", n),
      "<value><struct>" + Repeated("<member><value>1</value></member>", n) + "<name>a",
      "<value><array><data>" + Repeated("<value><", n),
      "<value><array><data>" + jump + "<name>n</name><value><array><data>" + Repeated("<value>1</value>", n) +
          "</data></array></value><member>",
      "<value><array><data>" + jump + "<name>n</name><value>1</value></member>" +
          Repeated("<member><name>q</name><value>1</value></member>", n) + "<member>",
      "<value><array><data>" + jump + "<name>n</name>" + std::string(n * 20, ' ') + "<value>1</value></member><member>",
      deep + std::string(n * 100, ' ') + "<",
      "<value><struct>" + Repeated("<member><value>1</value>", n) + "<name>" + std::string(n * 100, 'n') + "<",
      deep + "<value><boolean>" + std::string(n * 100, '7'),
      Repeated("<value><array><data><value><struct><member><name>a</name>", 100) + "<value>1</value><value>2</value>"};
  for (const std::string& xml : documents) {
    XmlRpcValue value;
    int offset = 0;
    EXPECT_TRUE(value.fromXml(xml, &offset));
  }
}
