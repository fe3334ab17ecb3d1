#include "xmlrpc/XmlRpcValue.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <functional>
#include <limits>
#include <type_traits>

using TarnXmlRpc::XmlRpcException;
using TarnXmlRpc::XmlRpcValue;

namespace {

template <typename T>
constexpr bool fits = std::is_constructible_v<XmlRpcValue, T>&& std::is_assignable_v<XmlRpcValue&, T>;
static_assert(fits<bool> && fits<short> && fits<long> && fits<long long> && fits<float> && fits<char*>);
static_assert(!fits<unsigned> && !fits<unsigned long> && !fits<unsigned long long> && !fits<long double> &&
              !fits<int*>);
static_assert(std::is_nothrow_move_constructible_v<XmlRpcValue> && std::is_nothrow_move_assignable_v<XmlRpcValue>);

/// The code that `action` throws, with its message; 0 if it throws nothing.
int Thrown(const std::function<void()>& action, std::string* message = nullptr) {
  try {
    action();
  } catch (const XmlRpcException& e) {
    if (message != nullptr) *message = e.getMessage();
    EXPECT_EQ(e.getMessage(), e.what());
    return e.getCode();
  }
  return 0;
}

XmlRpcValue OneOfEach() {
  XmlRpcValue v;
  v["bool"] = true;
  v["int"] = -5;
  v["int64"] = 1LL << 40;
  v["double"] = 0.5;
  v["string"] = "text";
  std::tm time = {};
  time.tm_year = 2024;
  time.tm_mday = 5;
  v["time"] = time;
  v["binary"] = std::vector<char>{'\0', '\xff'};
  v["array"][1] = "second";
  v["struct"]["inner"] = 1;
  return v;
}

}  // namespace

TEST(Value, TakesTheTypeOfWhatItIsGiven) {
  const struct {
    XmlRpcValue value;
    XmlRpcValue::Type type;
  } rows[] = {{XmlRpcValue(), XmlRpcValue::TypeInvalid},
              {true, XmlRpcValue::TypeBoolean},
              {'c', XmlRpcValue::TypeInt},
              {5L, XmlRpcValue::TypeInt64},
              {1.5F, XmlRpcValue::TypeDouble},
              {static_cast<const char*>(nullptr), XmlRpcValue::TypeString},
              {std::tm(), XmlRpcValue::TypeDateTime},
              {std::vector<char>(), XmlRpcValue::TypeBase64}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.type, row.value.getType());
    XmlRpcValue assigned(std::string("held before"));
    assigned = row.value;
    EXPECT_EQ(row.type, assigned.getType());
  }
}

TEST(Value, AccessGivesAnInvalidValueTheTypeAndThrowsOnEveryOther) {
  std::string message;
  XmlRpcValue number(5);
  const XmlRpcValue& constNumber = number;
  const XmlRpcValue invalid;
  const struct {
    int code;
    const char* message;
    std::function<void()> action;
  } rows[] = {
      {-4303, "type error", [&] { number.getInt64(); }},
      {-4303, "type error", [&] { constNumber.getDouble(); }},
      {-4303, "type error", [&] { invalid.getInt(); }},
      {-4303, "type error", [&] { number.getBinaryData(); }},
      {-4304, "type error: expected an array", [&] { number[0]; }},
      {-4304, "type error: expected an array", [&] { number[-1]; }},
      {-4304, "type error: expected an array", [&] { invalid.assertArray(0); }},
      {-4306, "type error: expected a struct", [&] { number["x"]; }},
      {-4306, "type error: expected a struct", [&] { invalid.assertStruct(); }},
      {-4325, "type error: expected binary data", [&] { number.assertBinaryData(1); }},
      {-4325, "type error: expected binary data", [&] { invalid.assertBinaryData(0); }},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.code, Thrown(row.action, &message)) << row.message;
    EXPECT_EQ(row.message, message);
  }
  EXPECT_EQ(5, number.getInt());

  XmlRpcValue fresh;
  EXPECT_EQ(-4305, Thrown([&] { fresh[-1]; }));
  EXPECT_EQ(-4305, Thrown([&] { fresh[INT_MAX]; }));
  EXPECT_FALSE(fresh.valid());
  EXPECT_FALSE(fresh["x"].valid());
  EXPECT_EQ(1, fresh.countMembers());
}

TEST(Value, ArraysAndBinaryDataGrowAndNeverShrink) {
  XmlRpcValue array;
  array.assertArray(-3);
  EXPECT_EQ(0, array.size());
  array[2] = 7;
  array.assertArray(1);
  EXPECT_EQ(3, array.size());
  const XmlRpcValue& constArray = array;
  EXPECT_EQ(0, Thrown([&] { constArray.assertArray(3); }));
  EXPECT_EQ(-4305, Thrown([&] { constArray.assertArray(4); }));
  EXPECT_EQ(-4305, Thrown([&] { constArray[3]; }));

  XmlRpcValue data;
  data.assertBinaryData(3);
  data.assertBinaryData(1);
  const XmlRpcValue& constData = data;
  EXPECT_EQ(3, constData.assertBinaryData(-1));
  EXPECT_EQ(-4326, Thrown([&] { constData.assertBinaryData(4); }));
  std::string message;
  for (const int index : {-1, 3}) {
    EXPECT_EQ(-4326, Thrown([&] { constData.getBinaryDataAt(index); }, &message));
    EXPECT_EQ("type error", message);
  }
  EXPECT_EQ(255, XmlRpcValue(std::vector<char>{'\xff'}).getBinaryDataAt(0));
}

