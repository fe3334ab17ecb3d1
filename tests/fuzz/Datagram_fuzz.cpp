#include "ddp/Datagram.h"

#include "tests/fuzz/Input.h"

/// Joined by what stood between them, the fields are the datagram again, and none holds a separator.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string datagram = Input(data, size).Text({"\t\r\nA0: \0", 8});
  const auto isSeparator = [](char c) { return c == '\t' || c == '\r' || c == '\n'; };
  const std::vector<std::string> fields = TarnDDPCommand_SplitFields(datagram);
  std::string joined;
  for (const std::string& field : fields) {
    Require(std::none_of(field.begin(), field.end(), isSeparator), "separator", datagram);
    joined += field;
    if (&field != &fields.back())
      joined += joined.size() < size && isSeparator(datagram[joined.size()]) ? datagram[joined.size()] : '?';
  }
  Require(joined == datagram, "fields", datagram);
  return 0;
}
