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

static_assert(std::is_constructible_v<XmlRpcValue, short> && !std::is_constructible_v<XmlRpcValue, unsigned>);
static_assert(!std::is_constructible_v<XmlRpcValue, int*> && std::is_nothrow_move_assignable_v<XmlRpcValue>);

std::string Repeated(const std::string& text, std::size_t count) {
  std::string all;
  for (; count > 0; --count) all += text;
  return all;
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
    const Sample sample = RandomSample(random, 4), other = RandomSample(almost, 4);
    const XmlRpcValue& value = sample.value;
    for (const int set : {0, 1, 2, -1}) ASSERT_EQ(sample.xml[set == 1 ? 1 : 0], value.toXml(set));
    XmlRpcValue copy = value, moved = std::move(copy);
    ASSERT_EQ(sample.xml[0], moved.toXml(0));
    ASSERT_FALSE(copy.valid());  // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move): that is the promise
    ASSERT_EQ(sample == sample, value == moved) << value;
    ASSERT_EQ(sample == other, value == other.value) << value << " and " << other.value;
    ASSERT_EQ(other == sample, !(other.value != value)) << value << " and " << other.value;
  }
}

/// The XML, for which little more is reserved than it takes, and not more often than so.
std::string XmlInLittleRoom(const XmlRpcValue& value, int set, long allocations) {
  allocationsLeft = allocations;
  std::string xml = value.toXml(set);
  allocationsLeft = -1;
  EXPECT_LE(xml.capacity(), xml.size() * 5 / 4) << xml.substr(0, 300);
  return xml;
}

