#pragma once

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "xmlrpc/XmlRpcValue.h"

inline const std::map<char, std::string> PLAIN_ENTITIES = {
    {'<', "&lt;"}, {'>', "&gt;"}, {'&', "&amp;"}, {'\'', "&apos;"}, {'"', "&quot;"}};

inline std::string PlainEncode(const std::string& text) {
  std::string out;
  for (const char c : text) out += PLAIN_ENTITIES.count(c) == 0 ? std::string(1, c) : PLAIN_ENTITIES.at(c);
  return out;
}

inline const std::string PLAIN_ALPHABET = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// Base64 (RFC 4648) of `bytes`, bit by bit.
inline std::string PlainBase64(const std::string& bytes) {
  std::string bits, out;
  for (const char byte : bytes) {
    for (int bit = 7; bit >= 0; --bit) bits += (byte >> bit & 1) != 0 ? '1' : '0';
  }
  while (bits.size() % 6 != 0) bits += '0';
  for (std::size_t i = 0; i < bits.size(); i += 6) out += PLAIN_ALPHABET[std::stoul(bits.substr(i, 6), nullptr, 2)];
  while (out.size() % 4 != 0) out += '=';
  return out;
}

/// The strict reading of base64: whole groups of four, of which one that is padded ends nothing and a foreign character
/// everything.
inline std::string PlainFromBase64(const std::string& text) {
  std::string bytes;
  if (text.size() % 4 != 0) return bytes;
  for (std::size_t i = 0; i < text.size(); i += 4) {
    if (text[i] == '=' || text[i + 1] == '=') continue;
    std::string bits;
    for (std::size_t k = 0; k < 4 && (k < 2 || text[i + k] != '='); ++k) {
      const std::size_t c = PLAIN_ALPHABET.find(text[i + k]);
      if (c == std::string::npos) return bytes;
      for (int bit = 5; bit >= 0; --bit) bits += (c >> bit & 1) != 0 ? '1' : '0';
    }
    for (std::size_t b = 0; b + 8 <= bits.size(); b += 8) {
      bytes += static_cast<char>(std::stoul(bits.substr(b, 8), nullptr, 2));
    }
  }
  return bytes;
}

/// A value held as plainly as can be, and each thing that the library makes of values, as plainly as its rule can be
/// written. Nothing of the library is used but the class that is compared with it.
struct PlainValue {
  using Value = TarnXmlRpc::XmlRpcValue;

  int type = Value::TypeInvalid;
  int set = 0;
  long long number = 0;
  double real = 0;
  std::string text;  // or binary data
  std::tm time = {};
  std::vector<PlainValue> elements;
  std::map<std::string, PlainValue> members;

  bool holds(int wanted) const { return type == wanted; }
  bool isWhole() const { return holds(Value::TypeBoolean) || holds(Value::TypeInt) || holds(Value::TypeInt64); }

  static std::string RandomText(std::mt19937& random) {
    const std::string characters("abc<>&'\";=[.|\n\0\x80\xff", 18);
    const std::size_t lengths[] = {0, 1, 2, 3, 4, 5, 9, 99, 100, 101, 1030, 40000};
    std::string out(lengths[random() % (random() % 16 == 0 ? 12 : 7)], ' ');
    for (char& c : out) c = characters[random() % characters.size()];
    return out;
  }

  /// Of any type but invalid, `depth` levels at most.
  static PlainValue Random(std::mt19937& random, int depth) {
    PlainValue v;
    v.type = 1 + static_cast<int>(random() % 9);
    if (depth <= 1 && (v.holds(Value::TypeArray) || v.holds(Value::TypeStruct))) v.type = Value::TypeInt64;
    v.number = static_cast<long long>(static_cast<unsigned long long>(random()) << random() % 33);
    if (random() % 2 == 0) v.number = ~v.number;
    if (v.holds(Value::TypeBoolean)) v.number &= 1;
    if (v.holds(Value::TypeInt)) v.number = static_cast<int>(v.number);
    const double reals[] = {0, -0.0, -1.5, 1e300, -1e-300, 123456789012345678.0, -NAN, 1.0 / 3};
    v.real = random() % 2 == 0 ? reals[random() % 8] : static_cast<double>(v.number) / 1000;
    v.text = RandomText(random);
    for (int* field : {&v.time.tm_year, &v.time.tm_mon, &v.time.tm_mday, &v.time.tm_hour, &v.time.tm_sec}) {
      *field = static_cast<int>(random() % 3000) - 10;
    }
    v.time.tm_min = random() % 2 == 0 ? 5 : 2000000000;
    const std::size_t parts = random() % (random() % 64 == 0 ? 120 : 4);
    while (v.holds(Value::TypeArray) && v.elements.size() < parts) v.elements.push_back(Random(random, depth - 1));
    for (std::size_t i = 0; v.holds(Value::TypeStruct) && i < parts; ++i) {
      const std::string name = RandomText(random);
      v.members[name] = Random(random, depth - 1);
    }
    return v;
  }

