#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <functional>
#include <random>
#include <sstream>

#include "tests/unit/FailingAllocations.h"
#include "xmlrpc/XmlRpcClient.h"
#include "xmlrpc/XmlRpcClientTransportHTTP.h"
#include "xmlrpc/XmlRpcUtil.h"
#include "xmlrpc/XmlRpcValue.h"

using namespace TarnXmlRpc;

/// tests/fuzz/Value_fuzz.cpp: reads what the bytes say, compares it with the literal rules and aborts if they differ.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

static_assert(std::is_constructible_v<XmlRpcValue, short> && !std::is_constructible_v<XmlRpcValue, unsigned>);
static_assert(!std::is_constructible_v<XmlRpcValue, int*> && std::is_nothrow_move_assignable_v<XmlRpcValue>);

std::string Repeated(const std::string& text, std::size_t count) {
  std::string all;
  for (; count > 0; --count) all += text;
  return all;
}

/// What `xml` reads as, in the compact form with its type, and what is left of the text; "-" where it cannot be read.
std::string Read(const std::string& xml, XmlRpcValue& value, int start = 0) {
  int offset = start;
  if (!value.fromXml(xml, &offset)) {
    EXPECT_TRUE(start == offset && !value.valid() && value.getTagSet() == 0) << xml;
    return "-";
  }
  std::ostringstream text;
  text << value.getType() << (value.getTagSet() == 1 ? "s " : " ") << value;
  return text.str() + "|" + xml.substr(static_cast<std::size_t>(offset));
}

std::string Dump(const XmlRpcValue& value) {
  char text[4000] = "";
  std::FILE* const stream = fmemopen(text, sizeof text, "w");
  value.FilePrint(stream, "x", " ");
  std::fclose(stream);
  return text;
}

const std::string text = "a text long enough to be on the heap";
const std::string document =
    "<va><ar><da><va><bo>1</bo></va><va><i4>-5</i4></va><va><i8>1</i8></va><va><do>.5</do></"
    "va><va><b64>Zm9vYmFyZm9vYmFy"
    "Zm9vYmFyZm9v</b64></va><va><st><me><na>a</na><va>a text long enough to be on the heap</va></me><me><na>a name "
    "long "
    "enough to be there too</na><va><dtime>20240105T07:08:09</dtime></va></me></st></va></da></ar></va>";

XmlRpcValue OneOfEach() {
  XmlRpcValue v;
  Read(document, v);
  return v;
}

TEST(Value, AccessOfAnotherTypeOrPastTheEndThrowsAndChangesNothing) {
  XmlRpcValue number(5), array, data, fault, fresh;
  for (const int size : {-3, 3, 1}) array.assertArray(size), data.assertBinaryData(size);
  fault["faultCode"] = fault["faultString"] = "4";
  const XmlRpcValue invalid, constArray = array, constData = data;
  const std::pair<const char*, std::vector<std::function<void()>>> rows[] = {
      {"-4303 type error",
       {[&] { number.getInt64(); }, [&] { invalid.getInt(); }, [&] { number.getBinaryData(); },
        [&] { fault.GetFaultCode(); }}},
      {"-4304 type error: expected an array",
       {[&] { number[-1]; }, [&] { invalid.assertArray(0); }, [&] { invalid.elements(); }}},
      {"-4305 range error: array index too large",
       {[&] { constArray.assertArray(4); }, [&] { constArray[3]; }, [&] { fresh[-1]; }, [&] { fresh[INT_MAX]; }}},
      {"-4306 type error: expected a struct",
       {[&] { number["x"]; }, [&] { invalid.assertStruct(); }, [&] { array.members(); }}},
      {"-4325 type error: expected binary data",
       {[&] { number.assertBinaryData(1); }, [&] { invalid.assertBinaryData(0); }}},
      {"-4326 range error: index too large", {[&] { constData.assertBinaryData(4); }}},
      {"-4326 type error", {[&] { constData.getBinaryDataAt(-1); }, [&] { constData.getBinaryDataAt(3); }}}};
  for (const auto& [error, actions] : rows) {
    for (const auto& action : actions) {
      std::string thrown;
      try {
        action();
      } catch (const XmlRpcException& e) {
        thrown = std::to_string(e.getCode()) + " " + e.what();
      }
      EXPECT_EQ(error, thrown);
    }
  }
  EXPECT_TRUE(number == 5 && constArray.size() == 3 && constData.assertBinaryData(-1) == 3 && !fresh.valid());
}

