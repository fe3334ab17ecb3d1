#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <clocale>
#include <filesystem>
#include <functional>
#include <sstream>

#include "tests/model/PlainReader.h"
#include "tests/unit/FailingAllocations.h"
#include "xmlrpc/XmlRpcClient.h"
#include "xmlrpc/XmlRpcClientTransportHTTP.h"

using namespace TarnXmlRpc;

/// tests/fuzz/Value_fuzz.cpp: reads what the bytes say, compares it with the model and aborts if they differ.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

template <typename T, typename = void>
constexpr bool isPrinted = false;
template <typename T>
constexpr bool isPrinted<T, std::void_t<decltype(std::declval<std::ostream&>() << std::declval<T>())>> = true;
static_assert(isPrinted<XmlRpcValue> && !isPrinted<std::tm>);  // nothing else, by way of becoming a value
static_assert(std::is_constructible_v<XmlRpcValue, short> && !std::is_constructible_v<XmlRpcValue, unsigned>);
static_assert(!std::is_constructible_v<XmlRpcValue, int*> && std::is_nothrow_move_assignable_v<XmlRpcValue>);

std::string Repeated(const std::string& text, std::size_t count) {
  std::string all;
  for (; count > 0; --count) all += text;
  return all;
}

std::string Line(const XmlRpcValue& value) {
  std::ostringstream text;
  text << value;
  return text.str();
}

std::string Dump(const XmlRpcValue& value) {
  char* text = nullptr;
  std::size_t size = 0;
  std::FILE* const stream = open_memstream(&text, &size);
  value.FilePrint(stream, "x", " ");
  std::fclose(stream);
  const std::string out(text, size);
  std::free(text);
  return out;
}

/// What an action throws, as code and text; empty if nothing.
std::string Thrown(const std::function<void()>& action) {
  try {
    action();
  } catch (const XmlRpcException& e) {
    return std::to_string(e.getCode()) + " " + e.what();
  }
  return "";
}

TEST(XmlRpcValue, IsWrittenAndComparedLikeTheModelAndCopiedWhole) {
  std::mt19937 random(1);
  for (const std::size_t length :
       {1023U, 1024U, 1025U}) {  // all as long as a character becomes, into exactly the room for it
    const std::string text(length, '"');
    ASSERT_EQ("<va>" + PlainEncode(text) + "</va>", XmlRpcValue(text).toXml(1));
  }
  PlainValue former;
  for (int i = 0; i < 3000; ++i) {
    PlainValue plain = PlainValue::Random(random, 4);
    const XmlRpcValue value = plain.make();
    ASSERT_TRUE(plain.is(value)) << value;
    for (const int set : {0, 1, 2, -1}) {
      int size = 0;
      const std::string xml = plain.xml(set == 1 ? 1 : 0, &size);
      ASSERT_EQ(xml, value.toXml(set));
      ASSERT_EQ(size, value.toXmlSize(set)) << xml;
    }
    ASSERT_EQ(plain.dump("x"), Dump(value));
    ASSERT_EQ(plain.line(), Line(value));
    std::vector<std::string> blocks = {"[" + plain.text.substr(0, 1) + "S]\n"}, model = blocks;
    const char* const key = i % 2 == 0 ? "" : "k";
    ASSERT_EQ(plain.ini(model, "S", key), value.toINIFormat(blocks, "S", key));
    ASSERT_EQ(model, blocks) << value;

    XmlRpcValue copy = value, moved = std::move(copy);
    ASSERT_TRUE(plain.is(moved));
    ASSERT_FALSE(copy.valid());  // NOLINT(bugprone-use-after-move): that is the promise
    ASSERT_EQ(PlainValue::Equal(plain, plain), value == moved) << value;
    ASSERT_EQ(PlainValue::Equal(plain, former), value == former.make()) << value;
    PlainValue other = plain;  // one difference
    other.number ^= 1;
    other.real += 1;
    other.text += 'x';
    ++*(&other.time.tm_sec + i % 6);
    if (!other.elements.empty()) other.elements.back() = PlainValue::Random(random, 1);
    if (i % 3 == 0 && !other.elements.empty()) other.elements.pop_back();
    if (!other.members.empty() && i % 3 == 1)
      other.members["new name"] = std::move(other.members.extract(other.members.begin()).mapped());
    if (!other.members.empty() && i % 3 == 0) other.members.erase(std::prev(other.members.end()));
    ASSERT_EQ(PlainValue::Equal(plain, other), value == other.make()) << value << " and " << other.make();
    ASSERT_EQ(PlainValue::Equal(other, plain), !(other.make() != value)) << value << " and " << other.make();
    former = plain;
  }
}

