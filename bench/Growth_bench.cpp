#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>

#include "bench/Documents.h"
#include "xmlrpc/HttpHead.h"
#include "xmlrpc/XmlRpcValue.h"

namespace {

std::string Repeated(const std::string& text, std::size_t count) {
  std::string all;
  all.reserve(text.size() * count);
  for (; count > 0; --count) all += text;
  return all;
}

void Decode(const std::string& xml) {
  TarnXmlRpc::XmlRpcValue value;
  int offset = 0;
  value.fromXml(xml, &offset);
}

void ReadHeadInPieces(const std::string& whole) {
  constexpr std::size_t piece = 64;
  TarnXmlRpc::HttpHead head;
  std::string text;
  text.reserve(whole.size());
  while (text.size() < whole.size()) {
    text.append(whole, text.size(), piece);
    head.read(text);
  }
}

double Milliseconds(const std::function<void()>& action) {
  double best = 1e9;
  for (int i = 0; i < 5; ++i) {
    const auto start = std::chrono::steady_clock::now();
    action();
    best = std::min(best, std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
  }
  return best;
}

const std::string array = "<value><array><data>";
const std::string jump = "<value><array><data><value><struct><member></value>";

/// `count` levels of a struct in an array, each of which turns out to be malformed at the end, and again and again.
std::string FailedStructs(std::size_t size) {
  const std::string chain =
      Repeated("<value><array><data><value><struct><member><name>a</name>", 100) + "<value>1</value>";
  return array + Repeated(chain + Repeated("</value>", 200), size / (chain.size() + 1600));
}

/// Nanoseconds per byte of decoding and of encoding all of `documents`.
std::pair<double, double> PerByte(const std::vector<std::string>& documents) {
  std::size_t bytes = 0;
  for (const std::string& document : documents) bytes += document.size();
  std::vector<TarnXmlRpc::XmlRpcValue> values(documents.size());
  for (std::size_t i = 0; i < documents.size(); ++i) {
    int offset = 0;
    values[i].fromXml(documents[i], &offset);
  }
  const double decoding = Milliseconds([&] {
    for (const std::string& document : documents) Decode(document);
  });
  const double encoding = Milliseconds([&] {
    for (const TarnXmlRpc::XmlRpcValue& value : values) value.toXml(0);
  });
  const double scale = 1e6 / static_cast<double>(bytes);
  return {decoding * scale, encoding * scale};
}

void PrintGrowth(const char* name, const std::vector<std::string>& many, const std::vector<std::string>& one) {
  const auto base = PerByte(many);
  const auto grown = PerByte(one);
  std::printf("%-42s %6.2f %6.2f %6.2f   %6.2f %6.2f %6.2f\n", name, base.first, grown.first, grown.first / base.first,
              base.second, grown.second, grown.second / base.second);
}

/// One document of 10 MB beside a hundred different ones of 100 KB: as much text, and as little of it that a processor
/// could have learnt by heart. Then arrays inside arrays beside the same arrays side by side.
void GrowthTable() {
  using namespace documents;
  std::printf("%-42s %-22s   %s\n", "ns per byte: base, grown, ratio", "decoding", "encoding");
  const struct {
    const char* name;
    Maker maker;
  } shapes[] = {{"ints", Int}, {"doubles", Double}, {"strings", String}, {"structs", Struct}, {"nested", Nested}};
  for (const auto& shape : shapes) {
    std::vector<std::string> many;
    for (unsigned seed = 1; seed <= 100; ++seed) many.push_back(Array(100000, shape.maker, seed).toXml(0));
    PrintGrowth(shape.name, many, {Array(10000000, shape.maker).toXml(0)});
  }
  const auto inside = [](std::mt19937& random) {
    XmlRpcValue v = Int(random);
    for (int level = 0; level < 31; ++level) {
      XmlRpcValue outer;
      outer[0] = std::move(v);
      v = std::move(outer);
    }
    return v;
  };
  const auto beside = [](std::mt19937& random) {
    XmlRpcValue v;
    for (int i = 0; i < 30; ++i) v[i][0] = Int(random);
    return v;
  };
  PrintGrowth("32 arrays inside each other, not in one", {Array(10000000, beside).toXml(0)},
              {Array(10000000, inside).toXml(0)});
}

void HostileTable() {
  const struct {
    const char* name;
    std::size_t size;
    std::string (*make)(std::size_t size);
    void (*use)(const std::string&);
  } rows[] = {
      {"failed structs in nested arrays", 8000000, FailedStructs, Decode},
      {"members that all lead to one long list", 2000000,
       [](std::size_t size) {
         return array + Repeated(jump, size / 102) + "<name>n</name><value>1</value></member>" +
                Repeated("<member><name>q</name><value>1</value></member>", size / 94) + "<member>";
       },
       Decode},
      {"values that all lead to one long array", 2000000,
       [](std::size_t size) {
         return array + Repeated(jump, size / 102) + "<name>n</name>" + array +
                Repeated("<value>1</value>", size / 32) + "</data></array></value><member>";
       },
       Decode},
      {"values without end tags", 2000000,
       [](std::size_t size) { return array + Repeated("<value><i4>1</i4>", size / 17); }, Decode},
      {"members without names or end tags", 2000000,
       [](std::size_t size) { return "<value><struct>" + Repeated("<member><value>1</value>", size / 24); }, Decode},
      {"a megabyte of opening tags", 1000000, [](std::size_t size) { return Repeated(array, size / array.size()); },
       Decode},
      {"members that all find one name far away", 2000000,
       [](std::size_t size) {
         return "<value><struct>" + Repeated("<member><value>1</value>", size / 48) + "<name>" +
                std::string(size / 2, 'n') + "<";
       },
       Decode},
      {"failed members that all find one name far away", 2000000,
       [](std::size_t size) {
         return "<va><ar><da>" + Repeated("<va><ar><da><va><st><me></va>", size / 58) + "<na>" +
                std::string(size / 2, 'n') + "</na>";
       },
       Decode},
      {"failed values that all find one end far away", 2000000,
       [](std::size_t size) {
         return "<va><ar><da>" +
                Repeated("<va><ar><da><va><st><me><na>a</na><value><array><data><value><i4>1</va>", size / 144) +
                "</value>" + std::string(size / 2, 'n') + "</value><me>";
       },
       Decode},
      {"white space at depth 200", 2000000,
       [](std::size_t size) { return Repeated(array, 200) + std::string(size, ' ') + "<"; }, Decode},
      {"a response head in pieces of 64 bytes", 10000000,
       [](std::size_t size) { return Repeated("X-Header: \r\n\rContent-Length:\r\n", size / 30); }, ReadHeadInPieces}};
  std::printf("%-42s %10s %10s %6s\n", "document", "ms", "ms at 2x", "ratio");
  for (const auto& row : rows) {
    const std::string once = row.make(row.size);
    const std::string twice = row.make(2 * row.size);
    const double first = Milliseconds([&] { row.use(once); });
    const double second = Milliseconds([&] { row.use(twice); });
    std::printf("%-42s %10.3f %10.3f %6.2f\n", row.name, first, second, second / first);
  }
}

}  // namespace

/// Prints how the time grows with the document, for the usual shapes and for hostile ones.
int main() {
  GrowthTable();
  std::printf("\n");
  HostileTable();
  return 0;
}