  Value make() const {
    if (type == Value::TypeBoolean) return number != 0;
    if (type == Value::TypeInt) return static_cast<int>(number);
    if (type == Value::TypeInt64) return number;
    if (type == Value::TypeDouble) return real;
    if (type == Value::TypeString) return text;
    if (type == Value::TypeDateTime) return time;
    if (type == Value::TypeBase64) return std::vector<char>(text.begin(), text.end());
    Value v;
    if (type == Value::TypeArray) v.assertArray(static_cast<int>(elements.size()));
    for (std::size_t i = 0; i < elements.size(); ++i) v[static_cast<int>(i)] = elements[i].make();
    if (type == Value::TypeStruct) v.assertStruct();
    for (const auto& [name, member] : members) v[name] = member.make();
    return v;
  }

  static auto TimeOfDay(const std::tm& t) { return std::tie(t.tm_year, t.tm_mon, t.tm_hour, t.tm_min, t.tm_sec); }
  static bool SameTime(const std::tm& a, const std::tm& b) {
    return TimeOfDay(a) == TimeOfDay(b) && std::tie(a.tm_mday, a.tm_isdst, a.tm_wday, a.tm_yday, a.tm_gmtoff) ==
                                               std::tie(b.tm_mday, b.tm_isdst, b.tm_wday, b.tm_yday, b.tm_gmtoff);
  }

  /// Whether `v` holds just this, all the way down.
  bool is(const Value& v) const {
    if (v.getType() != type || v.getTagSet() != set) return false;
    if (type == Value::TypeBoolean) return v.getBool() == (number != 0);
    if (type == Value::TypeInt) return v.getInt() == number;
    if (type == Value::TypeInt64) return v.getInt64() == number;
    if (type == Value::TypeDouble && real != real) return v.getDouble() != v.getDouble();
    if (type == Value::TypeDouble) return std::memcmp(&v.getDouble(), &real, sizeof real) == 0;
    if (type == Value::TypeString) return v.getString() == text;
    if (type == Value::TypeDateTime) return SameTime(v.getDateTime(), time);
    if (type == Value::TypeBase64) return std::string(v.getBinaryData().begin(), v.getBinaryData().end()) == text;
    if (type == Value::TypeArray) {
      return std::equal(elements.begin(), elements.end(), v.elements().begin(), v.elements().end(),
                        [](const PlainValue& plain, const Value& element) { return plain.is(element); });
    }
    return type == Value::TypeInvalid ||
           std::equal(members.begin(), members.end(), v.members().begin(), v.members().end(),
                      [](const auto& m, const auto& n) { return m.first == n.first && m.second.is(n.second); });
  }

  /// What == says: it leaves out the day of the month and the names of members, and no NaN equals another.
  static bool Equal(const PlainValue& a, const PlainValue& b) {
    if (a.type != b.type) return false;
    if (a.type == Value::TypeDouble) return a.real == b.real;
    if (a.type == Value::TypeString || a.type == Value::TypeBase64) return a.text == b.text;
    if (a.type == Value::TypeDateTime) return TimeOfDay(a.time) == TimeOfDay(b.time);
    if (a.type == Value::TypeArray) {
      return std::equal(a.elements.begin(), a.elements.end(), b.elements.begin(), b.elements.end(), Equal);
    }
    if (a.type == Value::TypeStruct) {
      return std::equal(a.members.begin(), a.members.end(), b.members.begin(), b.members.end(),
                        [](const auto& m, const auto& n) { return Equal(m.second, n.second); });
    }
    return a.number == b.number || a.type == Value::TypeInvalid;
  }

  std::string realText(std::size_t most) const {
    char out[400];
    std::snprintf(out, sizeof out, Value::m_DoubleFormat.c_str(), real);
    return real != real ? "nan" : std::string(out).substr(0, most);
  }
  std::string timeText(const char* format) const {
    char out[100];
    std::snprintf(out, sizeof out, format, time.tm_year, time.tm_mon, time.tm_mday, time.tm_hour, time.tm_min,
                  time.tm_sec);
    return out;
  }
  std::string standardTime() const {
    char out[100];
    std::snprintf(out, sizeof out, "%02i.%02i.%04i %02i:%02i:%02i", time.tm_mday, time.tm_mon + 1, time.tm_year + 1900,
                  time.tm_hour, time.tm_min, time.tm_sec);
    return out;
  }

