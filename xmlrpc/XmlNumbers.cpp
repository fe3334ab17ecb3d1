#include "xmlrpc/XmlNumbers.h"

#include <endian.h>

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

#endif

constexpr int DIGITS = 15;                         // of a double in the default format
constexpr std::uint32_t EIGHT_DIGITS = 100000000;  // have the numbers below
constexpr std::uint64_t ZEROS = 0x3030303030303030;

/// The eight digits of a number, as numbers, the first in the lowest byte: halved three times, all parts at once.
std::uint64_t DigitsOf(std::uint32_t number) {
  const std::uint64_t fours = number / 10000 | static_cast<std::uint64_t>(number % 10000) << 32;
  const std::uint64_t hundreds = fours * 10486 >> 20 & 0x0000007f0000007f;
  const std::uint64_t twos = hundreds | (fours - hundreds * 100) << 16;
  const std::uint64_t tens = twos * 103 >> 10 & 0x000f000f000f000f;
  return tens | (twos - tens * 10) << 8;
}

void Store(std::uint64_t characters, char* to) {
  characters = htole64(characters);
  std::memcpy(to, &characters, sizeof characters);
}

char* PutMagnitude(std::uint32_t number, char* to) {
  std::uint64_t digits = DigitsOf(number % EIGHT_DIGITS);
  if (number < EIGHT_DIGITS) {
    const int zeros = __builtin_ctzll(digits | std::uint64_t{1} << 56) / 8;
    Store((digits | ZEROS) >> 8 * zeros, to);
    return to + 8 - zeros;
  }
  const unsigned upper = number / EIGHT_DIGITS;
  *to = static_cast<char>('0' + upper / 10);
  to += upper >= 10 ? 1 : 0;
  *to++ = static_cast<char>('0' + upper % 10);
  Store(digits | ZEROS, to);
  return to + 8;
}

#if defined(__SIZEOF_INT128__) && !defined(__OPTIMIZE_SIZE__)
#define TARN_PUTS_PLAIN_DOUBLES

__extension__ using Wide = unsigned __int128;

// Of ten, from -4 on; those from 0 on are exact.
constexpr int FIRST_POWER = -4;
constexpr double POWERS[] = {1e-4, 1e-3, 1e-2, 1e-1, 1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6, 1e7,
                             1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18};
constexpr double PowerOfTen(int exponent) { return POWERS[exponent - FIRST_POWER]; }

/// The first 15 digits of `magnitude`, rounded as printf() does, as a whole number. `exponent` is that of the first
/// digit; both are between 1e-4 and 1e15.
std::uint64_t FirstDigits(double magnitude, int& exponent) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &magnitude, sizeof bits);
  constexpr int fractionBits = std::numeric_limits<double>::digits - 1;
  const int binaryExponent = static_cast<int>(bits >> fractionBits) - (std::numeric_limits<double>::max_exponent - 1);
  constexpr std::uint64_t one = std::uint64_t{1} << fractionBits;
  const std::uint64_t fraction = (bits & (one - 1)) | one;

  constexpr int log10of2 = 78913;  // times 2^18
  exponent = binaryExponent * log10of2 >> 18;
  exponent += magnitude >= PowerOfTen(exponent + 1) ? 1 : 0;
  const Wide scaled = Wide{fraction} * static_cast<std::uint64_t>(PowerOfTen(DIGITS - 1 - exponent));
  const int shift = fractionBits - binaryExponent;
  const Wide isOdd = scaled >> shift & 1;  // a tie goes to the even one
  return static_cast<std::uint64_t>((scaled + (Wide{1} << (shift - 1)) - 1 + isOdd) >> shift);
}

/// Null for what is written with an exponent, and some more, with nothing written.
char* PutPlainDouble(double number, char* to) {
  const double magnitude = std::fabs(number);
  if (!(magnitude >= PowerOfTen(FIRST_POWER) && magnitude < PowerOfTen(DIGITS))) return nullptr;
  int exponent = 0;
  const std::uint64_t digits = FirstDigits(magnitude, exponent);
  if (digits >= static_cast<std::uint64_t>(PowerOfTen(DIGITS))) return nullptr;  // rounded up to a power of ten
  *to = '-';
  to += number < 0 ? 1 : 0;

  // The zeros in front and the 15 digits, of which the last that is not zero is the last that is written.
  const std::uint64_t upper = DigitsOf(static_cast<std::uint32_t>(digits / EIGHT_DIGITS));
  const std::uint64_t lower = DigitsOf(static_cast<std::uint32_t>(digits % EIGHT_DIGITS));
  const int used = lower != 0 ? 15 - __builtin_clzll(lower) / 8 : 7 - __builtin_clzll(upper) / 8;
  constexpr std::size_t zeros = 4, longest = 24;
  char text[zeros + DIGITS + longest] = {'0', '0', '0'};
  Store(upper | ZEROS, text + zeros - 1);
  Store(lower | ZEROS, text + zeros + 7);
  const int before = std::min(exponent, 0), whole = std::max(exponent, 0) + 1;
  const char* const start = text + zeros + before;
  std::memcpy(to, start, DIGITS + 1);
  to[whole] = '.';
  std::memcpy(to + whole + 1, start + whole, longest);
  const int length = used - before;
  return to + (length <= whole ? whole : length + 1);
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

char* PutNumber(std::int32_t number, char* to) {
  *to = '-';  // and stepped past only if it is meant
  to += number < 0 ? 1 : 0;
  const auto bits = static_cast<std::uint32_t>(number);
  return PutMagnitude(number < 0 ? 0 - bits : bits, to);
}

char* PutNumber(long long number, char* to) { return std::to_chars(to, to + NUMBER_ROOM, number).ptr; }

char* PutNumber(double number, char* to) {
#ifdef TARN_PUTS_PLAIN_DOUBLES
  if (char* const end = PutPlainDouble(number, to); end != nullptr) return end;
#endif
  if (std::isnan(number)) return std::copy_n("nan", 3, to);
#ifdef __cpp_lib_to_chars
  return std::to_chars(to, to + NUMBER_ROOM, number, std::chars_format::general, DIGITS).ptr;
#else
  const InCLocale wireFormat;
  return to + std::snprintf(to, NUMBER_ROOM, DEFAULT_DOUBLE_FORMAT.data(), number);
#endif
}

std::size_t FormatDouble(double number, const std::string& format, char* text, std::size_t size) {
  if (std::isnan(number) || format == DEFAULT_DOUBLE_FORMAT) {
    char exact[NUMBER_ROOM];
    const std::size_t length = std::min(static_cast<std::size_t>(PutNumber(number, exact) - exact), size - 1);
    std::memcpy(text, exact, length);
    text[length] = '\0';
    return length;
  }
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
