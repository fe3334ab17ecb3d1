#include "xmlrpc/XmlScan.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "xmlrpc/Locale.h"

namespace TarnXmlRpc {

namespace {

constexpr char ampersand = '&';

struct Entity {
  char character;
  std::string_view body;  // what follows the ampersand
};
constexpr std::array<Entity, 5> entities = {
    {{'<', "lt;"}, {'>', "gt;"}, {'&', "amp;"}, {'\'', "apos;"}, {'"', "quot;"}}};

/// How each byte is written, in one piece of fixed size, so that text is encoded without a branch for each character.
struct Encoding {
  char text[EncodingStep - 1];
  std::uint8_t length;
};
constexpr std::array<Encoding, 256> MakeEncodings() {
  std::array<Encoding, 256> encodings{};
  for (std::size_t byte = 0; byte < encodings.size(); ++byte) {
    encodings[byte].text[0] = static_cast<char>(static_cast<unsigned char>(byte));
    encodings[byte].length = 1;
  }
  for (const Entity& entity : entities) {
    Encoding& encoding = encodings[static_cast<unsigned char>(entity.character)];
    encoding.text[0] = ampersand;
    for (const char c : entity.body) encoding.text[encoding.length++] = c;
  }
  return encodings;
}
constexpr std::array<Encoding, 256> encodings = MakeEncodings();

/// The entity whose body stands at `at`, or null.
const Entity* EntityAt(std::string_view text, std::size_t at) {
  for (const Entity& entity : entities) {
    if (at < text.size() && text[at] == entity.body.front() && StandsAt(text, at, entity.body)) return &entity;
  }
  return nullptr;
}

}  // namespace

char* Encode(std::string_view text, char* to) {
  for (const char c : text) {
    const Encoding& encoding = encodings[static_cast<unsigned char>(c)];
    std::memcpy(to, &encoding, EncodingStep);
    to += encoding.length;
  }
  return to;
}

namespace {

/// Writes the decoded `text` to `to`, which holds as many characters, and returns the end of what was written.
char* DecodeTo(std::string_view text, char* to) {
  const char* from = text.data();
  const char* const end = from + text.size();
  while (from != end) {
    if (*from != ampersand) {
      *to++ = *from++;
      continue;
    }
    const Entity* entity = EntityAt(text, static_cast<std::size_t>(++from - text.data()));
    *to++ = entity == nullptr ? ampersand : entity->character;
    from += entity == nullptr ? 0 : entity->body.size();
  }
  return to;
}

}  // namespace

bool Decode(std::string_view text, std::string& out) {
  if (text.find(ampersand) == std::string_view::npos) return false;
  char buffer[1024];
  if (text.size() <= sizeof buffer) {
    out.assign(buffer, DecodeTo(text, buffer));
  } else {
    out.resize(text.size());
    out.resize(static_cast<std::size_t>(DecodeTo(text, out.data()) - out.data()));
  }
  return true;
}

std::size_t FormatDouble(double number, const std::string& format, char* text, std::size_t size) {
  if (std::isnan(number)) {
    std::memcpy(text, "nan", 4);
    return 3;
  }
  if (format == "%.15g") {
    char exact[32];  // sign, 15 digits, point, exponent
    const char* end = std::to_chars(exact, exact + sizeof exact, number, std::chars_format::general, 15).ptr;
    const std::size_t length = std::min(static_cast<std::size_t>(end - exact), size - 1);
    std::memcpy(text, exact, length);
    text[length] = '\0';
    return length;
  }
  const InCLocale wireFormat;
  std::snprintf(text, size, format.c_str(), number);
  return std::strlen(text);
}

void FormatStandardTime(const std::tm& time, char (&text)[TimeTextSize]) {
  // Added as unsigned numbers: a peer may have sent any year.
  const int month = static_cast<int>(static_cast<unsigned>(time.tm_mon) + 1U);
  const int year = static_cast<int>(static_cast<unsigned>(time.tm_year) + 1900U);
  std::snprintf(text, sizeof text, "%02i.%02i.%04i %02i:%02i:%02i", time.tm_mday, month, year, time.tm_hour,
                time.tm_min, time.tm_sec);
}

}  // namespace TarnXmlRpc
