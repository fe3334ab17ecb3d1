#pragma once

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "xmlrpc/XmlRpcUtil.h"
#include "xmlrpc/XmlRpcValue.h"

using TarnXmlRpc::XmlRpcValue;

inline const std::string PLAIN_ALPHABET = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// Base64 (RFC 4648) of `bytes`.
inline std::string PlainBase64(const std::string& bytes) {
  std::string out;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t used = std::min<std::size_t>(bytes.size() - i, 3);
    unsigned long bits = 0;
    for (std::size_t k = 0; k < 3; ++k) bits = bits << 8 | (k < used ? static_cast<unsigned char>(bytes[i + k]) : 0U);
    for (std::size_t k = 0; k < 4; ++k) out += k <= used ? PLAIN_ALPHABET[bits >> (18 - 6 * k) & 63] : '=';
  }
  return out;
}

/// The strict reading of base64: whole groups of four, of which one that is padded ends nothing and a foreign character
/// everything.
inline std::string PlainFromBase64(const std::string& text) {
  std::string bytes;
  for (std::size_t i = 0; i < text.size() && text.size() % 4 == 0; i += 4) {
    const std::size_t used = std::min<std::size_t>(text.substr(i, 4).find('='), 4);
    unsigned long bits = 0;
    for (std::size_t k = 0; k < 4 && used > 1; ++k) {
      const std::size_t sextet = k < used ? PLAIN_ALPHABET.find(text[i + k]) : 0;
      if (sextet == std::string::npos) return bytes;
      bits = bits << 6 | sextet;
    }
    for (std::size_t k = 0; k + 1 < used; ++k) bytes += static_cast<char>(bits >> (16 - 8 * k));
  }
  return bytes;
}

/// By type: its tags in both sets.
inline constexpr const char* PLAIN_TAGS[][2] = {{"", ""},          {"boolean", "bo"}, {"i4", "i4"},
                                                {"double", "do"},  {"string", "str"}, {"dateTime.iso8601", "dtime"},
                                                {"base64", "b64"}, {"array", "ar"},   {"struct", "st"},
                                                {"i8", "i8"}};

template <typename... Values>
std::string Printed(const char* format, Values... values) {
  char text[400];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}
inline std::string PlainReal(double real) { return real != real ? "nan" : Printed("%.15g", real); }
inline std::string PlainTime(const std::tm& t) {
  return Printed("%04d%02d%02dT%02d:%02d:%02d", t.tm_year, t.tm_mon, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
}
inline std::string Text(const std::vector<char>& bytes) { return {bytes.begin(), bytes.end()}; }

inline std::string Enclosed(const std::string& tag, const std::string& content) {
  return "<" + tag + ">" + content + "</" + tag + ">";
}
/// A value, of which strings are written without their type's tag.
inline std::string PlainXml(int type, int set, const std::string& content) {
  const std::string inside = type == XmlRpcValue::TypeArray ? Enclosed(set == 1 ? "da" : "data", content) : content;
  const bool isString = type == XmlRpcValue::TypeString;
  return Enclosed(set == 1 ? "va" : "value", isString ? inside : Enclosed(PLAIN_TAGS[type][set % 2], inside));
}
/// A struct's members.
inline std::string PlainMember(int set, const std::string& name, const std::string& xml) {
  return Enclosed(set == 1 ? "me" : "member",
                  Enclosed(set == 1 ? "na" : "name", TarnXmlRpc::XmlRpcUtil::xmlEncode(name)) + xml);
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

/// A value of any type but invalid. Its XML by tag set, the third time without what == does not look at: the day of the
/// month, names of members, the sign of zero.
struct Sample {
  XmlRpcValue value;
  std::string xml[3];

  bool operator==(const Sample& other) const { return xml[2] == other.xml[2] && xml[2].find(">nan<") == xml[2].npos; }
};

inline Sample RandomSample(Random& random, int depth) {
  const int kind = static_cast<int>(random() % 9) + 1, type = depth > 1 || kind % 9 < 7 ? kind : 9;
  const auto number = static_cast<long long>(static_cast<unsigned long long>(random()) << 32 | 1) >> random() % 64;
  const double real = random({0.0, -0.0, -1.5, 1e300, -1e-300, 123456789012345678.0, -std::nan(""), 1.0 / 3,
                              static_cast<double>(number) / 1000});
  const std::string text = RandomText(random);
  std::tm t = {};
  for (int* field : {&t.tm_year, &t.tm_mon, &t.tm_mday, &t.tm_hour, &t.tm_min, &t.tm_sec}) {
    *field = random({-10, 0, 7, 59, 1970, 2000000000});
  }
  const std::pair<XmlRpcValue, std::string> scalars[] = {
      {{}, ""},
      {number % 4 > 0, number % 4 > 0 ? "1" : "0"},
      {static_cast<int>(number), std::to_string(static_cast<int>(number))},
      {real, PlainReal(real)},
      {text, TarnXmlRpc::XmlRpcUtil::xmlEncode(text)},
      {t, PlainTime(t)},
      {std::vector<char>(text.begin(), text.end()), PlainBase64(text)},
      {{}, ""},
      {{}, ""},
      {number, std::to_string(number)}};
  auto [value, content] = scalars[type];
  std::string contents[] = {content, content, content};
  t.tm_mday = 0;
  if (type == XmlRpcValue::TypeDateTime) contents[2] = PlainTime(t);
  if (type == XmlRpcValue::TypeDouble) contents[2] = PlainReal(real + 0.0);
  const bool isArray = type == XmlRpcValue::TypeArray, isStruct = type == XmlRpcValue::TypeStruct;
  if (isArray) value.assertArray(0);
  if (isStruct) value.assertStruct();
  std::map<std::string, Sample> parts;
  for (auto n = isArray || isStruct ? random() % (random() % 64 == 0 ? 120 : 4) : 0; n > 0; --n)
    parts.emplace(RandomText(random), RandomSample(random, depth - 1));
  for (const auto& [name, part] : parts) {
    (isArray ? value[value.size()] : value[name]) = part.value;
    for (int form = 0; form < 3; ++form)
      contents[form] += isArray ? part.xml[form] : PlainMember(form, form == 2 ? "" : name, part.xml[form]);
  }
  Sample sample = {value, {}};
  for (int form = 0; form < 3; ++form) sample.xml[form] = PlainXml(type, form, contents[form]);
  return sample;
}
