#include "tool/Report.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "tool/Output.h"
#include "tool/Render.h"
#include "tool/Text.h"

namespace tarnddp {
namespace {

template <typename T>
nlohmann::ordered_json Json(const std::optional<T>& value) {
  return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

std::optional<std::string> AsUtf8(const std::optional<std::string>& text) {
  return text ? std::optional(Utf8(*text)) : std::nullopt;
}

nlohmann::ordered_json SettingsJson(const std::optional<Settings>& settings) {
  if (!settings) return nullptr;
  return {{"address", Json(AsUtf8(settings->address))},
          {"prefix", Json(settings->prefix)},
          {"gateway", Json(AsUtf8(settings->gateway))},
          {"dhcp", Json(settings->dhcp)}};
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
  const nlohmann::ordered_json object = {{"mac", Json(report.mac)},
                                         {"result", ResultName(report.outcome.result)},
                                         {"before", SettingsJson(report.before)},
                                         {"after", SettingsJson(report.after)}};
  Print(object.dump(-1, ' ', true) + '\n');
  Say(line);
  if (!report.restoring.empty()) Say(restoring);
}

int StatusOf(const Report& report) {
  return report.outcome.result == Result::Done || report.outcome.result == Result::Planned ? StatusDone : StatusNotDone;
}

}  // namespace tarnddp