void Check(const std::string& xml) {
  const std::string data = '\0' + xml;
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
}

TEST(XmlRpcValue, IsReadLikeTheModel) {
  std::mt19937 random(7);
  constexpr std::uint8_t array = 56;
  const std::uint8_t broken[] = {56, 57, 59, 58, 12, 11, 1, 7};  // structs that break off in arrays
  const std::uint8_t frequent[] = {0, 1, 1, 2, 3, 3, 7, 17, 12, 21, 38, 56, 57, 58, 58, 59};  // tags that make values
  for (int i = 0; i < 8000; ++i) {
    std::vector<std::uint8_t> data(i % 100 > 0 ? 2 : 248 + random() % 10, array);  // some near the deepest level
    data[0] = 0x80;
    for (auto n = i % 4 == 0 ? random() % 60 : 0; n > 0; --n) data.push_back(broken[random() % 8]);
    for (auto n = random() % 40; n > 0; --n) data.push_back(random() % 4 > 0 ? frequent[random() % 16] : random() % 64);
    LLVMFuzzerTestOneInput(data.data(), data.size());
  }
  // What a member's far name leads to is read twice, the second time deeper: it counts for the deepest level then too.
  for (std::size_t depth = 244; depth < 258; ++depth) {
    for (std::size_t levels = 0; levels < 8; ++levels) {
      std::vector<std::uint8_t> data = {0x80, array, array, 57, 1};
      data.insert(data.end(), depth, array);
      data.insert(data.end(), {57, 59});
      data.insert(data.end(), levels, array);
      data.insert(data.end(), {58, 12, 11});
      LLVMFuzzerTestOneInput(data.data(), data.size());
      data.insert(data.end() - 1, {11, 59, 58, 12});
      LLVMFuzzerTestOneInput(data.data(), data.size());
    }
  }
  // A whole value with one character replaced, cut out or put in; and each type on its own, with its end left out.
  const std::string characters("<>/&;=aln0159-+.:TxA \n\0\xe4", 25);
  for (int i = 0; i < 8000; ++i) {
    int ignored = 0;
    std::string xml = PlainValue::Random(random, 3).xml(i % 2, &ignored);
    if (xml.size() > 2000) continue;
    const std::size_t at = random() % (xml.size() + 1);
    xml.replace(at, random() % 2, random() % 3, characters[random() % characters.size()]);
    Check(xml);
  }
  std::istringstream rows(
      "boolean> +1<|boolean>4294967297<|i4>4294967297<|i4>9223372036854775808<|i8>9223372036854775807<|"
      "i8>-9223372036854775808<|i8>9223372036854775810<|i8>-99999999999999999999<|double> +1.5e1<|double>1e999<|"
      "double>NANx|double>nan|double>zebra<|double>abc<|dateTime.iso8601> 24 1 5T 7: 8: 9 junk<|"
      "dateTime.iso8601>-999-1+9T-7:-8:-9<|string>x<|base64>Zm9v\nYmFy<");
  for (std::string row; std::getline(rows, row, '|');) {
    for (std::size_t length = 0; length <= row.size(); ++length) Check("<value><" + row.substr(0, length));
  }
}