TEST(Value, CopiesAreDeepAndMovesLeaveTheSourceInvalid) {
  XmlRpcValue original = OneOfEach();
  XmlRpcValue copy(original);
  EXPECT_EQ(original, copy);
  copy["struct"]["inner"] = 2;
  copy["string"].getString() += "!";
  EXPECT_EQ(1, original["struct"]["inner"].getInt());
  EXPECT_EQ("text", original["string"].getString());

  int offset = 0;
  ASSERT_TRUE(copy.fromXml("<va><st></st></va>", &offset));
  original = std::move(copy);
  EXPECT_EQ(1, original.getTagSet());
  EXPECT_FALSE(copy.valid());  // NOLINT(bugprone-use-after-move): that is the promise
  EXPECT_EQ(0, copy.getTagSet());
  original = 5;
  EXPECT_EQ(0, original.getTagSet());
}

TEST(Value, SurvivesItsOwnParts) {
  const std::function<void(XmlRpcValue&)> uses[] = {[](XmlRpcValue& v) { v = v["a"]; },
                                                    [](XmlRpcValue& v) { v = std::move(v["a"]); },
                                                    [](XmlRpcValue& v) { v.getMember("a", v); },
                                                    [](XmlRpcValue& v) {
                                                      int offset = 0;
                                                      v.fromXml(v["xml"].getString(), &offset);
                                                    },
                                                    [](XmlRpcValue& v) {
                                                      XmlRpcValue& same = v;
                                                      v = v["a"];
                                                      v = same;
                                                      v = std::move(same);
                                                    }};
  for (const auto& use : uses) {
    XmlRpcValue v;
    v["a"] = "a text long enough to be on the heap";
    v["xml"] = "<value>a text long enough to be on the heap</value>";
    use(v);
    EXPECT_EQ("a text long enough to be on the heap", v.getString());
  }
  XmlRpcValue whole = OneOfEach();
  whole["array"] = whole;
  EXPECT_EQ("second", whole["array"]["array"][1].getString());
}

TEST(Value, LooksUpMembersWithoutThrowing) {
  XmlRpcValue v = OneOfEach();
  XmlRpcValue out(7);
  std::vector<std::string> names = {"old"};
  EXPECT_TRUE(v.getMembers(names));
  EXPECT_EQ((std::vector<std::string>{"array", "binary", "bool", "double", "int", "int64", "string", "struct", "time"}),
            names);
  EXPECT_EQ(XmlRpcValue::TypeInt64, v.getMemberType("int64"));
  EXPECT_FALSE(v.getMember("absent", out));
  EXPECT_EQ(7, out.getInt());
  EXPECT_TRUE(v.deleteMember("int"));
  EXPECT_FALSE(v.deleteMember("int"));
  EXPECT_EQ(8, v.size());
  EXPECT_FALSE(v["array"].hasMember("x"));
  EXPECT_EQ(XmlRpcValue::TypeInvalid, v["array"].getMemberType("x"));
  EXPECT_FALSE(v["array"].getMembers(names));
  EXPECT_TRUE(names.empty());
}

TEST(Value, EqualityLeavesOutNamesAndTheDayOfTheMonth) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  std::tm early = {}, late = {}, other = {};
  early.tm_mday = 5;
  late.tm_mday = 28;
  other.tm_hour = 1;
  XmlRpcValue a, b, longer;
  a["a"] = 1;
  b["b"] = 1;
  longer["a"] = 1;
  longer["b"] = 1;
  const struct {
    bool equal;
    XmlRpcValue left, right;
  } rows[] = {{true, XmlRpcValue(), XmlRpcValue()},
              {false, 1, 1LL},
              {false, 1, 2},
              {true, early, late},
              {false, early, other},
              {true, a, b},
              {false, a, longer},
              {false, nan, nan},
              {false, nan, 1.0},
              {true, "x", std::string("x")},
              {false, "x", std::string("x\0y", 3)},
              {true, OneOfEach(), OneOfEach()},
              {false, OneOfEach(), a},
              {true, "x", "x"},
              {false, true, false}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.equal, row.left == row.right) << row.left.toXml(0) << " " << row.right.toXml(0);
    EXPECT_EQ(!row.equal, row.left != row.right);
  }
}

TEST(Value, IsAFaultOnlyWithCodeAndText) {
  XmlRpcValue v;
  EXPECT_EQ(0, v.GetFaultCode());
  v["faultCode"] = 4;
  EXPECT_FALSE(v.IsFaultResponse());
  EXPECT_EQ("", v.GetFaultString());
  v["faultString"] = "too many";
  EXPECT_EQ(4, v.GetFaultCode());
  EXPECT_EQ("too many", v.GetFaultString());
  v["faultCode"] = "4";
  EXPECT_EQ(-4303, Thrown([&] { v.GetFaultCode(); }));
}