TEST(Value, CopiesAreDeepAndMovesLeaveTheSourceInvalid) {
  XmlRpcValue original = OneOfEach(), copy(original);
  EXPECT_TRUE(original == copy && copy.getTagSet() == 1);
  copy[5]["a"].getString() += "!";
  EXPECT_TRUE(original != copy && original[5]["a"] == text);
  original = std::move(copy);
  EXPECT_TRUE(original.getTagSet() == 1 && !copy.valid() && copy.getTagSet() == 0);  // NOLINT: that is the promise
  original = 'c';
  EXPECT_TRUE(original == 99 && original.getTagSet() == 0);
}

template <typename T, typename = void>
constexpr bool isPrinted = false;
template <typename T>
constexpr bool isPrinted<T, std::void_t<decltype(std::declval<std::ostream&>() << std::declval<T>())>> = true;
static_assert(isPrinted<XmlRpcValue> && !isPrinted<std::tm>);  // nothing else, by way of becoming a value

TEST(Value, IsReadWithoutACopyAndTakesOverTexts) {
  const XmlRpcValue v = OneOfEach();
  std::ostringstream all;
  for (const XmlRpcValue& element : v.elements()) all << element << ' ';
  for (const auto& [name, member] : v[5].members()) {
    all << name.size() << member << ' ';
    EXPECT_EQ(&member, v[5].findMember(name));
  }
  EXPECT_EQ("1 -5 1 0.5 Zm9vYmFyZm9vYmFyZm9vYmFyZm9v [a:" + text +
                ",a name long enough to be there too:20240105T07:08:09] 1" + text + " 3420240105T07:08:09 ",
            all.str());
  EXPECT_EQ(nullptr, v.findMember("a"));
  EXPECT_EQ(nullptr, v[5].findMember("b"));
  std::string taken = text, assigned = text;
  std::vector<char> bytes(100), more(100);
  const void* const places[] = {taken.data(), assigned.data(), bytes.data(), more.data()};
  XmlRpcValue values[] = {std::move(taken), 1, std::move(bytes), 1};
  values[1] = std::move(assigned);
  values[3] = std::move(more);
  for (const int i : {0, 1}) EXPECT_EQ(places[i], values[i].getString().data()) << i;
  for (const int i : {2, 3}) EXPECT_EQ(places[i], values[i].getBinaryData().data()) << i;
}

TEST(Value, SurvivesItsOwnParts) {
  const std::function<void(XmlRpcValue&)> uses[] = {
      [](XmlRpcValue& v) { v = v["a"]; }, [](XmlRpcValue& v) { v = std::move(v["a"]); },
      [](XmlRpcValue& v) { v.getMember("a", v); }, [](XmlRpcValue& v) { v["xml"] = v, v = v["xml"]["a"]; },
      [](XmlRpcValue& v) { v.fromXml(v["xml"].getString(), std::make_unique<int>().get()); }};
  for (const auto& use : uses) {
    XmlRpcValue v, &same = v;
    v["a"] = text;
    v["xml"] = "<value>" + text + "</value>";
    use(v);
    v = same;
    v = std::move(same);
    EXPECT_EQ(text, v.getString());
  }
}

