#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/fuzz/LiteralReader.h"

using TarnXmlRpc::XmlRpcValue;

namespace {

[[noreturn]] void Fail(const char* rule, const std::string& xml) {
  std::fprintf(stderr, "%s: %.2000s\n", rule, xml.c_str());
  std::abort();
}

/// A document of one piece for each byte, so that most mutations are whole tags.
std::string FromPieces(const std::uint8_t* data, std::size_t size) {
  static const char* const pieces[] = {"<value>",
                                       "</value>",
                                       "<va>",
                                       "</va>",
                                       "<array>",
                                       "</array>",
                                       "<data>",
                                       "</data>",
                                       "<data/>",
                                       "<struct>",
                                       "</struct>",
                                       "<member>",
                                       "</member>",
                                       "<name>",
                                       "</name>",
                                       "<ar>",
                                       "<da>",
                                       "</da>",
                                       "<da />",
                                       "<st>",
                                       "<me>",
                                       "</me>",
                                       "<na>",
                                       "</na>",
                                       "<i4>",
                                       "</i4>",
                                       "<int>",
                                       "<i8>",
                                       "<boolean>",
                                       "<bo>",
                                       "<double>",
                                       "<do>",
                                       "<string>",
                                       "<str>",
                                       "</string>",
                                       "<base64>",
                                       "<b64>",
                                       "<dtime>",
                                       "1",
                                       "-7",
                                       "0",
                                       "nan",
                                       "x",
                                       "+3.5e2",
                                       "0x1p4",
                                       "&lt;",
                                       "&",
                                       "amp;",
                                       "Zm9v",
                                       "Zg==",
                                       " ",
                                       "\n\t",
                                       "<",
                                       ">",
                                       "inf",
                                       "n",
                                       "<value><array><data>",
                                       "<value><struct><member>",
                                       "<value><i4>1</i4></value>",
                                       "<name>a</name>",
                                       "20240105T07:08:09",
                                       "<dateTime.iso8601>",
                                       "2147483648",
                                       "99999999999999999999"};
  std::string xml;
  for (std::size_t i = 0; i < size; ++i) xml += pieces[data[i] % (sizeof pieces / sizeof *pieces)];
  return xml;
}

/// Names are written with entities and read raw, so that one with a special character grows each time.
bool NamesArePlain(const LiteralReader::Node& node) {
  for (const auto& member : node.members) {
    if (member.first.find_first_of("<>&'\"") != std::string::npos || !NamesArePlain(member.second)) return false;
  }
  return std::all_of(node.elements.begin(), node.elements.end(), NamesArePlain);
}

/// From the second encoding on, decoding and encoding change nothing any more.
void CheckStable(const XmlRpcValue& value, int set) {
  std::string text[3] = {value.toXml(set)};
  for (int i = 1; i < 3; ++i) {
    XmlRpcValue again;
    int offset = 0;
    if (!again.fromXml(text[i - 1], &offset)) return;  // a double that rounds past the range, say
    if (offset != static_cast<int>(text[i - 1].size())) Fail("offset after our own text", text[i - 1]);
    text[i] = again.toXml(set);
  }
  if (text[1] != text[2]) Fail("second and third encoding", text[1]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const bool inPieces = (data[0] & 0x80) != 0;
  const std::string xml =
      inPieces ? FromPieces(data + 1, size - 1) : std::string(reinterpret_cast<const char*>(data) + 1, size - 1);
  const int start = data[0] % 4 == 3 ? static_cast<int>(data[0] % (xml.size() + 2)) : 0;
  XmlRpcValue value(7);
  int offset = start;
  const bool success = value.fromXml(xml, &offset);
  if (!success && (offset != start || value.valid() || value.getTagSet() != 0)) Fail("failure leaves a trace", xml);

  LiteralReader literal(xml, 300);
  LiteralReader::Node node;
  int literalOffset = start;
  const bool literalSuccess = literal.read(node, &literalOffset);
  if (!literal.tooLong) {
    if (literalSuccess != success || literalOffset != offset) Fail("verdict or offset", xml);
    if (success && !LiteralReader::same(node, value)) Fail("value", xml);
  }
  if (success && !literal.tooLong && NamesArePlain(node)) {
    CheckStable(value, 0);
    CheckStable(value, 1);
  }
  return 0;
}
