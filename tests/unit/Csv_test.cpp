#include "tool/Csv.h"

#include <gtest/gtest.h>

namespace tarnddp {
namespace {

/// Rows as "line:field|field", or what is wrong.
std::string Read(std::string_view text) {
  std::vector<CsvRow> rows;
  std::string shown = ParseCsv(text, rows);
  for (const CsvRow& row : rows) {
    shown += (shown.empty() ? "" : " ") + std::to_string(row.line) + ':';
    for (const std::string& field : row.fields) shown += (&field == &row.fields.front() ? "" : "|") + field;
  }
  return shown;
}

TEST(Csv, CountsLinesAndReadsWhatItWrites) {
  const struct {
    std::string text, rows;
  } cases[] = {{"\xef\xbb\xbf\"a,b\",c\r\n\n\r\n,\rd,", "1:a,b|c 4:| 5:d|"},
               {CsvLine({" a ", "", "b,\"c\"", "\"", "\r"}) + CsvLine({"d\r\ne", "\n"}) + "f",
                "1: a ||b,\"c\"|\"|\r 3:d\r\ne|\n 6:f"},
               {"a\n\"b", "line 2: a quoted field without end"},
               {"a\nb\"c\"", "line 2: a quote inside a field that does not begin with one"},
               {"\"a\nb\"c", "line 2: text after a quoted field"}};
  for (const auto& c : cases) EXPECT_EQ(c.rows, Read(c.text)) << c.text;
}

}  // namespace
}  // namespace tarnddp
