#include <algorithm>
#include <memory>

#include "tool/Events.h"
#include "tool/Output.h"
#include "tool/Scan.h"
#include "tool/Screen.h"
#include "tool/Text.h"

namespace tarnddp {
namespace {

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
      if (round == 1 && !sent) return TellNothingSent(*network);
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
    if (failures != told) {
      screen.Clear();
      TellInterfaces(*network);
    }
    told = failures;
    isDirty = true;
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
    const std::vector<Event> news = events.Take(findings, now);
    if (isTable) {
      TellNewProblems(news);
      screen.Show(TableForTerminal(findings));
    } else {
      for (const Event& event : news) PrintEvent(event);
    }
    ShowStatus("watching, " + DevicesText(devices.Count()) + "; Ctrl-C ends it");
  }

  void PrintEvent(const Event& event) {
    if (options.json) return Print(Json(event.finding, event.name, DateTimeNow()) + "\n");
    const Device& device = event.finding.device;
    std::string line = TimeOfDayNow() + " " + event.name + " " + Calling(device) + " ";
    line += event.change.empty() ? AddressText(FactsOf(device.record).settings) : event.change;
    for (const std::string& problem : event.finding.problems)
      if (event.change.empty()) line += "; " + problem;
    Print(Shown(line) + "\n");
  }

  /// Above the table: what is said once would be lost in what is printed again and again.
  void TellNewProblems(const std::vector<Event>& news) {
    for (const Event& event : news) {
      for (const std::string& problem : event.newProblems) {
        screen.Clear();
        Say(Calling(event.finding.device) + ": " + problem);
      }
    }
  }

  /// What a scan says at its end, but for what is said of each device.
  void TellFirst() {
    screen.Clear();
    isDirty = true;
    if (devices.Count() == 0) return TellProblems(*network, {}, false);
    TellLimits(*network, Judge(devices.All(), host));
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
