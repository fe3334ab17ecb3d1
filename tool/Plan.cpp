#include "tool/Plan.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <map>
#include <utility>

#include "tool/Csv.h"
#include "tool/Render.h"
#include "tool/Text.h"

namespace tarnddp {
namespace {

/// As PlanHeading() has them.
enum Column : std::size_t { Mac, Serial, Name, Address, Prefix, Gateway, Dns, Dhcp };

std::string Trimmed(const std::string& text) {
  const std::size_t start = text.find_first_not_of(" \t");
  return start == std::string::npos ? "" : text.substr(start, text.find_last_not_of(" \t") + 1 - start);
}

/// As PlanRow() has it: it may be written by hand, and in Latin-1.
std::string PlainCell(const std::string& text) { return Cell(Utf8(Trimmed(text))); }

std::string AtLine(int line, const std::string& what) { return "line " + std::to_string(line) + ": " + what; }

/// Which column each cell of the first row heads; PlanHeading().size() for an empty cell.
std::string ReadHeading(const CsvRow& row, std::vector<std::size_t>& columns) {
  const std::vector<std::string> known = PlanHeading();
  for (const std::string& field : row.fields) {
    const auto found = std::find(known.begin(), known.end(), Lower(Trimmed(field)));
    const auto column = static_cast<std::size_t>(found - known.begin());
    if (found == known.end() && !Trimmed(field).empty()) {
      std::string heading = CsvLine(known);
      heading.resize(heading.size() - 2);
      return AtLine(row.line, "\"" + Shown(field) + "\" heads no column of a plan (they are " + heading + ")");
    }
    if (found != known.end() && std::find(columns.begin(), columns.end(), column) != columns.end()) {
      return AtLine(row.line, "the column " + *found + " is there twice");
    }
    columns.push_back(column);
  }
  return {};
}

bool IsEmptyRow(const CsvRow& row) {
  return std::all_of(row.fields.begin(), row.fields.end(),
                     [](const std::string& field) { return Trimmed(field).empty(); });
}

/// Whether the serial number of a line is none that a spreadsheet made of `serial`: 123 of 000123, or 1,23457E+11 of
/// 123456789012. One that is missing is no other.
bool IsOtherSerial(const std::string& cell, const std::string& serial) {
  const auto withoutZeros = [](std::string_view text) {
    return text.substr(std::min(text.find_first_not_of('0'), text.size()));
  };
  if (cell.empty() || serial.empty() || cell.find("E+") != std::string::npos) return false;
  return withoutZeros(cell) != withoutZeros(serial);
}

class Checker {
 public:
  Checker(const std::vector<PlanLine>& planLines, const std::vector<Device>& heardDevices,
          const std::vector<IPv4>& ownIPv4, const std::function<std::optional<std::string>(IPv4)>& neighbour)
      : lines(planLines), devices(heardDevices), ownAddresses(ownIPv4), neighbourMac(neighbour) {
    for (const Device& device : devices) rows.push_back({device, PlanRow(device), FactsOf(device.record).mac});
    for (const Row& row : rows) {
      if (row.mac) ++devicesByMac[*row.mac];
    }
  }

  CheckedPlan Check() {
    for (const PlanLine& line : lines) entries.push_back(Resolve(line));
    for (Entry& entry : entries) {
      if (!entry.isAsHeard && entry.error.empty()) entry.error = Decide(entry);
      if (entry.error.empty()) entry.error = NameServerProblem(entry);
    }
    for (Entry& entry : entries) {
      if (!entry.isAsHeard && entry.error.empty()) entry.error = FindClash(entry);
    }
    CheckedPlan plan;
    for (Entry& entry : entries) {
      if (!entry.error.empty()) plan.errors.push_back(AtLine(entry.change.line, entry.error));
    }
    plan.changes = InOrder();
    return plan;
  }

 private:
  /// A device as a plan names it.
  struct Row {
    const Device& device;
    std::vector<std::string> cells;
    std::optional<std::string> mac;

    /// Not while its service is away: then it tells no serial number.
    bool HasOtherSerial(const std::string& text) const {
      return IsOtherSerial(PlainCell(text), Trimmed(cells[Serial]));
    }
  };
  struct Entry {
    PlannedChange change;
    std::vector<std::string> cells;  ///< without blanks around them
    bool isAsHeard = false;
    bool hasAddress = false;
    std::string error;
  };

  Entry Resolve(const PlanLine& line) const {
    Entry entry;
    entry.change.line = line.number;
    for (const std::string& field : line.fields) entry.cells.push_back(Trimmed(field));
    if (const Device* device = FindEqual(line)) {
      entry.isAsHeard = true;
      Take(*device, entry);
      return entry;
    }
    entry.error = FindByCells(entry);
    return entry;
  }

  static void Take(const Device& device, Entry& entry) {
    entry.change.device = device;
    entry.change.called = Calling(device);
    entry.change.mac = FactsOf(device.record).mac;
  }