TEST(Value, LooksUpMembersAndComparesWithoutThrowing) {
  XmlRpcValue v = OneOfEach(), fewer = v[5];
  std::vector<std::string> names = {"old"};
  EXPECT_TRUE(v[5].getMembers(names) && names.size() == 2 && fewer.deleteMember("a") && !fewer.deleteMember("a"));
  EXPECT_FALSE(v.hasMember("x") || v.deleteMember("x") || v.getMembers(names) || v.getMember("x", v));
  EXPECT_TRUE(names.empty() && v.size() == 6);
  std::tm time = {}, later = {};
  later.tm_hour = 1;
  const XmlRpcValue rows[][2] = {{1, 1LL}, {time, later}, {v[5], fewer}, {"x", std::string("x\0y", 3)}, {v, fewer}};
  for (const auto& row : rows) EXPECT_TRUE(row[0] != row[1] && row[0] == row[0]) << row[0].toXml(0);
}

TEST(Writing, FollowsTheTagSetsAndThePrintedForms) {
  const std::string rows[][4] = {
      {"<boolean>0</boolean>", "<bo>0</bo>", " = false, TypeBoolean\n", "0"},
      {"<i4>-2147483648</i4>", "<i4>-2147483648</i4>", " = -2147483648, TypeInt\n", "-2147483648"},
      {"<i8>-8589934592</i8>", "<i8>-8589934592</i8>", " = -8589934592, TypeInt64\n", "-8589934592"},
      {"<double>-0.123456789012345</double>", "<do>-0.123456789012345</do>", " = -0.123456789012345, TypeDouble\n",
       "-0.123457"},
      {"a&lt;b\xff", "a&lt;b\xff", " = \"a<b\xff\", TypeString\n", "a<b\xff"},
      {"<dateTime.iso8601>20240105T07:08:09</dateTime.iso8601>", "<dtime>20240105T07:08:09</dtime>",
       ", TypeDateTime, 05.02.3924 07:08:09\n", "20240105T07:08:09"},
      {"<base64>Af8=</base64>", "<b64>Af8=</b64>", ", TypeBase64, size = 2, data = 0x01, 0xffffffff, \n", "Af8="},
      {"<array><data><value>x</value></data></array>", "<ar><da><va>x</va></da></ar>",
       ", TypeArray, size = 1\n x[0] = \"x\", TypeString\n", "{x}"},
      {"<struct><member><name>b</name><value><i4>1</i4></value></member></struct>",
       "<st><me><na>b</na><va><i4>1</i4></va></me></st>", ", TypeStruct, size = 1\n x[b] = 1, TypeInt\n", "[b:1]"}};
  XmlRpcValue value;
  for (const auto& row : rows) {
    const std::string xml = "<value>" + row[0] + "</value>", shortXml = "<va>" + row[1] + "</va>";
    EXPECT_EQ(row[3] + "|", Read(xml, value).substr(2));
    EXPECT_EQ(row[3] + "|", Read(shortXml, value).substr(3));
    EXPECT_EQ(xml + shortXml + row[2], value.toXml(7) + value.toXml(1) + Dump(value).substr(2));
  }
  XmlRpcValue odd, structure;
  odd.assertTypeOrInvalid(static_cast<XmlRpcValue::Type>(12));
  EXPECT_EQ(" x, TypeInvalid\n x, unknown type (12)\n", Dump(structure) + structure.toXml(0) + Dump(odd));
  structure["a&"] = -NAN;
  EXPECT_EQ("<va><st><me><na>a&amp;</na><va><do>nan</do></va></me></st></va>",
            structure.structToXml(1) + value.intToXml(1));
}