/// One way to a type, of a value and of a const one.
struct Access {
  template <typename Use>
  Access(XmlRpcValue::Type t, std::string e, const Use& use) : type(t), error(std::move(e)), change(use), look(use) {}
  XmlRpcValue::Type type;
  std::string error;
  std::function<void(XmlRpcValue&)> change;
  std::function<void(const XmlRpcValue&)> look;
};

TEST(XmlRpcValue, IsAccessedAsItsTypeAloneAndTakesOneIfItHasNone) {
  const Access rows[] = {
      {XmlRpcValue::TypeBoolean, "-4303 type error", [](auto& v) { v.getBool(); }},
      {XmlRpcValue::TypeInt, "-4303 type error", [](auto& v) { v.getInt(); }},
      {XmlRpcValue::TypeInt64, "-4303 type error", [](auto& v) { v.getInt64(); }},
      {XmlRpcValue::TypeDouble, "-4303 type error", [](auto& v) { v.getDouble(); }},
      {XmlRpcValue::TypeString, "-4303 type error", [](auto& v) { v.getString(); }},
      {XmlRpcValue::TypeDateTime, "-4303 type error", [](auto& v) { v.getDateTime(); }},
      {XmlRpcValue::TypeBase64, "-4325 type error: expected binary data", [](auto& v) { v.assertBinaryData(-1); }},
      {XmlRpcValue::TypeArray, "-4304 type error: expected an array", [](auto& v) { v.assertArray(-1); }},
      {XmlRpcValue::TypeStruct, "-4306 type error: expected a struct", [](auto& v) { v.assertStruct(); }}};
  std::mt19937 random(2);
  PlainValue plain;
  for (int number = 0; number <= 9; ++number, plain = PlainValue::Random(random, 2)) {
    while (plain.type != number) plain = PlainValue::Random(random, 2);
    for (const Access& row : rows) {
      const XmlRpcValue value = plain.make();
      XmlRpcValue changed = value;
      EXPECT_EQ(number == row.type ? "" : row.error, Thrown([&] { row.look(value); })) << number;
      EXPECT_EQ(number == row.type || number == 0 ? "" : row.error, Thrown([&] { row.change(changed); })) << number;
      PlainValue taken = plain;
      if (number == 0) taken.type = row.type;
      EXPECT_TRUE(taken.is(changed)) << number << " as " << row.type;
    }
    const XmlRpcValue value = plain.make();
    EXPECT_EQ(number == 6 ? "" : "-4303 type error", Thrown([&] { value.getBinaryData(); }));
    EXPECT_EQ(number == 7 ? "" : "-4304 type error: expected an array", Thrown([&] { value.elements(); }));
    EXPECT_EQ(number == 8 ? "" : "-4306 type error: expected a struct", Thrown([&] { value.members(); }));
  }
}

TEST(XmlRpcValue, HasRangesThatReadersKeepAndWritersStretch) {
  const std::string tooLarge = "-4305 range error: array index too large";
  for (const int size : {0, 1, 3}) {
    for (const int index : {INT_MIN, -1, 0, 1, 2, 3, 4, INT_MAX}) {
      const std::string rangeError = index >= 0 && index < size ? "" : tooLarge;
      XmlRpcValue array, data;
      array.assertArray(size);
      data.assertBinaryData(size);
      const XmlRpcValue &constArray = array, &constData = data;
      EXPECT_EQ(rangeError, Thrown([&] {
                  const XmlRpcValue* const element = &constArray[index];  // throws first
                  EXPECT_EQ(&array.elements()[static_cast<unsigned>(index)], element);
                }));
      EXPECT_EQ(index <= size ? "" : tooLarge, Thrown([&] { constArray.assertArray(index); }));
      EXPECT_EQ(index <= size ? "" : "-4326 range error: index too large",
                Thrown([&] { EXPECT_EQ(size, constData.assertBinaryData(index)); }));
      EXPECT_EQ(rangeError.empty() ? "" : "-4326 type error",
                Thrown([&] { EXPECT_EQ(0, constData.getBinaryDataAt(index)); }));
      if (index < INT_MAX) {
        array.assertArray(index);
        data.assertBinaryData(index);
        EXPECT_EQ(std::max(size, index), array.size());
        EXPECT_EQ(std::vector<char>(static_cast<std::size_t>(array.size())), data.getBinaryData());
      }
      XmlRpcValue grown, number(5);
      EXPECT_EQ(index < 0 || index == INT_MAX ? tooLarge : "", Thrown([&] { grown[index] = index; }));
      EXPECT_EQ(grown.valid() ? index + 1 : 0, grown.size());
      EXPECT_EQ("-4304 type error: expected an array", Thrown([&] { number[index]; }));
    }
  }
  EXPECT_EQ(0xff, XmlRpcValue(std::vector<char>{'\xff'}).getBinaryDataAt(0));
}

