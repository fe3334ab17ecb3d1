#include <cctype>
#include <cstring>
#include <vector>

#include "ddp/Datagram.h"
#include "tests/fuzz/Input.h"
#include "util/EthernetCfg.h"

namespace {

bool IsHex(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

/// Six groups of one or two digits, the rest being the sixth one's; the bytes, empty if it is none.
std::string BytesOf(std::string text) {
  std::string bytes;
  for (int left = 6; left > 0; --left) {
    const std::size_t end = left > 1 ? text.find(':') : text.size();
    if (end == std::string::npos || end == 0 || !IsHex(text[0])) return {};
    const bool isShort = end == 1 || (left == 1 && std::isspace(static_cast<unsigned char>(text[1])) != 0);
    if (!isShort && (!IsHex(text[1]) || (left > 1 && end > 2))) return {};
    bytes += static_cast<char>(std::stoi(text.substr(0, isShort ? 1 : 2), nullptr, 16));
    if (left > 1) text.erase(0, end + 1);
  }
  return bytes;
}

/// Of six pairs; those of a well-formed text have no separator at all, or one of the two between any two of them.
bool IsWellFormed(const std::string& text) {
  std::string digits;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const bool isSeparator = text.size() == 17 && at % 3 == 2;
    if (isSeparator ? text[at] != ':' && text[at] != '-' : !IsHex(text[at])) return false;
    if (!isSeparator) digits += text[at];
  }
  return digits.size() == 12;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = Input(data, size).Text({"0123456789abcdefABCDEF::::::--x \0\t", 34});
  const auto isHexCount = std::count_if(text.begin(), text.end(), IsHex);
  const bool isMac = TarnDDPCommand_IsMacAddress(text);
  Require(!IsWellFormed(text) || isMac, "well-formed", text);
  Require(!isMac || isHexCount >= 12, "digits", text);
  Require(!isMac || isHexCount > 12 || IsWellFormed(text) || text.find_first_of(":-") != std::string::npos, "odd",
          text);

  const std::string shown(text.c_str());
  const std::vector<char> exact(shown.c_str(), shown.c_str() + shown.size() + 1);  // for a sanitizer to see
  unsigned char bytes[6] = {1, 2, 3, 4, 5, 6};
  const bool isRead = ConverMacAddressStringIntoByte(exact.data(), bytes) != nullptr;
  const std::string expected = BytesOf(shown);
  Require(isRead == !expected.empty(), "verdict", shown);
  Require(std::memcmp(bytes, isRead ? expected.data() : "\1\2\3\4\5\6", 6) == 0, "bytes", shown);
  return 0;
}
