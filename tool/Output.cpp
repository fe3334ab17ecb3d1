#include "tool/Output.h"

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <optional>
#include <string>

#include "base/ErrorText.h"
#include "tool/System.h"
#include "tool/Text.h"

namespace tarnddp {
namespace {

bool outputFailed = false;
std::string status;  // what stands there now

void Write(std::FILE* file, std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), file);
  std::fflush(file);
}

}  // namespace

void Print(std::string_view text) {
  if (outputFailed) return;
  ShowStatus({});
  errno = 0;
  Write(stdout, text);
  if (std::ferror(stdout) == 0) return;
  outputFailed = true;
  const int error = errno;
  if (!MeansReaderGone(error) && !WasInterrupted()) Say(std::string("standard output: ") + ErrorText(error));
}

bool IsOutputGood() { return !outputFailed; }

void Say(std::string_view text) {
  ShowStatus({});
  Write(stderr, "tarnddp: " + Shown(text) + "\n");
}

void ShowStatus(std::string_view text) {
  const std::optional<TerminalSize> terminal = ErrorTerminal();
  if (!terminal || IsOutputPipe()) return;
  std::string shown = Shown(text);
  if (Width(shown) >= terminal->columns) shown = Fitted(shown, terminal->columns - 1);
  if (shown == status) return;
  Write(stderr, "\r\x1b[K" + shown);
  status = shown;
}

bool Confirm(std::string_view question) {
  ShowStatus({});
  Write(stderr, Shown(question) + " [y/N] ");
  std::string answer;
  if (!std::getline(std::cin, answer)) {
    Write(stderr, "\n");
    return false;
  }
  answer = Lower(answer);
  return answer == "y" || answer == "yes";
}

}  // namespace tarnddp