TEST(Writing, OfDoublesFollowsTheFormatLikePrintf) {
  std::mt19937_64 random(1);
  char expected[64];
  for (int i = 0; i < 20000; ++i) {
    const double number = std::ldexp(static_cast<double>(random()), static_cast<int>(random() % 2200) - 1130);
    std::snprintf(expected, sizeof expected, "<va><do>%.15g</do></va>", number);
    ASSERT_EQ(expected, XmlRpcValue(number).toXml(1));
  }
  const std::string before = std::exchange(XmlRpcValue::m_DoubleFormat, "%.3f");
  EXPECT_EQ("<va><do>0.500</do></va>", XmlRpcValue(0.5).toXml(1));
  EXPECT_EQ(8U + 254U + 10U, XmlRpcValue(1e300).toXml(1).size());
  XmlRpcValue::m_DoubleFormat = before;
}

TEST(Printing, StopsAfterAHundredParts) {
  XmlRpcValue array, structure;
  for (int i = 0; i < 101; ++i) structure[std::to_string(i)] = array[i] = true;
  const std::string parts = Dump(array) + Dump(structure), bytes = " x, TypeBase64, size = 10", hundred(100, 'x');
  EXPECT_EQ(2 * 101, std::count(parts.begin(), parts.end(), '\n'));
  EXPECT_EQ(bytes + "0, data = " + Repeated("0x00, ", 100) + "\n", Dump(std::vector<char>(100)));
  EXPECT_EQ(bytes + "1, data = " + Repeated("0x00, ", 100) + "...\n", Dump(std::vector<char>(101)));
  EXPECT_EQ(" x = \"" + hundred + "\", TypeString\n", Dump(hundred));
  EXPECT_EQ(" x = \"" + hundred + "...\", TypeString\n", Dump(hundred + "y"));
}

TEST(IniText, RendersBySectionWithTheSubstringRule) {
  const std::string one = "<me><na>a</na><va>1</va></me>", inner = "<me><na>B</na><va><st>" + one + "</st></va></me>";
  const std::string array = "<ar><da><va><bo>1</bo></va><va><ar><da><va>7</va></da></ar></va></da></ar>";
  const std::string rows[][4] = {
      {"<st>" + inner + one + "</st>", "Root", "", "[Root.B]\na=1\na=1\n"},  // [Root] is there within [Root.B]
      {"<st>" + one + inner + "</st>", "", "", "[.B]\na=1\na=1\n"},
      {"5", "S", "", "[S]\nValue=5\n"},
      {array, "S", "f", "[S]\nf|0|=1\nf|1||0|=7\n"},
      {"<i8>-9223372036854775808</i8>", "S", "k", "[S]\nk=-92233720368547758\n"}};
  XmlRpcValue value;
  std::string out = "old";
  for (const auto& row : rows) {
    Read("<va>" + row[0] + "</va>", value);
    EXPECT_TRUE(value.toINIFormat(out, row[1].c_str(), row[2].c_str()) && !value.fromINIFormat(out));
    EXPECT_EQ(row[3], out);
  }
  Read("<va><ar><da><va><b64></b64></va><va>2</va></da></ar></va>", value);
  EXPECT_FALSE(value.toINIFormat(out, "S", "c"));
  EXPECT_EQ("[S]\nc|1|=2\n", out) << "binary data fails the call and loses nothing else";
}

