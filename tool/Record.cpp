#include "tool/Record.h"

#include <algorithm>
#include <cctype>
#include <tuple>
#include <utility>
#include <vector>

#include "tool/Address.h"

namespace tarnddp {
namespace {

struct Key {
  std::string_view name;
  std::string Record::*field;
};
constexpr Key keys[] = {{"OAN", &Record::type},          {"LOC", &Record::name},    {"MKC", &Record::model},
                        {"SNR", &Record::serial},        {"ASK", &Record::dhcp},    {"IPA", &Record::address},
                        {"SNM", &Record::mask},          {"GWA", &Record::gateway}, {"MAA", &Record::mac},
                        {"EXTAPPVER", &Record::firmware}};

auto Tie(const Record& r) {
  return std::tie(r.type, r.name, r.model, r.serial, r.dhcp, r.address, r.mask, r.gateway, r.mac, r.firmware);
}
auto Tie(const Settings& s) { return std::tie(s.address, s.prefix, s.gateway, s.dhcp); }
auto Tie(const Facts& f) {
  return std::tie(f.mac, f.serial, f.name, f.type, f.model, f.firmware, f.settings, f.service);
}

/// The key of "KEY:value"; empty if `piece` does not begin with three or more capital letters and a colon.
std::string_view KeyOf(std::string_view piece) {
  const auto end = std::find_if_not(piece.begin(), piece.end(), [](unsigned char c) { return std::isupper(c) != 0; });
  const auto length = static_cast<std::size_t>(end - piece.begin());
  return length >= 3 && end != piece.end() && *end == ':' ? piece.substr(0, length) : std::string_view();
}

/// What stands between TABs, but with what is no "KEY:value" left in the value before it.
std::vector<std::pair<std::string_view, std::string>> SplitFields(std::string_view text) {
  std::vector<std::pair<std::string_view, std::string>> fields;
  for (bool more = true; more;) {
    const std::size_t end = std::min(text.find('\t'), text.size());
    const std::string_view piece = text.substr(0, end);
    const std::string_view key = KeyOf(piece);
    if (!key.empty()) {
      fields.emplace_back(key, piece.substr(key.size() + 1));
    } else if (!fields.empty()) {
      fields.back().second += '\t' + std::string(piece);
    }
    more = end < text.size();
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return fields;
}

std::optional<std::string> Known(const std::string& text) {
  return text.empty() ? std::nullopt : std::optional<std::string>(text);
}

std::optional<int> PrefixOf(const std::string& mask) {
  const std::optional<IPv4> number = ParseIPv4(mask);
  return number ? PrefixOfMask(*number) : std::nullopt;
}

}  // namespace

bool Record::operator==(const Record& other) const { return Tie(*this) == Tie(other); }
bool Record::operator<(const Record& other) const { return Tie(*this) < Tie(other); }
bool Settings::operator==(const Settings& other) const { return Tie(*this) == Tie(other); }
bool Facts::operator==(const Facts& other) const { return Tie(*this) == Tie(other); }

std::optional<Record> ReadRecord(std::string_view datagram) {
  constexpr std::string_view lineEnd = "\r\n";
  if (datagram.substr(0, 4) != "SID:" || datagram.find("\tMAA:") == std::string_view::npos) return std::nullopt;
  const std::size_t content = datagram.size() - lineEnd.size();
  if (datagram.substr(content) == lineEnd) datagram = datagram.substr(0, content);
  Record record;
  std::vector<std::string_view> seen;
  for (auto& field : SplitFields(datagram)) {
    const std::string_view name = field.first;
    const auto* const key =
        std::find_if(std::begin(keys), std::end(keys), [&name = name](const Key& k) { return k.name == name; });
    if (key == std::end(keys) || std::find(seen.begin(), seen.end(), name) != seen.end()) continue;
    seen.push_back(name);
    record.*key->field = std::move(field.second);
  }
  return record;
}

bool IsServiceAway(const Record& record) {
  return record.serial == "000000" && record.firmware == "???" && record.type == "Tessel ???";
}

std::optional<std::string> KnownMac(std::string_view text) {
  const std::optional<std::string> mac = ParseMac(text);
  return mac == "00:00:00:00:00:00" ? std::nullopt : mac;
}

Facts FactsOf(const Record& record) {
  Facts facts;
  facts.mac = KnownMac(record.mac);
  facts.settings.address = Known(record.address);
  facts.settings.prefix = PrefixOf(record.mask);
  if (record.gateway != "0.0.0.0") facts.settings.gateway = Known(record.gateway);
  facts.service = !IsServiceAway(record);
  if (!facts.service) return facts;
  facts.serial = record.serial;
  facts.name = record.name;
  facts.type = record.type;
  facts.model = record.model;
  facts.firmware = record.firmware;
  facts.settings.dhcp = record.dhcp == "true";
  return facts;
}

}  // namespace tarnddp
