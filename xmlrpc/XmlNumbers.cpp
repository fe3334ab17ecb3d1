#include "xmlrpc/XmlNumbers.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "xmlrpc/Locale.h"

namespace TarnXmlRpc {

namespace {

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }

// The quick ways for doubles, which never depend on the locale. Older standard libraries (libstdc++ before 11) have
// them for integers alone; there, strtod() and printf() do all the work, to the same effect.
#ifdef __cpp_lib_to_chars

/// A decimal number that from_chars() and strtod() read alike: no blanks, no plus sign, no hexadecimal, no word. `text`
/// is followed by a NUL.
bool IsPlainDecimal(const char* text) {
  if (*text == '-') ++text;
  return IsDigit(*text) && !(*text == '0' && Lower(text[1]) == 'x');
}

/// False, with `at` untouched, for what strtod() is to read.
bool ScanPlainDouble(std::string_view text, std::size_t& at, double& number) {
  const char* const start = text.data() + at;
  if (!IsPlainDecimal(start)) return false;
  const auto scanned = std::from_chars(start, text.data() + text.size(), number);
  if (scanned.ec != std::errc()) return false;
  at += static_cast<std::size_t>(scanned.ptr - start);
  return true;
}

/// "%.15g"; returns the length.
std::size_t FormatDoubleExactly(double number, char* text, std::size_t size) {
  char exact[32];  // sign, 15 digits, point, exponent
  const char* end = std::to_chars(exact, exact + sizeof exact, number, std::chars_format::general, 15).ptr;
  const std::size_t length = std::min(static_cast<std::size_t>(end - exact), size - 1);
  std::memcpy(text, exact, length);
  text[length] = '\0';
  return length;
}

#endif

/// One "%<width>d" of sscanf(): blanks, then at most `width` characters of sign and digits.
bool ScanField(std::string_view& text, int width, int& number) {
  text.remove_prefix(SkipBlanks(text, 0));
  bool negative = false;
  if (!text.empty() && width > 0 && (text.front() == '-' || text.front() == '+')) {
    negative = text.front() == '-';
    text.remove_prefix(1);
    --width;
  }
  int magnitude = 0;
  int digits = 0;
  for (; digits < width && !text.empty() && IsDigit(text.front()); ++digits) {
    magnitude = magnitude * 10 + (text.front() - '0');
    text.remove_prefix(1);
  }
  number = negative ? -magnitude : magnitude;
  return digits > 0;
}

bool ScanCharacter(std::string_view& text, char expected) {
  if (text.empty() || text.front() != expected) return false;
  text.remove_prefix(1);
  return true;
}

}  // namespace

std::uint64_t SaturatedNumber(const char* digits, std::uint64_t limit) {
  std::uint64_t number = 0;
  for (const char* p = digits; IsDigit(*p); ++p) {
    number = number <= limit / 10 ? std::min(number * 10 + Digit(*p), limit) : limit;
  }
  return number;
}

bool ScanDouble(std::string_view text, std::size_t& at, double& number) {
#ifdef __cpp_lib_to_chars
  if (ScanPlainDouble(text, at, number)) return true;
#endif
  const char* const start = text.data() + at;
  char* end = nullptr;
  number = strtod_l(start, &end, CLocale());
  at += static_cast<std::size_t>(end - start);
  return end != start;
}

bool NanSortsFirst(std::string_view text, std::size_t at) {
  constexpr std::string_view nan("nan");
  for (const char expected : nan) {
    const char c = at < text.size() ? Lower(text[at]) : '\0';
    if (c != expected) return static_cast<unsigned char>(expected) < static_cast<unsigned char>(c);
    ++at;
  }
  return at < text.size() && text[at] != '\0';
}

bool ScanTime(std::string_view text, std::tm& time) {
  time = std::tm();
  time.tm_isdst = -1;
  return ScanField(text, 4, time.tm_year) && ScanField(text, 2, time.tm_mon) && ScanField(text, 2, time.tm_mday) &&
         ScanCharacter(text, 'T') && ScanField(text, 2, time.tm_hour) && ScanCharacter(text, ':') &&
         ScanField(text, 2, time.tm_min) && ScanCharacter(text, ':') && ScanField(text, 2, time.tm_sec);
}

std::size_t FormatDouble(double number, const std::string& format, char* text, std::size_t size) {
  if (std::isnan(number)) {
    std::memcpy(text, "nan", 4);
    return 3;
  }
#ifdef __cpp_lib_to_chars
  if (format == "%.15g") return FormatDoubleExactly(number, text, size);
#endif
  const InCLocale wireFormat;
  std::snprintf(text, size, format.c_str(), number);
  return std::strlen(text);
}

std::size_t FormatTime(const std::tm& time, char (&text)[TIME_TEXT_SIZE]) {
  return static_cast<std::size_t>(std::snprintf(text, sizeof text, "%04d%02d%02dT%02d:%02d:%02d", time.tm_year,
                                                time.tm_mon, time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec));
}

void FormatStandardTime(const std::tm& time, char (&text)[TIME_TEXT_SIZE]) {
  // Added as unsigned numbers: a peer may have sent any year.
  const int month = static_cast<int>(static_cast<unsigned>(time.tm_mon) + 1U);
  const int year = static_cast<int>(static_cast<unsigned>(time.tm_year) + 1900U);
  std::snprintf(text, sizeof text, "%02i.%02i.%04i %02i:%02i:%02i", time.tm_mday, month, year, time.tm_hour,
                time.tm_min, time.tm_sec);
}

}  // namespace TarnXmlRpc