  /// The device whose row the line is, but for the name server, which no row of what was heard holds, and behind a MAC
  /// address for the name, which may have changed, and for what a spreadsheet made of the serial number.
  const Device* FindEqual(const PlanLine& line) const {
    for (const Row& row : rows) {
      const auto isEqual = [&](Column column) { return row.cells[column] == line.fields[column]; };
      constexpr Column telling[] = {Mac, Address, Prefix, Gateway, Dhcp};
      if (!std::all_of(std::begin(telling), std::end(telling), isEqual)) continue;
      const bool isAlone = row.mac && devicesByMac.at(*row.mac) == 1;
      if ((isAlone && !row.HasOtherSerial(line.fields[Serial])) || (isEqual(Serial) && isEqual(Name)))
        return &row.device;
    }
    return nullptr;
  }

  std::string FindByCells(Entry& entry) const {
    if (!entry.cells[Mac].empty()) {
      entry.change.mac = KnownMac(entry.cells[Mac]);
      if (!entry.change.mac) return '"' + Shown(entry.cells[Mac]) + "\" is no MAC address";
    }
    std::vector<const Row*> found;
    for (const Row& row : rows) {
      if (!entry.change.mac || row.mac == entry.change.mac) found.push_back(&row);
    }
    bool isNamed = entry.change.mac.has_value();
    if (isNamed && found.size() == 1 && found[0]->HasOtherSerial(entry.cells[Serial])) {
      // The line is that of another device with this MAC address, which is off.
      entry.change.words = "the device with this MAC address has the serial number " +
                           Trimmed(found[0]->cells[Serial]) + ", not " + Shown(entry.cells[Serial]) +
                           " (leave that empty if this one is meant)";
      found.clear();
    }
    for (const Column column : {Serial, Name}) {
      const std::string cell = PlainCell(entry.cells[column]);
      // Behind a MAC address they tell apart those that share it, and a name may have changed.
      if (cell.empty() || (isNamed && found.size() < 2)) continue;
      isNamed = true;
      const auto isOther = [&](const Row* row) { return Trimmed(row->cells[column]) != cell; };
      found.erase(std::remove_if(found.begin(), found.end(), isOther), found.end());
    }
    if (!isNamed) return "it names no device (by mac, serial or name)";
    if (found.size() > 1) return "it means " + std::to_string(found.size()) + " of the devices heard";
    if (found.size() == 1) {
      Take(found[0]->device, entry);
      return {};
    }
    entry.change.step = Step::Missing;
    for (const Column column : {Mac, Serial, Name}) {
      if (entry.change.called.empty()) entry.change.called = Shown(entry.cells[column]);
    }
    return {};
  }

  /// What is to be done. The empty text, or what is wrong with the line by itself.
  std::string Decide(Entry& entry) const {
    PlannedChange& change = entry.change;
    const std::vector<std::string>& cells = entry.cells;
    const std::string dhcp = Lower(cells[Dhcp]);
    const Seen seen = change.device ? SeenOf(*change.device) : Seen();
    if (dhcp != "on" && dhcp != "off" && !dhcp.empty()) return "dhcp is \"" + Shown(cells[Dhcp]) + "\", not on or off";
    if (dhcp == "on") {
      if (change.device && seen.settings.dhcp != true) change.step = Step::DhcpOn;
      return {};
    }
    if (cells[Address].empty()) {
      if (!cells[Prefix].empty() || !cells[Gateway].empty()) return "it has a prefix or a gateway, but no address";
      if (change.device && dhcp == "off" && seen.settings.dhcp != false) change.step = Step::DhcpOff;
      if (change.step == Step::DhcpOff && !seen.settings.dhcp) {
        change.step = Step::Blocked;
        change.words = "its service is away, so it would take a lease instead; give the line an address and a prefix";
      }
      return {};
    }
    entry.hasAddress = true;
    std::string problem =
        ReadStaticAddress(cells[Address], cells[Prefix], cells[Gateway], cells[Dns], ownAddresses, change.address);
    if (problem.empty()) problem = UnwiseGateway(change.address);
    if (!problem.empty() || !change.device) return problem;
    StaticAddress shown = change.address;
    shown.dns.reset();
    Seen asFarAsSaid = seen;
    if (dhcp.empty()) asFarAsSaid.settings.dhcp.reset();
    if (!IsInForce(shown, asFarAsSaid)) {
      change.step = Step::SetAddress;
    } else if (dhcp == "off" && !seen.settings.dhcp) {
      change.words = "its service is away, so whether DHCP is off cannot be seen; apply the plan again once it is back";
    }
    return {};
  }

  /// Also of a line by which none is sent.
  static std::string NameServerProblem(const Entry& entry) {
    const std::string& dns = entry.cells[Dns];
    if (dns.empty() || Lower(entry.cells[Dhcp]) == "on" || ParseIPv4(dns)) return {};
    return "name server \"" + Shown(dns) + "\" is no IPv4 address (four numbers up to 255, no leading zeros)";
  }

