#pragma once

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "xmlrpc/XmlRpcValue.h"

using TarnXmlRpc::XmlRpcValue;

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

/// By type: the tags of both sets, which strings are written without, and what a writer reserves around the content.
struct PlainType {
  const char* tag[2];
  int reserved[2];
};
inline constexpr PlainType PLAIN_TYPES[] = {{{"", ""}, {256, 256}},        {{"boolean", "bo"}, {40, 24}},
                                            {{"i4", "i4"}, {41, 35}},      {{"double", "do"}, {293, 279}},
                                            {{"string", "str"}, {18, 12}}, {{"dateTime.iso8601", "dtime"}, {77, 49}},
                                            {{"base64", "b64"}, {37, 25}}, {{"array", "ar"}, {50, 34}},
                                            {{"struct", "st"}, {37, 23}},  {{"i8", "i8"}, {51, 45}}};

/// All that a value holds, so that two values are alike if this is. Empty for an invalid one.
inline std::string Shown(int type, int set, const std::string& content) {
  return std::to_string(type) + (set == 1 ? " short(" : " long(") + content + ")";
}
inline std::string Shown(double real) {
  char text[40];
  std::snprintf(text, sizeof text, "%a", real);
  return real != real ? "nan" : text;
}
inline std::string Shown(const std::tm& t) {
  std::string text;
  for (const long field : {t.tm_year + 0L, t.tm_mon + 0L, t.tm_mday + 0L, t.tm_hour + 0L, t.tm_min + 0L, t.tm_sec + 0L,
                           t.tm_isdst + 0L, t.tm_wday + 0L, t.tm_yday + 0L, t.tm_gmtoff}) {
    text += std::to_string(field) + " ";
  }
  return text;
}
inline std::string Text(const std::vector<char>& bytes) { return {bytes.begin(), bytes.end()}; }
inline std::string Shown(const XmlRpcValue& v) {
  std::string content;
  const auto type = v.getType();
  if (type == XmlRpcValue::TypeInvalid) return "";
  if (type == XmlRpcValue::TypeBoolean) content = v.getBool() ? "1" : "0";
  if (type == XmlRpcValue::TypeInt) content = std::to_string(v.getInt());
  if (type == XmlRpcValue::TypeInt64) content = std::to_string(v.getInt64());
  if (type == XmlRpcValue::TypeDouble) content = Shown(v.getDouble());
  if (type == XmlRpcValue::TypeString) content = v.getString();
  if (type == XmlRpcValue::TypeDateTime) content = Shown(v.getDateTime());
  if (type == XmlRpcValue::TypeBase64) content = Text(v.getBinaryData());
  if (type == XmlRpcValue::TypeArray) {
    for (const XmlRpcValue& element : v.elements()) content += Shown(element) + ";";
  }
  if (type == XmlRpcValue::TypeStruct) {
    for (const auto& [name, member] : v.members()) content += name + "=" + Shown(member) + ";";
  }
  return Shown(type, v.getTagSet(), content);
}

/// Numbers at random, the same for a seed; the one that is drawn after `before` others may be made another.
struct Random {
  unsigned operator()() { return static_cast<unsigned>(engine()) + (before-- == 0 ? 1U : 0U); }
  template <typename T, std::size_t n>
  const T& operator()(const T (&choices)[n]) {
    return choices[(*this)() % n];
  }
  std::mt19937 engine;
  int before = -1;
};

inline std::string RandomText(Random& random) {
  const std::size_t lengths[] = {0, 1, 2, 3, 4, 5, 9, 99, 100, 101, 1030, 40000};
  std::string out(lengths[random() % (random() % 16 == 0 ? 12 : 7)], ' ');
  for (char& c : out) c = random("abc<>&'\";=[.|\n\x80\xff");
  return out;
}