TEST(XmlRpcValue, IsWrittenIntoTheRoomThereIsHoweverMuchIsLeft) {
  const XmlRpcValue shapes[] = {0.0,       -1.0 / 3,  true,      -2147483647,         1LL << 40,
                                "'\"'\"'", "<plain>", std::tm(), std::vector<char>(7)};
  for (const XmlRpcValue& shape : shapes) {
    for (std::size_t shift = 0; shift < 64; ++shift) {
      const int count = shift < 60 ? 2200 : 4500;
      XmlRpcValue array;
      array.assertArray(count + 1);
      array[count] = std::string(shift, 'x');
      for (int i = 0; i < count; ++i) array[i] = shape;
      ASSERT_EQ(PlainXml(XmlRpcValue::TypeArray, 0,
                         Repeated(shape.toXml(0), static_cast<std::size_t>(count)) + array[count].toXml(0)),
                XmlInLittleRoom(array, 0, 1));
    }
    for (const int count : {1, 1000, 10000}) {
      XmlRpcValue all;
      for (int i = 0; i < count; ++i) {
        all[std::to_string(i) + "&&&&&&&&"] = 1LL << i % 60;
        all["numbers"][i] = 1;
        all["mixed"][i] = i % 8 == 0 ? XmlRpcValue("") : shape;
      }
      XmlInLittleRoom(all, count % 2, 2);  // of few texts of many kinds one guess may be wrong
    }
  }
  for (const int at : {5, 4200}) {  // among numbers one that is far longer, where it is seen at once and where not
    XmlRpcValue all;
    for (int i = 0; i < 5000; ++i) all[i] = i == at ? XmlRpcValue(std::string(1000000, '&')) : i;
    XmlInLittleRoom(all, 0, 2);
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
  const std::pair<XmlRpcValue, std::string> rows[] = {
      // the dump, the line, the INI text
      {XmlRpcValue(), " x, TypeInvalid\n||no "},
      {Empty(12), " x, unknown type (12)\n||"},
      {true, " x = true, TypeBoolean\n|1|[S]\nk=1\n"},
      {false, " x = false, TypeBoolean\n|0|[S]\nk=0\n"},
      {INT_MIN, " x = -2147483648, TypeInt\n|-2147483648|[S]\nk=-2147483648\n"},
      {LLONG_MIN, " x = -9223372036854775808, TypeInt64\n|-9223372036854775808|[S]\nk=-92233720368547758\n"},
      {-1e8 / 3, " x = -33333333.3333333, TypeDouble\n|-3.33333e+07|[S]\nk=-33333333.3333333\n"},
      {-1e-5 / 3, " x = -3.33333333333333e, TypeDouble\n|-3.33333e-06|[S]\nk=-3.33333333333333e\n"},
      {NAN, " x = nan, TypeDouble\n|nan|[S]\nk=nan\n"},
      {"a\n", " x = \"a\n\", TypeString\n|a\n|[S]\nk=a\n\n"},
      {time,
       " x, TypeDateTime, 05.02.1909 07:08:06\n|   90105T07:08:06|"
       "[S]\nk=05.02.1909 07:08:06 (DD.MM.YYYY HH:MM:SS)\n"},
      {std::vector<char>(), " x, TypeBase64, size = 0\n||no "},
      {std::vector<char>{'\x80', 1}, " x, TypeBase64, size = 2, data = 0xffffff80, 0x01, \n|gAE=|no "},
      {array, " x, TypeArray, size = 2\n x[0], TypeInvalid\n x[1] = true, TypeBoolean\n|{,1}|[S]\nk|1|=1\n"},
      {structure,
       " x, TypeStruct, size = 5\n x[a.b] = \"x\", TypeString\n x[in], TypeStruct, size = 1\n"
       " x[in][deep], TypeArray, size = 2\n x[in][deep][0], TypeInvalid\n x[in][deep][1] = 2, TypeInt\n"
       " x[raw], TypeBase64, size = 1, data = 0x00, \n x[s] = 0, TypeInt\n x[t] = 0, TypeInt\n|"
       "[a.b:x,in:[deep:{,2}],raw:AA==,s:0,t:0]|no [S.k]\na.b=x\ns=0\nt=0\n[S.k.in]\ndeep|1|=2\n"}};
  std::string ini = "old", again;
  for (const auto& [value, expected] : rows) {
    std::ostringstream text;
    text << Dump(value) << "|" << value << "|";
    text << (XmlRpcValue(value).toINIFormat(ini, "S", "k") ? "" : "no ");
    EXPECT_EQ(expected, text.str() + ini);
  }
  for (const int count : {100, 101}) {  // of which 100 are shown
    const auto parts = static_cast<std::size_t>(count);
    const std::string cut = count > 100 ? "..." : "";
    XmlRpcValue list, wide;
    for (int i = 0; i < count; ++i) wide[std::to_string(i)] = list[i];
    for (const std::string& dump : {Dump(list), Dump(wide)}) EXPECT_EQ(101, std::count(dump.begin(), dump.end(), '\n'));
    EXPECT_EQ(" x = \"" + std::string(100, 'a') + cut + "\", TypeString\n", Dump(std::string(parts, 'a')));
    EXPECT_EQ(" x, TypeBase64, size = " + std::to_string(count) + ", data = " + Repeated("0x00, ", 100) + cut + "\n",
              Dump(std::vector<char>(parts)));
  }
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
  EXPECT_EQ(Empty(12), XmlRpcValue(Empty(12)));
  testing::internal::CaptureStdout();
  for (const int condition : {-1, 0, 1}) XmlRpcValue(true).PrintIf(condition, nullptr, "p");
  EXPECT_EQ("p = true, TypeBoolean\n", testing::internal::GetCapturedStdout());
}

void Check(const std::string& xml) {
  const std::string data = '\0' + xml;
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
}

TEST(XmlRpcValue, IsReadLikeTheModel) {
  using V = XmlRpcValue;
  // Each type on its own, with its end left out.
  const std::pair<int, std::vector<std::string>> texts[] = {
      {V::TypeBoolean, {" +1", "-1", "4294967297"}},
      {V::TypeInt, {"4294967297", "9223372036854775808"}},
      {V::TypeInt64, {"9223372036854775807", "-9223372036854775808", "9223372036854775810", "-99999999999999999999"}},
      {V::TypeDouble, {" +1.5e1", "1e999", "NANx", "nan", "zebra", "abc"}},
      {V::TypeDateTime, {" 24 1 5T 7: 8: 9 junk", "-99912+9T-7:-8:-9"}},
      {V::TypeString, {"x"}},
      {V::TypeBase64, {"Zm9v\nYmFy"}}};
  for (const std::size_t set : {0U, 1U}) {
    const std::string value = V::XML_TAG_VALUE[set],
                      name = V::XML_TAG_NAME[set] + ("n" + std::string(V::XML_ENDTAG_NAME[set])),
                      end = V::XML_ENDTAG_VALUE[set];
    for (const auto& [type, list] : texts) {
      for (const std::string& text : list) {
        const std::string xml = value + "<" + PLAIN_TAGS[type][set] + ">" + text + "<";
        for (std::size_t length = value.size(); length <= xml.size(); ++length) Check(xml.substr(0, length));
        // Its end within what is as long as the end of the type's own tag, and behind that.
        Check(xml + "/" + std::string(PLAIN_TAGS[type][set]).replace(0, end.size(), end) + ">" + end);
      }
    }
    // What a member's far name leads to is read twice, the second time deeper: it counts for the deepest level then
    // too.
    const std::string array = value + V::XML_TAG_ARRAY[set] + V::XML_TAG_DATA[set], member = V::XML_TAG_MEMBER[set],
                      open = value + V::XML_TAG_STRUCT[set] + member;
    for (std::size_t depth = 244; depth < 258; ++depth) {
      for (std::size_t levels = 0; levels < 8; ++levels) {
        const std::string start = Repeated(array, 2) + open + end + Repeated(array, depth),
                          one = value + "1" + end + V::XML_ENDTAG_MEMBER[set];
        const std::string far = start + open + name + Repeated(array, levels) + one + member;
        Check(start);  // the survey alone comes to what follows a struct that breaks off
        Check(far);
        Check(far + name + one + member);
      }
    }
  }
  // A whole value with one character replaced, cut out or put in.
  Random random{std::mt19937(7)};
  for (int i = 0; i < 8000; ++i) {
    std::string xml = RandomSample(random, 3).xml[i % 2];
    if (xml.size() > 2000) continue;
    const std::size_t at = random() % (xml.size() + 1);
    xml.replace(at, random() % 2, random() % 3, random("<>/&;=aln0159-+.:TxA \n\xe4"));
    Check(xml);
  }
}

TEST(XmlRpcValue, IsAccessedWrittenAndReadAsItsTypeAlone) {
  using V = XmlRpcValue;
  struct Functions {
    std::string (V::*write)(int) const;
    bool (V::*read)(const std::string&, int*);
    int (V::*size)(int) const;
    std::function<void(V&)> change;
    std::function<void(const V&)> look;
    std::string error;
    int reserved[2];  // for an empty one, by tag set
  };
#define TYPE(name, access, error, ...)                                                                             \
  {                                                                                                                \
    &V::name##ToXml, &V::name##FromXml, &V::name##ToXmlSize, [](V& v) { v.access; }, [](const V& v) { v.access; }, \
        error, __VA_ARGS__                                                                                         \
  }
  const std::string typeError = "-4303 type error";
  const Functions all[] = {{},
                           TYPE(bool, getBool(), typeError, {40, 24}),
                           TYPE(int, getInt(), typeError, {41, 35}),
                           TYPE(double, getDouble(), typeError, {293, 279}),
                           TYPE(string, getString(), typeError, {18, 12}),
                           TYPE(time, getDateTime(), typeError, {77, 49}),
                           TYPE(binary, assertBinaryData(-1), "-4325 type error: expected binary data", {37, 25}),
                           TYPE(array, assertArray(-1), "-4304 type error: expected an array", {50, 34}),
                           TYPE(struct, assertStruct(), "-4306 type error: expected a struct", {37, 23}),
                           TYPE(int64, getInt64(), typeError, {51, 45})};
#undef TYPE
  V samples[] = {V(), true, 7, 1.5, "x", std::tm(), std::vector<char>(3), V(), V(), 7LL};
  samples[V::TypeArray][0] = samples[V::TypeStruct]["n"] = "x";
  // What is reserved for the content: texts twice, parts with their own, around each member's value a little more.
  const int contents[][2] = {{256, 256}, {0, 0}, {0, 0}, {0, 0}, {2, 2}, {0, 0}, {6, 6}, {20, 14}, {55, 37}, {0, 0}};
  const auto& looked = std::as_const(samples);
  EXPECT_TRUE(looked[V::TypeBoolean].getBool());
  EXPECT_EQ(7, looked[V::TypeInt].getInt());
  EXPECT_EQ(1.5, looked[V::TypeDouble].getDouble());
  EXPECT_EQ(7, looked[V::TypeInt64].getInt64());
  for (int type = 0; type <= 9; ++type) {
    const V &sample = samples[type], empty = Empty(type);
    const Functions& own = all[type];
    ASSERT_EQ(type, sample.getType());
    EXPECT_EQ(0, empty.size());
    EXPECT_EQ(type == V::TypeBase64 ? "" : typeError, Thrown([&] { empty.getBinaryData(); }));
    EXPECT_EQ(type == V::TypeArray ? "" : all[V::TypeArray].error, Thrown([&] { empty.elements(); }));
    EXPECT_EQ(type == V::TypeStruct ? "" : all[V::TypeStruct].error, Thrown([&] { empty.members(); }));
    for (int as = 1; as <= 9; ++as) {
      const Functions& other = all[as];
      const std::string error = type == as ? "" : other.error;
      V changed = sample;
      EXPECT_EQ(error, Thrown([&] { other.look(sample); })) << type << " as " << as;
      EXPECT_EQ(type == 0 ? "" : error, Thrown([&] { other.change(changed); })) << type << " as " << as;
      EXPECT_EQ((type == 0 ? Empty(as) : sample).toXml(0), changed.toXml(0)) << type << " as " << as;
      EXPECT_EQ(type == as ? sample.toXml(1) : "", (sample.*other.write)(1)) << type << " as " << as;
      for (const int set : {0, 1}) {
        EXPECT_EQ(other.reserved[set] + (type == as ? contents[type][set] : 0), (sample.*other.size)(set)) << as;
        EXPECT_EQ(own.reserved[set] + contents[type][set], sample.toXmlSize(set)) << type;
      }
    }
    if (type == 0) continue;
    const std::string xml = sample.toXml(1), tag = PLAIN_TAGS[type][1];
    const int start = type == V::TypeString ? 4 : static_cast<int>(tag.size()) + 6;  // "<va><tag>"
    const int end = static_cast<int>(xml.size()) - start - (type == V::TypeString ? 1 : 2);
    V read;
    int offset = 0;
    ASSERT_TRUE(read.fromXml("<va></va>", &offset));  // so that it has the short tags
    EXPECT_TRUE((read.*own.read)(xml, &(offset = start))) << xml;
    EXPECT_EQ(end, offset) << xml;
    EXPECT_EQ(xml, read.toXml(read.getTagSet()));
    V taken = read, copy = std::move(taken);
    EXPECT_EQ(0, taken.getTagSet());  // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move): a promise
    EXPECT_EQ(1, copy.getTagSet());
    copy.invalidate();
    EXPECT_EQ(0, copy.getTagSet());
    for (const int outside : {-1, INT_MIN, 3, INT_MAX}) {
      const std::string none = outside > 0 ? "<va><st></st></va>" : "";  // a struct without members may be anywhere
      EXPECT_EQ(type == V::TypeStruct && outside > 0, (read.*own.read)("x<", &(offset = outside)));
      EXPECT_EQ(outside, offset);
      EXPECT_EQ(type == V::TypeStruct ? none : xml, read.toXml(1)) << "kept where it cannot be read";
    }
  }
}

TEST(XmlRpcValue, HasRangesThatReadersKeepAndWritersStretch) {
  const std::string tooLarge = "-4305 range error: array index too large";
  for (const int size : {0, 1, 3}) {
    for (const int index : {INT_MIN, -1, 0, 1, 2, 3, 4, INT_MAX}) {
      const bool isInside = index >= 0 && index < size, grows = index >= 0 && index < INT_MAX;
      std::vector<char> bytes(static_cast<std::size_t>(size), '\xff');
      XmlRpcValue array, data = bytes, grown;
      array.assertArray(size);
      for (int i = 0; i < size; ++i) array[i] = i;
      const XmlRpcValue &constArray = array, &constData = data;
      // NOLINTBEGIN(clang-analyzer-unix.Malloc): what is thrown frees its text.
      EXPECT_EQ(isInside ? "" : tooLarge, Thrown([&] { EXPECT_EQ(index, constArray[index].getInt()); }));
      EXPECT_EQ(isInside ? "" : "-4326 type error", Thrown([&] { EXPECT_EQ(255, data.getBinaryDataAt(index)); }));
      EXPECT_EQ(index <= size ? "" : tooLarge, Thrown([&] { constArray.assertArray(index); }));
      EXPECT_EQ(index <= size ? "" : "-4326 range error: index too large",
                Thrown([&] { EXPECT_EQ(size, constData.assertBinaryData(index)); }));
      // NOLINTEND(clang-analyzer-unix.Malloc)
      EXPECT_EQ(grows ? "" : tooLarge, Thrown([&] { grown[index] = index; }));
      EXPECT_EQ(grows ? index + 1 : 0, grown.size());
      if (index == INT_MAX) continue;
      array.assertArray(index);
      data.assertBinaryData(index);
      bytes.resize(static_cast<std::size_t>(std::max(size, index)));
      EXPECT_EQ(std::max(size, index), array.size());
      EXPECT_EQ(bytes, data.getBinaryData());
    }
  }
  EXPECT_EQ("-4304 type error: expected an array", Thrown([] { XmlRpcValue(5)[0]; }));
}

TEST(XmlRpcValue, LooksUpMembersAndFaultsWithoutThrowing) {
  XmlRpcValue v, number = 'c', fault;
  std::vector<std::string> names = {"old"};
  v["b"] = 1;
  v[std::string("a")] = static_cast<const char*>(nullptr);
  EXPECT_TRUE(v.getMembers(names));
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), names);
  EXPECT_EQ(2, v.countMembers());
  EXPECT_EQ(v["a"], "");
  EXPECT_TRUE(v.deleteMember("a"));
  const std::tuple<XmlRpcValue*, const char*, bool> rows[] = {{&v, "b", true}, {&v, "a", false}, {&number, "b", false}};
  for (const auto& [value, name, is] : rows) {
    XmlRpcValue out = 7;
    EXPECT_EQ(is, value->hasMember(name));
    EXPECT_EQ(is ? XmlRpcValue::TypeInt : XmlRpcValue::TypeInvalid, value->getMemberType(name));
    EXPECT_EQ(is ? &value->members().at(name) : nullptr, value->findMember(name));
    EXPECT_EQ(is, value->getMember(name, out));
    EXPECT_EQ(out, is ? 1 : 7);
    EXPECT_EQ(is, value->deleteMember(name));
  }
  EXPECT_EQ("-4306 type error: expected a struct", Thrown([&] { number["x"]; }));
  EXPECT_FALSE(number.getMembers(names));
  EXPECT_EQ(0U, names.size() + static_cast<std::size_t>(number.countMembers()));
  EXPECT_EQ(number, 99);
  fault["faultCode"] = 4;
  EXPECT_EQ("0", std::to_string(fault.GetFaultCode()) + fault.GetFaultString());
  fault["faultString"] = "text";
  EXPECT_EQ("4text", std::to_string(fault.GetFaultCode()) + fault.GetFaultString());
  fault["faultCode"] = XmlRpcValue();
  EXPECT_EQ(0, fault.GetFaultCode());
}

