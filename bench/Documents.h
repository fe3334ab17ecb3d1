#pragma once

#include <cstddef>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "xmlrpc/XmlRpcValue.h"

/// One value's XML text, in the long tag set, which every peer reads.
struct Document {
  std::string name;
  std::string xml;
};

namespace documents {

using TarnXmlRpc::XmlRpcValue;
using Maker = std::function<XmlRpcValue(std::mt19937&)>;

/// With `entities` per cent of the characters such that they are written as entities.
inline std::string Text(std::mt19937& random, unsigned entities) {
  static const char plain[] = "abcdefghijklmnopqrstuvwxyz ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  static const char special[] = "<>&'\"";
  std::string text(8 + random() % 40, ' ');
  for (char& c : text) {
    c = random() % 100 < entities ? special[random() % 5] : plain[random() % (sizeof plain - 1)];
  }
  return text;
}

inline XmlRpcValue Int(std::mt19937& random) { return static_cast<int>(random()); }
inline XmlRpcValue Double(std::mt19937& random) { return (static_cast<double>(random()) - 2e9) / 997.0; }
inline XmlRpcValue String(std::mt19937& random) { return Text(random, 5); }

inline XmlRpcValue Struct(std::mt19937& random) {
  XmlRpcValue v;
  v["Active"] = random() % 2 == 0;
  v["Channel"] = static_cast<int>(random() % 64);
  v["Description"] = Text(random, 0);
  v["Factor"] = static_cast<double>(random() % 100000) / 1000.0;
  v["Index"] = static_cast<int>(random() % 10000);
  v["Maximum"] = Double(random);
  v["Minimum"] = Double(random);
  v["Name"] = Text(random, 0);
  v["Unit"] = "mV";
  v["Value"] = Double(random);
  return v;
}

/// An array that takes about `size` bytes.
inline XmlRpcValue Array(std::size_t size, const Maker& maker, unsigned seed = 1) {
  std::mt19937 random(seed);
  XmlRpcValue array;
  array.assertArray(0);
  for (std::size_t bytes = 0; bytes < size;) {
    XmlRpcValue element = maker(random);
    bytes += element.toXml(0).size();
    array[array.size()] = std::move(element);
  }
  return array;
}

inline XmlRpcValue Base64(std::size_t size) {
  std::mt19937 random(1);
  std::vector<char> bytes(size * 3 / 4);
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

/// Arrays of ints inside chains of 32 arrays.
inline XmlRpcValue Nested(std::mt19937& random) {
  XmlRpcValue v = Array(1000, Int);
  v[0] = static_cast<int>(random());
  for (int level = 1; level < 32; ++level) {
    XmlRpcValue outer;
    outer[0] = std::move(v);
    v = std::move(outer);
  }
  return v;
}

}  // namespace documents

/// The shapes at about `size` bytes; a single struct stands for the many at 1 KB.
inline std::vector<Document> MakeDocuments(std::size_t size, const std::string& label) {
  using namespace documents;
  std::mt19937 random(1);
  std::vector<Document> all;
  const auto add = [&](const char* shape, const XmlRpcValue& value) {
    all.push_back({std::string(shape) + "/" + label, value.toXml(0)});
  };
  if (size <= 1000) add("struct", Struct(random));
  add("ints", Array(size, Int));
  add("doubles", Array(size, Double));
  add("strings", Array(size, String));
  if (size > 1000) add("structs", Array(size, Struct));
  add("base64", Base64(size));
  add("nested", Array(size, Nested));
  return all;
}

inline std::vector<Document> AllDocuments() {
  std::vector<Document> all;
  const struct {
    std::size_t size;
    const char* label;
  } sizes[] = {{1000, "1KB"}, {100000, "100KB"}, {10000000, "10MB"}};
  for (const auto& size : sizes) {
    for (Document& document : MakeDocuments(size.size, size.label)) all.push_back(std::move(document));
  }
  return all;
}
