#pragma once

#include <string>
#include <vector>

namespace tarnddp {

/// Lines that stay in place on the terminal that standard output is: what is shown takes the place of what was.
class Screen {
 public:
  /// Prints as many of `lines` as the terminal has room for, and how many there are more.
  void Show(const std::vector<std::string>& lines);
  /// Takes away what is shown, so that something else can be printed in its place.
  void Clear();
  /// Prints all of them. The next lines come below.
  void Finish(const std::vector<std::string>& lines);

 private:
  void Replace(const std::vector<std::string>& lines);
  std::vector<std::string> shown;
};

}  // namespace tarnddp
