#include <cerrno>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/ErrorText.h"
#include "tool/Commands.h"
#include "tool/Exchange.h"
#include "tool/Output.h"
#include "tool/Plan.h"
#include "tool/Render.h"
#include "tool/Report.h"
#include "tool/Session.h"
#include "tool/System.h"
#include "tool/Text.h"

namespace tarnddp {
namespace {

/// The empty text, or why not.
std::string ReadFile(const std::string& name, std::string& content) {
  constexpr std::size_t largest = 16 << 20;
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(OpenToRead(name), std::fclose);
  if (!file) return ErrorText(errno);
  char buffer[65536];
  for (std::size_t count = 0; (count = std::fread(buffer, 1, sizeof buffer, file.get())) > 0;) {
    content.append(buffer, count);
    if (content.size() > largest) return "it is too large for a plan";
  }
  return std::ferror(file.get()) != 0 ? ErrorText(errno) : "";
}

bool IsToBeDone(const PlannedChange& change) {
  return change.step == Step::SetAddress || change.step == Step::DhcpOn || change.step == Step::DhcpOff;
}

Settings SettingsOf(const PlannedChange& change) { return FactsOf(change.device->record).settings; }

Order OrderFor(const PlannedChange& change) {
  return change.step == Step::SetAddress ? StaticOrder(TargetOf(change)) : DhcpOrder(change.step == Step::DhcpOn);
}

/// "line 2" or "lines 2, 4"
std::string LinesText(const std::vector<int>& lines) {
  std::string numbers;
  for (const int line : lines) AppendItem(numbers, std::to_string(line));
  return (lines.size() == 1 ? "line " : "lines ") + numbers;
}

std::string LeftAlone(const PlannedChange& change) {
  return "left alone" + (change.words.empty() ? ", as it is so already" : ": " + change.words);
}

std::string NotHeard(const PlannedChange& change) {
  return change.words.empty() ? "not heard" : "not heard: " + change.words;
}

/// What is known of a line that no change is sent for, or not yet.
Report ReportOn(const Session& session, const PlannedChange& change) {
  switch (change.step) {
    case Step::Missing:
      return {change.called, change.mac, {Result::Gone, NotHeard(change)}, {}, {}, {}};
    case Step::Blocked:
      return ReportOn(*change.device, {Result::Refused, change.words}, SettingsOf(change));
    case Step::LeftAlone:
      return ReportOn(*change.device, {Result::Done, LeftAlone(change)}, SettingsOf(change));
    default:
      return ReportPlanned(session, *change.device, OrderFor(change));
  }
}

/// A plan on its way.
class Run {
 public:
  Run(Session& sessionToUse, std::vector<PlannedChange> plannedChanges, bool asJson)
      : session(sessionToUse), changes(std::move(plannedChanges)), json(asJson) {
    for (const PlannedChange& change : changes) {
      if (IsToBeDone(change)) ++count;
    }
  }

  int Count() const { return count; }
  int Status() const { return status; }

  /// Shows what would change and what cannot, to be read before it is confirmed.
  void Show() {
    int alone = 0;
    bool isAnyMissing = false;
    std::map<std::string, std::vector<int>> notes;  // and the lines that each is about
    for (const PlannedChange& change : changes) {
      const std::string line = "line " + std::to_string(change.line) + ": " + change.called + ": ";
      if (change.step == Step::LeftAlone) {
        ++alone;
        if (!change.words.empty()) notes[LeftAlone(change)].push_back(change.line);
      } else if (IsToBeDone(change)) {
        Tell(line + InWords(SettingsOf(change)) + " -> " + PlannedText(OrderFor(change)));
        for (const std::string& note : NotesOn(change)) notes[note].push_back(change.line);
      } else {
        Tell(line + ReportOn(session, change).outcome.words);
        isAnyMissing = isAnyMissing || change.step == Step::Missing;
      }
    }
    if (isAnyMissing) session.TellWhyUnheard();
    for (const auto& [note, lines] : notes) Say(LinesText(lines) + ": " + note);
    Tell(std::to_string(count) + " to be changed, " + std::to_string(alone) + " left alone");
  }

  /// Reports every line for which nothing is sent: all of them if `dryRun`. A person has seen that already, but for
  /// what cannot be sent to a device alone: without a dry run its turn tells.
  void ReportUnsent(bool dryRun) {
    for (const PlannedChange& change : changes) {
      if (!dryRun && IsToBeDone(change)) continue;
      const Report report = ReportOn(session, change);
      if (StatusOf(report) != StatusDone) status = StatusNotDone;
      if (json || (IsToBeDone(change) && StatusOf(report) != StatusDone)) PrintReport(report, json);
    }
  }

