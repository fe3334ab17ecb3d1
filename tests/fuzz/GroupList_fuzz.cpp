#include <arpa/inet.h>

#include <sstream>

#include "ddp/Upkeep.h"
#include "tests/fuzz/Input.h"

namespace {

/// As streams read the lists, line by line and word by word.
bool Lists(bool isIPV6, const std::string& list, unsigned index) {
  const std::string group = isIPV6 ? "ff120000000000000000000000000012" : htonl(1) == 1 ? "E0000580" : "800500E0";
  std::istringstream lines(list);
  bool isHere = false;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string first, name, third;
    words >> first >> name >> third;
    const bool isGroup = isIPV6 || line.substr(0, 1) == "\t";
    if (isIPV6 || !isGroup) isHere = first == std::to_string(index);
    if (isGroup && isHere && (isIPV6 ? third : first) == group) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const unsigned index = input.Below(3) == 0 ? 12 : input.Below(4);
  std::string list;
  while (!input.IsEmpty()) {
    const std::string_view piece = input.Piece(
        "1|2|12|3|0| |\t|\n|\n\t|\teth0 : |\r|\v|800500E0|E0000580|010000E0|ff120000000000000000000000000012|ff02|"
        "1 eth0 |2 lo|\n12\teth1\n|||");
    list += piece.empty() ? input.Take(1) : piece;
  }
  Require(Upkeep_ListsGroupIPV4(list, index, "224.0.5.128") == Lists(false, list, index), "IPv4", list);
  Require(Upkeep_ListsGroupIPV6(list, index, "FF12::12") == Lists(true, list, index), "IPv6", list);
  return 0;
}
