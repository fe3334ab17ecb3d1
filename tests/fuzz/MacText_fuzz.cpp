#include <cctype>
#include <cstring>
#include <regex>
#include <vector>

#include "ddp/Datagram.h"
#include "tests/fuzz/Input.h"
#include "util/EthernetCfg.h"

namespace {

bool IsHex(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

/// The bytes of six groups of one or two digits, empty if it is none; white space or the end is behind a single last
/// one.
std::string BytesOf(const std::string& text) {
  static const std::regex shape("([0-9a-f]{1,2}:){5}([0-9a-f]{2}|[0-9a-f](?!\\S))", std::regex::icase);
  if (!std::regex_search(text, shape, std::regex_constants::match_continuous)) return {};
  std::string bytes;
  for (std::size_t at = 0; bytes.size() < 6; at = text.find(':', at) + 1)
    bytes += static_cast<char>(std::stoi(text.substr(at, 2), nullptr, 16));
  return bytes;
}

/// Of a filter the hexadecimal digits count, of which twelve there must be, up to a separator that stands elsewhere
/// than behind a pair; one other character makes up for the separators until the next one.
bool IsFilter(const std::string& text) {
  int digits = 0, pairs = 1, separators = 0;  // pairs: what the digits have to make at the next separator
  for (const char c : text) {
    digits += IsHex(c);
    if (IsHex(c)) continue;
    if (c != ':' && c != '-') {
      pairs = 0;
      separators = -1;
    } else if (digits == 0) {
      return false;
    } else if (digits / 2 != pairs) {
      break;
    } else {
      separators = pairs++;
    }
  }
  return digits == 12 && (separators == 0 || separators == 5);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  std::string text;
  if (input.Below(2) == 0) text = input.Text({"0123456789abcdefABCDEF::::::--x \0\t", 34});
  while (!input.IsEmpty()) text += input.Piece("00:|1b-|C4:|0a:|ff-|05|5:|a|-|x| ||");
  Require(TarnDDPCommand_IsMacAddress(text) == IsFilter(text), "filter", text);

  const std::string shown = text.substr(0, text.find('\0'));
  const std::vector<char> exact(shown.c_str(), shown.c_str() + shown.size() + 1);  // for a sanitizer to see
  unsigned char bytes[6] = {1, 2, 3, 4, 5, 6};
  const bool isRead = ConverMacAddressStringIntoByte(exact.data(), bytes) != nullptr;
  const std::string expected = BytesOf(shown);
  Require(isRead == !expected.empty(), "verdict", shown);
  Require(std::memcmp(bytes, isRead ? expected.data() : "\1\2\3\4\5\6", 6) == 0, "bytes", shown);
  return 0;
}
