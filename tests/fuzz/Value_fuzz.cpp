#include "tests/fuzz/Input.h"
#include "tests/model/PlainReader.h"

namespace {

// So that most mutations are whole tags.
constexpr std::string_view tags =
    "<value>|</value>|<va>|</va>|<array>|</array>|<data>|</data>|<data/>|<struct>|</struct>|<member>|</member>|<name>|"
    "</name>|<ar>|<da>|</da>|<da />|<st>|<me>|</me>|<na>|</na>|<i4>|</i4>|<int>|<i8>|<boolean>|<bo>|<double>|<do>|"
    "<string>|<str>|</string>|<base64>|<b64>|<dtime>|1|-7|0|nan|x|+3.5e2|0x1p4|&lt;|&|amp;|Zm9v|Zg==| |\n\t|<|>|inf|n|"
    "<value><array><data>|<value><struct><member>|<value><i4>1</i4></value>|<name>a</name>|20240105T07:08:09|"
    "<dateTime.iso8601>|2147483648|99999999999999999999|";
// What makes values, and what makes structs that break off in arrays, whose names and ends are found far away.
constexpr std::string_view nesting =
    "<value>|</value>|</value>|<va>|</va>|</va>|<value><array><data>|<value><array><data>|<va><ar><da>|"
    "<value><struct><member>|<value><struct><member>|<va><st><me>|<name>n</name>|<name>n</name>|<na>n</na>|<member>|"
    "</member>|<me>|<i4>7</i4>|x|<va>x|<va>1</va>|<va>2</va>|<value>1</value>|<value>1</value>|<value><i4>1</i4></"
    "value>|"
    "</da></ar></va>|";

}  // namespace

/// Reads what the bytes say, a text or pieces of one, and compares verdict, value and what is written with the model.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const unsigned how = input.Byte();
  std::string xml(how < 0x80 ? input.Take(size) : "");
  for (auto levels = how < 0xc0 ? 0 : how % 32 < 16 ? 1 + how % 2 : 228 + how % 32; levels > 0; --levels) {
    xml += "<value><array><data>";  // to near the deepest level
  }
  while (!input.IsEmpty()) xml += input.Piece(how < 0xc0 ? tags : nesting);
  const int start = how % 4 == 3 ? static_cast<int>(how % (xml.size() + 2)) : 0;
  XmlRpcValue value(7);
  int offset = start, at = start;
  const bool success = value.fromXml(xml, &offset);

  PlainReader reader(xml, 300 + static_cast<int>(size) * 8);
  const std::string expected = reader.read(at);
  if (reader.tooLong) return 0;
  Require(success != expected.empty() && offset == at, "verdict or offset", xml);
  Require(value.toXml(0) == expected && value.getTagSet() == reader.tagSet, "value or tag set", xml);
  XmlRpcValue again;
  at = 0;
  again.fromXml(expected, &at);
  Require(value.toXmlSize(0) == again.toXmlSize(0), "an element without a type, which is not written", xml);
  return 0;
}
