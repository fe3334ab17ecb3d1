#include "xmlrpc/XmlText.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace TarnXmlRpc {

namespace {

constexpr char AMPERSAND = '&';

struct Entity {
  char character;
  std::string_view body;  // what follows the ampersand
};
constexpr std::array<Entity, 5> ENTITIES = {
    {{'<', "lt;"}, {'>', "gt;"}, {'&', "amp;"}, {'\'', "apos;"}, {'"', "quot;"}}};

/// How each byte is written, in one piece of fixed size, so that text is encoded without a branch for each character.
struct Encoding {
  char text[ENCODING_STEP - 1];
  std::uint8_t length;
};
constexpr Encoding MakeEncoding(unsigned char byte) {
  Encoding encoding = {{static_cast<char>(byte)}, 1};
  for (const Entity& entity : ENTITIES) {
    if (static_cast<unsigned char>(entity.character) != byte) continue;
    encoding.text[0] = AMPERSAND;
    for (const char c : entity.body) encoding.text[encoding.length++] = c;
  }
  return encoding;
}

#ifndef __OPTIMIZE_SIZE__  // a small program does without the table, which takes 2 KB

constexpr std::array<Encoding, 256> MakeEncodings() {
  std::array<Encoding, 256> encodings{};
  for (std::size_t byte = 0; byte < encodings.size(); ++byte) {
    encodings[byte] = MakeEncoding(static_cast<unsigned char>(byte));
  }
  return encodings;
}
constexpr std::array<Encoding, 256> ENCODINGS = MakeEncodings();
const Encoding& EncodingOf(char c) { return ENCODINGS[static_cast<unsigned char>(c)]; }
constexpr bool IsPlainForSure(char) { return false; }  // the table is as quick

#else

Encoding EncodingOf(char c) { return MakeEncoding(static_cast<unsigned char>(c)); }
constexpr bool IsPlainForSure(char c) { return static_cast<unsigned char>(c) > '>'; }  // above all five

#endif

/// The entity whose body stands at `at`, or null.
const Entity* EntityAt(std::string_view text, std::size_t at) {
  for (const Entity& entity : ENTITIES) {
    if (at < text.size() && text[at] == entity.body.front() && StandsAt(text, at, entity.body)) return &entity;
  }
  return nullptr;
}

/// Writes the decoded `text` to `to`, which holds as many characters, and returns the end of what was written.
char* DecodeTo(std::string_view text, char* to) {
  const char* from = text.data();
  const char* const end = from + text.size();
  while (from != end) {
    if (*from != AMPERSAND) {
      *to++ = *from++;
      continue;
    }
    const Entity* entity = EntityAt(text, static_cast<std::size_t>(++from - text.data()));
    *to++ = entity == nullptr ? AMPERSAND : entity->character;
    from += entity == nullptr ? 0 : entity->body.size();
  }
  return to;
}

}  // namespace

char* Encode(std::string_view text, char* to) {
  for (const char c : text) {
    if (IsPlainForSure(c)) {
      *to++ = c;
      continue;
    }
    const Encoding& encoding = EncodingOf(c);
    std::memcpy(to, &encoding, ENCODING_STEP);
    to += encoding.length;
  }
  return to;
}

std::size_t EncodedLength(std::string_view text) {
  std::size_t length = 0;
  for (const char c : text) length += EncodingOf(c).length;
  return length;
}

bool Decode(std::string_view text, std::string& out) {
  const std::size_t plain = text.find(AMPERSAND);
  if (plain == std::string_view::npos) return false;
  char buffer[1024];
  if (text.size() <= sizeof buffer) {
    std::memcpy(buffer, text.data(), plain);
    const char* const end = DecodeTo(text.substr(plain), buffer + plain);
    out = std::string(buffer, static_cast<std::size_t>(end - buffer));
  } else {
    out.resize(text.size());
    out.resize(static_cast<std::size_t>(DecodeTo(text, out.data()) - out.data()));
  }
  return true;
}

}  // namespace TarnXmlRpc
