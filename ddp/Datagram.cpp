#include "ddp/Datagram.h"

#include <cctype>
#include <cstddef>

std::vector<std::string> TarnDDPCommand_SplitFields(std::string_view datagram) {
  std::vector<std::string> fields;
  std::size_t start = 0;
  for (;;) {
    const std::size_t end = datagram.find_first_of("\t\r\n", start);
    if (end == std::string_view::npos) break;
    fields.emplace_back(datagram.substr(start, end - start));
    start = end + 1;
  }
  fields.emplace_back(datagram.substr(start));
  return fields;
}

// Takes some texts that are no MAC address, such as twelve digits followed by ":" and anything: harmless, because a
// filter must equal this device's MAC text to be obeyed. Kept for compatibility: a stricter count would take them for
// arguments.
bool TarnDDPCommand_IsMacAddress(std::string_view field) {
  int hexDigits = 0;
  int separators = 0;
  for (const char c : field) {
    if (std::isxdigit(static_cast<unsigned char>(c)) != 0) {
      ++hexDigits;
    } else if (c == '-' || c == ':') {
      if (hexDigits == 0) return false;
      if (hexDigits / 2 - 1 != separators) break;
      separators = hexDigits / 2;
    } else {
      separators = -1;
    }
  }
  return hexDigits == 12 && (separators == 0 || separators == 5);
}
