#include <algorithm>
#include <cstdio>
#include <ostream>

#include "xmlrpc/CBase64.h"
#include "xmlrpc/XmlRpcValue.h"
#include "xmlrpc/XmlScan.h"

namespace TarnXmlRpc {

namespace {

constexpr std::size_t mostPrinted = 100;  // characters, bytes, elements or members of one value
constexpr std::size_t numberSize = 19;    // longer texts of doubles are cut

void PrintBinary(std::FILE* stream, const std::vector<char>& data) {
  if (!data.empty()) {
    std::fprintf(stream, ", data = ");
    // As signed characters, on every machine: readers of these dumps know 0x80 as 0xffffff80.
    std::for_each(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(std::min(data.size(), mostPrinted)),
                  [stream](char byte) {
                    std::fprintf(stream, "0x%02x, ", static_cast<unsigned>(static_cast<signed char>(byte)));
                  });
  }
  std::fprintf(stream, data.size() > mostPrinted ? "...\n" : "\n");
}

}  // namespace

void XmlRpcValue::FilePrint(std::FILE* stream, const char* name, const char* prefix) const {
  name = name == nullptr ? "" : name;
  prefix = prefix == nullptr ? "" : prefix;
  switch (_type) {
    case TypeInvalid:
      std::fprintf(stream, "%s%s, TypeInvalid\n", prefix, name);
      break;
    case TypeBoolean:
      std::fprintf(stream, "%s%s = %s, TypeBoolean\n", prefix, name, _value.asBool ? "true" : "false");
      break;
    case TypeInt:
      std::fprintf(stream, "%s%s = %i, TypeInt\n", prefix, name, _value.asInt);
      break;
    case TypeInt64:
      std::fprintf(stream, "%s%s = %lli, TypeInt64\n", prefix, name, _value.asInt64);
      break;
    case TypeDouble: {
      char text[numberSize];
      FormatDouble(_value.asDouble, m_DoubleFormat, text, sizeof text);
      std::fprintf(stream, "%s%s = %s, TypeDouble\n", prefix, name, text);
      break;
    }
    case TypeString:
      std::fprintf(stream, "%s%s = \"%.*s%s\", TypeString\n", prefix, name, static_cast<int>(mostPrinted),
                   _value.asString->c_str(), _value.asString->size() > mostPrinted ? "..." : "");
      break;
    case TypeDateTime: {
      char text[TimeTextSize];
      FormatStandardTime(*_value.asTime, text);
      std::fprintf(stream, "%s%s, TypeDateTime, %s\n", prefix, name, text);
      break;
    }
    case TypeBase64:
      std::fprintf(stream, "%s%s, TypeBase64, size = %u", prefix, name, static_cast<unsigned>(size()));
      PrintBinary(stream, *_value.asBinary);
      break;
    case TypeArray:
    case TypeStruct:
      printContainer(stream, name, prefix);
      break;
    default:
      std::fprintf(stream, "%s%s, unknown type (%i)\n", prefix, name, static_cast<int>(_type));
      break;
  }
}

void XmlRpcValue::printContainer(std::FILE* stream, const char* name, const char* prefix) const {
  const bool isArray = _type == TypeArray;
  std::fprintf(stream, "%s%s, %s, size = %u\n", prefix, name, isArray ? "TypeArray" : "TypeStruct",
               static_cast<unsigned>(size()));
  const auto print = [&](const std::string& part, const XmlRpcValue& value) {
    value.FilePrint(stream, (std::string(name) + '[' + part + ']').c_str(), prefix);
  };
  std::size_t printed = 0;
  if (isArray) {
    for (; printed < std::min(_value.asArray->size(), mostPrinted); ++printed) {
      print(std::to_string(printed), (*_value.asArray)[printed]);
    }
    return;
  }
  for (auto member = _value.asStruct->begin(); member != _value.asStruct->end() && printed < mostPrinted; ++member) {
    print(member->first, member->second);
    ++printed;
  }
}

void XmlRpcValue::Print(const char* name, const char* prefix) const { FilePrint(stdout, name, prefix); }

void XmlRpcValue::PrintIf(int condition, const char* name, const char* prefix) const {
  if (condition > 0) Print(name, prefix);
}

std::ostream& XmlRpcValue::write(std::ostream& stream) const {
  switch (_type) {
    case TypeBoolean:
      return stream << _value.asBool;
    case TypeInt:
      return stream << _value.asInt;
    case TypeInt64:
      return stream << std::to_string(_value.asInt64);
    case TypeDouble:
      return stream << _value.asDouble;
    case TypeString:
      return stream << *_value.asString;
    case TypeDateTime: {
      const std::tm& t = *_value.asTime;
      char text[TimeTextSize];
      std::snprintf(text, sizeof text, "%4d%02d%02dT%02d:%02d:%02d", t.tm_year, t.tm_mon, t.tm_mday, t.tm_hour,
                    t.tm_min, t.tm_sec);
      return stream << text;
    }
    case TypeBase64: {
      std::string text(CBase64::EncodedLength(_value.asBinary->size()), '\0');
      CBase64::EncodeTo(_value.asBinary->data(), _value.asBinary->size(), text.data());
      return stream << text;
    }
    case TypeArray: {
      const char* separator = "{";
      if (_value.asArray->empty()) stream << separator;
      for (const XmlRpcValue& element : *_value.asArray) {
        element.write(stream << separator);
        separator = ",";
      }
      return stream << "}";
    }
    case TypeStruct: {
      const char* separator = "[";
      if (_value.asStruct->empty()) stream << separator;
      for (const auto& member : *_value.asStruct) {
        member.second.write(stream << separator << member.first << ":");
        separator = ",";
      }
      return stream << "]";
    }
    default:
      return stream;
  }
}

std::ostream& operator<<(std::ostream& stream, XmlRpcValue& value) { return value.write(stream); }

}  // namespace TarnXmlRpc
