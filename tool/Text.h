#pragma once

#include <optional>
#include <string>
#include <string_view>

// Text on its way to a person, that from the network above all. Pure.

namespace tarnddp {

/// `foreign` as UTF-8: as it is if it is UTF-8, else read as Latin-1, all of it.
std::string Utf8(std::string_view foreign);

/// What may be shown of bytes from the network, and the only form in which they are ever printed: Utf8(), with control
/// characters, line and paragraph separators and direction marks as \xNN for each of their bytes. So no text can move
/// the cursor, colour the line or turn its direction, and what is shown is one line.
std::string Shown(std::string_view foreign);
/// The same of a text that may be missing: then `otherwise`.
std::string ShownOr(const std::optional<std::string>& foreign, const char* otherwise);

/// `shown` as a cell of a table that no spreadsheet takes for a formula: with a ' before what begins like one, at the
/// start and behind a ";", at which some spreadsheets part cells too. A cell stays as it is.
std::string Cell(std::string_view shown);

/// `text` with the letters A to Z small, every other byte as it is.
std::string Lower(std::string_view text);

/// Adds `item` to the items in `list`, behind `separator` unless it is the first.
void AppendItem(std::string& list, std::string_view item, std::string_view separator = ", ");

/// How many columns of a terminal `shown` takes.
int Width(std::string_view shown);

/// `shown` filled up with blanks to `columns`, or cut to as many with a "…" at its end.
std::string Fitted(std::string_view shown, int columns);

}  // namespace tarnddp