TEST(XmlRpcValue, LooksUpMembersWithoutThrowing) {
  XmlRpcValue v, out = 7, number = 5;
  v["b"] = 1;
  v[std::string("a")];
  std::vector<std::string> names = {"old"};
  EXPECT_TRUE(v.getMembers(names));
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), names);
  EXPECT_EQ(2, v.countMembers());
  EXPECT_TRUE(v.deleteMember("a"));
  for (XmlRpcValue* const value : {&v, &number}) {
    for (const std::string name : {"a", "b"}) {
      const bool is = value == &v && name == "b";
      EXPECT_EQ(is, value->hasMember(name));
      EXPECT_EQ(is ? XmlRpcValue::TypeInt : XmlRpcValue::TypeInvalid, value->getMemberType(name));
      EXPECT_EQ(is ? &v["b"] : nullptr, value->findMember(name));
      EXPECT_EQ(is, value->getMember(name, out));
      EXPECT_EQ(out, is || value == &number ? 1 : 7);
    }
  }
  EXPECT_EQ("-4306 type error: expected a struct", Thrown([&] { number["x"]; }));
  EXPECT_FALSE(v.deleteMember("a"));
  EXPECT_FALSE(number.deleteMember("b"));
  EXPECT_FALSE(number.getMembers(names));
  EXPECT_EQ(0U, names.size() + static_cast<std::size_t>(number.countMembers()));
}

TEST(XmlRpcValue, IsAFaultWithBothMembers) {
  XmlRpcValue fault;
  fault["faultCode"] = 4;
  EXPECT_EQ("0", std::to_string(fault.GetFaultCode()) + fault.GetFaultString());
  fault["faultString"] = "text";
  EXPECT_EQ("4text", std::to_string(fault.GetFaultCode()) + fault.GetFaultString());
  fault["faultCode"] = XmlRpcValue();
  EXPECT_EQ(0, fault.GetFaultCode());
}

TEST(XmlRpcValue, SurvivesItsOwnPartsAndTakesOverTexts) {
  const std::string text = "a text long enough to be on the heap";
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
  std::string taken = text, assigned = text;
  std::vector<char> bytes(100), more(100);
  const void* const places[] = {taken.data(), assigned.data(), bytes.data(), more.data()};
  XmlRpcValue values[] = {std::move(taken), 'c', std::move(bytes), static_cast<const char*>(nullptr)};
  EXPECT_EQ(values[1], 99);
  EXPECT_EQ(values[3], "");
  values[1] = std::move(assigned);
  values[3] = std::move(more);
  for (const int i : {0, 1}) EXPECT_EQ(places[i], values[i].getString().data()) << i;
  for (const int i : {2, 3}) EXPECT_EQ(places[i], values[i].getBinaryData().data()) << i;
}

