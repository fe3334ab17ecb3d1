#include <arpa/inet.h>

#include <sstream>

#include "ddp/Upkeep.h"
#include "tests/fuzz/Input.h"

namespace {

/// As streams read the lists, line by line and word by word.
bool Lists(bool isIPV6, const std::string& list, unsigned index) {
  std::istringstream lines(list);
  bool isHere = false;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string first, name, third;
    words >> first >> name >> third;
    if (isIPV6 && first == std::to_string(index) && third == "ff120000000000000000000000000012") return true;
    if (isIPV6) continue;
    if (line.empty() || line[0] != '\t') {
      isHere = first == std::to_string(index);
    } else if (isHere && (first == "800500E0" || first == "E0000580") && first[0] == (htonl(1) == 1 ? 'E' : '8')) {
      return true;
    }
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
