#pragma once

#include <string>
#include <string_view>
#include <vector>

// Comma-separated values as RFC 4180 has them, both ways. Pure: any bytes. What is read may have semicolons instead, as
// spreadsheets write them where numbers have a comma, or TABs: if the first line has no comma.

namespace tarnddp {

struct CsvRow {
  int line = 0;  ///< where it begins, from 1: a quoted field may hold line ends, so rows and lines are counted apart
  std::vector<std::string> fields;
};

/// Appends the rows of `text` to `rows`; lines end with CR LF, LF or CR, a byte order mark at the start and lines that
/// are wholly empty count for nothing. The empty text, or what is wrong and in which line; `rows` is untouched then.
std::string ParseCsv(std::string_view text, std::vector<CsvRow>& rows);

/// One row with its line end (CR LF). A field that holds a separator, a quote or a line end stands in quotes.
std::string CsvLine(const std::vector<std::string>& fields);

}  // namespace tarnddp
