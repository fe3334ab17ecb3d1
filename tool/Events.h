#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "tool/Render.h"

// What a watch tells. Pure, but for the time that it is given.

namespace tarnddp {

struct Event {
  const char* name;                      ///< "came", "changed" or "went"
  Finding finding;                       ///< as it is now; of what went, as it was told last
  std::string change;                    ///< DescribeChange(), of what changed
  std::vector<std::string> newProblems;  ///< those of `finding` that were not told of it before
};

/// What has been told of each device, and what is to be told.
class Events {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// What is new in `findings`, which are all that there are. A device is spoken of 300 ms after it became another than
  /// was told, as it is by then: what one ask brings in by several ways is one event. One that has become the same
  /// again meanwhile is not, and one that goes is spoken of at once.
  std::vector<Event> Take(const std::vector<Finding>& findings, Time now);
  /// Whether a device waits to be spoken of, so that Take() is due again though nothing comes in.
  bool IsPending() const;

 private:
  struct Told {
    bool isTold = false;
    bool isPending = false;
    Time since;
    Finding finding;
  };
  static void Compare(Told& entry, const Finding& finding, Time now, std::vector<Event>& events);

  std::map<int, Told> told;
};

}  // namespace tarnddp
