#include <algorithm>
#include <cstdio>
#include <ostream>

#include "xmlrpc/CBase64.h"
#include "xmlrpc/ValueTypes.h"
#include "xmlrpc/XmlNumbers.h"

namespace TarnXmlRpc {

namespace {

constexpr std::size_t MOST_PRINTED = 100;  // characters, bytes, elements or members of one value
constexpr std::size_t NUMBER_SIZE = 19;    // longer texts of doubles are cut

/// Writes one value with its name and type, a container's parts on lines of their own.
struct Dump {
  std::FILE* stream;
  const char* prefix;
  const char* name;
  const char* type;

  void dump(bool value) const { assignment(value ? "true" : "false"); }
  void dump(std::int32_t value) const { assignment(std::to_string(value).c_str()); }
  void dump(long long value) const { assignment(std::to_string(value).c_str()); }
  void dump(double value) const {
    char text[NUMBER_SIZE];
    FormatDouble(value, XmlRpcValue::m_DoubleFormat, text, sizeof text);
    assignment(text);
  }
  void dump(const std::string& value) const {
    std::fprintf(stream, "%s%s = \"%.*s%s\", %s\n", prefix, name, static_cast<int>(MOST_PRINTED), value.c_str(),
                 value.size() > MOST_PRINTED ? "..." : "", type);
  }
  void dump(const std::tm& value) const {
    char text[TIME_TEXT_SIZE];
    FormatStandardTime(value, text);
    std::fprintf(stream, "%s%s, %s, %s\n", prefix, name, type, text);
  }
  void dump(const std::vector<char>& bytes) const {
    size(bytes.size(), bytes.empty() ? "\n" : ", data = ");
    if (bytes.empty()) return;
    for (std::size_t i = 0; i < std::min(bytes.size(), MOST_PRINTED); ++i) {
      // As a signed character on every machine, so that 0x80 is 0xffffff80: kept for compatibility.
      std::fprintf(stream, "0x%02x, ", static_cast<unsigned>(static_cast<signed char>(bytes[i])));
    }
    std::fprintf(stream, bytes.size() > MOST_PRINTED ? "...\n" : "\n");
  }
  void dump(const std::vector<XmlRpcValue>& elements) const {
    size(elements.size(), "\n");
    for (std::size_t i = 0; i < std::min(elements.size(), MOST_PRINTED); ++i) part(std::to_string(i), elements[i]);
  }
  void dump(const std::map<std::string, XmlRpcValue>& members) const {
    size(members.size(), "\n");
    std::size_t left = MOST_PRINTED;
    for (auto member = members.begin(); member != members.end() && left > 0; ++member, --left) {
      part(member->first, member->second);
    }
  }

 private:
  void assignment(const char* text) const { std::fprintf(stream, "%s%s = %s, %s\n", prefix, name, text, type); }
  void size(std::size_t count, const char* end) const {
    std::fprintf(stream, "%s%s, %s, size = %u%s", prefix, name, type, static_cast<unsigned>(count), end);
  }
  void part(const std::string& partName, const XmlRpcValue& value) const {
    value.FilePrint(stream, (std::string(name) + '[' + partName + ']').c_str(), prefix);
  }
};

/// Writes the compact form of one value.
struct Compact {
  std::ostream& stream;

  template <typename Number>
  void write(Number number) const {
    static_assert(std::is_arithmetic_v<Number>);
    stream << number;
  }
  void write(long long number) const { stream << std::to_string(number); }  // whatever the stream's format is
  void write(const std::string& text) const { stream << text; }
  void write(const std::tm& t) const {
    char text[TIME_TEXT_SIZE];
    std::snprintf(text, sizeof text, "%4d%02d%02dT%02d:%02d:%02d", t.tm_year, t.tm_mon, t.tm_mday, t.tm_hour, t.tm_min,
                  t.tm_sec);
    stream << text;
  }
  void write(const std::vector<char>& bytes) const {
    std::string text(CBase64::EncodedLength(bytes.size()), '\0');
    CBase64::EncodeTo(bytes.data(), bytes.size(), text.data());
    stream << text;
  }
  void write(const std::vector<XmlRpcValue>& elements) const {
    const char* separator = "";
    stream << "{";
    for (const XmlRpcValue& element : elements) {
      element.write(stream << separator);
      separator = ",";
    }
    stream << "}";
  }
  void write(const std::map<std::string, XmlRpcValue>& members) const {
    const char* separator = "";
    stream << "[";
    for (const auto& member : members) {
      member.second.write(stream << separator << member.first << ":");
      separator = ",";
    }
    stream << "]";
  }
};

}  // namespace

void XmlRpcValue::FilePrint(std::FILE* stream, const char* name, const char* prefix) const {
  name = name == nullptr ? "" : name;
  prefix = prefix == nullptr ? "" : prefix;
  if (HasRow(_type)) {
    visit([&](const auto& stored) { Dump{stream, prefix, name, RowOf(_type).name}.dump(stored); });
  } else if (_type == TypeInvalid) {
    std::fprintf(stream, "%s%s, TypeInvalid\n", prefix, name);
  } else {
    std::fprintf(stream, "%s%s, unknown type (%i)\n", prefix, name, static_cast<int>(_type));
  }
}

void XmlRpcValue::Print(const char* name, const char* prefix) const { FilePrint(stdout, name, prefix); }

void XmlRpcValue::PrintIf(int condition, const char* name, const char* prefix) const {
  if (condition > 0) Print(name, prefix);
}

std::ostream& XmlRpcValue::write(std::ostream& stream) const {
  visit([&](const auto& stored) { Compact{stream}.write(stored); });
  return stream;
}

std::ostream& operator<<(std::ostream& stream, XmlRpcValue& value) { return value.write(stream); }

}  // namespace TarnXmlRpc
