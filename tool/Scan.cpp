#include "tool/Commands.h"
#include "tool/Output.h"

namespace tarnddp {

int Scan(const ScanOptions& /*options*/) {
  Say("scan is not there yet");
  return StatusNotDone;
}

}  // namespace tarnddp
