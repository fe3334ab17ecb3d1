#include "tool/Events.h"

#include <tuple>

#include "DeviceSamples.h"

using namespace tarnddp;

TEST(Events, AreToldOnceAndOnlyOfWhatLasts) {
  // When, in ms; what is there, as id, name and problems; what is told, "..." if a look without news is due.
  const std::tuple<int, const char*, const char*> rows[] = {
      {0, "1A", "..."},
      {299, "1A 2B,p", "..."},
      {300, "1A 2B,p", "came A[][]; ..."},
      {598, "1A 2B,p", "..."},
      {599, "1A 2B,p", "came B[][p]; "},
      {700, "1A 2B,p", ""},
      {800, "1X 2B,p", "..."},
      {900, "1A 2B,p", ""},  // what does not last is not told
      {1000, "1Y 2B,p,q 3C", "..."},
      {1250, "1Z 2B,p,q", "..."},  // nor what went before it was told
      {1300, "1Z 2B,p,q", "changed Z[NAME A -> Z][]; changed B[problem: q][q]; "},
      {1400, "1Z 2B", "..."},
      {1700, "1Z 2B", "changed B[no longer: p, no longer: q][]; "},
      {1800, "2B", "went Z[][]; "},
      {1900, "1Z", "went B[][]; ..."}};
  Events events;
  for (const auto& [ms, there, expected] : rows) {
    std::vector<Finding> findings;
    std::istringstream words(there);
    for (std::string word; words >> word;) {
      Finding finding = {{word[0] - '0', RecordOf("", "1", "1.1.1.1", word.substr(1, 1)), {}}, {}};
      finding.device.sources = {SourceOf("e" + std::to_string(ms), "1.1.1.1")};  // which is no news
      for (std::size_t at = 2; at < word.size(); at += 2) finding.problems.push_back(word.substr(at + 1, 1));
      findings.push_back(finding);
    }
    std::string told;
    for (const Event& event :
         events.Take(findings, Events::Time(std::chrono::hours(1) + std::chrono::milliseconds(ms)))) {
      told += std::string(event.name) + ' ' + event.finding.device.record.name + '[' + event.change + "][";
      for (const std::string& problem : event.newProblems) told += problem;
      told += "]; ";
    }
    EXPECT_EQ(expected, told + (events.IsPending() ? "..." : "")) << ms;
  }
}
