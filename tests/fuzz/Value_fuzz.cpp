#include "tests/fuzz/Input.h"
#include "tests/model/PlainReader.h"

namespace {

/// A document of one piece for each byte, so that most mutations are whole tags.
std::string FromPieces(const std::uint8_t* data, std::size_t size) {
  static const std::string pieces =
      "<value>|</value>|<va>|</va>|<array>|</array>|<data>|</data>|<data/>|<struct>|</struct>|<member>|</"
      "member>|<name>|"
      "</name>|<ar>|<da>|</da>|<da />|<st>|<me>|</me>|<na>|</na>|<i4>|</i4>|<int>|<i8>|<boolean>|<bo>|<double>|<do>|"
      "<string>|<str>|</string>|<base64>|<b64>|<dtime>|1|-7|0|nan|x|+3.5e2|0x1p4|&lt;|&|amp;|Zm9v|Zg==| "
      "|\n\t|<|>|inf|n|"
      "<value><array><data>|<value><struct><member>|<value><i4>1</i4></value>|<name>a</name>|20240105T07:08:09|"
      "<dateTime.iso8601>|2147483648|99999999999999999999|";
  std::string xml;
  for (std::size_t i = 0; i < size; ++i) {
    std::size_t at = 0;
    for (int skipped = data[i] % 64; skipped > 0; --skipped) at = pieces.find('|', at) + 1;
    xml.append(pieces, at, pieces.find('|', at) - at);
  }
  return xml;
}

}  // namespace

/// Reads what the bytes say, a text or pieces of one, and compares verdict, value and what is written with the model.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const bool inPieces = (data[0] & 0x80) != 0;
  const std::string xml =
      inPieces ? FromPieces(data + 1, size - 1) : std::string(reinterpret_cast<const char*>(data) + 1, size - 1);
  const std::size_t start = data[0] % 4 == 3 ? data[0] % (xml.size() + 2) : 0;
  XmlRpcValue value(7);
  int offset = static_cast<int>(start);
  const bool success = value.fromXml(xml, &offset);

  PlainReader reader(xml, 300 + static_cast<int>(size) * 8);
  std::size_t at = start;
  const std::string expected = reader.read(at);
  if (reader.tooLong) return 0;
  Require(success != expected.empty() && offset == static_cast<int>(at), "verdict or offset", xml);
  Require(Shown(value) == expected, "value", xml);
  return 0;
}