/// Of any type but invalid, `depth` levels at most.
inline XmlRpcValue RandomValue(Random& random, int depth) {
  const unsigned type = random() % (depth > 1 ? 9 : 7), parts = random() % (random() % 64 == 0 ? 120 : 4);
  const auto number = static_cast<long long>((static_cast<unsigned long long>(random()) << random() % 33) * 2 - 1);
  if (type == 0) return random() % 2 == 0;
  if (type == 1) return static_cast<int>(number);
  if (type == 2) return number;
  const double real = static_cast<double>(number) / 1000;
  if (type == 3) return random({0.0, -0.0, -1.5, 1e300, -1e-300, 123456789012345678.0, -std::nan(""), 1.0 / 3, real});
  if (type == 4) return RandomText(random);
  if (type == 5) {
    const std::string text = RandomText(random);
    return std::vector<char>(text.begin(), text.end());
  }
  XmlRpcValue value;
  if (type == 6) {
    std::tm& t = value.getDateTime();
    for (int* field : {&t.tm_year, &t.tm_mon, &t.tm_mday, &t.tm_hour, &t.tm_min, &t.tm_sec}) {
      *field = random({-10, 0, 7, 59, 1970, 2000000000});
    }
  } else if (type == 7) {
    value.assertArray(static_cast<int>(parts));
    for (unsigned i = 0; i < parts; ++i) value[static_cast<int>(i)] = RandomValue(random, depth - 1);
  } else {
    value.assertStruct();
    for (unsigned i = 0; i < parts; ++i) value[RandomText(random)] = RandomValue(random, depth - 1);
  }
  return value;
}

/// What == says: it leaves out the day of the month and the names of members, and no NaN equals another.
inline bool PlainEqual(const XmlRpcValue& a, const XmlRpcValue& b) {
  if (a.getType() != b.getType()) return false;
  if (a.getType() == XmlRpcValue::TypeDouble) return a.getDouble() == b.getDouble();
  if (a.getType() == XmlRpcValue::TypeDateTime) {
    std::tm x = a.getDateTime(), y = b.getDateTime();
    x.tm_mday = y.tm_mday = 1;
    return Shown(x) == Shown(y);
  }
  if (a.getType() == XmlRpcValue::TypeArray) {
    return std::equal(a.elements().begin(), a.elements().end(), b.elements().begin(), b.elements().end(), PlainEqual);
  }
  if (a.getType() != XmlRpcValue::TypeStruct) return Shown(a) == Shown(b);
  return std::equal(a.members().begin(), a.members().end(), b.members().begin(), b.members().end(),
                    [](const auto& m, const auto& n) { return PlainEqual(m.second, n.second); });
}

/// The XML, and in `reserved` what is reserved for it: texts twice, names not at all.
inline std::string PlainXml(const XmlRpcValue& v, int set, int& reserved) {
  const auto type = v.getType();
  char text[400] = "";
  reserved = PLAIN_TYPES[type].reserved[set];
  std::string content, name = "<" + std::string(PLAIN_TYPES[type].tag[set]) + ">";
  const auto enclosed = [](const std::string& tag, const std::string& inside) {
    return tag + inside + "</" + tag.substr(1);
  };
  if (type == XmlRpcValue::TypeInvalid) return "";
  if (type == XmlRpcValue::TypeBoolean) content = v.getBool() ? "1" : "0";
  if (type == XmlRpcValue::TypeInt) content = std::to_string(v.getInt());
  if (type == XmlRpcValue::TypeInt64) content = std::to_string(v.getInt64());
  if (type == XmlRpcValue::TypeDouble) {
    std::snprintf(text, sizeof text, XmlRpcValue::m_DoubleFormat.c_str(), v.getDouble());
    content = v.getDouble() != v.getDouble() ? "nan" : std::string(text).substr(0, 254);
  }
  if (type == XmlRpcValue::TypeDateTime) {
    const std::tm& t = v.getDateTime();
    std::snprintf(text, sizeof text, "%04d%02d%02dT%02d:%02d:%02d", t.tm_year, t.tm_mon, t.tm_mday, t.tm_hour, t.tm_min,
                  t.tm_sec);
    content = text;
  }
  if (type == XmlRpcValue::TypeBase64) content = PlainBase64(Text(v.getBinaryData()));
  if (type == XmlRpcValue::TypeString || type == XmlRpcValue::TypeBase64) reserved += 2 * v.size();
  int part = 0;
  if (type == XmlRpcValue::TypeArray) {
    for (const XmlRpcValue& element : v.elements()) {
      content += PlainXml(element, set, part);
      reserved += part;
    }
    content = enclosed(set == 1 ? "<da>" : "<data>", content);
  }
  if (type == XmlRpcValue::TypeStruct) {
    for (const auto& [memberName, member] : v.members()) {
      const std::string inside = enclosed(set == 1 ? "<na>" : "<name>", PlainEncode(memberName));
      content += enclosed(set == 1 ? "<me>" : "<member>", inside + PlainXml(member, set, part));
      reserved += part + (set == 1 ? 23 : 35);
    }
  }
  content = type == XmlRpcValue::TypeString ? PlainEncode(v.getString()) : enclosed(name, content);
  return enclosed(set == 1 ? "<va>" : "<value>", content);
}