TEST(Reading, FollowsEachRule) {
  // Each is what stands in <value>, or a whole document of the short set, and what comes of it.
  const std::string rows[] = {
      "x~4 x|", "~4 |", "  ~4   |", " x ~4  x |", " <string>x</string>~4 x|", "<str>x</str>~-",
      "<boolean> +1</boolean>~1 1|", "<boolean>2</boolean>~-", "<boolean>4294967297</boolean>~-",
      "<boolean></boolean>~-", "<i4>5<value>y~2 5|", "<int>99999999999999999999</int>~2 -1|",
      "<i8>99999999999999999999</i8>~9 9223372036854775807|", "<i8>-99999999999999999999</i8>~9 -9223372036854775808|",
      "<double> +1.5e1</double>~3 15|", "<double>0x1p4</double>~3 16|", "<double>1e999</double>~3 inf|",
      "<double>NaN</double>~3 nan|", "<double>xyz</double>~3 nan|", "<double>zebra</double>~3 nan|",
      "<double>abc</double>~-", "<base64>Zm9vYg==</base64>~6 Zm9vYg==|", "<base64>Zm9</base64>~6 |",
      "<base64>Zm9v\nYmFy</base64>~6 |", "<base64>Zm9vYm F</base64>~6 Zm9v|", "<base64>Zg==Zm9v</base64>~6 ZmZvbw==|",
      "<base64>Zg=?Zm9v</base64>~6 ZmZvbw==|", "<base64>=?==Zm9v</base64>~6 Zm9v|", "<base64>Z=??Zm9v</base64>~6 Zm9v|",
      "<base64>Zm9=Zm9v</base64>~6 Zm9mb28=|", "<base64>Zm?=Zm9v</base64>~6 |", "<base64>Zm9?Zm9v</base64>~6 |",
      "<base64>?m9vZm9v</base64>~6 |", "<base64>\xc3\xa4\xc3\xa4</base64>~6 |", "<base64>+//+</base64>~6 +//+|",
      "<array><data/></array>~7 {}|", "<struct></struct>~8 []|", "<va>a&lt;b</va>~4s a<b|", "<va>open~-",
      "<va>open<~4s open|<", "<va><string>x</string></va>~-", "<va><i4>5x</i4></va></va>~2s 5|</va>", "<va><i4>5~2s 5|",
      "<va><dtime> 24 1 5T 7: 8: 9 junk</dtime></va>~5s   240105T07:08:09|",
      "<va><dtime>20240105 07:08:09</dtime></va>~-", "<va><dtime>20240105T07:08</dtime></va>~-",
      "<va><ar> <da /></ar></va>~7s {}|", "<va><ar><da><va><i4>1</i4></va><value>x</value></da></ar></va>~7s {1,x}|",
      "<va><ar><va>1</va></ar></va>~-",
      "<va><st><me><na>a</na><va>1</va></me><me><na>a</na><va>2</va></me></st></va>~8s [a:1]|",
      "<va><st><me><na>a</na></me></st></va>~-", "<va><st><me><va>1</va></me></st></va>~8s [:1]|",
      // The array ends before the malformed struct, and the value ends at the next end tag there is.
      "<va><ar><da><va><st><me><na>a</na><va>1</va></me><me>bad</me></st></va>~7s {}|</me><me>bad</me></st></va>"};
  XmlRpcValue value;
  for (const std::string& row : rows) {
    const std::string xml = row.substr(0, row.find('~')), wrapped = "<value>" + xml + "</value>";
    EXPECT_EQ(row.substr(xml.size() + 1), Read(xml.rfind("<va>", 0) == 0 ? xml : wrapped, value)) << row;
  }
  for (const int offset : {-1, INT_MIN, 1, 16, 17, INT_MAX}) EXPECT_EQ("-", Read("<value>x</value>", value, offset));
}

TEST(Reading, OfOneTypeUsesTheTagSetAndReleasesWhatWasHeld) {
  XmlRpcValue value;
  EXPECT_EQ("8s []|", Read("<va><st></st></va>", value));
  int offset = 1, from = 0;
  EXPECT_TRUE(value.arrayFromXml(" <da><va>1</va></da></ar>", &offset) && offset == 20 && value.getTagSet() == 1);
  EXPECT_EQ("1", value[0].getString());
  EXPECT_TRUE(value.stringFromXml("&lt;&lt;<", &from) && from == 2) << from;
  EXPECT_FALSE(value.structFromXml("<me><na>a</na></me>", &(from = 0)) || value.valid() || value.getTagSet() != 0);
  EXPECT_EQ(0, from);
}

