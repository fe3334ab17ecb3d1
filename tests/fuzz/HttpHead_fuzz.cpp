#include <strings.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "xmlrpc/HttpHead.h"

using TarnXmlRpc::HttpHead;

namespace {

/// The scan of a head from its first byte, as plainly as it can be written.
HttpHead::State Literal(const std::string& text, std::size_t* body, std::int32_t* length) {
  const char* number = nullptr;
  for (std::size_t p = 0; p < text.size(); ++p) {
    const std::size_t r = text.size() - p;
    const char* at = text.c_str() + p;
    if (r > 16 && strncasecmp(at, "Content-length: ", 16) == 0) {
      number = at + 16;
    } else if (r > 4 && std::memcmp(at, "\r\n\r\n", 4) == 0) {
      *body = p + 4;
    } else if (r > 2 && std::memcmp(at, "\n\n", 2) == 0) {
      *body = p + 2;
    }
    if (*body == 0) continue;
    if (number == nullptr) return HttpHead::State::NoLength;
    *length = static_cast<std::int32_t>(static_cast<std::uint32_t>(std::strtoll(number, nullptr, 10)));
    return *length < 1 ? HttpHead::State::NoLength : HttpHead::State::Complete;
  }
  return HttpHead::State::Incomplete;
}

/// Of one piece for each byte, so that most texts have what a head is made of.
std::string FromPieces(const std::uint8_t* data, std::size_t size) {
  const std::string pieces[] = {"Content-length: ",
                                "CONTENT-LENGTH: ",
                                "content-length:",
                                "C",
                                "\r\n\r\n",
                                "\n\n",
                                "\r\n",
                                "\n",
                                "\r",
                                "x",
                                "7",
                                "12",
                                "0",
                                " ",
                                "-3",
                                "99999999999"};
  std::string text;
  for (std::size_t i = 0; i < size; ++i) text += pieces[data[i] % 16];
  return text;
}

}  // namespace

/// The first bytes say where the text is split: it grows by data[0] % 16 + 1 bytes, and so on in turn.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t splits = 3;
  if (size < splits) return 0;
  const std::string whole = data[0] >= 0x80 ? FromPieces(data + splits, size - splits)
                                            : std::string(reinterpret_cast<const char*>(data) + splits, size - splits);
  HttpHead head;
  std::string text;
  for (std::size_t turn = 0; text.size() < whole.size(); ++turn) {
    text.append(whole, text.size(), data[turn % splits] % 16 + 1U);
    std::size_t body = 0;
    std::int32_t length = 0;
    const HttpHead::State expected = Literal(text, &body, &length);
    if (head.read(text) != expected) std::abort();
    if (expected == HttpHead::State::Complete && (head.bodyStart() != body || head.contentLength() != length)) {
      std::abort();
    }
    if (expected != HttpHead::State::Incomplete) return 0;
  }
  return 0;
}
