#include "tool/Events.h"

#include <algorithm>
#include <utility>

namespace tarnddp {

std::vector<Event> Events::Take(const std::vector<Finding>& findings, Time now) {
  std::vector<Event> events;
  std::map<int, Told> before = std::move(told);
  told.clear();
  for (const Finding& finding : findings) {
    const int id = finding.device.id;
    const auto known = before.find(id);
    Told& entry = told[id];
    if (known != before.end()) {
      entry = std::move(known->second);
      before.erase(known);
    }
    Compare(entry, finding, now, events);
  }
  for (const auto& [id, gone] : before)
    if (gone.isTold) events.push_back({"went", gone.finding, "", {}});
  return events;
}

bool Events::IsPending() const {
  return std::any_of(told.begin(), told.end(), [](const auto& entry) { return entry.second.isPending; });
}

void Events::Compare(Told& entry, const Finding& finding, Time now, std::vector<Event>& events) {
  constexpr std::chrono::milliseconds settling(300);
  const std::string change = entry.isTold ? DescribeChange(entry.finding, finding) : "";
  if (entry.isTold && change.empty()) {
    entry.isPending = false;
    entry.finding = finding;
    return;
  }
  if (!entry.isPending) entry.since = now;
  entry.isPending = now < entry.since + settling;
  if (entry.isPending) return;
  events.push_back({entry.isTold ? "changed" : "came", finding, change, {}});
  for (const std::string& problem : finding.problems) {
    const std::vector<std::string>& old = entry.finding.problems;
    if (std::find(old.begin(), old.end(), problem) == old.end()) events.back().newProblems.push_back(problem);
  }
  entry.isTold = true;
  entry.finding = finding;
}

}  // namespace tarnddp
