#include "tool/Text.h"

#include <utf8.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace tarnddp {
namespace {

struct Range {
  std::uint32_t first, last;
};

template <typename Ranges>
bool IsIn(const Ranges& ranges, std::uint32_t c) {
  return std::any_of(std::begin(ranges), std::end(ranges), [c](Range r) { return r.first <= c && c <= r.last; });
}

/// C0, DEL, C1; line and paragraph separators; the marks that turn the direction of text.
bool DrivesTerminal(std::uint32_t c) {
  constexpr Range ranges[] = {{0, 0x1f},        {0x7f, 0x9f},     {0x2028, 0x2029}, {0x61c, 0x61c},
                              {0x200e, 0x200f}, {0x202a, 0x202e}, {0x2066, 0x2069}};
  return IsIn(ranges, c);
}

/// Accents that stand on the letter before, and what joins or selects.
bool TakesNoColumn(std::uint32_t c) {
  constexpr Range ranges[] = {{0x300, 0x36f},   {0x483, 0x489},   {0x591, 0x5bd},   {0x610, 0x61a},    {0x64b, 0x65f},
                              {0x1ab0, 0x1aff}, {0x1dc0, 0x1dff}, {0x200b, 0x200d}, {0x2060, 0x2064},  {0x20d0, 0x20ff},
                              {0xfe00, 0xfe0f}, {0xfe20, 0xfe2f}, {0xfeff, 0xfeff}, {0xe0100, 0xe01ef}};
  return IsIn(ranges, c);
}

/// East Asian wide and full-width characters, and pictures, as Unicode 14 has them.
bool TakesTwoColumns(std::uint32_t c) {
  constexpr Range ranges[] = {
      {0x1100, 0x115f},   {0x231a, 0x231b},   {0x2329, 0x232a},   {0x23e9, 0x23ec},   {0x23f0, 0x23f0},
      {0x23f3, 0x23f3},   {0x25fd, 0x25fe},   {0x2614, 0x2615},   {0x2648, 0x2653},   {0x267f, 0x267f},
      {0x2693, 0x2693},   {0x26a1, 0x26a1},   {0x26aa, 0x26ab},   {0x26bd, 0x26be},   {0x26c4, 0x26c5},
      {0x26ce, 0x26ce},   {0x26d4, 0x26d4},   {0x26ea, 0x26ea},   {0x26f2, 0x26f3},   {0x26f5, 0x26f5},
      {0x26fa, 0x26fa},   {0x26fd, 0x26fd},   {0x2705, 0x2705},   {0x270a, 0x270b},   {0x2728, 0x2728},
      {0x274c, 0x274c},   {0x274e, 0x274e},   {0x2753, 0x2755},   {0x2757, 0x2757},   {0x2795, 0x2797},
      {0x27b0, 0x27b0},   {0x27bf, 0x27bf},   {0x2b1b, 0x2b1c},   {0x2b50, 0x2b50},   {0x2b55, 0x2b55},
      {0x2e80, 0x303e},   {0x3041, 0x3247},   {0x3250, 0x4dbf},   {0x4e00, 0xa4c6},   {0xa960, 0xa97c},
      {0xac00, 0xd7a3},   {0xf900, 0xfad9},   {0xfe10, 0xfe19},   {0xfe30, 0xfe6b},   {0xff01, 0xff60},
      {0xffe0, 0xffe6},   {0x16fe0, 0x1b2fb}, {0x1f004, 0x1f004}, {0x1f0cf, 0x1f0cf}, {0x1f18e, 0x1f18e},
      {0x1f191, 0x1f19a}, {0x1f200, 0x1f320}, {0x1f32d, 0x1f335}, {0x1f337, 0x1f37c}, {0x1f37e, 0x1f393},
      {0x1f3a0, 0x1f3ca}, {0x1f3cf, 0x1f3d3}, {0x1f3e0, 0x1f3f0}, {0x1f3f4, 0x1f3f4}, {0x1f3f8, 0x1f43e},
      {0x1f440, 0x1f440}, {0x1f442, 0x1f4fc}, {0x1f4ff, 0x1f53d}, {0x1f54b, 0x1f54e}, {0x1f550, 0x1f567},
      {0x1f57a, 0x1f57a}, {0x1f595, 0x1f596}, {0x1f5a4, 0x1f5a4}, {0x1f5fb, 0x1f64f}, {0x1f680, 0x1f6c5},
      {0x1f6cc, 0x1f6cc}, {0x1f6d0, 0x1f6d2}, {0x1f6d5, 0x1f6df}, {0x1f6eb, 0x1f6ec}, {0x1f6f4, 0x1f6fc},
      {0x1f7e0, 0x1f7f0}, {0x1f90c, 0x1f93a}, {0x1f93c, 0x1f945}, {0x1f947, 0x1f9ff}, {0x1fa70, 0x1faf6},
      {0x20000, 0x3fffd}};
  return IsIn(ranges, c);
}

int ColumnsOf(std::uint32_t c) {
  constexpr std::uint32_t firstOther = 0x300;
  if (c < firstOther) return 1;  // most are: a name may be long
  return TakesNoColumn(c) ? 0 : TakesTwoColumns(c) ? 2 : 1;
}

/// As much of `shown` from its beginning as fits.
std::string_view Head(std::string_view shown, int columns) {
  const auto* at = shown.begin();
  while (at < shown.end()) {
    const auto* next = at;
    columns -= ColumnsOf(utf8::unchecked::next(next));
    if (columns < 0) break;
    at = next;
  }
  return shown.substr(0, static_cast<std::size_t>(at - shown.begin()));
}

}  // namespace

