#include <benchmark/benchmark.h>
#include <xmlrpc-c/base.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <pugixml.hpp>

#include "bench/Documents.h"
#include "bench/SinglePass.h"

namespace {

using TarnXmlRpc::XmlRpcValue;

void TarnDecode(benchmark::State& state, const std::string& xml) {
  for (auto _ : state) {
    XmlRpcValue value;
    int offset = 0;
    if (!value.fromXml(xml, &offset)) state.SkipWithError("not read");
    benchmark::DoNotOptimize(value);
  }
}

void TarnEncode(benchmark::State& state, const std::string& xml) {
  XmlRpcValue value;
  int offset = 0;
  value.fromXml(xml, &offset);
  for (auto _ : state) benchmark::DoNotOptimize(value.toXml(0));
}

xmlrpc_value* XmlRpcCParse(xmlrpc_env* env, const std::string& xml) {
  xmlrpc_value* value = nullptr;
  xmlrpc_parse_value_xml(env, xml.data(), xml.size(), &value);
  return value;
}

void XmlRpcCDecode(benchmark::State& state, const std::string& xml) {
  xmlrpc_env env;
  xmlrpc_env_init(&env);
  for (auto _ : state) {
    xmlrpc_value* value = XmlRpcCParse(&env, xml);
    if (env.fault_occurred) {
      state.SkipWithError(env.fault_string);
      break;
    }
    xmlrpc_DECREF(value);
  }
  xmlrpc_env_clean(&env);
}

void XmlRpcCEncode(benchmark::State& state, const std::string& xml) {
  xmlrpc_env env;
  xmlrpc_env_init(&env);
  xmlrpc_value* value = XmlRpcCParse(&env, xml);
  for (auto _ : state) {
    xmlrpc_mem_block* block = XMLRPC_MEMBLOCK_NEW(char, &env, 0);
    xmlrpc_serialize_value(&env, block, value);
    benchmark::DoNotOptimize(XMLRPC_MEMBLOCK_CONTENTS(char, block));
    XMLRPC_MEMBLOCK_FREE(char, block);
  }
  if (value != nullptr) xmlrpc_DECREF(value);
  xmlrpc_env_clean(&env);
}

void PugiDecode(benchmark::State& state, const std::string& xml) {
  for (auto _ : state) {
    pugi::xml_document document;
    if (!document.load_buffer(xml.data(), xml.size())) state.SkipWithError("not parsed");
    benchmark::DoNotOptimize(document);
  }
}

void PugiEncode(benchmark::State& state, const std::string& xml) {
  struct Writer : pugi::xml_writer {
    std::string text;
    void write(const void* data, std::size_t size) override { text.append(static_cast<const char*>(data), size); }
  };
  pugi::xml_document document;
  document.load_buffer(xml.data(), xml.size());
  for (auto _ : state) {
    Writer writer;
    document.save(writer, "", pugi::format_raw | pugi::format_no_declaration, pugi::encoding_utf8);
    benchmark::DoNotOptimize(writer.text);
  }
}

void FloorDecode(benchmark::State& state, const std::string& xml) {
  for (auto _ : state) {
    const SinglePass::Value value = SinglePass(xml).value();
    benchmark::DoNotOptimize(value.is.index());
  }
}

void Copy(benchmark::State& state, const std::string& xml) {
  for (auto _ : state) {
    const std::unique_ptr<char[]> copy(new char[xml.size()]);
    std::memcpy(copy.get(), xml.data(), xml.size());
    benchmark::DoNotOptimize(copy.get());
    benchmark::ClobberMemory();
  }
}

}  // namespace

/// XmlRpcValue_bench [FOLDER] [Google Benchmark's options]: with a folder, the documents are also written there, for
/// the peers that are no libraries.
int main(int argc, char** argv) {
  static const std::vector<Document> documents = AllDocuments();
  if (argc > 1 && argv[1][0] != '-') {
    for (const Document& document : documents) {
      std::string name = document.name;
      name[name.find('/')] = '_';
      std::ofstream(std::string(argv[1]) + "/" + name + ".xml", std::ios::binary) << document.xml;
    }
    argv[1] = argv[0];
    --argc;
    ++argv;
  }
  xmlrpc_limit_set(XMLRPC_XML_SIZE_LIMIT_ID, 100000000);
  benchmark::Initialize(&argc, argv);
  const struct {
    const char* name;
    void (*run)(benchmark::State&, const std::string&);
  } runs[] = {{"decode/tarn", TarnDecode},    {"decode/xmlrpc-c", XmlRpcCDecode},
              {"decode/pugixml", PugiDecode}, {"decode/floor", FloorDecode},
              {"encode/tarn", TarnEncode},    {"encode/xmlrpc-c", XmlRpcCEncode},
              {"encode/pugixml", PugiEncode}, {"copy/memcpy", Copy}};
  for (const Document& document : documents) {
    for (const auto& run : runs) {
      benchmark::RegisterBenchmark((std::string(run.name) + "/" + document.name).c_str(), run.run, document.xml);
    }
  }
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
