#include <algorithm>
#include <map>
#include <memory>
#include <utility>

#include "tool/Output.h"
#include "tool/Scan.h"
#include "tool/Screen.h"
#include "tool/Text.h"

namespace tarnddp {
namespace {

/// What has been told of each device, and what is to be told. Pure, but for the time that it is given.
class Events {
 public:
  struct Event {
    const char* name;
    Finding finding;
    std::string change;
    std::vector<std::string> newProblems;
  };

  /// What is new in `findings`. A device is spoken of when it has been so for a moment: what one ask brings in by
  /// several ways is one event.
  std::vector<Event> Take(const std::vector<Finding>& findings, Time now) {
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
  bool IsPending() const {
    return std::any_of(told.begin(), told.end(), [](const auto& entry) { return entry.second.isPending; });
  }

 private:
  struct Told {
    bool isTold = false;
    bool isPending = false;
    Time since;
    Finding finding;
  };

  static void Compare(Told& entry, const Finding& finding, Time now, std::vector<Event>& events) {
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

  std::map<int, Told> told;
};

class Watcher {
 public:
  explicit Watcher(const ScanOptions& given) : options(given), isTable(OutputTerminal() && !options.json) {}

  int Run() {
    Open();
    if (!network->IsUsable()) return StatusNothingSent;
    for (int round = 1; IsOutputGood() && !IsReaderGone(); ++round) {
      constexpr int asksWithoutAnswer = 3;
      if (ListInterfaces() != interfaces) Open();
      if (devices.ForgetBefore(round - asksWithoutAnswer)) isDirty = true;
      const bool sent = network->SendToAll(IdentityRequest);
      if (round == 1 && !sent) {
        Say("nothing could be sent: " + network->SendError());
        return StatusNothingSent;
      }
      Listen(round);
      if (round == 1) TellFirst();
    }
    return StatusNotDone;
  }

 private:
  /// Also after an interface has come, gone or changed its address.
  void Open() {
    network.reset();
    interfaces = ListInterfaces();
    network = std::make_unique<Network>(options.interfaces);
    host = HostOf(*network);
    const std::vector<Unusable>& failures = network->Failures();
    if (failures != told) TellInterfaces(*network);
    told = failures;
  }

  void Listen(int round) {
    const Time end = Clock::now() + std::chrono::seconds(2);
    while (Clock::now() < end && IsOutputGood() && !IsReaderGone()) {
      const std::optional<Datagram> datagram =
          network->Receive(std::min(end, Clock::now() + std::chrono::milliseconds(100)));
      const std::optional<Record> record = datagram ? ReadRecord(datagram->bytes) : std::nullopt;
      if (record && devices.Add({datagram->source, *record}, round)) isDirty = true;
      Update();
    }
  }

  void Update() {
    const Time now = Clock::now();
    if (now < next) return;
    next = now + std::chrono::milliseconds(100);
    if (!isDirty && !events.IsPending()) return;
    isDirty = false;
    const std::vector<Finding> findings = Judge(devices.All(), host);
    const std::vector<Events::Event> news = events.Take(findings, now);
    if (isTable) {
      TellNewProblems(news);
      ShowTable(findings);
    } else {
      for (const Events::Event& event : news) PrintEvent(event);
    }
    ShowStatus("watching, " + DevicesText(devices.Count()) + "; Ctrl-C ends it");
  }

  void PrintEvent(const Events::Event& event) {
    if (options.json) return Print(Json(event.finding, event.name, DateTimeNow()) + "\n");
    const Device& device = event.finding.device;
    std::string line = TimeOfDayNow() + " " + event.name + " " + Calling(device) + " ";
    line += event.change.empty() ? AddressText(FactsOf(device.record).settings) : event.change;
    for (const std::string& problem : event.finding.problems)
      if (event.change.empty()) line += "; " + problem;
    Print(Shown(line) + "\n");
  }

  void ShowTable(const std::vector<Finding>& findings) {
    const int columns = OutputTerminal().value_or(TerminalSize{80, 24}).columns;
    screen.Show(findings.empty() ? std::vector<std::string>() : Table(findings, columns));
  }

  /// Above the table: what is said once would be lost in what is printed again and again.
  void TellNewProblems(const std::vector<Events::Event>& news) {
    for (const Events::Event& event : news) {
      for (const std::string& problem : event.newProblems) {
        screen.Clear();
        Say(Calling(event.finding.device) + ": " + problem);
      }
    }
  }

  /// What a scan says at its end, but for what is said of each device.
  void TellFirst() {
    screen.Clear();
    if (devices.Count() == 0) return TellProblems(*network, {}, false);
    TellLimits(*network, Judge(devices.All(), host));
    isDirty = true;
  }

  ScanOptions options;
  bool isTable;
  std::vector<Interface> interfaces;
  std::unique_ptr<Network> network;
  std::vector<Unusable> told;
  Host host;
  Devices devices;
  Events events;
  Screen screen;
  bool isDirty = true;
  Time next;
};

}  // namespace

int Watch(const ScanOptions& options) { return Watcher(options).Run(); }

}  // namespace tarnddp
