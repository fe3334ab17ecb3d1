#include <malloc.h>
#include <sys/resource.h>
#include <xmlrpc-c/base.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <new>
#include <string>

#include "xmlrpc/XmlRpcValue.h"

static std::size_t allocated = 0, peak = 0;  // through operator new, and the most at once

[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const block = std::malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  peak = std::max(peak, allocated += malloc_usable_size(block));
  return block;
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
  allocated -= malloc_usable_size(block);
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept { operator delete(block); }

namespace {

long PeakBytes() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss * 1024;
}

/// What encoding allocates at the most at once, and the text that comes of it.
bool PrintEncoding(const std::string& xml) {
  TarnXmlRpc::XmlRpcValue value;
  int offset = 0;
  if (!value.fromXml(xml, &offset)) return false;
  const std::size_t before = peak = allocated;
  const std::string text = value.toXml(0);
  std::printf("%zu %zu\n", peak - before, text.size());
  return true;
}

bool Decode(const std::string& peer, const std::string& xml) {
  if (peer == "tarn") {
    static TarnXmlRpc::XmlRpcValue value;
    int offset = 0;
    return value.fromXml(xml, &offset);
  }
  xmlrpc_limit_set(XMLRPC_XML_SIZE_LIMIT_ID, 100000000);
  xmlrpc_env env;
  xmlrpc_env_init(&env);
  xmlrpc_value* value = nullptr;
  xmlrpc_parse_value_xml(&env, xml.data(), xml.size(), &value);
  return env.fault_occurred == 0;
}

}  // namespace

/// XmlRpcValue_peak tarn|xmlrpc-c FILE: prints by how many bytes decoding FILE, once, raised the process's peak.
/// XmlRpcValue_peak encode FILE: prints how many bytes encoding what FILE holds allocates at once, and those of its
/// text.
int main(int argc, char** argv) {
  if (argc != 3) return 2;
  std::ifstream file(argv[2], std::ios::binary);
  std::string xml;
  file.seekg(0, std::ios::end);
  xml.resize(static_cast<std::size_t>(file.tellg()));
  file.seekg(0);
  file.read(xml.data(), static_cast<std::streamsize>(xml.size()));
  if (std::string(argv[1]) == "encode") return PrintEncoding(xml) ? 0 : 1;
  const long before = PeakBytes();
  if (!Decode(argv[1], xml)) return 1;
  std::printf("%ld\n", PeakBytes() - before);
  return 0;
}