std::string Utf8(std::string_view foreign) {
  if (utf8::is_valid(foreign.begin(), foreign.end())) return std::string(foreign);
  std::string text;
  for (const char c : foreign) utf8::append(static_cast<unsigned char>(c), std::back_inserter(text));
  return text;
}

std::string Shown(std::string_view foreign) {
  constexpr char digits[] = "0123456789abcdef";
  const std::string text = Utf8(foreign);
  std::string shown;
  for (auto at = text.begin(); at != text.end();) {
    const auto start = at;
    if (!DrivesTerminal(utf8::unchecked::next(at))) {
      shown.append(start, at);
      continue;
    }
    std::for_each(start, at, [&](char c) {
      const auto byte = static_cast<unsigned char>(c);
      shown += {'\\', 'x', digits[byte >> 4U], digits[byte & 0xfU]};
    });
  }
  return shown;
}

std::string ShownOr(const std::optional<std::string>& foreign, const char* otherwise) {
  return foreign ? Shown(*foreign) : otherwise;
}

std::string Cell(std::string_view shown) {
  constexpr std::string_view starts[] = {"=", "+", "-", "@", "＝", "＋", "－", "＠"};  // the last four are full-width
  std::string cell;
  bool isAtStart = true;
  for (; !shown.empty(); shown.remove_prefix(1)) {
    const auto begins = [shown](std::string_view start) { return shown.substr(0, start.size()) == start; };
    if (isAtStart && std::any_of(std::begin(starts), std::end(starts), begins)) cell += '\'';
    cell += shown.front();
    isAtStart = shown.front() == ';' || (isAtStart && shown.front() == ' ');
  }
  return cell;
}

std::string Lower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return lower;
}

void AppendItem(std::string& list, std::string_view item, std::string_view separator) {
  if (!list.empty()) list += separator;
  list += item;
}

int Width(std::string_view shown) {
  int columns = 0;
  for (auto at = shown.begin(); at < shown.end();) columns += ColumnsOf(utf8::unchecked::next(at));
  return columns;
}

std::string Fitted(std::string_view shown, int columns) {
  if (columns <= 0) return {};
  const int left = columns - Width(shown);
  if (left >= 0) return std::string(shown) + std::string(static_cast<std::size_t>(left), ' ');
  return Fitted(std::string(Head(shown, columns - 1)) + "…", columns);
}

}  // namespace tarnddp