TEST(XmlRpcValue, SurvivesItsOwnParts) {
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

// Each would take minutes or longer if any text were looked at again for each value, member or level around it.
TEST(XmlRpcValue, IsReadInLinearTimeOrRefusedWholeWhereItNestsTooDeep) {
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
      Repeated(array + "<value><struct><member>" + name, 100) + one + one,
      "<value>x" + Repeated(array, 1000)};  // which the reader never enters
  XmlRpcValue value;
  int offset = 0;
  for (const std::string& xml : documents) EXPECT_TRUE(value.fromXml(xml, &(offset = 0))) << xml.substr(0, 100);
  EXPECT_FALSE(value.fromXml(Repeated(array, 1000000), &offset));
  EXPECT_TRUE(value.arrayFromXml("<data>" + Repeated(array, XmlRpcValue::MaximumDepth - 1), &(offset = 0)));
  EXPECT_FALSE(value.arrayFromXml("<data>" + Repeated(array, XmlRpcValue::MaximumDepth), &(offset = 0)));
}

TEST(XmlRpcValue, LosesNothingWhereMemoryRunsOut) {
  XmlRpcValue value;
  value[0] = true;
  value[1] = std::vector<char>(99, 'b');
  value[2][std::string(99, 'n')] = std::string(99, 's');
  value[2]["t"] = std::tm();
  const XmlRpcValue old(std::string(99, 'o'));
  // In its array a malformed struct, which takes the reader through its survey.
  const std::string document = value.toXml(1),
                    hostile = "<va><ar><da><va><ar><da>" + document + "<va><st><me><na>n</na><va>1</va></me><me>bad";
  for (const std::string& xml : {hostile, document}) {
    XmlRpcValue read;
    int offset = 0;
    FailEach([&] { read.fromXml(xml, &offset); }, [&] { return !read.valid() && offset == 0; });
    EXPECT_GT(offset, 0);
  }
  XmlRpcValue copy = old;
  FailEach([&] { copy = value; }, [&] { return copy == old; });
  FailEach([&] { copy.toXml(1); }, [&] { return copy == value; });

  struct : XmlRpcClientTransportHTTP {
    int execute(const std::string& request, std::string& answer) override {
      answer = "<methodResponse><params><param>" + request.substr(request.find("<value>"));
      return 0;
    }
  } echo;
  XmlRpcValue result;
  const auto call = [&] { EXPECT_EQ(0, XmlRpcClient(&echo).execute("method", value, result)); };
  FailEach(call, [&] { return !result.valid(); });
  EXPECT_EQ(value, result);
}

TEST(XmlRpcValue, NumbersAreWrittenAsPrintfDoesAndReadExactly) {
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
      ASSERT_EQ("<va><do>" + PlainReal(number) + "</do></va>", XmlRpcValue(number).toXml(1));
      char exact[64];
      std::snprintf(exact, sizeof exact, "<va><do>%.17g</do></va>", number);
      XmlRpcValue read;
      int offset = 0;
      ASSERT_EQ(std::isfinite(number), read.fromXml(exact, &offset) && read == number) << exact;
    }
    const int whole = static_cast<int>(bits) >> random() % 32;
    ASSERT_EQ("<va><i4>" + std::to_string(whole) + "</i4></va>", XmlRpcValue(whole).toXml(1));
  }
}

}  // namespace
