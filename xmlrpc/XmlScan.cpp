#include "xmlrpc/XmlScan.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "xmlrpc/Locale.h"

namespace TarnXmlRpc {

namespace {

constexpr char ampersand[] = "&";

struct Entity {
  char character;
  std::string_view body;  // what follows the ampersand
};
constexpr std::array<Entity, 5> entities = {
    {{'<', "lt;"}, {'>', "gt;"}, {'&', "amp;"}, {'\'', "apos;"}, {'"', "quot;"}}};

/// The entity body of each byte; empty for all but the five.
constexpr std::array<std::string_view, 256> MakeBodies() {
  std::array<std::string_view, 256> bodies{};
  for (const Entity& entity : entities) bodies[static_cast<unsigned char>(entity.character)] = entity.body;
  return bodies;
}
constexpr std::array<std::string_view, 256> bodies = MakeBodies();

/// The entity whose body stands at `at`, or null.
const Entity* EntityAt(std::string_view text, std::size_t at) {
  for (const Entity& entity : entities) {
    if (StandsAt(text, at, entity.body)) return &entity;
  }
  return nullptr;
}

}  // namespace

void AppendEncoded(std::string_view text, std::string& out) {
  std::size_t plain = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const std::string_view body = bodies[static_cast<unsigned char>(text[i])];
    if (body.empty()) continue;
    out.append(text, plain, i - plain).append(ampersand).append(body);
    plain = i + 1;
  }
  out.append(text, plain, text.size() - plain);
}

std::string Decoded(std::string_view text) {
  std::string out;
  std::size_t mark = text.find('&');
  if (mark == std::string_view::npos) return out.assign(text);
  out.reserve(text.size());
  std::size_t plain = 0;
  for (; mark != std::string_view::npos; mark = text.find('&', plain)) {
    out.append(text, plain, mark - plain);
    const Entity* entity = EntityAt(text, mark + 1);
    out.push_back(entity == nullptr ? '&' : entity->character);
    plain = mark + 1 + (entity == nullptr ? 0 : entity->body.size());
  }
  return out.append(text, plain, text.size() - plain);
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
