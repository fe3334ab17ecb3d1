#include "ddp/Datagram.h"

#include "tests/fuzz/Input.h"

/// Each separator begins another field.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string datagram = Input(data, size).Text({"\t\r\nA0: \0", 8});
  std::vector<std::string> fields(1);
  for (const char c : datagram) {
    const bool isSeparator = c == '\t' || c == '\r' || c == '\n';
    isSeparator ? fields.emplace_back() : fields.back() += c;
  }
  Require(TarnDDPCommand_SplitFields(datagram) == fields, "fields", datagram);
  return 0;
}
