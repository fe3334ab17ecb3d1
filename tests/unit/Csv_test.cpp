#include "tool/Csv.h"

#include <gtest/gtest.h>

namespace tarnddp {
namespace {

/// Rows as "line:field|field", or what is wrong.
std::string read(std::string_view text) {
  std::vector<CsvRow> rows;
  std::string shown = ParseCsv(text, rows);
  for (const CsvRow& row : rows) {
    shown += (shown.empty() ? "" : " ") + std::to_string(row.line) + ':';
    for (const std::string& field : row.fields) shown += (&field == &row.fields.front() ? "" : "|") + field;
  }
  return shown;
}

TEST(Csv, ReadsRowsAndCountsLines) {
  const struct {
    std::string_view text;
    const char* rows;
  } cases[] = {{"", ""},
               {"a,b\r\nc,d\r\n", "1:a|b 2:c|d"},
               {"a,b\nc,d", "1:a|b 2:c|d"},
               {"a\rb", "1:a 2:b"},
               {"\xef\xbb\xbf"
                "a",
                "1:a"},
               {"\xef\xbb\xbf\"a,b\"", "1:a,b"},
               {"a\n\n\r\nb", "1:a 4:b"},
               {",\n", "1:|"},
               {"a,\"b \"\"c\"\", d\",\"\"\n", "1:a|b \"c\", d|"},
               {"\"a\r\nb\",c\nd", "1:a\r\nb|c 3:d"},
               {" a , b", "1: a | b"},
               {"a,", "1:a|"},
               {"a\n\"b", "line 2: a quoted field without end"},
               {"a\nb\"c\"", "line 2: a quote inside a field that does not begin with one"},
               {"\"a\nb\"c", "line 2: text after a quoted field"}};
  for (const auto& c : cases) EXPECT_EQ(c.rows, read(c.text)) << c.text;
}

TEST(Csv, WhatItWritesItReads) {
  EXPECT_EQ("a,,\"b,\"\"c\"\"\"\r\n", CsvLine({"a", "", "b,\"c\""}));
  const std::vector<std::string> fields = {"plain", "", "a,b", "\"", "a\r\nb", " x ", "\xc3\xa4", "\r"};
  std::vector<CsvRow> rows;
  ASSERT_EQ("", ParseCsv(CsvLine(fields), rows));
  ASSERT_EQ(1U, rows.size());
  EXPECT_EQ(fields, rows[0].fields);
}

}  // namespace
}  // namespace tarnddp