TEST(XmlRpcValue, IsReadAndWrittenTypeByTypeWithItsTagSet) {
  using V = XmlRpcValue;
  const struct {
    std::string (V::*write)(int) const;
    bool (V::*read)(const std::string&, int*);
    int (V::*size)(int) const;
  } rows[] = {{&V::boolToXml, &V::boolFromXml, &V::boolToXmlSize},
              {&V::intToXml, &V::intFromXml, &V::intToXmlSize},
              {&V::doubleToXml, &V::doubleFromXml, &V::doubleToXmlSize},
              {&V::stringToXml, &V::stringFromXml, &V::stringToXmlSize},
              {&V::timeToXml, &V::timeFromXml, &V::timeToXmlSize},
              {&V::binaryToXml, &V::binaryFromXml, &V::binaryToXmlSize},
              {&V::arrayToXml, &V::arrayFromXml, &V::arrayToXmlSize},
              {&V::structToXml, &V::structFromXml, &V::structToXmlSize},
              {&V::int64ToXml, &V::int64FromXml, &V::int64ToXmlSize}};
  std::mt19937 random(3);
  for (int type = 1; type <= 9; ++type) {
    const auto& row = rows[type - 1];
    for (PlainValue plain; plain.type != type; plain = PlainValue::Random(random, 2)) {
      PlainValue empty;
      empty.type = type;
      int size = 0;
      empty.xml(1, &size);
      EXPECT_EQ("", (plain.make().*row.write)(1)) << plain.type;
      EXPECT_EQ(size, (plain.make().*row.size)(1)) << plain.type;
    }
    PlainValue plain;
    while (plain.type != type || plain.real != plain.real) plain = PlainValue::Random(random, 1 + (type > 6));
    PlainValue part;  // and a time, that are read as they are written
    part.type = V::TypeInt;
    if (type == V::TypeArray) plain.elements = {part};
    if (type == V::TypeStruct) plain.members = {{"name", part}};
    plain.time = {};
    const V value = plain.make();
    const std::string xml = (value.*row.write)(1);
    EXPECT_EQ(value.toXml(1), xml);
    EXPECT_EQ(value.toXmlSize(0), (value.*row.size)(0));
    V read;
    int offset = 0;
    ASSERT_TRUE(read.fromXml("<va></va>", &offset));
    offset = static_cast<int>(xml.find('>', type == V::TypeString ? 0 : 4)) + 1;
    EXPECT_TRUE((read.*row.read)(xml, &offset)) << xml;
    EXPECT_EQ(1, read.getTagSet());
    EXPECT_LE(4 + value.size(), offset);
    EXPECT_EQ(xml, read.toXml(1));
    for (const int outside : {-1, INT_MIN, 3, INT_MAX}) {
      EXPECT_FALSE((read.*row.read)("x<", &(offset = outside)));
      EXPECT_EQ(outside, offset);
      EXPECT_FALSE(read.valid());
    }
  }
}

TEST(XmlRpcValue, NumbersFollowTheFormatAndNeverTheLocale) {
  const std::string folder = testing::TempDir() + "tarn-locale-" + std::to_string(getpid());
  const bool comma = std::system(("localedef -i de_DE -f UTF-8 " + folder + " 2>&1").c_str()) == 0 &&
                     setenv("LOCPATH", testing::TempDir().c_str(), 1) == 0 &&
                     std::setlocale(LC_ALL, folder.substr(folder.rfind('/') + 1).c_str()) != nullptr;
  char half[10];
  std::snprintf(half, sizeof half, "%.1f", 0.5);
  EXPECT_EQ(comma, std::string("0,5") == half);
  XmlRpcValue value;
  for (const char* const text : {"1.5", " +1.5e0", "0x1.8p0"}) {
    int offset = 0;
    EXPECT_TRUE(value.fromXml("<va><do>" + std::string(text) + "</do></va>", &offset)) << text;
    EXPECT_EQ(value, 1.5) << text;
  }
  const std::string before = std::exchange(XmlRpcValue::m_DoubleFormat, "%.3f");
  std::string ini;
  EXPECT_EQ("<va><do>0.500</do></va>", XmlRpcValue(0.5).toXml(1));
  EXPECT_TRUE(value.toINIFormat(ini, "S", "k"));
  EXPECT_EQ("[S]\nk=1.500\n", ini);
  EXPECT_EQ(8U + 254U + 10U, XmlRpcValue(1e300).toXml(1).size());
  std::snprintf(half, sizeof half, "%.1f", 0.5);
  EXPECT_EQ(comma, std::string("0,5") == half) << "the program's own locale is as it was";
  XmlRpcValue::m_DoubleFormat = before;
  std::setlocale(LC_ALL, "C");
  std::filesystem::remove_all(folder);
  if (!comma) GTEST_SKIP() << "no locale with a comma to be made here (package locales)";
}

