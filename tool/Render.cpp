#include "tool/Render.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "tool/JsonText.h"
#include "tool/Text.h"

namespace tarnddp {
namespace {

constexpr const char* NotKnown = "-";

std::string OnOffOr(const std::optional<bool>& isOn, const char* otherwise) {
  if (!isOn) return otherwise;
  return *isOn ? "on" : "off";
}

/// "eth0:ipv6,broadcast eth1:ipv6"
std::string Via(const Device& device) {
  std::vector<std::pair<std::string, std::string>> byInterface;
  for (const Source& source : device.sources) {
    auto at = std::find_if(byInterface.begin(), byInterface.end(),
                           [&source](const auto& entry) { return entry.first == source.interface; });
    if (at == byInterface.end()) at = byInterface.insert(at, {source.interface, ""});
    const char* const way = WayName(source.way);
    if (at->second.find(way) == std::string::npos) AppendItem(at->second, way, ",");
  }
  std::string via;
  for (const auto& [interface, ways] : byInterface) AppendItem(via, Shown(interface) + ':' + ways, " ");
  return via;
}

struct Column {
  const char* heading;
  std::string (*text)(const Device& device, const Facts& facts);
};

// The first six are always there, cut if need be; the rest as the width allows.
constexpr std::size_t AlwaysShown = 6;
const Column columnsOfTable[] = {
    {"NAME", [](const Device&, const Facts& f) { return ShownOr(f.name, NotKnown); }},
    {"SERIAL", [](const Device&, const Facts& f) { return ShownOr(f.serial, NotKnown); }},
    {"MAC", [](const Device&, const Facts& f) { return f.mac.value_or(NotKnown); }},
    {"ADDRESS", [](const Device&, const Facts& f) { return AddressText(f.settings); }},
    {"DHCP", [](const Device&, const Facts& f) { return OnOffOr(f.settings.dhcp, NotKnown); }},
    {"SERVICE", [](const Device&, const Facts& f) { return std::string(f.service ? "yes" : "away"); }},
    {"TYPE", [](const Device&, const Facts& f) { return ShownOr(f.type, NotKnown); }},
    {"MODEL", [](const Device&, const Facts& f) { return ShownOr(f.model, NotKnown); }},
    {"FIRMWARE", [](const Device&, const Facts& f) { return ShownOr(f.firmware, NotKnown); }},
    {"GATEWAY", [](const Device&, const Facts& f) { return ShownOr(f.settings.gateway, NotKnown); }},
    {"VIA", [](const Device& d, const Facts&) { return Via(d); }},
};
constexpr std::size_t HeardBy = 10;  // VIA
constexpr int Gap = 2;

std::vector<std::string> Cells(const Device& device) {
  const Facts facts = FactsOf(device.record);
  std::vector<std::string> cells;
  for (const Column& column : columnsOfTable) cells.push_back(column.text(device, facts));
  return cells;
}

/// How wide each column becomes, for those that are shown.
std::vector<int> Layout(const std::vector<std::vector<std::string>>& cells, int columns) {
  constexpr int widest = 40;
  std::vector<int> widths;
  for (std::size_t column = 0; column < std::size(columnsOfTable); ++column) {
    int width = 0;
    for (const auto& row : cells) width = std::max(width, Width(row[column]));
    widths.push_back(std::min(width, widest));
  }
  if (columns <= 0) return widths;
  int total = -Gap;
  std::size_t shown = 0;
  for (; shown < widths.size(); ++shown) {
    if (shown >= AlwaysShown && total + Gap + widths[shown] > columns) break;
    total += Gap + widths[shown];
  }
  widths.resize(shown);
  for (const std::size_t column : {0U, 1U, 3U}) {  // NAME, SERIAL, ADDRESS
    constexpr int narrowest = 8;
    const int excess = std::max(total - columns, 0);
    const int narrower = std::max(widths[column] - excess, std::min(widths[column], narrowest));
    total -= widths[column] - narrower;
    widths[column] = narrower;
  }
  return widths;
}

std::string Line(const std::vector<std::string>& row, const std::vector<int>& widths, int columns) {
  std::string line;
  for (std::size_t column = 0; column < widths.size(); ++column) {
    if (column > 0) line.append(Gap, ' ');
    const bool isWhole = columns <= 0 && Width(row[column]) > widths[column];
    line += isWhole ? row[column] : Fitted(row[column], widths[column]);
  }
  if (columns > 0 && Width(line) > columns) line = Fitted(line, columns);
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

}  // namespace

std::string AddressText(const Settings& settings) {
  std::string text = ShownOr(settings.address, NotKnown);
  if (settings.address && settings.prefix) text += "/" + std::to_string(*settings.prefix);
  return text;
}

std::string Calling(const Device& device) {
  const Facts facts = FactsOf(device.record);
  const std::string place = facts.mac.value_or(device.sources.front().address);
  return facts.name && !facts.name->empty() ? Shown(*facts.name) + " (" + place + ")" : place;
}

std::vector<std::string> Table(const std::vector<Finding>& findings, int columns) {
  std::vector<std::vector<std::string>> cells(1);
  for (const Column& column : columnsOfTable) cells[0].emplace_back(column.heading);
  for (const Finding& finding : findings) cells.push_back(Cells(finding.device));
  const std::vector<int> widths = Layout(cells, columns);
  std::vector<std::string> lines;
  lines.reserve(cells.size());
  for (const auto& row : cells) lines.push_back(Line(row, widths, columns));
  return lines;
}

std::string Json(const Finding& finding, std::string_view event, std::string_view time) {
  const Facts facts = FactsOf(finding.device.record);
  nlohmann::ordered_json object = {{"mac", JsonValue(facts.mac)},
                                   {"serial", JsonValue(facts.serial)},
                                   {"name", JsonValue(facts.name)},
                                   {"type", JsonValue(facts.type)},
                                   {"model", JsonValue(facts.model)},
                                   {"firmware", JsonValue(facts.firmware)},
                                   {"address", JsonValue(facts.settings.address)},
                                   {"prefix", JsonValue(facts.settings.prefix)},
                                   {"gateway", JsonValue(facts.settings.gateway)},
                                   {"dhcp", JsonValue(facts.settings.dhcp)},
                                   {"service", facts.service},
                                   {"answers", nlohmann::ordered_json::array()},
                                   {"problems", nlohmann::ordered_json::array()}};
  for (const Source& source : finding.device.sources) {
    object["answers"].push_back(
        {{"interface", Utf8(source.interface)}, {"way", WayName(source.way)}, {"from", Utf8(source.address)}});
  }
  for (const std::string& problem : finding.problems) object["problems"].push_back(Utf8(problem));
  if (!event.empty()) {
    object["event"] = event;
    object["time"] = time;
  }
  return JsonText(object);
}

std::vector<std::string> PlanHeading() {
  return {"mac", "serial", "name", "address", "prefix", "gateway", "dns", "dhcp"};
}

std::vector<std::string> PlanRow(const Device& device) {
  const Facts facts = FactsOf(device.record);
  const Settings& settings = facts.settings;
  return {facts.mac.value_or(""),
          Cell(ShownOr(facts.serial, "")),
          Cell(ShownOr(facts.name, "")),
          Cell(ShownOr(settings.address, "")),
          settings.prefix ? std::to_string(*settings.prefix) : "",
          Cell(ShownOr(settings.gateway, "")),
          "",
          OnOffOr(settings.dhcp, "")};
}

std::string DescribeChange(const Finding& before, const Finding& after) {
  const std::vector<std::string> old = Cells(before.device), now = Cells(after.device);
  std::string changes;
  const auto tell = [&changes](const std::string& text) { AppendItem(changes, text); };
  for (std::size_t column = 0; column < HeardBy; ++column) {
    if (old[column] != now[column]) tell(columnsOfTable[column].heading + (" " + old[column]) + " -> " + now[column]);
  }
  const auto tellMissing = [&tell](const char* what, const auto& these, const auto& those) {
    for (const std::string& text : these)
      if (std::find(those.begin(), those.end(), text) == those.end()) tell(what + text);
  };
  tellMissing("problem: ", after.problems, before.problems);
  tellMissing("no longer: ", before.problems, after.problems);
  return changes;
}

}  // namespace tarnddp
