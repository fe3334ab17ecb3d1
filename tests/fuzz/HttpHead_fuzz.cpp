#include "xmlrpc/HttpHead.h"

#include <strings.h>

#include <cstring>

#include "tests/fuzz/Input.h"

using TarnXmlRpc::HttpHead;

namespace {

/// The scan of a head from its first byte, as plainly as it can be written.
HttpHead::State Literal(const std::string& text, std::size_t& body, std::int32_t& length) {
  const char* number = nullptr;
  for (const char* at = text.c_str(); body == 0 && *at != '\0'; ++at) {
    if (strncasecmp(at, "Content-length: ", 16) == 0 && at[16] != '\0') number = at + 16;
    const std::size_t end = std::strncmp(at, "\r\n\r\n", 4) == 0 ? 4 : std::strncmp(at, "\n\n", 2) == 0 ? 2 : 0;
    if (end > 0 && at[end] != '\0') body = static_cast<std::size_t>(at - text.c_str()) + end;
  }
  if (body == 0) return HttpHead::State::Incomplete;
  length = number == nullptr ? 0 : static_cast<std::int32_t>(std::strtoll(number, nullptr, 10));
  return length < 1 ? HttpHead::State::NoLength : HttpHead::State::Complete;
}

}  // namespace

/// A head of pieces that heads are made of, read as it grows by one or two of them.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::string_view pieces =
      "C|\r\n\r\n|\n\n|\r\n|\n|\r|x|7|12|0| |-3|Content-length: |CONTENT-LENGTH: |content-length:|99999999999|";
  HttpHead head;
  std::string text;
  HttpHead::State expected = HttpHead::State::Incomplete;
  for (Input input(data, size); !input.IsEmpty() && expected == HttpHead::State::Incomplete;) {
    for (unsigned more = 1 + input.Below(2); more > 0; --more) text += input.Piece(pieces);
    std::size_t body = 0;
    std::int32_t length = 0;
    expected = Literal(text, body, length);
    Require(head.read(text) == expected, "state", text);
    if (expected != HttpHead::State::Complete) continue;
    Require(head.bodyStart() == body, "body", text);
    Require(head.contentLength() == length, "length", text);
  }
  return 0;
}