TEST(XmlRpcValue, IsRenderedAnewEachTimeAndPrintedIfItShall) {
  XmlRpcValue value, odd;
  std::string out = "old";
  EXPECT_FALSE(value.toINIFormat(out, "S", "k"));
  EXPECT_EQ("", out);
  EXPECT_EQ(" x, TypeInvalid\n", Dump(value));
  value["b"]["c"] = "x";
  value["z"] = 1;
  for (int round = 0; round < 2; ++round) EXPECT_TRUE(value.toINIFormat(out, "Root", ""));
  EXPECT_EQ("[Root.b]\nc=x\nz=1\n", out);
  EXPECT_TRUE(XmlRpcValue(5).toINIFormat(out, nullptr, nullptr));
  EXPECT_EQ("[]\nValue=5\n", out);
  EXPECT_FALSE(value.fromINIFormat(out));
  odd.assertTypeOrInvalid(static_cast<XmlRpcValue::Type>(12));
  EXPECT_EQ(" x, unknown type (12)\n", Dump(odd) + odd.toXml(0) + Line(odd));
  EXPECT_EQ(256, odd.toXmlSize(1));
  EXPECT_EQ(XmlRpcValue(odd), odd);
  testing::internal::CaptureStdout();
  for (const int condition : {-1, 0, 1}) XmlRpcValue(true).PrintIf(condition, nullptr, "p");
  EXPECT_EQ("p = true, TypeBoolean\n", testing::internal::GetCapturedStdout());
}

TEST(XmlRpcValue, IsRefusedWholeWhereItNestsTooDeep) {
  constexpr int most = XmlRpcValue::MaximumDepth;
  const auto nested = [](std::size_t levels) { return Repeated("<va><ar><da>", levels); };
  const std::pair<std::string, bool> rows[] = {{nested(most), true},
                                               {nested(most + 1), false},
                                               {"<va><ar><da><va>1</va>" + nested(1000000), false},
                                               {"<va>x" + nested(1000), true}};  // which the reader never enters
  XmlRpcValue value;
  int offset = 0;
  for (const auto& [xml, isRead] : rows) EXPECT_EQ(isRead, value.fromXml(xml, &(offset = 0))) << xml.substr(0, 30);
  EXPECT_EQ(1, value.getTagSet());
  EXPECT_FALSE(value.arrayFromXml("<da>" + nested(most), &(offset = 0)));
  EXPECT_FALSE(value.arrayFromXml("<data>" + nested(most), &(offset = 0)));
}

// Each would take minutes or longer if any text were looked at again for each value, member or level around it.
TEST(XmlRpcValue, IsReadInLinearTime) {
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
    int offset = 0;
    EXPECT_TRUE(value.fromXml(xml, &offset)) << xml.substr(0, 100);
  }
}