  /// Sends the changes one by one, as long as somebody can read what comes of each. False if interrupted.
  bool SendAll() {
    const KeepOnInterrupt keep;
    int number = 0;
    for (const PlannedChange& change : changes) {
      if (!IsToBeDone(change)) continue;
      const std::string which = std::to_string(++number) + " of " + std::to_string(count);
      if (!IsOutputGood() || IsReaderGone()) {
        Say("stopped before " + which + ", " + change.called +
            ", as nobody could read what comes of it; the same plan can be applied again");
        status = StatusNotDone;
        return true;
      }
      try {
        const Report report = SendOne(change, which + ": ");
        PrintReport(report, json);
        if (StatusOf(report) != StatusDone) status = StatusNotDone;
        tried.insert(change.device->id);
      } catch (const Interrupted&) {
        Say("interrupted at " + which + ", " + change.called + "; the same plan can be applied again");
        return false;
      }
    }
    return true;
  }

 private:
  void Tell(const std::string& line) const { json ? Say(line) : Print(line + '\n'); }

  std::vector<std::string> NotesOn(const PlannedChange& change) const {
    if (change.step != Step::SetAddress) return {};
    const Target target = TargetOf(change);
    std::vector<std::string> notes = target.notes;
    std::string reach =
        ReachabilityNote(target.settings, session.HeardOn(*change.device), RouteInterface(change.address.address));
    if (!reach.empty()) notes.push_back(std::move(reach));
    return notes;
  }

  /// Who has its address now, or had it when last heard: a change may have failed, and a lease may bring any address.
  /// One that is still to be changed does not count: where addresses go round, somebody has to begin.
  std::string HolderOf(const PlannedChange& change) const {
    if (change.step != Step::SetAddress) return {};
    for (const Holder& holder : HoldersOf(change.address.address, *change.device, session.All(), {})) {
      if (tried.count(holder.device) != 0) return holder.text;
    }
    return {};
  }

  Report SendOne(const PlannedChange& change, const std::string& progress) {
    if (const std::string holder = HolderOf(change); !holder.empty()) {
      return ReportOn(*change.device, {Result::Unchanged, holder + "; nothing was sent"}, SettingsOf(change));
    }
    if (auto report = Carry(session, *change.device, OrderFor(change), progress)) return *report;
    const std::string words = "nothing could be sent: " + session.Sockets().SendError();
    return ReportOn(*change.device, {Result::Unchanged, words}, SettingsOf(change));
  }

  Session& session;
  std::vector<PlannedChange> changes;
  bool json;
  int count = 0;
  int status = StatusDone;
  std::set<int> tried;  // Device::id of those whose turn has been
};

int Refuse(const std::string& plan, const std::string& error) {
  Say(plan + ": " + error);
  return StatusUsage;
}

}  // namespace

int Apply(const ApplyOptions& options) {
  std::string text;
  if (const std::string error = ReadFile(options.plan, text); !error.empty()) return Refuse(options.plan, error);
  std::vector<PlanLine> lines;
  if (const std::string error = ReadPlan(text, lines); !error.empty()) return Refuse(options.plan, error);
  Session session(options);
  if (session.Status() != StatusDone) return session.Status();
  CheckedPlan plan =
      CheckPlan(lines, session.All(), OwnAddresses(), [&](IPv4 address) { return session.StrangerAt(address); });
  for (const std::string& error : plan.errors) Refuse(options.plan, error);
  if (!plan.errors.empty()) return Refuse(options.plan, "the plan is wrong; no change was sent");
  Run run(session, std::move(plan.changes), options.json);
  run.Show();
  if (run.Count() > 0 && !options.dryRun && !options.yes) {
    if (!IsInputTerminal())
      return Refuse(options.plan, "nobody here can be asked; no change was sent (--yes does not ask)");
    if (!Confirm("Change " + std::to_string(run.Count()) + (run.Count() == 1 ? " device?" : " devices?"))) {
      Say("no change was sent");
      return StatusNotDone;
    }
  }
  run.ReportUnsent(options.dryRun);
  if (!options.dryRun && !run.SendAll()) return StatusInterrupted;
  return run.Status();
}

}  // namespace tarnddp
