#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <clocale>
#include <filesystem>
#include <fstream>
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

std::vector<std::string> Words(const std::string& text) {
  std::istringstream rest(text);
  std::vector<std::string> words;
  for (std::string word; std::getline(rest, word, '|');) words.push_back(word);
  return words;
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
  EXPECT_EQ(0, std::fclose(stream));
  std::string out(text, size);
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

/// An empty value of the type, which is not always a known one.
XmlRpcValue Empty(int type) {
  XmlRpcValue value;
  value.assertTypeOrInvalid(static_cast<XmlRpcValue::Type>(type));
  return value;
}

TEST(XmlRpcValue, IsWrittenAndComparedLikeTheModelAndCopiedWhole) {
  for (unsigned seed = 0; seed < 5000; ++seed) {
    Random random{std::mt19937(seed)}, almost{std::mt19937(seed), static_cast<int>(seed % 40)};
    const XmlRpcValue value = RandomValue(random, 4), other = RandomValue(almost, 4);
    for (const int set : {0, 1, 2, -1}) {
      int reserved = 0;
      const std::string xml = PlainXml(value, set == 1 ? 1 : 0, reserved);
      ASSERT_EQ(xml, value.toXml(set));
      ASSERT_EQ(reserved, value.toXmlSize(set)) << xml;
    }
    XmlRpcValue copy = value, moved = std::move(copy);
    ASSERT_EQ(Shown(value), Shown(moved));
    ASSERT_FALSE(copy.valid());  // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move): that is the promise
    ASSERT_EQ(PlainEqual(value, moved), value == moved) << value;
    ASSERT_EQ(PlainEqual(value, other), value == other) << value << " and " << other;
    ASSERT_EQ(PlainEqual(other, value), !(other != value)) << value << " and " << other;
  }
}

TEST(XmlRpcValue, IsWrittenIntoTheRoomThereIsHoweverMuchIsLeft) {
  const XmlRpcValue kinds[] = {true, 1234567, 1LL << 60, 1.5, "'\"'\"", std::tm(), std::vector<char>(7)};
  for (const XmlRpcValue& kind : kinds) {
    for (std::size_t shift = 0; shift < 64; ++shift) {
      constexpr int count = 2200;
      XmlRpcValue array;
      array.assertArray(count + 1);
      array[0] = std::string(shift, 'x');
      for (int i = 1; i <= count; ++i) array[i] = kind;
      const std::string elements = array[0].toXml(0) + Repeated(kind.toXml(0), count);
      ASSERT_EQ("<value><array><data>" + elements + "</data></array></value>", array.toXml(0));
    }
  }
}

TEST(XmlRpcValue, IsPrintedInThreeForms) {
  std::tm time = {};
  std::tie(time.tm_year, time.tm_mon, time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec) =
      std::tuple(9, 1, 5, 7, 8, 6);
  XmlRpcValue array, structure;
  array[1] = true;
  structure["a.b"] = "x";
  structure["in"]["deep"][1] = 2;
  structure["raw"] = std::vector<char>(1);
  structure["t"] = structure["s"] = 0;
  const struct {
    XmlRpcValue value;
    std::string dump, line, ini;
  } rows[] = {
      {XmlRpcValue(), " x, TypeInvalid\n", "", "no "},
      {Empty(12), " x, unknown type (12)\n", "", ""},
      {true, " x = true, TypeBoolean\n", "1", "[S]\nk=1\n"},
      {false, " x = false, TypeBoolean\n", "0", "[S]\nk=0\n"},
      {INT_MIN, " x = -2147483648, TypeInt\n", "-2147483648", "[S]\nk=-2147483648\n"},
      {LLONG_MIN, " x = -9223372036854775808, TypeInt64\n", "-9223372036854775808", "[S]\nk=-92233720368547758\n"},
      {-1e8 / 3, " x = -33333333.3333333, TypeDouble\n", "-3.33333e+07", "[S]\nk=-33333333.3333333\n"},
      {-1e-5 / 3, " x = -3.33333333333333e, TypeDouble\n", "-3.33333e-06", "[S]\nk=-3.33333333333333e\n"},
      {NAN, " x = nan, TypeDouble\n", "nan", "[S]\nk=nan\n"},
      {"a\n", " x = \"a\n\", TypeString\n", "a\n", "[S]\nk=a\n\n"},
      {time, " x, TypeDateTime, 05.02.1909 07:08:06\n", "   90105T07:08:06",
       "[S]\nk=05.02.1909 07:08:06 (DD.MM.YYYY HH:MM:SS)\n"},
      {std::vector<char>(), " x, TypeBase64, size = 0\n", "", "no "},
      {std::vector<char>{-128, 1}, " x, TypeBase64, size = 2, data = 0xffffff80, 0x01, \n", "gAE=", "no "},
      {array, " x, TypeArray, size = 2\n x[0], TypeInvalid\n x[1] = true, TypeBoolean\n", "{,1}", "[S]\nk|1|=1\n"},
      {structure,
       " x, TypeStruct, size = 5\n x[a.b] = \"x\", TypeString\n x[in], TypeStruct, size = 1\n"
       " x[in][deep], TypeArray, size = 2\n x[in][deep][0], TypeInvalid\n x[in][deep][1] = 2, TypeInt\n"
       " x[raw], TypeBase64, size = 1, data = 0x00, \n x[s] = 0, TypeInt\n x[t] = 0, TypeInt\n",
       "[a.b:x,in:[deep:{,2}],raw:AA==,s:0,t:0]", "no [S.k]\na.b=x\ns=0\nt=0\n[S.k.in]\ndeep|1|=2\n"}};
  for (const auto& row : rows) {
    XmlRpcValue value = row.value;
    std::string ini = "old";
    EXPECT_EQ(row.dump, Dump(value));
    EXPECT_EQ(row.line, Line(value));
    const bool isRendered = value.toINIFormat(ini, "S", "k");
    EXPECT_EQ(row.ini, (isRendered ? "" : "no ") + ini) << row.dump;
  }
  for (const std::size_t count : {100U, 101U}) {
    const std::string size = ", size = " + std::to_string(count), cut = count > 100 ? "..." : "";
    std::string elements = " x, TypeArray" + size + "\n", members = " x, TypeStruct" + size + "\n";
    XmlRpcValue wide;
    for (std::size_t i = 0; i < count; ++i) wide[std::string(i, 'n')];
    for (std::size_t i = 0; i < 100; ++i) {
      elements += " x[" + std::to_string(i) + "], TypeInvalid\n";
      members += " x[" + std::string(i, 'n') + "], TypeInvalid\n";
    }
    array = XmlRpcValue();
    array.assertArray(static_cast<int>(count));
    EXPECT_EQ(elements, Dump(array));
    EXPECT_EQ(members, Dump(wide));
    EXPECT_EQ(" x = \"" + std::string(100, 'a') + cut + "\", TypeString\n", Dump(std::string(count, 'a')));
    EXPECT_EQ(" x, TypeBase64" + size + ", data = " + Repeated("0x00, ", 100) + cut + "\n",
              Dump(std::vector<char>(count)));
  }
  std::string ini, again;
  structure = XmlRpcValue();
  structure["b"]["c"] = 1;
  structure["z"] = 1;
  EXPECT_TRUE(structure.toINIFormat(ini, "Root", ""));
  EXPECT_TRUE(structure.toINIFormat(again, "Root", ""));
  EXPECT_EQ("[Root.b]\nc=1\nz=1\n", ini) << "the inner section's name has the outer one's in it";
  EXPECT_EQ(ini, again);
  EXPECT_TRUE(structure["z"].toINIFormat(ini, nullptr, nullptr));
  EXPECT_EQ("[]\nValue=1\n", ini);
  EXPECT_FALSE(structure.fromINIFormat(ini));
  EXPECT_EQ(256, Empty(12).toXmlSize(1));
  EXPECT_EQ(Empty(12), XmlRpcValue(Empty(12)));
  testing::internal::CaptureStdout();
  for (const int condition : {-1, 0, 1}) XmlRpcValue(true).PrintIf(condition, nullptr, "p");
  EXPECT_EQ("p = true, TypeBoolean\n", testing::internal::GetCapturedStdout());
}

void Check(const std::string& xml) {
  const std::string data = '\0' + xml;
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
}

/// In long tags, then in short ones.
void CheckBoth(std::string xml) {
  Check(xml);
  std::vector<PlainType> tags = {
      {{"value", "va"}, {}}, {{"data", "da"}, {}}, {{"member", "me"}, {}}, {{"name", "na"}, {}}};
  tags.insert(tags.end(), std::begin(PLAIN_TYPES) + 1, std::end(PLAIN_TYPES));
  for (const auto& [tag, reserved] : tags) {
    const std::string from = tag[0] + std::string(">"), to = tag[1] + std::string(">");
    for (std::size_t at = 0; (at = xml.find(from, at)) != std::string::npos; at += to.size())
      xml.replace(at, from.size(), to);
  }
  Check(xml);
}

TEST(XmlRpcValue, IsReadLikeTheModel) {
  Random random{std::mt19937(7)};
  const std::string array = "<value><array><data>";
  // What makes values, and what makes structs that break off in arrays, whose names and ends are found far away.
  const auto sound = Words(
      "<value>|<value>|</value>|</value>|<va>|</va>|<value><array><data>|<value><array><data>|"
      "<value><struct><member>|<value><struct><member>|<name>n</name>|<name>n</name>|</member>|"
      "<i4>7</i4>|x|<value>1</value>|<value><i4>1</i4></value>");
  const auto broken = Words(
      "<value><struct><member>|<va><st><me>|<name>n</name>|<na>n</na>|</value>|</va>|<member>|<me>|"
      "<value>1</value>|<va>x|<va>1</va>|<va>2</va>|<value><array><data>|<va><ar><da>|"
      "</da></ar></va>");
  for (int i = 0; i < 12000; ++i) {
    std::string xml = Repeated(array, i % 8 > 0 ? 2 : 244 + random() % 12);  // some near the deepest level
    for (auto n = i % 4 < 3 ? random() % 24 : 0; n > 0; --n) xml += broken[random() % broken.size()];
    for (auto n = random() % 40; n > 0 && i % 4 > 1; --n) xml += sound[random() % sound.size()];
    Check(xml);
  }
  // What a member's far name leads to is read twice, the second time deeper: it counts for the deepest level then too.
  const std::string member = "<name>n</name><value>1</value></member>", open = "<value><struct><member>";
  for (std::size_t depth = 244; depth < 258; ++depth) {
    for (std::size_t levels = 0; levels < 8; ++levels) {
      const std::string far = Repeated(array, 2) + open + "</value>" + Repeated(array, depth) + open +
                              "<name>n</name>" + Repeated(array, levels) + "<value>1</value></member><member>";
      CheckBoth(far);
      CheckBoth(far + member + "<member>");
    }
    // The survey alone comes to what follows a struct that breaks off.
    const std::string xml = Repeated(array, 2) + "<value><struct><member></value>" + Repeated(array, depth);
    CheckBoth(xml);
    XmlRpcValue part;
    int offset = 0;
    EXPECT_EQ(depth <= 255, part.arrayFromXml(xml.substr(14), &offset)) << depth;
  }
  // A whole value with one character replaced, cut out or put in; and each type on its own, with its end left out.
  for (int i = 0; i < 8000; ++i) {
    std::string xml = RandomValue(random, 3).toXml(i % 2);
    if (xml.size() > 2000) continue;
    const std::size_t at = random() % (xml.size() + 1);
    xml.replace(at, random() % 2, random() % 3, random("<>/&;=aln0159-+.:TxA \n\xe4"));
    Check(xml);
  }
  for (const std::string row :
       {"boolean> +1<", "boolean>-1<", "boolean>4294967297<", "i4>4294967297<", "i4>9223372036854775808<",
        "i8>9223372036854775807<", "i8>-9223372036854775808<", "i8>9223372036854775810<", "i8>-99999999999999999999<",
        "double> +1.5e1<", "double>1e999<", "double>NANx<", "double>nan<", "double>zebra<", "double>abc<",
        "dateTime.iso8601> 24 1 5T 7: 8: 9 junk<", "dateTime.iso8601>-99912+9T-7:-8:-9<", "string>x<",
        "base64>Zm9v\nYmFy<"}) {
    for (std::size_t length = 0; length <= row.size(); ++length) CheckBoth("<value><" + row.substr(0, length));
  }
}

TEST(XmlRpcValue, IsAccessedAsItsTypeAloneAndTakesOneIfItHasNone) {
  const std::string typeError = "-4303 type error", noArray = "-4304 type error: expected an array",
                    noStruct = "-4306 type error: expected a struct",
                    noBinary = "-4325 type error: expected binary data";
  struct Access {
    int type;
    std::string error;
    std::function<void(XmlRpcValue&)> change;
    std::function<void(const XmlRpcValue&)> look;
  };
  const auto access = [](int type, const std::string& error, const auto& use) { return Access{type, error, use, use}; };
  const Access rows[] = {access(XmlRpcValue::TypeBoolean, typeError, [](auto& v) { v.getBool(); }),
                         access(XmlRpcValue::TypeInt, typeError, [](auto& v) { v.getInt(); }),
                         access(XmlRpcValue::TypeInt64, typeError, [](auto& v) { v.getInt64(); }),
                         access(XmlRpcValue::TypeDouble, typeError, [](auto& v) { v.getDouble(); }),
                         access(XmlRpcValue::TypeString, typeError, [](auto& v) { v.getString(); }),
                         access(XmlRpcValue::TypeDateTime, typeError, [](auto& v) { v.getDateTime(); }),
                         access(XmlRpcValue::TypeBase64, noBinary, [](auto& v) { v.assertBinaryData(-1); }),
                         access(XmlRpcValue::TypeArray, noArray, [](auto& v) { v.assertArray(-1); }),
                         access(XmlRpcValue::TypeStruct, noStruct, [](auto& v) { v.assertStruct(); })};
  for (int type = 0; type <= 9; ++type) {
    const XmlRpcValue value = Empty(type);
    ASSERT_EQ(type, value.getType());
    EXPECT_EQ(0, value.size());
    for (const Access& row : rows) {
      XmlRpcValue changed = value;
      EXPECT_EQ(type == row.type ? "" : row.error, Thrown([&] { row.look(value); })) << type;
      EXPECT_EQ(type == row.type || type == 0 ? "" : row.error, Thrown([&] { row.change(changed); })) << type;
      EXPECT_EQ(Shown(Empty(type == 0 ? row.type : type)), Shown(changed)) << type << " as " << row.type;
    }
    EXPECT_EQ(type == XmlRpcValue::TypeBase64 ? "" : typeError, Thrown([&] { value.getBinaryData(); }));
    EXPECT_EQ(type == XmlRpcValue::TypeArray ? "" : noArray, Thrown([&] { value.elements(); }));
    EXPECT_EQ(type == XmlRpcValue::TypeStruct ? "" : noStruct, Thrown([&] { value.members(); }));
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
      // NOLINTBEGIN(clang-analyzer-unix.Malloc): what is thrown frees its text.
      EXPECT_EQ(rangeError, Thrown([&] {
                  const XmlRpcValue* const element = &constArray[index];  // throws first
                  EXPECT_EQ(&array.elements()[static_cast<unsigned>(index)], element);
                }));
      EXPECT_EQ(index <= size ? "" : tooLarge, Thrown([&] { constArray.assertArray(index); }));
      EXPECT_EQ(index <= size ? "" : "-4326 range error: index too large",
                Thrown([&] { EXPECT_EQ(size, constData.assertBinaryData(index)); }));
      // NOLINTEND(clang-analyzer-unix.Malloc)
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
    std::string start, content, end;
    std::string (V::*write)(int) const;
    bool (V::*read)(const std::string&, int*);
    int (V::*size)(int) const;
  } rows[] = {{"<va><bo>", "1", "</bo></va>", &V::boolToXml, &V::boolFromXml, &V::boolToXmlSize},
              {"<va><i4>", "7", "</i4></va>", &V::intToXml, &V::intFromXml, &V::intToXmlSize},
              {"<va><i8>", "7", "</i8></va>", &V::int64ToXml, &V::int64FromXml, &V::int64ToXmlSize},
              {"<va><do>", "1.5", "</do></va>", &V::doubleToXml, &V::doubleFromXml, &V::doubleToXmlSize},
              {"<va>", "x", "</va>", &V::stringToXml, &V::stringFromXml, &V::stringToXmlSize},
              {"<va><dtime>", "20240105T07:08:09", "</dtime></va>", &V::timeToXml, &V::timeFromXml, &V::timeToXmlSize},
              {"<va><b64>", "AAAA", "</b64></va>", &V::binaryToXml, &V::binaryFromXml, &V::binaryToXmlSize},
              {"<va><ar>", "<da><va>x</va></da>", "</ar></va>", &V::arrayToXml, &V::arrayFromXml, &V::arrayToXmlSize},
              {"<va><st>", "<me><na>n</na><va>x</va></me>", "</st></va>", &V::structToXml, &V::structFromXml,
               &V::structToXmlSize}};
  for (const auto& row : rows) {
    const std::string xml = row.start + row.content + row.end;
    V value, read;
    int offset = 0;
    ASSERT_TRUE(value.fromXml(xml, &offset));
    for (const auto& other : rows) EXPECT_EQ(&other == &row ? xml : "", (value.*other.write)(1)) << xml;
    EXPECT_EQ(value.toXmlSize(0), (value.*row.size)(0)) << xml;
    V taken = value, copy = std::move(taken);
    EXPECT_EQ(0,
              taken.getTagSet());  // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move): that is the promise
    EXPECT_EQ(1, copy.getTagSet());
    copy.invalidate();
    EXPECT_EQ(0, copy.getTagSet());
    EXPECT_EQ(Empty(value.getType()).toXmlSize(1), (V().*row.size)(1)) << "of another type than " << xml;
    offset = 0;
    ASSERT_TRUE(read.fromXml("<va></va>", &offset));
    offset = static_cast<int>(row.start.size());
    EXPECT_TRUE((read.*row.read)(xml, &offset)) << xml;
    EXPECT_EQ(row.end, xml.substr(static_cast<std::size_t>(offset)));
    EXPECT_EQ(Shown(value), Shown(read));
    for (const int outside : {-1, INT_MIN, 3, INT_MAX}) {
      offset = outside;
      EXPECT_FALSE((read.*row.read)("x<", &offset));
      EXPECT_EQ(outside, offset);
      EXPECT_FALSE(read.valid());
    }
  }
}

TEST(XmlRpcValue, NumbersFollowTheFormatAndNeverTheLocale) {
  const std::string name = "tarn-locale-" + std::to_string(getpid()), folder = testing::TempDir() + name;
  std::ofstream(folder + ".txt")
      << "LC_NUMERIC\ndecimal_point \",\"\nthousands_sep \"\"\ngrouping -1\nEND LC_NUMERIC\n";
  setenv("LOCPATH", testing::TempDir().c_str(), 1);
  static_cast<void>(std::system(("localedef -c -i " + folder + ".txt " + folder + " >/dev/null 2>&1").c_str()));
  const bool isComma = std::setlocale(LC_NUMERIC, name.c_str()) != nullptr;
  for (const std::string& made : {folder, folder + ".txt"}) std::filesystem::remove_all(made);
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
  XmlRpcValue::m_DoubleFormat = before;
  EXPECT_STREQ(isComma ? "," : ".", std::localeconv()->decimal_point) << "the program's own is as it was";
  EXPECT_NE(nullptr, std::setlocale(LC_NUMERIC, "C"));
  if (!isComma) GTEST_SKIP() << "no locale with a comma to be made here";
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