TEST(XmlRpcValue, LosesNothingWhereMemoryRunsOut) {
  XmlRpcValue value;
  int offset = 0;
  ASSERT_TRUE(value.fromXml(
      "<va><ar><da><va><bo>1</bo></va><va><b64>" + PlainBase64(std::string(99, 'b')) + "</b64></va><va><st><me><na>" +
          std::string(99, 'n') + "</na><va>" + std::string(99, 's') +
          "</va></me><me><na>t</na><va><dtime>20240105T07:08:09</dtime></va></me></st></va></da></ar></va>",
      &offset));
  const XmlRpcValue old(std::string(99, 'o'));
  // In its array a malformed struct, which takes the reader through its survey.
  const std::string document = value.toXml(1),
                    hostile = "<va><ar><da><va><ar><da>" + document + "<va><st><me><na>n</na><va>1</va></me><me>bad";
  for (const std::string& xml : {hostile, document}) {
    XmlRpcValue read;
    offset = 0;
    FailEach([&] { read.fromXml(xml, &offset); }, [&] { return !read.valid() && offset == 0; });
    EXPECT_GT(offset, 0);
  }
  XmlRpcValue copy = old;
  FailEach([&] { copy = value; }, [&] { return copy == old; });
  FailEach([&] { copy.toXml(1); }, [&] { return copy == value; });

  struct : XmlRpcClientTransportHTTP {
    int execute(const std::string& request, std::string& answer) override {
      answer = "<methodResponse><params><param>" + request.substr(request.find("<va>"));
      return 0;
    }
  } echo;
  XmlRpcValue result;
  const auto call = [&] { EXPECT_EQ(0, XmlRpcClient(&echo).execute("method", value, result)); };
  FailEach(call, [&] { return !result.valid(); });
  EXPECT_EQ(value, result);
}

TEST(XmlRpcValue, ReservesAtMostTwiceAndLittleMoreThanItsTextTakes) {
  const XmlRpcValue shapes[] = {0.0,     -1.0 / 3, true,      -2147483647,         1LL << 40,
                                "<'&'>", "plain",  std::tm(), std::vector<char>(7)};
  for (const XmlRpcValue& shape : shapes) {
    for (const int count : {1, 1000, 10000}) {
      XmlRpcValue all;
      for (int i = 0; i < count; ++i) {
        all[std::to_string(i) + "&&&&&&&&"] = 1LL << i % 60;
        all["numbers"][i] = 1;
        all["mixed"][i] = i % 8 == 0 ? XmlRpcValue("") : shape;
      }
      allocationsLeft = 2;  // one guess may be wrong, of few texts of many kinds
      const std::string xml = all.toXml(count % 2);
      allocationsLeft = -1;
      EXPECT_LE(xml.capacity(), xml.size() * 5 / 4) << shape;
    }
  }
  for (const int at : {5, 4200}) {  // among numbers one that is far longer, where it is seen at once and where not
    XmlRpcValue all;
    for (int i = 0; i < 5000; ++i) all[i] = i == at ? XmlRpcValue(std::string(1000000, '&')) : i;
    allocationsLeft = 2;
    const std::string xml = all.toXml(0);
    allocationsLeft = -1;
    EXPECT_LE(xml.capacity(), xml.size() * 5 / 4);
  }
}

TEST(XmlRpcValue, NumbersAreWrittenAsPrintfDoes) {
  std::mt19937_64 random(1);
  for (int i = 0; i < 100000; ++i) {
    const std::uint64_t bits = random();
    double any = 0;
    std::memcpy(&any, &bits, sizeof any);
    const double plain = std::ldexp(static_cast<double>(bits), static_cast<int>(random() % 66) - 79);
    const double decimal = static_cast<double>(bits >> random() % 60) / std::pow(10, random() % 14);
    const double tie = std::ldexp(static_cast<double>(bits >> 40), -static_cast<int>(random() % 40));
    const double power = std::nextafter(std::pow(10, static_cast<int>(random() % 24) - 6), static_cast<double>(i % 2));
    for (const double number : {any, plain, -decimal, tie, power}) {
      char text[64];
      std::snprintf(text, sizeof text, "<va><do>%.15g</do></va>", number);
      ASSERT_EQ(std::isnan(number) ? "<va><do>nan</do></va>" : text, XmlRpcValue(number).toXml(1));
    }
    const int whole = static_cast<int>(bits) >> random() % 32;
    ASSERT_EQ("<va><i4>" + std::to_string(whole) + "</i4></va>", XmlRpcValue(whole).toXml(1));
  }
}

}  // namespace
