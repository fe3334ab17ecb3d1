#include "tool/Screen.h"

#include <algorithm>

#include "tool/Output.h"
#include "tool/System.h"

namespace tarnddp {

void Screen::Show(const std::vector<std::string>& lines) {
  const int rows = OutputTerminal().value_or(TerminalSize()).rows;
  const auto room = static_cast<std::size_t>(std::max(rows - 1, 2));  // the last is the status line's
  if (lines.size() <= room) return Replace(lines);
  std::vector<std::string> some(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(room - 1));
  some.push_back("... and " + std::to_string(lines.size() - some.size()) + " more");
  Replace(some);
}

void Screen::Finish(const std::vector<std::string>& lines) {
  Replace(lines);
  shown.clear();
}

void Screen::Clear() { Replace({}); }

/// In one piece, so that nothing flickers. Each line is cleared before it is written: behind one as wide as the
/// terminal the cursor still stands on its last column.
void Screen::Replace(const std::vector<std::string>& lines) {
  if (lines == shown) return;
  std::string bytes;
  if (!shown.empty()) bytes += "\x1b[" + std::to_string(shown.size()) + "A\r";
  for (const std::string& line : lines) bytes += "\x1b[K" + line + "\n";
  bytes += "\x1b[J";
  Print(bytes);
  shown = lines;
}

}  // namespace tarnddp
