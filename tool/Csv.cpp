#include "tool/Csv.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <utility>

namespace tarnddp {
namespace {

constexpr std::string_view byteOrderMark = "\xef\xbb\xbf";

/// What its first line has, the comma before all.
char SeparatorOf(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of("\r\n"), text.size()));
  text = text.substr(0, text.find_first_of("\r\n"));
  for (const char separator : {',', ';', '\t'}) {
    if (text.find(separator) != std::string_view::npos) return separator;
  }
  return ',';
}

class Reader {
 public:
  explicit Reader(std::string_view given) : text(given) {
    if (text.substr(0, byteOrderMark.size()) == byteOrderMark) text.remove_prefix(byteOrderMark.size());
    separator = SeparatorOf(text);
    ends = {separator, '\r', '\n'};
  }

  bool AtEnd() const { return at == text.size(); }

  /// The next row. False if it is malformed: Error() tells.
  bool ReadRow(CsvRow& row) {
    row.line = line;
    do {
      row.fields.emplace_back();
      if (!ReadField(row.fields.back())) return false;
    } while (Take(separator));
    TakeLineEnd();
    return true;
  }

  const std::string& Error() const { return error; }

 private:
  bool ReadField(std::string& field) {
    if (Take('"')) return ReadQuoted(field);
    const std::size_t end = std::min(text.find_first_of(ends, at), text.size());
    field = text.substr(at, end - at);
    at = end;
    return field.find('"') == std::string::npos || Fail(line, "a quote inside a field that does not begin with one");
  }

  bool ReadQuoted(std::string& field) {
    const int begin = line;
    for (;;) {
      if (AtEnd()) return Fail(begin, "a quoted field without end");
      if (text[at] == '"') {
        ++at;
        if (!Take('"')) break;
        field += '"';
      } else if (const std::size_t start = at; TakeLineEnd()) {
        field += text.substr(start, at - start);
      } else {
        field += text[at++];
      }
    }
    return AtEnd() || ends.find(text[at]) != std::string::npos || Fail(line, "text after a quoted field");
  }

  bool Take(char c) {
    if (AtEnd() || text[at] != c) return false;
    ++at;
    return true;
  }

  bool TakeLineEnd() {
    const bool carriageReturn = Take('\r');
    if (!Take('\n') && !carriageReturn) return false;
    ++line;
    return true;
  }

  bool Fail(int where, const char* what) {
    error = "line " + std::to_string(where) + ": " + what;
    return false;
  }

  std::string_view text;
  char separator = ',';
  std::string ends;  // of a field
  std::size_t at = 0;
  int line = 1;
  std::string error;
};

}  // namespace

std::string ParseCsv(std::string_view text, std::vector<CsvRow>& rows) {
  std::vector<CsvRow> found;
  Reader reader(text);
  while (!reader.AtEnd()) {
    CsvRow row;
    if (!reader.ReadRow(row)) return reader.Error();
    if (row.fields.size() > 1 || !row.fields[0].empty()) found.push_back(std::move(row));
  }
  rows.insert(rows.end(), std::make_move_iterator(found.begin()), std::make_move_iterator(found.end()));
  return {};
}

std::string CsvLine(const std::vector<std::string>& fields) {
  std::string line;
  for (const std::string& field : fields) {
    if (&field != &fields.front()) line += ',';
    if (field.find_first_of(",\"\r\n") == std::string::npos) {
      line += field;
      continue;
    }
    line += '"';
    for (const char c : field) line.append(c == '"' ? 2 : 1, c);
    line += '"';
  }
  return line + "\r\n";
}

}  // namespace tarnddp