  /// The XML, and in `size` what is reserved for it: the texts twice, with so much around them.
  std::string xml(int tags, int* size) const {
    const char* const names[][2] = {
        {"boolean", "bo"}, {"i4", "i4"},    {"double", "do"}, {"", ""},    {"dateTime.iso8601", "dtime"},
        {"base64", "b64"}, {"array", "ar"}, {"struct", "st"}, {"i8", "i8"}};
    const int sizes[][2] = {{40, 24}, {41, 35}, {293, 279}, {18, 12}, {77, 49}, {37, 25}, {50, 34}, {37, 23}, {51, 45}};
    if (type == Value::TypeInvalid) return *size = 256, "";
    *size = sizes[type - 1][tags];
    std::string content;
    if (isWhole()) content = std::to_string(number);
    if (type == Value::TypeDouble) content = realText(254);
    if (type == Value::TypeString) content = PlainEncode(text);
    if (type == Value::TypeDateTime) content = timeText("%04d%02d%02dT%02d:%02d:%02d");
    if (type == Value::TypeBase64) content = PlainBase64(text);
    if (type == Value::TypeString || type == Value::TypeBase64) *size += 2 * static_cast<int>(text.size());
    int part = 0;
    for (const PlainValue& element : elements) content += element.xml(tags, &part), *size += part;
    if (type == Value::TypeArray) content = tags == 1 ? "<da>" + content + "</da>" : "<data>" + content + "</data>";
    for (const auto& [name, member] : members) {
      content += (tags == 1 ? "<me><na>" : "<member><name>") + PlainEncode(name) + (tags == 1 ? "</na>" : "</name>") +
                 member.xml(tags, &part) + (tags == 1 ? "</me>" : "</member>");
      *size += part + (tags == 1 ? 23 : 35);
    }
    const std::string name = names[type - 1][tags], value = tags == 1 ? "va>" : "value>";
    if (!name.empty()) content = "<" + name + ">" + content + "</" + name + ">";
    return "<" + value + content + "</" + value;
  }

  /// What FilePrint() writes.
  std::string dump(const std::string& name) const {
    const char* const names[] = {"Invalid",  "Boolean", "Int",   "Double", "String",
                                 "DateTime", "Base64",  "Array", "Struct", "Int64"};
    const std::string end = std::string(", Type") + names[type];
    std::string out = name, parts;
    if (type == Value::TypeBoolean) out += number != 0 ? " = true" : " = false";
    if (type == Value::TypeInt || type == Value::TypeInt64) out += " = " + std::to_string(number);
    if (type == Value::TypeDouble) out += " = " + realText(18);
    if (type == Value::TypeString) {
      out += " = \"" + std::string(text.substr(0, 100).c_str()) + (text.size() > 100 ? "...\"" : "\"");
    }
    out += end;
    if (type == Value::TypeDateTime) out += ", " + standardTime();
    if (type == Value::TypeBase64) out += ", size = " + std::to_string(text.size());
    if (type == Value::TypeBase64 && !text.empty()) out += ", data = ";
    for (std::size_t i = 0; type == Value::TypeBase64 && i < text.size(); ++i) {
      char byte[20];
      std::snprintf(byte, sizeof byte, "0x%02x, ", static_cast<signed char>(text[i]));
      out += i < 100 ? byte : i == 100 ? "..." : "";
    }
    if (type == Value::TypeArray || type == Value::TypeStruct)
      out += ", size = " + std::to_string(elements.size() + members.size());
    std::size_t printed = 0;
    for (const PlainValue& element : elements) {
      if (printed++ < 100) parts += element.dump(name + "[" + std::to_string(printed - 1) + "]");
    }
    for (const auto& [memberName, member] : members) {
      if (printed++ < 100) parts += member.dump(std::string((name + "[" + memberName + "]").c_str()));
    }
    return " " + out + "\n" + parts;
  }

  /// What write() and << make of it.
  std::string line() const {
    std::string out, separator;
    if (isWhole()) return std::to_string(number);
    if (type == Value::TypeString) return text;
    if (type == Value::TypeDateTime) return timeText("%4d%02d%02dT%02d:%02d:%02d");
    if (type == Value::TypeBase64) return PlainBase64(text);
    if (type == Value::TypeDouble) {
      char rounded[400];
      std::snprintf(rounded, sizeof rounded, "%g", real);
      return rounded;
    }
    for (const PlainValue& element : elements) out += std::exchange(separator, ",") + element.line();
    for (const auto& [name, member] : members) out += std::exchange(separator, ",") + name + ":" + member.line();
    return type == Value::TypeArray ? "{" + out + "}" : type == Value::TypeStruct ? "[" + out + "]" : "";
  }

  /// What toINIFormat() appends to `blocks`; false if there is binary data in it, which is left out.
  bool ini(std::vector<std::string>& blocks, const std::string& section, const std::string& key) const {
    const std::string name = key.empty() ? "Value" : key;
    bool done = type != Value::TypeBase64;
    for (std::size_t i = 0; i < elements.size(); ++i) {
      done = elements[i].ini(blocks, section, name + "|" + std::to_string(i) + "|") && done;
    }
    for (const auto& [memberName, member] : members) {
      done = member.ini(blocks, key.empty() ? section : section + "." + key, memberName.c_str()) && done;
    }
    std::string line = name + "=";
    if (isWhole())
      line += std::to_string(number).substr(0, 18);
    else if (type == Value::TypeDouble)
      line += realText(18);
    else if (type == Value::TypeString)
      line += text;
    else if (type == Value::TypeDateTime)
      line += standardTime() + " (DD.MM.YYYY HH:MM:SS)";
    else
      return done;
    for (std::string& block : blocks) {
      if (block.find(section) != std::string::npos) return block += line + "\n", true;
    }
    blocks.push_back("[" + section + "]\n" + line + "\n");
    return true;
  }
};