TEST(Reading, RefusesWhatNestsTooDeepAsAWhole) {
  const auto nested = [](std::size_t levels) { return Repeated("<va><ar><da>", levels); };
  XmlRpcValue value;
  int offset = 0;
  EXPECT_NE("-", Read(nested(XmlRpcValue::MaximumDepth), value));
  for (const auto& xml : {nested(XmlRpcValue::MaximumDepth + 1), "<va><ar><da><va>1</va>" + nested(1000000)}) {
    EXPECT_EQ("-", Read(xml, value));
  }
  EXPECT_FALSE(value.arrayFromXml("<data>" + nested(XmlRpcValue::MaximumDepth), &offset));
  EXPECT_EQ("4s x|", Read("<va>x" + nested(1000), value).substr(0, 5)) << "what the reader never enters does not count";
}

TEST(Reading, AgreesWithTheLiteralRulesOnDocumentsOfOddPieces) {
  std::mt19937 random(7);
  const std::uint8_t frequent[] = {0, 1, 1, 2, 3, 3, 7, 17, 12, 21, 38, 56, 57, 58, 58, 59};  // tags that make values
  for (int i = 0; i < 20000; ++i) {
    std::vector<std::uint8_t> data = {0x80, 56};
    for (auto n = random() % 40; n > 0; --n) data.push_back(random() % 4 > 0 ? frequent[random() % 16] : random() % 64);
    LLVMFuzzerTestOneInput(data.data(), data.size());
  }
}

// Each would take minutes or longer if any text were looked at again for each value, member or level around it.
TEST(Reading, GetsThroughHostileDocuments) {
  constexpr std::size_t n = 30000;
  const std::string array = "<value><array><data>", one = "<value>1</value>", member = "<member>" + one + "</member>";
  const std::string deep = Repeated(array, 200), name = "<name>n</name>", blanks(n * 100, ' ');
  const std::string jump = array + Repeated(array + "<value><struct><member></value>", n) + name;
  const std::string documents[] = {
      array + Repeated("<value><i4>1</i4>", n),
      "<value><struct>" + Repeated(member, n) + "<name>a",
      array + Repeated("<value><", n),
      jump + array + Repeated(one, n) + "</data></array></value><member>",
      jump + one + "</member>" + Repeated("<member>" + name + one + "</member>", n) + "<member>",
      jump + blanks + one + "</member><member>",
      deep + blanks + "<",
      "<value><struct>" + Repeated("<member>" + one, n) + "<name>" + blanks + "<",
      deep + "<value><boolean>" + std::string(n * 100, '7'),
      Repeated(array + "<value><struct><member>" + name, 100) + one + one};
  for (const std::string& xml : documents) {
    XmlRpcValue value;
    EXPECT_NE("-", Read(xml, value).substr(0, 1));
  }
}

TEST(FailingAllocations, LoseNothingAndLeaveNothingHalf) {
  // In its array a malformed struct, which takes the reader through its survey.
  const std::string hostile = "<va><ar><da><va><ar><da>" + document + "<va><st><me><na>n</na><va>1</va></me><me>bad";
  for (const std::string& xml : {hostile, document}) {
    XmlRpcValue value;
    int offset = 0;
    FailEach([&] { value.fromXml(xml, &offset); }, [&] { return !value.valid() && offset == 0; });
    EXPECT_GT(offset, 0);
  }
  const XmlRpcValue value = OneOfEach(), old = text;
  XmlRpcValue copy = old;
  FailEach([&] { copy = value; }, [&] { return copy == old; });
  FailEach([&] { copy.toXml(1); }, [&] { return copy == value; });

  struct Echo : XmlRpcClientTransportHTTP {
    int execute(const std::string& request, std::string& answer) override {
      const std::size_t start = request.find("<param>") + 7, end = request.rfind("</param>");
      XmlRpcUtil::generateResponse(answer, request.substr(start, end - start));
      return 0;
    }
  } transport;
  XmlRpcValue result;
  const auto call = [&] { EXPECT_EQ(0, XmlRpcClient(&transport).execute("method", value, result)); };
  FailEach(call, [&] { return !result.valid(); });
  EXPECT_EQ(value, result);
}

}  // namespace
