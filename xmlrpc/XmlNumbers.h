#pragma once

// Text to number or time and back, the same under every locale. Internal to the library. Readers take a text that a NUL
// follows and move `at` past what they read; false, with nothing moved, if there is nothing to read.

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <limits>
#include <string>
#include <string_view>

#include "xmlrpc/XmlText.h"

namespace TarnXmlRpc {

/// The digit that `c` is, else a number above 9.
inline unsigned Digit(char c) { return static_cast<unsigned char>(c) - static_cast<unsigned>('0'); }
inline bool IsDigit(char c) { return Digit(c) <= 9; }

/// The number that the digits from `digits` on make, at most `limit`.
std::uint64_t SaturatedNumber(const char* digits, std::uint64_t limit);

/// What a 64-bit strtol(text + at, ..., 10) gives: blanks, a sign, digits; saturated.
inline bool ScanInteger(std::string_view text, std::size_t& at, std::int64_t& number) {
  const char* p = text.data() + SkipBlanks(text, at);
  const bool negative = *p == '-';
  if (*p == '-' || *p == '+') ++p;
  const char* const digits = p;
  std::uint64_t magnitude = 0;
  for (; IsDigit(*p); ++p) magnitude = magnitude * 10 + Digit(*p);
  if (p == digits) return false;
  if (p - digits > std::numeric_limits<std::int64_t>::digits10) {  // it may not have fitted
    magnitude = SaturatedNumber(
        digits, static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) + (negative ? 1 : 0));
  }
  number = static_cast<std::int64_t>(negative ? 0 - magnitude : magnitude);
  at = static_cast<std::size_t>(p - text.data());
  return true;
}

/// What strtod(text + at) gives in the "C" locale.
bool ScanDouble(std::string_view text, std::size_t& at, double& number);
/// Whether "nan", compared without case with all the text that follows, sorts first. So "NaN" before a closing tag is a
/// NaN, and so is whatever begins with letters that sort after it, which is kept for compatibility.
bool NanSortsFirst(std::string_view text, std::size_t at);
/// Reads "%4d%2d%2dT%2d:%2d:%2d", all six, from the start of `text`. The fields are kept as they stand: the full year,
/// the month from 1.
bool ScanTime(std::string_view text, std::tm& time);

inline constexpr std::string_view DEFAULT_DOUBLE_FORMAT = "%.15g";
/// What PutNumber() may overwrite, in bytes, however short the number becomes.
inline constexpr std::size_t NUMBER_ROOM = 48;
/// Writes the decimal number to `to` and returns its end. Without a branch that follows the digits: those of
/// measurements come in no order that a processor could learn.
char* PutNumber(std::int32_t number, char* to);
char* PutNumber(long long number, char* to);
/// The same in the default format, with NaN as "nan".
char* PutNumber(double number, char* to);

/// Writes `number` in the printf format `format`, with NaN as "nan", NUL-terminated and cut to `size` bytes; `size` is
/// at least 4. Returns the length.
std::size_t FormatDouble(double number, const std::string& format, char* text, std::size_t size);
/// What holds the text of any time record, NUL included: six ints at their longest.
inline constexpr std::size_t TIME_TEXT_SIZE = 80;

/// The text of a time in XML, as ScanTime() reads it. Returns its length.
std::size_t FormatTime(const std::tm& time, char (&text)[TIME_TEXT_SIZE]);
/// "DD.MM.YYYY HH:MM:SS" of a record read as a standard struct tm (months from 0, years from 1900), unlike the XML
/// form, which keeps year and month as written. Dumps and INI texts show it so.
void FormatStandardTime(const std::tm& time, char (&text)[TIME_TEXT_SIZE]);

}  // namespace TarnXmlRpc
