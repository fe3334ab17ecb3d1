#include "tool/Report.h"

#include <utility>

#include "tool/JsonText.h"
#include "tool/Output.h"
#include "tool/Render.h"

namespace tarnddp {
namespace {

nlohmann::ordered_json SettingsJson(const std::optional<Settings>& settings) {
  if (!settings) return nullptr;
  return {{"address", JsonValue(settings->address)},
          {"prefix", JsonValue(settings->prefix)},
          {"gateway", JsonValue(settings->gateway)},
          {"dhcp", JsonValue(settings->dhcp)}};
}

}  // namespace

Report ReportOn(const Device& device, Outcome outcome, std::optional<Settings> after) {
  const Facts facts = FactsOf(device.record);
  return {Calling(device), facts.mac, std::move(outcome), facts.settings, std::move(after), {}};
}

void PrintReport(const Report& report, bool json) {
  const std::string line = report.called + ": " + ResultName(report.outcome.result) + ": " + report.outcome.words;
  const std::string restoring = "the old settings come back with: " + report.restoring;
  if (!json) {
    Print(line + '\n');
    if (!report.restoring.empty()) Print(restoring + '\n');
    return;
  }
  const nlohmann::ordered_json object = {{"mac", JsonValue(report.mac)},
                                         {"result", ResultName(report.outcome.result)},
                                         {"before", SettingsJson(report.before)},
                                         {"after", SettingsJson(report.after)}};
  Print(JsonText(object) + '\n');
  Say(line);
  if (!report.restoring.empty()) Say(restoring);
}

int StatusOf(const Report& report) {
  return report.outcome.result == Result::Done || report.outcome.result == Result::Planned ? StatusDone : StatusNotDone;
}

}  // namespace tarnddp