  /// Of two that were not heard, each text that both lines have has to be the same: several may share a MAC address.
  static bool SameDevice(const Entry& entry, const Entry& otherEntry) {
    const PlannedChange &one = entry.change, &other = otherEntry.change;
    if (one.device && other.device) return one.device->id == other.device->id;
    if (one.device || other.device || (one.mac ? one.mac != other.mac : one.called != other.called)) return false;
    const auto isOpen = [&](Column column) {
      const std::string &cell = entry.cells[column], &otherCell = otherEntry.cells[column];
      return cell.empty() || otherCell.empty() || cell == otherCell;
    };
    return isOpen(Serial) && isOpen(Name);
  }

  /// Whether the plan gives a device another address than it has. (The same one again is found before.)
  bool MovesAway(int device) const {
    return std::any_of(entries.begin(), entries.end(), [&](const Entry& entry) {
      return entry.change.device && entry.change.device->id == device &&
             (entry.change.step == Step::DhcpOn || entry.change.step == Step::SetAddress);
    });
  }

  /// What is wrong with the line beside the others and the devices heard; the empty text for nothing.
  std::string FindClash(Entry& entry) const {
    PlannedChange& change = entry.change;
    for (const Entry& other : entries) {
      if (&other == &entry || (&other > &entry && !other.isAsHeard)) continue;
      const bool isDevice = SameDevice(entry, other);
      const bool isAddress =
          entry.hasAddress && other.hasAddress && other.change.address.address == change.address.address;
      if (!isDevice && !isAddress) continue;
      const std::string what = isDevice ? change.called : IPv4Text(change.address.address);
      return what + " again, as in line " + std::to_string(other.change.line);
    }
    if (!entry.hasAddress || change.step == Step::LeftAlone) return {};
    auto neighbour = neighbourMac(change.address.address);
    if (neighbour == change.mac) neighbour.reset();
    const Device own = change.device.value_or(Device());
    for (const Holder& holder : HoldersOf(change.address.address, own, devices, neighbour)) {
      if (holder.device == 0 || !MovesAway(holder.device)) return holder.text;
      change.waitsFor.push_back(holder.device);
    }
    return {};
  }

  /// First those whose address is free. Of a ring, the one that stands first begins.
  std::vector<PlannedChange> InOrder() const {
    std::vector<PlannedChange> waiting, ordered;
    for (const Entry& entry : entries) waiting.push_back(entry.change);
    while (!waiting.empty()) {
      const auto isFree = [&](const PlannedChange& change) {
        return std::none_of(waiting.begin(), waiting.end(), [&](const PlannedChange& other) {
          return other.device &&
                 std::find(change.waitsFor.begin(), change.waitsFor.end(), other.device->id) != change.waitsFor.end();
        });
      };
      auto next = std::find_if(waiting.begin(), waiting.end(), isFree);
      if (next == waiting.end()) next = waiting.begin();
      ordered.push_back(std::move(*next));
      waiting.erase(next);
    }
    return ordered;
  }

  const std::vector<PlanLine>& lines;
  const std::vector<Device>& devices;
  const std::vector<IPv4>& ownAddresses;
  const std::function<std::optional<std::string>(IPv4)>& neighbourMac;
  std::vector<Row> rows;  // of all devices
  std::map<std::string, int> devicesByMac;
  std::vector<Entry> entries;
};

}  // namespace

std::string ReadPlan(std::string_view text, std::vector<PlanLine>& lines) {
  std::vector<CsvRow> rows;
  for (const std::string_view mark : {"\xff\xfe", "\xfe\xff"}) {
    if (text.substr(0, mark.size()) == mark) return AtLine(1, "the file is UTF-16, and a plan is UTF-8");
  }
  if (std::string error = ParseCsv(text, rows); !error.empty()) return error;
  if (rows.empty()) return AtLine(1, "the file is empty");
  std::vector<std::size_t> columns;
  if (std::string error = ReadHeading(rows[0], columns); !error.empty()) return error;
  const std::size_t width = PlanHeading().size();
  std::vector<PlanLine> read;
  for (std::size_t i = 1; i < rows.size(); ++i) {
    if (IsEmptyRow(rows[i])) continue;
    PlanLine line = {rows[i].line, std::vector<std::string>(width)};
    for (std::size_t cell = 0; cell < rows[i].fields.size(); ++cell) {
      const std::size_t column = cell < columns.size() ? columns[cell] : width;
      if (column < width) {
        line.fields[column] = rows[i].fields[cell];
      } else if (!Trimmed(rows[i].fields[cell]).empty()) {
        return AtLine(line.number, "\"" + Shown(rows[i].fields[cell]) + "\" stands in no column");
      }
    }
    read.push_back(std::move(line));
  }
  lines.insert(lines.end(), std::make_move_iterator(read.begin()), std::make_move_iterator(read.end()));
  return {};
}

CheckedPlan CheckPlan(const std::vector<PlanLine>& lines, const std::vector<Device>& devices,
                      const std::vector<IPv4>& ownAddresses,
                      const std::function<std::optional<std::string>(IPv4)>& neighbourMac) {
  return Checker(lines, devices, ownAddresses, neighbourMac).Check();
}

Target TargetOf(const PlannedChange& change) {
  return TargetOf(change.address, FactsOf(change.device->record).settings);
}

}  // namespace tarnddp
